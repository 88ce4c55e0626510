#!/usr/bin/env bash
# Installs what tarvik needs to build, test and run its demo on Debian 12, then configures and builds.
# Safe to run again: packages already present are not touched, the build is incremental.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

packages=(
  cmake g++ pkg-config
  qtbase5-dev libkf5networkmanagerqt-dev modemmanager-qt-dev libmosquitto-dev
  mosquitto mosquitto-clients dbus python3 python3-dbusmock python3-dbus python3-gi
  python3-paho-mqtt python3-pytest python3-jsonschema python3-yaml faketime iproute2 util-linux procps
  network-manager dnsmasq-base
)
# The AsyncAPI parser that checks docs/asyncapi.yaml comes from npm (any Node.js the machine has will do).
command -v npm >/dev/null 2>&1 || packages+=(nodejs npm)

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done

if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  # NetworkManager, dnsmasq and their dependencies are only run by the tests, inside namespaces: installing
  # them must not start them on this machine (policy-rc.d answering 101 forbids every service start).
  policy=/usr/sbin/policy-rc.d
  if [[ ! -e $policy ]]; then
    printf '#!/bin/sh\nexit 101\n' >"$policy"
    chmod 755 "$policy"
    trap 'rm -f "$policy"' EXIT
  fi
  apt-get update -q
  apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

# Exactly the versions of tests/contract/package-lock.json; install scripts are not needed.
contract="$here/tests/contract"
if ! cmp -s "$contract/package-lock.json" "$contract/node_modules/.installed-lock.json"; then
  (cd "$contract" && npm ci --ignore-scripts --no-audit --no-fund --loglevel=error)
  cp "$contract/package-lock.json" "$contract/node_modules/.installed-lock.json"
fi

# The broker is started by the tests and the demo, never as a system service.
if command -v systemctl >/dev/null 2>&1 && systemctl is-active --quiet mosquitto 2>/dev/null; then
  systemctl stop mosquitto || true
fi

build_type=${TARVIK_BUILD_TYPE:-RelWithDebInfo}
build_dir=${TARVIK_BUILD_DIR:-$here/build}
cmake -S "$here" -B "$build_dir" -DCMAKE_BUILD_TYPE="$build_type" ${TARVIK_CMAKE_ARGS:-} >/dev/null
cmake --build "$build_dir" -j 2
