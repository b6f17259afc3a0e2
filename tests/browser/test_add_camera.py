"""The Add-camera form page: its rows and fields, the select-all box, publishing and its signs."""

import json
from urllib.parse import parse_qsl

import pytest

from pages import serve
from harness import CLOUD_ID
from test_languages import GREEN, RED

ROWS = """return [...document.querySelectorAll('.streams-table > tbody > tr')].map((row) => {
  const box = row.querySelector('td.checkbox-cell > input.stream-checkbox[type=checkbox]');
  const status = row.querySelector('td.stream-status');
  return [box.name, box.value, box.id, !box.disabled, row.querySelector('td.stream-id').textContent,
    row.querySelector('td.stream-url').innerHTML, status.className, status.textContent]; })"""
FIELDS = """return [...document.querySelectorAll('#streamForm .form-row')].map((row) => {
  const input = row.querySelector('input');
  return [row.querySelector('label').htmlFor, input.id, input.name, input.type, input.required]; })
"""
BOXES = """const all = document.getElementById('select-all');
return [[all.checked, !all.disabled],
  [...document.querySelectorAll('.stream-checkbox')].map((box) => box.checked)]"""
# Keeps every change that a person could see while streams are published, with its time in ms.
TRACE = """
const byId = (id) => document.getElementById(id);
const note = (what, ...values) => window.trace.push([what, performance.now(), ...values]);
const watch = (id, options, report) =>
  new MutationObserver(() => report(byId(id))).observe(byId(id), options);
if (!window.trace) {
  watch('progressOverlay', { attributes: true }, (e) => note('overlay', e.style.display));
  watch('notification', { attributes: true }, (e) =>
    note('notification', e.style.display, e.className, e.textContent));
  watch('progressStatus', { childList: true }, (e) =>
    note('progress', e.textContent, byId('progressFill').style.width));
  watch('progressDetails', { childList: true }, (e) => {
    const last = e.lastElementChild;
    if (last) note('detail', last.className, last.textContent);
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


def wait_summary(browser, hidden=False) -> list[list]:
    """The changes until the summary is shown, or has gone again."""
    last = " && trace.at(-1)[0] === 'notification' && trace.at(-1)[2] === 'none'"
    browser.wait("trace.some(e => e[0] === 'notification')" + (last if hidden else ""), 30)
    return browser.script("return window.trace")


def seen(trace, what) -> list[list]:
    return [entry[2:] for entry in trace if entry[0] == what]


def time_of(trace, what, value) -> float:
    return next(entry[1] for entry in trace if (entry[0], entry[2]) == (what, value))


def channel(rig, number, path, login="", password="") -> dict:
    return {"chanel": str(number), "real_chanel": path, "cloud_id": f"{CLOUD_ID}/{number}",
            "camera_login": login, "camera_password": password, "cloud_server": "127.0.0.1",
            "cloud_port": str(rig.cloud.port),
            "cloud_url": f"rtsp://127.0.0.1:{rig.cloud.port}/{CLOUD_ID}/{number}", "status": "1"}


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


def fields(*names) -> list:
    return [[name] * 3 + ["password" if name.endswith("word") else "text",
                          name.startswith("cloud")] for name in names]


def test_rows_and_fields_of_single_streams(rig, browser):
    urls = [rig.camera.url("/a?x=1&y=2"), DEAD, rig.camera.url("/c", "me:pw")]
    agent = registered(rig, *urls)
    rig.relay(3, "/c")
    agent.wait_for("-> streaming")
    browser.open("/streams")
    assert browser.script(ROWS) == [
        row(1, "1", urls[0], "Registered", True), row(2, "2", urls[1], "Offline", False),
        row(3, "3", urls[2], "Streaming", False)]
    assert browser.script(FIELDS) == fields("cloud_username", "cloud_password")


def test_rows_and_fields_of_pairs(rig, browser):
    """Registered, streaming and offline pairs, a last stream without a partner; device fields."""
    urls = [*map(rig.camera.url, ("/1", "/2", "/3", "/4", "/5")), DEAD, rig.camera.url("/7")]
    agent = registered(rig, *urls, options=("-g", "-r"))
    rig.relay(4, "/4")
    agent.wait_for("-> streaming")
    browser.open("/streams")
    assert browser.script(ROWS) == [
        row(1, "1-2", "<br>".join(urls[0:2]), "Registered", True),
        row(3, "3-4", "<br>".join(urls[2:4]), "Streaming", False),
        row(5, "5-6", "<br>".join(urls[4:6]), "Offline", False),
        row(7, "7", urls[6], "Error", True)]
    assert browser.script(FIELDS) == fields("cloud_username", "cloud_password", "device_username",
                                            "device_password")


def test_select_all(rig, browser):
    registered(rig, rig.camera.url("/1"), DEAD, rig.camera.url("/3"))
    browser.open("/streams")
    off, on = [False, True], [True, True]
    for click, boxes in ((None, [off, [False, False, False]]),
                         ("select-all", [on, [True, False, True]]),
                         ("stream_3", [off, [True, False, False]]),
                         ("stream_3", [on, [True, False, True]]),
                         ("stream_2", [on, [True, False, True]]),
                         ("select-all", [off, [False, False, False]]),
                         ("stream_1", [off, [True, False, False]]),
                         ("select-all", [on, [True, False, True]])):
        if click:
            browser.click(f"#{click}")
        assert browser.script(BOXES) == boxes, click
    # None is left to be ticked: as the page loads, and under its feet.
    browser.script("document.querySelectorAll('.stream-checkbox').forEach(b => b.disabled = true);"
                   "document.getElementById('select-all').dispatchEvent(new Event('change'))")
    assert browser.script(BOXES) == [[False, False], [True, False, True]]
    browser.script("document.getElementById('stream_1').dispatchEvent(new Event('change'))")
    assert browser.script(BOXES) == [[False, False], [True, False, True]]
    browser.open("/streams", before="addEventListener('DOMContentLoaded', () => document"
                 ".querySelectorAll('.stream-checkbox').forEach(b => b.disabled = true))")
    assert browser.script(BOXES) == [[False, False], [False] * 3]


PUBLISHED = {
    "en": {"none": "Please select at least one stream",
           "progress": "Processing stream {} of {}", "detail": "Stream {}: Success",
           "group": "Processing stream group {} of {}", "pair": "Streams {}: Success",
           "refused": ("Stream {}: ", "Streams {}: "), "all": "Successfully added {} stream(s)",
           "some": "Added {}/{} streams. Some streams failed."},
    "ru": {"none": "Пожалуйста выберите один или несколько потоков",
           "progress": "Добавление потока {} из {}", "detail": "Поток {}: Добавлен",
           "group": "Добавление группы {} из {}", "pair": "Потоки {}: Успешно",
           "refused": ("Поток {}: ", "Потоки {}: "), "all": "Успешно добавлено потоков: {}",
           "some": "Добавлено {}/{} потоков. Есть ошибки."},
}


@pytest.mark.parametrize("language", PUBLISHED)
def test_publishing_single_streams(rig, browser, account, language):
    """Nothing ticked, then two of three; requests, progress, details, summary and their times."""
    texts = PUBLISHED[language]
    registered(rig, rig.camera.url("/a"), rig.camera.url("/b/c?x=1&y=2"), rig.camera.url("/d"))
    browser.open("/streams", language)
    submit(browser)         # without login and password the browser itself refuses
    fill(browser)
    assert browser.script("return window.trace") == []
    browser.click("#submit-button")
    browser.wait("trace.length > 0")
    assert seen(browser.script("return trace"), "notification") == \
        [["block", "notification error", texts["none"]]]
    assert browser.style("#notification", "background-color") == RED
    assert not account.posts

    browser.click("#stream_1", "#stream_2")
    submit(browser)
    wait_summary(browser)
    assert browser.style("#notification", "background-color") == GREEN
    assert browser.style("#progressOverlay", "display") == "flex"
    trace = wait_summary(browser, hidden=True)
    assert seen(trace, "progress") == [[texts["progress"].format(n, 2), f"{n * 50}%"]
                                       for n in (1, 2)]
    assert seen(trace, "detail") == [["progress-item success", texts["detail"].format(n)]
                                     for n in (1, 2)]
    summary = ["notification success", texts["all"].format(2)]
    assert seen(trace, "notification") == [["block", *summary], ["none", *summary]]
    assert seen(trace, "overlay") == [["flex"], ["none"]]
    shown = time_of(trace, "notification", "block")
    assert time_of(trace, "overlay", "flex") < shown
    assert 1990 <= time_of(trace, "overlay", "none") - shown < 4500
    assert 4990 <= time_of(trace, "notification", "none") - shown < 9000

    assert len(account.posts) == 2
    for post, number, path in zip(account.posts, (1, 2), ("/a", "/b/c?x=1&y=2")):
        check_post(post, "add", channel(rig, number, path))


@pytest.mark.parametrize("language", PUBLISHED)
def test_publishing_pairs(rig, browser, account, language):
    """Recorder addresses with "&"; the stream without a partner goes by the one-stream request.

    Then once more with the first pair refused, which counts as two streams.
    """
    texts = PUBLISHED[language]
    paths = [f"/cam?channel={1 + n // 2}&subtype={n % 2}" for n in range(5)]
    registered(rig, *map(rig.camera.url, paths), options=("-g", "-r"))
    browser.open("/streams", language)
    fill(browser, device_username="ad'min", device_password="se&cret")
    browser.click("#select-all")
    submit(browser)
    trace = wait_summary(browser)
    assert seen(trace, "progress") == [
        [texts["group"].format(1, 3), "33.3333%"], [texts["group"].format(2, 3), "66.6667%"],
        [texts["progress"].format(3, 3), "100%"]]
    details = [["progress-item success", text] for text in (
        texts["pair"].format("1-2"), texts["pair"].format("3-4"), texts["detail"].format(5))]
    assert seen(trace, "detail") == details
    assert seen(trace, "notification") == [
        ["block", "notification success", texts["all"].format(5)]]
    channels = [channel(rig, n, path, "ad'min", "se&cret") for n, path in enumerate(paths, 1)]
    device = [("login_camera", "ad'min"), ("password_camera", "se&cret")]
    assert len(account.posts) == 3
    check_post(account.posts[0], "addcamera", {"chanels": channels[0:2]}, *device)
    check_post(account.posts[1], "addcamera", {"chanels": channels[2:4]}, *device)
    check_post(account.posts[2], "add", channels[4])

    browser.wait("document.getElementById('progressOverlay').style.display === 'none'")
    account.answers = [json.dumps({"status": 0, "message": "нет"})]
    submit(browser)
    trace = wait_summary(browser)
    refused = texts["refused"][1].format("1-2") + "нет"
    assert seen(trace, "detail") == [["progress-item error", refused], *details[1:]]
    assert seen(trace, "notification")[0] == [
        "block", "notification error", texts["some"].format(3, 5)]


MARKUP = "<img src=x onerror='window.hacked = 1'><b>no</b>"
# A fault of the simulator, or the body of an answer -> the message shown; None for any text of the
# browser's own.
OUTCOMES = (("refusal", "Wrong login or password"), ("not-json", None), ("null", None),
            (json.dumps({"status": 0, "message": MARKUP}), MARKUP),
            (json.dumps({"status": "1", "message": "a text"}), "a text"), ("gone", None))


def test_answers_that_are_no_success(rig, browser, account):
    registered(rig, rig.camera.url("/1"))
    browser.open("/streams")
    texts = PUBLISHED["ru"]
    fill(browser)
    browser.click("#stream_1")
    for answer, message in OUTCOMES:
        account.fault = answer
        account.answers = [answer] if answer[0] in "{" or answer == "null" else []
        if answer == "gone":
            account.close()
        submit(browser)
        trace = wait_summary(browser)
        (style, text), = seen(trace, "detail")
        shown = text.removeprefix(texts["refused"][0].format(1))
        assert style == "progress-item error" and shown != text
        assert shown == message if message is not None else shown, answer
        assert not browser.script("return document.querySelectorAll('.progress-item *').length")
        assert seen(trace, "notification")[0] == [
            "block", "notification error", texts["some"].format(0, 1)]
        browser.wait("document.getElementById('progressOverlay').style.display === 'none'")
    assert browser.script("return window.hacked") is None
    assert len(account.posts) == len(OUTCOMES) - 1
    assert all("ERR_CONNECTION_REFUSED" in error for error in browser.errors())
