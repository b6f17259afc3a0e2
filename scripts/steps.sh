# shellcheck shell=bash
# Sourced by the scripts that test.

# step NAME COMMAND...: says what runs and how long it took; a failure ends the script.
step() {
    local name=$1 began=$SECONDS
    shift
    echo "=== $name"
    "$@"
    echo "--- $name: $((SECONDS - began)) s"
}

# build PRESET: quiet unless it fails.
build() {
    local log
    log=$(mktemp)
    if ! { cmake --preset "$1" && cmake --build --preset "$1"; } >"$log" 2>&1; then
        tail -n 60 "$log" >&2
        rm -f "$log"
        return 1
    fi
    rm -f "$log"
}
