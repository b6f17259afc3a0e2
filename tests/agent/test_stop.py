"""SIGTERM in every state a stream can be in: how long the stop takes, and its lines in the log."""

import socket
import threading

import pytest

from harness import (SANITIZED, STOP_LIMIT, Agent, DroppingListener, Rig, assert_merged, flood,
                     wait_until)
from scripted import http_answer

MANY = 64
OPTIONS_MISSED = ["error: [71] Failed to receive OPTIONS from cloud",
                  "status change: error -> offline"]


def start(rig: Rig, count: int, port: int = 0) -> Agent:
    return rig.start(f"rtsp://127.0.0.1:{port or rig.camera.port}/cam{{1-{count}}}")


def connections_under_way() -> int:
    with open("/proc/thread-self/net/tcp", encoding="ascii") as table:
        return sum(line.split()[3] == "02" for line in table)   # SYN sent


def backing_off_from_the_camera(rig, count):
    rig.camera.probe = b"RTSP/1.0 500 No\r\n\r\n"
    agent = start(rig, count)
    wait_until(lambda: len(rig.camera.probes) >= 3 * count, what="third probe")
    return agent                # in a pause of 4 s


def backing_off_from_the_cloud(rig, count):
    with socket.socket() as closed:
        closed.bind(("127.0.0.1", 0))
        rig.balance(http_answer(f"127.0.0.1|{closed.getsockname()[1]}"))
        agent = start(rig, count)
        agent.wait_for("error -> offline", 3 * count)
    return agent


def probing_a_silent_camera(rig, count):
    rig.camera.probe = None
    agent = start(rig, count)
    wait_until(lambda: len(rig.camera.probes) >= count, what="probes")
    return agent


def probing_where_packets_are_dropped(rig, count):
    listener = rig.peers.enter_context(DroppingListener())
    before = connections_under_way()
    agent = start(rig, count, listener.port)
    wait_until(lambda: connections_under_way() >= before + count, what="connects")
    return agent


def connecting_to_a_cloud_that_drops_packets(rig, count):
    listener = rig.peers.enter_context(DroppingListener())
    rig.balance(http_answer(f"127.0.0.1|{listener.port}"))
    agent = start(rig, count)
    agent.wait_for("offline -> connecting", count)
    return agent


def connecting_to_a_camera_that_drops_packets(rig, count):
    agent = waiting_for_options(rig, count)
    clouds = [rig.cloud.accept() for _ in range(count)]
    rig.camera.close()
    rig.peers.enter_context(DroppingListener(rig.camera.port))
    for cloud in clouds:
        cloud.send_options()
    agent.wait_for("Received OPTIONS command", count)
    return agent


def handshaking_with_a_silent_camera(rig, count):
    rig.camera.handshake = None
    agent = start(rig, count)
    for _ in range(count):
        rig.cloud.accept().send_options()
    agent.wait_for("Forwarded OPTIONS to camera", count)
    return agent


def waiting_for_options(rig, count):
    agent = start(rig, count)
    agent.wait_for("connecting -> registered", count)
    return agent


def relaying_to_peers_that_do_not_read(rig, count):
    agent = start(rig, count)
    senders = [threading.Thread(target=flood, args=(end,), daemon=True)
               for number in range(1, count + 1) for end in rig.relay(number, f"/cam{number}")]
    for sender in senders:
        sender.start()
    for sender in senders:
        sender.join(20)
    return agent


@pytest.mark.parametrize("state, count, lines, unnumbered", [
    (backing_off_from_the_camera, MANY, [], []),
    (backing_off_from_the_cloud, MANY, [], []),
    (probing_a_silent_camera, MANY, [], []),
    (probing_where_packets_are_dropped, MANY, [], []),
    (connecting_to_a_cloud_that_drops_packets, MANY, ["status change: connecting -> offline"], []),
    (connecting_to_a_camera_that_drops_packets, MANY,
     ["status change: registered -> offline"], []),
    (handshaking_with_a_silent_camera, MANY, ["status change: registered -> offline"], []),
    (waiting_for_options, MANY, OPTIONS_MISSED, []),
    (relaying_to_peers_that_do_not_read, 8, ["status change: streaming -> offline"],
     ["Camera to cloud thread stopping", "Cloud to camera thread stopped"]),
], ids=lambda value: getattr(value, "__name__", "").replace("_", "-") or None)
def test_stop(rig, faults, state, count, lines, unnumbered):
    """Every stream leaves exactly its own lines, all of them before the monitor's last ones."""
    agent = state(rig, count)
    mark = agent.mark()
    is_connecting = "packets" in state.__name__
    if is_connecting:
        faults.plan("shutdown", "EBUSY")    # which does not end a connect on some kernels
    assert agent.stop() < (1.5 if is_connecting and not SANITIZED else STOP_LIMIT)
    log = [line.partition(" ")[2] for line in agent.log(mark)]
    assert log[-4].startswith("Final system uptime: ")
    assert_merged(log[:-4], ["Starting proxy cleanup"], *[[line] for line in unnumbered * count],
                  *[[f"Stream {number + 1} {line}" for line in lines] for number in range(count)])
