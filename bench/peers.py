#!/usr/bin/env python3
"""The agent's relay beside socat, haproxy, nginx and the plain relay: a table and a plot."""

import argparse
import statistics
from collections.abc import Callable
from typing import NamedTuple

import peers_report
from harness import STREAMS, prepare, rig
from relay import Run, cost, interleave

TIME_LIMIT = 400    # s for all of it
MEMORY_STARTS = 3
PROXIES = ("socat", "haproxy", "haproxy, splice", "nginx")
SHOWN = ("agent", "plain", *PROXIES)
MOST_ADDED = 1000   # us of added latency, the median, of a peer worth comparing with
CYCLE_MS = 1500


class Workload(NamedTuple):
    streams: int
    niceness: int
    command: str    # to the load generator
    turns: int      # of each round


WORKLOADS = {
    "bulk, 1 stream": Workload(1, 19, "bulk {ms} 0", 4),
    "bulk, 8 streams": Workload(8, 19, "bulk {ms} 0", 4),
    "paced": Workload(STREAMS, 0, "paced {ms} 357 1", 8),
    "frames": Workload(STREAMS, 0, "paced {ms} 25 14", 8),
    "cycles": Workload(STREAMS, 0, f"cycle {CYCLE_MS}", 2),
}

Turn = dict[str, Run]    # a run of each kind, one after the other


class Figure(NamedTuple):
    name: str
    unit: str
    workload: str
    value: Callable[[Turn, str], float]    # of that kind in that turn
    digits: int = 2


def processor_time(turn: Turn, kind: str) -> float:
    return cost(turn[kind])    # ns per byte are s per gigabyte


def throughput(turn: Turn, kind: str) -> float:
    return turn[kind]["bytes"] * 8 / turn[kind]["wall_ns"]


def added(key: str) -> Callable[[Turn, str], float]:
    return lambda turn, kind: (turn[kind][key] - turn["direct"][key]) / 1e3


def cycles(turn: Turn, kind: str) -> float:
    return turn[kind]["cycles"] * 1e9 / turn[kind]["wall_ns"]


def cycle_cost(turn: Turn, kind: str) -> float:
    return turn[kind]["relay_ns"] / turn[kind]["cycles"] / 1e3


FIGURES = (
    *(Figure("processor time", "s/GB", load, processor_time) for load in WORKLOADS
      if load != "cycles"),
    *(Figure("throughput", "Gbit/s", load, throughput) for load in WORKLOADS if "bulk" in load),
    *(Figure(f"added latency, {name}", "us", load, added(key), 0) for load in ("paced", "frames")
      for name, key in (("median", "p50_ns"), ("99 %", "p99_ns"))),
    Figure("opened and closed", "relays/s, more is better", "cycles", cycles, 0),
    Figure("processor time of each", "us", "cycles", cycle_cost, 0),
)

Values = dict[str, float]            # of each kind
Table = dict[Figure, Values]


def medians(figure: Figure, turns: list[Turn]) -> Values:
    return {kind: statistics.median(figure.value(turn, kind) for turn in turns) for kind in SHOWN}


def measure_memory(kind: str) -> tuple[float, float]:
    """KiB of own pages without relays, and what each of 64 adds after it has used its buffers."""
    readings = []
    for _ in range(MEMORY_STARTS):
        with rig(kind) as relay:
            idle = relay.memory_kib()[0]
            for command in ("open", "paced 300 45 1", "bulk 300 1"):
                relay.ask(command)
            readings.append((idle, (relay.memory_kib()[0] - idle) / STREAMS))
    return tuple(map(statistics.median, zip(*readings)))


def memory_table() -> Table:
    columns = zip(*(measure_memory(kind) for kind in SHOWN))
    names = (("own pages without relays", 0), ("own pages of each relay", 1))
    return {Figure(name, "KiB", "memory", cost, digits): dict(zip(SHOWN, column))
            for (name, digits), column in zip(names, columns)}


class Wish(NamedTuple):
    figure: Figure
    against: str
    ratio: float
    wanted: float


def compare(table: Table, turns: dict[str, list[Turn]]) -> list[Wish]:
    """The agent's ratios to the peers, beside what is wanted of them."""
    def ratio(figure: Figure, peer: str) -> float:
        return statistics.median(figure.value(turn, "agent") / figure.value(turn, peer)
                                 for turn in turns[figure.workload])

    wishes = []
    for figure, values in table.items():
        if figure.value is processor_time and "bulk" in figure.workload:
            wishes += [Wish(figure, peer, ratio(figure, peer), 1.15 if peer == "nginx" else 1)
                       for peer in PROXIES]
        elif figure.value is processor_time:
            latency = next(other for other in table if other.workload == figure.workload
                           and other.name == "added latency, median")
            quick = [peer for peer in PROXIES if table[latency][peer] < MOST_ADDED] or PROXIES
            best = min(quick, key=values.get)
            wishes.append(Wish(figure, f"{best}, cheapest", ratio(figure, best), 1.05))
        elif "latency" in figure.name:
            best = min(PROXIES, key=values.get)
            wishes.append(Wish(figure, f"{best}, quickest", values["agent"] / values[best], 1.05))
    return wishes


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--ms", type=int, default=200, help="of each run (default %(default)s)")
    parser.add_argument("--rounds", type=int, default=3, help="default %(default)s")
    parser.add_argument("--write", action="store_true", help="docs/benchmark.md and its plot")
    options = parser.parse_args()
    prepare(TIME_LIMIT)
    turns, machine = {}, peers_report.machine()
    for name, load in WORKLOADS.items():
        print(f"{name} ...", flush=True)
        turns[name] = interleave((*SHOWN, "direct"), load.streams, load.niceness,
                                 load.command.format(ms=options.ms), options.rounds, load.turns)
    table = {figure: medians(figure, turns[figure.workload]) for figure in FIGURES}
    table |= memory_table()
    report = peers_report.text(machine, table, compare(table, turns))
    print(report)
    if options.write:
        peers_report.write(report, table)


if __name__ == "__main__":
    main()
