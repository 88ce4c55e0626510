"""Modem data usage: monthly totals in ./stats/modem.ini from the byte counters of
the bearer interface, the snapshot in /tmp, pruning, and "modem/stats/get".

tarvik runs in its own mount namespace: a private /tmp (the machine's snapshot is
never touched) and a /sys/class/net whose counters the test sets."""

import os
import re
import time

import scenarios
from engineflow import usage_totals
from world import config_keys, config_text, wait_until

BASE = "tolv/network"


def stats_file(world):
    return os.path.join(world.directory, "stats", "modem.ini")


def totals(world):
    return usage_totals(stats_file(world))


def wait_for_totals(world, month, expected, timeout=15):
    wait_until(lambda: totals(world).get(month) == expected, timeout,
               f"{month} totals {expected} (file holds {totals(world)})")


def wait_for_snapshot(tarvik, rx, tx, timeout=15):
    """The snapshot is written after the totals: wait for it before stopping tarvik or reading it."""
    def current():
        path = tarvik.tmp_file("modem-snapshot.ini")
        snapshot = config_keys(path) if os.path.exists(path) else {}
        return snapshot if (snapshot.get("General/rxbytes"), snapshot.get("General/txbytes")) == (str(rx), str(tx)) else None
    return wait_until(current, timeout, f"a snapshot of rx={rx} tx={tx}")


def start_tarvik(world, clock, counters=(0, 0), usage_sec=1):
    """tarvik counting every usage_sec seconds, its clock started at the given local time."""
    return world.tarvik(config={"Modem": {"usageSec": usage_sec}}, private_tmp=True, faketime="@" + clock,
                        net_counters={"wwan0": counters})


def connected_modem(world):
    return scenarios.modem(world, bearer_interface="wwan0", profile="Broadband", active=True)


def epoch(clock):
    return int(time.mktime(time.strptime(clock, "%Y-%m-%d %H:%M:%S")))


def test_first_reading_counts_the_whole_counter_later_readings_the_difference(world):
    connected_modem(world)
    client = world.mqtt(subscribe=BASE + "/modem/stats")
    tarvik = start_tarvik(world, "2026-03-10 12:00:00", counters=(2_500_000, 1_200_000))

    tarvik.wait_for_log(re.escape("[Engine] [Modem] Started monitoring Data usage"))
    tarvik.wait_for_log(re.escape("[Engine] [Modem] Publishing Data usage statistics (2026-03 | U:0.0M | D:0.0M)"))
    wait_for_totals(world, "2026-03", (2_500_000, 1_200_000))
    tarvik.wait_for_log(re.escape("[Engine] [Modem] Publishing Data usage statistics (2026-03 | U:1.2M | D:2.5M)"))
    snapshot = wait_for_snapshot(tarvik, 2_500_000, 1_200_000)
    assert snapshot["General/duration"] == "0"
    assert 0 <= int(snapshot["General/timestamp"]) - epoch("2026-03-10 12:00:00") < 60

    tarvik.set_counters("wwan0", 3_234_567, 1_500_000)
    wait_for_totals(world, "2026-03", (3_234_567, 1_500_000))
    msg = client.wait_for(BASE + "/modem/stats",
                          predicate=lambda m: m.json == {"2026-03": {"download": 3.23, "upload": 1.5}})
    assert msg.qos == 0


def test_month_change_and_restart_count_the_traffic_between_once(world):
    connected_modem(world)
    # No reading falls due within the hour: only the last one, taken when tarvik is stopped, counts.
    january = start_tarvik(world, "2026-01-31 12:00:00", counters=(40_000, 0), usage_sec=3600)
    january.wait_for_log(re.escape("[Engine] [Modem] Started monitoring Data usage"))
    january.set_counters("wwan0", 52_000, 0)
    assert january.stop() == 0
    assert totals(world) == {"2026-01": (52_000, 0)}
    january.wait_for_log(re.escape("[IPC] Disconnecting from broker."))

    start_tarvik(world, "2026-02-01 08:00:00", counters=(65_000, 3_000))
    wait_for_totals(world, "2026-02", (13_000, 3_000))
    assert totals(world) == {"2026-01": (52_000, 0), "2026-02": (13_000, 3_000)}


def test_old_months_are_pruned_and_stats_get_answers_from_the_file_without_counting(world):
    connected_modem(world)
    stored = {"2025-07": (1, 2), "2025-08": (3, 4), "2025-09": (5_000_000, 6_000_000),
              "2026-01": (0, 999_999), "2026-02": (1_234_567, 2_345_678)}
    os.makedirs(os.path.dirname(stats_file(world)))
    with open(stats_file(world), "w") as f:
        f.write(config_text({month: {"rxbytes": rx, "txbytes": tx} for month, (rx, tx) in stored.items()}))
    client = world.mqtt(subscribe=BASE + "/modem/stats")
    client.subscribe(BASE + "/error")
    tarvik = start_tarvik(world, "2026-02-03 12:00:00", counters=(777, 888), usage_sec=0)
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
    assert totals(world)["2026-02"] == stored["2026-02"]
