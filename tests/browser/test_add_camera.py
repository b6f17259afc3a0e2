"""The Add-camera form page: its rows and fields, the select-all box, publishing and its signs."""

import json
import re
from urllib.parse import parse_qsl

import pytest

from pages import FAST, HOME, channel, serve
from test_languages import GREEN, RED

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
  watch('notification', (e) =>
    note('notification', e.style.display, e.className, e.textContent));
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
    agent = serve(rig, *urls, options=("-l", *options))
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
    return ["streams", str(first), f"stream_{first}", selectable, ids, urls.replace("&", "&amp;"),
            f"stream-status status-{label.lower()}", label]


def test_single_streams_and_select_all(rig, browser):
    urls = [rig.camera.url("/a?x=1&y=2"), DEAD, rig.camera.url("/c"), rig.camera.url("/d", "me:pw")]
    agent = registered(rig, *urls)
    rig.relay(4, "/d")
    agent.wait_for("-> streaming")
    browser.open("/streams")
    assert browser.script(ROWS) == [
        row(1, "1", urls[0], "Registered", True), row(2, "2", urls[1], "Offline", False),
        row(3, "3", urls[2], "Registered", True), row(4, "4", urls[3], "Streaming", False)]
    assert browser.script(FIELDS) == FORM[:2]
    for click, boxes in (("page-title", "some 0000"), ("select-all", "all 1010"),
                         ("stream_3", "some 1000"), ("stream_3", "all 1010"),
                         ("stream_2", "all 1010"), ("select-all", "some 0000")):
        browser.click(f"#{click}")
        assert browser.script(BOXES) == boxes, click


PUBLISHED = {
    "en": {"none": "Please select at least one stream", "names": ["All streams", "Stream 2"],
           "progress": "Processing stream {} of {}", "detail": "Stream {}: Success",
           "group": "Processing stream group {} of {}", "pair": "Streams {}: Success",
           "refused": "Streams {}: нет", "all": "Successfully added {} stream(s)",
           "some": "Added {}/{} streams. Some streams failed."},
    "ru": {"none": "Пожалуйста выберите один или несколько потоков",
           "progress": "Добавление потока {} из {}", "detail": "Поток {}: Добавлен",
           "group": "Добавление группы {} из {}", "pair": "Потоки {}: Успешно",
           "refused": "Потоки {}: нет", "all": "Успешно добавлено потоков: {}",
           "some": "Добавлено {}/{} потоков. Есть ошибки.", "names": ["Все потоки", "Поток 2"]},
}


@pytest.mark.parametrize("language", PUBLISHED)
def test_publishing_single_streams(rig, browser, account, language):
    """Nothing ticked, then two and a disabled box, whose tick some browsers restore."""
    texts = PUBLISHED[language]
    registered(rig, rig.camera.url("/a"), rig.camera.url("/b/c?x=1&y=2"), DEAD)
    browser.open("/streams", language, before=FAST)
    assert texts["names"] == [browser.driver.find_element("id", box).accessible_name
                              for box in ("select-all", "stream_2")]
    submit(browser)         # without login and password the browser itself refuses
    fill(browser)
    assert browser.script("return window.trace") == []
    browser.script("byId('stream_3').checked = true")
    browser.click("#submit-button")
    failure = ["notification error", texts["none"]]
    assert seen(wait_summary(browser), "notification") == [["block", *failure], ["none", *failure]]
    assert browser.style("#notification", "background-color") == RED

    browser.click("#stream_1", "#stream_2")
    submit(browser)
    trace = wait_summary(browser)
    assert browser.style("#notification", "background-color") == GREEN
    assert seen(trace, "progress") == [[texts["progress"].format(n, 2), f"{n * 50}%",
                                        "progressOverlay"] for n in (1, 2)]
    assert [line[1] for line in seen(trace, "detail")] == [texts["detail"].format(n) for n in "12"]
    summary = ["notification success", texts["all"].format(2)]
    assert seen(trace, "notification") == [["block", *summary], ["none", *summary]]
    assert seen(trace, "overlay") == [["flex", "progressOverlay", True],
                                      ["none", "submit-button", False]]
    assert browser.script("return window.periods") == [5000, 2000, 5000]
    assert browser.script(BOXES) == "some 001"

    assert len(account.posts) == 2
    for post, number, path in zip(account.posts, (1, 2), ("/a", "/b/c?x=1&y=2")):
        check_post(post, "add", channel(rig, str(number), path))


@pytest.mark.parametrize("language", PUBLISHED)
def test_publishing_pairs(rig, browser, account, language):
    """Recorder addresses with "&"; the stream without a partner goes by the one-stream request.

    Then once more with the first pair refused, which counts as two streams. All this in a browser
    that does not know what inert is.
    """
    texts = PUBLISHED[language]
    paths = [f"/cam?channel={1 + n // 2}&subtype={n % 2}" for n in range(7)]
    urls = [*map(rig.camera.url, paths[:5]), DEAD, rig.camera.url(paths[6])]
    registered(rig, *urls, options=("-g", "-r"))
    browser.open("/streams", language, before=FAST + "delete HTMLElement.prototype.inert")
    assert browser.script(FIELDS) == FORM
    assert browser.script(ROWS) == [
        *(row(n, f"{n}-{n + 1}", "<br>".join(urls[n - 1:n + 1]), label, label == "Registered")
          for n, label in ((1, "Registered"), (3, "Registered"), (5, "Offline"))),
        row(7, "7", urls[6], "Error", True)]
    assert browser.style("td.status-error", "color") == RED

    fill(browser, device_username="ad'min", device_password="se&cret")
    browser.click("#select-all")
    submit(browser)
    trace = wait_summary(browser)
    assert seen(trace, "progress") == [
        [texts["group"].format(1, 3), "33.3333%", "progressOverlay"],
        [texts["group"].format(2, 3), "66.6667%", "progressOverlay"],
        [texts["progress"].format(3, 3), "100%", "progressOverlay"]]
    added = [["progress-item success", text] for text in (
        texts["pair"].format("1-2"), texts["pair"].format("3-4"), texts["detail"].format(7))]
    assert seen(trace, "detail") == added and seen(trace, "view")[-1] == [False, True]
    assert seen(trace, "notification")[0] == [
        "block", "notification success", texts["all"].format(5)]
    channels = [channel(rig, str(n), path, login="ad'min", password="se&cret")
                for n, path in enumerate(paths, 1)]
    device = [("login_camera", "ad'min"), ("password_camera", "se&cret")]
    assert len(account.posts) == 3
    check_post(account.posts[0], "addcamera", {"chanels": channels[0:2]}, *device)
    check_post(account.posts[1], "addcamera", {"chanels": channels[2:4]}, *device)
    check_post(account.posts[2], "add", channels[6])

    account.answers = [json.dumps({"status": 0, "message": "нет"})]
    browser.click("#select-all")
    submit(browser)
    trace = wait_summary(browser)
    assert seen(trace, "detail") == [
        ["progress-item error", texts["refused"].format("1-2")], *added[1:]]
    assert seen(trace, "view")[-1] == [True, False]
    assert seen(trace, "notification")[0] == [
        "block", "notification error", texts["some"].format(3, 5)]
    assert browser.script(BOXES) == "some 1000"


def test_roles_and_timers(rig, browser):
    """The timer of an earlier notification does not hide a later one."""
    serve(rig, DEAD, options=["-l"])
    browser.open("/streams", before=FAST)
    assert browser.script(BOXES) == "dead 0"
    for name, role in (("notification", "alert"), ("progressOverlay", "dialog"),
                       ("progressStatus", "status"), ("progressDetails", "log")):
        browser.script(f"byId('{name}').style.display = 'block'")
        assert browser.driver.find_element("id", name).aria_role == role
    browser.script("""showNotification('a', true);
        setTimeout(() => showNotification('b', true), 3000);
        setTimeout(() => { window.later = byId('notification').style.display; }, 6500);""")
    browser.wait("window.later")
    assert browser.script("return window.later") == "block"


def test_the_password_stays_out_of_the_address(rig, browser, account):
    """Where the texts fail the script still sends it; without scripts it goes in a body."""
    registered(rig, rig.camera.url("/1"))
    browser.open("/streams", before=FAST + """Object.defineProperty(HTMLElement.prototype, 'lang',
        { set() { throw new Error('broken'); } });""")
    assert all("broken" in error for error in browser.errors())
    fill(browser)
    browser.click("#stream_1")
    submit(browser)
    wait_summary(browser)
    assert len(account.posts) == 1
    browser.script("window.here = 1; document.getElementById('streamForm').submit()")
    browser.wait("!window.here && document.readyState === 'complete'")
    assert browser.driver.current_url == HOME + "/streams"


MARKUP = "<img src=x onerror='window.hacked = 1'><b>no</b>"
# The body of an answer -> the message shown; None for any text of the browser's own.
OUTCOMES = (("<p>Service under maintenance</p>", None), ("null", None),
            (json.dumps({"status": 0, "message": MARKUP}), MARKUP),
            (json.dumps({"status": "1", "message": "a text"}), "a text"), ("gone", None))


def test_answers_that_are_no_success(rig, browser, account):
    registered(rig, rig.camera.url("/1"))
    browser.open("/streams", before=FAST)
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
            "block", "notification error", PUBLISHED["ru"]["some"].format(0, 1)]
    assert browser.script("return [window.hacked, document.images.length]") == [None, 0]
    assert len(account.posts) == len(OUTCOMES) - 1
    assert all("ERR_CONNECTION_REFUSED" in error for error in browser.errors())
