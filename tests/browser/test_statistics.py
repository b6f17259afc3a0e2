"""The statistics page: figures of known traffic, refresh by hand and by timer, its failure."""

import re
import time

from pages import FAST, serve
from harness import wait_until
from scripted import ok_answer, pattern
from test_languages import GREEN, GREY, SLATE

CARD = """return [...document.querySelectorAll('.stats-grid > .stats-card')].map((card) =>
  [...card.querySelectorAll(':scope > .stat-item > .stat-value')].map((value) => value.textContent))
"""
STATUS = """return [...document.querySelectorAll('.stat-status + .stat-value')].map((value) =>
  [value.className, getComputedStyle(value).color, getComputedStyle(value).fontWeight])"""
# What ctime writes, less its line feed.
MOMENT = re.compile(r"(Mon|Tue|Wed|Thu|Fri|Sat|Sun) [A-Z][a-z]{2} [ 123]\d \d\d:\d\d:\d\d \d{4}")
COUNTED = FAST + """window.fetched = 0; const realFetch = fetch;
window.fetch = (...given) => { fetched++; return realFetch(...given); };"""
DURATION = re.compile(r"(\dm )?\d{1,2}s")
LAST = 7500     # bytes, few enough for one receive: 15,000 both ways, in one second or in a few
RATES = ["120 kbps", "60 kbps", "40 kbps", "30 kbps", "24 kbps"]


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
    system, first, second, *idle = browser.script(CARD)
    assert re.fullmatch(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d", system[0])
    assert first[0] == second[0] == "Streaming" and first[3] == second[3] == "0.00 MB"
    assert idle == [[status, "N/A", "0 kbps", "0.00 MB", "Never"]
                    for status in ("Registered", "Offline")]
    assert browser.script(STATUS) == [["stat-value status-streaming", GREEN, "600"]] * 2 + [
        ["stat-value status-registered", SLATE, "600"], ["stat-value status-offline", GREY, "600"]]

    for (camera, cloud), request, total in zip(relays, rig.camera.requests, (1572864, 1048575)):
        assert cloud.fields["uri"] == request.path
        send_counted(camera, cloud, request, total)
    browser.script("window.system = document.getElementById('systemStats')")
    browser.click("#refreshBtn")
    browser.wait("!document.contains(window.system) && document.querySelector('.header-stream')"
                 ".textContent === 'Stream 1'")
    again, first, second, *_ = browser.script(CARD)
    assert again[0] == system[0] and again[1] != system[1] and DURATION.fullmatch(again[1])
    assert [first[3], second[3]] == ["1.50 MB", "0.99 MB"]
    for card in (first, second):
        assert DURATION.fullmatch(card[1]) and card[2] in RATES and MOMENT.fullmatch(card[4]), card


def test_automatic_refresh_and_its_failure(rig, browser):
    agent = serve(rig)
    browser.open("/stats", before=COUNTED)
    browser.script("localStorage.preferredLanguage = 'en'")
    assert browser.texts("#header-info") == ["Данные системы"]
    browser.click("#autoRefresh")
    browser.wait("window.fetched >= 2")
    assert browser.script("return window.periods") == [5000]
    # A refresh goes by the language stored by then.
    browser.wait("document.getElementById('header-info').textContent === 'System Information'"
                 " && document.querySelector('.header-stream').textContent === 'Stream 1'")
    browser.click("#autoRefresh")
    fetched = browser.script("return window.fetched")
    time.sleep(0.5)     # the last answer, too, is in the page then
    assert browser.script("return window.fetched") == fetched

    agent.stop()
    shown = browser.script("return document.body.innerHTML")
    browser.errors()
    browser.click("#refreshBtn")
    wait_until(lambda: any("Error refreshing stats:" in error for error in browser.errors()),
               what="console error")
    assert browser.script("return document.body.innerHTML") == shown
