#!/usr/bin/env python3
"""Processor time per byte and latency of the agent's relay, beside those of a minimal one."""

import argparse
import contextlib
import statistics
import sys

from harness import STREAMS, Verdicts, prepare, rig

TIME_LIMIT = 400          # s for all of it
LATENCIES = {"median": "p50_ns", "99 %": "p99_ns"}
LAST_LATENCIES = {f"last, {name}": f"last_{key}" for name, key in LATENCIES.items()}

# Title, streams, the relays' niceness, command, limit of the processor time per byte in plain
# relays, latencies shown. 4 Mbit/s are 1,400 bytes 357 times a second, or 25 times 14 of them.
WORKLOADS = {
    "paced": (f"{STREAMS} streams of 4 Mbit/s, even writes of 1,400 bytes", STREAMS, 0,
              "paced {ms} 357 1", 1.10, LATENCIES),
    "camera": (f"{STREAMS} streams of 4 Mbit/s, 25 frames a second of 14 writes at once", STREAMS,
               0, "paced {ms} 25 14", 1.10, LATENCIES | LAST_LATENCIES),
    "bulk": ("8 bulk streams", 8, 19, "bulk {ms} 0", 0.80, {}),
}

Run = dict[str, int]


def interleave(kinds: tuple[str, ...], streams: int, niceness: int, command: str, rounds: int,
               turns: int) -> list[dict[str, Run]]:
    """Runs of all kinds, by turns; all relays stand ready, those not asked sleep.

    Each round takes fresh processes, started in the other order: where pages and threads happen to
    land stays with a process.
    """
    runs = []
    for number in range(rounds):
        with contextlib.ExitStack() as stack:
            starts = kinds if number % 2 == 0 else kinds[::-1]
            rigs = {kind: stack.enter_context(rig(kind, streams, niceness=niceness))
                    for kind in starts}
            for each in rigs.values():
                each.ask("open")
            for turn in range(turns):
                order = starts if turn % 2 == 0 else starts[::-1]
                runs.append({kind: rigs[kind].ask(command) for kind in order})
    return runs


def cost(run: Run) -> float:
    return run["relay_ns"] / run["bytes"]


def show(kinds: tuple[str, str], title: str, runs: list[dict[str, Run]], limit: float,
         latencies: dict[str, str], verdicts: Verdicts) -> None:
    figures = {"processor time, ns/byte": cost,
               "throughput, Mbit/s": lambda run: run["bytes"] * 8e3 / run["wall_ns"],
               "processors used by the relay": lambda run: run["relay_ns"] / run["wall_ns"],
               "processors used by the load": lambda run: run["own_ns"] / run["wall_ns"]}
    for name, key in latencies.items():
        figures[f"latency, {name}, us"] = lambda run, key=key: run[key] / 1e3
    print(f"{title}, {len(runs)} pairs\n{kinds[0]:>40}{kinds[1]:>10}     ratio")
    for name, value in figures.items():
        one, other = (statistics.median(value(pair[kind]) for pair in runs) for kind in kinds)
        ratios = [value(pair[kinds[0]]) / value(pair[kinds[1]]) for pair in runs]
        low, middle, high = statistics.quantiles(ratios, n=4, method="inclusive")
        is_limited = value is cost and kinds[0] == "agent"
        verdicts.figure(f"{name:<30}{one:>8.2f}{other:>10.2f}", middle, "",
                        limit if is_limited else None, f"half in {low:.2f} to {high:.2f}")


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--ms", type=int, default=200, help="of each run (default %(default)s)")
    parser.add_argument("--pairs", type=int, default=12, help="of each round (default %(default)s)")
    parser.add_argument("--rounds", type=int, default=6, help="default %(default)s")
    parser.add_argument("--only", choices=WORKLOADS, help="one kind of traffic")
    parser.add_argument("--control", action="store_true",
                        help="a second plain relay in the agent's place: shows the machine's noise")
    options = parser.parse_args()
    kinds = ("control" if options.control else "agent", "plain")
    prepare(TIME_LIMIT)
    verdicts = Verdicts()
    for name in [options.only] if options.only else WORKLOADS:
        title, streams, niceness, command, limit, latencies = WORKLOADS[name]
        runs = interleave(kinds, streams, niceness, command.format(ms=options.ms), options.rounds,
                          options.pairs)
        show(kinds, title, runs, limit, latencies, verdicts)
    sys.exit(1 if verdicts.missed else 0)


if __name__ == "__main__":
    main()
