"""A stream's way to its relay: the probe, the registration, the cloud's messages, the handshake."""

import socket
import time

import pytest

from harness import CLOUD_ID, RETURN_LIMIT, wait_until
from scripted import (fixed_answer, hang_up, http_answer, no_answer, ok_answer, pattern,
                      status_answer)

WAITING_ENDS = "DEBUG Stream {} error: [71] Failed to receive OPTIONS from cloud"
OFFLINE = "DEBUG Stream 1 status change: error -> offline"


def since(log: list[str], text: str) -> list[str]:
    """What comes behind the first line that has `text`."""
    return log[next(i for i, line in enumerate(log) if text in line) + 1:]


@pytest.mark.parametrize("authority, path, login, password, request_user", [
    ("", "/live?x={1}&y=%s%n", "", "", ""),
    ("us%er:p:a\"'ss%d{}@", "/%2F/a\\b", "us%er", "p:a\"'ss%d{}", "us%er:p:a\"'ss%d{}@"),
    ("admin:@", "/", "admin", "", "admin:@"),
    ("admin@", "/ü", "admin", "", "admin:@"),
    ("12345:67890@", "", "12345", "67890", "12345:67890@"),
    (":secret@", "/a@b", "", "secret", ""),
])
def test_camera_url_in_every_message(rig, authority, path, login, password, request_user):
    """Probe, registration, rewritten request and log of one camera URL, byte for byte."""
    place = f"127.0.0.1:{rig.camera.port}"
    agent = rig.start(f"rtsp://{authority}{place}{path}", vendor='V%s"%n', model="M%d\\")
    cloud = rig.cloud.accept()
    path = path or "/"
    probe = (f"OPTIONS rtsp://{place}{path} RTSP/1.0\r\nCSeq: 1\r\n"
             "User-Agent: Camera Proxy\r\n\r\n").encode()
    assert rig.camera.probes[0].raw == probe
    registration = (f'REGISTER={{"cloudid":"{CLOUD_ID}/1","login":"{login}","password":"{password}"'
                    f',"uri":"{path}","model":"M%d\\","vendor":"V%s"%n"}}').encode()
    assert cloud.registration == registration
    agent.wait_for("Stream 1 registered in the cloud")
    assert "DEBUG " + registration.decode("latin-1") in agent.log()
    rest = b"CSeq: 77\r\nUser-Agent: 100%s CSeq: no\r\nX-Bytes: \xff\x80\r\n\r\n"
    cloud.send(b"OPTIONS rtsp://cloud/x RTSP/1.0\r\nX-Before: dropped\r\n" + rest)
    cloud.recv_until(b"\r\n\r\n")
    assert rig.camera.requests[0].raw == \
        f"OPTIONS rtsp://{request_user}{place}{path} RTSP/1.0\r\n".encode() + rest


def test_messages_of_the_cloud(rig):
    """Only four bytes are a keepalive, and only OPTIONS at the very start begins a relay."""
    agent = rig.start()
    cloud = rig.cloud.accept()
    cloud.keepalive()
    ignored = [b"\r\n\r\n" * 2, b"\r\n", b"\n\n\n\n", b"options * RTSP/1.0\r\nCSeq: 1\r\n\r\n",
               b" OPTIONS", b"OPTION", b"100%s%n", b"text\0hidden"]
    for count, message in enumerate(ignored, 1):
        cloud.send(message)
        agent.wait_for("Unexpected registration response: ", count)
    cloud.expect_silence(0.1)
    cloud.keepalive()
    camera_answer = b"RTSP/1.0 200 100%s\r\n\r\nwith\0all\xff that came"
    rig.camera.handshake = fixed_answer(camera_answer)
    cloud.send_options()
    cloud.expect(camera_answer)
    agent.wait_for("registered -> streaming")
    log = since(agent.log(), "Sent keepalive response for stream 1")
    assert log[:len(ignored) + 2] == [
        *("DEBUG Unexpected registration response: " + message.partition(b"\0")[0].decode()
          for message in ignored),
        "DEBUG Sent keepalive response for stream 1", "INFO Received OPTIONS command for stream 1"]


@pytest.mark.parametrize("size", [1023, 1024])
def test_length_of_the_registration(rig, size):
    empty = len(f'REGISTER={{"cloudid":"{CLOUD_ID}/1","login":"","password":"","uri":"","model":'
                '"Cam-1","vendor":"Maker"}')
    agent = rig.start(rig.camera.url("/" + "x" * (size - empty - 1)))
    if size < 1024:
        assert len(rig.cloud.accept().registration) == size
        return
    agent.wait_for("Registration message too long", 2)      # again after the back-off
    log = since(agent.log(), "offline -> connecting")
    assert log[0].startswith("DEBUG REGISTER=") and len(log[0]) == len("DEBUG ") + 1023
    assert log[1:5] == ["ERROR Registration message too long", WAITING_ENDS.format(1), OFFLINE,
                        "DEBUG Stream 1 status change: offline -> connecting"]
    wait_until(lambda: rig.cloud.errors, what="close")
    assert "no registration before the close: got 0 bytes" in str(rig.cloud.errors[0])


@pytest.mark.parametrize("end, message", [
    (lambda cloud: cloud.close(), "ERROR Connection closed by peer during registration"),
    (lambda cloud: cloud.close(reset=True),
     "ERROR Registration receive error: Connection reset by peer"),
])
def test_cloud_gone_before_the_relay(rig, end, message):
    """Error, offline, back-off; the status file says so; a keepalive does not reset the delay."""
    agent = rig.start(options=["-d", "-n", f"--status-file={rig.status_file}"])
    times = []
    for turn in range(3):
        cloud = rig.cloud.accept()
        cloud.keepalive()
        agent.wait_for("Sent keepalive response for stream 1\n", turn + 1)
        assert rig.status_file.read_text() == "1"
        mark = agent.mark()
        end(cloud)
        times.append(agent.wait_for(OFFLINE[6:], since=mark))
        assert agent.log(mark)[:3] == [message, WAITING_ENDS.format(1), OFFLINE]
        wait_until(lambda: rig.status_file.read_text() == "0", what="status 0")
    assert 1.9 < times[2] - times[1] < 4 and 0.9 < times[1] - times[0] < 2.5


def test_unreachable_cloud(rig):
    """A host name is refused on the spot, a port that nobody listens on by the system."""
    rig.balance(http_answer("cloud.example-1|554"))
    named = rig.start()
    named.wait_for("Invalid cloud server address", 2)
    assert since(named.log(), "offline -> connecting")[:2] == \
        ["DEBUG Stream 1 error: [22] Invalid cloud server address", OFFLINE]
    with socket.socket() as closed:
        closed.bind(("127.0.0.1", 0))
        rig.balancer.answers[:] = [http_answer(f"127.0.0.1|{closed.getsockname()[1]}")]
        refused = rig.start()
        refused.wait_for("error -> offline")
    assert since(refused.log(), "offline -> connecting")[:2] == \
        ["DEBUG Stream 1 error: [111] Connection refused", OFFLINE]


def test_probe_backs_off_until_the_camera_answers(rig):
    """The words may stand anywhere in the answer; a probe leaves no line in the log."""
    times = []

    def probe(request):
        times.append(time.monotonic())
        return (status_answer("401 Unauthorized")(request), b"RTSP/1.0 200 ok\r\n\r\n",
                b"noise RTSP/1.0 200 OK")[len(times) - 1]
    rig.camera.probe = probe
    agent = rig.start()
    rig.cloud.accept()
    agent.wait_for("offline -> connecting")
    assert 0.9 < times[1] - times[0] < 2.5 and 1.9 < times[2] - times[1] < 3.5
    assert since(agent.log(), "Proxy initialized")[0] == \
        "DEBUG Stream 1 status change: offline -> connecting"


LONG = "/" + "x" * 240      # a camera URL of more than 255 bytes, and a registration that fits
REFUSED = "OPTIONS rtsp://cloud/x RTSP/1.0\r\n{}\r\n\r\n".format
GOOD = REFUSED("CSeq: 1")
MODIFY = "DEBUG Stream 1 error: [22] Failed to modify OPTIONS request"
FAILED = "DEBUG Stream 1 error: [{}] {}".format


@pytest.mark.parametrize("path, request_text, answer, reasons", [
    ("/", GOOD, status_answer("401 Unauthorized"),
     [FAILED(71, "Camera rejected OPTIONS request with code 401")]),
    ("/", GOOD, fixed_answer(b"HTTP/1.1 200 OK\r\n\r\n"),
     [FAILED(71, "Invalid OPTIONS response format from camera")]),
    ("/", GOOD, fixed_answer(b" RTSP/1.0 200 OK\r\n\r\n"),
     [FAILED(71, "Invalid OPTIONS response format from camera")]),
    ("/", GOOD, hang_up, [FAILED(104, "Camera connection closed during handshake")]),
    ("/", GOOD, no_answer, [FAILED(11, "Failed to receive OPTIONS response from camera")]),
    ("/", REFUSED("cseq: 1"), ok_answer, ["ERROR No CSeq found in OPTIONS request", MODIFY]),
    ("/", "OPTIONS", ok_answer, ["ERROR No CSeq found in OPTIONS request", MODIFY]),
    (LONG, GOOD, ok_answer, ["ERROR Camera URL too long", MODIFY]),
    ("/" + "x" * 100, REFUSED("CSeq: 1\r\nX: " + "x" * 8100), ok_answer,
     ["ERROR Modified OPTIONS request too long", MODIFY]),
    ("/", GOOD, None, [FAILED(111, "Camera connection failed")]),
], ids=["401", "http", "blank", "close", "silence", "lower-case", "bare", "url", "long", "refused"])
def test_handshake_that_fails(rig, path, request_text, answer, reasons):
    """Every report in its order, nothing for the cloud but the close, a second of back-off."""
    agent = rig.start(rig.camera.url(path))
    cloud = rig.cloud.accept()
    rig.camera.handshake = answer
    if answer is None:
        rig.camera.close()
    began = time.monotonic()
    cloud.send(request_text.encode())
    offline = agent.wait_for("error -> offline")
    cloud.expect_closed()
    assert (offline - began > 1.9) == (answer is no_answer)
    connected = answer is not None
    log = since(agent.log(), "Received OPTIONS command for stream 1")
    own = [line for line in log if not line.startswith(("DEBUG Forwarded", "DEBUG Received"))]
    expected = [*reasons, *[FAILED(71, "RTSP handshake failed")][:connected],
                FAILED(71, "Stream proxy failed"), OFFLINE]
    assert own[connected:connected + len(expected)] == expected
    if not connected:
        return
    assert own[0] == f"DEBUG Connected to camera 127.0.0.1:{rig.camera.port}"
    again = agent.wait_for("offline -> connecting", 2)
    assert 0.9 < again - offline < 2.5
    assert len(rig.camera.requests) == ("Forwarded OPTIONS" in agent.text)


def test_split_request_fails_and_the_next_relay_resets_the_delay(rig):
    """What follows in a second receive is not part of the request."""
    agent = rig.start()
    for wait in (1, 2):         # the second failure in a row doubles the pause
        cloud = rig.cloud.accept()
        cloud.send(b"OPTIONS rtsp://cloud/x RTSP/1.0\r\n")
        failed = agent.wait_for("error -> offline", wait)
        assert wait - 0.1 < agent.wait_for("offline -> connecting", wait + 1) - failed < wait + 1.5
    camera, cloud = rig.relay()
    camera.send(pattern(100))
    cloud.expect(pattern(100))
    camera.close()
    began = time.monotonic()
    cloud = rig.cloud.accept()
    assert time.monotonic() - began < RETURN_LIMIT
    cloud.close()
    failed = agent.wait_for("Connection closed by peer during registration")
    assert 0.9 < agent.wait_for("offline -> connecting", 5) - failed < 2.5
