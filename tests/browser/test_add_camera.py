"""The Add-camera form page: its rows and fields, the select-all box, publishing and its signs."""

import json
from urllib.parse import parse_qsl

import pytest

from pages import FAST, HOME, serve
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
# Keeps every change that a person could see while streams are published, and tries at every step
# to type elsewhere.
TRACE = """
const note = (...values) => window.trace.push(values);
const watch = (id, options, report) =>
  new MutationObserver(() => report(byId(id))).observe(byId(id), options);
const inView = (list, item) => item.offsetTop >= list.offsetTop + list.scrollTop &&
  item.offsetTop + item.offsetHeight <= list.offsetTop + list.scrollTop + list.offsetHeight;
if (!window.trace) {
  watch('progressOverlay', { attributes: true }, (e) =>
    note('overlay', e.style.display, document.activeElement.id, !!byId('streamForm').inert));
  watch('notification', { attributes: true }, (e) =>
    note('notification', e.style.display, e.className, e.textContent));
  watch('progressStatus', { childList: true }, (e) => {
    byId('cloud_username').focus();
    if (byId('device_password')) byId('device_password').value = 'changed';
    note('progress', e.textContent, byId('progressFill').style.width, document.activeElement.id);
  });
  watch('progressDetails', { childList: true }, (e) => {
    const last = e.lastElementChild;
    if (last) note('detail', last.className, last.textContent,
      inView(e, e.firstElementChild), inView(e, last));
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


def details(*lines, last_views=((True, True),)) -> list[list]:
    """Entries of the trace; the views of first and last line in the list, of its latest states."""
    views = [(True, True)] * (len(lines) - len(last_views)) + list(last_views)
    return [["progress-item " + style, text, *view] for (style, text), view in zip(lines, views)]


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
    "en": {"none": "Please select at least one stream", "names": ["All streams", "Stream {}"],
           "progress": "Processing stream {} of {}", "detail": "Stream {}: Success",
           "group": "Processing stream group {} of {}", "pair": "Streams {}: Success",
           "refused": "Streams {}: нет", "all": "Successfully added {} stream(s)",
           "some": "Added {}/{} streams. Some streams failed."},
    "ru": {"none": "Пожалуйста выберите один или несколько потоков",
           "names": ["Все потоки", "Поток {}"],
           "progress": "Добавление потока {} из {}", "detail": "Поток {}: Добавлен",
           "group": "Добавление группы {} из {}", "pair": "Потоки {}: Успешно",
           "refused": "Потоки {}: нет", "all": "Успешно добавлено потоков: {}",
           "some": "Добавлено {}/{} потоков. Есть ошибки."},
}


@pytest.mark.parametrize("language", PUBLISHED)
def test_publishing_single_streams(rig, browser, account, language):
    """Nothing ticked, then two and a disabled box, whose tick some browsers restore."""
    texts = PUBLISHED[language]
    registered(rig, rig.camera.url("/a"), rig.camera.url("/b/c?x=1&y=2"), DEAD)
    browser.open("/streams", language, before=FAST)
    names = [box.accessible_name for box in browser.driver.find_elements("css selector",
                                                                         "[type=checkbox]")]
    assert names == [texts["names"][0], *(texts["names"][1].format(n) for n in (1, 2, 3))]
    submit(browser)         # without login and password the browser itself refuses
    fill(browser)
    assert browser.script("return window.trace") == []
    browser.script("byId('stream_3').checked = true")
    browser.click("#submit-button")
    failure = ["notification error", texts["none"]]
    assert seen(wait_summary(browser), "notification") == [["block", *failure], ["none", *failure]]
    assert browser.style("#notification", "background-color") == RED
    assert not account.posts

    browser.click("#stream_1", "#stream_2")
    submit(browser)
    trace = wait_summary(browser)
    assert browser.style("#notification", "background-color") == GREEN
    assert seen(trace, "progress") == [[texts["progress"].format(n, 2), f"{n * 50}%",
                                        "progressOverlay"] for n in (1, 2)]
    assert seen(trace, "detail") == details(*(("success", texts["detail"].format(n))
                                              for n in (1, 2)))
    summary = ["notification success", texts["all"].format(2)]
    assert seen(trace, "notification") == [["block", *summary], ["none", *summary]]
    assert seen(trace, "overlay") == [["flex", "progressOverlay", True],
                                      ["none", "submit-button", False]]
    assert browser.script("return window.periods") == [5000, 2000, 5000]
    assert browser.script(BOXES) == [[False, True], [False, False, True]]

    assert len(account.posts) == 2
    for post, number, path in zip(account.posts, (1, 2), ("/a", "/b/c?x=1&y=2")):
        check_post(post, "add", channel(rig, number, path))


@pytest.mark.parametrize("language", PUBLISHED)
def test_publishing_pairs(rig, browser, account, language):
    """Recorder addresses with "&"; the stream without a partner goes by the one-stream request.

    Then once more with the first pair refused, which counts as two streams. All this in a browser
    that does not know what inert is.
    """
    texts = PUBLISHED[language]
    paths = [f"/cam?channel={1 + n // 2}&subtype={n % 2}" for n in range(5)]
    registered(rig, *map(rig.camera.url, paths), options=("-g", "-r"))
    browser.open("/streams", language, before=FAST + "delete HTMLElement.prototype.inert")
    fill(browser, device_username="ad'min", device_password="se&cret")
    browser.click("#select-all")
    submit(browser)
    trace = wait_summary(browser)
    assert seen(trace, "progress") == [
        [texts["group"].format(1, 3), "33.3333%", "progressOverlay"],
        [texts["group"].format(2, 3), "66.6667%", "progressOverlay"],
        [texts["progress"].format(3, 3), "100%", "progressOverlay"]]
    added = [("success", text) for text in (
        texts["pair"].format("1-2"), texts["pair"].format("3-4"), texts["detail"].format(5))]
    assert seen(trace, "detail") == details(*added, last_views=[(False, True)])
    assert seen(trace, "notification")[0] == [
        "block", "notification success", texts["all"].format(5)]
    channels = [channel(rig, n, path, "ad'min", "se&cret") for n, path in enumerate(paths, 1)]
    device = [("login_camera", "ad'min"), ("password_camera", "se&cret")]
    assert len(account.posts) == 3
    check_post(account.posts[0], "addcamera", {"chanels": channels[0:2]}, *device)
    check_post(account.posts[1], "addcamera", {"chanels": channels[2:4]}, *device)
    check_post(account.posts[2], "add", channels[4])

    account.answers = [json.dumps({"status": 0, "message": "нет"})]
    browser.click("#select-all")
    submit(browser)
    trace = wait_summary(browser)
    refused = ("error", texts["refused"].format("1-2"))
    assert seen(trace, "detail") == details(refused, *added[1:], last_views=[(True, False)])
    assert seen(trace, "notification")[0] == [
        "block", "notification error", texts["some"].format(3, 5)]
    assert browser.script(BOXES) == [[False, True], [True, False, False]]


def test_notifications_and_roles(rig, browser):
    """The timer of an earlier notification does not hide a later one."""
    serve(rig, options=["-l"])
    browser.open("/streams", before=FAST)
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
# A fault of the simulator, or the body of an answer -> the message shown; None for any text of the
# browser's own.
OUTCOMES = (("refusal", "Wrong login or password"), ("not-json", None), ("null", None),
            (json.dumps({"status": 0, "message": MARKUP}), MARKUP),
            (json.dumps({"status": "1", "message": "a text"}), "a text"), ("gone", None))


def test_answers_that_are_no_success(rig, browser, account):
    registered(rig, rig.camera.url("/1"))
    browser.open("/streams", before=FAST)
    fill(browser)
    browser.click("#stream_1")
    for answer, message in OUTCOMES:
        account.fault = answer
        account.answers = [answer] if answer[0] in "{" or answer == "null" else []
        if answer == "gone":
            account.close()
        submit(browser)
        trace = wait_summary(browser)
        (style, text, *_), = seen(trace, "detail")
        shown = text.removeprefix("Поток 1: ")
        assert style == "progress-item error" and shown and shown != text, answer
        assert message is None or shown == message, answer
        assert not browser.script("return document.querySelectorAll('.progress-item *').length")
        assert seen(trace, "notification")[0] == [
            "block", "notification error", PUBLISHED["ru"]["some"].format(0, 1)]
    assert browser.script("return window.hacked") is None
    assert len(account.posts) == len(OUTCOMES) - 1
    assert all("ERR_CONNECTION_REFUSED" in error for error in browser.errors())
