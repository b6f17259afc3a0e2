"""What hardly ever happens: odd starts, stops at bad moments, files and calls that fail."""

import os
import re
import signal
import socket
import subprocess
import time
from pathlib import Path

import pytest

import harness
from harness import SANITIZED, DroppingListener, wait_until
from scripted import http_answer
from test_pages import ask
from test_stop import connections_under_way

NEW_ID = "new-ID_42"


def balancer_that_drops_packets(rig, _count):
    rig.peers.enter_context(DroppingListener(8111))


def balancer_that_stays_silent(rig, _count):
    rig.balance(lambda connection, _: connection.wait_closed(30))


def balancer_that_drips(rig, _count):
    def drip(connection, _request) -> None:
        while True:
            connection.send(b"x")
            time.sleep(0.2)
    rig.balance(drip)


@pytest.mark.parametrize("balancer", [
    balancer_that_drops_packets, balancer_that_stays_silent, balancer_that_drips])
def test_stop_while_the_balancer_holds_one_up(rig, balancer):
    """With an ID stored and without, on one signal and on one every 0.4 s."""
    balancer(rig, 1)
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


# Files

def link_to_a_fifo(path: Path) -> None:
    os.mkfifo(path.parent / "fifo")
    path.symlink_to(path.parent / "fifo")


@pytest.mark.parametrize("make", [os.mkfifo, Path.mkdir, link_to_a_fifo])
def test_status_file_that_is_none(rig, make):
    """The agent goes on without it, and does not delete what it has not written."""
    make(rig.status_file)
    before = rig.status_file.lstat()
    agent = rig.start(options=["-d", "-n", "-f", str(rig.status_file)])
    rig.cloud.accept()
    agent.wait_for(f"[ERROR] Failed to write to status file {rig.status_file}: ", 3)
    assert agent.stop() < harness.STOP_LIMIT
    assert os.path.samestat(rig.status_file.lstat(), before)


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


@pytest.mark.skipif(SANITIZED, reason="sanitizers do not work in a traced program")
def test_cloud_id_is_on_disk_before_the_start_goes_on(rig):
    path, trace = rig.directory / "cloud.id", rig.directory / "trace"
    path.unlink()
    rig.balance(http_answer(NEW_ID), http_answer(f"127.0.0.1|{rig.cloud.port}"))
    agent = rig.start(prefix=["strace", "-Dyo", trace, "-e", "trace=connect,write,writev,fsync"])
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
    agent = rig.start(rig.camera.url("/cam{1-4}"), stderr=writer.fileno(),
                      options=["-d", "-n", "-v", long, "-v", "Maker", "-m", "m" * 800])
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


@pytest.mark.skipif(not harness.PRELOADABLE, reason="it cannot be preloaded")
def test_accept_that_fails_pauses(rig, faults):
    """Whatever the reason, here one that an access policy gives; then the client is served."""
    agent, failed = rig.serve(), "Accept failed: Operation not permitted\n"
    faults.plan("accept4", "EPERM", last=15)
    assert ask("/").startswith(b"HTTP/1.1 200 OK")
    assert agent.wait_for(failed, 15) - agent.wait_for(failed) > 0.5
    assert agent.text.count(failed) == 15


def test_too_few_descriptors_for_every_stream(rig):
    """The start has them to itself; the streams share what is left, and all come with the rest."""
    agent = rig.start(rig.camera.url("/cam{1-64}"), options=["-d"],
                      prefix=["sh", "-c", "ulimit -Sn 20; exec \"$0\" \"$@\""])
    agent.wait_for("Web server started")
    agent.wait_for("Too many open files")
    subprocess.run(["prlimit", f"--pid={agent.pid}", "--nofile=1024:"], check=True)
    wait_until(lambda: rig.cloud.registered_count >= 64, 40, "registrations")
