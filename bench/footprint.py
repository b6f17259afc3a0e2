#!/usr/bin/env python3
"""Memory, binary size and times of the agent with 64 streams, beside those of the plain relay."""

import statistics
import sys

from harness import AGENT, BUILD, KINDS, STREAMS, Rig, Verdicts, prepare, rig

TIME_LIMIT = 50           # s for all of it
STARTS = 7
RELAY_ENDS = 3            # of one relay, and of all of them at once
PACED = "paced 500 500000 0"
FLOOD = "bulk 300 1"      # both ways, so that every buffer has been full

IDLE_LIMIT = 1024         # KiB Pss, all streams registered
RELAYING_LIMIT = 3072     # KiB Pss, all relays established
START_LIMIT = 50          # ms to the last registration
AGAIN_LIMIT = 250         # ms from the end of a relay to its stream's registration


def measure_memory(title: str, kind: str, http: bool, verdicts: Verdicts) -> None:
    print(f"memory, {title}, {STREAMS} streams")
    with rig(kind, http=http) as relay:
        limited = verdicts.check if kind == "agent" else lambda *a: verdicts.note(*a[:2], a[3])
        relay.ask("keepalive")
        limited("registered and idle, Pss", relay.pss_kib(), IDLE_LIMIT, "KiB")
        relay.ask("open")
        relay.ask(f"{PACED} {relay.relay.pid}")
        limited("relaying video, Pss", relay.pss_kib(), RELAYING_LIMIT, "KiB")
        relay.ask(f"{FLOOD} {relay.relay.pid}")
        limited("relaying, all buffers used both ways, Pss", relay.pss_kib(), RELAYING_LIMIT, "KiB")
        relay.ask(f"end {STREAMS}")
        verdicts.note("registered again after relays, Pss", relay.pss_kib(), "KiB")


def measure_starts(kind: str, verdicts: Verdicts) -> None:
    times = []
    for _ in range(STARTS):
        with rig(kind) as relay:
            times.append(relay.start_ms)
    name = f"{kind}, {STREAMS} registered after (up to {max(times):.1f})"
    if kind == "agent":
        verdicts.check(name, statistics.median(times), START_LIMIT, "ms")
    else:
        verdicts.note(name, statistics.median(times), "ms")


def measure_ends(kind: str, verdicts: Verdicts) -> None:
    with rig(kind) as relay:
        for count in (1, STREAMS):
            results = [end_relays(relay, count) for _ in range(RELAY_ENDS)]
            median = statistics.median(result["median_ns"] for result in results) / 1e6
            worst = max(result["max_ns"] for result in results) / 1e6
            name = f"{kind}, {count} ended, again after (up to {worst:.1f})"
            if kind == "agent":
                verdicts.check(name, median, AGAIN_LIMIT, "ms")
            else:
                verdicts.note(name, median, "ms")


def end_relays(relay: Rig, count: int) -> dict[str, int]:
    relay.ask("open")
    relay.ask(f"paced 50 500000 0 {relay.relay.pid}")
    return relay.ask(f"end {count}")


def main() -> None:
    prepare(TIME_LIMIT)
    verdicts = Verdicts()
    measure_memory("agent without HTTP", "agent", False, verdicts)
    measure_memory("agent with HTTP", "agent", True, verdicts)
    measure_memory("plain relay", "plain", False, verdicts)
    print("times")
    for kind in KINDS:
        measure_starts(kind, verdicts)
    for kind in KINDS:
        measure_ends(kind, verdicts)
    print("binaries")
    verdicts.note("agent", AGENT.stat().st_size / 1024, "KiB")
    verdicts.note("plain relay", (BUILD / "plain_relay").stat().st_size / 1024, "KiB")
    sys.exit(1 if verdicts.missed else 0)


if __name__ == "__main__":
    main()
