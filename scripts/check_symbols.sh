#!/usr/bin/env bash
# check_symbols.sh [PRESET...] (default: release), for what is built of each. Fails when the agent
#  - needs a library beside the C library, or a symbol of none, at run time;
#  - can throw in its own objects (without exceptions a throw would abort the process);
#  - has an atomic for which a library of locks, or a newer kernel's help, would stand in;
#  - asks a 32-bit target's C library for times of 32 bits, which end in 2038;
#  - lacks what CAMERA_AGENT_HARDENING promises.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# operator new and new[] (the nothrow forms have another name), __cxa_throw, std::__throw_*.
throwing='_Zn[wa][mj]|__cxa_throw|__cxa_allocate_exception|_ZSt[0-9]+__throw_.*'
locking='__atomic_.*|__sync_.*_8'
# What takes or gives a time, by the names that it has where time_t is 32 bits wide.
short_times='time|gettimeofday|clock_(gettime|settime|getres|nanosleep)|nanosleep|p?select|ppoll'
short_times+='|[fl]?stat(at)?(64)?|fstatat(64)?|utimensat|futimens|(local|gm|c)time(_r)?'
short_times+='|mktime|timegm'
short_times+='|pthread_(cond_(timed|clock)wait|mutex_(timed|clock)lock)|sem_(timed|clock)wait'
short_times+='|recvmmsg|getrusage|[gs]etitimer|timerfd_[gs]ettime'

main() {
    local preset
    for preset in "${@:-release}"; do
        binary=build/$preset/camera-agent
        header=$(readelf -hlW "$binary")
        dynamic=$(readelf -dW "$binary")
        undefined=$(nm --undefined-only "build/$preset/libagent.a" |
            awk '$1 == "U" { print $2 }' | sort -u)
        check_libraries
        check_objects "$throwing" "refers to something that throws"
        check_objects "$locking" "has an atomic that is not free of locks"
        if [[ $header == *ELF32* ]]; then check_objects "$short_times" "uses times of 32 bits"; fi
        check_hardening
        echo "$preset: the C library only, throws nothing, hardened, $(stat -c %s "$binary") bytes"
    done
}

fail() {
    echo "$binary $1" >&2
    exit 1
}

# The loader belongs to the C library. What is weak may be missing.
check_libraries() {
    local needed foreign
    needed=$(sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' <<<"$dynamic" |
        sed '/^libc\.so\.6$/d; /^ld.*\.so\.[0-9]$/d')
    [[ -z $needed ]] || fail "needs more than the C library: ${needed//$'\n'/ }"
    foreign=$(readelf --dyn-syms -W "$binary" |
        awk '$7 == "UND" && $5 != "WEAK" && $8 != "" && $8 !~ /@GLIBC_[0-9.]+$/ { print $8 }')
    [[ -z $foreign ]] || fail "needs symbols that the C library lacks: ${foreign//$'\n'/ }"
}

# check_objects PATTERN WHAT: no undefined symbol of the agent's objects is like that.
check_objects() {
    local found
    found=$(grep -xE "$1" <<<"$undefined") || return 0
    fail "$2: ${found//$'\n'/ }"
}

check_hardening() {
    [[ $header =~ GNU_STACK[^$'\n']*' RW ' ]] || fail "has an executable stack"
    [[ $header == *GNU_RELRO* ]] || fail "has no RELRO"
    [[ $dynamic != *TEXTREL* ]] || fail "has relocations in its code"
    [[ $undefined =~ (^|$'\n')__stack_chk_fail($'\n'|$) ]] || fail "has no stack protector"
    if [[ $header != *INTERP* ]]; then return; fi   # static: bound already, and where it was linked
    [[ $dynamic == *BIND_NOW* ]] || fail "binds symbols on first use"
    [[ $dynamic =~ FLAGS_1.*PIE ]] || fail "is no PIE"
}

main "$@"
