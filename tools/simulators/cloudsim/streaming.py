"""The streaming server: agents register their streams, viewers play them, on one port.

A connection that starts with "REGISTER={" is an agent's; anything else is a viewer's RTSP.
A viewer of rtsp://<here>/<cloud id>/<n> gets a registered connection of stream n for itself:
its OPTIONS goes to the agent, and after the camera's 200 has come back the rest is relayed.
Request lines then name the camera's path, and challenges of the camera are answered here with
the credentials of the registration, so that a viewer needs none.
"""

import asyncio
import re
from urllib.parse import urlsplit

from . import rtsp
from .common import Fault, deliver, listen, say

FAULTS = ("none", "refuse", "accept-close", "silent", "drip", "split", "coalesce", "wrong")

KEEPALIVE = b"\r\n\r\n"
ANSWER_SECONDS = 10     # for the agent's "ok" and for the camera's answer to OPTIONS
REGISTER_SECONDS = 5    # for the whole registration message
REGISTRATION = re.compile(
    rb'REGISTER=\{"cloudid":"(.*)","login":"(.*)","password":"(.*)","uri":"(.*)",'
    rb'"model":"(.*)","vendor":"(.*)"\}', re.DOTALL)


class Registration:
    """One connection of an agent. Values are taken as plain text, as agents do not escape them."""

    def __init__(self, values: tuple[bytes, ...], peer: rtsp.Peer, fault: str):
        texts = [value.decode("latin-1") for value in values]
        self.key, self.login, self.password, self.uri, self.model, self.vendor = texts
        self.peer = peer
        self.fault = fault
        self.viewer: asyncio.Future[tuple[rtsp.Peer, list]] = asyncio.Future()
        self.relayed = False
        self.ended = asyncio.Event()


class StreamingServer:
    def __init__(self, keepalive: float, viewer_wait: float, fault: Fault):
        self.keepalive = keepalive       # seconds between keepalives of an idle registration
        self.viewer_wait = viewer_wait   # seconds that a viewer waits for a free registration
        self.fault = fault
        self._free: dict[str, list[Registration]] = {}
        self._changed = asyncio.Condition()

    async def start(self, host: str, port: int) -> int:
        return await listen("streaming", host, port, self._serve, self.fault)

    async def _serve(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter,
                     fault: str) -> None:
        first = await reader.read(65536)
        peer = rtsp.Peer(reader, writer)
        if first.startswith(b"REGISTER={"):
            await self._serve_agent(peer, first, fault)
        elif first:
            await self._serve_viewer(peer, await peer.read(first))

    # Agents

    async def _serve_agent(self, peer: rtsp.Peer, message: bytes, fault: str) -> None:
        while not (match := REGISTRATION.fullmatch(message)):
            more = await asyncio.wait_for(peer.reader.read(65536), REGISTER_SECONDS)
            if not more:
                raise ValueError(f"registration not understood: {message!r}")
            message += more
        reg = Registration(match.groups(), peer, fault)
        say("streaming", f"registered {reg.key} uri={reg.uri} login={reg.login or '-'} "
                         f"model={reg.model} vendor={reg.vendor}")
        try:
            await self._set_free(reg, True)
            viewer = await self._wait_for_viewer(reg)
            if viewer:
                reg.relayed = True
                await Relay(reg, *viewer).run()
            else:
                say("streaming", f"{reg.key} closed by the agent")
        finally:
            reg.ended.set()
            await self._set_free(reg, False)

    async def _set_free(self, reg: Registration, free: bool) -> None:
        async with self._changed:
            regs = self._free.setdefault(reg.key, [])
            if free:
                regs.append(reg)
            elif reg in regs:
                regs.remove(reg)
            self._changed.notify_all()

    async def _wait_for_viewer(self, reg: Registration) -> tuple[rtsp.Peer, list] | None:
        """Keeps the connection alive until a viewer claims it. None when the agent closes it."""
        while True:
            read = asyncio.ensure_future(reg.peer.reader.read(4096))
            try:
                await asyncio.wait({read, reg.viewer}, timeout=self.keepalive,
                                   return_when=asyncio.FIRST_COMPLETED)
                if read.done():
                    if not (data := read.result()):
                        return None
                    say("streaming", f"{reg.key} sent {data!r} unasked")
                elif reg.viewer.done():
                    return reg.viewer.result()
                else:
                    await self._send_keepalive(reg, read)
            finally:
                read.cancel()

    async def _send_keepalive(self, reg: Registration, read: asyncio.Future) -> None:
        """One at a time: the agent takes each receive as one message, so "ok" is awaited."""
        message = {"coalesce": KEEPALIVE * 2, "wrong": b"options\r\n\r\n"}.get(reg.fault, KEEPALIVE)
        await deliver(reg.peer.writer, message, reg.fault)
        done, _ = await asyncio.wait({read}, timeout=ANSWER_SECONDS)
        answer = read.result() if done else None
        say("streaming", f"{reg.key} keepalive: {answer if answer != b'ok' else 'ok'}")
        if answer is None and reg.fault == "none":
            raise TimeoutError(f"{reg.key} did not answer a keepalive")
        if answer == b"":
            raise EOFError(f"{reg.key} closed instead of answering a keepalive")

    # Viewers

    async def _serve_viewer(self, peer: rtsp.Peer, items: list) -> None:
        if not items or not isinstance(items[0], rtsp.Message):
            raise ValueError("a viewer sent no RTSP request")
        request = items[0]
        parts = urlsplit(request.url).path.split("/")
        key = "/".join(parts[1:3])
        say("streaming", f"viewer asks for {key}: {request.start}")
        if len(parts) < 3 or not parts[2].isdigit():
            await peer.write(rtsp.response("404 Not Found", request))
            return
        while reg := await self._claim(key):
            reg.viewer.set_result((peer, items))
            await reg.ended.wait()
            if reg.relayed:    # else the agent had closed it just then: wait for its next one
                return
        say("streaming", f"{key} is not registered, viewer refused")
        await peer.write(rtsp.response("503 Service Unavailable", request))

    async def _claim(self, key: str) -> Registration | None:
        try:
            async with asyncio.timeout(self.viewer_wait), self._changed:
                await self._changed.wait_for(lambda: self._free.get(key))
                return self._free[key].pop(0)
        except TimeoutError:
            return None


class Relay:
    """One viewer on one registered connection, until either closes."""

    def __init__(self, reg: Registration, viewer: rtsp.Peer, items: list):
        self.reg, self.agent, self.viewer = reg, reg.peer, viewer
        self.items = items                                  # read from the viewer already
        self.auth = rtsp.Authenticator(reg.login, reg.password)
        self.pending: dict[str, rtsp.Message] = {}          # requests by CSeq, unanswered
        self.retried: set[str] = set()                      # CSeqs that met a 401 before
        self.own: set[str] = set()                          # CSeqs of requests made here

    async def run(self) -> None:
        end = "the agent"
        try:
            if await self._open():
                end = await self._relay()
            else:
                await self.viewer.write(rtsp.response("503 Service Unavailable", self.items[0]))
        finally:
            say("streaming", f"{self.reg.key} relay ended by {end}: "
                             f"{self.agent.received} bytes from the camera, "
                             f"{self.agent.sent} bytes towards it")
            self.viewer.writer.close()

    async def _open(self) -> bool:
        """Starts the relay in the agent: OPTIONS, then nothing more until its 200 is back."""
        if self.items[0].method == "OPTIONS":
            options, rest = self.items[0], self.items[1:]
        else:
            options = rtsp.Message(f"OPTIONS {self.items[0].url} RTSP/1.0", [("CSeq", "1")])
            self.own.add("1")
            rest = self.items
        message = self._prepare(options)
        if self.reg.fault == "coalesce":
            message = KEEPALIVE + message
        elif self.reg.fault == "wrong":
            message = message.lower()
        self.agent.sent += len(message)
        await deliver(self.agent.writer, message, self.reg.fault)
        try:
            items = await asyncio.wait_for(self.agent.read(), ANSWER_SECONDS)
        except TimeoutError:
            say("streaming", f"{self.reg.key} did not answer OPTIONS")
            return False
        if not items or not isinstance(items[0], rtsp.Message) or items[0].status != 200:
            say("streaming", f"{self.reg.key} refused OPTIONS: {items or 'closed'}")
            return False
        say("streaming", f"{self.reg.key} streaming")
        await self._from_agent(items)
        await self._from_viewer(rest)
        return True

    async def _relay(self) -> str:
        """Pumps both directions until one of them ends; tells whose end it was."""
        async def pump(source: rtsp.Peer, handle) -> None:
            while items := await source.read():
                await handle(items)

        viewer = asyncio.ensure_future(pump(self.viewer, self._from_viewer))
        agent = asyncio.ensure_future(pump(self.agent, self._from_agent))
        try:
            await asyncio.wait({viewer, agent}, return_when=asyncio.FIRST_COMPLETED)
            return "the viewer" if viewer.done() else "the agent"
        finally:
            for task in (viewer, agent):
                task.cancel()
            await asyncio.gather(viewer, agent, return_exceptions=True)

    async def _from_viewer(self, items: list) -> None:
        out = bytearray()
        for item in items:
            if isinstance(item, bytes):
                out += item
            elif item.is_response:
                out += item.raw
            elif item.method == "SETUP" and not self._keep_tcp(item):
                await self.viewer.write(rtsp.response("461 Unsupported Transport", item))
            else:
                out += self._prepare(item)
        if out:
            await self.agent.write(bytes(out))

    async def _from_agent(self, items: list) -> None:
        out = bytearray()
        for item in items:
            if isinstance(item, bytes):
                out += item
            elif not item.is_response:
                out += item.raw
            elif not await self._absorb(item):
                out += item.raw
        if out:
            await self.viewer.write(bytes(out))

    async def _absorb(self, answer: rtsp.Message) -> bool:
        """True when the answer is not the viewer's: to a request made here, or a first 401."""
        cseq = answer.cseq
        request = self.pending.pop(cseq, None)
        again = cseq in self.retried
        self.retried.discard(cseq)
        if answer.status == 401 and request and not again and self.auth.learn(answer):
            self.retried.add(cseq)
            await self.agent.write(self._prepare(request))
            return True
        if cseq in self.own:
            self.own.discard(cseq)
            return True
        return False

    def _prepare(self, request: rtsp.Message) -> bytes:
        """The request as the camera is to see it."""
        request.url = self._camera_url(request.url)
        self.auth.apply(request)
        self.pending[request.cseq] = request
        return request.encode()

    def _camera_url(self, url: str) -> str:
        """Puts the camera's path for "/<cloud id>/<n>" and drops user info; "*" stays."""
        match = re.fullmatch(r"(rtsp://)(?:[^/@]*@)?([^/]*)(.*)", url, re.IGNORECASE)
        if not match:
            return url
        scheme, place, path = match.groups()
        prefix, uri = f"/{self.reg.key}", self.reg.uri
        rest = path[len(prefix):]
        if path.startswith(prefix) and rest[:1] in ("", "/", "?"):
            path = (uri[:-1] if uri.endswith("/") and rest.startswith("/") else uri) + rest
        return f"{scheme}{place}{path}"

    @staticmethod
    def _keep_tcp(setup: rtsp.Message) -> bool:
        """Leaves only the TCP transports in a SETUP. False when there are none."""
        kept = [t for t in setup.get("Transport").split(",") if "/TCP" in t.upper()]
        if kept:
            setup.set("Transport", ",".join(kept))
        return bool(kept)
