#!/usr/bin/env bash
# Everything that must pass, from a fresh clone, as root on Debian 12: style, builds with both
# compilers, unit tests, whole-agent tests and browser tests, the former two also under the
# sanitizers, a short soak, the other targets and the package. Installs what it lacks. About twenty
# minutes on two cores.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/packages.sh
. scripts/steps.sh

python=/usr/bin/python3  # the GStreamer and Selenium bindings belong to the system's interpreter
export REQUIRE_ALL=1     # a test that lacks a program fails instead of being left out

main() {
    ensure_packages cmake ninja-build g++ clang clang-format clang-tidy libgtest-dev binutils \
        python3 python3-pytest python3-pytest-xdist python3-selenium python3-gi iproute2 openssl \
        gir1.2-gst-rtsp-server-1.0 gstreamer1.0-plugins-base gstreamer1.0-plugins-good \
        gstreamer1.0-plugins-bad ffmpeg strace ethtool chromium chromium-driver fonts-dejavu-core
    step "style" check_style
    for preset in release dev asan tsan; do step "build $preset" build $preset; done
    step "binary" scripts/check_symbols.sh
    step "build settings" check_settings
    step "builds of makers" scripts/check_build.sh
    step "lint" check_lint
    for preset in dev asan tsan; do step "unit tests, $preset" unit_tests $preset; done
    step "whole agent, links" agent_tests_and_links
    step "fuzz" scripts/fuzz.sh 5s
    step "schedules" scripts/stress.sh
    step "browser" browser_tests
    step "soak" scripts/soak.sh 40s
    step "whole agent, asan" agent_tests asan -m "not heavy"
    step "whole agent, tsan" agent_tests tsan -m "not heavy"
    step "sizes" scripts/size_report.sh release
    step "targets" scripts/test_targets.sh
    step "packages" scripts/test_packages.sh
    echo "everything passed in $SECONDS s"
}

check_style() {
    clang-format --dry-run --Werror src/*/*.cc src/*/*.h tests/unit/*.cc tests/support/* \
        tests/fuzz/*.cc tests/fuzz/*.h
    scripts/check_log_lines.py
}

# Values that the agent could not use must stop the configuration, not the device.
check_settings() {
    local setting folder
    folder=$(mktemp -d)
    for setting in BALANCER_ADDRESS=balancer.example BALANCER_ADDRESS=1.2.3 \
                   BALANCER_ADDRESS=1.2.3.256 ACCOUNT_HOST=http://x CAMERA_WEB_HOST=; do
        if cmake --fresh -S . -B "$folder" -G Ninja "-DCAMERA_AGENT_$setting" >"$folder.log" 2>&1 ||
            ! grep -q "CAMERA_AGENT_${setting%%=*} must be" "$folder.log"; then
            echo "CMake did not refuse CAMERA_AGENT_$setting as it should:" >&2
            cat "$folder.log" >&2
            return 1
        fi
    done
    cmake --fresh -S . -B "$folder" -G Ninja \
        -DCAMERA_AGENT_BALANCER_ADDRESS=10.20.30.40 >"$folder.log"
    grep -q "Balancer address built in: 10.20.30.40" "$folder.log"
    rm -rf "$folder" "$folder.log"
}

check_lint() {
    printf '%s\n' src/*/*.cc | xargs -P 2 -n 5 clang-tidy -p build/dev --quiet 2>/dev/null
}

unit_tests() {
    ctest --preset "$1" -j 2 --progress
}

# agent_tests PRESET [PYTEST OPTIONS]: each worker runs in a network namespace of its own.
agent_tests() {
    local preset=$1
    shift
    CAMERA_AGENT=build/$preset/camera-agent $python -m pytest -q -n 2 tests/agent "$@"
}

# The links take two minutes of waiting and little else: beside the others.
agent_tests_and_links() {
    local links log failed=0
    log=$(mktemp)
    CAMERA_AGENT=build/release/camera-agent $python -m pytest -q -n 12 tests/agent/test_links.py \
        >"$log" 2>&1 &
    links=$!
    agent_tests release --ignore tests/agent/test_links.py || failed=1
    wait $links || { cat "$log" >&2; failed=1; }
    tail -n 1 "$log"
    rm "$log"
    return $failed
}

browser_tests() {
    CAMERA_AGENT=build/release/camera-agent $python -m pytest -q tests/browser
}

main
