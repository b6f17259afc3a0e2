#!/usr/bin/env bash
# Fails when the release build needs a library beside the C library at run time, when one of the
# agent's own objects can throw (without exceptions a throw would abort the process), or when an
# atomic needs the library of locks that stands in where a processor has no such instruction.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
build=build/release

needed=$(readelf -d $build/camera-agent | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
if [[ $needed != libc.so.6 ]]; then
    echo "camera-agent needs more than the C library: ${needed//$'\n'/ }" >&2
    exit 1
fi

# operator new and new[] (the nothrow forms have another name), __cxa_throw, std::__throw_*.
throwing='_Zn[wa][mj]$|__cxa_throw|__cxa_allocate_exception|_ZSt[0-9]+__throw_'
if nm --undefined-only $build/libagent.a | grep -E "$throwing" >&2; then
    echo "the agent's own objects refer to something that throws" >&2
    exit 1
fi
if nm --undefined-only $build/libagent.a | grep -E ' __atomic_' >&2; then
    echo "an atomic of the agent is not free of locks" >&2
    exit 1
fi
echo "needs the C library only, throws nothing, $(stat -c %s $build/camera-agent) bytes"
