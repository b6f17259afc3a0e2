"""The life of the agent: a whole run line for line, the command line, start-up and its ends."""

import re
import signal
import socket
import time

import pytest

from harness import BINARY, STOP_LIMIT, assert_merged, wait_until
from scripted import http_answer, ok_answer, pattern

NEW_ID = "new-ID_42"
PATH = "/a%20b?c=%d\\"
ENDED = ["INFO Final system uptime: *s", "INFO Monitor cleanup completed",
         "INFO Proxy cleanup completed", "DEBUG Freeing configuration resources"]


def without_times(log: list[str]) -> list[str]:
    """The log with the times it shows replaced by "*"."""
    return [re.sub(r"( at )\d{4}-\d\d-\d\d \d\d:\d\d:\d\d$|(uptime: )\d+(?=s$)", r"\1\2*", line)
            for line in log]


@pytest.mark.parametrize("debug", [True, False])
def test_a_run_with_one_relay(rig, debug):
    """Start, keepalive, relay, its end, registered again, stop; the status file beside it."""
    (rig.directory / "cloud.id").unlink()
    rig.balance(http_answer(NEW_ID), http_answer(f"127.0.0.1|{rig.cloud.port}"))
    rig.camera.probe = None
    url = rig.camera.url(PATH, "us%er:p:a\"'ss%s{}")
    options = [*["-d"][:debug], "-p", "18282", "-f", str(rig.status_file)]
    agent = rig.run(*options, "-c", rig.directory, "-v", 'V%s"%n', "-m", "M%d\\", "-s", url)

    def wait_status(content: str) -> None:
        wait_until(lambda: rig.status_file.exists() and rig.status_file.read_text() == content,
                   what=f"status {content}")

    wait_status("0")
    wait_until(lambda: rig.camera.probes, what="probe")
    rig.camera.probe = ok_answer        # the first probe stays silent and gets 2 s
    first = rig.cloud.accept()
    wait_status("1")
    registration = (f'REGISTER={{"cloudid":"{NEW_ID}/1","login":"us%er",'
                    '"password":"p:a"\'ss%s{}","uri":"/a%20b?c=%d\\","model":"M%d\\",'
                    '"vendor":"V%s"%n"}')
    assert first.registration.decode() == registration
    assert rig.camera.probes[0].raw == (f"OPTIONS {rig.camera.url(PATH)} RTSP/1.0\r\nCSeq: 1\r\n"
                                        "User-Agent: Camera Proxy\r\n\r\n").encode()
    first.keepalive()
    request = first.send_options(cseq=7, extra="X-Odd: 100%s CSeq: no\r\n")
    answer = first.recv_until(b"\r\n\r\n")
    rewritten = (f"OPTIONS {url} RTSP/1.0\r\n".encode() + request[request.index(b"CSeq:"):])
    assert rig.camera.requests[0].raw == rewritten
    assert answer == ok_answer(rig.camera.requests[0])
    camera = rig.lent(PATH)
    first.send(pattern(3000))
    camera.expect(pattern(3000))
    camera.send(pattern(9000, seed=1))
    first.expect(pattern(9000, seed=1))
    assert rig.status_file.read_text() == "1"
    camera.close()
    wait_status("0")
    first.expect_closed()
    second = rig.cloud.accept()
    assert second.registration.decode() == registration
    wait_status("1")
    if debug:
        agent.wait_for("connecting -> registered", 2)
    assert agent.stop(signal.SIGTERM if debug else signal.SIGINT) < STOP_LIMIT
    second.expect_closed()
    assert not rig.status_file.exists()
    assert (rig.directory / "cloud.id").read_text() == NEW_ID + "\n"
    assert agent.process.stdout.read() == b""
    if not debug:
        assert agent.text == ""
        return

    log = without_times(agent.log())
    start = [
        "INFO Agent version: local_build, starting...", "INFO Debug mode enabled",
        "INFO Http server port set to: 18282",
        f"INFO Status file enabled, path: {rig.status_file}",
        f"DEBUG Config directory set to: {rig.directory}", 'DEBUG Vendor set to: V%s"%n',
        "DEBUG Model set to: M%d\\", "INFO Configuration loaded successfully with 1 stream(s)",
        "INFO Monitor started for 1 streams at *",
        f"DEBUG Failed to read cloud ID from {rig.directory}/cloud.id",
        "DEBUG Fetched new cloud ID from the API server",
        f"DEBUG Saved cloud ID to {rig.directory}/cloud.id",
        f"INFO Successfully obtained cloud ID: {NEW_ID}",
        f"DEBUG Resolved cloud server: 127.0.0.1:{rig.cloud.port}",
        f"DEBUG Started thread 1 for stream {url}",
        "INFO Proxy initialized successfully with 1 streams"]
    end = [ENDED[0], f"DEBUG Successfully removed status file {rig.status_file}", *ENDED[1:]]
    assert log[:len(start)] == start
    assert log[-len(end):] == end
    main = ["INFO Web server started on port 18282", "INFO Starting proxy cleanup",
            "INFO Web server stopped"]
    cycle = ["DEBUG Stream 1 status change: offline -> connecting", f"DEBUG {registration}",
             "INFO Stream 1 registered in the cloud",
             "DEBUG Stream 1 status change: connecting -> registered"]
    stream = [
        *cycle, "DEBUG Sent keepalive response for stream 1",
        "INFO Received OPTIONS command for stream 1",
        f"DEBUG Connected to camera 127.0.0.1:{rig.camera.port}",
        f"DEBUG Forwarded OPTIONS to camera: {rewritten.decode()}",
        f"DEBUG Received OPTIONS response from camera: {answer.decode()}",
        "DEBUG Forwarded camera's OPTIONS response to cloud",
        "DEBUG Stream 1 status change: registered -> streaming",
        "DEBUG Stream 1 error: [104] Camera connection closed", "INFO Camera connection closed",
        "DEBUG Stream 1 status change: error -> offline",
        "DEBUG Camera to cloud thread stopping",
        *cycle, "DEBUG Stream 1 error: [71] Failed to receive OPTIONS from cloud",
        "DEBUG Stream 1 status change: error -> offline"]
    # The web server's thread may find the cleared flag before the byte in its pipe.
    rest = [line for line in log[len(start):-len(end)]
            if line != "DEBUG Web server received shutdown signal via pipe"]
    assert_merged(rest, main, stream, ["DEBUG Cloud to camera thread stopped"])


@pytest.mark.parametrize("arguments, stdout, log", [
    (["-h"], "", f"Usage: {BINARY} [OPTIONS]\nRequired Options:\n"),
    (["-V", "-h"], "Version local_build\n", ""),
    (["--nonsense"], "", f"{BINARY}: unrecognized option '--nonsense'\n"),
    (["-gd", "-s", "x"], "", ""),       # nothing is said without -d, which counts on its own only
])
def test_command_line_that_ends_at_once(rig, arguments, stdout, log):
    agent = rig.run(*arguments)
    assert agent.wait() == 1
    assert agent.process.stdout.read().decode() == stdout
    assert agent.text.startswith(log) if arguments == ["-h"] else agent.text == log


def test_signal_during_an_attempt_that_succeeds(rig):
    """It lets the start go on, up to the stop behind it."""
    def signal_then_answer(connection, _request) -> None:
        wait_until(lambda: rig.agents)
        rig.agents[0].process.terminate()
        time.sleep(0.1)
        connection.send(http_answer(f"127.0.0.1|{rig.cloud.port}"))
    rig.balance(signal_then_answer)
    agent = rig.start()
    assert agent.wait() == 0
    log = without_times(agent.log())
    assert "INFO Proxy initialized successfully with 1 streams" in log
    assert "INFO Starting proxy cleanup" in log and log[-4:] == ENDED


@pytest.mark.parametrize("other_url, failure", [
    (None, ["ERROR Failed to bind server socket: Address already in use",
            "ERROR Failed to start web server", "INFO Starting proxy cleanup",
            "INFO Web server already stopped"]),
    ("http://%s", ["ERROR Failed to parse RTSP URL: http://%s:554",
                   "DEBUG Stream 2 error: [-2] Failed to parse RTSP URL",
                   "ERROR Failed to start stream", "INFO Starting proxy cleanup",
                   "INFO Web server already stopped",
                   "DEBUG Stream 2 status change: error -> offline"]),
], ids=["port taken", "second of three streams"])
def test_start_that_fails_late(rig, other_url, failure):
    """It ends like a stop, with status 1; streams behind the one that failed are not started."""
    with socket.create_server(("127.0.0.1", 0)) as other:
        urls = [rig.camera.url(), *[other_url, rig.camera.url()] * bool(other_url)]
        agent = rig.start(*urls, options=["-d", "-p", str(other.getsockname()[1])])
        assert agent.wait() == 1
    log = without_times(agent.log())
    start = log.index(f"INFO Proxy initialized successfully with {len(urls)} streams")
    of_first = re.compile("DEBUG Stream 1 |INFO Stream 1 |DEBUG REGISTER=")
    assert [line for line in log[start + 1:] if not of_first.match(line)] == [*failure, *ENDED]
