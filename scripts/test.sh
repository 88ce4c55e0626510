#!/usr/bin/env bash
# Sets up what is missing, builds tarvik twice (plain, and with address and
# undefined-behaviour sanitizers), runs every test in both builds, then each
# fuzz target on its regression inputs and for a bounded time.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

"$here/scripts/setup.sh"
ctest --test-dir "$here/build" --output-on-failure -j 2
# The real-daemon tier and the booted system name what they ran against, or why they could not run.
grep -h -e '^real daemon:' -e '^booted:' "$here/build/Testing/Temporary/LastTest.log" || true

TARVIK_BUILD_DIR="$here/build-sanitize" TARVIK_BUILD_TYPE=Debug TARVIK_CMAKE_ARGS="-DTARVIK_SANITIZE=ON" \
  "$here/scripts/setup.sh"
ASAN_OPTIONS="detect_leaks=1:abort_on_error=1" \
LSAN_OPTIONS="suppressions=$here/tests/sanitizer/lsan.supp:print_suppressions=0" \
UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1" \
  ctest --test-dir "$here/build-sanitize" --output-on-failure -j 2

"$here/scripts/fuzz.sh"
