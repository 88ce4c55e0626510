#!/usr/bin/env bash
# Installs what tarvik needs to build, test, package and run its demo on Debian 12, then configures and
# builds the given targets (default: everything, tests and benchmark included).
# Safe to run again: packages already present are not touched, the build is incremental.
# Leaves the machine's services alone: tests and the demo start a broker of their own on a free port.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

packages=(
  cmake g++ pkg-config
  qtbase5-dev libkf5networkmanagerqt-dev modemmanager-qt-dev libmosquitto-dev
  mosquitto mosquitto-clients dbus python3 python3-dbusmock python3-dbus python3-gi
  python3-paho-mqtt python3-pytest python3-jsonschema python3-yaml python3-jinja2 faketime tzdata iproute2 util-linux procps
  dpkg-dev file lintian systemd
  network-manager dnsmasq-base
  systemd-container mmdebstrap
  clang-14 libclang-rt-14-dev
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

# Exactly the versions of tests/contract/package-lock.json; install scripts are not needed. Only a full
# build needs them: the demo builds tarvik alone.
contract="$here/tests/contract"
if [[ $# -eq 0 ]] && ! cmp -s "$contract/package-lock.json" "$contract/node_modules/.installed-lock.json"; then
  (cd "$contract" && npm ci --ignore-scripts --no-audit --no-fund --loglevel=error)
  cp "$contract/package-lock.json" "$contract/node_modules/.installed-lock.json"
fi

build_dir=${TARVIK_BUILD_DIR:-$here/build}
# A configured build dir configures itself again when a CMakeLists.txt changes.
if [[ ! -f "$build_dir/CMakeCache.txt" || -n "${TARVIK_BUILD_TYPE:-}${TARVIK_CMAKE_ARGS:-}" ]]; then
  cmake -S "$here" -B "$build_dir" -DCMAKE_BUILD_TYPE="${TARVIK_BUILD_TYPE:-RelWithDebInfo}" \
    ${TARVIK_CMAKE_ARGS:-} >/dev/null
fi
cmake --build "$build_dir" -j 2 ${1:+--target "$@"}
