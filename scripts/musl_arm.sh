#!/usr/bin/env bash
# Puts musl for 32-bit ARM (hard float), from Debian's own package, into build/musl-armhf for the preset
# arm-static. The machine's package database learns of no other architecture: apt works on lists of its
# own, with the machine's sources and keys.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
folder=$PWD/build/musl-armhf
library=$folder/usr/lib/arm-linux-musleabihf

[[ -f $library/libc.a ]] && exit

mkdir -p "$folder"/apt/{lists/partial,cache/archives/partial}
touch "$folder/apt/status"
apt_get() {
    apt-get -q -o APT::Architecture=armhf -o APT::Architectures=armhf \
        -o Dir::State="$folder/apt" -o Dir::State::Lists="$folder/apt/lists" \
        -o Dir::State::Status="$folder/apt/status" -o Dir::Cache="$folder/apt/cache" \
        -o APT::Sandbox::User=root -o Acquire::Languages=none "$@"
}
log=$folder/log
# A list that is being renewed at the mirror is no reason to stop: the package itself decides.
if ! { apt_get update; (cd "$folder/apt" && rm -f ./*.deb && apt_get download musl-dev); } \
    >"$log" 2>&1; then
    cat "$log" >&2
    exit 1
fi
dpkg -x "$folder"/apt/musl-dev_*.deb "$folder"
[[ -f $library/libc.a ]]
rm -r "$folder/apt" "$log"
