"""Many streams at once."""

from harness import EMULATOR, SANITIZED, STOP_LIMIT, wait_until
from scripted import pattern

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
    if not SANITIZED and not EMULATOR:
        assert idle <= 780 and relaying - idle <= 64 * 26, f"{idle} KiB, relaying {relaying}"
    for number in numbers[:32]:
        ends[number][number % 2].close()
    again = {rig.cloud.accept().number for _ in range(32)}
    assert again == set(numbers[:32])
    assert agent.stop() < STOP_LIMIT
    for number in numbers[32:]:
        for end in ends[number]:
            end.expect_closed()
