"""Scripted peers of the agent, for tests: plain sockets, threads, a deadline on every wait.

All listen on ScriptedServer.host, on `port` (see .port for a free one), and are context managers,
which raise the first AssertionError of a behaviour at their end.
"""

import contextlib
import random
import re
import socket
import struct
import threading
import time
from collections.abc import Callable

KEEPALIVE = b"\r\n\r\n"
BLANK_LINE = b"\r\n\r\n"


class Connection:
    lent = False            # to a test, which closes it
    welcome = None          # the behaviour that it got

    def __init__(self, sock: socket.socket, timeout: float = 10):
        self.sock = sock
        self.timeout = timeout
        self._held = b""    # received but not yet asked for

    def recv(self, size: int = 1 << 20, deadline: float = 0) -> bytes:
        if self._held:
            data, self._held = self._held[:size], self._held[size:]
            return data
        now = time.monotonic()
        try:
            self.sock.settimeout(max((deadline or now + self.timeout) - now, 0.001))
            return self.sock.recv(size)
        except TimeoutError:
            raise
        except OSError:      # a reset, or closed by the test's end
            return b""

    def _fill(self, enough: Callable[[bytearray], int], wanted: str) -> bytes:
        """Receives until `enough` gives the length to take, keeping the rest."""
        deadline, data = time.monotonic() + self.timeout, bytearray()
        while (end := enough(data)) < 0:
            reason = "before the close"
            try:
                chunk = self.recv(deadline=deadline)
            except TimeoutError:
                chunk, reason = b"", f"within {self.timeout} s"
            assert chunk, f"no {wanted} {reason}: got {len(data)} bytes {bytes(data[:300])!r}"
            data += chunk
        self._held = bytes(data[end:])
        return bytes(data[:end])

    def recv_until(self, marker: bytes) -> bytes:
        return self._fill(lambda data: data.find(marker) + len(marker) if marker in data else -1,
                          f"{marker!r}")

    def recv_exactly(self, n: int) -> bytes:
        return self._fill(lambda data: n if len(data) >= n else -1, f"{n} bytes")

    def recv_all(self) -> bytes:
        deadline = time.monotonic() + self.timeout
        return b"".join(iter(lambda: self.recv(deadline=deadline), b""))

    def send(self, data: bytes) -> None:
        self.sock.settimeout(self.timeout)
        self.sock.sendall(data)

    def expect(self, data: bytes) -> None:
        got = self.recv_exactly(len(data))
        assert got == data, f"expected {data[:300]!r}, got {got[:300]!r}"

    def expect_closed(self) -> None:
        got = self.recv_all()
        assert not got, f"expected the close, got {got[:300]!r}"

    def expect_silence(self, seconds: float) -> None:
        with contextlib.suppress(TimeoutError):
            got = self.recv(deadline=time.monotonic() + seconds)
            raise AssertionError(f"expected silence, got {got[:300]!r}")    # b"" is the close

    def wait_closed(self, timeout: float = 10) -> None:
        deadline = time.monotonic() + timeout
        try:
            while self.recv(deadline=deadline):
                pass
        except TimeoutError:
            raise AssertionError("not closed in time") from None

    def half_close(self) -> None:
        self.sock.shutdown(socket.SHUT_WR)

    def close(self, reset: bool = False) -> None:
        with contextlib.suppress(OSError):
            if reset:
                self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            else:
                self.sock.shutdown(socket.SHUT_RDWR)   # wakes a thread that is receiving
        self.sock.close()


class ScriptedServer:
    """The behaviour, which .welcome holds, runs on a thread per connection and may be changed."""

    host = "127.0.0.1"
    connection_type = Connection

    def __init__(self, behaviour: Callable[[Connection], None], port: int = 0):
        self.connections: list[Connection] = []
        self.errors: list[AssertionError] = []
        self.welcome = behaviour
        self.listener = socket.create_server((self.host, port), backlog=128)
        self.port: int = self.listener.getsockname()[1]
        self._threads = [threading.Thread(target=self._accept, daemon=True)]
        self._threads[0].start()

    def _accept(self) -> None:
        while True:
            try:
                sock, _ = self.listener.accept()
            except OSError:
                return
            sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            connection = self.connection_type(sock)
            self.connections.append(connection)
            thread = threading.Thread(target=self._run, args=(connection,), daemon=True)
            self._threads.append(thread)
            thread.start()

    def _run(self, connection: Connection) -> None:
        connection.welcome = self.welcome
        try:
            connection.welcome(connection)
        except AssertionError as error:
            if self.listener.fileno() >= 0:
                self.errors.append(error)
        except OSError:
            pass             # the agent went away, or a deadline passed: tests look at the agent
        finally:
            if not connection.lent:
                connection.close()

    def close(self) -> None:
        with contextlib.suppress(OSError):
            self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        for connection in list(self.connections):
            connection.close()
        for thread in self._threads:
            thread.join(5)

    def __enter__(self):
        return self

    def __exit__(self, kind, _value, _trace) -> None:
        self.close()
        if kind is None and self.errors:
            raise self.errors[0]


def http_answer(message: str, status: str = "200 OK") -> bytes:
    body = f'{{"message":"{message}"}}'
    return (f"HTTP/1.1 {status}\r\nContent-Type: application/json\r\n"
            f"Content-Length: {len(body)}\r\n\r\n{body}").encode()


class ScriptedBalancer(ScriptedServer):
    """Gives its answers one by one, the last one to all later requests. One may be a function of
    connection and request that returns the answer, or sends one itself."""

    def __init__(self, answers: list):
        self.answers = list(answers)
        self.requests: list[bytes] = []
        self._turn = threading.Lock()
        super().__init__(self._serve, 8111)

    def _serve(self, connection: Connection) -> None:
        request = connection.recv_until(BLANK_LINE)
        with self._turn:
            self.requests.append(request)
            answer = self.answers.pop(0) if len(self.answers) > 1 else self.answers[0]
        if callable(answer):
            answer = answer(connection, request)
        if answer is not None:
            connection.send(answer)
            connection.half_close()
            connection.wait_closed()


class Request:
    def __init__(self, raw: bytes):
        self.raw = raw
        path = re.match(rb"OPTIONS rtsp://[^/]*(/.*) RTSP", raw)
        self.path = path[1].decode() if path else "/"
        cseq = re.search(rb"CSeq:\s*(\d+)", raw)
        self.cseq = int(cseq[1]) if cseq else 0


def ok_answer(request: Request) -> bytes:
    """About what real cameras answer, some 200 bytes."""
    return (f"RTSP/1.0 200 OK\r\nCSeq: {request.cseq}\r\nPublic: OPTIONS, DESCRIBE, ANNOUNCE, "
            "GET_PARAMETER, PAUSE, PLAY, RECORD, SETUP, SET_PARAMETER, TEARDOWN\r\n"
            "Server: scripted camera\r\nDate: Thu, 01 Jan 1970 00:00:00 GMT\r\n\r\n").encode()


def pattern(n: int, seed: int = 0) -> bytes:
    return random.Random(seed).randbytes(n)


def never_read(connection: Connection, _request: Request | None = None) -> None:
    """Leaves everything unread; ends when the peer is closed."""
    while connection.sock.fileno() >= 0:
        time.sleep(0.05)


class ScriptedCamera(ScriptedServer):
    """Answers probe and handshake as these say (a function of the request may; b"" closes, None
    stays silent); `behaviour` runs after a handshake that was answered with 200."""

    def __init__(self, behaviour: Callable[[Connection, Request], None]):
        self.behaviour = behaviour
        self.probe = self.handshake = ok_answer     # may be changed while the camera runs
        self.probes: list[Request] = []
        self.requests: list[Request] = []
        super().__init__(self._serve)

    def url(self, path: str = "/stream", user: str = "") -> str:
        return f"rtsp://{user + '@' if user else ''}127.0.0.1:{self.port}{path}"

    def _serve(self, connection: Connection) -> None:
        request = Request(connection.recv_until(BLANK_LINE))
        is_probe = b"\r\nUser-Agent: Camera Proxy\r\n" in request.raw
        (self.probes if is_probe else self.requests).append(request)
        answer = self.probe if is_probe else self.handshake
        if callable(answer):
            answer = answer(request)
        if answer is None:
            never_read(connection)
        elif answer:
            connection.send(answer)
            if is_probe or b" 200 " not in answer:
                connection.wait_closed()
            else:
                self.behaviour(connection, request)


class CloudConnection(Connection):
    def read_registration(self) -> None:
        keys = ("cloudid", "login", "password", "uri", "model", "vendor")
        form = ",".join(f'"{key}":"(?P<{key}>.*)"' for key in keys)
        match = re.compile(b"REGISTER={%s}" % form.encode(), re.DOTALL).fullmatch
        self.registration = self._fill(lambda data: len(data) if match(data) else -1,
                                       "registration")
        fields = match(self.registration).groupdict()
        self.fields = {key: value.decode("latin-1") for key, value in fields.items()}
        self.number = int(self.fields["cloudid"].rpartition("/")[2])

    def keepalive(self) -> None:
        self.send(KEEPALIVE)
        self.expect(b"ok")

    def send_options(self, cseq: int = 1, extra: str = "") -> bytes:
        request = ("OPTIONS rtsp://127.0.0.1:8554/x/1 RTSP/1.0\r\n"
                   f"CSeq: {cseq}\r\nUser-Agent: scripted viewer\r\n{extra}\r\n").encode()
        self.send(request)
        return request

    def start_relay(self, extra: str = "") -> bytes:
        self.send_options(extra=extra)
        return self.recv_until(BLANK_LINE)


class ScriptedCloud(ScriptedServer):
    """Pull-style: the test takes registered connections and says what happens on them."""

    connection_type = CloudConnection

    def __init__(self):
        self._waiting: list[CloudConnection] = []
        self._arrived = threading.Condition()
        self.registered_count = 0
        super().__init__(self._register)

    def _register(self, connection: CloudConnection) -> None:
        connection.read_registration()
        connection.lent = True
        with self._arrived:
            self._waiting.append(connection)
            self.registered_count += 1
            self._arrived.notify_all()

    def accept(self, number: int | None = None, timeout: float = 10) -> CloudConnection:
        def wanted() -> CloudConnection | None:
            return next((c for c in self._waiting if number in (None, c.number)), None)
        with self._arrived:
            assert self._arrived.wait_for(wanted, timeout), \
                f"no registration of stream {number or 'any'} within {timeout} s"
            connection = wanted()
            self._waiting.remove(connection)
            return connection
