"""Whole lives of the agent with calls that fail: in the end it serves, or has said why it ends.

A life: an ID fetched and stored, a stream registered, relayed both ways, a page, a stop. In the
short form at most 12 calls of each function fail, one in each life, and the errors take turns; with
FAULTS=all every call fails, with every error that it may have.
"""

import contextlib
import itertools
import os
import queue
import time
from concurrent.futures import ThreadPoolExecutor
from http.client import HTTPException
from pathlib import Path
from urllib.request import urlopen

import pytest

import harness
from harness import wait_until
from scripted import http_answer, pattern

pytestmark = pytest.mark.skipif(not harness.PRELOADABLE, reason="it cannot be preloaded")

SHAPE, SHAPE_WITHOUT_PAGES = (8, 4), (5, 3)     # descriptors and threads in a relay
ENDS = {"web": "start web server", "proxy": "initialize proxy", "stream": "start stream",
        "load": "load configuration"}

# Function: where its failure may end a start, and its errors; SHORT moves one byte only.
CALLS = dict(row.split(": ") for row in """
socket: web EMFILE ENFILE ENOBUFS ENOMEM; connect: EINTR EAGAIN EADDRNOTAVAIL ENETUNREACH
ECONNREFUSED; accept4: EINTR EAGAIN EMFILE ENFILE ENOMEM ENOBUFS ECONNABORTED EPROTO; bind: web
EADDRINUSE EACCES ENOMEM; listen: web EADDRINUSE; setsockopt: web ENOMEM ENOBUFS EDOM; getsockopt:
ENOBUFS; recv: EINTR EAGAIN ENOMEM ECONNRESET ETIMEDOUT SHORT; send: EINTR EAGAIN ENOMEM ENOBUFS
EPIPE ECONNRESET SHORT; read: EINTR EAGAIN EIO; write: EINTR EAGAIN ENOMEM EPIPE SHORT; shutdown:
ENOTCONN; close: EINTR EIO; fcntl64: web EINTR; ioctl: EINVAL; pipe2: web EMFILE ENFILE; poll:
EINTR ENOMEM; ppoll: EINTR ENOMEM; open64: proxy EINTR EMFILE ENOSPC EACCES ENOMEM; fdopen: proxy
ENOMEM; fsync: proxy EIO ENOSPC EINVAL EROFS; fstat64: ENOMEM; stat64: EACCES; remove: EBUSY;
fgets: EIO; fputc: ENOSPC; fflush: proxy ENOSPC EINTR; fwrite: EPIPE EINTR; fclose: ENOSPC EINTR;
malloc: load proxy stream web ENOMEM; calloc: load proxy stream web ENOMEM; realloc: ENOMEM;
mmap64: proxy ENOMEM; madvise: EAGAIN; pthread_create: stream web EAGAIN; pthread_mutex_init: proxy
ENOMEM; sem_wait: EINTR; time: proxy EFAULT; localtime_r: EOVERFLOW
""".strip().replace("\n", " ").split("; "))


class Life:
    def __init__(self, directory: Path, libraries, function: str, error="SHORT", first=0, last=0,
                 step=1, relay_only=False):
        directory.mkdir()
        self.name = f"{function} {error} {first} to {last} by {step}"
        # A relay must not end for it.
        self.passes = relay_only or (function in ("recv", "send", "poll") and
                                     error in ("EINTR", "EAGAIN", "SHORT"))
        self.relay_only, self.plan = relay_only, (function, error, first, last, step)
        self.rig = rig = harness.Rig(directory)
        self.faults = harness.Faults(rig, libraries[0])
        harness.Clock(rig, libraries[1])
        if not relay_only:
            self.faults.plan(*self.plan)
        if function not in ("fstat64", "fgets"):
            (directory / "cloud.id").unlink()
        rig.balance(lambda _connection, request: http_answer(
            "cloud-id-1" if b"/uuid " in request else f"127.0.0.1|{rig.cloud.port}"))
        self.agent = rig.start(options=["-d", "-p", "18282", "-f", str(rig.status_file)])
        self.served, self.relays, self.worked, self.wrong = False, 0, 0, []
        began = time.monotonic()
        while not self.served and self.agent.process.poll() is None:
            assert time.monotonic() < began + 20, f"{self.name}: not served\n{self.agent.text}"
            with contextlib.suppress(AssertionError, OSError, queue.Empty):
                self.serve()
        self.stop_seconds = self.agent.stop() if self.served else self.agent.wait() * 0
        self.calls = self.faults.calls()
        self.wrong += self.agent.close()
        with contextlib.suppress(AssertionError):
            rig.peers.close()

    def take(self, connection, wanted: bytes) -> None:
        got = b""
        with contextlib.suppress(TimeoutError):
            while len(got) < len(wanted) and (piece := connection.recv()):
                got += piece
        if not wanted.startswith(got):
            self.wrong.append("relayed what was not sent")
        assert got == wanted

    def serve(self) -> None:
        """One registration. Without answers for a second the peers give up."""
        cameras = self.rig.handshaken("/stream")
        cloud = self.rig.cloud.accept(timeout=0.1)
        with contextlib.closing(cloud):
            cloud.timeout = 1
            cloud.keepalive()
            cameras.queue.clear()       # of a handshake that went wrong
            cloud.start_relay()
            camera = cameras.get(timeout=1)
            camera.timeout = 1
            self.relays += 1
            if self.relay_only:
                self.faults.plan(*self.plan)
            data = pattern(20_000)
            camera.send(data)
            cloud.send(data[::-1])
            self.take(cloud, data)
            self.take(camera, data[::-1])
            if self.relay_only:
                self.faults.plan()
            if "Select failed: Cannot allocate memory" in self.agent.text:
                shape = SHAPE_WITHOUT_PAGES     # an error that the web server does not survive
            else:
                shape = SHAPE
                wait_until(self.page_is_whole, 3)
            wait_until(lambda: (self.agent.descriptors(), self.agent.threads()) == shape, 1)
            self.worked, self.served = self.agent.processor_seconds(), True

    @staticmethod
    def page_is_whole() -> bool:
        with contextlib.suppress(OSError, HTTPException), \
                urlopen("http://127.0.0.1:18282/stats", timeout=3) as page:
            return page.read().endswith(b"</html>")
        return False

    def verdict(self, ends) -> list[str]:
        """What is wrong with it."""
        log = self.agent.log()
        errors = [line for line in log if line.startswith("ERROR ")]
        unsynced = self.plan[0] == "fsync" and self.plan[1] in ("EIO", "ENOSPC")
        found = {
            "served without its ID on disk":
                self.served and unsynced and self.plan[2] <= self.calls,
            "slow stop": self.stop_seconds > harness.STOP_LIMIT,
            f"{len(log)} lines of log": len(log) > 400,
            f"ended with {self.agent.status}, {errors[-1:]}":
                not self.served and (self.agent.status != 1 or not set(ends) & set(errors)),
            f"{self.relays} relays": self.passes and self.relays != 1,
            f"{self.worked} s of processor time": self.worked > 0.5,
        }
        return [f"{self.name}: {text}" for text in self.wrong + [x for x in found if found[x]]]


@pytest.fixture(scope="module")
def live(faults_library, clock_library, tmp_path_factory):
    """Lives, several at a time, each on a thread with a network of its own."""
    directory, numbers = tmp_path_factory.mktemp("lives"), itertools.count()
    with ThreadPoolExecutor(6, initializer=harness.enter_network_namespace) as pool:
        yield lambda plans: list(pool.map(
            lambda plan: Life(directory / str(next(numbers)), (faults_library, clock_library),
                              *plan), plans))


def judge(lives, ends, record_property) -> None:
    wrong = [text for life in lives for text in life.verdict(ends)]
    record_property("lives", (len(lives), sum(life.served for life in lives), len(wrong)))
    assert not wrong, "\n".join(wrong)


@pytest.mark.parametrize("function", CALLS)
def test_calls_that_fail(live, record_property, function):
    """One call, and ten in a row."""
    words = CALLS[function].split()
    ends = [f"ERROR Failed to {ENDS[word]}" for word in words if word in ENDS]
    errors = [word for word in words if word not in ENDS]
    calls = live([(function,)])[0].calls
    assert calls > 0
    if os.environ.get("FAULTS") == "all":
        plans = [(function, error, n, n + length - 1)
                 for n in range(1, calls + 2) for error in errors for length in (1, 10)]
    else:
        places = sorted({1 + i * (calls - 1) // 11 for i in range(12)})
        plans = [(function, error, n, n) for n, error in zip(places, itertools.cycle(errors))]
        plans += [(function, error, 1 + (calls - 1) // 2 * i, 10 + (calls - 1) // 2 * i)
                  for i, error in enumerate(errors[:3])]
    judge(live(plans), ends, record_property)


def test_storms(live, record_property):
    """In a life, or in its relay, every second call fails, or each moves a single byte."""
    forever = harness.Faults.FOREVER
    plans = [(function, "EINTR", 2, forever, 2) for function in
             ("poll", "ppoll", "accept4", "connect", "write", "sem_wait", "close")]
    plans += [(function, error, 2, forever, 2, True) for function in ("recv", "send")
              for error in ("EINTR", "EAGAIN")]
    plans += [("send", error, 1, 5, 1, True) for error in ("EAGAIN", "ENOBUFS", "ENOMEM")]
    plans += [(function, "SHORT", 1, forever, 1, function != "write")
              for function in ("recv", "send", "write")]
    judge(live(plans), [], record_property)
