#!/usr/bin/env bash
# Fuzzes whatever reads the bytes of others: balancer, cloud, cameras, browsers, files, arguments.
#
#   scripts/fuzz.sh [--coverage] [TIME] [TARGET...]
#
# TIME is for each target, such as 5s (the default is 60s), 10m or 1h; 0s only replays the seeds. Two
# targets run at a time. What is found on the way is thrown away, but for inputs that fail a target:
# these are kept in build/fuzz-findings, and belong to tests/fuzz/seeds/TARGET once they are mended.
# --coverage adds the lines of the sources that all of the inputs reach (a build of its own).
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/packages.sh

findings=build/fuzz-findings
spare_seconds=120                # that a target may take longer than its time
programs=build/fuzz/tests/fuzz
work=

main() {
    local coverage=no seconds=60 target
    if [[ ${1:-} == --coverage ]]; then coverage=yes; shift; fi
    if [[ ${1:-} =~ ^([0-9]+)([smh])$ ]]; then
        local -A units=([s]=1 [m]=60 [h]=3600)
        seconds=$((BASH_REMATCH[1] * units[${BASH_REMATCH[2]}]))
        shift
    fi
    if (($# == 0)); then set -- tests/fuzz/seeds/*; fi
    set -- "${@##*/}"
    for target in "$@"; do
        if [[ ! -d tests/fuzz/seeds/$target ]]; then
            sed -n '2,9s/^# \{0,1\}//p' "$0" >&2
            echo "no such target: $target" >&2
            exit 1
        fi
    done
    work=$(mktemp -d)
    trap stop EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM
    ensure_packages cmake ninja-build clang libclang-rt-dev llvm
    build fuzz
    run_all "$seconds" "$@"
    if [[ $coverage == yes ]]; then show_coverage "$@"; fi
}

stop() {
    trap '' INT TERM
    local pid
    for pid in $(jobs -p); do
        kill "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    rm -rf "$work"
}

# build NAME [CMAKE-OPTION...]: in build/NAME, quiet unless it fails
build() {
    local name=$1
    shift
    if ! { cmake --preset fuzz -B "build/$name" "$@" && cmake --build "build/$name"; } \
        >"$work/build" 2>&1; then
        tail -n 40 "$work/build" >&2
        exit 1
    fi
}

# run_all SECONDS TARGET...: a line for each; 1 when one of them fails
run_all() {
    local seconds=$1 failed=0
    shift
    mkdir -p $findings
    printf '%-14s %12s %10s %7s %7s  %s\n' target executions per-second edges features result
    while (($# > 0)); do
        run_one "$1" "$seconds" & local first=$!
        if (($# > 1)); then run_one "$2" "$seconds" || failed=1; fi
        wait $first || failed=1
        shift $(($# > 1 ? 2 : 1))
    done
    return $failed
}

# Executions and seconds are those of the whole run; edges and features those of the last line.
run_one() {
    local target=$1 seconds=$2 log=$work/$1.log corpus=$work/$1 result=ok reason status=0
    local before time=(-max_total_time="$seconds")
    if ((seconds == 0)); then time=(-runs=0); fi
    mkdir -p "$corpus"
    before=$(ls $findings)
    timeout $((seconds + spare_seconds)) "$programs/fuzz-$target" "${time[@]}" -timeout=10 \
        -rss_limit_mb=1024 -print_final_stats=1 -artifact_prefix=$findings/"$target"- \
        "$corpus" "tests/fuzz/seeds/$target" >"$log" 2>&1 || status=$?
    if ((status)); then result="FAILED ($status)"; fi
    printf '%-14s %12s %10s %7s %7s  %s\n' "$target" \
        "$(figure 's/^stat::number_of_executed_units: *//p' "$log")" \
        "$(figure 's/^stat::average_exec_per_sec: *//p' "$log")" \
        "$(figure 's/.*cov: \([0-9]*\) .*/\1/p' "$log")" \
        "$(figure 's/.*ft: \([0-9]*\) .*/\1/p' "$log")" "$result"
    ((status)) || return 0
    {
        grep -E 'not so:|^SUMMARY|runtime error' "$log" || tail -n 5 "$log"
        for reason in $(comm -13 <(echo "$before") <(ls $findings) | grep "^$target-"); do
            echo "again: $programs/fuzz-$target $findings/$reason"
        done
    } >&2
    return 1
}

# figure SED-SCRIPT LOG: what the last line that fits says, or "-"
figure() {
    local found
    found=$(sed -n "$1" "$2" | tail -n 1)
    echo "${found:--}"
}

show_coverage() {
    local target programs_here=build/fuzz-coverage/tests/fuzz objects=()
    build fuzz-coverage "-DCMAKE_CXX_FLAGS=-O1 -fprofile-instr-generate -fcoverage-mapping"
    for target in "$@"; do
        LLVM_PROFILE_FILE=$work/$target.profile timeout $spare_seconds \
            "$programs_here/fuzz-$target" -runs=0 "$work/$target" \
            "tests/fuzz/seeds/$target" >/dev/null 2>&1
        objects+=(-object "$programs_here/fuzz-$target")
    done
    llvm-profdata merge -o "$work/profile" "$work"/*.profile
    llvm-cov export -summary-only -instr-profile "$work/profile" "${objects[@]:1}" src |
        python3 -c '
import json, os, sys
for each in json.load(sys.stdin)["data"][0]["files"]:
    lines = each["summary"]["lines"]
    if lines["covered"]:
        name = os.path.relpath(each["filename"])
        print("%-34s %5.1f %% of %3d lines" % (name, lines["percent"], lines["count"]))'
}

main "$@"
