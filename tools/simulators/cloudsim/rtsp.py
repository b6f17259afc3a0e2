"""RTSP on a byte stream: messages, interleaved frames, basic and digest authentication."""

import asyncio
import base64
import hashlib
import re
from dataclasses import dataclass, field

MAX_HEAD = 65536   # bytes of one message head; more is not RTSP


@dataclass
class Message:
    """A request or a response. `raw` holds the bytes as received, for passing on unchanged."""
    start: str
    headers: list[tuple[str, str]] = field(default_factory=list)
    body: bytes = b""
    raw: bytes = b""

    def get(self, name: str) -> str:
        return next((v for n, v in self.headers if n.lower() == name.lower()), "")

    def get_all(self, name: str) -> list[str]:
        return [v for n, v in self.headers if n.lower() == name.lower()]

    def set(self, name: str, value: str) -> None:
        self.headers = [(n, v) for n, v in self.headers if n.lower() != name.lower()]
        self.headers.append((name, value))

    @property
    def cseq(self) -> str:
        return self.get("CSeq")

    @property
    def is_response(self) -> bool:
        return self.start.startswith("RTSP/")

    @property
    def status(self) -> int:
        parts = self.start.split()
        return int(parts[1]) if self.is_response and len(parts) > 1 and parts[1].isdigit() else 0

    @property
    def method(self) -> str:
        return self.start.split(" ", 1)[0]

    @property
    def url(self) -> str:
        """The request's URL; it may hold blanks."""
        return self.start.partition(" ")[2].rpartition(" ")[0]

    @url.setter
    def url(self, url: str) -> None:
        self.start = f"{self.method} {url} {self.start.rpartition(' ')[2]}"

    def encode(self) -> bytes:
        """The message as bytes, with the CSeq header first and spelled as agents expect it."""
        lines = [self.start, f"CSeq: {self.cseq}"]
        lines += [f"{n}: {v}" for n, v in self.headers if n.lower() != "cseq"]
        return "\r\n".join(lines).encode("latin-1") + b"\r\n\r\n" + self.body


def response(status: str, request: Message) -> bytes:
    return Message(f"RTSP/1.0 {status}", [("CSeq", request.cseq)]).encode()


class Splitter:
    """Cuts a byte stream into messages and runs of interleaved frames (given as bytes)."""

    def __init__(self) -> None:
        self._held = b""

    def feed(self, data: bytes) -> list[Message | bytes]:
        data = self._held + data
        items: list[Message | bytes] = []
        pos = 0
        while pos < len(data):
            if data[pos] == 0x24:
                end = self._frames_end(data, pos)
                if end > pos:
                    items.append(data[pos:end])
            elif data[pos] in b"\r\n":      # blank lines between messages
                end = pos + 1
                items.append(data[pos:end])
            else:
                end = self._message_end(data, pos)
                if end > pos:
                    items.append(self._parse(data[pos:end]))
            if end == pos:
                break                        # incomplete: wait for more bytes
            pos = end
        self._held = data[pos:]
        return items

    @staticmethod
    def _frames_end(data: bytes, pos: int) -> int:
        """End of the complete frames ("$", channel, 16-bit length, payload) from `pos` on."""
        while len(data) - pos >= 4 and data[pos] == 0x24:
            end = pos + 4 + int.from_bytes(data[pos + 2:pos + 4], "big")
            if end > len(data):
                break
            pos = end
        return pos

    @staticmethod
    def _message_end(data: bytes, pos: int) -> int:
        head_end = data.find(b"\r\n\r\n", pos)
        if head_end < 0:
            if len(data) - pos > MAX_HEAD:
                raise ValueError("neither RTSP nor interleaved data")
            return pos
        length = re.search(rb"(?i)\r\ncontent-length:\s*(\d+)", data[pos:head_end])
        end = head_end + 4 + (int(length[1]) if length else 0)
        return end if end <= len(data) else pos

    @staticmethod
    def _parse(raw: bytes) -> Message:
        head, _, body = raw.partition(b"\r\n\r\n")
        start, *lines = head.decode("latin-1").split("\r\n")
        pairs = (line.partition(":") for line in lines)
        return Message(start, [(n.strip(), v.strip()) for n, _, v in pairs], body, raw)


class Peer:
    """One end of a relay: a connection read as messages and frames, with byte counters."""

    def __init__(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter):
        self.reader, self.writer = reader, writer
        self.splitter = Splitter()
        self.received = self.sent = 0

    async def read(self, first: bytes = b"") -> list[Message | bytes]:
        """At least one item, or nothing at the end of the connection."""
        while True:
            data = first or await self.reader.read(65536)
            first = b""
            if not data:
                return []
            self.received += len(data)
            if items := self.splitter.feed(data):
                return items

    async def write(self, data: bytes) -> None:
        self.writer.write(data)
        self.sent += len(data)
        await self.writer.drain()


class Authenticator:
    """Answers a camera's challenges with the credentials of the registration."""

    def __init__(self, login: str, password: str):
        self.login, self.password = login, password
        self._challenge: dict[str, str] | None = None   # {} stands for the basic scheme
        self._count = 0

    def learn(self, refusal: Message) -> bool:
        """Takes the challenge of a 401, digest before basic. False when there is none to answer."""
        challenges = refusal.get_all("WWW-Authenticate")
        if not self.login or not challenges:
            return False
        for challenge in challenges:
            if challenge.lower().startswith("digest"):
                fields = re.findall(r'(\w+)\s*=\s*(?:"([^"]*)"|([^\s,]+))', challenge)
                self._challenge = {k.lower(): quoted or bare for k, quoted, bare in fields}
                self._count = 0
                return True
        self._challenge = {}
        return challenges[0].lower().startswith("basic")

    def apply(self, request: Message) -> None:
        """Adds the Authorization header once a challenge is known."""
        if self._challenge is None:
            return
        if not self._challenge:
            pair = f"{self.login}:{self.password}".encode("latin-1")
            request.set("Authorization", "Basic " + base64.b64encode(pair).decode())
        else:
            request.set("Authorization", self._digest(request))

    def _digest(self, request: Message) -> str:
        def md5(text: str) -> str:
            return hashlib.md5(text.encode("latin-1")).hexdigest()

        c = self._challenge
        assert c is not None
        realm, nonce = c.get("realm", ""), c.get("nonce", "")
        secret = md5(f"{self.login}:{realm}:{self.password}")
        asked = md5(f"{request.method}:{request.url}")
        head = (f'Digest username="{self.login}", realm="{realm}", nonce="{nonce}", '
                f'uri="{request.url}"')
        if "auth" in c.get("qop", "").split(","):
            self._count += 1
            count, client = f"{self._count:08x}", md5(f"{nonce}{self._count}")[:16]
            answer = md5(f"{secret}:{nonce}:{count}:{client}:auth:{asked}")
            head += f', qop=auth, nc={count}, cnonce="{client}"'
        else:
            answer = md5(f"{secret}:{nonce}:{asked}")
        opaque = f', opaque="{c["opaque"]}"' if "opaque" in c else ""
        return f'{head}, response="{answer}"{opaque}'
