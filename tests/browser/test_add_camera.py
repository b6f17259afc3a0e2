"""The Add-camera form page: its rows and fields, the select-all box, publishing and its signs."""

import html
import json
import re
from urllib.parse import parse_qsl

import pytest

from pages import CLOUD_IDS, FAST, HOME, PATHS, channel
from test_languages import GREEN, PAGES, RED

ROWS = """return [...document.querySelectorAll('.streams-table > tbody > tr')].map((row) => {
  const box = row.querySelector('td.checkbox-cell > input.stream-checkbox[type=checkbox]');
  const status = row.querySelector('td.stream-status');
  return [box.name, box.value, box.id, !box.disabled, row.querySelector('td.stream-id').textContent,
    row.querySelector('td.stream-url').innerHTML, status.className, status.textContent]; })"""
FIELDS = """return [...document.querySelectorAll('.form-row > input')].map((input) =>
  [input.labels[0].id, input.id, input.name, input.type, input.required].join(' '))"""
FORM = ["cloud-login cloud_username cloud_username text true",
        "cloud-pass cloud_password cloud_password password true",
        "device-login device_username device_username text false",
        "device-pass device_password device_password password false"]
# The select-all box, then those of the streams.
BOXES = """const all = byId('select-all');
return (all.disabled ? 'dead ' : all.checked ? 'all ' : 'some ') +
  [...document.querySelectorAll('.stream-checkbox')].map((box) => +box.checked).join('')"""
# Keeps every change that a person could see during a run, and tries to type at every step of it.
TRACE = """
const note = (...values) => window.trace.push(values);
const watch = (id, report) => new MutationObserver(() => report(byId(id)))
  .observe(byId(id), { attributes: true, childList: true });
const inView = (list, item) => item.offsetTop >= list.offsetTop + list.scrollTop &&
  item.offsetTop + item.offsetHeight <= list.offsetTop + list.scrollTop + list.offsetHeight;
if (!window.trace) {
  watch('progressOverlay', (e) =>
    note('overlay', e.style.display, document.activeElement.id, !!byId('streamForm').inert));
  watch('notification', (e) => note('notification', e.style.display, e.className, e.textContent));
  watch('progressStatus', (e) => {
    byId('cloud_username').focus();
    if (byId('device_password')) byId('device_password').value = 'changed';
    note('progress', e.textContent, byId('progressFill').style.width, document.activeElement.id);
  });
  watch('progressDetails', (e) => {
    const last = e.lastElementChild;
    if (last) note('detail', last.className, last.textContent);
    if (last) note('view', inView(e, e.firstElementChild), inView(e, last));
  });
}
window.trace = [];"""
LOGIN, PASSWORD = "user+1 &=%", 'p"ä\\'
DEAD = "rtsp://127.0.0.1:1/dead"


def registered(rig, *urls, options=()):
    """An agent with the form page, whose streams are registered but for the dead."""
    agent = rig.serve(*urls, options=("-l", *options))
    agent.wait_for("-> registered", sum(url != DEAD for url in urls))
    return agent


def fill(browser, **values) -> None:
    for name, value in {"cloud_username": LOGIN, "cloud_password": PASSWORD, **values}.items():
        browser.driver.find_element("id", name).send_keys(value)


def submit(browser) -> None:
    browser.script(TRACE)
    browser.click("#submit-button")


def wait_summary(browser) -> list[list]:
    """The changes until the summary is shown and overlay and notification have gone again."""
    browser.wait("trace.some(e => e[0] === 'notification' && e[1] === 'none') && "
                 "byId('progressOverlay').style.display !== 'flex'", 30)
    return browser.script("return window.trace")


def seen(trace, what) -> list[list]:
    return [entry[1:] for entry in trace if entry[0] == what]


def check_post(post, action, data, *device) -> None:
    head, body = post
    assert head.startswith("POST /addcamera.php HTTP/1.1\r\n")
    assert "\r\ncontent-type: application/x-www-form-urlencoded\r\n" in head.lower()
    compact = json.dumps(data, separators=(",", ":"), ensure_ascii=False)
    assert parse_qsl(body.decode("ascii"), True, True) == [
        ("action", action), ("login", LOGIN), ("password", PASSWORD), *device, ("data", compact)]


def row(first, ids, urls, label, selectable) -> list:
    return ["streams", str(first), f"stream_{first}", selectable, ids,
            "<br>".join(html.escape(url, quote=False) for url in urls),
            f"stream-status status-{label.lower()}", label]


def test_single_streams_and_the_parts_of_the_page(rig, browser):
    """The select-all box; roles; the timer of an earlier notification does not hide a later one."""
    agent = registered(rig, rig.camera.url("/a"), DEAD, *map(rig.camera.url, ("/c", "/d")))
    rig.relay(4, "/d")
    agent.wait_for("-> streaming")
    browser.open("/streams", before=FAST)
    assert browser.script(FIELDS) == FORM[:2]
    for click, boxes in (("page-title", "some 0000"), ("select-all", "all 1010"),
                         ("stream_3", "some 1000"), ("stream_3", "all 1010"),
                         ("stream_2", "all 1010"), ("select-all", "some 0000")):
        browser.click(f"#{click}")
        assert browser.script(BOXES) == boxes, click
    browser.script("enabledBoxes().forEach((box) => { box.disabled = true; });"
                   "dispatchEvent(new Event('load'))")
    assert browser.script(BOXES) == "dead 0000"
    for name, role in (("notification", "alert"), ("progressOverlay", "dialog"),
                       ("progressStatus", "status"), ("progressDetails", "log")):
        browser.script(f"byId('{name}').style.display = 'block'")
        assert browser.driver.find_element("id", name).aria_role == role
    browser.script("""showNotification('a', true);
        setTimeout(() => showNotification('b', true), 3000);
        setTimeout(() => { window.later = byId('notification').style.display; }, 6500);""")
    browser.wait("window.later")
    assert browser.script("return window.later") == "block"


# The Russian one is a browser that does not know what inert is.
@pytest.mark.parametrize("language, cloud_id, before", [
    ("en", CLOUD_IDS[1], ""), ("ru", CLOUD_IDS[2], "delete HTMLElement.prototype.inert")],
    ids=["en", "ru"])
def test_publishing(rig, browser, account, language, cloud_id, before):
    """Hostile values all over; the stream without a partner goes by the one-stream request.

    First nothing is ticked but a disabled box, whose tick some browsers restore; then all are; then
    once more with the first pair refused, which counts as two streams.
    """
    texts = {name: russian if language == "ru" else english
             for name, english, russian in PAGES["publishing"]}
    (rig.directory / "cloud.id").write_text(cloud_id + "\n")
    paths = [*PATHS, "/cam?channel=3&subtype=0", "/dead", PATHS[2]]
    urls = [*map(rig.camera.url, paths[:5]), DEAD, rig.camera.url(paths[6])]
    registered(rig, *urls, options=("-g", "-r"))
    browser.open("/streams", language, before=FAST + before)
    assert browser.script(FIELDS) == FORM
    assert browser.script(ROWS) == [
        *(row(n, f"{n}-{n + 1}", urls[n - 1:n + 1], label, label == "Registered")
          for n, label in ((1, "Registered"), (3, "Registered"), (5, "Offline"))),
        row(7, "7", urls[6:], "Error", True)]
    assert browser.style("td.status-error", "color") == RED
    for box in ("select-all", "stream_1", "stream_7"):
        assert browser.driver.find_element("id", box).accessible_name == texts[box]

    submit(browser)         # without login and password the browser itself refuses
    fill(browser, device_username="ad'min", device_password="se&cret")
    assert browser.script("return window.trace") == []
    browser.script("byId('stream_5').checked = true")
    browser.click("#submit-button")
    failure = ["notification error", texts["none"]]
    assert seen(wait_summary(browser), "notification") == [["block", *failure], ["none", *failure]]
    assert browser.style("#notification", "background-color") == RED

    browser.click("#select-all")
    submit(browser)
    trace = wait_summary(browser)
    assert browser.style("#notification", "background-color") == GREEN
    assert seen(trace, "progress") == [
        [texts["group"].format(1, 3), "33.3333%", "progressOverlay"],
        [texts["group"].format(2, 3), "66.6667%", "progressOverlay"],
        [texts["stream"].format(3, 3), "100%", "progressOverlay"]]
    added = [["progress-item success", texts[f"{what} added"].format(which)]
             for what, which in (("group", "1-2"), ("group", "3-4"), ("stream", 7))]
    assert seen(trace, "detail") == added and seen(trace, "view")[-1] == [False, True]
    summary = ["notification success", texts["all"].format(5)]
    assert seen(trace, "notification") == [["block", *summary], ["none", *summary]]
    assert seen(trace, "overlay") == [["flex", "progressOverlay", True],
                                      ["none", "submit-button", False]]
    assert browser.script("return window.periods") == [5000, 2000, 5000]
    assert browser.script(BOXES) == "some 0010"
    channels = [channel(rig, str(n), path, cloud_id, "ad'min", "se&cret")
                for n, path in enumerate(paths, 1)]
    device = [("login_camera", "ad'min"), ("password_camera", "se&cret")]
    assert len(account.posts) == 3
    check_post(account.posts[0], "addcamera", {"chanels": channels[0:2]}, *device)
    check_post(account.posts[1], "addcamera", {"chanels": channels[2:4]}, *device)
    check_post(account.posts[2], "add", channels[6])
    assert browser.script("return [window.hacked, document.scripts.length]") == [None, 1]

    account.answers = [json.dumps({"status": 0, "message": "нет"})]
    browser.click("#select-all")
    submit(browser)
    trace = wait_summary(browser)
    assert seen(trace, "detail") == [
        ["progress-item error", texts["group refused"].format("1-2")], *added[1:]]
    assert seen(trace, "view")[-1] == [True, False]
    assert seen(trace, "notification")[0] == [
        "block", "notification error", texts["some"].format(3, 5)]
    assert browser.script(BOXES) == "some 1010"


MARKUP = "<img src=x onerror='window.hacked = 1'><b>no</b>"
# The body of an answer -> the message shown; None for any text of the browser's own.
OUTCOMES = (("<p>Service under maintenance</p>", None), ("null", None),
            (json.dumps({"status": 0, "message": MARKUP}), MARKUP),
            (json.dumps({"status": "1", "message": "a text"}), "a text"), ("gone", None))


def test_answers_that_are_no_success(rig, browser, account):
    """The password stays out of the address: where the texts fail the script still sends it, and
    without scripts it goes in a body."""
    registered(rig, rig.camera.url("/1"))
    browser.open("/streams", before=FAST + """Object.defineProperty(HTMLElement.prototype, 'lang',
        { set() { throw new Error('broken'); } });""")
    assert all("broken" in error for error in browser.errors())
    fill(browser)
    browser.click("#stream_1")
    for answer, message in OUTCOMES:
        account.answers = [answer]
        if answer == "gone":
            account.close()
        submit(browser)
        trace = wait_summary(browser)
        (style, text), = seen(trace, "detail")
        assert style == "progress-item error", answer
        assert re.fullmatch("Поток 1: " + (re.escape(message) if message else ".+"), text), answer
        assert seen(trace, "notification")[0] == [
            "block", "notification error", "Добавлено 0/1 потоков. Есть ошибки."]
    assert browser.script("return [window.hacked, document.images.length]") == [None, 0]
    assert len(account.posts) == len(OUTCOMES) - 1
    assert all("ERR_CONNECTION_REFUSED" in error for error in browser.errors())
    browser.script("window.here = 1; document.getElementById('streamForm').submit()")
    browser.wait("!window.here && document.readyState === 'complete'")
    assert browser.driver.current_url == HOME + "/streams"
