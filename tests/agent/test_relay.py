"""The relay: bytes in both directions, how it ends, who reports the end."""

import random
import threading
import time

import pytest

from harness import assert_merged, flood
from scripted import Connection, pattern

MIB = 1 << 20


def send_in_pieces(connection: Connection, data: bytes, sizes: range) -> None:
    choice, at = random.Random(1), 0
    while at < len(data):
        size = choice.choice(sizes)
        connection.send(data[at:at + size])
        at += size


@pytest.mark.parametrize("size, pieces", [(40 * MIB, range(1, 300_000)), (48 * 1024, range(1, 7))])
def test_bytes_arrive_unchanged(rig, size, pieces):
    """Both ends send at once, in pieces of random sizes; one of them is only read later."""
    rig.start()
    ends = camera, cloud = rig.relay()
    data = {camera: pattern(size, 1), cloud: pattern(size + 4321)}
    for end in ends:
        end.timeout = 60
        threading.Thread(target=send_in_pieces, args=(end, data[end], pieces), daemon=True).start()
    cloud.expect(data[camera])
    camera.expect(data[cloud])


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


@pytest.mark.parametrize("end, floods, reports", [
    ("camera close", (), [CAMERA_GONE]),
    ("camera half_close", (), [CAMERA_GONE]),
    ("camera reset", (), [CAMERA_RESET]),
    ("cloud close", (), [CLOUD_GONE]),
    ("cloud half_close", (), [CLOUD_GONE]),
    ("cloud reset", (), [CLOUD_RESET]),
    ("cloud half_close", ["camera"], [CLOUD_GONE]),
    ("cloud close", ["camera"], [CLOUD_GONE, CLOUD_RESET, *CLOUD_REFUSED]),
    ("camera half_close", ["cloud"], [CAMERA_GONE]),
    ("camera close", ["cloud"], [CAMERA_GONE, CAMERA_RESET, *CAMERA_REFUSED]),
    ("cloud reset", ["camera", "cloud"], [CLOUD_RESET, *CLOUD_REFUSED]),
    ("camera reset", ["camera", "cloud"], [CAMERA_RESET, CAMERA_GONE, *CAMERA_REFUSED]),
], ids=lambda value: value if isinstance(value, str) else
   " and ".join(name for name in value if isinstance(name, str)) or None)
def test_one_report_and_registered_again(rig, end, floods, reports):
    """Whatever ends a relay, and whichever direction is blocked: one report, then a new start."""
    agent = rig.start()
    ends = dict(zip(("camera", "cloud"), rig.relay()))
    agent.wait_for("registered -> streaming")
    for name in floods:
        flood(ends[name])
    mark, began = agent.mark(), time.monotonic()
    name, _, action = end.partition(" ")
    if action == "half_close":
        ends[name].half_close()
    else:
        ends[name].close(reset=action == "reset")
    assert rig.cloud.accept().number == 1
    assert 0.2 <= time.monotonic() - began < 5
    agent.wait_for("offline -> connecting", since=mark)
    log = agent.log(mark)
    first_part = log[:log.index("DEBUG Stream 1 status change: offline -> connecting")]
    stopping = ["DEBUG Stream 1 status change: error -> offline",
                "DEBUG Camera to cloud thread stopping"]
    report = next((lines for lines in reports if lines[0] in first_part), reports[0])
    assert_merged(first_part, [*report, *stopping], ["DEBUG Cloud to camera thread stopped"])
    for closed in ends.values():
        if closed.sock.fileno() >= 0:
            closed.wait_closed()
