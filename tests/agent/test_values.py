"""Values that a user meets: pauses, time-outs, socket options."""

import re

import pytest

import test_stop
from harness import SANITIZED, wait_until
from test_hardening import balancer_that_drops_packets, balancer_that_stays_silent


def times(agent, text: str) -> list[int]:
    """Seconds of the day at which the log has lines with this text."""
    stamps = re.findall(rf"^\[(..):(..):(..) [\d-]+\] .*{re.escape(text)}", agent.text, re.M)
    return [int(h) * 3600 + int(m) * 60 + int(s) for h, m, s in stamps]


def gaps(values: list[int]) -> list[int]:
    return [later - earlier for earlier, later in zip(values, values[1:])]


@pytest.mark.parametrize("stored, operation, failure", [
    (False, "cloud ID fetch", "ERROR Failed to fetch cloud ID from cloud"),
    (True, "cloud server resolution", "ERROR Failed to resolve cloud server")])
def test_pauses_without_the_balancer(rig, clock, stored, operation, failure):
    if not stored:
        (rig.directory / "cloud.id").unlink()
    agent = rig.run("-d", "-n", *rig.arguments())
    doubling = [1, 2, 4, 8, 16, 32, 60, 60]
    agent.wait_for("Connect failed: Connection refused", len(doubling) + 1)
    clock.set_pace(0)
    agent.process.terminate()
    assert agent.wait(5) == 1, "the pause was not cut short"
    assert agent.log()[-5] == failure
    said = re.findall(rf"Retrying {operation} in (\d+) seconds", agent.text)
    assert [int(seconds) for seconds in said][:len(doubling)] == doubling
    assert gaps(times(agent, "Connect failed"))[:len(doubling)] == doubling


def test_pauses_of_a_stream(rig, clock):
    """Camera and cloud share one delay, each with its own cap; only a relay resets it."""
    camera_answers = "-" * 8 + "+" * 5 + "-" * 3 + "+" * 4
    pauses = [1, 2, 4, 8, 10, 10, 10, 10,   10, 20, 40, 60, 60,   60, 10, 10,   10, 0, 1, 2]
    probed = []

    def probe(_request):
        probed.append(clock.now())
        turn = len(probed) - 1
        if camera_answers[turn:turn + 1] == "+":
            return b"noise RTSP/1.0 200 OK"     # the words may stand anywhere
        return (b"RTSP/1.0 401 Unauthorized\r\n\r\n", b"RTSP/1.0 200 ok", b"")[turn % 3]

    rig.camera.probe = probe
    agent = rig.start()
    for turn in range(camera_answers.count("+")):
        cloud = rig.cloud.accept()
        if turn == 6:
            cloud.start_relay()
        cloud.close()
    wait_until(lambda: len(probed) > len(pauses), what="probes")
    assert gaps(probed)[:len(pauses)] == pauses
    first = next(line for line in agent.log() if "Stream 1" in line and "Started" not in line)
    assert first == "DEBUG Stream 1 status change: offline -> connecting"    # probes say nothing


@pytest.mark.parametrize("state, begin, end, seconds", [
    (balancer_that_drops_packets, "Successfully obtained cloud ID",
     "Connect failed: Operation now in progress", 5),
    (balancer_that_stays_silent, "Successfully obtained cloud ID",
     "Receive error: Resource temporarily unavailable", 5),
    (test_stop.connecting_to_a_cloud_that_drops_packets, "offline -> connecting",
     "Stream 1 error: [115] Operation now in progress", 10),
    (test_stop.connecting_to_a_camera_that_drops_packets, "Received OPTIONS command",
     "Stream 1 error: [115] Camera connection failed", 2),
], ids=lambda value: getattr(value, "__name__", " ").replace("_", " "))
def test_peers_that_do_not_answer(rig, clock, state, begin, end, seconds):
    clock.set_pace(100)
    agent = state(rig, 1) or rig.run("-d", "-n", *rig.arguments())
    agent.wait_for(end)
    agent.process.terminate()
    agent.wait()
    # The wall clock stands still while a busy machine makes the agent wait by real time.
    assert seconds / 2 <= times(agent, end)[0] - times(agent, begin)[0] <= seconds


def test_silence(rig, clock):
    """After 120 s the registration is given up, while a relay goes on."""
    clock.set_pace(100)
    agent = rig.start()
    rig.cloud.accept().expect_closed()
    agent.wait_for("Registration timeout, retrying...\n")
    camera, cloud = rig.relay()
    cloud.expect_silence(2)
    cloud.send(b"still there")
    camera.expect(b"still there")


SOCKETS = [     # what each thread sets, around its connects and the sends; 4 is the camera's relay
    "3:TIMEOUTS=5 3:connect 3:GET",
    "3:TIMEOUTS=2 3:connect 3:OPTIONS "
    "3:TIMEOUTS=10 3:connect 3:TIMEOUTS=120 3:TIMEOUTS=2 3:REGISTER 3:TIMEOUTS=120 "
    "4:TIMEOUTS=2 4:KEEPALIVE=3*5+30 4:connect 4:OPTIONS 3:RTSP/1.0 "
    "4:TIMEOUTS=120 4:KEEPALIVE=3*5+30 3:TIMEOUTS=120 3:KEEPALIVE=3*5+30 "
    "4:TCP_NODELAY=1 3:TCP_NODELAY=1 3:media"]


def in_short(trace: str) -> str:
    calls = []
    for call, number, rest in re.findall(r"^(\w+)\((\d+), (.*)", trace, re.M):
        if option := re.match(r'\w+, (\w+?)(?:_OLD)?, (?:\[(\d+)\]|"(\\?.))', rest):
            name, value, byte = option.groups()
            call = f"{name}={value or ord(byte.encode().decode('unicode_escape'))}"
        elif text := re.match(r'"([\w/.]*)', rest):
            call = text[1]
        calls.append(f"{number}:{call}")
    pairs = re.sub(r"(.:)SO_RCVTIMEO=(\d+) \1SO_SNDTIMEO=\2\b", r"\1TIMEOUTS=\2", " ".join(calls))
    return re.sub(r"(.:)SO_KEEPALIVE=1 \1TCP_KEEPCNT=(\d+) \1TCP_KEEPIDLE=(\d+) "
                  r"\1TCP_KEEPINTVL=(\d+)\b", r"\1KEEPALIVE=\2*\4+\3", pairs)


@pytest.mark.skipif(SANITIZED, reason="the leak sanitizer does not work in a traced program")
def test_socket_options(rig):
    agent = rig.start(prefix=["strace", "-D", "-ff", "-o", rig.directory / "trace",
                              "-e", "trace=connect,setsockopt,sendto"])
    camera, cloud = rig.relay()
    camera.send(b"media")
    cloud.expect(b"media")
    agent.stop()
    traces = sorted(rig.directory.glob("trace.*"), key=lambda path: int(path.suffix[1:]))
    for trace, expected in zip(traces, SOCKETS):
        assert in_short(trace.read_text()).startswith(expected)
