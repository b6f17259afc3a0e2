"""What every page says in both languages, element by element; the switch; a phone's layout."""

import re

import pytest

from pages import HOME, serve

BACK = ("← Back to Home", "← Назад")
# Page -> title, texts by element (or all of a class) as English, Russian. "+" stands for /streams
# without the form.
PAGES = {
    "/": ("Home - Navigation", {
        "#page-title": ("Home", "Главная"), ".language-btn.active": ("Eng", "Rus"),
        "#cloud-link": ("Device identificator", "Идентификатор устройства"),
        "#streams-link": ("Add to personal account", "Добавить в личный кабинет"),
        "#stats-link": ("Usage Statistics", "Статистика использования")}),
    "/cloudid": ("Cloud ID", {
        "#header-cloudid": ("Device identificator", "Идентификатор устройства"),
        "#desc-cloudid": ("Use this Cloud ID to add the device in your personal account:",
                          "Используйте этот Cloud ID для добавления устройства в личном кабинете:"),
        "#note-cloudid": ("Note: Keep this ID secure as it provides access to your device.",
                          "Примечание: Не публикуйте и не передавайте Cloud ID третьим лицам."),
        ".info-box > .cloud-id": ("cloud-id_0001", "cloud-id_0001"), "#back-button": BACK}),
    "/stats": ("Usage Statistics", {
        "#header-stats": ("Usage Statistics", "Статистика использования"),
        "#refreshBtn": ("Refresh Statistics", "Обновить значения"), "#back-button": BACK,
        "#autoRefreshText": (" Auto-refresh (5s)", " Авто-обновление (5с)"),
        "#header-info": ("System Information", "Данные системы"),
        "#start-time": ("Start Time", "Начало работы"),
        "#time-uptime": ("Uptime", "Продолжительность"),
        "[data-stream='2']": ("Stream 2", "Поток 2"), ".stat-status": ("Status", "Статус"),
        ".stat-uptime": ("Uptime", "Продолжительность"),
        ".stat-rate": ("Transfer Rate", "Скорость передачи"),
        ".stat-total": ("Total Sent", "Всего передано"),
        ".stat-last": ("Last Activity", "Активность")}),
    "/streams": ("Stream Management", {
        "#page-title": ("Add Device to the Cloud", "Добавление устройства в облако"),
        "#cloud-creds": ("Cloud", "Облако"), "#cloud-login": ("Login", "Логин"),
        "#cloud-pass": ("Password", "Пароль"), "#device-creds": ("Device", "Устройство"),
        "#device-login": ("Login", "Логин"), "#device-pass": ("Password", "Пароль"),
        "#header-video": ("Video", "Видео"), "#th-id": ("ID", "ID"), "#back-button": BACK,
        "#th-url": ("Address", "Адрес"), "#th-status": ("Status", "Состояние"),
        "#submit-button": ("Add selected", "Добавить выбранные"),
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
TOO_NEW = re.compile(r"\?\?|\?\.[\w(\[]|\.at\(|replace(Children|All)|/[a-z]*s[a-z]*\.exec|catch {")


def check_page(browser, page, language):
    title, texts = PAGES[page]
    for selector, (english, russian) in texts.items():
        wanted = english if language == "en" else russian
        assert set(browser.texts(selector)) == {wanted}, selector
    assert browser.script("""return [document.title, document.documentElement.lang,
        document.querySelector('meta[name=viewport]').content,
        document.doctype && document.doctype.name]""") == [
        title, language, "width=device-width, initial-scale=1",
        None if page == "/stats" else "html"]
    assert not TOO_NEW.search(browser.texts("script")[0])


def test_every_page_in_both_languages(rig, browser):
    """Russian without a stored value, or one that is none; after a click on Eng English."""
    serve(rig, rig.camera.url("/{1-2}"), options=("-l", "-r"))
    for before in (BLOCKED, "", "localStorage.preferredLanguage = 'de'"):
        for path in ("/cloudid", "/stats", "/streams", "/"):
            browser.open(path, before=before)
            check_page(browser, path, "ru")
        browser.click(".language-btn:nth-child(2)")
        check_page(browser, "/", "en")
    assert browser.script("return localStorage.preferredLanguage") == "en"
    for name, path in (("streams-link", "/streams"), ("cloud-link", "/cloudid"),
                       ("stats-link", "/stats")):
        browser.click(f"#{name}")
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
    serve(rig, rig.camera.url("/" + "long" * 40), "rtsp://127.0.0.1:1/dead", options=("-l", "-r"))
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
