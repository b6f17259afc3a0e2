#!/usr/bin/env bash
# stress.sh [SEEDS [FIRST]]: the unit tests of what ends threads, with other threads held up for
# every seed (tests/support/schedule.cc); builds them first. By hand, for an hour: stress.sh 2000.
# A seed that fails, again: SCHEDULE_SEED=7 build/stress/tests/unit/unit-tests
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

cmake --preset stress >/dev/null
cmake --build --preset stress >/dev/null
first=${2:-1}
# Most of the time the tests wait, hence more of them than processors. A test that hangs has failed.
seq "$first" $((first + ${1:-12} - 1)) | xargs -P 6 -n 1 bash -c '
    output=$(SCHEDULE_SEED=$0 timeout 100 build/stress/tests/unit/unit-tests --gtest_brief=1 \
        --gtest_filter="Relay.*:WholeRelay.*:WorkersTest.*:Http.*" 2>&1) && exit
    echo "$output"; echo "failed with SCHEDULE_SEED=$0"; exit 255' >&2
