"""The web server below its pages: requests that match no page, and clients that misbehave."""

import socket
import struct
import time

from harness import wait_until

PORT = 18282
NOT_FOUND = (b"HTTP/1.1 404 Not Found\r\nContent-Type: text/plain\r\nConnection: close\r\n\r\n"
             b"404 Not Found\n")

ANSWERED_404 = [
    b"GET /nonsense HTTP/1.1\r\nHost: x\r\n\r\n",
    b"GET /stats?x=1 HTTP/1.1\r\n\r\n",
    b"POST /%s%n HTTP/1.1\r\n\r\nbody",
    b"GET /\r\n\r\n",
    b"GET /sta",                                        # a part is answered as it is
    b"\r\n",
    b"\0GET / HTTP/1.1\r\n\r\n",
    b"\xff" * 100,
    b"GET " + b"/" * 300 + b" HTTP/1.1\r\n\r\n",
    b"GET /nonsense HTTP/1.1\r\nX: " + b"x" * 30_000,   # mostly unread, and yet no reset
]


def connect() -> socket.socket:
    return socket.create_connection(("127.0.0.1", PORT), timeout=5)


def ask(request: bytes) -> bytes:
    with connect() as client:
        client.sendall(request)
        answer = b""
        while data := client.recv(65536):
            answer += data
        return answer


def test_requests_and_clients_of_all_kinds(rig):
    agent = rig.start(options=["-d", "--http-port=" + str(PORT + 65536)])
    agent.wait_for(f"Web server started on port {PORT}")
    agent.wait_for("connecting -> registered")
    before = agent.descriptors()
    for request in ANSWERED_404:
        assert ask(request) == NOT_FOUND, request[:40]

    began = time.monotonic()
    with connect() as silent:
        assert silent.recv(100) == b""
    assert 1.8 < time.monotonic() - began < 3.5

    connect().close()
    with connect() as half_closed:
        half_closed.shutdown(socket.SHUT_WR)
        assert half_closed.recv(100) == b""
    for linger in (0, 1):       # gone before the answer: by a close, by a reset
        gone = connect()
        gone.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", linger, 0))
        gone.sendall(ANSWERED_404[0])
        gone.close()

    assert ask(ANSWERED_404[0]) == NOT_FOUND
    wait_until(lambda: agent.descriptors() == before, what="close of every client")
