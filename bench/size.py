#!/usr/bin/env python3
"""Size of a binary, its own memory with 1 and 64 streams, and how often it wakes when idle.

CAMERA_AGENT names the binary. Figures beside a limit are held to it; status 1 when one is missed.
"""

import argparse
import re
import statistics
import sys
import time
from pathlib import Path

from harness import AGENT, STREAMS, Rig, Verdicts, prepare, rig

TIME_LIMIT = 120    # s for all of it
STARTS = 3          # one start differs from the next by a page or two
IDLE_TIME = 10      # s
PACED = "paced 500 45 1"    # ms; 0.5 Mbit/s on each stream


def switches(relay: Rig) -> int:
    """Context switches of all threads so far: each wake-up ends in one."""
    return sum(int(count) for task in Path(f"/proc/{relay.relay.pid}/task").iterdir()
               for count in re.findall(r"ctxt_switches:\s+(\d+)", (task / "status").read_text()))


def wake_ups(relay: Rig) -> float:
    time.sleep(1)   # what the start left to do
    before, began = switches(relay), time.monotonic()
    time.sleep(IDLE_TIME)
    return (switches(relay) - before) / (time.monotonic() - began)


def own_pages(streams: int) -> list[float]:
    """KiB registered, and with 64 also relaying and registered again after that."""
    with rig("agent", streams, http=True) as relay:
        readings = [relay.memory_kib()[0]]
        for commands in (("open", PACED), (f"end {STREAMS}",)) if streams == STREAMS else ():
            for command in commands:
                relay.ask(command)
            readings.append(relay.memory_kib()[0])
    return readings


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    for name, unit in (("size", "bytes"), ("idle-1", "KiB"), ("idle-64", "KiB"),
                       ("wake-ups", "a second")):
        parser.add_argument(f"--{name}", type=float, metavar="LIMIT", help=unit)
    parser.add_argument("--size-only", action="store_true", help="do not run the binary")
    limits = parser.parse_args()
    verdicts = Verdicts()
    if limits.size_only:
        verdicts.figure("stripped", AGENT.stat().st_size, "B", limits.size)
        sys.exit(1 if verdicts.missed else 0)
    prepare(TIME_LIMIT)
    verdicts.figure("stripped", AGENT.stat().st_size, "B", limits.size)
    one, = map(statistics.median, zip(*(own_pages(1) for _ in range(STARTS))))
    idle, busy, after = map(statistics.median, zip(*(own_pages(STREAMS) for _ in range(STARTS))))
    verdicts.figure("own pages, 1 registered, pages on", one, "KiB", limits.idle_1)
    verdicts.figure(f"own pages, {STREAMS} registered, pages on", idle, "KiB", limits.idle_64)
    verdicts.figure("each relay adds", (busy - idle) / STREAMS, "KiB")
    verdicts.figure("after all relays have ended", after, "KiB")
    with rig("agent", STREAMS, http=True) as relay:
        verdicts.figure("wake-ups, idle", wake_ups(relay), "/s", limits.wake_ups)
    sys.exit(1 if verdicts.missed else 0)


if __name__ == "__main__":
    main()
