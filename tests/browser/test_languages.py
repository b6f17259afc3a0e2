"""What every page says in both languages, element by element; the switch; a phone's layout."""

import re

import pytest

from pages import HOME, serve

BACK = ("← Back to Home", "← Назад")
# Page -> title, texts by element id (or class) as English, Russian. "+" stands for /streams
# without the form.
PAGES = {
    "/": ("Home - Navigation", {
        "#page-title": ("Home", "Главная"),
        "#cloud-link": ("Device identificator", "Идентификатор устройства"),
        "#streams-link": ("Add to personal account", "Добавить в личный кабинет"),
        "#stats-link": ("Usage Statistics", "Статистика использования"),
        ".language-btn": (["Rus", "Eng"], ["Rus", "Eng"]),
        ".language-btn.active": ("Eng", "Rus")}),
    "/cloudid": ("Cloud ID", {
        "#header-cloudid": ("Device identificator", "Идентификатор устройства"),
        "#desc-cloudid": ("Use this Cloud ID to add the device in your personal account:",
                          "Используйте этот Cloud ID для добавления устройства в личном кабинете:"),
        "#note-cloudid": ("Note: Keep this ID secure as it provides access to your device.",
                          "Примечание: Не публикуйте и не передавайте Cloud ID третьим лицам."),
        ".info-box > .cloud-id": ("cloud-id_0001", "cloud-id_0001"), "#back-button": BACK}),
    "/stats": ("Usage Statistics", {
        "#header-stats": ("Usage Statistics", "Статистика использования"),
        "#refreshBtn": ("Refresh Statistics", "Обновить значения"),
        "#autoRefreshText": (" Auto-refresh (5s)", " Авто-обновление (5с)"),
        "#header-info": ("System Information", "Данные системы"),
        "#start-time": ("Start Time", "Начало работы"),
        "#time-uptime": ("Uptime", "Продолжительность"),
        ".header-stream": (["Stream 1", "Stream 2"], ["Поток 1", "Поток 2"]),
        ".stat-label.stat-status": (["Status"] * 2, ["Статус"] * 2),
        ".stat-label.stat-uptime": (["Uptime"] * 2, ["Продолжительность"] * 2),
        ".stat-label.stat-rate": (["Transfer Rate"] * 2, ["Скорость передачи"] * 2),
        ".stat-label.stat-total": (["Total Sent"] * 2, ["Всего передано"] * 2),
        ".stat-label.stat-last": (["Last Activity"] * 2, ["Активность"] * 2),
        "#back-button": BACK}),
    "/streams": ("Stream Management", {
        "#page-title": ("Add Device to the Cloud", "Добавление устройства в облако"),
        "#cloud-creds": ("Cloud", "Облако"), "#cloud-login": ("Login", "Логин"),
        "#cloud-pass": ("Password", "Пароль"), "#device-creds": ("Device", "Устройство"),
        "#device-login": ("Login", "Логин"), "#device-pass": ("Password", "Пароль"),
        "#header-video": ("Video", "Видео"), "#th-id": ("ID", "ID"),
        "#th-url": ("Address", "Адрес"), "#th-status": ("Status", "Состояние"),
        "#submit-button": ("Add selected", "Добавить выбранные"), "#back-button": BACK,
        "#publishingStreams": ("Publishing Streams", "Добавляем на сервер"),
        "#progressStatus": ("Stream 0 of 0", "Поток 0 of 0")}),
    "+": ("Redirecting to Camera Interface", {
        "#redirect-message": ("Redirecting to camera interface...",
                              "Перенаправление в интерфейс камеры..."),
        "#manual-redirect-text": (
            "If you are not redirected automatically, please click the button below:",
            "Если вы не были перенаправлены автоматически, нажмите кнопку ниже:"),
        "#manual-submit": ("Continue to Camera Interface", "Перейти в интерфейс камеры")}),
}


BLOCKED = """Object.defineProperty(window, 'localStorage', {
  get() { throw new DOMException('blocked', 'SecurityError'); }});"""
# Syntax and calls of browsers younger than async functions: one of them would end a whole script.
TOO_NEW = re.compile(r"\?\?|\?\.[\w(\[]|\.at\(|replaceChildren|replaceAll|/[a-z]*s[a-z]*\.exec|catch \{")


def check_page(browser, page, language):
    title, texts = PAGES[page]
    for selector, (english, russian) in texts.items():
        wanted = english if language == "en" else russian
        assert browser.texts(selector) == (wanted if isinstance(wanted, list) else [wanted])
    assert browser.script("""return [document.title, document.documentElement.lang,
        document.querySelector('meta[name=viewport]').content,
        document.doctype && document.doctype.name]""") == [
        title, language, "width=device-width, initial-scale=1", None if page == "/stats" else "html"]
    assert not TOO_NEW.search(browser.texts("script")[0])


def test_every_page_in_both_languages(rig, browser):
    """Russian without a stored value; after a click on Eng English everywhere, for good."""
    serve(rig, rig.camera.url("/{1-2}"), options=("-l", "-r"))
    for path in ("/cloudid", "/stats", "/streams", "/"):
        browser.open(path)
        check_page(browser, path, "ru")
    for button, language in ((1, "ru"), (2, "en")):
        browser.click(f".language-btn:nth-child({button})")
        check_page(browser, "/", language)
        assert browser.script("return localStorage.preferredLanguage") == language
    links = browser.script("return [...document.querySelectorAll('.nav-list > li > a')]"
                           ".map(a => [a.id, a.getAttribute('href')])")
    assert links == [["streams-link", "/streams"], ["cloud-link", "/cloudid"],
                     ["stats-link", "/stats"]]
    for name, path in links:
        browser.click(f"#{name}")
        assert browser.driver.current_url == HOME + path
        check_page(browser, path, "en")
        browser.driver.refresh()
        check_page(browser, path, "en")
        browser.click("a.back-link#back-button")
        check_page(browser, "/", "en")


@pytest.mark.parametrize("before", ["localStorage.preferredLanguage = 'de'", BLOCKED])
def test_a_stored_language_that_is_none(rig, browser, before):
    """Russian everywhere, and the home page's switch works for as long as the page."""
    serve(rig, rig.camera.url("/{1-2}"), options=("-l", "-r"))
    for path in ("/cloudid", "/stats", "/streams", "/"):
        browser.open(path, before=before)
        check_page(browser, path, "ru")
    browser.click(".language-btn:nth-child(2)")
    check_page(browser, "/", "en")


@pytest.mark.parametrize("before, language", [
    ("localStorage.preferredLanguage = 'en'", "en"), ("", "ru"), (BLOCKED, "ru")])
def test_the_redirect_page(rig, browser, before, language):
    serve(rig)
    browser.open("/streams", before="window.setTimeout = () => 0;" + before)
    check_page(browser, "+", language)


# The elements of whose contents something, text included, lies outside of the page's white frame.
OUTSIDE = """const frame = document.querySelector('.container').getBoundingClientRect();
const range = document.createRange();
return [...document.querySelectorAll('.container *')].filter((element) => {
  range.selectNodeContents(element);
  return [...range.getClientRects()].some((r) => r.left < frame.left || r.right > frame.right);
}).map((element) => element.outerHTML)"""
# Per row: whether box, ID and status follow each other in one line, the address below, in full width.
ROWS = """return [...document.querySelectorAll('.streams-table tr')].map((row) => {
  const [box, id, url, status] = [...row.children].map((cell) => cell.getBoundingClientRect());
  const all = row.getBoundingClientRect();
  return box.right <= id.left && id.right <= status.left && id.top === box.top &&
    id.top === status.top && url.top >= id.bottom && url.width === all.width; })"""


@pytest.mark.parametrize("width, text", [(320, 100), (375, 100), (320, 130)])
def test_a_phone(rig, browser, width, text):
    """Nothing scrolls sideways or sticks out; the stream table's rows are small grids."""
    serve(rig, rig.camera.url("/" + "long" * 40), "rtsp://127.0.0.1:1/dead", options=("-l", "-r"))
    browser.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
        "width": width, "height": 700, "deviceScaleFactor": 1, "mobile": True})
    for path in ("/", "/cloudid", "/stats", "/streams"):
        browser.open(path)
        browser.script(f"document.documentElement.style.fontSize = '{text}%'")
        assert browser.script("return document.documentElement.scrollWidth") == width, path
        assert browser.script(OUTSIDE) == [], path
        assert browser.style("h1", "font-size") == f"{24 * text / 100:g}px"
    assert browser.script(ROWS) == [True] * 3
    assert browser.style(".stream-checkbox", "width") == "20px"
    left, right = browser.script("showNotification('x'.repeat(99), true); const r = document"
                                 ".getElementById('notification').getBoundingClientRect();"
                                 "return [r.left, r.right]")
    assert 0 <= left < right <= width


GREEN, AMBER, RED, GREY = ("rgb(40, 167, 69)", "rgb(255, 193, 7)", "rgb(220, 53, 69)",
                           "rgb(108, 117, 125)")
SLATE, LIGHT = "rgb(44, 62, 80)", "rgb(248, 249, 250)"
