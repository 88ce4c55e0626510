#!/usr/bin/env bash
# Installs what tarvik needs to build, test and run its demo on Debian 12, then configures and builds.
# Safe to run again: packages already present are not touched, the build is incremental.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

packages=(
  cmake g++ pkg-config
  qtbase5-dev libkf5networkmanagerqt-dev modemmanager-qt-dev libmosquitto-dev
  mosquitto mosquitto-clients dbus python3 python3-dbusmock python3-dbus python3-gi
  python3-paho-mqtt python3-pytest faketime iproute2 util-linux procps
  clang-14 libclang-rt-14-dev
)

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done

if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q
  apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

# The broker is started by the tests and the demo, never as a system service.
if command -v systemctl >/dev/null 2>&1 && systemctl is-active --quiet mosquitto 2>/dev/null; then
  systemctl stop mosquitto || true
fi

build_type=${TARVIK_BUILD_TYPE:-RelWithDebInfo}
build_dir=${TARVIK_BUILD_DIR:-$here/build}
cmake -S "$here" -B "$build_dir" -DCMAKE_BUILD_TYPE="$build_type" ${TARVIK_CMAKE_ARGS:-} >/dev/null
cmake --build "$build_dir" -j 2
