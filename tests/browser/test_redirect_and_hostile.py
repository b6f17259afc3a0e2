"""The redirect page: both languages, hostile values in its document, and how this is posted."""

import json
import urllib.request
from urllib.parse import parse_qsl

import pytest

from harness import wait_until
from pages import CLOUD_IDS, HOME, PATHS, channel
from test_languages import BLOCKED, check_page

NO_TIMERS = "window.setTimeout = (run, time) => { window.due = run; window.period = time; };"


# The list is posted by a click, or by itself.
@pytest.mark.parametrize("cloud_id, language, stored, post", zip(
    CLOUD_IDS, ("en", "ru", "ru"), ("localStorage.preferredLanguage = 'en'", "", BLOCKED),
    ("due()", "due()", "document.getElementById('manual-submit').click()")))
def test_the_redirect_page(rig, browser, camera_web, cloud_id, language, stored, post):
    (rig.directory / "cloud.id").write_text(cloud_id + "\n")
    rig.serve(*map(rig.camera.url, PATHS))
    wanted = {"chanels": [channel(rig, n, path, cloud_id) for n, path in enumerate(PATHS, 1)]}
    with urllib.request.urlopen(f"{HOME}/api/channels", timeout=10) as answer:
        assert json.load(answer) == wanted
    browser.open("/streams", before=NO_TIMERS + stored)
    check_page(browser, "+", language)
    assert browser.script("return [period, window.hacked, document.images.length,"
                          "document.scripts.length]") == [1500, None, 0, 1]
    browser.script(post)
    wait_until(lambda: camera_web.posts, what="post")
    head, body = camera_web.posts[0]
    (name, text), = parse_qsl(body.decode("ascii"), True, True)
    assert head.startswith("POST / HTTP/1.1\r\n")
    assert (name, json.loads(text)) == ("data", wanted)
