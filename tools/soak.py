#!/usr/bin/env python3
"""One agent with 64 streams, random relays and faults, for as long as you like; needs root.

  soak.py 30m                  scripts/soak.sh builds the agent first
  soak.py 90s --seed 7         the same choices as another run with that seed
  soak.py 30m --markdown       the table of docs/testing.md after the report

The agent runs in a network namespace of its own between scripted peers: four recorders of 16
channels, a cloud, a balancer that is of no use at first, and clients of the pages. Random relays
carry bytes both ways, each compared with the pattern it was taken from, and are ended by camera or
cloud, properly or by a reset. Meanwhile one fault follows the other, at times two at once.

Ends with status 1 and the reason when bytes differ or are missing, a stream does not come back in
the time that its back-off allows, the agent ends with more memory, descriptors or threads than it
began with (see the limits below), ends by itself, writes a sanitizer's report, or takes more than
two seconds to stop.
"""

import argparse
import asyncio
import contextlib
import os
import random
import re
import resource
import signal
import subprocess
import sys
import tempfile
import time
from collections import Counter, deque
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tests" / "agent"))
from harness import (BINARY, SANITIZED, SANITIZER_ENVIRONMENT, SANITIZER_REPORT,  # noqa: E402
                     STOP_LIMIT, enter_network_namespace, http_answer)
from checked import AT_ONCE, CAMERAS, CHUNK, CLOUD, RECORDERS, STREAMS, Peers, hang_up  # noqa: E402

LAST_LOOK, STOP = "a last look", "agent stopped"     # no faults
PAGES = ("/", "/api/channels", "/streams", "/cloudid", "/stats")
USELESS = [("sends garbage", b"\0\xff\r\n" * 999), ("refuses", http_answer("", "503 No")),
           ("names nothing", http_answer("")), ("says nothing", b"")]

# At the end, more than after the warm-up. What the C library keeps for each stream that has relayed
# is no leak.
MEMORY_LIMIT = 64 + 9 * STREAMS     # KiB
DESCRIPTORS_LIMIT = 2


class Soak:
    def __init__(self, seconds: float, seed: int, directory: Path):
        self.rng, self.directory, self.seconds = random.Random(seed), directory, seconds
        self.began = time.monotonic()
        self.longest = max(1, seconds / 15)     # s, fault or pause; faults have limits of theirs
        self.peers = Peers(seed)
        self.peers.useless = self.rng.sample(USELESS, 1 if seconds < 600 else 4)
        self.process: asyncio.subprocess.Process | None = None
        self.pages: Counter = Counter()         # clients of each kind
        self.lines: Counter = Counter()         # of the log, by their text without the values
        self.tail: deque[str] = deque(maxlen=30)
        self.figures: list[tuple] = []

    # Faults: each is over, and undone, when its coroutine ends.

    async def cloud_gone(self, seconds: float) -> None:
        self.peers.cloud.close(reset=self.rng.random() < 0.5)
        await asyncio.sleep(seconds)
        await self.peers.cloud.open()

    async def cloud_stalls(self, seconds: float) -> None:
        self.peers.cloud_flows.clear()
        await asyncio.sleep(seconds)
        self.peers.cloud_flows.set()

    async def cameras_gone(self, seconds: float) -> None:
        gone = self.rng.sample(self.peers.recorders, 2)
        for recorder in gone:
            recorder.close(reset=self.rng.random() < 0.5)
        await asyncio.sleep(seconds)
        for recorder in gone:
            await recorder.open()

    async def cameras_answer(self, mode: str, seconds: float) -> None:
        chosen = self.rng.sample(range(RECORDERS), 2)
        self.peers.camera_mode = dict.fromkeys(chosen, mode)
        for i in chosen:
            self.peers.recorders[i].cut(reset=False)
        await asyncio.sleep(seconds)
        self.peers.camera_mode = {}

    async def cameras_reset(self, seconds: float) -> None:
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            self.rng.choice(self.peers.recorders).cut(reset=True)
            await asyncio.sleep(min(1, seconds))

    async def way_cut(self, host: str, seconds: float) -> None:
        """Nothing that the host sends arrives, nor is anybody told."""
        pref = 50 if host == CLOUD else 51
        await self.run(f"ip rule add pref {pref} from {host} blackhole")
        await asyncio.sleep(seconds)
        await self.run(f"ip rule del pref {pref}")

    async def balancer_gone(self, seconds: float) -> None:
        self.peers.balancer.close(reset=True)     # no running agent may mind
        await asyncio.sleep(seconds)
        await self.peers.balancer.open()

    async def few_descriptors(self, seconds: float) -> None:
        limits = resource.prlimit(self.process.pid, resource.RLIMIT_NOFILE)
        few = (max(8, self.descriptors() + self.rng.randint(-20, 5)), limits[1])
        resource.prlimit(self.process.pid, resource.RLIMIT_NOFILE, few)
        await asyncio.sleep(seconds)
        resource.prlimit(self.process.pid, resource.RLIMIT_NOFILE, limits)

    async def agent_paused(self, seconds: float) -> None:
        self.process.send_signal(signal.SIGSTOP)
        await asyncio.sleep(seconds)
        self.process.send_signal(signal.SIGCONT)

    # How it is done, seconds at the most; whether bytes may get lost, and whether the streams that
    # it concerns cannot be told from the others.
    FAULTS = {
        "cloud gone": (cloud_gone, 60, True, False),
        "cloud stalls": (cloud_stalls, 20, False, True),
        "cameras gone": (cameras_gone, 40, True, False),
        "cameras silent": (lambda self, s: self.cameras_answer("silent", s), 20, True, False),
        "cameras refuse": (lambda self, s: self.cameras_answer("refuses", s), 20, True, False),
        "cameras reset": (cameras_reset, 10, True, False),
        "way from the cloud cut": (lambda self, s: self.way_cut(CLOUD, s), 70, True, True),
        "way from the cameras cut": (lambda self, s: self.way_cut(CAMERAS, s), 70, True, True),
        "balancer gone": (balancer_gone, 10, False, False),
        "few descriptors": (few_descriptors, 30, False, False),
        "agent paused": (agent_paused, 8, False, True),
    }

    async def fault(self, kind: str) -> None:
        inject, most, is_lossy, is_silent = self.FAULTS[kind]
        seconds = 0.5 * (min(most, self.longest) / 0.5) ** self.rng.random()
        self.peers.disturb(kind, is_lossy, is_silent)
        await inject(self, seconds)
        self.peers.leave_alone(is_lossy)

    async def inject_faults(self, end: float) -> None:
        """Every kind before any of them again; at times two at once, or one close upon another."""
        # To get over a cut way takes longer than a short run.
        possible, kinds = [x for x in self.FAULTS if self.seconds >= 120 or "way" not in x], []
        while time.monotonic() < end:
            if len(kinds) < 2:
                kinds += self.rng.sample(possible, len(possible))
            chosen = {kinds.pop(0) for _ in range(1 + (self.rng.random() < 0.3))}
            await asyncio.gather(*map(self.fault, sorted(chosen)))
            if self.rng.random() < 0.7:
                await self.peers.all_back()
            await asyncio.sleep(self.rng.uniform(0, min(10, self.longest / 3)))

    # Clients of the pages.

    async def visit(self, page: str) -> None:
        peace = self.peers.peace()
        good = await self.peers.demand(peace, f"page {page}", self.read_page(page))
        if not good and self.peers.undisturbed(peace):
            self.peers.fail(f"page {page} came incomplete")

    async def read_page(self, page: str) -> bool:
        reader, writer = await asyncio.open_connection("127.0.0.1", 8282)
        writer.write(f"GET {page} HTTP/1.1\r\n\r\n".encode())
        answer = await reader.read(1 << 20) + await reader.read()
        writer.close()
        return answer.startswith(b"HTTP/1.1 200 OK") and len(answer) > 500

    async def visit_pages(self) -> None:
        while True:
            await asyncio.sleep(self.rng.uniform(0.2, 2))
            kind = self.rng.choice(("served", "served", "silent", "never reading"))
            with contextlib.suppress(OSError):
                if kind == "served":
                    await self.visit(self.rng.choice(PAGES))
                else:
                    writer = (await asyncio.open_connection("127.0.0.1", 8282))[1]
                    writer.transport.pause_reading()
                    if kind == "never reading":
                        writer.write(b"GET /streams HTTP/1.1\r\n\r\n")
                    await asyncio.sleep(self.rng.uniform(0, 6))
                    hang_up(writer, reset=self.rng.random() < 0.5)
                self.pages[kind] += 1

    # The agent.

    async def run(self, command: str) -> None:
        process = await asyncio.create_subprocess_exec(*command.split())
        if await process.wait() != 0:
            self.peers.fail(f"{command}: status {process.returncode}")

    async def start_agent(self) -> None:
        urls = [f"--stream=rtsp://user:password@{CAMERAS}:{recorder.port}/{{1-16}}"
                for recorder in self.peers.recorders]
        self.process = await asyncio.create_subprocess_exec(
            BINARY, "-d", "-c", self.directory, "-f", self.directory / "status", "-v", "Maker",
            "-m", "Cam-1", *urls, stderr=subprocess.PIPE, env=SANITIZER_ENVIRONMENT | os.environ)

    async def read_log(self) -> None:
        rest = b""
        while data := await self.process.stderr.read(CHUNK):
            *lines, rest = (rest + data).split(b"\n")
            for line in lines:
                text = line.decode("latin-1")
                self.tail.append(text)
                if SANITIZER_REPORT.search(text):
                    self.peers.fail(f"the agent reports: {text}")
                if head := re.match(r"\[.{19}\] \[(.....)\] (.*)", text):
                    text = re.split(r"[{]|rtsp:|: OPTIONS|: RTSP|response: ", head[2])[0]
                    self.lines[f"{head[1]} {re.sub(r'[0-9.]+', 'N', text)}"] += 1
        self.peers.fail("the agent ended by itself")

    def descriptors(self) -> int:
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))

    def figure(self, when: str) -> tuple:
        process = Path(f"/proc/{self.process.pid}")
        memory = re.search(r"Pss_Anon:\s+(\d+)", (process / "smaps_rollup").read_text())[1]
        ticks = (process / "stat").read_text().rpartition(")")[2].split()[11:13]
        return (when, int(memory), self.descriptors(), len(os.listdir(process / "task")),
                sum(map(int, ticks)) / os.sysconf("SC_CLK_TCK"), self.peers.served,
                self.peers.bytes / 1e9)

    def note(self, when: str) -> None:
        self.figures.append(self.figure(when))
        _, memory, descriptors, threads, seconds, served, gigabytes = self.figures[-1]
        per_gigabyte = f" ({seconds / gigabytes:.2f} s/GB)" if gigabytes else ""
        print(f"{time.monotonic() - self.began:6.0f} s, {when}: {memory} KiB, "
              f"{descriptors} descriptors, {threads} threads, {seconds:.2f} s of processor"
              f"{per_gigabyte}, {served} relays, {gigabytes:.3f} GB, "
              f"{sum(self.peers.faults.values())} faults", flush=True)

    def excess(self) -> str:
        """In what the agent holds more than it should, or nothing."""
        (registered, warm), now = self.figures[:2], self.figure("")
        limits = (("KiB", 1, warm, 1e9 if SANITIZED else MEMORY_LIMIT),
                  ("descriptors", 2, registered, DESCRIPTORS_LIMIT), ("threads", 3, registered, 0))
        return ", ".join(f"{now[i]} {name} at the end, {base[i]} {base[0]}"
                         for name, i, base, limit in limits if now[i] - base[i] > limit)

    # The course of things.

    async def calm_down(self) -> None:
        """Every relay ends, every stream is registered and answers."""
        self.peers.hush.set_result(None)
        while self.peers.relays or self.peers.lost:
            await asyncio.sleep(0.05)
        self.peers.lose(range(1, STREAMS + 1), LAST_LOOK)
        await self.peers.all_back()

    async def warm_up(self) -> None:
        self.peers.lose(range(1, STREAMS + 1), "start")
        self.peers.faults["balancer refuses connections"] += 1
        await self.start_agent()
        self.background = [asyncio.create_task(x) for x in (self.peers.watch(), self.read_log())]
        await asyncio.sleep(0.5)
        await self.peers.balancer.open()
        await self.peers.all_back()
        self.note("all registered")
        for page in PAGES:
            await self.visit(page)
        self.peers.hush = asyncio.Future()
        self.peers.together = True
        while sum(relay.camera.done() for relay in self.peers.relays.values()) < STREAMS:
            await asyncio.sleep(0.02)
        await asyncio.sleep(1)
        await self.calm_down()
        self.peers.together = False
        self.note("after the warm-up")

    async def course(self) -> None:
        await self.warm_up()
        end = self.began + self.seconds - min(60, 0.3 * self.seconds)
        self.peers.hush = asyncio.Future()
        visitor = asyncio.create_task(self.visit_pages())
        faults = asyncio.create_task(self.inject_faults(end))
        while not (await asyncio.wait([faults], timeout=max(180, self.seconds / 12)))[0]:
            self.note("under way")
        faults.result()
        await self.peers.all_back()
        visitor.cancel()
        await self.calm_down()
        deadline = time.monotonic() + AT_ONCE
        while (excess := self.excess()) and time.monotonic() < deadline:
            await asyncio.sleep(0.2)
        self.note("at the end")
        if excess:
            self.peers.fail(excess)
        for page in PAGES:
            await self.visit(page)
        if (self.directory / "status").read_text() != "1":
            self.peers.fail("the status file does not hold 1")
        self.peers.hush = asyncio.Future()
        await asyncio.sleep(3)
        await self.stop_agent()

    async def stop_agent(self) -> None:
        for task in self.background:
            task.cancel()
        await asyncio.gather(*self.background, return_exceptions=True)
        self.peers.disturb(STOP, is_lossy=True, is_silent=False)
        relays = len(self.peers.relays)
        began = time.monotonic()
        self.process.terminate()
        rest = asyncio.create_task(self.process.stderr.read())
        async with asyncio.timeout(15):
            status = await self.process.wait()
        seconds = time.monotonic() - began
        print(f"stopped with {relays} relays in {seconds:.3f} s, status {status}")
        if seconds > STOP_LIMIT or status != 0 or SANITIZER_REPORT.search(str(await rest)):
            self.peers.fail(f"stop took {seconds:.1f} s, status {status}")
        if (self.directory / "status").exists():
            self.peers.fail("the status file is still there")

    def print_report(self, markdown: bool) -> None:
        print("log lines:", *(f"{n:9} {text}" for text, n in self.lines.most_common()), sep="\n")
        print("page clients:", dict(self.pages))
        faults, back = self.peers.faults, self.peers.back
        rows = [(kind, faults.get(kind, ""), *quantiles(back.get(kind, [])))
                for kind in sorted({*faults, *back} - {LAST_LOOK, STOP})]
        tables = ((("fault, or end of a relay", "times", "streams back", "median s", "99 % s",
                    "longest s"), rows),
                  (("", "KiB", "descriptors", "threads", "processor s", "relays", "GB"),
                   [(*row[:4], f"{row[4]:.1f}", row[5], f"{row[6]:.2f}") for row in self.figures]))
        for titles, rows in tables[:1 + markdown]:
            widths = [max(len(str(row[i])) for row in (titles, *rows)) for i in range(len(titles))]
            for row in (titles, ["-" * width for width in widths], *rows):
                print("| " + " | ".join(f"{x:{w}}" for x, w in zip(row, widths)) + " |")


def quantiles(values: list[float]) -> tuple:
    values = sorted(values)
    places = (len(values) // 2, int(len(values) * 0.99), len(values) - 1)
    return len(values), *(f"{values[i]:.2f}" if values else "" for i in places)


async def soak(options: argparse.Namespace, directory: Path) -> int:
    run = Soak(options.time, options.seed, directory)
    try:
        for server in (run.peers.cloud, *run.peers.recorders):
            await server.open()
        course = asyncio.create_task(run.course())
        await asyncio.wait([course, run.peers.failed], return_when=asyncio.FIRST_COMPLETED)
        if not run.peers.failed.done():
            course.result()
        run.print_report(options.markdown)
    finally:
        if run.process and run.process.returncode is None:
            run.process.kill()
            await run.process.wait()
    if run.peers.failed.done():
        print("its last lines:", *run.tail, f"FAILED: {run.peers.failed.result()}", sep="\n")
    return int(run.peers.failed.done())


def duration(text: str) -> float:
    match = re.fullmatch(r"(\d+)([smh]?)", text)
    return int(match[1]) * {"": 1, "s": 1, "m": 60, "h": 3600}[match[2]]


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("time", type=duration, help="of all of it, such as 90s, 30m or 8h")
    parser.add_argument("--seed", type=int, default=time.time_ns() % 10**6, help="of the choices")
    parser.add_argument("--markdown", action="store_true", help="print figures as a table too")
    options = parser.parse_args()
    print(f"seed {options.seed}", flush=True)
    enter_network_namespace()
    for command in ("ip rule add pref 100 lookup local", "ip rule del pref 0"):
        subprocess.run(command.split(), check=True)     # so that a rule can come before it
    with tempfile.TemporaryDirectory() as directory:
        sys.exit(asyncio.run(soak(options, Path(directory))))


if __name__ == "__main__":
    main()
