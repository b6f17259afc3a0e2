"""What the benchmarks share: a network of their own, the two C programs, relays under load."""

import contextlib
import fcntl
import os
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
from collections.abc import Iterator
from pathlib import Path
from string import Template
from typing import NamedTuple

ROOT = Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "bench"
AGENT = Path(os.environ.get("CAMERA_AGENT", ROOT / "build" / "release" / "camera-agent"))
STREAMS = 64
BALANCER_PORT = 8111
PAGES_PORT = 7999
KINDS = ("agent", "plain")


class Relay(NamedTuple):
    """How to start a relay. $names in the command and in the files are filled in by Rig."""

    command: str
    proxy: bool = True    # it listens for the cloud instead of connecting to it
    file: str = ""        # in this folder; stands filled in in $folder
    package: str = ""     # has the program, and its version


PLAIN = Relay("$build/plain_relay $streams $cloud $camera", proxy=False)
RELAYS = {
    "agent": Relay("$agent -m bench -v bench -c $folder -s rtsp://127.0.0.1:$camera/{1-$streams} "
                   "$pages", proxy=False),
    "plain": PLAIN,
    "control": PLAIN,    # in the agent's place
    "socat": Relay("socat TCP-LISTEN:$cloud,bind=127.0.0.1,reuseaddr,backlog=256,fork,nodelay "
                   "TCP:127.0.0.1:$camera,nodelay", package="socat"),
    "haproxy": Relay("haproxy -db -dS -f $folder/haproxy.cfg", file="haproxy.cfg",
                     package="haproxy"),
    "haproxy, splice": Relay("haproxy -db -f $folder/haproxy.cfg", file="haproxy.cfg",
                             package="haproxy"),
    "nginx": Relay("nginx -e stderr -p $folder -c $folder/nginx.conf", file="nginx.conf",
                   package="nginx"),
    "direct": Relay("sleep infinity"),    # no relay: the cloud connects to the camera
}
FIRST_PORT = 7001    # each relay has two of its own, for cloud and camera, in the order above
INSIDE = "CAMERA_AGENT_BENCH_NETWORK"    # set in the process that has its own network


def prepare(time_limit: int) -> None:
    """Enters a network namespace of its own, compiles, and ends the run after `time_limit` s."""
    if INSIDE not in os.environ:
        user = [] if os.geteuid() == 0 else ["--map-root-user"]
        os.environ[INSIDE] = "1"
        os.execvp("unshare", ["unshare", "--net", *user, sys.executable, *sys.argv])
    bring_loopback_up()
    if not AGENT.exists():
        sys.exit(f"no {AGENT}: build it first (cmake --preset release; "
                 "cmake --build --preset release)")
    BUILD.mkdir(parents=True, exist_ok=True)
    for program in ("load", "plain_relay"):
        subprocess.run(["cc", "-O2", "-Wall", "-Wextra", "-pthread", "-o", BUILD / program,
                        ROOT / "bench" / f"{program}.c"], check=True)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))    # so that rigs are taken down
    signal.signal(signal.SIGALRM, lambda *_: sys.exit(f"not done within {time_limit} s"))
    signal.alarm(time_limit)


def bring_loopback_up() -> None:
    get_flags, set_flags, up = 0x8913, 0x8914, 1
    with socket.socket() as s:
        request = fcntl.ioctl(s, get_flags, struct.pack("16sH14x", b"lo", 0))
        flags = struct.unpack("16sH14x", request)[1]
        fcntl.ioctl(s, set_flags, struct.pack("16sH14x", b"lo", flags | up))


class Rig:
    """A relay, started as RELAYS says, with a load generator of its own; all streams registered."""

    def __init__(self) -> None:
        self.processes: list[subprocess.Popen] = []

    def set_up(self, kind: str, streams: int, http: bool, niceness: int, folder: str) -> None:
        relay = RELAYS[kind]
        cloud = FIRST_PORT + 2 * list(RELAYS).index(kind)
        camera = cloud if kind == "direct" else cloud + 1
        names = {"agent": AGENT, "build": BUILD, "folder": folder, "streams": streams,
                 "cloud": cloud, "camera": camera, "pages": f"-p{PAGES_PORT}" if http else "-n"}
        if relay.file:
            text = (ROOT / "bench" / relay.file).read_text()
            Path(folder, relay.file).write_text(Template(text).substitute(names))
        command = [Template(word).substitute(names) for word in relay.command.split()]
        balancer = BALANCER_PORT if kind == "agent" else 0
        self.load = self.start([BUILD / "load", streams, cloud, camera, balancer,
                                *(["connect"] if relay.proxy else [])],
                               stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.answer("ready")
        begin = time.monotonic_ns()
        self.relay = self.start(["nice", "-n", niceness, *command] if niceness else command)
        self.start_ms = (self.answer("at_ns")["at_ns"] - begin) / 1e6

    def start(self, command: list, **pipes) -> subprocess.Popen:
        # A group of its own, for the children of a relay.
        process = subprocess.Popen([str(word) for word in command], process_group=0, **pipes)
        self.processes.append(process)
        return process

    def ask(self, command: str) -> dict[str, int]:
        self.load.stdin.write(f"{command} {self.relay.pid}\n")
        self.load.stdin.flush()
        return self.answer(command)

    def answer(self, awaited: str) -> dict[str, int]:
        line = self.load.stdout.readline()
        if not line:
            sys.exit(f"the load generator ended instead of answering: {awaited}")
        pairs = (word.partition("=") for word in line.split())
        return {key: int(value) for key, _, value in pairs if value}

    def memory_kib(self) -> tuple[int, int]:
        """Own pages, in memory or swapped out, and Pss of the relay with all its children.

        Pss_Anon counts a page that several of them still share once.
        """
        own = pss = 0
        for pid in process_tree(self.relay.pid):
            rollup = Path(f"/proc/{pid}/smaps_rollup").read_text()
            kib = {words[0]: int(words[1]) for words in map(str.split, rollup.splitlines()[1:])}
            own += kib["Pss_Anon:"] + kib["SwapPss:"]
            pss += kib["Pss:"]
        return own, pss

    def close(self) -> None:
        for process in reversed(self.processes):
            os.killpg(process.pid, signal.SIGTERM)
            try:
                process.wait(5)
            except subprocess.TimeoutExpired:
                os.killpg(process.pid, signal.SIGKILL)
                process.wait()


def process_tree(pid: int) -> list[int]:
    children = Path(f"/proc/{pid}/task/{pid}/children").read_text().split()
    return [pid, *(each for child in children for each in process_tree(int(child)))]


@contextlib.contextmanager
def rig(kind: str, streams: int = STREAMS, http: bool = False,
        niceness: int = 0) -> Iterator[Rig]:
    config = tempfile.mkdtemp(prefix="camera-agent-bench-")
    made = Rig()
    try:
        made.set_up(kind, streams, http, niceness, config)
        yield made
    finally:
        made.close()
        shutil.rmtree(config, ignore_errors=True)


class Verdicts:
    """Prints figures beside their limits, and remembers whether one was missed."""

    def __init__(self) -> None:
        self.missed = False

    def figure(self, name: str, value: float, unit: str, limit: float | None = None,
               note: str = "") -> None:
        verdict = ""
        if limit is not None:
            self.missed |= value > limit
            verdict = f"limit {limit:g} {'ok' if value <= limit else 'MISSED'}"
        print(f"  {name:<42}{value:9.2f} {unit:<4} {verdict:<17} {note}".rstrip(), flush=True)
