"""The two requests to the balancer: their bytes, every wrong answer, and the way answers arrive."""

import time

import pytest

from harness import CLOUD_ID
from scripted import http_answer

HEADERS = ("Host: 127.0.0.1\r\nConnection: close\r\nContent-Type: text/xml\r\n"
           "Content-Length: 0\r\n\r\n")
RETRY = {True: "INFO Retrying cloud ID fetch in 1 seconds",
         False: "INFO Retrying cloud server resolution in 1 seconds"}
DONE = {True: "DEBUG Fetched new cloud ID from the API server",
        False: "DEBUG Resolved cloud server: 127.0.0.1"}


def header(size: int, end: str = "\r\n\r\n", status: str = "HTTP/1.1 200 OK") -> bytes:
    """A response of `size` bytes without a body."""
    start = status + "\r\nX: "
    return (start + "x" * (size - len(start) - len(end)) + end).encode()


def in_two_sends(data: bytes, at: int):
    def answer(connection, _request) -> None:
        connection.send(data[:at])
        time.sleep(0.3)
        connection.send(data[at:])
    return answer


SIZE = "ERROR Invalid response size or incomplete: {}".format
STATUS = "ERROR Invalid HTTP response: {}".format
EITHER = [
    (http_answer("abcdefgh|1", status="204 No Content"), STATUS(204)),
    (b"RTSP" + http_answer("abcdefgh|1")[4:], STATUS(0)),
    (b"", SIZE(0)),
    (header(63), SIZE(63)),
    (header(63, end="\r\n"), SIZE(63)),
]
ID_ONLY = [
    (http_answer("ABC_-12"), "ERROR Invalid ID length: 7"),
    (http_answer("dotted.id"), None),
    (header(64), None),
    (header(64, end="\r\n"), "ERROR Malformed response - no body delimiter"),
    (header(5000, end=""), SIZE(4096)),
    (in_two_sends(http_answer(CLOUD_ID), -12), None),       # the body comes too late
]
SERVER_ONLY = [
    (header(64), "ERROR No message field in response"),
    (in_two_sends(http_answer("h|1"), http_answer("h|1").index(b"{")),
     "ERROR No message field in response"),
    (http_answer("h|65536"), "ERROR Invalid port number"),
    (header(4096), "ERROR Response too large"),
]


@pytest.mark.parametrize("ask_id, answer, message", [
    *[(True, *row) for row in EITHER + ID_ONLY], *[(False, *row) for row in EITHER + SERVER_ONLY]])
def test_wrong_answer_is_retried(rig, hurry, ask_id, answer, message):
    if ask_id:
        (rig.directory / "cloud.id").unlink()
    right = [http_answer(CLOUD_ID)] * ask_id + [http_answer(f"127.0.0.1|{rig.cloud.port}")]
    rig.balance(answer, *right)
    agent = rig.start()
    rig.cloud.accept(timeout=15)
    first = "Failed to read cloud ID from" if ask_id else "Successfully obtained cloud ID"
    log = "\n".join(agent.log()).partition(first)[2].partition("\n")[2]
    assert log.startswith("\n".join([*[message] * bool(message), RETRY[ask_id], DONE[ask_id]]))
    assert rig.balancer.requests[0] == rig.balancer.requests[1]


def test_requests_byte_for_byte_and_answers_in_pieces(rig, hurry):
    """The header's blank line may come in pieces, and the server's body without a length."""
    (rig.directory / "cloud.id").unlink()
    server = (f'HTTP/1.0 200\r\nX-Info: "message":"127.0.0.1|{rig.cloud.port}"\r\n'
              "X-More: to reach the 64 bytes that are the least\r\n\r\n").encode()
    new_id = http_answer("x" * 50)
    rig.balance(in_two_sends(new_id, new_id.index(b"\r\n{") - 1), in_two_sends(server, -2))
    rig.start(options=["-n", "-v", "A B%s&c", "-m", "Cam/ü"])
    assert rig.cloud.accept(timeout=15).fields["cloudid"] == "x" * 50 + "/1"
    assert rig.balancer.requests == [
        f"GET /balancer/uuid HTTP/1.1\r\n{HEADERS}".encode(),
        (f"GET /balancer/server/{'x' * 50}?vendor=A B%s&c&model=Cam/ü HTTP/1.1\r\n"
         f"{HEADERS}").encode()]
