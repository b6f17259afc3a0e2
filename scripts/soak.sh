#!/usr/bin/env bash
# One agent with 64 streams, random relays and faults for TIME (60s, 30m, 8h); needs root.
#
#   scripts/soak.sh TIME [--seed NUMBER] [--markdown]
#
# Builds the release, unless CAMERA_AGENT names a binary. Exit status 1 with the reason when bytes
# differ, a stream stays away or memory grows; tools/soak.py --help tells all that is looked at.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/packages.sh

ensure_packages cmake ninja-build g++ python3 iproute2
if [[ -z ${CAMERA_AGENT:-} ]]; then
    log=$(mktemp)
    trap 'rm -f "$log"' EXIT
    if ! { cmake --preset release && cmake --build --preset release; } >"$log" 2>&1; then
        tail -n 60 "$log" >&2
        exit 1
    fi
    export CAMERA_AGENT=build/release/camera-agent
fi
/usr/bin/python3 tools/soak.py "$@"
