#!/usr/bin/env bash
# size_report.sh [PRESET...] (default: all that are built): the stripped size, and where the
# processor is this machine's the memory and the wake-ups; status 1 when a limit is missed. Own pages
# under qemu would be qemu's.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/packages.sh
ensure_packages python3 gcc libc6-dev util-linux

declare -A size_limit=([release]=122880 [arm]=102400 [aarch64]=122880 [static]=204800
    [arm-static]=204800 [armel]=122880 [mipsel]=163840 [riscv64]=122880)
all=(release static arm aarch64 arm-static armel mipsel riscv64)
failed=0
for preset in "${@:-${all[@]}}"; do
    export CAMERA_AGENT=build/$preset/camera-agent
    [[ -f $CAMERA_AGENT || $# -gt 0 ]] || continue
    options=(--size "${size_limit[$preset]}")
    case $preset in
        release | static) options+=(--idle-1 180 --idle-64 744 --wake-ups 1) ;;
        *) options+=(--size-only) ;;
    esac
    echo "$preset"
    /usr/bin/python3 bench/size.py "${options[@]}" || failed=1
done
exit $failed
