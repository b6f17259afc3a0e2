#!/usr/bin/env python3
"""Processor time per byte and latency of the agent's relay, beside those of a minimal one."""

import argparse
import contextlib
import statistics
import sys

from harness import STREAMS, Verdicts, prepare, rig

TIME_LIMIT = 180          # s for all of it
BULK_STREAMS = 8
BURST = 64 * 1024         # bytes, once a second on each stream
PACED_LIMIT = 1.10        # of the plain relay's processor time per byte
BULK_LIMIT = 1.20

Run = dict[str, int]


def interleave(kinds: tuple[str, str], streams: int, command: str, rounds: int,
               pairs: int) -> list[tuple[Run, Run]]:
    """Runs of both kinds, by turns; both relays stand ready, the one not asked sleeps.

    Each round takes fresh processes, started in the other order: where pages and threads happen to
    land stays with a process.
    """
    runs = []
    for number in range(rounds):
        with contextlib.ExitStack() as stack:
            starts = kinds if number % 2 == 0 else kinds[::-1]
            rigs = {kind: stack.enter_context(rig(kind, streams)) for kind in starts}
            for each in rigs.values():
                each.ask("open")
            for pair in range(pairs):
                order = starts if pair % 2 == 0 else starts[::-1]
                pair_runs = {kind: rigs[kind].ask(f"{command} {rigs[kind].relay.pid}")
                             for kind in order}
                runs.append((pair_runs[kinds[0]], pair_runs[kinds[1]]))
    return runs


def cost(run: Run) -> float:
    return run["relay_ns"] / run["bytes"]


def show(kinds: tuple[str, str], title: str, runs: list[tuple[Run, Run]],
         with_latency: bool) -> None:
    print(f"{title}, {len(runs)} pairs")
    for side, kind in enumerate(kinds):
        def median(value) -> float:
            return statistics.median(value(pair[side]) for pair in runs)
        line = (f"  {kind:<7} {median(cost):6.3f} ns/byte  "
                f"{median(lambda run: run['bytes'] * 8e3 / run['wall_ns']):7.0f} Mbit/s  "
                f"processors: relay {median(lambda run: run['relay_ns'] / run['wall_ns']):.2f}, "
                f"load {median(lambda run: run['own_ns'] / run['wall_ns']):.2f}")
        if with_latency:
            line += (f"  latency: median {median(lambda run: run['p50_ns'] / 1e3):.0f} us, "
                     f"99 % {median(lambda run: run['p99_ns'] / 1e3):.0f} us")
        print(line)


def ratio(runs: list[tuple[Run, Run]], value) -> float:
    return statistics.median(value(agent) / value(plain) for agent, plain in runs)


def show_ratios(runs: list[tuple[Run, Run]], limit: float, verdicts: Verdicts) -> None:
    each = sorted(cost(agent) / cost(plain) for agent, plain in runs)
    verdicts.check(f"processor time, ratio to plain ({each[0]:.2f} to {each[-1]:.2f})",
                   statistics.median(each), limit, "")


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--ms", type=int, default=200, help="of each run (default %(default)s)")
    parser.add_argument("--pairs", type=int, default=15, help="of each round (default %(default)s)")
    parser.add_argument("--rounds", type=int, default=4, help="default %(default)s")
    parser.add_argument("--mbit", type=float, default=4, help="of each paced stream (default 4)")
    parser.add_argument("--control", action="store_true",
                        help="a second plain relay in the agent's place: shows the machine's noise")
    options = parser.parse_args()
    kinds = ("control" if options.control else "agent", "plain")
    prepare(TIME_LIMIT)
    verdicts = Verdicts()
    bits = int(options.mbit * 1e6)

    def measure(title: str, streams: int, command: str, limit: float) -> None:
        runs = interleave(kinds, streams, command, options.rounds, options.pairs)
        paced = command.startswith("paced")
        show(kinds, title, runs, paced)
        show_ratios(runs, limit, verdicts)
        if paced:
            for name, key in (("median", "p50_ns"), ("99 %", "p99_ns")):
                verdicts.note(f"latency, {name}, ratio", ratio(runs, lambda run: run[key]), "")

    paced = f"{STREAMS} paced streams of {options.mbit:g} Mbit/s"
    measure(paced, STREAMS, f"paced {options.ms} {bits} 0", PACED_LIMIT)
    measure(f"{paced}, a burst of 64 KiB a second on each", STREAMS,
            f"paced {options.ms} {bits} {BURST}", PACED_LIMIT)
    measure(f"{BULK_STREAMS} bulk streams", BULK_STREAMS, f"bulk {options.ms} 0", BULK_LIMIT)
    sys.exit(1 if verdicts.missed else 0)


if __name__ == "__main__":
    main()
