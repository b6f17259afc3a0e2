"""Links and machines that die: the agent and its peers live in networks of their own, and every
packet between them passes through the test.

The times are the real ones, so these tests take a minute each, in which they mostly wait: run them
with many workers. With -s each prints its row of the table in docs/operations.md.
"""

import collections
import contextlib
import os
import queue
import random
import select
import socket
import subprocess
import threading
import time

import pytest

from harness import enter_network_namespace, flood
from scripted import ScriptedServer, http_answer, pattern

pytestmark = pytest.mark.heavy
CLOUD, CAMERA, AGENT = "10.9.0.1", "10.9.0.2", "10.9.0.3"
TO_CLOUD, FROM_CLOUD = (AGENT, CLOUD), (CLOUD, AGENT)
TO_CAMERA, FROM_CAMERA = (AGENT, CAMERA), (CAMERA, AGENT)
WAYS = """
    ip link add name {0} type veth peer name {0}-end
    ip link set {0} netns {1}
    ip link set {0}-end arp off up
    {2} ethtool -K {0} tx off tso off gso off
    {2} ip link set {0} address 02:00:00:00:00:0{3} arp off up
    {2} ip address add {4} dev {0}
"""


def shell(script: str) -> None:
    subprocess.run(["sh", "-e", "-c", script], check=True, stdout=subprocess.DEVNULL)


class Link(threading.Thread):
    """Carries the packets between the two networks, if it does not lose them."""

    def __init__(self, start_balancer):
        super().__init__(daemon=True)
        self.ended, networks = threading.Event(), queue.Queue()

        def hold_agents_network() -> None:
            enter_network_namespace()
            start_balancer()
            networks.put(f"/proc/{os.getpid()}/task/{threading.get_native_id()}/ns/net")
            self.ended.wait()
        threading.Thread(target=hold_agents_network, daemon=True).start()
        network = networks.get(timeout=10)
        self.enter = ["nsenter", f"--net={network}"]
        agents = " ".join(self.enter)
        shell(WAYS.format("near", network, agents, 1, f"{AGENT}/24")
              + WAYS.format("far", os.getpid(), "", 2, f"{CLOUD}/24")
              + f"ip address add {CAMERA}/24 dev far")
        shell(f"ip neigh add {AGENT} lladdr 02:00:00:00:00:01 dev far")
        for peer in (CLOUD, CAMERA):
            shell(f"{agents} ip neigh add {peer} lladdr 02:00:00:00:00:02 dev near")
        self.ends = [socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x0800))
                     for _ in range(2)]
        for end, name in zip(self.ends, ("near-end", "far-end")):
            end.bind((name, 0x0800))
        self.lost: set[tuple[str, str]] = set()     # from where to where
        self.loss, self.delay = 0.0, 0.0            # of all; seconds
        self.start()

    def run(self) -> None:
        under_way = collections.deque()
        while not self.ended.is_set():
            for end in select.select(self.ends, [], [], 0.001 if under_way else 0.1)[0]:
                packet, (_name, _protocol, kind, *_rest) = end.recvfrom(2048)
                way = socket.inet_ntoa(packet[26:30]), socket.inet_ntoa(packet[30:34])
                if kind != socket.PACKET_OUTGOING and way not in self.lost \
                        and random.random() >= self.loss:
                    other = self.ends[1 - self.ends.index(end)]
                    under_way.append((time.monotonic() + self.delay, other, packet))
            while under_way and under_way[0][0] <= time.monotonic():
                _due, other, packet = under_way.popleft()
                other.send(packet)

    def close(self) -> None:
        self.ended.set()
        self.join()
        shell("ip link del far; ip link del near-end")
        for end in self.ends:
            end.close()


@pytest.fixture(autouse=True)
def hosts(monkeypatch):
    monkeypatch.setattr(ScriptedServer, "host", "")


@pytest.fixture
def link(rig):
    link = Link(lambda: rig.balance(http_answer(f"{CLOUD}|{rig.cloud.port}")))
    yield link
    link.close()


@pytest.fixture
def agent(link, rig):
    return rig.start(f"rtsp://{CAMERA}:{rig.camera.port}/stream", prefix=link.enter)


def keep_sending(connection) -> None:
    def run():
        with contextlib.suppress(OSError):
            while True:
                connection.sock.sendall(bytes(500))
                time.sleep(0.1)
    connection.sock.settimeout(600)
    threading.Thread(target=run, daemon=True).start()


@pytest.mark.parametrize("name, sending, lost, back, reported", [
    ("cloud cut off from video", "camera", {TO_CLOUD, FROM_CLOUD}, 0, "Cloud send error"),
    ("cloud that does not read cut off", "flood", {TO_CLOUD, FROM_CLOUD}, 0, "Cloud send error"),
    ("cloud cut off, idle", "", {TO_CLOUD, FROM_CLOUD}, 0, "Cloud read error"),
    ("camera cut off from commands", "cloud", {TO_CAMERA, FROM_CAMERA}, 0, "Camera send error"),
    ("camera cut off amid video", "camera", {TO_CAMERA, FROM_CAMERA}, 0, "Camera read error"),
    ("nothing reaches the cloud", "camera", {TO_CLOUD}, 0, "Cloud send error"),
    ("nothing comes from the cloud", "camera", {FROM_CLOUD}, 0, "Cloud send error"),
    ("cloud cut off for longer", "camera", {TO_CLOUD, FROM_CLOUD}, 20, "Cloud send error"),
    ("cloud machine restarts", "camera", {TO_CLOUD, FROM_CLOUD}, 0, ""),
], ids=lambda value: value if isinstance(value, str) and " " in value else "")
def test_cut(link, rig, agent, name, sending, lost, back, reported):
    camera, cloud = rig.relay()
    if sending == "flood":
        flood(camera)
    else:
        for connection in (camera, cloud):
            connection.timeout = 600
            threading.Thread(target=connection.recv_all, daemon=True).start()
    if sending in ("camera", "cloud"):
        keep_sending(cloud if sending == "cloud" else camera)
    time.sleep(2)
    cut = time.monotonic()
    link.lost = set(lost)
    if not reported:
        cloud.close(reset=True)
        time.sleep(5)
        link.lost.clear()
    noticed = agent.wait_for("Stream 1 error: [", timeout=90)
    assert not reported or f"Stream 1 error: [110] {reported}\n" in agent.text
    time.sleep(back)
    link.lost = set()
    agent.wait_for("-> registered", count=2, timeout=30)
    rig.relay()
    again = agent.wait_for("-> streaming", count=2) - back
    print(f"\n| {name} | \"{reported}\" | {noticed - cut:.1f} s | {again - noticed:.1f} s |")
    assert noticed - cut < (60 if reported else 35)
    assert again - noticed < (30 if back else 5)


def exchange(camera, cloud, size: int, stall: float = 0) -> None:
    """Sends both ways at once; the cloud begins to read late."""
    data = pattern(size)
    for connection in (camera, cloud):
        connection.timeout = 180
        threading.Thread(target=connection.send, args=(data,), daemon=True).start()
    camera.expect(data)
    time.sleep(stall)
    cloud.expect(data)


@pytest.mark.parametrize("loss, delay, cut, size, stall", [
    (0.03, 0.05, 0, 300_000, 0), (0, 0, 20, 300_000, 0), (0, 0.02, 0, 8_000_000, 125),
], ids=["delay and loss", "cut for 20 s", "cloud that does not read for 125 s"])
def test_living_peers_are_waited_for(link, rig, agent, loss, delay, cut, size, stall):
    camera, cloud = rig.relay()
    link.loss, link.delay = loss, delay
    if cut:
        link.lost = {TO_CLOUD, FROM_CLOUD}
        threading.Timer(cut, link.lost.clear).start()
    exchange(camera, cloud, size, stall)
    assert "error" not in agent.text
