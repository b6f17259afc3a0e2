"""The wall clock: starts of long ago and past 2038, and jumps while the agent works."""

import re
import urllib.request
from datetime import datetime, timedelta, timezone

import pytest

from harness import wait_until
from scripted import ok_answer, pattern

HALF = 1 << 19
ZONE = timezone(timedelta(hours=9.5))
# Moments, the first is that of the start; a second later the uptimes of agent and relay.
CLOCKS = {
    "a day forward, two days back": [("2040-02-13 04:05:06", "1s", "1s"),
                                     ("2040-02-14 04:05:06", "1d 00h", "1d 00h"),
                                     ("2040-02-12 04:05:06", "49709d 06h", "49710d 06h")],
    "set after 0": [("1970-01-01 09:30:00", "1s", "N/A"),   # since 0 means not at all
                    ("2026-05-04 03:02:01", "20576d 17h", "N/A")],
    "set after 5 s": [("1970-01-01 09:30:05", "1s", "1s"),
                      ("2026-05-04 03:02:01", "20576d 17h", "20576d 17h")],
    "past 2038": [("2038-01-19 12:44:00", "1s", "1s"),
                  ("2038-01-19 12:44:59", "1m 00s", "1m 00s")],
}


@pytest.mark.parametrize("name", CLOCKS)
def test_wall_clock(rig, clock, name):
    """The log and the pages show its time and the traffic: what camera and cloud get in the
    handshake, and the camera's bytes to the cloud. A relay, a registration, a back-off go on."""
    moments = [(datetime.fromisoformat(text).replace(tzinfo=ZONE), *texts)
               for text, *texts in CLOCKS[name]]
    clock.set_wall(moments[0][0])
    clock.set_pace(0)
    rig.camera.probe = lambda request: b"" if request.path == "/cam3" else ok_answer(request)
    rig.camera.handshake = b"RTSP/1.0 200 OK\r\nX: ".ljust(8000, b"x") + b"\r\n\r\n"
    agent = rig.start(rig.camera.url("/cam{1-3}"), options=["-d", "-p", "18282"],
                      environment={"TZ": "XYZ-9:30"})
    waiting, cloud = rig.cloud.accept(2), rig.cloud.accept(1)
    cloud.start_relay(extra="X: " + "y" * 7800 + "\r\n")
    camera = rig.lent("/cam1")
    agent.wait_for("registered -> streaming")

    def shown() -> list[str]:
        with urllib.request.urlopen("http://127.0.0.1:18282/stats") as page:
            return re.findall(r'="stat-value[^"]*">([^<]*)<', page.read().decode())[:7]

    assert shown()[3:6:2] == ["N/A", "0.01 MB"]
    for turn, (moment, uptime, relay_uptime) in enumerate(moments):
        clock.set_wall(moment)
        mark = agent.mark()
        for seconds in (1, 0):
            camera.send(pattern(HALF))
            cloud.expect(pattern(HALF))
            cloud.send(pattern(HALF))
            camera.expect(pattern(HALF))
            clock.skip(seconds)
        now = moment + timedelta(seconds=1)
        waiting.keepalive()
        agent.wait_for(f"[{now:%H:%M:%S %m-%d-%Y}] [DEBUG] Sent keepalive response", since=mark)
        figures = shown()
        assert 8388 <= int(figures.pop(4).removesuffix(" kbps")) < 8600     # received and sent
        assert figures == [f"{moments[0][0]:%Y-%m-%d %H:%M:%S}", uptime, "Streaming", relay_uptime,
                           f"{turn}.51 MB", f"{now:%a %b} {now.day:2}{now: %H:%M:%S %Y}"]
    probes = len(rig.camera.probes)
    wait_until(lambda: len(rig.camera.probes) > probes, what="another attempt")
    assert "-> offline" not in agent.text
