#!/usr/bin/env python3
"""A camera that only answers OPTIONS and then does what its options say; no dependencies.

Tests use the class ScriptedCamera of scripted.py; this is the same camera as a program.
"""

import argparse
import signal
import sys
import threading

import scripted

ANSWERS = {"ok": scripted.ok_answer, "401": scripted.status_answer("401 Unauthorized"),
           "404": scripted.status_answer("404 Not Found"), "close": scripted.hang_up,
           "nothing": scripted.no_answer, "garbage": scripted.fixed_answer(b"hello\r\n\r\n")}


def chosen_behaviour(text: str) -> scripted.Behaviour:
    name, _, value = text.partition(":")
    plain = {"silent": scripted.silent, "echo": scripted.echo, "never-read": scripted.never_read}
    counted = {"close-after": scripted.hang_up_after, "bulk": scripted.bulk,
               "stream": scripted.stream}
    if name in plain and not value:
        return plain[name]
    if name in counted and value.isdigit():
        return counted[name](int(value))
    raise argparse.ArgumentTypeError(f"unknown behaviour {text!r}")


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--port", type=int, default=5541, help="default: %(default)s")
    parser.add_argument("--behaviour", type=chosen_behaviour, default=scripted.silent,
                        help="after the handshake: silent (default), echo, never-read, "
                             "close-after:BYTES, bulk:BYTES, stream:BITS_PER_SECOND")
    parser.add_argument("--probe", choices=ANSWERS, default="ok", help="answer to the probe")
    parser.add_argument("--handshake", choices=ANSWERS, default="ok",
                        help="answer to the OPTIONS of a relay")
    options = parser.parse_args()
    stop = threading.Event()
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda *_: stop.set())
    try:
        camera = scripted.ScriptedCamera(options.behaviour, options.port,
                                         ANSWERS[options.probe], ANSWERS[options.handshake])
    except OSError as error:
        print(f"scripted camera: cannot listen on port {options.port}: {error.strerror}",
              file=sys.stderr)
        return 1
    with camera:
        print(f"ready {camera.url('')}", flush=True)
        stop.wait()
    return 0


if __name__ == "__main__":
    sys.exit(main())
