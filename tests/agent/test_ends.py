"""How relays end: what was relayed still arrives, in which order they end, and how soon."""

import os
import signal
import threading
import time

import pytest

from harness import SANITIZED, Agent, Rig, wait_until
from scripted import ScriptedCloud, pattern
from test_hardening import failing, traceable

SIZE = 1_500_000


def slow_cloud(rig: Rig) -> None:
    """Its kernel holds little, so that what it has not read lies in the agent's send queue."""
    rig.cloud = rig.peers.enter_context(ScriptedCloud(receive_buffer=16384))


def camera_ends(agent: Agent, camera, size: int) -> float:
    """Sends so much, then closes; when the agent has seen the end."""
    mark = agent.mark()
    camera.send(bytes(size))
    camera.close()
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


def test_time_from_the_end_to_registered_again(rig):
    """Bytes that the cloud does not take delay it by a second, an empty queue by nothing."""
    slow_cloud(rig)
    agent = rig.start()

    def seconds(size: int) -> float:
        camera, _ = rig.relay()
        ended = camera_ends(agent, camera, size)
        before = rig.cloud.registered_count
        wait_until(lambda: rig.cloud.registered_count > before, what="registration")
        return time.monotonic() - ended

    assert 0.2 <= min(seconds(0) for _ in range(3)) < 0.8
    assert 1 < seconds(SIZE) < (4 if SANITIZED else 2.2)
    camera, _ = rig.relay()
    camera_ends(agent, camera, SIZE)
    assert agent.stop() < (1.5 if SANITIZED else 0.5)


@traceable
def test_order_of_the_lines_when_the_cloud_hangs_up(rig):
    """The cloud's direction says that it has stopped before it wakes the other one."""
    agent = rig.start()
    _, cloud = rig.relay()
    agent.wait_for("registered -> streaming")
    mark = agent.mark()
    with failing(agent, "shutdown", "delay_exit=100000"):   # whoever is woken comes first, by µs
        cloud.close()
        agent.wait_for("error -> offline", since=mark)
    assert "Cloud to camera thread stopped" in agent.text[mark:].partition("offline")[0]


@pytest.mark.parametrize("closes", [False, True], ids=["silence", "close"])
@pytest.mark.parametrize("buffers", [1, 2, 5, 16])
def test_the_last_full_buffer_is_not_held_back(rig, buffers, closes):
    """The agent sleeps while the camera sends, so that each of its receives is a full one. A busy
    machine may slow one try, but bytes that wait for the kernel's timer take 200 ms every time."""
    data = pattern(buffers * 8192)
    agent = rig.start()
    took = []
    while min(took, default=1) > 0.1 and len(took) < 5:
        camera, cloud = rig.relay()
        agent.wait_for("registered -> streaming", len(took) + 1)
        time.sleep(0.1)     # until the handshake is acknowledged: any acknowledgement pushes
        os.kill(agent.pid, signal.SIGSTOP)
        camera.send(data)
        if closes:
            camera.half_close()
        os.kill(agent.pid, signal.SIGCONT)
        began = time.monotonic()
        cloud.expect(data)
        took.append(time.monotonic() - began)
        cloud.close()
    assert min(took) < 0.1
