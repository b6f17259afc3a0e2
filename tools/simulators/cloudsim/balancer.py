"""The directory service: GET /balancer/uuid and GET /balancer/server/<id>?vendor=..&model=..

The agent looks for "message":" without blanks and stops reading at the first chunk that holds
the blank line, so the JSON is compact and the whole response leaves in one send.
"""

import asyncio
import json

from .common import Fault, deliver, http_response, listen, read_http_request, say

FAULTS = ("none", "refuse", "accept-close", "silent", "drip", "split",
          "404", "no-message", "bad-value", "not-http", "oversize")


class Balancer:
    def __init__(self, cloud_id: str, server: str, fault: Fault):
        self.cloud_id = cloud_id   # issued to every agent that asks
        self.server = server       # "host|port" of the streaming server
        self.fault = fault

    async def start(self, host: str, port: int) -> int:
        return await listen("balancer", host, port, self._serve, self.fault)

    async def _serve(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter,
                     fault: str) -> None:
        method, target, _ = await read_http_request(reader)
        value = self._value(target) if method == "GET" else None
        if value is None or fault == "404":
            response = http_response("404 Not Found", '{"error":"not found"}')
        elif fault == "no-message":
            response = http_response("200 OK", '{"error":"no value today"}')
        elif fault == "bad-value":   # neither a cloud ID nor host|port
            response = http_response("200 OK", '{"message":"bad value|99999"}')
        elif fault == "not-http":
            response = b"ICY 200 OK\r\n" + b"X-Filler: none\r\n" * 5 + b"\r\n"
        elif fault == "oversize":    # more headers than the agent has room for
            response = http_response("200 OK", self._json(value),
                                     tuple(f"X-Filler-{i}: {'x' * 80}" for i in range(64)))
        else:
            response = http_response("200 OK", self._json(value))
        status = response.split(b"\r\n", 1)[0].decode()
        note = "" if fault == "none" else f" (fault: {fault})"
        say("balancer", f"{method} {target} -> {status} {value or ''}{note}")
        await deliver(writer, response, fault, cut=response.find(b"\r\n\r\n") + 4)

    @staticmethod
    def _json(value: str) -> str:
        return json.dumps({"message": value}, separators=(",", ":"))

    def _value(self, target: str) -> str | None:
        if target == "/balancer/uuid":
            return self.cloud_id
        if target.startswith("/balancer/server/") and "vendor=" in target and "model=" in target:
            return self.server
        return None
