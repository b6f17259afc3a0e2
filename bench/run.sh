#!/bin/bash
# Both benchmarks, in four minutes. Fails when a limit is missed.
set -euo pipefail
cd "$(dirname "$0")"

status=0
python3 footprint.py || status=1
echo
python3 relay.py || status=1
exit "$status"
