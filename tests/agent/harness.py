"""What the tests of the whole agent stand on: the process under test and the rig around it.

Agent runs the real binary, keeps its log and looks at it through /proc. Rig puts it between a
scripted camera, a scripted cloud and its balancer, and lends their connections to the test.
"""

import contextlib
import ctypes
import errno
import fcntl
import mmap
import os
import queue
import re
import signal
import socket
import struct
import subprocess
import sys
import threading
import time
from datetime import datetime, timezone
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
SIMULATORS = ROOT / "tools" / "simulators"
sys.path.insert(0, str(SIMULATORS))

import pytest                                                                  # noqa: E402
from scripted import (CloudConnection, Connection, Request, ScriptedBalancer,  # noqa: E402
                      ScriptedCamera, ScriptedCloud, http_answer, never_read)

BINARY = Path(os.environ.get("CAMERA_AGENT", ROOT / "build" / "release" / "camera-agent")).resolve()
_CODE = BINARY.read_bytes() if BINARY.exists() else b""
_SANITIZERS = set(re.findall(rb"__([at]san)_init", _CODE))
# A program that runs the agent and looks for errors, with its options: valgrind.
CHECKER = os.environ.get("AGENT_PREFIX", "").split()
SANITIZED = bool(_SANITIZERS or CHECKER)
PRELOADABLE = b"GLIBC_2." in _CODE and not SANITIZED
STOP_LIMIT = 4.0 if SANITIZED else 2.0      # seconds from the signal to the exit
CLOUD_ID = "cloud-id_0001"

# Exit statuses of a sanitizer that found something: none that the agent has itself.
SANITIZER_ENVIRONMENT = {"ASAN_OPTIONS": "exitcode=97", "TSAN_OPTIONS": "exitcode=98",
                         "LSAN_OPTIONS": "exitcode=99", "UBSAN_OPTIONS": "print_stacktrace=1"}
SANITIZER_REPORT = re.compile(r"Sanitizer[:\s]|runtime error:")
LOG_PREFIX = re.compile(r"^\[\d\d:\d\d:\d\d \d\d-\d\d-\d{4}\] \[(ERROR|INFO |DEBUG)\] ", re.M)


def _target() -> tuple[list[str], list[str]]:
    """What runs a program for another processor, and what compiles libraries for it."""
    emulator, name = {8: ("mipsel", "mipsel-linux-gnu"), 40: ("arm", "arm-linux-gnueabihf"),
                      183: ("aarch64", "aarch64-linux-gnu"), 243: ("riscv64", "riscv64-linux-gnu"),
                      }.get(int.from_bytes(_CODE[18:20], "little"), ("", ""))   # ELF's e_machine
    if not emulator or os.uname().machine == emulator:
        return [], ["cc"]
    if b"/ld-linux.so.3" in _CODE:
        name = "arm-linux-gnueabi"
    return ([f"qemu-{emulator}-static", "-L", f"/usr/{name}"],
            [f"{name}-gcc", "-D_FILE_OFFSET_BITS=64", "-D_TIME_BITS=64"])


EMULATOR, COMPILER = _target()


def enter_network_namespace() -> None:
    """Moves the calling thread, and all that it starts, to a network of its own with loopback."""
    clone_newnet, siocsifflags, iff_up_running = 0x40000000, 0x8914, 0x41
    if ctypes.CDLL(None, use_errno=True).unshare(clone_newnet) != 0:
        raise OSError(ctypes.get_errno(), "a network namespace is needed, run as root")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
        fcntl.ioctl(sock, siocsifflags, struct.pack("16sh22x", b"lo", iff_up_running))


def wait_until(condition, timeout: float = 10, what: str = "condition") -> None:
    deadline = time.monotonic() + timeout
    while not condition():
        assert time.monotonic() < deadline, f"no {what} within {timeout} s"
        time.sleep(0.005)


class Clock:
    """The time of the rig's agents, see preload/clock.c."""

    WALL = datetime(2040, 2, 13, 4, 5, 6, 500_000, timezone.utc)    # where it stands at first

    def __init__(self, rig: "Rig", library: Path):
        shared = rig.preload(library)
        shared.write_bytes(struct.pack("qqq", 0, int(self.WALL.timestamp() * 1000) * 10**6, 1))
        with shared.open("r+b") as file:
            self._values = memoryview(mmap.mmap(file.fileno(), 0)).cast("q")

    def now(self) -> int:
        """Whole seconds by which it is ahead of the real one."""
        return round(self._values[0] / 1e9)

    def skip(self, seconds: int) -> None:
        self._values[0] += seconds * 10**9

    def set_wall(self, when: datetime) -> None:
        """Of the two clocks, the other one goes on."""
        self._values[1] = round(when.timestamp()) * 10**9 - self._values[0]

    def set_pace(self, pace: int) -> None:
        """By which time-outs pass faster; at 0 pauses pass by real time, from the return on."""
        self._values[2] = pace
        time.sleep(0.1 if pace == 0 else 0)


class Faults:
    """Calls of the rig's agents that go wrong, see preload/faults.c; preload it before a Clock."""

    FOREVER = 1 << 60

    def __init__(self, rig: "Rig", library: Path):
        self._shared = rig.preload(library)
        self._shared.write_bytes(bytes(64))

    def plan(self, function: str = "", error: str = "", first: int = 1, last: int = FOREVER,
             step: int = 1) -> None:
        """These calls, from now on, fail with this error, or by default in a way of their own."""
        number = getattr(errno, error, 0)
        with self._shared.open("r+b") as file:
            file.write(struct.pack("24s5q", function.encode(), number, first, last, step, 0))

    def calls(self) -> int:
        return struct.unpack("q", self._shared.read_bytes()[-8:])[0]


class Agent:
    """The binary, started; the log comes as "LEVEL message" without the time stamps."""

    def __init__(self, *arguments: str, stderr=None, prefix=(), environment={}):
        if prefix and CHECKER:
            pytest.skip("what is meant for the agent would meet the checker")
        self.process = subprocess.Popen(
            [*prefix, *CHECKER, *EMULATOR, BINARY, *map(str, arguments)], stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=stderr or subprocess.PIPE,
            env={**SANITIZER_ENVIRONMENT, **os.environ, **environment})
        self.pid = self.process.pid
        self.text = ""                  # all of standard error so far
        self.status: int | None = None
        self._arrivals: list[tuple[int, float]] = []    # length of text after each read, and when
        self._changed = threading.Condition()
        self._reader: threading.Thread | None = None
        if self.process.stderr:
            self.read_log(self.process.stderr.fileno())

    def read_log(self, descriptor: int) -> None:
        """Begins to read; only for a caller who has given a pipe of its own as `stderr`."""
        self._reader = threading.Thread(target=self._read, args=(descriptor,), daemon=True)
        self._reader.start()

    def _read(self, descriptor: int) -> None:
        while data := os.read(descriptor, 65536):
            with self._changed:
                self.text += data.decode("latin-1")
                self._arrivals.append((len(self.text), time.monotonic()))
                self._changed.notify_all()

    def mark(self) -> int:
        """The place in the log reached so far, to be given as `since`."""
        return len(self.text)

    def wait_for(self, text: str, count: int = 1, timeout: float = 10, since: int = 0) -> float:
        """Waits until the log has `text` so often; when the last one of them came."""
        with self._changed:
            assert self._changed.wait_for(lambda: self.text.count(text, since) >= count, timeout), \
                f"no {text!r} ({count}) within {timeout} s in:\n{self.text[-3000:]}"
            end = since
            for _ in range(count):
                end = self.text.index(text, end) + len(text)
            return next(when for length, when in self._arrivals if length >= end)

    def log(self, since: int = 0) -> list[str]:
        _, *parts = LOG_PREFIX.split(self.text[since:])
        return [f"{level.strip()} {message.removesuffix(chr(10))}"
                for level, message in zip(parts[::2], parts[1::2])]

    def wait(self, timeout: float = 10) -> int:
        self.status = self.process.wait(timeout)
        if self._reader:
            self._reader.join(10)
        return self.status

    def stop(self, number: int = signal.SIGTERM) -> float:
        """Seconds from the signal to the exit, whose status is 0."""
        began = time.monotonic()
        self.process.send_signal(number)
        self.process.wait(15)
        seconds = time.monotonic() - began
        assert self.wait() == 0
        return seconds

    def close(self) -> list[str]:
        """Ends the agent if need be; what is wrong with the way it ended."""
        problems = []
        if self.status is None:
            if self.process.poll() is not None:
                problems.append(f"ended by itself with status {self.process.returncode}")
            self.process.terminate()
            try:
                self.wait(15)
            except subprocess.TimeoutExpired:
                problems.append("does not stop")
                self.process.kill()
                self.wait()
            if self.status != 0:
                problems.append(f"stopped with status {self.status}")
        self.process.stdout.close()
        if SANITIZER_REPORT.search(self.text) or self.status not in (0, 1):
            problems.append(f"status {self.status}\n{self.text[-12000:]}")
        print(f"--- agent {self.pid}, status {self.status}:\n{self.text[-6000:]}")
        return problems

    # What /proc shows of the running process.

    def descriptors(self) -> int:
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def threads(self) -> int:
        """The agent's own: the thread sanitizer and qemu add one."""
        return len(os.listdir(f"/proc/{self.pid}/task")) - bool(b"tsan" in _SANITIZERS or EMULATOR)

    def memory_kib(self) -> int:
        """Without that of files, whose share depends on other programs."""
        rollup = Path(f"/proc/{self.pid}/smaps_rollup").read_text()
        return int(re.search(r"^Pss_Anon:\s+(\d+) kB", rollup, re.M)[1])

    def processor_seconds(self) -> float:
        user, system = Path(f"/proc/{self.pid}/stat").read_text().rpartition(")")[2].split()[11:13]
        return (int(user) + int(system)) / os.sysconf("SC_CLK_TCK")


def assert_merged(log: list[str], *threads: list[str]) -> None:
    """Nothing but the lines of these threads, each in its order, however they took turns."""
    left = [list(lines) for lines in threads]
    for line in log:
        lines = next((lines for lines in left if lines and lines[0] == line), None)
        assert lines, f"unexpected {line!r}, not one of {[x[0] for x in left if x]}, in {log}"
        lines.pop(0)
    assert not any(left), f"missing {left} in {log}"


def flood(connection: Connection) -> None:
    """Sends until nothing has been taken for a while: what lies between is full."""
    block = bytes(65536)
    with contextlib.suppress(OSError):      # a time-out, or the end of the connection
        connection.sock.settimeout(0.5)
        while True:
            connection.sock.send(block)


class Rig:
    """Camera, cloud and balancer, all on loopback, and the agents that a test starts."""

    def __init__(self, directory: Path):
        self.directory = directory
        self.status_file = directory / "status"
        (directory / "cloud.id").write_text(CLOUD_ID + "\n")
        self.peers = contextlib.ExitStack()
        self.camera = self.peers.enter_context(ScriptedCamera(self._lend))
        self.cloud = self.peers.enter_context(ScriptedCloud())
        self.balancer: ScriptedBalancer | None = None
        self.environment: dict[str, str] = {}
        self.agents: list[Agent] = []
        self._handshaken: dict[str, queue.Queue] = {}

    def balance(self, *answers) -> ScriptedBalancer:
        """Starts the balancer; by default it names the cloud of this rig."""
        answers = answers or (http_answer(f"127.0.0.1|{self.cloud.port}"),)
        self.balancer = self.peers.enter_context(ScriptedBalancer(list(answers)))
        return self.balancer

    def preload(self, library: Path) -> Path:
        """Into the agents to come, if they can be preloaded; the file that it shares."""
        shared = self.directory / library.stem
        if PRELOADABLE:
            preloaded = f"{self.environment.get('LD_PRELOAD', '')} {library}"
            self.environment["LD_PRELOAD"] = preloaded
            self.environment[f"TEST_{library.stem.upper()}"] = str(shared)
        return shared

    def run(self, *arguments: str, environment={}, **keywords) -> Agent:
        agent = Agent(*arguments, environment={**self.environment, **environment}, **keywords)
        self.agents.append(agent)
        return agent

    def arguments(self, *urls: str) -> list[str]:
        return ["-c", str(self.directory), "-v", "Maker", "-m", "Cam-1",
                *(f"--stream={url}" for url in urls or [self.camera.url()])]

    def start(self, *urls: str, options=("-d", "-n"), **keywords) -> Agent:
        if not self.balancer:
            self.balance()
        return self.run(*self.arguments(*urls), *options, **keywords)

    def serve(self, *urls: str, options=()) -> Agent:
        """Starts an agent and waits until its pages can be had."""
        agent = self.start(*urls, options=("-d", *options))
        agent.wait_for("Web server started")
        return agent

    # Relays: the camera's connections are lent to the test, which works on both ends.

    def handshaken(self, path: str) -> queue.Queue:
        return self._handshaken.setdefault(path, queue.Queue())

    def lent(self, path: str = "/stream") -> Connection:
        """The camera's next connection of that path whose handshake is over."""
        return self.handshaken(path).get(timeout=10)

    def _lend(self, connection: Connection, request: Request) -> None:
        self.handshaken(request.path).put(connection)
        never_read(connection, request)

    def relay(self, number: int = 1, path: str = "/stream") -> tuple[Connection, CloudConnection]:
        """The camera's and the cloud's end of a relay that has begun."""
        cloud = self.cloud.accept(number)
        self.handshaken(path).queue.clear()     # of relays that nobody asked for
        cloud.start_relay()
        return self.lent(path), cloud

    def close(self) -> list[str]:
        """Ends everything; what is wrong. An agent may stop before it has said anything."""
        problems = [problem for agent in self.agents for problem in agent.close()]
        with contextlib.suppress(AssertionError):
            self.peers.close()
        return problems + [str(error) for error in self.camera.errors + self.cloud.errors
                           if "before the close: got 0 bytes" not in str(error)]


@pytest.fixture(scope="session", autouse=True)
def network():
    assert BINARY.exists(), f"{BINARY} is not built"
    enter_network_namespace()


@pytest.fixture
def rig(tmp_path):
    rig = Rig(tmp_path)
    yield rig
    problems = rig.close()
    assert not problems, "\n".join(problems)


class DroppingListener(contextlib.ExitStack):
    """Its backlog is full: on loopback, attempts to connect are dropped without an answer."""

    def __init__(self, port: int = 0):
        super().__init__()
        listener = self.enter_context(socket.create_server(("127.0.0.1", port), backlog=0))
        self.port = listener.getsockname()[1]
        for _ in range(3):
            client = self.enter_context(socket.socket())
            client.setblocking(False)
            client.connect_ex(("127.0.0.1", self.port))
