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


def pytest_configure(config):
    config.addinivalue_line("markers", "heavy: takes long, left out under sanitizers")


@pytest.fixture(scope="session", autouse=True)
def network():
    assert harness.BINARY.exists(), f"{harness.BINARY} is not built"
    harness.enter_network_namespace()


@pytest.fixture
def rig(tmp_path):
    rig = harness.Rig(tmp_path)
    yield rig
    problems = rig.close()
    assert not problems, "\n".join(problems)


@pytest.fixture(scope="session")
def clock_library(tmp_path_factory):
    library = tmp_path_factory.mktemp("clock") / "clock.so"
    source = Path(__file__).parent / "preload" / "clock.c"
    subprocess.run(["cc", "-shared", "-fPIC", "-o", library, source], check=True)
    return library


@pytest.fixture
def hurry(rig, clock_library):
    """The agent's pauses take no time, where it is a program that can be preloaded."""
    rig.clock = harness.Clock(rig.directory, clock_library) if harness.PRELOADABLE else None
    return rig.clock


@pytest.fixture
def clock(hurry):
    return hurry or pytest.skip("a static or sanitized program cannot be preloaded")
