#!/usr/bin/env bash
# Builds what is missing and runs the benchmark against the simulated world.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$here/scripts/setup.sh"
TARVIK_BINARY="$here/build/tarvik" TARVIK_BUILD_DIR="$here/build" exec /usr/bin/python3 "$here/bench/bench.py" "$@"
