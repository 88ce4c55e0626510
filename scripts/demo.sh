#!/usr/bin/env bash
# Sets up what is missing and runs tarvik against a simulated world: a private
# system bus with a simulated NetworkManager and ModemManager (a wired device,
# a Wi-Fi device with access points, a GSM modem) and a mosquitto broker on
# loopback. Ctrl-C stops everything.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

build_dir=${TARVIK_BUILD_DIR:-$here/build}
"$here/scripts/setup.sh" tarvik

workdir=$(mktemp -d /var/tmp/tarvik-demo.XXXXXX)
world_pid=""
tarvik_pid=""

cleanup() {
  trap - INT TERM EXIT
  [[ -n "$tarvik_pid" ]] && kill "$tarvik_pid" 2>/dev/null && wait "$tarvik_pid" 2>/dev/null || true
  [[ -n "$world_pid" ]] && kill -TERM "$world_pid" 2>/dev/null && wait "$world_pid" 2>/dev/null || true
  rm -rf "$workdir"
  echo "demo: stopped"
}
trap cleanup INT TERM EXIT

/usr/bin/python3 "$here/world/world.py" --scenario demo --animate \
  --config-out "$workdir/tarvik.conf" --dir "$workdir/world" >"$workdir/world.out" 2>"$workdir/world.err" &
world_pid=$!

for _ in $(seq 300); do
  grep -q '^MQTT_PORT=' "$workdir/world.out" 2>/dev/null && break
  if ! kill -0 "$world_pid" 2>/dev/null; then
    echo "demo: the simulated world did not start:" >&2
    cat "$workdir/world.err" >&2
    exit 1
  fi
  sleep 0.1
done
bus=$(sed -n 's/^DBUS_SYSTEM_BUS_ADDRESS=//p' "$workdir/world.out")
port=$(sed -n 's/^MQTT_PORT=//p' "$workdir/world.out")
base=$(sed -n 's/^base=//p' "$workdir/tarvik.conf" | head -n 1)
base=${base:-tolv/network}

cat <<EOF2
--------------------------------------------------------------------------
tarvik demo: broker on 127.0.0.1:$port, topic base "$base"
In another terminal:
  mosquitto_sub -h 127.0.0.1 -p $port -v -t '$base/#'
  mosquitto_pub -h 127.0.0.1 -p $port -t '$base/status/get' -m '{}'
  mosquitto_pub -h 127.0.0.1 -p $port -t '$base/wifi/aps/get' -m '{}'
  mosquitto_pub -h 127.0.0.1 -p $port -t '$base/modem/state/get' -m '{}'
  mosquitto_sub -h 127.0.0.1 -p $port -v -t '$base/modem/usage'    (5 MB budget: warnings within a minute)
  mosquitto_sub -h 127.0.0.1 -p $port -v -t 'homeassistant/#'      (what Home Assistant would discover)
  mosquitto_pub -h 127.0.0.1 -p $port -t '$base/ethernet/config/set' \\
      -m '{"interface":"eth0","method":"manual","address":"192.168.1.50","netmask":"255.255.255.0","gateway":"192.168.1.1","dns0":"192.168.1.1"}'
Configuration file: $workdir/tarvik.conf   (Ctrl-C stops the demo)
--------------------------------------------------------------------------
EOF2

# tarvik keeps its statistics in ./stats and a snapshot in /tmp: give it a
# working directory of its own and, where possible, a private /tmp so the
# demo leaves the machine as it found it. It runs from a copy in the working
# directory: a checkout under /tmp would disappear behind the private /tmp.
cd "$workdir"
cp "$build_dir/tarvik" "$workdir/tarvik"
# There the modem's data port is the world's: its counters stand in for /sys/class/net.
net="$workdir/world/sys-class-net"
mkdir -p "$net"
if unshare --mount --propagation private true 2>/dev/null; then
  DBUS_SYSTEM_BUS_ADDRESS="$bus" unshare --mount --propagation private \
    sh -c 'mount -t tmpfs tmpfs /tmp && mount --bind "$0" /sys/class/net && exec "$@"' \
    "$net" "$workdir/tarvik" -f "$workdir/tarvik.conf" -e -c -v 3 &
else
  DBUS_SYSTEM_BUS_ADDRESS="$bus" "$workdir/tarvik" -f "$workdir/tarvik.conf" -e -c -v 3 &
fi
tarvik_pid=$!
wait "$tarvik_pid"
