"""What every page says in both languages, element by element; the switch; the style sheet."""

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


def check_page(browser, page, language):
    title, texts = PAGES[page]
    for selector, (english, russian) in texts.items():
        wanted = english if language == "en" else russian
        assert browser.texts(selector) == (wanted if isinstance(wanted, list) else [wanted])
    assert browser.driver.title == title
    assert browser.script("return [document.querySelector('meta[name=viewport]').content,"
                          " document.doctype && document.doctype.name]") == [
        "width=device-width, initial-scale=1", None if page == "/stats" else "html"]


def test_every_page_in_both_languages(rig, browser):
    """Russian without a stored value; after a click on Eng English everywhere, for good."""
    serve(rig, rig.camera.url("/{1-2}"), options=("-l", "-r"))
    pages = ("/", "/cloudid", "/stats", "/streams")
    for path in pages:
        browser.open(path)
        check_page(browser, path, "ru")
    for language, button in (("en", 2), ("ru", 1), ("en", 2)):
        browser.open("/")
        browser.click(f".language-btn:nth-child({button})")
        check_page(browser, "/", language)
        assert browser.script("return localStorage.preferredLanguage") == language
    for path in pages:
        browser.open(path)
        check_page(browser, path, "en")
        browser.driver.refresh()
        check_page(browser, path, "en")


def test_home_lists_the_pages_and_each_leads_back(rig, browser):
    serve(rig, options=("-l",))
    browser.open("/")
    links = browser.script("return [...document.querySelectorAll('.nav-list > li > a')]"
                           ".map(a => [a.id, a.getAttribute('href')])")
    assert links == [["streams-link", "/streams"], ["cloud-link", "/cloudid"],
                     ["stats-link", "/stats"]]
    for name, path in links:
        browser.click(f"#{name}")
        assert browser.driver.current_url == HOME + path
        browser.click("a.back-link#back-button")
        assert browser.driver.current_url == HOME + "/"


@pytest.mark.parametrize("language", ["en", "ru"])
def test_the_redirect_page_in_both_languages(rig, browser, language):
    serve(rig)
    stays = "window.setTimeout = () => 0"
    browser.open("/streams", language if language == "en" else None, before=stays)
    check_page(browser, "+", language)


GREEN, AMBER, RED, GREY = ("rgb(40, 167, 69)", "rgb(255, 193, 7)", "rgb(220, 53, 69)",
                           "rgb(108, 117, 125)")
SLATE, LIGHT = "rgb(44, 62, 80)", "rgb(248, 249, 250)"

# Classes of an element put into the page's container -> properties as computed.
RULES = {
    "status-streaming": {"color": GREEN}, "stat-value status-streaming": {"color": GREEN},
    "status-connecting": {"color": AMBER}, "stat-value status-connecting": {"color": AMBER},
    "status-error": {"color": RED}, "stat-value status-error": {"color": RED},
    "status-offline": {"color": GREY}, "stat-value status-offline": {"color": GREY},
    "status-registered": {"color": "rgb(51, 51, 51)"},
    "stat-value status-registered": {"color": SLATE},
    "notification": {"display": "none", "position": "fixed", "max-width": "300px"},
    "notification success": {"background-color": GREEN},
    "notification error": {"background-color": RED},
    "progress-overlay": {"display": "none", "position": "fixed", "z-index": "1000",
                         "background-color": "rgba(0, 0, 0, 0.7)"},
    "progress-fill": {"width": "0px", "background-color": SLATE, "transition-duration": "0.3s"},
    "progress-details": {"max-height": "100px", "overflow-y": "auto"},
    "progress-item success": {"background-color": "rgb(212, 237, 218)", "color": "rgb(21, 87, 36)"},
    "progress-item error": {"background-color": "rgb(248, 215, 218)", "color": "rgb(114, 28, 36)"},
    "cloud-id": {"border-left-color": SLATE, "background-color": "rgb(233, 236, 239)"},
    "no-streams": {"text-align": "center", "font-style": "italic", "color": GREY},
    "form-grid": {"display": "grid", "column-gap": "20px"},
    "stats-grid": {"display": "grid", "column-gap": "20px"},
    "submit-btn": {"background-color": SLATE, "color": "rgb(255, 255, 255)"},
    "back-link": {"display": "inline-block", "background-color": LIGHT},
}
COMPUTE = """
return Object.fromEntries(Object.entries(arguments[0]).map(([classes, wanted]) => {
  const element = document.createElement('div');
  element.className = classes;
  document.querySelector('.container').append(element);
  const style = getComputedStyle(element);
  return [classes, Object.fromEntries(
    Object.keys(wanted).map((name) => [name, style.getPropertyValue(name)]))];
}))"""


def test_the_style_sheet(rig, browser):
    serve(rig)
    browser.open("/cloudid")
    assert browser.script(COMPUTE, RULES) == RULES
    for selector, name, value in (("body", "background-color", "rgb(245, 245, 245)"),
                                  (".container", "max-width", "800px"), ("h1", "color", SLATE)):
        assert browser.style(selector, name) == value, (selector, name)
