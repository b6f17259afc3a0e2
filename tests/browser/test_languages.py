"""What every page says in both languages, element by element; the switch; a phone's layout."""

import re
from pathlib import Path

import pytest

from pages import HOME

# What the pages say; an element may be all of a class. "+" is /streams without the form.
PAGES: dict[str, list[list[str]]] = {}
for line in (Path(__file__).parent / "texts.tsv").read_text(encoding="utf-8").splitlines():
    page, *texts = line.split("\t")
    PAGES.setdefault(page, []).append(texts)
BLOCKED = """Object.defineProperty(window, 'localStorage', {
  get() { throw new DOMException('blocked', 'SecurityError'); }});"""
# Syntax and calls of browsers younger than async functions: one of them would end a whole script.
TOO_NEW = re.compile(r"\?\?|\?\.[\w(\[]|\.at\(|replace(Children|All)|/[a-z]*s[a-z]*\.exec|catch {")


def check_page(browser, page, language):
    for selector, english, russian in PAGES[page]:
        wanted = english if language == "en" else russian
        assert set(browser.texts(selector)) == {wanted}, selector
    assert browser.script("""return [document.documentElement.lang,
        document.querySelector('meta[name=viewport]').content,
        document.doctype && document.doctype.name]""") == [
        language, "width=device-width, initial-scale=1", None if page == "/stats" else "html"]
    assert not TOO_NEW.search(browser.texts("script")[0])


def test_every_page_in_both_languages(rig, browser):
    """Russian without a stored value, or one that is none; after a click on Eng English."""
    rig.serve(rig.camera.url("/{1-2}"), options=("-l", "-r"))
    for before in (BLOCKED, "", "localStorage.preferredLanguage = 'de'"):
        for path in ("/cloudid", "/stats", "/streams", "/"):
            browser.open(path, before=before)
            check_page(browser, path, "ru")
        browser.click(".language-btn:nth-child(2)")
        check_page(browser, "/", "en")
    assert browser.script("return localStorage.preferredLanguage") == "en"
    for path in ("/cloudid", "/stats", "/streams"):
        browser.click(f"a[href='{path}']")
        assert browser.driver.current_url == HOME + path
        check_page(browser, path, "en")
        browser.driver.refresh()
        check_page(browser, path, "en")
        browser.click("a.back-link#back-button")
        check_page(browser, "/", "en")


# The whole width, and the elements of whose contents something, text included, leaves the frame.
OUTSIDE = """const frame = document.querySelector('.container').getBoundingClientRect();
const range = document.createRange();
const sticksOut = (r) => r.left < frame.left || r.right > frame.right;
return [document.documentElement.scrollWidth, [...document.querySelectorAll('.container *')]
  .filter((e) => range.selectNodeContents(e) || [...range.getClientRects()].some(sticksOut))
  .map((e) => e.outerHTML)]"""
# Per row: whether box, ID and status share a line in this order, the address below all of it.
ROWS = """return [...document.querySelectorAll('.streams-table tr')].map((row) => {
  const [box, id, url, status] = [...row.children].map((cell) => cell.getBoundingClientRect());
  const all = row.getBoundingClientRect();
  return box.right <= id.left && id.right <= status.left && id.top === box.top &&
    id.top === status.top && url.top >= id.bottom && url.width === all.width; })"""


@pytest.mark.parametrize("width, text", [(320, 100), (375, 100), (320, 130)])
def test_a_phone(rig, browser, width, text):
    """Nothing scrolls sideways or sticks out; the stream table's rows are small grids."""
    rig.serve(rig.camera.url("/" + "long" * 40), "rtsp://127.0.0.1:1/dead", options=("-l", "-r"))
    browser.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
        "width": width, "height": 700, "deviceScaleFactor": 1, "mobile": True})
    for path in ("/", "/cloudid", "/stats", "/streams"):
        browser.open(path)
        browser.script(f"document.documentElement.style.fontSize = '{text}%'")
        assert browser.script(OUTSIDE) == [width, []], path
        assert browser.style("h1", "font-size") == f"{24 * text / 100:g}px"
    assert browser.script(ROWS) == [True] * 3
    assert browser.style(".stream-checkbox", "width") == "20px"
    rect = browser.script("""showNotification('x'.repeat(99), true);
        return byId('notification').getBoundingClientRect().toJSON()""")
    assert 0 < rect["left"] == width - rect["right"]


GREEN, RED = "rgb(40, 167, 69)", "rgb(220, 53, 69)"
GREY, SLATE = "rgb(108, 117, 125)", "rgb(44, 62, 80)"
