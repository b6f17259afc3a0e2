"""The statistics page: the streams' cards, refresh by hand and by timer, its failure."""

import re
import time

from pages import FAST
from harness import wait_until
from test_languages import GREEN, GREY, SLATE

CARD = """return [...document.querySelectorAll('.stats-grid > .stats-card')].map((card) =>
  [...card.querySelectorAll(':scope > .stat-item > .stat-value')].map((value) => value.textContent))
"""
STATUS = """return [...document.querySelectorAll('.stat-status + .stat-value')].map((value) =>
  [value.className, getComputedStyle(value).color, getComputedStyle(value).fontWeight])"""
COUNTED = FAST + """window.fetched = 0; const realFetch = fetch;
window.fetch = (...given) => { fetched++; return realFetch(...given); };"""


def test_cards_and_refresh(rig, browser):
    """A relay, a waiting stream and a dead one, before and after the end of the relay. A refresh
    goes by the language stored by then; one that fails changes nothing."""
    agent = rig.serve(*map(rig.camera.url, ("/1", "/2")), "rtsp://127.0.0.1:1/dead")
    camera, _ = rig.relay(1, "/1")
    agent.wait_for("-> streaming")
    agent.wait_for("-> registered", 2)
    browser.open("/stats", before=COUNTED)
    system, streaming, *idle = browser.script(CARD)
    assert re.fullmatch(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d", system[0])
    assert streaming[0] == "Streaming" and len(streaming) == 5
    assert idle == [[status, "N/A", "0 kbps", "0.00 MB", "Never"]
                    for status in ("Registered", "Offline")]
    assert browser.script(STATUS) == [
        ["stat-value status-streaming", GREEN, "600"],
        ["stat-value status-registered", SLATE, "600"], ["stat-value status-offline", GREY, "600"]]

    camera.close()
    agent.wait_for("-> registered", 3)
    assert browser.texts("#header-info") == ["Данные системы"]
    browser.script("localStorage.preferredLanguage = 'en'")
    browser.click("#refreshBtn")
    browser.wait("document.getElementById('header-info').textContent === 'System Information'"
                 " && document.querySelector('.header-stream').textContent === 'Stream 1'")
    again, first, *_ = browser.script(CARD)
    assert again[0] == system[0] and first[:2] == ["Registered", "N/A"]

    browser.click("#autoRefresh")
    browser.wait("window.fetched >= 3")
    assert browser.script("return window.periods") == [5000]
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
