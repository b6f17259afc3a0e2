#!/usr/bin/env bash
# The builds for other targets, from a fresh clone, as root on Debian 12: warnings, what they need
# and lack, sizes; then a selection of the whole agent's tests, on static musl natively, on the
# others under qemu-user. What waits, knows error numbers (MIPS has its own) or preloads a library
# with atomics of 8 bytes runs on ARMv7 and AArch64 only. Installs what it lacks. About five minutes
# on two cores.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/packages.sh
. scripts/steps.sh
export REQUIRE_ALL=1     # a test that lacks a program fails instead of being left out

presets=(static arm aarch64 arm-static armel mipsel riscv64)
t=tests/agent

main() {
    local preset
    ensure_packages cmake ninja-build binutils gcc libc6-dev clang libc++-14-dev musl-tools \
        g++-arm-linux-gnueabihf g++-aarch64-linux-gnu g++-arm-linux-gnueabi g++-mipsel-linux-gnu \
        g++-riscv64-linux-gnu qemu-user-static python3 python3-pytest python3-pytest-xdist
    step "musl for ARM" scripts/musl_arm.sh
    for preset in "${presets[@]}"; do step "build $preset" build "$preset"; done
    step "binaries" scripts/check_symbols.sh "${presets[@]}"
    step "sizes" scripts/size_report.sh "${presets[@]}"
    step "whole agent, static" agent_tests static \
        $t/test_registration.py $t/test_relay.py $t/test_stop.py $t/test_streams.py
    step "whole agent, arm" agent_tests arm \
        $t/test_time.py $t/test_registration.py $t/test_relay.py $t/test_streams.py
    step "whole agent, aarch64" agent_tests aarch64 $t/test_registration.py $t/test_streams.py
    for preset in arm-static armel mipsel riscv64; do
        step "whole agent, $preset" agent_tests "$preset" $t/test_streams.py \
            $t/test_registration.py::test_messages_of_the_cloud \
            $t/test_relay.py::test_bytes_arrive_unchanged
    done
    echo "targets: everything passed in $SECONDS s"
}

# agent_tests PRESET TEST...
agent_tests() {
    local preset=$1
    shift
    CAMERA_AGENT=build/$preset/camera-agent /usr/bin/python3 -m pytest -q -n 2 "$@"
}

main
