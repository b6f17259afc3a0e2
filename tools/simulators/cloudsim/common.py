"""What the three services share: output lines, faults, listening, sending."""

import asyncio
import ssl
from typing import Awaitable, Callable

Handler = Callable[[asyncio.StreamReader, asyncio.StreamWriter, str], Awaitable[None]]

DRIP_SECONDS = 0.05   # between two bytes of a dripped message
SPLIT_SECONDS = 0.5   # between the halves of a split message


def say(service: str, text: str) -> None:
    """One plain line, flushed at once: scripts and tests wait for these lines."""
    print(f"{service}: {text}", flush=True)


class Fault:
    """A fault of one service, applied to its first `times` connections (0: to all of them)."""

    def __init__(self, name: str = "none", times: int = 0):
        self.name = name
        self._left = times if times > 0 else None

    def take(self) -> str:
        """The fault of the next connection; "none" when it is to be served properly."""
        if self._left is None:
            return self.name
        if self._left == 0:
            return "none"
        self._left -= 1
        return self.name


async def listen(service: str, host: str, port: int, handler: Handler, fault: Fault,
                 tls: ssl.SSLContext | None = None) -> int:
    """Serves connections with `handler` until the loop ends. Returns the port (chosen when 0)."""
    if fault.name == "refuse":
        say(service, f"refusing connections at {host}:{port} (not listening)")
        return port

    async def accept(reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        kind = fault.take()
        try:
            if kind == "accept-close":
                say(service, "closed a connection at once")
            elif kind == "silent":
                say(service, "accepted a connection, staying silent")
                while await reader.read(65536):
                    pass
            else:
                await handler(reader, writer, kind)
        except (OSError, EOFError, ValueError, asyncio.TimeoutError) as error:
            say(service, f"connection failed: {error or type(error).__name__}")
        except asyncio.CancelledError:
            pass                 # the program stops
        finally:
            writer.close()

    server = await asyncio.start_server(accept, host, port, ssl=tls, backlog=128)
    bound = server.sockets[0].getsockname()[1]
    say(service, f"listening on {host}:{bound}")
    return bound


async def deliver(writer: asyncio.StreamWriter, data: bytes, fault: str, cut: int = 0) -> None:
    """Sends one message in one send, or damaged: byte by byte, or in two sends at `cut`."""
    if fault == "drip":
        parts, pause = [data[i:i + 1] for i in range(len(data))], DRIP_SECONDS
    elif fault == "split":
        cut = cut or len(data) // 2
        parts, pause = [data[:cut], data[cut:]], SPLIT_SECONDS
    else:
        parts, pause = [data], 0.0
    for i, part in enumerate(parts):
        if i:
            await asyncio.sleep(pause)
        writer.write(part)
        await writer.drain()


async def read_http_request(reader: asyncio.StreamReader) -> tuple[str, str, bytes]:
    """Method, target and body. The target may hold unencoded blanks; headers are not kept."""
    head = (await asyncio.wait_for(reader.readuntil(b"\r\n\r\n"), 30)).decode("latin-1")
    first, *lines = head.split("\r\n")
    method, _, rest = first.partition(" ")
    target = rest.rpartition(" ")[0]
    length = 0
    for line in lines:
        name, _, value = line.partition(":")
        if name.strip().lower() == "content-length":
            length = int(value)
    return method, target, await asyncio.wait_for(reader.readexactly(length), 30)


def http_response(status: str, body: str, headers: tuple[str, ...] = (),
                  content_type: str = "application/json") -> bytes:
    data = body.encode()
    lines = [f"HTTP/1.1 {status}", f"Content-Type: {content_type}",
             f"Content-Length: {len(data)}", "Connection: close", *headers]
    return "\r\n".join(lines).encode() + b"\r\n\r\n" + data
