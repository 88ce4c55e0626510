"""Modem data usage: monthly totals in ./stats/modem.ini from the byte counters of
the bearer interface, the snapshot in /tmp, pruning, and "modem/stats/get"; the
billing cycles, budget, alerts and cut-off of "modem/usage".

tarvik runs in its own mount namespace: a private /tmp (the machine's snapshot is
never touched) and a /sys/class/net whose counters the test sets."""

import os
import re
import time

import pytest

import scenarios
from contract import off_contract
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


def start_tarvik(world, clock, counters=(0, 0), usage_sec=1, plan=None):
    """tarvik counting every usage_sec seconds, its clock started at the given local time."""
    return world.tarvik(config={"Modem": {"usageSec": usage_sec, **(plan or {})}}, private_tmp=True,
                        faketime="@" + clock, net_counters={"wwan0": counters})


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


def usage_file(world):
    return os.path.join(world.directory, "stats", "modem-usage.ini")


def wait_for_usage(client, **expected):
    """The next modem/usage document holding the expected values."""
    return client.wait_for(BASE + "/modem/usage", timeout=15,
                           predicate=lambda m: all(m.json.get(k) == v for k, v in expected.items())).json


def alerts(tarvik):
    return tarvik.lines_matching(r"\[Usage\] Modem data ")


def test_cycle_totals_are_exact_past_4_gb_and_across_a_counter_restart_and_alert_once(world):
    connected_modem(world)
    client = world.mqtt(subscribe=BASE + "/modem/#")
    plan = {"cycleDay": 5, "limitMB": 10000, "warnPercent": "50,80"}
    first = start_tarvik(world, "2026-03-10 12:00:00", counters=(3_000_000_000, 100_000_000), plan=plan)
    usage = wait_for_usage(client, rxBytes=3_000_000_000, txBytes=100_000_000)
    assert (usage["interface"], usage["firstDay"], usage["lastDay"], usage["budgetBytes"], usage["state"]) == \
        ("cdc-wdm0", "2026-03-05", "2026-04-04", 10_000_000_000, "projectedOver")
    # 3.1 GB in five and a half of the cycle's 31 days.
    assert 17_400_000_000 < usage["projectedBytes"] < 17_500_000_000
    first.set_counters("wwan0", 5_500_000_000, 100_000_000)
    usage = wait_for_usage(client, rxBytes=5_500_000_000)
    assert (usage["totalBytes"], usage["usedPercent"], usage["threshold"]) == (5_600_000_000, 56, 50)
    # The bearer came back: its counters start again from zero.
    first.set_counters("wwan0", 700_000_000, 50_000_000)
    wait_for_usage(client, rxBytes=6_200_000_000, txBytes=150_000_000)
    # The monthly document wraps as it always has: modulo 2^32 the restart cancels all that came before.
    client.wait_for(BASE + "/modem/stats", predicate=lambda m: m.json == {"2026-03": {"download": 700.0,
                                                                                      "upload": 50.0}})
    assert len(alerts(first)) == 2
    assert first.stop() == 0

    second = start_tarvik(world, "2026-03-10 12:00:00", counters=(700_000_000, 50_000_000), plan=plan)
    wait_for_usage(client, rxBytes=6_200_000_000, state="projectedOver")
    second.set_counters("wwan0", 2_350_000_000, 50_000_000)
    wait_for_usage(client, totalBytes=8_000_000_000, threshold=80)
    second.set_counters("wwan0", 4_350_000_000, 50_000_000)
    usage = wait_for_usage(client, totalBytes=10_000_000_000)
    assert (usage["state"], usage["usedPercent"], usage["cutOff"], usage["limitAction"]) == \
        ("limitReached", 100, False, "none")
    wait_for_usage(client, totalBytes=10_000_000_000)
    assert [line.split("[Usage] ")[1] for line in alerts(second)] == [
        "Modem data passed 80% of the budget: 8000000000 of 10000000000 bytes in the cycle 2026-03-05 to 2026-04-04.",
        "Modem data budget used up: 10000000000 of 10000000000 bytes in the cycle 2026-03-05 to 2026-04-04."]


def modem_state(world, device):
    return int(world.nm.get(device, "org.freedesktop.NetworkManager.Device", "State"))


def test_cut_off_holds_the_modem_down_until_a_resume_lifts_it_for_the_cycle(world):
    gsm = connected_modem(world)
    client = world.mqtt(subscribe=BASE + "/modem/usage")
    client.subscribe(BASE + "/error")
    tarvik = start_tarvik(world, "2026-03-10 12:00:00", plan={"limitMB": 1, "limitAction": "disconnect"})
    wait_for_usage(client, state="ok", cutOff=False)

    tarvik.set_counters("wwan0", 900_000, 100_000)
    assert wait_for_usage(client, cutOff=True)["state"] == "limitReached"
    tarvik.wait_for_log(re.escape("[Usage] Cutting the modem off until 2026-04-01 (or modem/usage/resume)."))
    tarvik.wait_for_log(re.escape("[Modem] Data budget used up: disconnecting cdc-wdm0."))
    wait_until(lambda: modem_state(world, gsm.device) == 30, 10, "the modem disconnected")

    # The new record is kept for later; neither it nor a trial brings the modem up.
    client.command("modem/config/set", {"interface": "cdc-wdm0", "apn": "telco.example"})
    tarvik.wait_for_log(re.escape("[Modem] cdc-wdm0 stays down: its data budget is used up."))
    assert config_keys(tarvik.config_path)["Modem/apn"] == "telco.example"
    client.command("modem/config/set", {"interface": "cdc-wdm0", "apn": "trial.example", "confirmWithin": 60})
    assert client.wait_for(BASE + "/error").json == {
        "command": "modem/config/set", "error": "The modem is cut off: its data budget is used up"}
    assert modem_state(world, gsm.device) == 30

    client.command("modem/usage/resume", {})
    tarvik.wait_for_log(re.escape("[Usage] Cut-off lifted by modem/usage/resume until the cycle ends on 2026-03-31."))
    assert wait_for_usage(client, cutOff=False)["state"] == "limitReached"
    wait_until(lambda: modem_state(world, gsm.device) == 100, 10, "the modem connected again")
    assert world.nm.connection_settings(gsm.connection)["gsm"]["apn"] == "telco.example"
    client.command("modem/usage/resume", {})
    assert client.wait_for(BASE + "/error").json == {"command": "modem/usage/resume",
                                                     "error": "The modem is not cut off"}
    assert config_keys(usage_file(world))["2026-03-01/resumed"] == "true"


def test_cut_off_ends_when_a_cycle_on_day_31_renews_on_a_leap_day(world):
    gsm = connected_modem(world)
    os.makedirs(os.path.dirname(usage_file(world)))
    with open(usage_file(world), "w") as f:
        f.write(config_text({"2028-01-31": {"rxbytes": 1_500_000, "txbytes": 0}}))
    client = world.mqtt(subscribe=BASE + "/modem/usage")
    tarvik = start_tarvik(world, "2028-02-28 23:59:48",
                          plan={"cycleDay": 31, "limitMB": 1, "limitAction": "disconnect"})

    tarvik.wait_for_log(re.escape("[Modem] Data budget used up: disconnecting cdc-wdm0."))
    usage = wait_for_usage(client, cutOff=True)
    assert (usage["firstDay"], usage["lastDay"], usage["totalBytes"]) == ("2028-01-31", "2028-02-28", 1_500_000)
    wait_until(lambda: modem_state(world, gsm.device) == 30, 10, "the modem disconnected")

    tarvik.wait_for_log(re.escape("[Usage] Billing cycle 2028-02-29 to 2028-03-30 began."), timeout=20)
    tarvik.wait_for_log(re.escape("[Usage] Cut-off ended: the modem may connect again."))
    usage = wait_for_usage(client, firstDay="2028-02-29")
    assert (usage["lastDay"], usage["totalBytes"], usage["state"], usage["cutOff"]) == ("2028-03-30", 0, "ok", False)
    wait_until(lambda: modem_state(world, gsm.device) == 100, 10, "the modem connected again")
    assert usage_totals(usage_file(world))["2028-01-31"] == (1_500_000, 0)


REFUSED_PLANS = [
    ({"cycleDay": 32}, "Invalid cycleDay: 32 is not a day of the month from 1 to 31"),
    ({"limitMB": -1}, "Invalid limitMB: -1 is not a number of megabytes from 0 to 1000000000"),
    ({"cycleDay": 15, "warnPercent": [95, 80]},
     "Invalid warnPercent: 95,80 is not a rising list of percentages from 1 to 100"),
    ({"limitAction": "stop"}, "Invalid limitAction: stop is not none or disconnect"),
    ({"limitMB": 5, "cycle": 3}, "Unknown setting: cycle"),
    ({}, "Nothing to change: give cycleDay, limitMB, warnPercent or limitAction"),
    ({"interface": "wwan9", "cycleDay": 3}, "Invalid device specified: wwan9"),
]


def test_plan_set_refuses_bad_values_whole_and_rewrites_the_plan_keys(world):
    connected_modem(world)
    client = world.mqtt(subscribe=BASE + "/modem/usage")
    client.subscribe(BASE + "/error")
    tarvik = start_tarvik(world, "2026-03-10 12:00:00", usage_sec=0)
    wait_for_usage(client, budgetBytes=None)
    with open(tarvik.config_path) as f:
        written = f.read()
    for payload, error in REFUSED_PLANS:
        client.command("modem/usage/set", off_contract(payload))
        assert client.wait_for(BASE + "/error").json == {"command": "modem/usage/set", "error": error}, payload
    with open(tarvik.config_path) as f:
        assert f.read() == written

    client.command("modem/usage/set", {"cycleDay": 31, "limitMB": 2500.5, "warnPercent": [50, 90],
                                       "limitAction": "disconnect"})
    usage = wait_for_usage(client, budgetBytes=2_500_500_000)
    assert (usage["firstDay"], usage["lastDay"], usage["limitAction"]) == ("2026-02-28", "2026-03-30", "disconnect")
    keys = config_keys(tarvik.config_path)
    assert {k: keys[k] for k in keys if k.split("/")[1] in ("cycleDay", "limitMB", "warnPercent", "limitAction")} == {
        "Modem/cycleDay": "31", "Modem/limitMB": "2500.5", "Modem/warnPercent": '"50,90"',
        "Modem/limitAction": "disconnect"}
    tarvik.wait_for_log(re.escape(
        "[Usage] Data plan set: cycle day 31, budget 2500.5 MB, warnings at 50%, 90%, at the budget: disconnect."))
