"""A stream's way to its relay: the registration, the cloud's messages, the handshake."""

import socket
import time

import pytest

from harness import CLOUD_ID, wait_until
from scripted import http_answer, ok_answer

WAITING_ENDS = "DEBUG Stream 1 error: [71] Failed to receive OPTIONS from cloud"
OFFLINE = "DEBUG Stream 1 status change: error -> offline"


def since(log: list[str], text: str) -> list[str]:
    """What comes behind the first line that has `text`."""
    return log[next(i for i, line in enumerate(log) if text in line) + 1:]


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
    rig.camera.handshake = camera_answer
    cloud.send_options()
    cloud.expect(camera_answer)
    agent.wait_for("registered -> streaming")
    log = since(agent.log(), "Sent keepalive response for stream 1")
    assert log[:len(ignored) + 2] == [
        *("DEBUG Unexpected registration response: " + message.partition(b"\0")[0].decode()
          for message in ignored),
        "DEBUG Sent keepalive response for stream 1", "INFO Received OPTIONS command for stream 1"]


@pytest.mark.parametrize("size", [1023, 1024])
def test_length_of_the_registration(rig, hurry, size):
    empty = len(f'REGISTER={{"cloudid":"{CLOUD_ID}/1","login":"","password":"","uri":"","model":'
                '"Cam-1","vendor":"Maker"}')
    agent = rig.start(rig.camera.url("/" + "x" * (size - empty - 1)))
    if size < 1024:
        assert len(rig.cloud.accept().registration) == size
        return
    agent.wait_for("Registration message too long", 2)      # again after the back-off
    log = since(agent.log(), "offline -> connecting")
    assert log[0].startswith("DEBUG REGISTER=") and len(log[0]) == len("DEBUG ") + 1023
    assert log[1:5] == ["ERROR Registration message too long", WAITING_ENDS, OFFLINE,
                        "DEBUG Stream 1 status change: offline -> connecting"]
    wait_until(lambda: rig.cloud.errors, what="close")
    assert "no registration before the close: got 0 bytes" in str(rig.cloud.errors[0])


def test_cloud_gone_before_the_relay(rig, hurry):
    """Error, offline, back-off; the status file says so."""
    agent = rig.start(options=["-d", "-n", f"--status-file={rig.status_file}"])
    for reset, message in [(False, "ERROR Connection closed by peer during registration"),
                           (True, "ERROR Registration receive error: Connection reset by peer")]:
        cloud = rig.cloud.accept()
        agent.wait_for("connecting -> registered", 1 + reset)
        wait_until(lambda: rig.status_file.read_text() == "1", what="status 1")
        mark = agent.mark()
        cloud.close(reset)
        agent.wait_for(OFFLINE[6:], since=mark)
        assert agent.log(mark)[:3] == [message, WAITING_ENDS, OFFLINE]
    wait_until(lambda: rig.status_file.read_text() == "0", what="status 0")


def test_unreachable_cloud(rig, hurry):
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


REQUEST = "OPTIONS rtsp://cloud/x RTSP/1.0\r\n{}\r\n\r\n".format
FAILED = "DEBUG Stream 1 error: [{}] {}".format
FORMAT = FAILED(71, "Invalid OPTIONS response format from camera")
MODIFY = FAILED(22, "Failed to modify OPTIONS request")


@pytest.mark.parametrize("request_text, answer, reasons", [
    (REQUEST("CSeq: 1"), b"RTSP/1.0 401 Unauthorized\r\n\r\n",
     [FAILED(71, "Camera rejected OPTIONS request with code 401")]),
    (REQUEST("CSeq: 1"), b"HTTP/1.1 200 OK\r\n\r\n", [FORMAT]),
    (REQUEST("CSeq: 1"), b"", [FAILED(104, "Camera connection closed during handshake")]),
    (REQUEST("CSeq: 1"), None,
     [FAILED(11, "Failed to receive OPTIONS response from camera")]),
    ("OPTIONS", ok_answer, ["ERROR No CSeq found in OPTIONS request", MODIFY]),
    (REQUEST("CSeq: 1\r\nX: " + "x" * 8100), ok_answer,
     ["ERROR Modified OPTIONS request too long", MODIFY]),
    (REQUEST("CSeq: 1"), "nobody", [FAILED(111, "Camera connection failed")]),
], ids=["401", "http", "close", "silence", "bare", "long", "refused"])
def test_handshake_that_fails(rig, request_text, answer, reasons):
    """Every report in its order, nothing for the cloud but the close, a second of back-off."""
    agent = rig.start(rig.camera.url("/" + "x" * 100))
    cloud = rig.cloud.accept()
    rig.camera.handshake = answer
    connected = answer != "nobody"
    if not connected:
        rig.camera.close()
    began = time.monotonic()
    cloud.send(request_text.encode())
    offline = agent.wait_for("error -> offline")
    cloud.expect_closed()
    assert offline - began > (1.9 if answer is None else 0)
    log = since(agent.log(), "Received OPTIONS command for stream 1")
    own = [line for line in log if not line.startswith(("DEBUG Forwarded", "DEBUG Received"))]
    first = f"DEBUG Connected to camera 127.0.0.1:{rig.camera.port}"
    expected = [*[first][:connected], *reasons, *[FAILED(71, "RTSP handshake failed")][:connected],
                FAILED(71, "Stream proxy failed"), OFFLINE]
    assert own[:len(expected)] == expected
    if connected:
        assert agent.wait_for("offline -> connecting", 2) - offline > 0.9
        assert len(rig.camera.requests) == ("Forwarded OPTIONS" in agent.text)
