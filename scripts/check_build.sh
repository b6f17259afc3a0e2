#!/usr/bin/env bash
# Fails unless a maker's build is what he asked for: the same bytes from another folder, whatever its
# name, and without a preset; his flags, build type and version text; warnings that stay warnings.
# Compares with build/release.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
folder="$work/odd [x] a+b:c&d'e(ü)"
mkdir "$folder"
git ls-files -z | xargs -0 cp --parents -t "$folder"

# configure NAME [CMAKE-OPTION...]: quiet unless it fails
configure() {
    local name=$1
    shift
    cmake -S "$folder" -B "$work/$name" -G Ninja "$@" >"$work/log" 2>&1 || { cat "$work/log" >&2; exit 1; }
}

configure plain
cmake --build "$work/plain" >"$work/log" 2>&1 || { tail -n 40 "$work/log" >&2; exit 1; }
for program in camera-agent camera-agent-check; do
    cmp "$work/plain/$program" build/release/$program
done

configure own -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DOWN_FLAG" -DCAMERA_AGENT_VERSION=1.2.3-own
if grep -q -e -Werror "$work/own/build.ninja" || grep -q -e ' -Os' "$work/own/build.ninja" ||
    ! grep -q -e '-O2 -DOWN_FLAG' "$work/own/build.ninja" ||
    ! grep -q '"1.2.3-own"' "$work/own/generated/core/deployment.h"; then
    echo "a maker's flags or version text are not what the build uses" >&2
    exit 1
fi
readelf -n build/release/camera-agent | grep -q "Build ID" || { echo "no build-id" >&2; exit 1; }
echo "the same from any folder, with a maker's flags and version text"
