#!/usr/bin/env python3
"""What a fleet of devices does to its cloud: connections per second after an outage.

  fleet.py cloud --streams 100000 --outage 600        the streaming server was away
  fleet.py balancer --streams 100000 --outage 600     devices start while the balancer is away
  fleet.py power --streams 100000 --window 60         all devices start within a minute
  fleet.py table                                      of docs/operations.md
  fleet.py plot FILE                                  likewise; with Debian's python3-matplotlib

Follows the agent's back-off exactly; there is no jitter in it, so what pulls a fleet apart is only
what differs between devices: when they notice, how long the camera and the way to the cloud take.
Devices alike in that are one class and are counted, not simulated one by one: ten million streams
take no longer than ten thousand. Time 0 is the begin of the outage, or the first device's start.
"""

import argparse
import heapq
import math
from collections import Counter
from dataclasses import dataclass, field, replace

FIRST_DELAY_S, DELAY_CAP_S = 1, 60
SILENCE_S = 120                     # after which a registered stream gives its connection up
RELAY_NOTICE_S = (42, 46)           # in which keep-alive notices that a relay's peer has vanished
CLOSING_S = 0.2                     # between a relay's end and the next cycle
MAX_CLASSES = 5000
GOLDEN = (math.sqrt(5) - 1) / 2     # spreads the second property evenly over the first

SIZES = (1_000, 100_000, 10_000_000)
SCENARIOS = (("cloud refuses for 30 s", "cloud --outage 30"),
             ("cloud refuses for 10 min", "cloud --outage 600"),
             ("cloud dead for 10 min", "cloud --outage 600 --fault drop"),
             ("power cut", "power"),
             ("power cut, balancer refuses for 10 min", "balancer --outage 600"))
PLOTTED_S = 1000


@dataclass
class Server:
    """Connections wait in its places while there are any; from there it takes them at its rate."""
    connect_s: float        # the agent's limit for connecting
    patience_s: float       # for the first word; an agent served later than that has gone
    rate: float             # connections per second
    places: float
    up_at: float = 0
    fault: str = "refuse"   # before that: refuse, or drop as a dead machine does
    waiting: float = 0
    seen: float = 0
    attempts: Counter = field(default_factory=Counter)      # to connect, per second
    taken: Counter = field(default_factory=Counter)         # by its program, per second

    def admit(self, now: float, count: int) -> tuple[int, int]:
        """How many of these it takes in time, and how many too late."""
        self.waiting = max(0, self.waiting - (now - self.seen) * self.rate)
        self.seen = now
        admitted = min(count, max(0, int(self.places - self.waiting)))
        in_time = min(admitted, max(0, int(self.patience_s * self.rate - self.waiting)))
        self.waiting += admitted
        return in_time, admitted - in_time


@dataclass
class Group:
    """Streams, or devices at the balancer, that are in the same place of the same pause."""
    server: Server
    count: int
    probe_s: float                  # the camera's answer
    trip_s: float                   # to the server and back
    delay_s: int = FIRST_DELAY_S    # the next pause
    began: float = 0                # of this attempt
    requests: int = 0               # to connect, of this attempt, before this one


class Fleet:
    def __init__(self, options: argparse.Namespace):
        self.options = options
        away = {options.scenario: options.outage}
        self.cloud = Server(10, SILENCE_S, options.rate, options.places, away.get("cloud", 0),
                            options.fault)
        self.balancer = Server(5, 5, options.balancer_rate, options.balancer_places,
                               away.get("balancer", 0), options.fault)
        self._events: list[tuple[float, int, Group]] = []
        self._serial = 0

    def _at(self, time: float, group: Group) -> None:
        self._serial += 1
        heapq.heappush(self._events, (time, self._serial, group))

    def _begin(self, time: float, group: Group) -> None:
        """A cycle: for streams the probe, then the attempt to connect."""
        time += group.probe_s if group.server is self.cloud else 0
        self._at(time, replace(group, began=time, requests=0))

    def _fail(self, time: float, group: Group, count: int) -> None:
        """The pause comes before the doubling."""
        if count:
            delay = min(2 * group.delay_s, DELAY_CAP_S)
            self._begin(time + group.delay_s, replace(group, count=count, delay_s=delay))

    def _succeed(self, time: float, group: Group, count: int) -> None:
        time += group.server.waiting / group.server.rate
        group.server.taken[int(time)] += count
        if count and group.server is self.balancer:
            self._begin(time + group.trip_s, Group(self.cloud, count * self.options.per_device,
                                                   group.probe_s, group.trip_s))

    def _request(self, now: float, group: Group) -> None:
        server = group.server
        if group.requests == 0:
            server.attempts[int(now)] += group.count
        is_up = now >= server.up_at
        in_time, late = server.admit(now, group.count) if is_up else (0, 0)
        self._succeed(now + group.trip_s, group, in_time)
        self._fail(now + group.trip_s + server.patience_s, group, late)
        left = group.count - in_time - late
        if (self.options.overflow if is_up else server.fault) == "refuse":
            self._fail(now + group.trip_s, group, left)
            return
        requests = group.requests + 1
        again_s = dict(enumerate(self.options.requests)).get(requests, math.inf)
        if again_s >= server.connect_s:
            self._fail(group.began + server.connect_s, group, left)
        elif left:
            self._at(group.began + again_s, replace(group, count=left, requests=requests))

    def _notice(self, phase: float, group: Group, relaying: int) -> None:
        """The cloud is lost at 0. A relay's end costs no pause and resets the delay."""
        is_dead = self.cloud.fault == "drop"
        silence = SILENCE_S - phase * self.options.keepalive if is_dead else 0
        self._fail(silence, group, group.count - relaying)
        first, last = RELAY_NOTICE_S if is_dead else (0, 0)
        self._begin(first + phase * (last - first) + CLOSING_S,
                    replace(group, count=relaying, delay_s=FIRST_DELAY_S))

    def run(self) -> "Fleet":
        options = self.options
        is_start = options.scenario != "cloud"
        if is_start:    # whole devices
            options.streams -= options.streams % options.per_device
        units = options.streams // (options.per_device if is_start else 1)
        classes = min(units, MAX_CLASSES)
        for i in range(classes):
            phase, place = (i + 0.5) / classes, i * GOLDEN % 1
            probe_s, trip_s = (low + place * (high - low) for low, high in
                               (options.probe, options.trip))
            count = units // classes + (i < units % classes)
            if is_start:
                self._begin(phase * options.window, Group(self.balancer, count, probe_s, trip_s))
            else:
                self._notice(phase, Group(self.cloud, count, probe_s, trip_s, options.delay),
                             round(count * options.relaying))
        while self._events and self._events[0][0] < options.until:
            now, _, group = heapq.heappop(self._events)
            self._request(now, group)
        return self

    def share_at(self, share: float) -> float:
        """The second by whose end the cloud has taken that share of the streams."""
        total = 0
        for second, count in sorted(self.cloud.taken.items()):
            total += count
            if total >= share * self.options.streams:
                return second + 1
        return math.inf


def report(fleet: Fleet) -> None:
    for name, server in (("balancer", fleet.balancer), ("cloud", fleet.cloud)):
        total = 0
        for second in sorted(server.attempts.keys() | server.taken.keys()):
            total += server.taken[second]
            print(f"{name:8} {second:6} s  {server.attempts[second]:9} attempts  "
                  f"{server.taken[second]:9} taken  {total:9} so far")
    print("taken by the cloud: " + ", ".join(f"{share:.0%} after {fleet.share_at(share)} s"
                                             for share in (0.5, 0.99, 1)))


def simulate(arguments: str, size: int, *limits: float) -> Fleet:
    """With the rate and the places of the cloud and of the balancer, without end unless given."""
    rates = zip(("rate", "places", "balancer-rate", "balancer-places"), limits)
    words = [f"--streams={size}", *(f"--{name}={limit}" for name, limit in rates)]
    return Fleet(parser().parse_args(arguments.split() + words)).run()


def print_table() -> None:
    """The busiest second from the return on; seconds to 99 % by what the servers can do."""
    for text, arguments in SCENARIOS:
        for size in SIZES:
            fleets = [simulate(arguments, size), simulate(arguments, size, 5000, 4096, 1000, 4096),
                      simulate(arguments, size, size / 100, size, size / 200, size / 50)]
            servers = (fleets[0].balancer, fleets[0].cloud)
            back = max(server.up_at for server in servers)
            busiest = [max((count for second, count in server.attempts.items() if second >= back),
                           default=0) for server in servers]
            cells = [text, f"{size:,}", *(f"{count:,}" for count in busiest),
                     *(f"{fleet.share_at(0.99) - back:,.0f}" for fleet in fleets)]
            print(f"| {' | '.join(cells)} |", flush=True)


def plot(path: str) -> None:
    import matplotlib
    matplotlib.use("Agg")
    from matplotlib import pyplot
    rows = SCENARIOS[1:4]
    figure, axes = pyplot.subplots(len(rows), len(SIZES), figsize=(14, 9), sharex=True,
                                   sharey=True, layout="constrained")
    for row, (text, arguments) in zip(axes, rows):
        for cell, size in zip(row, SIZES):
            fleet = simulate(f"{arguments} --until {PLOTTED_S}", size, 5000, 4096, 1000, 4096)
            for counter, label, colour in (
                    (fleet.balancer.attempts, "attempts at the balancer", "tab:orange"),
                    (fleet.cloud.attempts, "attempts at the cloud", "tab:gray"),
                    (fleet.cloud.taken, "taken by the cloud", "tab:blue")):
                points = sorted(item for item in counter.items() if item[1])
                cell.plot(*(zip(*points) if points else ((), ())), ".", markersize=4,
                          color=colour, label=label)
            cell.axvspan(0, fleet.cloud.up_at, color="tab:red", alpha=0.08)
            cell.set(title=f"{text}, {size:,} streams", yscale="log", xlim=(-20, PLOTTED_S))
            cell.grid(alpha=0.3)
    axes[-1][0].legend(loc="upper right")
    figure.supxlabel("seconds since the outage began (red), or since the first device started")
    figure.supylabel("connections in each second")
    figure.savefig(path, dpi=75)


def span(text: str) -> tuple[float, float]:
    low, _, high = text.partition(":")
    return float(low), float(high or low)


def parser() -> argparse.ArgumentParser:
    made = argparse.ArgumentParser(description=__doc__,
                                   formatter_class=argparse.RawDescriptionHelpFormatter)
    made.add_argument("scenario", choices=("cloud", "balancer", "power", "table", "plot"))
    made.add_argument("file", nargs="?", default="fleet.png", help="of the plot (%(default)s)")
    for name, kind, default, text in (
            ("streams", int, 1000, "of the whole fleet"),
            ("per-device", int, 4, "streams"),
            ("outage", float, 600, "seconds"),
            ("fault", str, "refuse", "refuse: the program is gone; drop: the machine or the way"),
            ("window", float, 60, "seconds in which the devices start"),
            ("keepalive", float, 30, "seconds between the cloud's keepalives"),
            ("relaying", float, 0, "share of the streams that relay when the outage begins"),
            ("delay", int, FIRST_DELAY_S, "seconds that registered streams would pause next"),
            ("probe", span, "0.01:0.1", "seconds, shortest:longest, of the camera's answer"),
            ("trip", span, "0.02:0.2", "seconds to the cloud and back"),
            ("rate", float, 1e12, "connections per second that the cloud takes"),
            ("places", float, 1e12, "connections that may wait for that"),
            ("balancer-rate", float, 1e12, "the same of the balancer"),
            ("balancer-places", float, 1e12, "the same of the balancer"),
            ("requests", lambda text: [float(x) for x in text.split(",")], "0,1,3,7",
             "when a device's system asks for a connection; Linux since 6.5: 0,1,2,3,4,5,7"),
            ("overflow", str, "drop", "what happens without a place: drop or refuse"),
            ("until", float, 14400, "seconds")):
        made.add_argument(f"--{name}", type=kind, default=default, help=f"{text} ({default})",
                          choices=("refuse", "drop") if default in ("refuse", "drop") else None)
    return made


def main() -> None:
    options = parser().parse_args()
    if options.scenario == "table":
        print_table()
    elif options.scenario == "plot":
        plot(options.file)
    else:
        report(Fleet(options).run())


if __name__ == "__main__":
    main()
