#!/usr/bin/env bash
# Builds what is missing and runs the fault soak against the simulated world (not part of the tests).
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$here/scripts/setup.sh"
TARVIK_BINARY="$here/build/tarvik" TARVIK_BUILD_DIR="$here/build" exec /usr/bin/python3 "$here/bench/soak.py" "$@"
