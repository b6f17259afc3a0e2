"""The redirect page's posting, and values that try to leave their place in any of the pages.

A value stands in four places: the JSON document, that document in the single-quoted form value,
the page parameters in a script, and the table's cells. In each it must arrive as it was.
"""

import json
import urllib.request
from urllib.parse import parse_qsl

import pytest

from pages import CAMERA_WEB, FAST, HOME, channel, serve
from harness import CLOUD_ID, wait_until
from test_add_camera import fill, registered, seen, submit, wait_summary
from test_languages import BLOCKED, check_page

NO_TIMERS = "window.periods = []; window.setTimeout = (_, time) => window.periods.push(time);"

SCRIPT = "</script><script>window.hacked=1</script>"
PATHS = (f"/q\"b\\n's&amp;&a=1<i>x</i>{SCRIPT}<!--<script>{{{{script}}}}${{alert(1)}}%s%n<br>end",
         "/'\"><img src=x onerror=window.hacked=1>\\\\u0022\\",
         "/line\nfeed\tand tab/'+alert(1)+'\n<b>",
         "/\\'</textarea><textarea>Видео&lt;'")
CLOUD_IDS = (CLOUD_ID, "i'd\"x\\</script><script>window.hacked=1//&%s{{a}}",
             "a\\';window.hacked=1//&amp;")


def channels(rig, cloud_id, paths) -> dict:
    return {"chanels": [channel(rig, n, path, cloud_id) for n, path in enumerate(paths, 1)]}


def api() -> dict:
    with urllib.request.urlopen(f"{HOME}/api/channels", timeout=10) as answer:
        return json.load(answer)


def posted_data(post) -> dict:
    head, body = post
    assert head.startswith("POST / HTTP/1.1\r\n")
    (name, text), = parse_qsl(body.decode("ascii"), True, True)
    return {name: json.loads(text)}


def test_the_list_is_posted_by_itself(rig, browser, camera_web):
    serve(rig, rig.camera.url("/a/b?channel=1&subtype=0"))
    browser.open("/streams")
    wait_until(lambda: browser.driver.current_url == CAMERA_WEB, what="camera web interface")
    assert [posted_data(post) for post in camera_web.posts] == [
        {"data": channels(rig, CLOUD_ID, ["/a/b?channel=1&subtype=0"])}]


def test_a_cut_url_leaves_no_torn_character(rig):
    """Two, three and four bytes a character, cut at every one of them."""
    paths = [f"/{'x' * n}{character * 250}" for character in "я€😀" for n in range(4)]
    serve(rig, *(f"rtsp://10.0.0.1:554{path}" for path in paths))
    wanted = [path.encode()[:255 - len("rtsp://10.0.0.1:554")].decode(errors="ignore")
              for path in paths]
    assert [channel["real_chanel"] for channel in api()["chanels"]] == wanted


@pytest.mark.parametrize("cloud_id, language, stored", zip(
    CLOUD_IDS, ("en", "ru", "ru"), ("localStorage.preferredLanguage = 'en'", "", BLOCKED)))
def test_the_redirect_page(rig, browser, camera_web, cloud_id, language, stored):
    """In both languages, with hostile values in the document and in the form."""
    (rig.directory / "cloud.id").write_text(cloud_id + "\n")
    serve(rig, *map(rig.camera.url, PATHS))
    wanted = channels(rig, cloud_id, PATHS)
    browser.open("/streams", before=NO_TIMERS + stored)
    check_page(browser, "+", language)
    assert browser.script("return [periods, window.hacked, document.images.length,"
                          "document.scripts.length]") == [[1500], None, 0, 1]
    assert api() == wanted
    browser.click("#manual-submit")
    wait_until(lambda: camera_web.posts, what="post")
    assert posted_data(camera_web.posts[0]) == {"data": wanted}


@pytest.mark.parametrize("pairs", [False, True])
@pytest.mark.parametrize("cloud_id", CLOUD_IDS[1:])
def test_hostile_values_in_cells_and_parameters(rig, browser, account, cloud_id, pairs):
    (rig.directory / "cloud.id").write_text(cloud_id + "\n")
    registered(rig, *map(rig.camera.url, PATHS), options=["-g"][:pairs])
    browser.open("/streams", "en", before=FAST)
    fill(browser)
    browser.click("#select-all")
    submit(browser)
    assert seen(wait_summary(browser), "notification")[0][1] == "notification success"
    assert browser.script("return [window.hacked, document.scripts.length]") == [None, 1]
    posted = []
    for _, body in account.posts:
        data = json.loads(dict(parse_qsl(body.decode("ascii"), True, True))["data"])
        posted += data.get("chanels", [data])
    assert posted == [channel(rig, str(n), path, cloud_id) for n, path in enumerate(PATHS, 1)]
