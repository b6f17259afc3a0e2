#!/usr/bin/env bash
# release.sh VERSION [CMAKE-OPTION...]: every target, packages, sources, SBOM and checksums in dist/.
# The options are the cloud's addresses (docs/integration.md); without them the release is for the
# simulator. The same commit and options give the same bytes.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/packages.sh

version=${1:?release.sh VERSION [CMAKE-OPTION...]}
shift
SOURCE_DATE_EPOCH=$(git log -1 --format=%ct)
export SOURCE_DATE_EPOCH
umask 022    # the packages' folders get their modes from it
packaged=(release arm aarch64)
others=(armel mipsel riscv64 static arm-static)

main() {
    # The sources in dist/ are those of the commit: the programs must be, too.
    git diff --quiet HEAD || { echo "release.sh: there are changes without a commit" >&2; exit 1; }
    ensure_packages cmake ninja-build g++ clang binutils dpkg-dev file gzip musl-tools libc++-14-dev \
        g++-arm-linux-gnueabihf g++-aarch64-linux-gnu g++-arm-linux-gnueabi g++-mipsel-linux-gnu \
        g++-riscv64-linux-gnu
    scripts/musl_arm.sh
    rm -rf dist
    mkdir dist
    local preset
    for preset in "${packaged[@]}" "${others[@]}"; do release_target "$preset" "$@"; done
    git archive --format=tar --prefix="camera-agent-$version/" HEAD | gzip -9n \
        >"dist/camera-agent-$version.tar.gz"
    scripts/sbom.py "$version" dist/* >"dist/camera-agent-$version.spdx.json.new"
    mv "dist/camera-agent-$version.spdx.json.new" "dist/camera-agent-$version.spdx.json"
    scripts/check_sbom.py "dist/camera-agent-$version.spdx.json" "$version"
    (cd dist && sha256sum -- * >../SHA256SUMS.new && mv ../SHA256SUMS.new SHA256SUMS)
    ls -l dist
}

# release_target PRESET [CMAKE-OPTION...]: an archive of programs, and for some a package
release_target() {
    local preset=$1 build=build/release-$1 target=$1 name
    case $preset in
        release) target=x86_64 ;;
        static) target=x86_64-static ;;
    esac
    name=camera-agent-$version-$target
    shift
    echo "=== $preset"
    cmake --fresh --preset "$preset" -B "$build" -DCAMERA_AGENT_VERSION="$version" "$@" >/dev/null
    cmake --build "$build" >/dev/null
    DESTDIR=$PWD/$build/image/$name cmake --install "$build" --prefix / --component runtime >/dev/null
    tar --sort=name --owner=0 --group=0 --numeric-owner --mtime="@$SOURCE_DATE_EPOCH" \
        -C "$build/image" -c "$name" | gzip -9n >"dist/$name.tar.gz"
    if [[ " ${packaged[*]} " == *" $preset "* ]]; then
        (cd "$build" && cpack >/dev/null)
        cp "$build"/*.deb dist/
    fi
}

main "$@"
