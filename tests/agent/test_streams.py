"""Many streams at once, and many relays one after the other."""

import threading
from concurrent.futures import ThreadPoolExecutor

import pytest

from harness import SANITIZED, STOP_LIMIT, wait_until
from scripted import echo, pattern

MAIN, HTTP_SERVER = 1, 1


def test_64_streams_from_one_option(rig):
    """All register, all relay at once, all end; with what they cost meanwhile."""
    agent = rig.start(rig.camera.url("/cam{1-64}"), options=["-p", "0"])
    numbers = range(1, 65)
    wait_until(lambda: rig.cloud.registered_count == 64, what="registrations")
    wait_until(lambda: agent.threads() == MAIN + HTTP_SERVER + 64, what="threads")
    idle_descriptors = agent.descriptors()
    idle = agent.memory_kib() 
    ends = {}
    for number in numbers:
        camera, cloud = rig.relay(number, f"/cam{number}")
        assert cloud.fields["uri"] == f"/cam{number}"
        ends[number] = camera, cloud
    wait_until(lambda: agent.threads() == MAIN + HTTP_SERVER + 2 * 64, what="threads")
    assert agent.descriptors() == idle_descriptors + 64
    relaying = agent.memory_kib()
    for number, (camera, cloud) in ends.items():
        camera.send(pattern(100_000, number))
        cloud.send(pattern(50_000, -number))
    for number, (camera, cloud) in ends.items():
        cloud.expect(pattern(100_000, number))
        camera.expect(pattern(50_000, -number))
    if not SANITIZED:
        assert idle <= 780 and relaying - idle <= 64 * 26, f"{idle} KiB, relaying {relaying}"
    for number in numbers[:32]:
        ends[number][number % 2].close()
    again = {rig.cloud.accept().number for _ in range(32)}
    assert again == set(numbers[:32])
    assert agent.stop() < STOP_LIMIT
    for number in numbers[32:]:
        for end in ends[number]:
            end.expect_closed()


@pytest.mark.heavy
def test_thousand_short_relays_leave_nothing_behind(rig):
    streams, warm_up, rounds = 16, 8, 55
    rig.camera.behaviour = echo
    agent = rig.start(rig.camera.url(f"/cam{{1-{streams}}}"), options=["-p", "0"])
    all_relaying = threading.Barrier(streams)   # once, so that every stack has been in use

    def relays(number: int, count: int) -> None:
        for turn in range(count):
            cloud = rig.cloud.accept(number)
            cloud.start_relay(cseq=turn)
            cloud.send(pattern(5000, turn))
            cloud.expect(pattern(5000, turn))
            if turn == 0:
                all_relaying.wait(20)
            cloud.close(reset=turn % 5 == 0)

    def run(count: int) -> tuple[int, int, int]:
        expected = rig.cloud.registered_count + streams * count
        with ThreadPoolExecutor(streams) as pool:
            for result in [pool.submit(relays, n, count) for n in range(1, streams + 1)]:
                result.result()
        wait_until(lambda: rig.cloud.registered_count == expected, what="registrations")
        wait_until(lambda: agent.threads() == MAIN + HTTP_SERVER + streams, what="end of threads")
        return agent.descriptors(), agent.threads(), agent.memory_kib()

    wait_until(lambda: rig.cloud.registered_count == streams, what="registrations")
    before = run(warm_up)
    after = run(rounds)
    assert after[:2] == before[:2]
    if not SANITIZED:
        assert after[2] <= before[2] + 40, f"private KiB: {before[2]}, then {after[2]}"
