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

ROOT = Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "bench"
AGENT = Path(os.environ.get("CAMERA_AGENT", ROOT / "build" / "release" / "camera-agent"))
STREAMS = 64
BALANCER_PORT = 8111
KINDS = ("agent", "plain")
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
    """A relay process with a load generator of its own; all streams registered.

    Kinds: "agent", "plain", and "control", a second plain relay in the agent's place.
    """

    def __init__(self) -> None:
        self.processes: list[subprocess.Popen] = []

    def set_up(self, kind: str, streams: int, http: bool, niceness: int, config: str) -> None:
        cloud, camera = (7003, 7004) if kind == "plain" else (7001, 7002)
        balancer = BALANCER_PORT if kind == "agent" else 0
        self.load = self.start([BUILD / "load", streams, cloud, camera, balancer],
                               stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.answer("ready")
        command = [BUILD / "plain_relay", streams, cloud, camera]
        if kind == "agent":
            command = [AGENT, "-m", "bench", "-v", "bench", "-c", config,
                       "-s", f"rtsp://127.0.0.1:{camera}/{{1-{streams}}}",
                       *(["-p", "7005"] if http else ["-n"])]
        begin = time.monotonic_ns()
        self.relay = self.start(["nice", "-n", niceness, *command] if niceness else command)
        self.start_ms = (self.answer("at_ns")["at_ns"] - begin) / 1e6

    def start(self, command: list, **pipes) -> subprocess.Popen:
        process = subprocess.Popen([str(word) for word in command], **pipes)
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
        """Own pages, in memory or swapped out, and Pss of the relay."""
        rollup = Path(f"/proc/{self.relay.pid}/smaps_rollup").read_text()
        kib = {words[0]: int(words[1]) for words in map(str.split, rollup.splitlines()[1:])}
        return kib["Anonymous:"] + kib["Swap:"], kib["Pss:"]

    def close(self) -> None:
        for process in reversed(self.processes):
            process.terminate()
            try:
                process.wait(5)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()


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
