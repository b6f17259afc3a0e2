"""How relays end: what was relayed still arrives, in which order they end, and how soon."""

import socket
import time

import pytest

from harness import PRELOADABLE, SANITIZED, Agent, Rig, wait_until
from scripted import pattern
from test_pages import small_buffers  # noqa: F401

SIZE = 1_500_000


def slow_cloud(rig: Rig) -> None:
    """Its kernel holds little, so that what it has not read lies in the agent's send queue."""
    rig.cloud.listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 16384)


def camera_ends(agent: Agent, camera, size: int) -> float:
    """Sends so much, then ends; when the agent has seen it."""
    mark = agent.mark()
    camera.send(bytes(size))
    camera.half_close()
    return agent.wait_for("error -> offline", since=mark)


def test_what_was_relayed_arrives_whatever_the_cloud_still_says(rig):
    """Unread bytes would turn the agent's close into a reset and cost the rest of the queue."""
    slow_cloud(rig)
    agent = rig.start()
    camera, cloud = rig.relay()
    agent.wait_for("registered -> streaming")
    camera.send(pattern(SIZE))
    camera.close()
    agent.wait_for("error -> offline")
    for _ in range(3):
        cloud.send(b"one more word")
        time.sleep(0.1)     # past the 200 ms after which the agent closes the connections
    arrived = b"".join(iter(lambda: cloud.sock.recv(65536), b""))   # a reset is an error here
    assert (len(arrived), arrived == pattern(SIZE)) == (SIZE, True)


def test_times_of_the_end(rig):
    """The camera is closed after 200 ms. Then bytes that the cloud does not take delay its close,
    and the next registration, by a second, an empty queue by nothing."""
    slow_cloud(rig)
    agent = rig.start()

    def seconds(size: int) -> float:
        camera, cloud = rig.relay()
        ended = camera_ends(agent, camera, size)
        before = rig.cloud.registered_count
        if not size:
            cloud.expect_silence(0.1)
        camera.expect_closed()
        assert 0.15 < time.monotonic() - ended < 0.8
        wait_until(lambda: rig.cloud.registered_count > before, what="registration")
        return time.monotonic() - ended

    assert 0.2 <= min(seconds(0) for _ in range(3)) < 0.8
    assert 1 < seconds(SIZE) < (4 if SANITIZED else 2.2)
    camera, _ = rig.relay()
    camera_ends(agent, camera, SIZE)
    assert agent.stop() < (1.5 if SANITIZED else 0.5)


@pytest.mark.parametrize("camera_sends", [True, False])
def test_who_reads_late_gets_what_was_sent_before_the_close(rig, small_buffers, camera_sends):
    slow_cloud(rig)
    rig.start()
    sender, receiver = rig.relay() if camera_sends else reversed(rig.relay())
    sender.send(pattern(100_000))
    sender.half_close()
    time.sleep(2)
    assert receiver.recv_all() == pattern(100_000)


def test_camera_that_ends_while_the_cloud_never_reads(rig, small_buffers):
    slow_cloud(rig)
    agent = rig.start()
    camera, _ = rig.relay()
    camera.send(pattern(100_000))
    camera.close()
    agent.wait_for("Stream 1 error: [104] Camera connection closed\n", timeout=20)


@pytest.mark.skipif(not PRELOADABLE, reason="it cannot be preloaded")
def test_order_of_the_lines_when_the_cloud_hangs_up(rig, faults):
    """The cloud's direction says that it has stopped before it wakes the other one."""
    agent = rig.start()
    _, cloud = rig.relay()
    agent.wait_for("registered -> streaming")
    mark = agent.mark()
    faults.plan("shutdown")     # late: whoever is woken comes first, by µs
    cloud.close()
    agent.wait_for("error -> offline", since=mark)
    assert "Cloud to camera thread stopped" in agent.text[mark:].partition("offline")[0]
