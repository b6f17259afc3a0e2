"""Values that a user meets: pauses, time-outs, socket options, traffic, local time."""

import re
import urllib.request

import pytest

from harness import SANITIZED, flood, wait_until
from scripted import fixed_answer, pattern


@pytest.mark.parametrize("stored, operation", [(False, "cloud ID fetch"),
                                               (True, "cloud server resolution")])
def test_pauses_without_the_balancer(rig, clock, stored, operation):
    if not stored:
        (rig.directory / "cloud.id").unlink()
    agent = rig.run("-d", "-n", *rig.arguments())
    doubling = [1, 2, 4, 8, 16, 32, 60, 60]
    agent.wait_for("Connect failed: Connection refused", len(doubling) + 1)
    clock.stop_skipping()
    agent.process.terminate()
    assert agent.wait(5) == 1, "the pause was not cut short"
    failure = "resolve cloud server" if stored else "fetch cloud ID from cloud"
    assert agent.log()[-5] == f"ERROR Failed to {failure}"
    said = re.findall(rf"Retrying {operation} in (\d+) seconds", agent.text)
    assert [int(seconds) for seconds in said][:len(doubling)] == doubling
    stamps = [int(h) * 3600 + int(m) * 60 + int(s) for h, m, s in re.findall(
        r"^\[(..):(..):(..) [\d-]+\] \[ERROR\] Connect", agent.text, re.M)]
    assert [b - a for a, b in zip(stamps, stamps[1:])][:len(doubling)] == doubling


def test_pauses_of_a_stream(rig, clock):
    """Camera and cloud share one delay, each with its own cap; only a relay resets it."""
    camera_answers = "-" * 8 + "+" * 5 + "-" * 3 + "+" * 4
    pauses = [1, 2, 4, 8, 10, 10, 10, 10,   10, 20, 40, 60, 60,   60, 10, 10,   10, 0, 1, 2]
    times = []

    def probe(_request):
        times.append(clock.now())
        turn = len(times) - 1
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
    wait_until(lambda: len(times) > len(pauses), what="probes")
    assert [later - earlier for earlier, later in zip(times, times[1:])][:len(pauses)] == pauses
    first = next(line for line in agent.log() if "Stream 1" in line and "Started" not in line)
    assert first == "DEBUG Stream 1 status change: offline -> connecting"    # probes say nothing


def test_silence_and_a_cloud_that_takes_nothing(rig, clock):
    """After 120 s the registration is given up, while a relay goes on."""
    patience = 0.7
    clock.shorten_time_outs(int(patience * 1000))
    agent = rig.start()
    rig.cloud.accept().expect_closed()
    agent.wait_for("Registration timeout, retrying...\n")
    camera, cloud = rig.relay()
    cloud.expect_silence(patience * 2.5)
    began = clock.now()
    flood(camera)
    wait_until(lambda: clock.now() > began, what="time-out of a send")
    assert clock.now() - began == 120
    cloud.send(b"still there")
    camera.expect(b"still there")
    assert "Cloud to camera thread stopped" not in agent.text


TIME_OUTS = "SO_RCVTIMEO={0} SO_SNDTIMEO={0} ".format
KEEPALIVE = "SO_KEEPALIVE=1 TCP_KEEPCNT=3 TCP_KEEPIDLE=30 TCP_KEEPINTVL=5 "
RELAYING = TIME_OUTS(120) + KEEPALIVE + "TCP_NODELAY=1 "
SOCKETS = {     # in the order of one cycle: what is set, around connect() and the sends
    "balancer": TIME_OUTS(5) + "connect GET ",
    "probe": TIME_OUTS(2) + "connect OPTIONS ",
    "cloud": TIME_OUTS(10) + "connect " + TIME_OUTS(120) + TIME_OUTS(2) + "REGISTER "
             + TIME_OUTS(120) + "RTSP/1.0 " + RELAYING,
    "camera": TIME_OUTS(2) + KEEPALIVE + "connect OPTIONS " + RELAYING,
}


def traced_sockets(directory) -> list[str]:
    """What strace has seen of each socket; one file per thread, main first."""
    sockets = []
    for trace in sorted(directory.glob("trace.*"), key=lambda path: int(path.suffix[1:])):
        numbers = {}    # place in `sockets` of a descriptor
        for call, rest in re.findall(r"^(\w+)\((.*)", trace.read_text(), re.M):
            if call == "socket":
                numbers[rest.rpartition(" = ")[2]] = len(sockets)
                sockets.append("")
                continue
            text = bytes.fromhex("".join(re.findall(r"\\x(..)", rest)))
            if call == "setsockopt":
                name, value = re.search(r" ((?:SO|TCP)_\w+?)(?:_OLD)?, (?:\[(\d+)\])?", rest).groups()
                call = f"{name}={value or int.from_bytes(text[:8], 'little')}"
            elif call.startswith("send"):
                call = re.match(r"[\w/.]*", text.decode())[0]
            sockets[numbers[rest.partition(",")[0]]] += call + " "
    return sockets


@pytest.mark.skipif(SANITIZED, reason="the leak sanitizer does not work in a traced program")
def test_socket_options(rig):
    trace = "trace=socket,connect,setsockopt,sendto,sendmsg,sendmmsg"
    agent = rig.start(prefix=["strace", "-D", "-ff", "-xx", "-s", "16", "-e", trace,
                              "-o", rig.directory / "trace"])
    rig.relay()
    agent.wait_for("registered -> streaming")
    agent.stop()
    seen = dict(zip(SOCKETS, traced_sockets(rig.directory)))
    assert seen == SOCKETS


def test_traffic(rig, clock):
    """Sent is what camera and cloud get in the handshake, and the camera's bytes to the cloud."""
    size, chunk, mebibyte = 8000, 8192, 1 << 20
    answer = b"RTSP/1.0 200 OK\r\nX: ".ljust(size - 4, b"x") + b"\r\n\r\n"
    rig.camera.handshake = fixed_answer(answer)
    agent = rig.start(options=["-d", "-p", "18282"], environment={"TZ": "XYZ-9:30"})
    cloud = rig.cloud.accept()
    cloud.start_relay(extra="X: " + "y" * (size - 200) + "\r\n")
    camera = rig.lent()
    agent.wait_for("registered -> streaming")

    def shown() -> list[str]:
        with urllib.request.urlopen("http://127.0.0.1:18282/stats") as page:
            return re.findall(r'="stat-value[^"]*">([^<]*)<', page.read().decode())

    start, began = "2040-02-13 13:35:06", "Mon Feb 13 13:35:06 2040"
    assert agent.text.startswith("[13:35:06 02-13-2040] [INFO ] Agent version: ")
    assert f"Monitor started for 1 streams at {start}\n" in agent.text
    assert shown() == [start, "0s", "Streaming", "N/A", "0 kbps", "0.01 MB", began]
    for data in (pattern(mebibyte), pattern(chunk)):
        clock.skip(500)     # figures are reported by the first data of another second
        camera.send(data)
        cloud.expect(data)
    cloud.send(data)
    camera.expect(data)
    began = "Mon Feb 13 13:51:46 2040"
    assert shown() == [start, "16m 40s", "Streaming", "16m 40s", "33 kbps", "1.01 MB", began]
