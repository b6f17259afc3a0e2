"""The redirect page's posting, and values that try to leave their place in any of the pages.

A value stands in four places: the JSON document, that document in the single-quoted form value,
the page parameters in a script, and the table's cells. In each it must arrive as it was.
"""

import json
import time
import urllib.request
from urllib.parse import parse_qs

import pytest

from pages import CAMERA_WEB, FAST, HOME, serve
from harness import CLOUD_ID, wait_until
from test_add_camera import fill, registered, seen, submit, wait_summary

# Keeps the times asked for; nothing is ever run by them.
NO_TIMERS = "window.periods = []; window.setTimeout = (_, time) => window.periods.push(time);"

SCRIPT = "</script><script>window.hacked=1</script>"
PATHS = (f"/q\"b\\n's&amp;&a=1<i>x</i>{SCRIPT}<!--<script>{{{{script}}}}${{alert(1)}}%s%n<br>end",
         "/'\"><img src=x onerror=window.hacked=1>\\\\u0022\\",
         "/line\nfeed\tand tab/'+alert(1)+'\n<b>",
         "/\\'</textarea><textarea>Видео&lt;'")
CLOUD_IDS = (CLOUD_ID, "i'd\"x\\</script><script>window.hacked=1//&%s{{a}}",
             "a\\';window.hacked=1//&amp;")


def channels(rig, cloud_id, paths) -> dict:
    port = str(rig.cloud.port)
    return {"chanels": [
        {"chanel": n, "real_chanel": path, "cloud_id": f"{cloud_id}/{n}", "camera_login": "",
         "camera_password": "", "cloud_server": "127.0.0.1", "cloud_port": port,
         "cloud_url": f"rtsp://127.0.0.1:{port}/{cloud_id}/{n}", "status": "1"}
        for n, path in enumerate(paths, 1)]}


def api() -> str:
    with urllib.request.urlopen(f"{HOME}/api/channels", timeout=10) as answer:
        return answer.read().decode()


def posted_data(post) -> dict:
    head, body = post
    assert head.startswith("POST / HTTP/1.1\r\n")
    fields = parse_qs(body.decode("ascii"), True, True)
    assert list(fields) == ["data"]
    return json.loads(fields["data"][0])


def test_the_list_is_posted_by_itself(rig, browser, camera_web):
    paths = ["/a/b?channel=1&subtype=0", "/c"]
    serve(rig, *map(rig.camera.url, paths))
    began = time.monotonic()
    browser.open("/streams")
    wait_until(lambda: camera_web.posts, what="post")
    assert time.monotonic() - began > 1.4
    assert posted_data(camera_web.posts[0]) == channels(rig, CLOUD_ID, paths)
    wait_until(lambda: browser.driver.current_url == CAMERA_WEB, what="camera web interface")
    browser.wait("document.querySelector('h1').textContent === 'Camera web interface'")
    assert len(camera_web.posts) == 1


def test_a_cut_url_leaves_no_torn_character(rig):
    """Two, three and four bytes a character, cut at every one of them."""
    paths = [f"/{'x' * n}{character * 250}" for character in "я€😀" for n in range(4)]
    serve(rig, *(f"rtsp://10.0.0.1:554{path}" for path in paths))
    wanted = [path.encode()[:255 - len("rtsp://10.0.0.1:554")].decode(errors="ignore")
              for path in paths]
    assert [channel["real_chanel"] for channel in json.loads(api())["chanels"]] == wanted


@pytest.mark.parametrize("cloud_id", CLOUD_IDS)
def test_hostile_values_in_the_document_and_in_the_form(rig, browser, camera_web, cloud_id):
    (rig.directory / "cloud.id").write_text(cloud_id + "\n")
    serve(rig, *map(rig.camera.url, PATHS))
    wanted = channels(rig, cloud_id, PATHS)
    browser.open("/streams", before=NO_TIMERS)
    assert browser.script("return window.periods") == [1500]
    text = api()
    assert json.loads(text) == wanted
    value = browser.script("return document.querySelector('#redirectForm > input').value")
    assert value == text
    assert browser.script("return window.hacked") is None
    assert browser.script("return [document.images.length, document.scripts.length]") == [0, 1]
    browser.click("#manual-submit")
    wait_until(lambda: camera_web.posts, what="post")
    assert posted_data(camera_web.posts[0]) == wanted


@pytest.mark.parametrize("pairs", [False, True])
@pytest.mark.parametrize("cloud_id", CLOUD_IDS[1:])
def test_hostile_values_in_cells_and_parameters(rig, browser, account, cloud_id, pairs):
    (rig.directory / "cloud.id").write_text(cloud_id + "\n")
    urls = [rig.camera.url(path) for path in PATHS]
    registered(rig, *urls, options=["-g"][:pairs])
    browser.open("/streams", "en", before=FAST)
    assert browser.script("return document.scripts.length") == 1
    shown = browser.script("return [...document.querySelectorAll('.stream-url')].map(cell =>"
                           "[...cell.childNodes].map(n => n.textContent || n.nodeName))")
    assert shown == ([[urls[0], "BR", urls[1]], [urls[2], "BR", urls[3]]] if pairs
                     else [[url] for url in urls])
    assert browser.script("return params.cloud_id") == cloud_id
    fill(browser)
    browser.click("#select-all")
    submit(browser)
    trace = wait_summary(browser)
    assert seen(trace, "notification")[0][1] == "notification success", trace
    assert browser.script("return window.hacked") is None
    posted = []
    for _, body in account.posts:
        data = json.loads(parse_qs(body.decode("ascii"), True, True)["data"][0])
        posted += data.get("chanels", [data])
    assert [channel["cloud_id"] for channel in posted] == [f"{cloud_id}/{n}" for n in (1, 2, 3, 4)]
    assert posted[0]["cloud_url"] == f"rtsp://127.0.0.1:{rig.cloud.port}/{cloud_id}/1"
    assert [channel["real_chanel"] for channel in posted] == list(PATHS)
