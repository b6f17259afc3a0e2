"""What the tests of the pages stand on: the browser, and the services that it posts to."""

import re
import ssl
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "agent"))

import harness                                                      # noqa: E402
from cloudsim.account import CORS                                   # noqa: E402
from cloudsim.common import http_response                           # noqa: E402
from scripted import Connection, ScriptedServer                     # noqa: E402

HOME, CAMERA_WEB = "http://127.0.0.1:8282", "https://127.0.0.1:8443/"
# In front of a page's script: keeps the times that it asks for, and makes them pass in a fiftieth.
FAST = """window.periods = [];
for (const name of ['setTimeout', 'setInterval']) {
  const real = window[name];
  window[name] = (run, time) => { periods.push(time); return real(run, time / 50); };
}"""

SCRIPT = "</script><script>window.hacked=1</script>"
# Each tries to leave its place in any of the pages, and must arrive there as it was.
PATHS = (f"/q\"b\\n's&amp;&a=1<i>x</i>{SCRIPT}<!--<script>{{{{script}}}}${{alert(1)}}%s%n<br>end",
         "/'\"><img src=x onerror=window.hacked=1>\\\\u0022\\",
         "/line\nfeed\tand tab/'+alert(1)+'\n<b>",
         "/\\'</textarea><textarea>Видео&lt;'")
CLOUD_IDS = (harness.CLOUD_ID, "i'd\"x\\</script><script>window.hacked=1//&%s{{a}}",
             "a\\';window.hacked=1//&amp;")


def channel(rig, number, path, cloud_id=harness.CLOUD_ID, login="", password="") -> dict:
    """What the list and the form's script say of a stream; the latter with all values as texts."""
    return {"chanel": number, "real_chanel": path, "cloud_id": f"{cloud_id}/{number}",
            "camera_login": login, "camera_password": password, "cloud_server": "127.0.0.1",
            "cloud_port": str(rig.cloud.port),
            "cloud_url": f"rtsp://127.0.0.1:{rig.cloud.port}/{cloud_id}/{number}", "status": "1"}


class Browser:
    """Chromium with the few calls that the tests need."""

    def __init__(self, driver):
        self.driver = driver
        self.script = driver.execute_script
        driver.get("about:blank")
        driver.execute_cdp_cmd("Emulation.clearDeviceMetricsOverride", {})
        driver.execute_cdp_cmd("Storage.clearDataForOrigin", {"origin": HOME,
                                                              "storageTypes": "all"})
        self.errors()

    def open(self, path: str, language: str | None = None, before: str = "") -> None:
        """Loads a page of the agent; `before` is a script that runs in front of the page's own."""
        if language:
            before += f"; localStorage.setItem('preferredLanguage', '{language}')"
        added = self.driver.execute_cdp_cmd("Page.addScriptToEvaluateOnNewDocument",
                                            {"source": before})
        self.driver.get(HOME + path)
        self.driver.execute_cdp_cmd("Page.removeScriptToEvaluateOnNewDocument", added)

    def texts(self, selector: str) -> list[str]:
        return self.script("return [...document.querySelectorAll(arguments[0])]"
                           ".map(e => e.textContent)", selector)

    def style(self, selector: str, name: str) -> str:
        return self.script("return getComputedStyle(document.querySelector(arguments[0]))"
                           ".getPropertyValue(arguments[1])", selector, name)

    def click(self, *selectors: str) -> None:
        for selector in selectors:
            self.driver.find_element("css selector", selector).click()

    def wait(self, expression: str, timeout: float = 10) -> None:
        harness.wait_until(lambda: self.script(f"return ({expression})"), timeout, expression)

    def errors(self) -> list[str]:
        """The console's errors since the last call, but for those of the camera web interface."""
        return [entry["message"] for entry in self.driver.get_log("browser")
                if entry["level"] == "SEVERE" and not entry["message"].startswith(CAMERA_WEB)]


class Account(ScriptedServer):
    """The account service, or with TLS the camera web interface; keeps what is posted."""

    def __init__(self, port: int, tls: ssl.SSLContext | None = None):
        self.posts: list[tuple[str, bytes]] = []    # head and body
        self.answers: list[str] = []                # to the next posts, then success
        self._tls = tls
        super().__init__(self._serve, port)

    def _serve(self, connection: Connection) -> None:
        if self._tls:
            # The handshake comes later, when the browser needs a connection that it has opened in
            # reserve: until then, too, it must be this socket that the end of the test closes.
            connection.sock = self._tls.wrap_socket(connection.sock, server_side=True,
                                                    do_handshake_on_connect=False)
        connection._held = connection.recv()
        if not connection._held:
            return              # was not needed
        head = connection.recv_until(b"\r\n\r\n").decode()
        answer = '{"status":1}'
        if length := re.search(r"(?im)^content-length: *(\d+)", head):
            self.posts.append((head, connection.recv_exactly(int(length[1]))))
            answer = self.answers.pop(0) if self.answers else answer
        connection.send(http_response("200 OK", answer, CORS, "application/json"))
