"""The statistics page: figures of known traffic, refresh by hand and by timer, its failure."""

import re
import time

from pages import FAST, serve
from harness import DroppingListener, wait_until
from scripted import http_answer, ok_answer, pattern
from test_languages import AMBER, GREEN, GREY, SLATE

CARD = """return [...document.querySelectorAll('.stats-grid > .stats-card')].map((card) =>
  [...card.querySelectorAll(':scope > .stat-item > .stat-value')].map((value) => value.textContent))
"""
STATUS = """return [...document.querySelectorAll('.stat-status + .stat-value')].map((value) =>
  [value.className, getComputedStyle(value).color, getComputedStyle(value).fontWeight])"""
# What ctime writes, less its line feed.
MOMENT = re.compile(r"(Mon|Tue|Wed|Thu|Fri|Sat|Sun) [A-Z][a-z]{2} [ 123]\d \d\d:\d\d:\d\d \d{4}")
COUNTED = FAST + """window.fetched = 0; const realFetch = fetch;
window.fetch = (...given) => { fetched++; return realFetch(...given); };"""
LAST = 7500             # bytes, few enough to come in one receive
# 15,000 bytes a second, both ways, or as many in two seconds and more.
RATES = ["120 kbps", "60 kbps", "40 kbps", "30 kbps", "24 kbps"]


def seconds(duration: str) -> int:
    match = re.fullmatch(r"(?:(\d+)m )?(\d+)s", duration)
    assert match, duration
    return int(match[1] or 0) * 60 + int(match[2])


def send_counted(camera, cloud, request, total: int) -> None:
    """Lets the relay send until the stream's total, its handshake included, is `total` bytes."""
    rest = total - LAST - len(request.raw) - len(ok_answer(request))
    for data in (pattern(rest), pattern(LAST), b"x"):
        camera.send(data)
        cloud.expect(data)
        time.sleep(1.1)     # figures are reported by the first data of a later second


def test_figures_and_refresh(rig, browser):
    """Two relays of known size, a waiting stream and a dead one, before and after a refresh."""
    urls = [rig.camera.url(f"/{n}") for n in (1, 2, 3)] + ["rtsp://127.0.0.1:1/dead"]
    agent = serve(rig, *urls)
    relays = [rig.relay(n, f"/{n}") for n in (1, 2)]
    agent.wait_for("-> streaming", 2)
    agent.wait_for("-> registered", 3)
    browser.open("/stats", "en")
    system, first, second, third, dead = browser.script(CARD)
    assert re.fullmatch(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d", system[0])
    assert first[0] == second[0] == "Streaming" and first[3] == second[3] == "0.00 MB"
    assert third == ["Registered", "N/A", "0 kbps", "0.00 MB", "Never"]
    assert dead == ["Offline", "N/A", "0 kbps", "0.00 MB", "Never"]
    assert browser.script(STATUS) == [["stat-value status-streaming", GREEN, "600"]] * 2 + [
        ["stat-value status-registered", SLATE, "600"], ["stat-value status-offline", GREY, "600"]]

    for (camera, cloud), request, total in zip(relays, rig.camera.requests, (1572864, 1048575)):
        assert cloud.fields["uri"] == request.path
        send_counted(camera, cloud, request, total)
    browser.script("window.system = document.getElementById('systemStats')")
    uptime = seconds(system[1])
    browser.click("#refreshBtn")
    browser.wait("!document.contains(window.system) && document.querySelector('.header-stream')"
                 ".textContent === 'Stream 1'")
    again, first, second, third, dead = browser.script(CARD)
    assert again[0] == system[0] and uptime + 2 <= seconds(again[1]) < uptime + 60
    assert [first[3], second[3]] == ["1.50 MB", "0.99 MB"]
    for card in (first, second):
        assert seconds(card[1]) >= 2 and card[2] in RATES, card
        assert MOMENT.fullmatch(card[4].rstrip("\n")), card[4]
    assert third[0] == "Registered" and dead[0] == "Offline"


def test_automatic_refresh_and_its_failure(rig, browser):
    agent = serve(rig)
    browser.open("/stats", before=COUNTED)
    browser.script("localStorage.preferredLanguage = 'en'")
    assert browser.texts("#header-info") == ["Данные системы"]
    for periods in ([5000], [5000, 5000]):
        before = browser.script("return window.fetched")
        browser.click("#autoRefresh")
        browser.wait(f"window.fetched >= {before + 2}")
        assert browser.script("return window.periods") == periods
        # A refresh goes by the language stored by then.
        browser.wait("document.getElementById('header-info').textContent === 'System Information'"
                     " && document.querySelector('.header-stream').textContent === 'Stream 1'")
        browser.click("#autoRefresh")
        fetched = browser.script("return window.fetched")
        time.sleep(0.5)
        assert browser.script("return window.fetched") == fetched

    agent.stop()
    time.sleep(0.5)     # an answer may still be on its way into the page
    shown = browser.script("return document.body.innerHTML")
    browser.errors()
    browser.click("#refreshBtn")
    wait_until(lambda: any("Error refreshing stats:" in error for error in browser.errors()),
               what="console error")
    assert browser.script("return document.body.innerHTML") == shown


def test_connecting(rig, browser):
    """The cloud takes no connection, so that the stream stays in its attempt."""
    with DroppingListener() as full:
        rig.balance(http_answer(f"127.0.0.1|{full.port}"))
        agent = serve(rig, options=("-l",))
        agent.wait_for("offline -> connecting")
        browser.open("/stats")
        assert browser.script(STATUS) == [["stat-value status-connecting", AMBER, "600"]]
        browser.open("/streams")
        assert browser.texts("td.stream-status.status-connecting") == ["Connecting"]
        assert browser.style("td.stream-status", "color") == AMBER
