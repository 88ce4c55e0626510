#!/usr/bin/env bash
# Builds the Debian package of tarvik (installs what is missing, builds the
# service alone) and prints its path: <build dir>/package/tarvik_<version>_<arch>.deb
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build_dir=${TARVIK_BUILD_DIR:-$here/build}

TARVIK_CMAKE_ARGS="-DCMAKE_INSTALL_PREFIX=/usr ${TARVIK_CMAKE_ARGS:-}" "$here/scripts/setup.sh" tarvik
cpack -G DEB -B "$build_dir/package" --config "$build_dir/CPackConfig.cmake" >/dev/null
ls "$build_dir"/package/tarvik_*.deb
