"""Cloud, balancer and cameras for many streams of one agent, for soaks: asyncio, little processor.

Each relay is random in length, size and rate, carries bytes both ways and is ended by the camera or
the cloud, properly or by a reset. Every byte is compared with the pattern that it was taken from,
and whatever nothing disturbs must happen at once; Peers.failed tells the first thing that is wrong.
Who injects faults brackets them with Peers.disturb() and Peers.leave_alone().
"""

import asyncio
import contextlib
import functools
import itertools
import random
import re
import socket
import struct
import time
import traceback
from collections import Counter, defaultdict

from scripted import BLANK_LINE, KEEPALIVE, http_answer

STREAMS, RECORDERS = 64, 4
CLOUD, CAMERAS = "127.0.0.2", "127.0.0.3"   # addresses of their own: the way from one can be cut
CLOUD_ID = "soaked-cloud-id"

AT_ONCE = 30                        # s, for whatever nothing disturbs
TARDY = 0.5                         # s that the tool may be late: the agent gives a camera 2 s
BACK_OFF = 60 + 10 + 4 + 6          # s: longest pause, connect, probe and time for a slow machine
SILENCE = 120                       # s, after which either side gives a dead connection up

SETTLED = 1                         # s, in which the cloud has to take what the camera sent last
PERIOD, CHUNK = 1_000_003, 65_536   # bytes; no buffer's size divides the period
PATTERN = random.Random(0).randbytes(PERIOD)
PATTERN += PATTERN[:CHUNK]
ENDS = ("camera", "camera's reset", "cloud", "cloud's reset")
TWO_FAULTS = "two faults at once"
LONGEST_RELAY = 20                  # s
# Bytes of a piece at the most, seconds after each, bytes of all.
TO_CLOUD = ((1400, 0.05, 1e9), (8192, 0.1, 1e9), (60_000, 0.25, 1e9), (CHUNK, 0, 4e6))
TO_CAMERA = ((50, 0.5, 1e9), (700, 0.1, 1e9), (20_000, 0.3, 1e9), (CHUNK, 0, 5e5))


class Flow:
    """One direction of a relay. What is lost, doubled or out of order does not fit the pattern."""

    def __init__(self, start: int):
        self.start, self.sent, self.received = start, 0, 0

    def take(self, size: int) -> bytes:
        at = (self.start + self.sent) % PERIOD
        self.sent += size
        return PATTERN[at:at + size]

    def fits(self, data: bytes) -> bool:
        at = (self.start + self.received) % PERIOD
        self.received += len(data)
        return self.received <= self.sent and data == PATTERN[at:at + len(data)]


class Relay:
    def __init__(self, number: int, rng: random.Random, is_lossy: bool):
        self.number, self.rng = number, rng
        self.seconds = 0.02 * (LONGEST_RELAY / 0.02) ** rng.random()
        self.end = rng.choice(ENDS)
        self.ended = 0.0                # when that was done
        self.up, self.down = Flow(rng.randrange(PERIOD)), Flow(rng.randrange(PERIOD))
        self.camera: asyncio.Future = asyncio.Future()          # its connection
        self.camera_ended: asyncio.Future = asyncio.Future()    # the agent's end of it, that is
        self.is_lossy = is_lossy        # a fault may keep bytes from their peer


def hang_up(writer: asyncio.StreamWriter, reset: bool) -> None:
    if reset and (sock := writer.get_extra_info("socket")) and sock.fileno() >= 0:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    writer.transport.abort()


class Server:
    """Serves each connection by a task; can be gone and come back at its port."""

    def __init__(self, serve, host: str, port: int = 0):
        self.port, self._behaviour, self._host = port, serve, host
        self._writers: set[asyncio.StreamWriter] = set()

    async def open(self) -> None:
        self._server = await asyncio.start_server(self._serve, self._host, self.port,
                                                  backlog=256, limit=CHUNK)
        self.port = self._server.sockets[0].getsockname()[1]

    def cut(self, reset: bool) -> None:
        for writer in list(self._writers):
            hang_up(writer, reset)

    def close(self, reset: bool) -> None:
        self._server.close()
        self.cut(reset)

    async def _serve(self, reader, writer) -> None:
        self._writers.add(writer)
        try:
            await self._behaviour(reader, writer)
        finally:
            self._writers.discard(writer)
            writer.close()


class Peers:
    def __init__(self, seed: int):
        self.rng, self.seed = random.Random(seed), seed
        self.failed: asyncio.Future = asyncio.Future()
        self.connections: dict[int, asyncio.StreamWriter] = {}  # the cloud's, of streams
        self.lost: dict[int, tuple[str, float]] = {}    # why and since when one is not seen well
        self.relays: dict[int, Relay] = {}              # by the CSeq of the cloud's request
        self.hush: asyncio.Future = asyncio.Future()    # done while no relay shall run
        self.hush.set_result(None)
        self.together = False           # relays last until the hush
        # Faults: how many there are now, how many of them keep bytes from their peers, ...
        self.active, self.lossy, self.disturbances, self.is_silent = 0, 0, 0, False
        self.last_fault, self.fault_ended, self.patience = "start", 0.0, BACK_OFF
        self.camera_mode: dict[int, str] = {}           # of recorders: silent or refuses
        self.cloud_flows = asyncio.Event()
        self.cloud_flows.set()
        # Results.
        self.faults: Counter = Counter()
        self.back: dict[str, list[float]] = defaultdict(list)   # s until streams were well again
        self.served, self.bytes = 0, 0
        self._serials = itertools.count(1000)
        self.cloud = Server(self._guarded(self._serve_cloud), CLOUD)
        self.recorders = [Server(self._guarded(functools.partial(self._serve_camera, i)), CAMERAS)
                          for i in range(RECORDERS)]
        self.balancer = Server(self._guarded(self._serve_balancer), "127.0.0.1", 8111)
        self.useless: list[tuple[str, bytes]] = []   # first answers, with names

    def fail(self, reason: str) -> None:
        if not self.failed.done():
            self.failed.set_result(reason)

    def _guarded(self, serve):
        async def run(*arguments):
            try:
                await serve(*arguments)
            except (OSError, asyncio.IncompleteReadError):  # the agent or a fault ended it
                pass
            except Exception:
                self.fail(f"the tool itself:\n{traceback.format_exc()}")
        return run

    # Who is well. Peace: no fault, and everybody is back since the last one.

    def peace(self) -> int | None:
        """To be given to undisturbed(), which tells whether it has lasted since."""
        ill = any(not kind.startswith("relay") for kind, _ in self.lost.values())
        return None if self.active or ill else self.disturbances

    def undisturbed(self, since: int | None) -> bool:
        return since == self.disturbances

    async def all_back(self) -> None:
        """Ends: the watch sees to it."""
        while self.peace() is None:
            await asyncio.sleep(0.05)

    def lose(self, numbers, kind: str, since: float | None = None) -> None:
        since = since or time.monotonic()
        self.lost.update({number: (kind, since) for number in numbers})

    def _prove(self, number: int) -> None:
        """The stream is alive: registered just now, or answers."""
        if number in self.lost and not self.active:
            kind, since = self.lost.pop(number)
            self.back[kind].append(time.monotonic() - since)
            if self.peace() is not None:
                self.patience = BACK_OFF

    async def watch(self) -> None:
        while True:
            woken = time.monotonic() + 0.5
            await asyncio.sleep(0.5)
            if time.monotonic() > woken + TARDY:
                self.faults["tool held up by the machine"] += 1
                self.disturbances += 1
                self.fault_ended = time.monotonic()
            for number, (kind, since) in [] if self.active else list(self.lost.items()):
                limit = AT_ONCE if kind.startswith("relay") else self.patience
                if time.monotonic() - max(since, self.fault_ended) > limit:
                    self.fail(f"stream {number} is not back {limit} s after: {kind}")

    async def demand(self, peace: int | None, what: str, answer):
        """What must come at once while there is peace, and may take its time otherwise."""
        try:
            async with asyncio.timeout(AT_ONCE if self.undisturbed(peace) else SILENCE):
                return await answer
        except (OSError, asyncio.IncompleteReadError) as error:     # also a time-out
            if self.undisturbed(peace):
                self.fail(f"{what}: {error!r}")
            raise

    def disturb(self, kind: str, is_lossy: bool, is_silent: bool) -> None:
        """Silent: who is concerned cannot be told from the others."""
        self.faults[kind] += 1
        self.last_fault = TWO_FAULTS if self.active else kind
        self.active += 1
        self.disturbances += 1
        self.lossy += is_lossy
        self.is_silent |= is_silent
        if is_lossy and is_silent:
            self.patience = BACK_OFF + SILENCE
        for relay in self.relays.values():
            relay.is_lossy |= is_lossy

    def leave_alone(self, is_lossy: bool) -> None:
        self.lossy -= is_lossy
        self.active -= 1
        self.fault_ended = time.monotonic()
        if not self.active:
            self.lost = {}
            self.lose((n for n in range(1, STREAMS + 1)
                       if self.is_silent or n not in self.connections), self.last_fault)
            self.is_silent = False

    # The peers.

    async def _serve_balancer(self, reader, writer) -> None:
        request = await reader.readuntil(BLANK_LINE)
        if self.useless:
            kind, answer = self.useless.pop()
            self.faults[f"balancer {kind}"] += 1
        else:
            is_uuid = b"/uuid" in request
            answer = http_answer(CLOUD_ID if is_uuid else f"{CLOUD}|{self.cloud.port}")
        writer.write(answer)
        self.lose(list(self.lost), "start")

    async def _serve_camera(self, recorder: int, reader, writer) -> None:
        request = await reader.readuntil(BLANK_LINE)
        serial = int(re.search(rb"CSeq: (\d+)", request)[1])
        mode = self.camera_mode.get(recorder)
        if mode != "silent":
            status = "401 Unauthorized" if mode == "refuses" else "200 OK"
            writer.write(f"RTSP/1.0 {status}\r\nCSeq: {serial}\r\nPublic: PLAY\r\n\r\n".encode())
        relay = self.relays.get(serial)
        if mode or not relay:   # a probe, or given up by the cloud
            await reader.read()
            return
        if f":{self.recorders[recorder].port}/{(relay.number - 1) % 16 + 1} " not in str(request):
            self.fail(f"stream {relay.number} asked for {request[:80]!r}")
        relay.camera.set_result(writer)
        try:
            await self._receive(reader, relay, relay.down, "cloud to camera")
        finally:
            relay.camera_ended.set_result(None)

    async def _serve_cloud(self, reader, writer) -> None:
        registration = await reader.readuntil(b"}")
        number = int(re.match(rb'REGISTER={"cloudid":"[^"/]+/(\d+)"', registration)[1])
        if number in self.connections:
            hang_up(self.connections[number], reset=True)   # the agent has long given it up
        self.connections[number] = writer
        self._prove(number)
        relay = None
        try:
            await self._idle(number, reader, writer)
            rng = random.Random(f"{self.seed} {next(self._serials)}")
            relay = Relay(number, rng, self.lossy > 0)
            await self._relay(relay, self.peace(), reader, writer)
        finally:
            if self.connections.get(number) is writer:
                del self.connections[number]
                if relay and relay.ended > self.fault_ended and not self.active:
                    self.lose([number], f"relay ended by {relay.end}", relay.ended)
                else:
                    self.lose([number], self.last_fault)

    async def _idle(self, number: int, reader, writer) -> None:
        """Keepalives and unexpected words, until it is time for a relay."""
        due = time.monotonic() + self.rng.expovariate(0.7)
        while self.hush.done() or time.monotonic() < due and not self.together:
            peace = self.peace()
            with contextlib.suppress(TimeoutError):
                async with asyncio.timeout(self.rng.uniform(0.3, 1)):
                    word = await reader.read(1)
                    if word or self.undisturbed(peace):
                        self.fail(f"stream {number}, registered: sent {word!r} or closed")
                    raise ConnectionResetError
            await self.cloud_flows.wait()
            if peace is not None and self.rng.random() < 0.02:
                self.faults["unexpected word"] += 1
                writer.write(b"WORD\r\n\r\n"[:self.rng.randint(1, 8)])
                await asyncio.sleep(0.5)    # no framing: the next word needs a receive of its own
            elif number in self.lost or self.rng.random() < 0.2:
                peace = self.peace()
                writer.write(KEEPALIVE)
                what = f"stream {number}: no answer to a keepalive"
                if await self.demand(peace, what, reader.readexactly(2)) != b"ok":
                    self.fail(what)
                self._prove(number)

    async def _relay(self, relay: Relay, peace: int | None, reader, writer) -> None:
        serial, number = next(self._serials), relay.number
        self.relays[serial] = relay
        tasks = []
        try:
            writer.write(f"OPTIONS rtsp://cloud/{number} RTSP/1.0\r\n"
                         f"CSeq: {serial}\r\n\r\n".encode())
            await self.demand(peace, f"stream {number}: no answer to OPTIONS",
                              reader.readuntil(BLANK_LINE))
            self._prove(number)
            camera = await relay.camera
            plans = ((relay.up, camera, relay.rng.choice(TO_CLOUD)),
                     (relay.down, writer, relay.rng.choice(TO_CAMERA)))
            tasks += [asyncio.create_task(self._send(*plan, relay.rng)) for plan in plans]
            tasks.append(asyncio.create_task(
                self._receive(reader, relay, relay.up, "camera to cloud")))
            await self._conduct(relay, peace, camera, writer, *tasks)
        finally:
            for task in tasks:
                task.cancel()
            del self.relays[serial]
            self.bytes += relay.up.received + relay.down.received

    async def _send(self, flow: Flow, writer, plan: tuple, rng: random.Random) -> None:
        size, pause, most = plan
        with contextlib.suppress(OSError):
            while flow.sent < most:
                await self.cloud_flows.wait()
                writer.write(flow.take(rng.randint(1, size)))
                await writer.drain()
                await asyncio.sleep(pause)

    async def _receive(self, reader, relay: Relay, flow: Flow, direction: str) -> None:
        with contextlib.suppress(OSError):
            while data := await reader.read(CHUNK):
                if not flow.fits(data):
                    self.fail(f"stream {relay.number}, {direction}: wrong in the {len(data)} bytes "
                              f"before {flow.received}, of {flow.sent} sent")
                if flow is relay.up:
                    self._prove(relay.number)
                    await self.cloud_flows.wait()

    async def _all_received(self, flow: Flow, received: asyncio.Task) -> None:
        """What the cloud leaves unread would turn its close into a reset."""
        while flow.received < flow.sent and not received.done():
            await asyncio.sleep(0.01)

    async def _conduct(self, relay: Relay, peace: int | None, camera, cloud, to_cloud, to_camera,
                       received) -> None:
        ended = (received, relay.camera_ended)
        await asyncio.wait((*ended, self.hush), return_when=asyncio.FIRST_COMPLETED,
                           timeout=None if self.together else relay.seconds)
        if any(end.done() for end in ended):
            if self.undisturbed(peace):
                self.fail(f"a relay of stream {relay.number} ended by itself")
            hang_up(camera, reset=True)
            return
        self.served += 1
        what = f"stream {relay.number}, relay ended by {relay.end}"
        whole = None    # the flow of which nothing may be missing
        if relay.end == "camera":
            to_cloud.cancel()
            to_camera.cancel()      # a send that fails would end asyncio's receiving too
            camera.write_eof()
            whole = relay.up
        elif relay.end == "cloud":
            to_cloud.cancel()
            await self.demand(peace, what, self._all_received(relay.up, received))
            to_camera.cancel()
            cloud.close()
            whole = relay.down
        else:
            hang_up(camera if relay.end == "camera's reset" else cloud, reset=True)
        relay.ended = time.monotonic()
        await self.demand(peace, what, asyncio.wait(ended))
        if not whole or relay.is_lossy or whole.received == whole.sent:
            return
        seconds = time.monotonic() - relay.ended
        if whole is relay.up and seconds > SETTLED:
            self.faults["cloud too slow for the end"] += 1
        else:
            self.fail(f"{what} {seconds:.2f} s ago: {whole.sent - whole.received} of {whole.sent} "
                      "bytes are missing")
