"""What the browser talks to: the account service, and on option the camera web interface.

POST /addcamera.php  form fields action, login, password, data; answers {"status":1,...}
GET  /cameras        what was added so far, as JSON
POST /               the camera web interface's form target: prints the field "data"
"""

import asyncio
import json
import os
import ssl
import subprocess
import tempfile
from urllib.parse import parse_qs

from .common import Fault, deliver, http_response, listen, read_http_request, say

FAULTS = ("none", "refuse", "accept-close", "silent", "refusal", "not-json")

# The page that posts has another origin: without these the browser hides the answer from it.
CORS = ("Access-Control-Allow-Origin: *", "Access-Control-Allow-Methods: GET, POST, OPTIONS",
        "Access-Control-Allow-Headers: Content-Type")


class AccountService:
    def __init__(self, fault: Fault):
        self.fault = fault
        self.cameras: list[dict] = []

    async def start(self, host: str, port: int) -> int:
        return await listen("account", host, port, self._serve, self.fault)

    async def start_https(self, host: str, port: int) -> int:
        return await listen("account", host, port, self._serve, Fault(), self_signed(host))

    async def _serve(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter,
                     fault: str) -> None:
        method, target, body = await read_http_request(reader)
        status, text, kind = self._answer(method, target.partition("?")[0], body, fault)
        await deliver(writer, http_response(status, text, CORS, kind), fault)

    def _answer(self, method: str, path: str, body: bytes, fault: str) -> tuple[str, str, str]:
        form = {k: v[0] for k, v in parse_qs(body.decode(), keep_blank_values=True).items()}
        if method == "OPTIONS":
            return "200 OK", "", "text/plain"
        if (method, path) == ("GET", "/cameras"):
            return "200 OK", json.dumps(self.cameras, indent=1, ensure_ascii=False), \
                "application/json"
        if (method, path) == ("POST", "/addcamera.php"):
            if fault == "not-json":
                return "200 OK", "<p>Service under maintenance</p>", "text/html"
            status, message = (0, "Wrong login or password") if fault == "refusal" \
                else self._add(form)
            say("account", f"{form.get('action')} by {form.get('login')}: {status} {message}")
            return "200 OK", json.dumps({"status": status, "message": message}), \
                "application/json"
        if (method, path) == ("POST", "/"):
            say("account", f"web interface got data={form.get('data')}")
            return "200 OK", "<h1>Camera web interface</h1><p>Channels received.</p>", "text/html"
        say("account", f"{method} {path}: not found")
        return "404 Not Found", "{}", "application/json"

    def _add(self, form: dict[str, str]) -> tuple[int, str]:
        if form.get("action") not in ("add", "addcamera"):
            return 0, "Unknown action"
        if not form.get("login") or not form.get("password"):
            return 0, "Login and password wanted"
        try:
            data = json.loads(form.get("data", ""))
            channels = data["chanels"] if form["action"] == "addcamera" else [data]
            for channel in channels:
                say("account", f"camera {channel['cloud_id']} path {channel['real_chanel']}")
        except (ValueError, KeyError, TypeError):
            return 0, "Data is not a channel"
        self.cameras.append({"action": form["action"], "login": form["login"],
                             "login_camera": form.get("login_camera"),
                             "password_camera": form.get("password_camera"), "data": data})
        return 1, "Added"


def self_signed(host: str) -> ssl.SSLContext:
    """A server context with a certificate made for this run by the openssl program."""
    with tempfile.TemporaryDirectory() as folder:
        key, certificate = os.path.join(folder, "key.pem"), os.path.join(folder, "cert.pem")
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2",
                        "-keyout", key, "-out", certificate, "-subj", f"/CN={host}",
                        "-addext", f"subjectAltName=IP:{host}"], check=True, capture_output=True)
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(certificate, key)
    return context
