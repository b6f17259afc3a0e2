"""Fixtures of the tests of the pages: the real agent, looked at through Chromium.

One browser serves a whole run, in the run's network namespace. Every test begins without stored
values and fails when a page of the agent leaves an error in the console.
"""

import os

import pytest

from pages import Account, Browser
from cloudsim.account import self_signed
from harness import network, rig        # noqa: F401

CHROMIUM, DRIVER = "/usr/bin/chromium", "/usr/bin/chromedriver"
FLAGS = ("--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
         "--disable-background-networking", "--disable-component-update", "--disable-sync",
         "--disable-dev-shm-usage", "--ignore-certificate-errors", "--window-size=1200,1000")


@pytest.fixture(scope="session")
def chromium(network, tmp_path_factory):
    missing = [path for path in (CHROMIUM, DRIVER) if not os.path.exists(path)]
    if missing and os.environ.get("REQUIRE_ALL") != "1":
        pytest.skip(f"{missing} not installed")
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    options = webdriver.ChromeOptions()
    options.binary_location = CHROMIUM
    for flag in (*FLAGS, f"--user-data-dir={tmp_path_factory.mktemp('profile')}"):
        options.add_argument(flag)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    driver = webdriver.Chrome(service=Service(DRIVER), options=options)
    driver.set_page_load_timeout(30)
    yield driver
    driver.quit()


@pytest.fixture
def browser(chromium, rig):
    """Uses the rig so that the page is left before the agent goes."""
    browser = Browser(chromium)
    yield browser
    errors = browser.errors()
    chromium.get("about:blank")
    assert not errors, f"console: {errors}"


@pytest.fixture
def account():
    with Account(8112) as account:
        yield account


@pytest.fixture
def camera_web():
    with Account(8443, self_signed("127.0.0.1")) as server:
        yield server
