"""Scripted peers of the agent, for tests: plain sockets, threads, a deadline on every wait.

All listen on 127.0.0.1, on `port` (0: any free one, then see .port), and are context managers.
Leaving the `with` block ends their threads and raises the first AssertionError of a behaviour.

ScriptedServer      behaviour(connection) runs on a thread per connection, which closes at its end
ScriptedBalancer    answers: whole responses as bytes (see http_answer), one per connection, the
                    last one for all later ones; a callable(connection, request) among them takes
                    the connection over
ScriptedCamera      behaviour(connection, request) runs after a handshake answered with 200;
                    probe, handshake: the answer or a function of the request that gives it, b""
                    to close without one, None to stay silent; User-Agent tells the probe
ScriptedCloud       .accept(number) lends the test a registered connection of that stream
Every call of a Connection, which is one accepted connection, has its deadline.
"""

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
    def __init__(self, sock: socket.socket, timeout: float = 10):
        self.sock = sock
        self.timeout = timeout
        self._held = b""    # received but not yet asked for

    def recv(self, size: int = 65536) -> bytes:
        if self._held:
            data, self._held = self._held[:size], self._held[size:]
            return data
        return self._recv_before(time.monotonic() + self.timeout, size)

    def _recv_before(self, deadline: float, size: int = 65536) -> bytes:
        self.sock.settimeout(max(deadline - time.monotonic(), 0.001))
        try:
            return self.sock.recv(size)
        except (ConnectionResetError, BrokenPipeError):
            return b""
        except TimeoutError:
            raise
        except OSError:      # closed by the test's end
            return b""

    def _fill(self, enough: Callable[[bytearray], int], wanted: str) -> bytes:
        """Receives until `enough` gives the length to take, keeping the rest."""
        deadline = time.monotonic() + self.timeout
        data = bytearray(self._held)
        self._held = b""
        while (end := enough(data)) < 0:
            try:
                chunk, reason = self._recv_before(deadline, 1 << 20), "before the close"
            except TimeoutError:
                chunk, reason = b"", f"within {self.timeout} s"
            if not chunk:
                raise AssertionError(
                    f"no {wanted} {reason}: got {len(data)} bytes {bytes(data[:300])!r}")
            data += chunk
        self._held = bytes(data[end:])
        return bytes(data[:end])

    def recv_until(self, marker: bytes) -> bytes:
        def end(data: bytearray) -> int:
            at = data.find(marker)
            return at if at < 0 else at + len(marker)
        return self._fill(end, f"{marker!r}")

    def recv_exactly(self, n: int) -> bytes:
        return self._fill(lambda data: n if len(data) >= n else -1, f"{n} bytes")

    def recv_all(self) -> bytes:
        data = bytearray(self._held)
        self._held = b""
        deadline = time.monotonic() + self.timeout
        while chunk := self._recv_before(deadline):
            data += chunk
        return bytes(data)

    def send(self, data: bytes) -> None:
        self.sock.settimeout(self.timeout)
        self.sock.sendall(data)

    def expect(self, data: bytes) -> None:
        got = self.recv_exactly(len(data))
        assert got == data, f"expected {data[:300]!r}, got {got[:300]!r}"

    def expect_closed(self) -> None:
        try:
            got = self.recv_all()
        except TimeoutError:
            raise AssertionError(f"not closed within {self.timeout} s") from None
        assert not got, f"expected the close, got {got[:300]!r}"

    def expect_silence(self, seconds: float) -> None:
        assert not self._held, f"expected silence, got {self._held[:300]!r}"
        try:
            got = self._recv_before(time.monotonic() + seconds)
        except TimeoutError:
            return
        raise AssertionError(f"expected silence, got {got[:300]!r}" if got else "peer closed")

    def wait_closed(self, timeout: float = 10) -> None:
        deadline = time.monotonic() + timeout
        try:
            while self._recv_before(deadline):
                pass
        except TimeoutError:
            raise AssertionError("not closed in time") from None

    def half_close(self) -> None:
        self.sock.shutdown(socket.SHUT_WR)

    def close(self, reset: bool = False) -> None:
        try:
            if reset:
                self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                                     struct.pack("ii", 1, 0))
            else:
                self.sock.shutdown(socket.SHUT_RDWR)   # wakes a thread that is receiving
        except OSError:
            pass
        self.sock.close()


class ScriptedServer:
    connection_type = Connection

    def __init__(self, behaviour: Callable[[Connection], None], port: int = 0,
                 receive_buffer: int | None = None):
        self.connections: list[Connection] = []
        self.errors: list[AssertionError] = []
        self.closing = threading.Event()
        self._behaviour = behaviour
        self._listener = socket.create_server(("127.0.0.1", port), backlog=128)
        if receive_buffer:
            self._listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        self.port: int = self._listener.getsockname()[1]
        self._threads = [threading.Thread(target=self._accept, daemon=True)]
        self._threads[0].start()

    def _accept(self) -> None:
        while True:
            try:
                sock, _ = self._listener.accept()
            except OSError:
                return
            sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            connection = self.connection_type(sock)
            self.connections.append(connection)
            thread = threading.Thread(target=self._run, args=(connection,), daemon=True)
            self._threads.append(thread)
            thread.start()

    def _run(self, connection: Connection) -> None:
        try:
            self._behaviour(connection)
        except AssertionError as error:
            if not self.closing.is_set():
                self.errors.append(error)
        except OSError:
            pass             # the agent went away, or a deadline passed: tests look at the agent
        finally:
            self.done_with(connection)

    def done_with(self, connection: Connection) -> None:
        connection.close()

    def close(self) -> None:
        self.closing.set()
        try:
            self._listener.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self._listener.close()
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


# Balancer

def http_answer(message: str, status: str = "200 OK", headers: str = "") -> bytes:
    body = f'{{"message":"{message}"}}'
    return (f"HTTP/1.1 {status}\r\nContent-Type: application/json\r\n{headers}"
            f"Content-Length: {len(body)}\r\n\r\n{body}").encode()


class ScriptedBalancer(ScriptedServer):
    def __init__(self, answers: list, port: int = 8111):
        self.answers = list(answers)
        self.requests: list[bytes] = []
        self._turn = threading.Lock()
        super().__init__(self._serve, port)

    def _serve(self, connection: Connection) -> None:
        request = connection.recv_until(BLANK_LINE)
        with self._turn:
            self.requests.append(request)
            answer = self.answers.pop(0) if len(self.answers) > 1 else self.answers[0]
        if callable(answer):
            answer(connection, request)
        else:
            connection.send(answer)
            connection.half_close()
            connection.wait_closed()


# Camera

class Request:
    def __init__(self, raw: bytes):
        self.raw = raw
        line = raw.split(b"\r\n", 1)[0].decode("latin-1")
        self.url = line.partition(" ")[2].rpartition(" ")[0]
        self.path = "/" + self.url.removeprefix("rtsp://").rpartition("@")[2].partition("/")[2]
        cseq = re.search(rb"CSeq:\s*(\d+)", raw)
        self.cseq = int(cseq[1]) if cseq else 0


Answer = bytes | None | Callable[[Request], bytes | None]
Behaviour = Callable[[Connection, Request], None]


def ok_answer(request: Request) -> bytes:
    """About what real cameras answer, some 200 bytes."""
    return (f"RTSP/1.0 200 OK\r\nCSeq: {request.cseq}\r\nPublic: OPTIONS, DESCRIBE, ANNOUNCE, "
            "GET_PARAMETER, PAUSE, PLAY, RECORD, SETUP, SET_PARAMETER, TEARDOWN\r\n"
            "Server: scripted camera\r\nDate: Thu, 01 Jan 1970 00:00:00 GMT\r\n\r\n").encode()


def pattern(n: int, seed: int = 0) -> bytes:
    return random.Random(seed).randbytes(n)


def silent(connection: Connection, _request: Request) -> None:
    connection.wait_closed(3600)


def echo(connection: Connection, _request: Request) -> None:
    connection.timeout = 3600
    while data := connection.recv():
        connection.send(data)


def never_read(connection: Connection, _request: Request) -> None:
    """Leaves everything unread; ends when the camera is closed."""
    while connection.sock.fileno() >= 0:
        time.sleep(0.05)


class ScriptedCamera(ScriptedServer):
    def __init__(self, behaviour: Behaviour = silent, port: int = 0):
        self.behaviour = behaviour
        self.probe: Answer = ok_answer      # both may be changed while the camera runs
        self.handshake: Answer = ok_answer
        self.probes: list[Request] = []
        self.requests: list[Request] = []
        super().__init__(self._serve, port)

    def url(self, path: str = "/stream", user: str = "") -> str:
        return f"rtsp://{user + '@' if user else ''}127.0.0.1:{self.port}{path}"

    def _serve(self, connection: Connection) -> None:
        data = connection.recv()
        while data and BLANK_LINE not in data:
            data += connection.recv()
        if not data:
            return
        end = data.index(BLANK_LINE) + len(BLANK_LINE)
        request, connection._held = Request(data[:end]), data[end:]
        is_probe = b"\r\nUser-Agent: Camera Proxy\r\n" in request.raw
        (self.probes if is_probe else self.requests).append(request)
        answer = self.probe if is_probe else self.handshake
        if callable(answer):
            answer = answer(request)
        if answer is None:
            silent(connection, request)
        elif answer:
            connection.send(answer)
            if is_probe or b" 200 " not in answer:
                connection.wait_closed()
            else:
                self.behaviour(connection, request)


# Cloud

class CloudConnection(Connection):
    registration = b""
    fields: dict[str, str] = {}
    number = 0

    def read_registration(self) -> None:
        keys = ("cloudid", "login", "password", "uri", "model", "vendor")
        form = b"REGISTER={" + b",".join(b'"%s":"(.*)"' % k.encode() for k in keys) + b"}"

        def end(data: bytes) -> int:
            return len(data) if re.fullmatch(form, data, re.DOTALL) else -1
        self.registration = self._fill(end, "registration")
        match = re.fullmatch(form, self.registration, re.DOTALL)
        self.fields = {k: v.decode("latin-1") for k, v in zip(keys, match.groups())}
        self.number = int(self.fields["cloudid"].rpartition("/")[2])

    def keepalive(self) -> None:
        self.send(KEEPALIVE)
        self.expect(b"ok")

    def send_options(self, cseq: int = 1, extra: str = "") -> bytes:
        request = (f"OPTIONS rtsp://127.0.0.1:8554/{self.fields.get('cloudid', '')} RTSP/1.0\r\n"
                   f"CSeq: {cseq}\r\nUser-Agent: scripted viewer\r\n{extra}\r\n").encode()
        self.send(request)
        return request

    def start_relay(self, cseq: int = 1, extra: str = "") -> bytes:
        self.send_options(cseq, extra)
        return self.recv_until(BLANK_LINE)


class ScriptedCloud(ScriptedServer):
    """Pull-style: the test takes registered connections and says what happens on them."""

    connection_type = CloudConnection

    def __init__(self, port: int = 0, receive_buffer: int | None = None):
        self._waiting: list[CloudConnection] = []
        self._arrived = threading.Condition()
        self.registered_count = 0
        super().__init__(self._register, port, receive_buffer)

    def _register(self, connection: Connection) -> None:
        assert isinstance(connection, CloudConnection)
        connection.read_registration()
        with self._arrived:
            self._waiting.append(connection)
            self.registered_count += 1
            self._arrived.notify_all()

    def done_with(self, connection: Connection) -> None:
        """A registered connection is the test's from here on, and stays open."""
        if not isinstance(connection, CloudConnection) or not connection.fields:
            connection.close()

    def accept(self, number: int | None = None, timeout: float = 10) -> CloudConnection:
        def of_number() -> CloudConnection | None:
            return next((c for c in self._waiting if number in (None, c.number)), None)
        with self._arrived:
            assert self._arrived.wait_for(of_number, timeout), \
                f"no registration{f' of stream {number}' if number else ''} within {timeout} s"
            connection = of_number()
            self._waiting.remove(connection)
            return connection
