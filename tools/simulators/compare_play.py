#!/usr/bin/env python3
"""Plays a stream directly and through the cloud, and compares the decoded frames by their hashes.

Exit status 0 when both gave all the frames asked for and the frames are the same.
"""

import argparse
import subprocess
import sys
import threading
import time

STALL_SECONDS = 25    # for a whole play beyond the frames' own duration


def play(url: str, count: int, seconds: float) -> tuple[list[str], float]:
    """Hashes of the first `count` decoded frames, and when the first one came (0: never)."""
    command = ["ffmpeg", "-nostdin", "-loglevel", "error", "-rtsp_transport", "tcp", "-i", url,
               "-an", "-frames:v", str(count), "-fps_mode", "passthrough",
               "-f", "framemd5", "-flush_packets", "1", "-"]
    hashes: list[str] = []
    first = 0.0
    with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as player:
        watchdog = threading.Timer(seconds + STALL_SECONDS, player.kill)
        watchdog.start()
        for line in player.stdout:
            if not line.startswith("#"):
                first = first or time.time()
                hashes.append(line.rsplit(",", 1)[1].strip())
        watchdog.cancel()
    return hashes, first


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("direct", help="URL at the camera")
    parser.add_argument("relayed", help="URL at the cloud")
    parser.add_argument("--frames", type=int, default=75, help="default: %(default)s")
    parser.add_argument("--rate", type=float, default=15, help="frames a second")
    parser.add_argument("--since", type=float, default=time.time(), metavar="EPOCH",
                        help="start of the clock for the first frame (default: now)")
    parser.add_argument("--within", type=float, metavar="SECONDS",
                        help="the first relayed frame must come within so long")
    parser.add_argument("--live", action="store_true",
                        help="the camera shows what it sees: count frames, do not compare them")
    options = parser.parse_args()

    seconds = options.frames / options.rate
    relayed, first = play(options.relayed, options.frames, seconds)
    direct, _ = play(options.direct, options.frames, seconds)
    print(f"frames: {len(direct)} direct, {len(relayed)} through the cloud")
    failures = [f"{name}: {len(hashes)} of {options.frames} frames"
                for name, hashes in (("direct", direct), ("through the cloud", relayed))
                if len(hashes) < options.frames]
    if first:
        wait = first - options.since
        print(f"first frame through the cloud after {wait:.1f} s")
        if options.within and wait > options.within:
            failures.append(f"the first frame came after {wait:.1f} s, not {options.within:g} s")
    different = [i for i, pair in enumerate(zip(direct, relayed)) if pair[0] != pair[1]]
    if options.live:
        print("a live camera: frames are counted, not compared")
    elif different:
        failures.append(f"{len(different)} frames differ, the first is number {different[0]}")
    elif direct:
        print(f"{min(len(direct), len(relayed))} decoded frames are identical, "
              f"{len(set(direct))} distinct pictures")
    for failure in failures:
        print(f"FAILED: {failure}", file=sys.stderr)
    return 1 if failures else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
