"""What hardly ever happens: odd starts, stops at bad moments, files and calls that fail."""

import contextlib
import os
import re
import signal
import socket
import stat
import subprocess
import threading
import time
from pathlib import Path

import pytest

import harness
from harness import SANITIZED, DroppingListener, wait_until
from scripted import http_answer
from test_stop import (connecting_to_a_camera_that_drops_packets,
                       connecting_to_a_cloud_that_drops_packets, connections_under_way,
                       probing_where_packets_are_dropped)

NEW_ID = "new-ID_42"
traceable = pytest.mark.skipif(SANITIZED, reason="sanitizers do not work in a traced program")


@contextlib.contextmanager
def failing(agent, call: str, fault: str):
    """Until the end every call, or those that the fault of strace picks, goes as it says."""
    with subprocess.Popen(["strace", "-fqq", "-p", str(agent.pid), "-o", os.devnull,
                           "-e", f"trace={call}", "-e", f"inject={call}:{fault}"]) as tracer:
        tasks = Path(f"/proc/{agent.pid}/task")
        try:
            wait_until(lambda: not any("TracerPid:\t0\n" in (task / "status").read_text()
                                       for task in tasks.iterdir()), what="tracer")
            yield tracer
        finally:
            tracer.terminate()


# Stops

@traceable
@pytest.mark.parametrize("state", [
    probing_where_packets_are_dropped, connecting_to_a_cloud_that_drops_packets,
    connecting_to_a_camera_that_drops_packets], ids=lambda state: state.__name__)
def test_stop_does_not_need_shutdown_to_end_a_connect(rig, state):
    """Which it does not on some kernels."""
    agent = state(rig, 2)
    with failing(agent, "shutdown", "error=EBUSY"):
        assert agent.stop() < 1.5       # the time-outs are 10 s for the cloud, 2 s for cameras


def drops_packets(rig):
    rig.peers.enter_context(DroppingListener(8111))


def stays_silent(rig):
    rig.balance(lambda connection, _: connection.wait_closed(30))


def drips(rig):
    def drip(connection, _request) -> None:
        for _ in range(100):
            connection.send(b"x")
            time.sleep(0.2)
    rig.balance(drip)


@pytest.mark.parametrize("balancer", [drops_packets, stays_silent, drips],
                         ids=lambda balancer: balancer.__name__)
def test_stop_while_the_balancer_holds_one_up(rig, balancer):
    """With an ID stored and without, on one signal and on one every 0.4 s."""
    balancer(rig)
    (rig.directory / "none").mkdir()
    before = connections_under_way()
    agents = [rig.run("-n", *rig.arguments(), "-c", str(rig.directory / directory))
              for directory in (".", "none", ".", "none")]
    wait_until(lambda: (len(rig.balancer.requests) if rig.balancer else
                        connections_under_way() - before) == len(agents), what="attempts")
    began = time.monotonic()
    for agent in agents[:2]:
        agent.process.terminate()
    while any(agent.process.poll() is None for agent in agents):
        assert time.monotonic() - began < harness.STOP_LIMIT + 1.5
        for agent in agents[2:]:
            agent.process.terminate()
        time.sleep(0.4)
    assert time.monotonic() - began > 1.5, "an attempt may still succeed 2 s after the signal"
    assert [agent.wait() for agent in agents] == [1] * len(agents)


def test_patience_with_a_balancer_that_drips(rig, clock):
    """For as long as bytes come at least every 5 s, here for 80 s."""
    def drip(connection, _request) -> None:
        last = f'"message":"127.0.0.1|{rig.cloud.port}"\r\n\r\n'
        for piece in ("HTTP/1.1 200 OK\r\n", *["X: drip\r\n"] * 20, last):
            connection.send(piece.encode())
            time.sleep(0.05)
            clock.skip(4)
    clock.set_pace(0)
    rig.balance(drip)
    rig.start()
    rig.cloud.accept()
    assert len(rig.balancer.requests) == 1


# The start

def test_stop_signals_that_the_parent_blocks(rig):
    blocked = {signal.SIGTERM, signal.SIGINT}
    signal.pthread_sigmask(signal.SIG_BLOCK, blocked)
    try:
        agents = [rig.start(options=["-n"]) for _ in blocked]
    finally:
        signal.pthread_sigmask(signal.SIG_UNBLOCK, blocked)
    for _ in agents:
        rig.cloud.accept()
    for agent, number in zip(agents, blocked):
        assert agent.stop(number) < harness.STOP_LIMIT


@pytest.mark.parametrize("closed", [(2,), (0, 1, 2)], ids=str)
def test_standard_descriptors_that_are_closed(rig, closed):
    """The log must not go to whoever got the number."""
    (rig.directory / "cloud.id").unlink()
    rig.balance(http_answer(NEW_ID), http_answer(f"127.0.0.1|{rig.cloud.port}"))
    close = " ".join(f"{number}>&-" for number in closed)
    agent = rig.start(*(rig.camera.url(f"/{number}") for number in range(3)),
                      prefix=["sh", "-c", f'exec "$0" "$@" {close}'])
    clouds = [rig.cloud.accept() for _ in range(3)]
    assert {number: os.readlink(f"/proc/{agent.pid}/fd/{number}") for number in closed} == \
        dict.fromkeys(closed, "/dev/null")
    assert (rig.directory / "cloud.id").read_text() == NEW_ID + "\n"
    for cloud in clouds:
        cloud.keepalive()
        cloud.expect_silence(0.05)


def test_range_up_to_the_largest_number(rig):
    rig.start(rig.camera.url("/{2147483646-2147483647}"))
    assert {rig.cloud.accept().fields["uri"] for _ in range(2)} == {"/2147483646", "/2147483647"}


# Files

def mode_of(path: Path) -> int:
    return stat.S_IFMT(path.lstat().st_mode)


def link_to_a_directory(path: Path) -> None:
    path.symlink_to(path.parent)


def link_to_a_fifo(path: Path) -> None:
    os.mkfifo(path.parent / "fifo")
    path.symlink_to(path.parent / "fifo")


@pytest.mark.parametrize("make", [os.mkfifo, Path.mkdir, link_to_a_directory, link_to_a_fifo],
                         ids=lambda make: make.__name__)
def test_status_file_that_is_none(rig, make):
    """The agent goes on without it, and does not delete what it has not written."""
    make(rig.status_file)
    before = mode_of(rig.status_file)
    agent = rig.start(options=["-d", "-n", "-f", str(rig.status_file)])
    rig.cloud.accept()
    agent.wait_for(f"[ERROR] Failed to write to status file {rig.status_file}: ", 3)
    assert agent.stop() < harness.STOP_LIMIT
    assert mode_of(rig.status_file) == before


def test_status_file_without_room(rig):
    """A limit of no bytes at all stands for a disk that is full."""
    agent = rig.start(options=["-d", "-n", "-f", str(rig.status_file)],
                      prefix=["sh", "-c", "trap '' XFSZ; ulimit -f 0; exec \"$0\" \"$@\""])
    rig.cloud.accept()
    agent.wait_for(f"[ERROR] Failed to write to status file {rig.status_file}: File too large\n", 3)
    agent.stop()
    assert not rig.status_file.exists()


def test_cloud_id_that_is_a_fifo(rig):
    (rig.directory / "cloud.id").unlink()
    os.mkfifo(rig.directory / "cloud.id")
    rig.balance(http_answer(NEW_ID))
    agent = rig.start()
    assert agent.wait(5) == 1
    assert "INFO Failed to save cloud ID to filesystem" in agent.log()


@traceable
@pytest.mark.parametrize("failed", [None, 1, 2], ids=["no sync fails", "of file", "of directory"])
def test_cloud_id_is_on_disk_before_the_start_goes_on(rig, failed):
    path, trace = rig.directory / "cloud.id", rig.directory / "trace"
    path.unlink()
    rig.balance(http_answer(NEW_ID), http_answer(f"127.0.0.1|{rig.cloud.port}"))
    agent = rig.start(prefix=[
        "strace", "-Dyo", trace, "-e", "trace=connect,write,writev,fsync",
        *(["-e", f"inject=fsync:error=EIO:when={failed}"] if failed else [])])
    if failed:
        assert agent.wait(5) == 1
        log = agent.log()
        at = log.index(f"ERROR Failed to flush cloud ID to {path}: Input/output error")
        assert log[at + 1] == "INFO Failed to save cloud ID to filesystem"
        return
    rig.cloud.accept()
    agent.stop()
    places = {str(path): "file", str(rig.directory): "directory"}
    calls = re.findall(r"^(connect|write|fsync)v?\(\d+<(.*?)>", trace.read_text(), re.M)
    seen = [(call, places.get(at)) for call, at in calls if call == "connect" or at in places]
    assert seen == [("connect", None), ("write", "file"), ("fsync", "file"),
                    ("fsync", "directory"), ("connect", None)]


# Log and calls that fail

def test_each_line_of_the_log_is_one_write(rig):
    """A socket that keeps writes apart takes the log: from four streams, with lines of KiB."""
    reader, writer = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    long = "v" * 20000
    agent = rig.start(rig.camera.url("/cam{1-4}"), options=["-d", "-n", "-v", long],
                      model="m" * 800, stderr=writer.fileno())
    writer.close()
    agent.read_log(reader.fileno())
    clouds = [rig.cloud.accept() for _ in range(4)]
    for cloud in clouds:
        cloud.send_options(extra=f"X: {'y' * 5000}\r\n")
    agent.wait_for("registered -> streaming", 4)
    agent.stop()
    ends = [0, *(length for length, _ in agent._arrivals)]
    writes = [agent.text[begin:end] for begin, end in zip(ends, ends[1:])]
    assert len(writes) == len(agent.log()) and f"DEBUG Vendor set to: {long}" in agent.log()
    for text in writes:
        assert harness.LOG_PREFIX.match(text) and text.endswith("\n"), text
    reader.close()


@traceable
def test_poll_that_fails_while_a_relay_waits_for_room(rig):
    size = 16 << 20
    agent = rig.start()
    camera, cloud = rig.relay()
    agent.wait_for("registered -> streaming")

    def processor_seconds() -> float:
        stats = [Path(f"/proc/{pid}/stat").read_text() for pid in (agent.pid, tracer.pid)]
        fields = [stat.rpartition(")")[2].split()[11:13] for stat in stats]     # user and system
        return sum(int(ticks) for pair in fields for ticks in pair) / os.sysconf("SC_CLK_TCK")

    with failing(agent, "poll", "error=ENOMEM") as tracer:
        sender = threading.Thread(target=camera.send, args=(bytes(size),), daemon=True)
        sender.start()
        time.sleep(1)       # until the cloud, which does not read yet, has taken what it can
        before = processor_seconds()
        time.sleep(1)
        assert processor_seconds() - before < 0.1
        cloud.recv_exactly(size)


@traceable
def test_accept_that_fails_pauses(rig):
    """Whatever the reason, here one that an access policy gives; then the client is served."""
    agent = rig.start(options=["-d", "-p", "18282"])
    agent.wait_for("Web server started on port 18282")
    with failing(agent, "accept4", "error=EPERM:when=1..15"), \
            socket.create_connection(("127.0.0.1", 18282), timeout=10) as client:
        client.sendall(b"GET / HTTP/1.1\r\n\r\n")
        failed = "Accept failed: Operation not permitted\n"
        assert agent.wait_for(failed, 15) - agent.wait_for(failed) > 0.5
        assert client.recv(15) == b"HTTP/1.1 200 OK"
    assert agent.text.count(failed) == 15


def test_too_few_descriptors_for_every_stream(rig):
    """The start has them to itself; the streams share what is left, and all come with the rest."""
    agent = rig.start(rig.camera.url("/cam{1-64}"), options=["-d", "-p", "18282"],
                      prefix=["sh", "-c", "ulimit -Sn 20; exec \"$0\" \"$@\""])
    agent.wait_for("Web server started on port 18282")
    agent.wait_for("Too many open files")
    subprocess.run(["prlimit", f"--pid={agent.pid}", "--nofile=1024:"], check=True)
    wait_until(lambda: rig.cloud.registered_count >= 64, 40, "registrations")
