"""Peers that misbehave: what they cost the agent, whom they disturb, who is served after them."""

import contextlib
import socket
import threading
import time
from concurrent.futures import ThreadPoolExecutor

import pytest

from harness import SANITIZED, wait_until
from scripted import (BLANK_LINE, Connection, Request, http_answer, never_read, ok_answer,
                      pattern)
from test_pages import HTML, PORT, ask

SECONDS = 2     # of misbehaviour
PROCESSOR = 0.5 if SANITIZED else 0.1           # of a second, per second
GROWTH = (0, 0, float("inf") if SANITIZED else 32)  # KiB; sanitizers keep some of their own
OK = ok_answer(Request(b""))


@contextlib.contextmanager
def no_growth(agent):
    """Of descriptors, threads and memory."""
    def figures() -> list[int]:
        return [agent.descriptors(), agent.threads(), agent.memory_kib()]
    most = [figure + growth for figure, growth in zip(figures(), GROWTH)]
    yield
    wait_until(lambda: all(now <= limit for now, limit in zip(figures(), most)), what=f"{most}")


def relay_video(camera, cloud, is_over) -> float:
    """A frame every 40 ms until then, each unchanged; seconds that the slowest one took."""
    slowest, number = 0.0, 0
    while not is_over():
        frame, began = pattern(20_000, number), time.monotonic()
        camera.send(frame)
        cloud.expect(frame)
        slowest, number = max(slowest, time.monotonic() - began), number + 1
        time.sleep(0.04)
    return slowest


def test_200_clients_of_the_pages(rig):
    """A third is silent, a third slow, a third never reads; then a thousand ordinary requests."""
    agent = rig.serve(rig.camera.url(), "rtsp://10.0.0.1/{1-63}", options=("-l",))
    targets, ends = (*HTML, "/streams", "/api/channels"), rig.relay()
    pages = [ask(target) for target in targets * 20]
    clients = [rig.peers.enter_context(socket.socket()) for _ in range(200)]
    over = threading.Event()

    def pester() -> None:
        while not over.wait(0.1):
            for client, word in zip(clients, (b"", b"G", b"GET / HTTP/1.1\r\n\r\n") * 67):
                with contextlib.suppress(OSError):      # not connected yet, or no longer
                    client.send(word)

    with no_growth(agent), ThreadPoolExecutor(12) as pool, contextlib.ExitStack() as failure:
        failure.callback(over.set)
        video = pool.submit(relay_video, *ends, over.is_set)
        for client in clients:
            client.setblocking(False)
            client.connect_ex(("127.0.0.1", PORT))
        pool.submit(pester)
        time.sleep(0.3)
        began = time.monotonic()
        assert [*pool.map(ask, "/" * 10)] == pages[:1] * 10     # none of them is merely lucky
        assert time.monotonic() - began < 15
        over.set()
        assert video.result() < 1
        for client in clients:
            client.close()
        assert all(ask(target).startswith(b"HTTP/1.1 200 OK\r\n") for target in targets * 200)


closes = Connection.close


def floods(connection) -> None:
    while True:
        connection.send(bytes(65536))


def drips(connection) -> None:
    for byte in OK:
        connection.send(bytes([byte]))
        time.sleep(0.02)


def cloud(act):
    """It asks for the stream before it does that."""
    return lambda connection: (connection.read_registration(), connection.send_options(),
                               act(connection))


def camera(act, answer: bytes = b""):
    """It answers the probe, and gives the cloud's request this answer before it does that."""
    def welcome(connection) -> None:
        is_probe = b"Camera Proxy" in connection.recv_until(BLANK_LINE)
        connection.send(OK if is_probe else answer)
        (closes if is_probe else act)(connection)
    return welcome


PEERS = {   # what cloud and camera do with every new connection; lines of the log per second
    "cloud that closes": (closes, camera(floods, OK), 15),
    "cloud that floods": (floods, camera(floods, OK), None),
    "cloud that never reads": (never_read, camera(floods, OK), 15),
    "cloud that asks and closes": (cloud(closes), camera(floods, OK), 80),
    "cloud that asks and never reads": (cloud(never_read), camera(floods, OK), 15),
    "camera that floods the probe": (cloud(never_read), floods, 15),
    "camera that answers the probe by bytes": (cloud(never_read), drips, 15),
    "camera that never reads": (cloud(never_read), never_read, 15),
    "camera that floods": (cloud(never_read), camera(floods), 25),
    "camera that answers by bytes": (cloud(never_read), camera(drips), 25),
    "camera that closes relays": (cloud(never_read), camera(closes, OK), 80),
}


@pytest.mark.parametrize("peer, seconds", [
    *((peer, SECONDS) for peer in PEERS),
    pytest.param("cloud that asks and closes", 15, marks=pytest.mark.heavy)])   # 500 relays
def test_peers_that_misbehave(rig, peer, seconds):
    """Of eight streams: nothing grows or spins, the log keeps to the back-off, the ninth relays."""
    agent = rig.start(rig.camera.url("/cam{1-9}"))
    relays = [rig.relay(number, f"/cam{number}") for number in range(1, 10)]
    for relay in relays:
        for sender, receiver in (relay, relay[::-1]):
            sender.send(bytes(20_000))      # all of the agent's buffers have been in use
            receiver.recv_exactly(20_000)
    proper = rig.cloud.welcome, rig.camera.welcome
    with no_growth(agent):
        mark, worked = agent.mark(), agent.processor_seconds()
        rig.cloud.welcome, rig.camera.welcome, lines = PEERS[peer]
        with no_growth(agent):
            for _, cloud_end in relays[:8]:
                cloud_end.close()
            end = time.monotonic() + seconds
            assert relay_video(*relays[8], lambda: time.monotonic() > end) < 2
        worked = agent.processor_seconds() - worked
        assert not lines or worked < seconds * PROCESSOR
        assert not lines or len(agent.log(mark)) < 8 * lines * seconds
        rig.cloud.welcome, rig.camera.welcome = proper
        for connection in [*rig.cloud.connections, *rig.camera.connections]:
            if connection.welcome not in (None, *proper):
                connection.close()
        for number in range(1, 9):
            camera_end, cloud_end = rig.relay(number, f"/cam{number}")
            cloud_end.send(b"PLAY")
            camera_end.expect(b"PLAY")


@pytest.mark.parametrize("header, requests", [(b"X", 1), (b"X: flood\r\n" * 500, 2)],
                         ids=["drips", "floods"])
def test_balancer_that_misbehaves(rig, clock, header, requests):
    """It is waited for while it sends something every 5 s, up to an answer's size."""
    def send_headers(connection, _request) -> None:
        for _ in range(1000):
            connection.send(header)
            time.sleep(0.05)
            clock.skip(4)
    clock.set_pace(0)
    rig.balance(*[send_headers] * requests, http_answer(f"127.0.0.1|{rig.cloud.port}"))
    agent = rig.start()
    wait_until(lambda: rig.balancer.requests, what="request")
    with no_growth(agent):
        worked = agent.processor_seconds()
        time.sleep(SECONDS)
    assert agent.processor_seconds() - worked < SECONDS * PROCESSOR and len(agent.log()) < 20
    assert len(rig.balancer.requests) == requests
    rig.balancer.connections[-1].close()
    rig.relay()
