"""Values that a user meets: pauses, time-outs, socket options, traffic, local time."""

import re
import urllib.request

import pytest

import test_stop
from harness import SANITIZED, DroppingListener, flood, wait_until
from scripted import pattern


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


def connecting_to_a_balancer_that_drops_packets(rig, _count):
    rig.peers.enter_context(DroppingListener(8111))
    return rig.run("-d", "-n", *rig.arguments())


def waiting_for_a_silent_balancer(rig, count):
    rig.balance(lambda connection, _request: connection.wait_closed(15))
    return test_stop.start(rig, count)


@pytest.mark.parametrize("state, begin, end, seconds", [
    (connecting_to_a_balancer_that_drops_packets, "Successfully obtained cloud ID",
     "Connect failed: Operation now in progress", 5),
    (waiting_for_a_silent_balancer, "Successfully obtained cloud ID",
     "Receive error: Resource temporarily unavailable", 5),
    (test_stop.connecting_to_a_cloud_that_drops_packets, "offline -> connecting",
     "Stream 1 error: [115] Operation now in progress", 10),
    (test_stop.connecting_to_a_camera_that_drops_packets, "Received OPTIONS command",
     "Stream 1 error: [115] Camera connection failed", 2),
], ids=lambda value: getattr(value, "__name__", " ").replace("_", " "))
def test_peers_that_do_not_answer(rig, clock, state, begin, end, seconds):
    clock.set_pace(100)
    agent = state(rig, 1)
    agent.wait_for(end)
    agent.process.terminate()
    agent.wait()
    # The wall clock stands still while a busy machine makes the agent wait by real time.
    assert seconds / 2 <= times(agent, end)[0] - times(agent, begin)[0] <= seconds


def test_silence_and_a_cloud_that_takes_nothing(rig, clock):
    """After 120 s the registration is given up, while a relay goes on."""
    clock.set_pace(100)
    agent = rig.start()
    rig.cloud.accept().expect_closed()
    agent.wait_for("Registration timeout, retrying...\n")
    camera, cloud = rig.relay()
    cloud.expect_silence(2)
    began = clock.now()
    flood(camera)
    wait_until(lambda: clock.now() > began, what="time-out of a send")
    assert clock.now() - began == 119       # and what has passed by real time
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
             + TIME_OUTS(120) + "RTSP/1.0 " + RELAYING + "media ",
    "camera": TIME_OUTS(2) + KEEPALIVE + "connect OPTIONS " + RELAYING,
}


def traced_sockets(directory, main: int) -> list[str]:
    """What strace has seen each socket's own thread do, the main thread's sockets first."""
    sockets: list[str] = []
    for trace in sorted(directory.glob("trace.*"), key=lambda path: path.suffix != f".{main}"):
        places = {}     # in `sockets`, of the thread's descriptors
        for call, number, rest in re.findall(r"^(\w+)\((\w+)(.*)", trace.read_text(), re.M):
            if call == "socket":
                places[rest.rpartition(" = ")[2]] = len(sockets)
                sockets.append("")
            text = bytes.fromhex("".join(re.findall(r"\\x(..)", rest)))
            if option := re.search(r" ((?:SO|TCP)_\w+?)(?:_OLD)?, (?:\[(\d+)\])?", rest):
                call = f"{option[1]}={option[2] or int.from_bytes(text[:8], 'little')}"
            elif call.startswith("send"):
                call = re.match(rb"[\w/.]*", text)[0].decode()
            if number in places:
                sockets[places[number]] += call + " "
    return sockets


@pytest.mark.skipif(SANITIZED, reason="the leak sanitizer does not work in a traced program")
def test_socket_options(rig):
    trace = "trace=socket,connect,setsockopt,sendto,sendmsg,sendmmsg"
    agent = rig.start(prefix=["strace", "-D", "-ff", "-xx", "-s", "16", "-e", trace,
                              "-o", rig.directory / "trace"])
    camera, cloud = rig.relay()
    camera.send(b"media")
    cloud.expect(b"media")
    agent.stop()
    for (name, expected), seen in zip(SOCKETS.items(), traced_sockets(rig.directory, agent.pid)):
        # What the kernel holds back is pushed by setting TCP_NODELAY once more.
        assert re.sub("(?<=media )(TCP_NODELAY=1 )+$", "", seen) == expected, name


def test_traffic(rig, clock):
    """Sent is what camera and cloud get in the handshake, and the camera's bytes to the cloud."""
    size, chunk, mebibyte = 8000, 8192, 1 << 20
    answer = b"RTSP/1.0 200 OK\r\nX: ".ljust(size - 4, b"x") + b"\r\n\r\n"
    rig.camera.handshake = answer
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
