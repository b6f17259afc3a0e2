#!/bin/bash
# All benchmarks, in eight minutes: installs the peers, measures, and writes docs/benchmark.md with
# its plot. Fails when a limit is missed.
set -euo pipefail
cd "$(dirname "$0")"
. ../scripts/packages.sh

main() {
    local status=0
    install_peers
    /usr/bin/python3 footprint.py || status=1
    echo
    /usr/bin/python3 relay.py || status=1
    echo
    /usr/bin/python3 peers.py --write || status=1
    exit "$status"
}

# Debian starts a service when it installs it, unless the machine has a policy against that.
install_peers() {
    local policy=/usr/sbin/policy-rc.d
    if ((EUID == 0)) && [[ ! -e $policy ]]; then
        trap 'rm -f /usr/sbin/policy-rc.d' EXIT
        printf '#!/bin/sh\nexit 101\n' >"$policy"
        chmod +x "$policy"
    fi
    ensure_packages gcc libc6-dev util-linux socat haproxy nginx libnginx-mod-stream \
        python3-matplotlib
}

main
