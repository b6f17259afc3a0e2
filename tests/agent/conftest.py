"""Fixtures of the tests of the whole agent: the real binary between scripted peers.

CAMERA_AGENT names the binary (default: the release build). With REQUIRE_ALL=1 a missing program
is a failure instead of a skip. Leave the long ones out with -m "not heavy". The balancer's
address is built into the agent, so every pytest process, and with -n every worker, runs in a
network namespace of its own: that takes root, and several suites may run at the same time.
"""

import subprocess
from pathlib import Path

import pytest

import harness
from harness import network, rig        # noqa: F401


def pytest_configure(config):
    config.addinivalue_line("markers", "heavy: takes long, left out under sanitizers")


def preload_library(name: str):
    @pytest.fixture(scope="session", name=f"{name}_library")
    def build(tmp_path_factory):
        library = tmp_path_factory.mktemp(name) / f"{name}.so"
        source = Path(__file__).parent / "preload" / f"{name}.c"
        subprocess.run([*harness.COMPILER, "-shared", "-fPIC", "-o", library, source], check=True)
        return library
    return build


clock_library = preload_library("clock")
faults_library = preload_library("faults")


@pytest.fixture
def hurry(rig, clock_library):
    """The agent's pauses take no time, where it is a program that can be preloaded."""
    return harness.Clock(rig, clock_library)


@pytest.fixture
def clock(hurry):
    return hurry if harness.PRELOADABLE else pytest.skip("it cannot be preloaded")


@pytest.fixture
def faults(rig, faults_library):
    """They only take place in a program that can be preloaded."""
    return harness.Faults(rig, faults_library)


def pytest_terminal_summary(terminalreporter):
    """Of the lives in test_faults.py, however many processes they took place in."""
    lives = [value for reports in terminalreporter.stats.values() for report in reports
             if getattr(report, "when", "") == "call"
             for name, value in report.user_properties if name == "lives"]
    if lives:
        tried, served, wrong = map(sum, zip(*lives))
        terminalreporter.write_line(f"faults survived over faults tried: {tried - wrong} / {tried}"
                                    f" (served: {served}, ended with a reason: {tried - served})")
