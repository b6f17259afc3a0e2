"""The relay: bytes in both directions, how it ends, who reports the end, what the peers see."""

import hashlib
import random
import socket
import threading
import time

import pytest

from harness import RETURN_LIMIT, FinWatch, assert_merged, flood, wait_until
from scripted import Connection, echo, frames, pattern

MIB = 1 << 20


def exchange(connection: Connection, outgoing: bytes, expected: int, reads: range, writes: range,
             pause: float, result: list) -> threading.Thread:
    """Sends and receives at the same time in pieces of random sizes; puts the hash in `result`."""
    def send() -> None:
        sizes, at = random.Random(1), 0
        while at < len(outgoing):
            size = sizes.choice(writes)
            connection.send(outgoing[at:at + size])
            at += size

    def receive() -> None:
        sizes, left, digest = random.Random(2), expected, hashlib.sha256()
        while left > 0 and (data := connection.recv(min(sizes.choice(reads), left))):
            digest.update(data)
            left -= len(data)
            if pause:
                time.sleep(pause)
        result.append(digest.digest())

    connection.timeout = 60
    sender = threading.Thread(target=send, daemon=True)
    receiver = threading.Thread(target=receive, daemon=True)
    sender.start()
    receiver.start()
    return receiver


@pytest.mark.parametrize("size, reads, writes, pause, receive_buffer", [
    (40 * MIB, range(65536, 65537), range(65536, 65537), 0, None),
    (10 * MIB, range(1, 65536), range(1, 70000), 0.005, 32768),
    (48 * 1024, range(1, 7), range(1, 7), 0, None),
], ids=["large", "slow readers", "tiny pieces"])
def test_bytes_arrive_unchanged(rig, size, reads, writes, pause, receive_buffer):
    rig.start()
    camera, cloud = rig.relay()
    if receive_buffer:
        for end in (camera, cloud):
            end.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    from_camera, from_cloud = frames(size), pattern(size + 4321)
    at_camera, at_cloud = [], []
    arguments = (reads, writes, pause)
    receivers = [exchange(camera, from_camera, len(from_cloud), *arguments, at_camera),
                 exchange(cloud, from_cloud, len(from_camera), *arguments, at_cloud)]
    for receiver in receivers:
        receiver.join(60)
    assert at_cloud == [hashlib.sha256(from_camera).digest()]
    assert at_camera == [hashlib.sha256(from_cloud).digest()]


@pytest.mark.parametrize("camera_sends", [True, False])
def test_what_was_sent_before_the_close_arrives(rig, camera_sends):
    rig.start()
    sender, receiver = rig.relay() if camera_sends else reversed(rig.relay())
    sender.send(pattern(300_000))
    sender.half_close()
    assert receiver.recv_all() == pattern(300_000)


def test_echo_of_the_first_bytes(rig):
    """Bytes that come right behind the handshake go through as well, in order."""
    rig.camera.behaviour = echo
    rig.start()
    for number in range(3):
        cloud = rig.cloud.accept()
        cloud.start_relay(cseq=number)
        cloud.send(pattern(20_000, seed=number))
        cloud.expect(pattern(20_000, seed=number))
        cloud.close()


CAMERA_CLOSED = ["DEBUG Stream 1 error: [{}] Camera connection closed",
                 "INFO Camera connection closed"]
CAMERA_GONE = [CAMERA_CLOSED[0].format(104), CAMERA_CLOSED[1]]
CAMERA_RESET = ["DEBUG Stream 1 error: [104] Camera read error",
                "ERROR Camera read error: Connection reset by peer"]
CLOUD_GONE = ["DEBUG Stream 1 error: [104] Cloud connection closed (read failed)"]
CLOUD_RESET = ["DEBUG Stream 1 error: [104] Cloud read error",
               "ERROR Cloud read error: Connection reset by peer"]
CLOUD_REFUSED = [["DEBUG Stream 1 error: [32] Cloud connection closed (write failed)"],
                 ["DEBUG Stream 1 error: [104] Cloud connection closed (write failed)"]]
CAMERA_REFUSED = [[CAMERA_CLOSED[0].format(32), CAMERA_CLOSED[1]]]


def nothing(_camera, _cloud):
    pass


def camera_floods(camera, _cloud):
    flood(camera)


def cloud_floods(_camera, cloud):
    flood(cloud)


def both_flood(camera, cloud):
    camera_floods(camera, cloud)
    cloud_floods(camera, cloud)


@pytest.mark.parametrize("before, end, reports", [
    (nothing, lambda camera, _: camera.close(), [CAMERA_GONE]),
    (nothing, lambda camera, _: camera.half_close(), [CAMERA_GONE]),
    (nothing, lambda camera, _: camera.close(reset=True), [CAMERA_RESET]),
    (nothing, lambda _, cloud: cloud.close(), [CLOUD_GONE]),
    (nothing, lambda _, cloud: cloud.half_close(), [CLOUD_GONE]),
    (nothing, lambda _, cloud: cloud.close(reset=True), [CLOUD_RESET]),
    (camera_floods, lambda _, cloud: cloud.half_close(), [CLOUD_GONE]),
    (camera_floods, lambda _, cloud: cloud.close(), [CLOUD_GONE, CLOUD_RESET, *CLOUD_REFUSED]),
    (cloud_floods, lambda camera, _: camera.half_close(), [CAMERA_GONE]),
    (cloud_floods, lambda camera, _: camera.close(), [CAMERA_GONE, CAMERA_RESET, *CAMERA_REFUSED]),
    (both_flood, lambda _, cloud: cloud.close(reset=True), [CLOUD_RESET, *CLOUD_REFUSED]),
    (both_flood, lambda camera, _: camera.close(reset=True),
     [CAMERA_RESET, CAMERA_GONE, *CAMERA_REFUSED]),
], ids=["camera closes", "camera half-closes", "camera resets", "cloud closes",
        "cloud half-closes", "cloud resets", "cloud half-closes on a blocked send",
        "cloud closes on a blocked send", "camera half-closes on a blocked send",
        "camera closes on a blocked send", "cloud resets, both blocked",
        "camera resets, both blocked"])
def test_one_report_and_registered_again(rig, before, end, reports):
    """Whatever ends a relay, and whatever its other half is doing: one report, then a new start."""
    agent = rig.start()
    camera, cloud = rig.relay()
    agent.wait_for("registered -> streaming")
    before(camera, cloud)
    mark = agent.mark()
    began = time.monotonic()
    end(camera, cloud)
    again = rig.cloud.accept()
    took = time.monotonic() - began
    assert again.number == 1
    agent.wait_for("Cloud to camera thread stopped", since=mark)
    agent.wait_for("offline -> connecting", since=mark)
    log = agent.log(mark)
    first_part = log[:log.index("DEBUG Stream 1 status change: offline -> connecting")]
    stopping = ["DEBUG Stream 1 status change: error -> offline",
                "DEBUG Camera to cloud thread stopping"]
    report = next((lines for lines in reports if lines[0] in first_part), reports[0])
    assert_merged(first_part, [*report, *stopping], ["DEBUG Cloud to camera thread stopped"])
    assert 0.2 <= took < RETURN_LIMIT
    for closed in (camera, cloud):
        if closed.sock.fileno() >= 0:
            closed.wait_closed()


@pytest.mark.parametrize("camera_ends", [True, False])
def test_order_of_the_end_as_seen_from_outside(rig, camera_ends):
    """Offline, then the camera's connection closed, then the cloud's; between them 200 ms."""
    agent = rig.start(options=["-d", "-n", "-f", str(rig.status_file)])
    camera, cloud = rig.relay()
    agent.wait_for("registered -> streaming")
    cloud_port, camera_port = cloud.sock.getsockname()[1], rig.camera.port
    with FinWatch(camera_port, cloud_port) as watch:
        (camera if camera_ends else cloud).half_close()
        offline = agent.wait_for("error -> offline")
        wait_until(lambda: rig.status_file.read_text() == "0", what="status 0")
        order = watch.wait()
    assert [port for port, _ in order] == [camera_port, cloud_port]
    assert order[0][1] - offline > 0.15
    assert order[1][1] - order[0][1] < 0.5
