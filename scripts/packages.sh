# shellcheck shell=bash
# Sourced by other scripts: installs Debian packages that are missing.

# ensure_packages PACKAGE...: quiet when all are there or could be installed; otherwise prints
# what went wrong and returns 1. Only the missing ones are asked for, without recommendations.
ensure_packages() {
    local package missing=() log
    for package in "$@"; do
        if [[ $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) != installed ]]; then
            missing+=("$package")
        fi
    done
    ((${#missing[@]})) || return 0
    if ((EUID != 0)); then
        echo "missing packages, install them as root: apt-get install ${missing[*]}" >&2
        return 1
    fi
    echo "installing ${missing[*]} ..." >&2
    log=$(mktemp)
    # A fresh machine has no package lists, an old one may have outdated ones: update first.
    if ! { packages_apt_get update && packages_apt_get install "${missing[@]}"; } >"$log" 2>&1; then
        echo "could not install ${missing[*]}:" >&2
        tail -n 15 "$log" >&2
        rm -f "$log"
        return 1
    fi
    rm -f "$log"
}

# Waits for another apt-get that holds the lock, and never asks questions.
packages_apt_get() {
    DEBIAN_FRONTEND=noninteractive apt-get -q -y -o DPkg::Lock::Timeout=300 \
        --no-install-recommends "$@" </dev/null
}
