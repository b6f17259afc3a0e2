"""The pages as bytes: framing, routing, the channel list, and clients that dawdle or vanish."""

import contextlib
import re
import socket
import time
from pathlib import Path

import pytest

from harness import CLOUD_ID, STOP_LIMIT, wait_until
from scripted import Connection

PORT = 8282
NOT_FOUND = (b"HTTP/1.1 404 Not Found\r\nContent-Type: text/plain\r\nConnection: close\r\n\r\n"
             b"404 Not Found\n")
ANSWERED_404 = [
    *(f"GET {target} HTTP/1.1\r\n\r\n".encode() for target in (
        "//", "/api", "/api/channels/", "/streams#", "/cloudid?", "/Cloudid", "/%73tats", "*",
        "http://127.0.0.1/", "stats", "/%s%n", "/" * 300)),
    b"GET /\r\n\r\n",
    b"GET /sta",                                        # a part is answered as it is
    b"\r\n",
    b"\0GET / HTTP/1.1\r\n\r\n",
    b"\xff" * 100,
    b"GET /nonsense HTTP/1.1\r\nX: " + b"x" * 30_000,   # mostly unread, and yet no reset
]
JSON_HEADER = (b"HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n"
               b"Access-Control-Allow-Origin: *\r\nAccess-Control-Allow-Methods: GET, OPTIONS\r\n"
               b"Access-Control-Allow-Headers: Origin, X-Requested-With, Content-Type, Accept\r\n"
               b"Connection: close\r\n\r\n")
HTML = ["/", "/cloudid", "/stats", "/streams"]
STYLE_SIZE = 7626
# A page that is larger than what the kernel holds for a client that does not read.
MANY = "rtsp://10.0.0.1/" + "x" * 200 + "{1-64}"


def connect(request: bytes = b"", receive_buffer: int = 1 << 20) -> Connection:
    sock = socket.socket()
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    sock.settimeout(15)
    sock.connect(("127.0.0.1", PORT))
    sock.sendall(request)
    return Connection(sock)


def ask_raw(request: bytes) -> bytes:
    with contextlib.closing(connect(request)) as client:
        return client.recv_all()


def ask(target: str, method: str = "GET") -> bytes:
    return ask_raw(f"{method} {target} HTTP/1.1\r\nHost: 127.0.0.1:{PORT}\r\n\r\n".encode())


def html(response: bytes) -> str:
    """The page, whose framing is right to the byte."""
    head, blank, body = response.partition(b"\r\n\r\n")
    assert head + blank == (b"HTTP/1.1 200 OK\r\nContent-Type: text/html; charset=UTF-8\r\n"
                            b"Content-Length: %d\r\nConnection: close\r\n\r\n" % len(body))
    page = body.decode(errors="replace")     # URLs are cut anywhere
    assert len(page) < len(body)        # there is Cyrillic in every one
    return page


# Stream -> the path shown: what follows the port, or the last "/" when that does not apply.
CHANNELS = (("rtsp://10.0.0.5:554/Streaming/Channels/101", "/Streaming/Channels/101"),
            ("rtsp://me:12@10.0.0.5/a?b=1&c=2", "/a?b=1&c=2"),
            ("rtsp://10.0.0.5:554", "/10.0.0.5:554"), ("rtsp://10.0.0.5/", "/"),
            ("rtsp://10.0.0.5:554/a/b:9", "/b:9"), ("rtsp://10.0.0.5/a:b/c", "/c"),
            ('rtsp://10.0.0.5/q"\\\n\x01é/%s%n', '/q\\"\\\\\\n\\u0001é/%s%n'),
            # Cut at 255 bytes, which leaves no torn character.
            *((f"rtsp://10.0.0.5:554/{'x' * n}{character * 250}",
               "/" + ("x" * n + character * 250).encode()[:235].decode(errors="ignore"))
              for character in "я€😀" for n in range(4)))


def channel_list(rig) -> bytes:
    port = rig.cloud.port
    objects = [
        f'        {{\n            "chanel": {n},\n            "real_chanel": "{path}",\n'
        f'            "cloud_id": "{CLOUD_ID}/{n}",\n            "camera_login": "",\n'
        f'            "camera_password": "",\n            "cloud_server": "127.0.0.1",\n'
        f'            "cloud_port": "{port}",\n'
        f'            "cloud_url": "rtsp://127.0.0.1:{port}/{CLOUD_ID}/{n}",\n'
        '            "status": "1"\n        }'
        for n, (_, path) in enumerate(CHANNELS, 1)]
    return ('{\n    "chanels": [\n' + ",\n".join(objects) + "\n    ]\n}").encode()


@pytest.mark.parametrize("legacy", [False, True])
def test_responses_and_routes(rig, legacy):
    """Every response to its last byte; any method; nothing but the five targets, exactly."""
    rig.serve(*(url for url, _ in CHANNELS), options=["-l"][:legacy])
    document = channel_list(rig)
    sheets = set()
    for target in HTML:
        page = html(ask(target))
        begin = page.index("<style>\n") + len("<style>\n")
        sheets.add(page[begin:begin + STYLE_SIZE])
        assert re.match(r"\n(\n|  </style>)", page[begin + STYLE_SIZE:]), page[begin:][:9000]
    assert len(sheets) == 1 and sheets.pop().isascii()
    for method in ("GET", "POST", "OPTIONS", "X" * 15):
        assert ask("/api/channels", method) == JSON_HEADER + document
        assert ask("/", method) == ask("/")
    links = "".join(f'<li><a href="/{path}" id="{name}"></a></li>\n' for path, name in (
        ("streams", "streams-link"), ("cloudid", "cloud-link"), ("stats", "stats-link")))
    assert links in html(ask("/")) and ask("/").count(b"<li>") == 3
    if not legacy:
        value = document.decode().replace("&", "&amp;")
        assert f"name=\"data\" value='{value}'" in html(ask("/streams"))


def test_requests_and_clients_of_all_kinds(rig):
    agent = rig.start(options=["-d", f"--http-port={PORT + 65536}"])
    agent.wait_for(f"Web server started on port {PORT}")
    agent.wait_for("connecting -> registered")
    before = agent.descriptors()
    for request in ANSWERED_404:
        assert ask_raw(request) == NOT_FOUND, request[:40]
    began = time.monotonic()
    silent = connect()
    assert silent.recv() == b""
    assert 1.8 < time.monotonic() - began < 6
    half_closed = connect()
    half_closed.half_close()
    assert half_closed.recv() == b""
    connect().close()
    for reset in (False, True):     # gone before the answer
        connect(ANSWERED_404[0]).close(reset)
    assert ask("/nonsense") == NOT_FOUND
    for client in (silent, half_closed):
        client.close()
    wait_until(lambda: agent.descriptors() == before, what="close of every client")
    idle = connect()
    wait_until(lambda: agent.descriptors() > before, what="accept")
    assert agent.stop() < 1.5
    idle.close()


@pytest.fixture
def small_buffers():
    """The kernel keeps little of what the agent writes, so that a slow client is felt."""
    setting = Path("/proc/sys/net/ipv4/tcp_wmem")
    before = setting.read_text()
    setting.write_text("4096 4096 4096")
    yield
    setting.write_text(before)


def slow_client(target: str) -> Connection:
    return connect(f"GET {target} HTTP/1.1\r\n\r\n".encode(), receive_buffer=1024)


def test_clients_that_vanish(rig, small_buffers):
    """Amid a page, or the list, by a close or a reset: logged, and the next one is served. A stop
    waits for none."""
    agent = rig.serve(MANY, options=("-l",))
    for reset, target, name in ((True, "/streams", "http"), (False, "/streams", "http"),
                                (True, "/api/channels", "error")):
        began = agent.mark()
        client = slow_client(target)
        assert client.recv(17) == b"HTTP/1.1 200 OK\r\n"
        client.close(reset)
        agent.wait_for(f"[ERROR] Failed to send {name} response\n", since=began)
        assert agent.log(since=began)[0].startswith("ERROR Write failed: ")
        assert html(ask("/streams")).count('class="stream-checkbox"') == 64
    client = slow_client("/streams")
    client.recv(100)
    assert agent.stop() < STOP_LIMIT


@pytest.mark.parametrize("taken, seconds", [(0, 5), (500, 30)])
def test_clients_that_dawdle(rig, clock, small_buffers, taken, seconds):
    """One takes nothing for 5 s; one takes some bytes all the time, but not all in 30 s."""
    clock.set_pace(0)
    agent = rig.serve(MANY, options=("-l",))
    client = slow_client("/streams")
    began = time.monotonic() + clock.now()
    passed = 0.0
    while "Write failed: " not in agent.text and passed < 100:
        if taken:
            client.recv(taken)
        time.sleep(0.25)
        clock.skip(1)
        passed = time.monotonic() + clock.now() - began
    agent.wait_for("Write failed: Connection timed out\n")
    agent.wait_for("ERROR] Failed to send http response\n")
    assert html(ask("/streams"))
    client.close()
    assert seconds <= passed < seconds + 6
