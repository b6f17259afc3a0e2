#!/usr/bin/env python3
"""Memory, binary size and times of the agent with 64 streams, beside those of the plain relay."""

import argparse
import statistics
import sys

from harness import AGENT, BUILD, KINDS, STREAMS, Rig, Verdicts, prepare, rig

TIME_LIMIT = 120          # s for all of it
STARTS = 7
MEMORY_STARTS = 3         # one start differs from the next by a page or two
RELAY_ENDS = 3            # of one relay, and of all of them at once
PACED = "paced {} 45 1"    # ms; 0.5 Mbit/s on each stream

IDLE_LIMIT = 744          # KiB of own pages, all streams registered: 732, and what starts differ
RELAY_LIMIT = 25          # KiB of own pages that each relay adds
KEPT_LIMIT = 9            # KiB of own pages that stay for each stream that has relayed
START_LIMIT = 50          # ms to the last registration
AGAIN_LIMIT = 250         # ms from the end of a relay to its stream's registration

IDLE = {"registered and idle": ["keepalive"]}
STATES = {**IDLE,
          "relaying video": ["open", PACED.format(500)],
          "relaying, all buffers used both ways": ["bulk 300 1"],
          "registered again after all relays": [f"end {STREAMS}"]}


def read_memory(kind: str, streams: int, http: bool,
                states: dict[str, list[str]]) -> list[tuple[int, int]]:
    """KiB of own pages and of Pss in each state, after its commands to the load generator."""
    readings = []
    with rig(kind, streams, http) as relay:
        for commands in states.values():
            for command in commands:
                relay.ask(command)
            readings.append(relay.memory_kib())
    return readings


def measure_memory(title: str, kind: str, http: bool, factor: float, verdicts: Verdicts) -> None:
    print(f"memory, {title}: own pages")
    for streams, states in ((1, IDLE), (STREAMS, STATES)):
        runs = [read_memory(kind, streams, http, states) for _ in range(MEMORY_STARTS)]
        own, pss = ([statistics.median(run[state][column] for run in runs)
                     for state in range(len(states))] for column in (0, 1))
        for state, name in enumerate(states):
            limited = kind == "agent" and streams == STREAMS and state == 0
            verdicts.figure(f"{streams} {name}", own[state], "KiB",
                            IDLE_LIMIT * factor if limited else None, f"Pss {pss[state]:.0f}")
    for name, state, limit in (("each relay adds", 2, RELAY_LIMIT),
                               ("each stream that has relayed keeps", 3, KEPT_LIMIT)):
        verdicts.figure(name, (own[state] - own[0]) / STREAMS, "KiB",
                        limit * factor if kind == "agent" else None)


def measure_starts(kind: str, limit: float | None, verdicts: Verdicts) -> None:
    times = []
    for _ in range(STARTS):
        with rig(kind) as relay:
            times.append(relay.start_ms)
    verdicts.figure(f"{kind}, {STREAMS} registered after", statistics.median(times), "ms", limit,
                    f"up to {max(times):.1f}")


def measure_ends(kind: str, limit: float | None, verdicts: Verdicts) -> None:
    with rig(kind) as relay:
        for count in (1, STREAMS):
            results = [end_relays(relay, count) for _ in range(RELAY_ENDS)]
            worst = max(result["max_ns"] for result in results) / 1e6
            verdicts.figure(f"{kind}, {count} ended, again after",
                            statistics.median(result["median_ns"] for result in results) / 1e6,
                            "ms", limit, f"up to {worst:.1f}")


def end_relays(relay: Rig, count: int) -> dict[str, int]:
    relay.ask("open")
    relay.ask(PACED.format(50))
    return relay.ask(f"end {count}")


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--tolerance", type=float, default=0, metavar="PERCENT",
                        help="that own pages may exceed their limits by, with another C library")
    factor = 1 + parser.parse_args().tolerance / 100
    prepare(TIME_LIMIT)
    verdicts = Verdicts()
    measure_memory("agent without HTTP", "agent", False, factor, verdicts)
    measure_memory("agent with HTTP", "agent", True, factor, verdicts)
    measure_memory("plain relay", "plain", False, factor, verdicts)
    print("times")
    for measure, limit in ((measure_starts, START_LIMIT), (measure_ends, AGAIN_LIMIT)):
        for kind in KINDS:
            measure(kind, limit if kind == "agent" else None, verdicts)
    print("binaries")
    verdicts.figure("agent", AGENT.stat().st_size / 1024, "KiB")
    verdicts.figure("plain relay", (BUILD / "plain_relay").stat().st_size / 1024, "KiB")
    sys.exit(1 if verdicts.missed else 0)


if __name__ == "__main__":
    main()
