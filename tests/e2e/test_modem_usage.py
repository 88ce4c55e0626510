"""Modem data usage: monthly totals in ./stats/modem.ini from the counters of the
bearer interface, the snapshot in /tmp (a private /tmp per test), pruning, and
"modem/stats/get"."""

import os
import re
import socket
import subprocess
import time

import pytest

import scenarios
from world import wait_until

BASE = "tolv/network"
WRAP = 2 ** 32


class Link:
    """A veth pair whose first end is the modem's bearer interface: frames sent from the peer count
    as received bytes, frames sent from the bearer as transmitted bytes. Nothing else talks on it."""

    def __init__(self, name):
        self.bearer, self.peer = name + "a", name + "b"
        subprocess.run(["ip", "link", "add", self.bearer, "type", "veth", "peer", "name", self.peer], check=True)
        for iface in (self.bearer, self.peer):
            with open(f"/proc/sys/net/ipv6/conf/{iface}/disable_ipv6", "w") as f:
                f.write("1")
            subprocess.run(["ip", "link", "set", iface, "up"], check=True)

    def remove(self):
        subprocess.run(["ip", "link", "del", self.bearer], check=False)

    def counters(self):
        def read(name):
            with open(f"/sys/class/net/{self.bearer}/statistics/{name}") as f:
                return int(f.read())
        return read("rx_bytes"), read("tx_bytes")

    def receive(self, size):
        return self._send(self.peer, size, 0)

    def transmit(self, size):
        return self._send(self.bearer, size, 1)

    def _send(self, iface, size, which):
        expected = self.counters()[which] + size
        header = b"\xff" * 6 + b"\x02\x00\x00\x00\x00\x01" + b"\x88\xb5"
        with socket.socket(socket.AF_PACKET, socket.SOCK_RAW) as s:
            s.bind((iface, 0))
            while size > 0:
                frame = min(size, 1500)
                size -= frame
                s.send(header + b"x" * (frame - len(header)))
        wait_until(lambda: self.counters()[which] == expected, 10, f"{size} bytes counted on {iface}")
        return self.counters()


@pytest.fixture
def link():
    link = Link(f"tvu{os.getpid() % 100000}")
    try:
        yield link
    finally:
        link.remove()


def read_ini(path):
    groups, group = {}, ""
    if not os.path.exists(path):
        return groups
    with open(path) as f:
        for line in f.read().splitlines():
            if line.startswith("["):
                group = line.strip("[]")
                groups.setdefault(group, {})
            elif "=" in line:
                name, _, value = line.partition("=")
                groups.setdefault(group, {})[name] = value
    return groups


def write_ini(path, groups):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w") as f:
        for group, values in groups.items():
            f.write(f"[{group}]\n" + "".join(f"{k}={v}\n" for k, v in values.items()) + "\n")


def totals(world):
    """{month: (rxbytes, txbytes)} as stored in the statistics file."""
    return {month: (int(v["rxbytes"]), int(v["txbytes"]))
            for month, v in read_ini(os.path.join(world.directory, "stats", "modem.ini")).items()}


def wait_for_totals(world, month, expected, timeout=15):
    wait_until(lambda: totals(world).get(month) == expected, timeout,
               f"{month} totals {expected} (file holds {totals(world)})")


def wait_for_snapshot(tarvik, rx, tx, timeout=15):
    """The snapshot is written after the totals: wait for it before stopping tarvik or reading it."""
    def current():
        snapshot = read_ini(tarvik.tmp_file("modem-snapshot.ini")).get("General", {})
        return snapshot if (snapshot.get("rxbytes"), snapshot.get("txbytes")) == (str(rx), str(tx)) else None
    return wait_until(current, timeout, f"snapshot of rx={rx} tx={tx}")


def start_tarvik(world, clock, usage_sec=1):
    """tarvik with its own /tmp and its clock started at the given local time."""
    asan = (os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0").lstrip(":")
    return world.tarvik(config={"Modem": {"usageSec": usage_sec}}, private_tmp=True, faketime="@" + clock,
                        env={"ASAN_OPTIONS": asan})


def connected_modem(world, link):
    return scenarios.modem(world, bearer_interface=link.bearer, profile="Broadband", active=True)


def epoch(clock):
    return int(time.mktime(time.strptime(clock, "%Y-%m-%d %H:%M:%S")))


def test_first_reading_counts_the_whole_counter_later_readings_the_difference(world, link):
    link.receive(2_500_000)
    rx0, tx0 = link.transmit(1_200_000)
    connected_modem(world, link)
    client = world.mqtt(subscribe=BASE + "/modem/stats")
    tarvik = start_tarvik(world, "2026-03-10 12:00:00")

    tarvik.wait_for_log(re.escape("[Engine] [Modem] Started monitoring Data usage"))
    tarvik.wait_for_log(re.escape("[Engine] [Modem] Publishing Data usage statistics (2026-03 | U:0.0M | D:0.0M)"))
    wait_for_totals(world, "2026-03", (rx0, tx0))
    tarvik.wait_for_log(re.escape("[Engine] [Modem] Publishing Data usage statistics (2026-03 | U:1.2M | D:2.5M)"))
    snapshot = wait_for_snapshot(tarvik, rx0, tx0)
    assert {k: int(v) for k, v in snapshot.items() if k != "timestamp"} == {
        "duration": 0, "rxbytes": rx0, "txbytes": tx0}
    assert 0 <= int(snapshot["timestamp"]) - epoch("2026-03-10 12:00:00") < 60

    link.receive(700_000)
    rx1, tx1 = link.transmit(300_000)
    wait_for_totals(world, "2026-03", (rx1, tx1))
    expected = {"2026-03": {"download": round(rx1 / 1e6, 2), "upload": round(tx1 / 1e6, 2)}}
    msg = client.wait_for(BASE + "/modem/stats", predicate=lambda m: m.json == expected)
    assert msg.qos == 0


def test_counter_below_the_snapshot_wraps_and_snapshot_counters_are_cut_to_32_bits(world, link):
    rx0, tx0 = link.receive(10_000)
    connected_modem(world, link)
    world_tmp = os.path.join(world.directory, "private-tmp")
    write_ini(os.path.join(world_tmp, "modem-snapshot.ini"), {"General": {
        "timestamp": epoch("2026-03-10 11:00:00"), "duration": 0, "rxbytes": rx0 + 5000, "txbytes": 2 * WRAP + tx0}})
    write_ini(os.path.join(world.directory, "stats", "modem.ini"), {"2026-03": {"rxbytes": 100, "txbytes": 7}})

    start_tarvik(world, "2026-03-10 12:00:00")
    wait_for_totals(world, "2026-03", ((100 - 5000) % WRAP, 7))


def test_month_change_and_restart_count_the_traffic_between_once(world, link):
    rx0, tx0 = link.receive(40_000)
    connected_modem(world, link)
    january = start_tarvik(world, "2026-01-31 12:00:00")
    wait_for_totals(world, "2026-01", (rx0, tx0))
    wait_for_snapshot(january, rx0, tx0)
    january.stop()

    link.receive(25_000)
    rx1, tx1 = link.transmit(3_000)
    start_tarvik(world, "2026-02-01 08:00:00")
    wait_for_totals(world, "2026-02", (rx1 - rx0, tx1 - tx0))
    assert totals(world) == {"2026-01": (rx0, tx0), "2026-02": (rx1 - rx0, tx1 - tx0)}


def test_old_months_are_pruned_and_stats_get_answers_from_the_file_without_counting(world, link):
    connected_modem(world, link)
    stored = {"2025-07": (1, 2), "2025-08": (3, 4), "2025-09": (5_000_000, 6_000_000),
              "2026-01": (0, 999_999), "2026-02": (1_234_567, 2_345_678)}
    write_ini(os.path.join(world.directory, "stats", "modem.ini"),
              {month: {"rxbytes": rx, "txbytes": tx} for month, (rx, tx) in stored.items()})
    client = world.mqtt(subscribe=BASE + "/modem/stats")
    client.subscribe(BASE + "/error")
    tarvik = start_tarvik(world, "2026-02-03 12:00:00", usage_sec=0)
    tarvik.wait_for_log(r"\[Engine\] IPC Connected to ")

    client.command("modem/stats/get", {})
    msg = client.wait_for(BASE + "/modem/stats")
    assert msg.json == {"2025-09": {"download": 5.0, "upload": 6.0}, "2026-01": {"download": 0, "upload": 1.0},
                        "2026-02": {"download": 1.23, "upload": 2.35}}
    tarvik.wait_for_log(re.escape("[Engine] [Modem] Publishing Data usage statistics (2026-02 | U:2.3M | D:1.2M)"))
    assert sorted(totals(world)) == ["2025-09", "2026-01", "2026-02"]

    client.command("modem/stats/get", {"interface": "wwan9"})
    assert client.wait_for(BASE + "/error").json == {"command": "modem/stats/get",
                                                     "error": "Invalid device specified: wwan9"}
    assert tarvik.lines_matching("Started monitoring Data usage") == []
    assert not os.path.exists(tarvik.tmp_file("modem-snapshot.ini"))
