"""Set commands with "confirmWithin": the change is tried in NetworkManager's memory under a checkpoint and
kept only when confirmed in time; otherwise, or when the daemon refuses it, the device is restored, the
configuration file never changed, and the client learns every outcome on "transaction"."""

import json
import os
import time

import pytest

import scenarios
from contract import off_contract
from engineflow import start
from world import config_keys, wait_until

TRIAL = {"interface": "eth0", "method": "manual", "address": "192.168.60.2", "netmask": "255.255.255.0",
         "gateway": "192.168.60.1"}


def addresses_of(settings):
    return [a["address"] for a in settings["ipv4"].get("address-data", [])]


def transaction(mqtt, state, timeout=10):
    message = mqtt.wait_for(mqtt.topic("transaction"), timeout, predicate=lambda m: m.json["state"] == state)
    assert (message.qos, message.retain) == (2, False)
    return message.json


def on_trial(world, mqtt, device, change_id, within):
    """The wired change sent and running from the daemon's memory."""
    mqtt.command("ethernet/config/set", {**TRIAL, "confirmWithin": within, "id": change_id})
    transaction(mqtt, "pending")
    wait_until(lambda: addresses_of(world.nm.connection_settings(device.connection)) == ["192.168.60.2"], 10,
               "the trial profile")


@pytest.fixture
def wired(world, mqtt, tarvik_binary):
    device = scenarios.ethernet(world, active=True)
    tarvik = start(world, mqtt)
    mqtt.clear()
    return device, tarvik


def test_a_confirmed_change_is_saved_and_written_to_the_file(world, mqtt, wired):
    device, tarvik = wired
    sent = time.time()
    mqtt.command("ethernet/config/set", {**TRIAL, "confirmWithin": 60, "id": "new-subnet"})
    pending = transaction(mqtt, "pending")
    assert pending["id"] == "new-subnet" and pending["interface"] == "eth0"
    assert pending["command"] == "ethernet/config/set"
    assert sent + 59 <= pending["deadline"] <= time.time() + 61
    journal = os.path.join(world.directory, "stats", "changes.json")
    assert [entry["id"] for entry in json.load(open(journal))] == ["new-subnet"]
    # On trial: the daemon runs it from memory, its disk and tarvik's file still hold the old record.
    wait_until(lambda: addresses_of(world.nm.connection_settings(device.connection)) == ["192.168.60.2"], 10,
               "the trial profile")
    assert addresses_of(world.nm.saved_settings(device.connection)) == []
    assert "Ethernet/address" not in config_keys(tarvik.config_path) or \
        config_keys(tarvik.config_path)["Ethernet/address"] != "192.168.60.2"
    assert len(world.nm.checkpoints()) == 1
    # A confirm is taken once the trial is applied (activated).
    tarvik.wait_for_log(r"\[Ethernet\] Connection '.*' updated\.$")

    mqtt.command("transaction/confirm", {"id": "new-subnet"})
    assert transaction(mqtt, "confirmed")["id"] == "new-subnet"
    assert addresses_of(world.nm.saved_settings(device.connection)) == ["192.168.60.2"]
    assert config_keys(tarvik.config_path)["Ethernet/address"] == "192.168.60.2"
    assert world.nm.checkpoints() == [] and not os.path.exists(journal)
    late = world.mqtt(subscribe=mqtt.topic("transaction"))
    assert late.wait_for(mqtt.topic("transaction")).json["state"] == "confirmed"


@pytest.mark.parametrize("undo, reason", [
    (lambda mqtt: None, "not confirmed within 10 s"),
    (lambda mqtt: mqtt.command("transaction/rollback", {"id": "trial"}), "rolled back on request"),
])
def test_an_unconfirmed_change_is_undone_and_leaves_the_file_alone(world, mqtt, wired, undo, reason):
    device, tarvik = wired
    before = config_keys(tarvik.config_path)
    on_trial(world, mqtt, device, "trial", 10)
    undo(mqtt)
    rolled_back = transaction(mqtt, "rolledBack", 20)
    assert (rolled_back["reason"], rolled_back["rollback"]) == (reason, {"eth0": "restored"})
    assert addresses_of(world.nm.connection_settings(device.connection)) == []
    world.nm.wait_device_state(device.device, 100)
    assert config_keys(tarvik.config_path) == before
    assert world.nm.checkpoints() == []


def test_a_change_the_daemon_refuses_fails_and_is_undone(world, mqtt, wired):
    device, tarvik = wired
    before = config_keys(tarvik.config_path)
    world.nm.refuse("UpdateUnsaved", "org.freedesktop.NetworkManager.Settings.Connection.PermissionDenied",
                    "Insufficient privileges")
    mqtt.command("ethernet/config/set", {**TRIAL, "confirmWithin": 30, "id": "refused"})
    failed = transaction(mqtt, "failed")
    assert failed["reason"] == "Insufficient privileges"
    assert world.nm.checkpoints() == []
    assert config_keys(tarvik.config_path) == before


@pytest.mark.parametrize("command, payload, error", [
    ("ethernet/config/set", off_contract({**TRIAL, "confirmWithin": 9}), "confirmWithin must be a whole number of seconds from 10 to 3600"),
    ("ethernet/config/set", off_contract({**TRIAL, "confirmWithin": 3601}), "confirmWithin must be a whole number of seconds from 10 to 3600"),
    ("ethernet/config/set", off_contract({**TRIAL, "confirmWithin": 10.5}), "confirmWithin must be a whole number of seconds from 10 to 3600"),
    ("ethernet/config/set", off_contract({**TRIAL, "confirmWithin": "60"}), "confirmWithin must be a whole number of seconds from 10 to 3600"),
    ("ethernet/config/set", off_contract({**TRIAL, "confirmWithin": 60, "id": ""}), "id must be a text of 1 to 64 characters"),
    ("transaction/confirm", {"id": "nothing\nhere"}, "No change waiting for confirmation: 'nothing\\nhere'"),
    # What NetworkManager would refuse is refused before a checkpoint is taken.
    ("wifi/config/set", {"interface": "wlan0", "ssid": "S" * 33, "key": "homenet-secret", "confirmWithin": 60},
     "ssid must be 1 to 32 bytes"),
    ("wifi/config/set", {"interface": "wlan0", "ssid": "HomeNet", "key": "1234567", "confirmWithin": 60},
     "key must be 8 to 63 printable characters, 64 hexadecimal digits or a WEP key"),
    ("modem/config/set", {"interface": "cdc-wdm0", "apn": "inter net", "confirmWithin": 60},
     "apn must be at most 64 characters of A-Z, a-z, 0-9, '.', '_' and '-'"),
], ids=["short", "long", "fraction", "text", "empty-id", "unknown-id", "ssid", "key", "apn"])
def test_refused_requests_change_nothing(world, mqtt, tarvik_binary, command, payload, error):
    scenarios.ethernet(world, active=True)
    scenarios.wifi(world)
    scenarios.modem(world)
    tarvik = start(world, mqtt)
    mqtt.clear()
    before = config_keys(tarvik.config_path)
    if command.startswith("transaction/"):
        # tarvik listens for these once a change was put on trial.
        mqtt.command("ethernet/config/set", {**TRIAL, "confirmWithin": 60, "id": "first"})
        transaction(mqtt, "pending")
        # The trial's calls end with the activation (its update may take two: see the empty GSM secrets).
        tarvik.wait_for_log(r"\[Ethernet\] Connection '.*' updated\.$")
    world.nm.clear_calls()
    mqtt.command(command, payload)
    answer = mqtt.wait_for(mqtt.topic("error"))
    # The wired and Wi-Fi set commands' errors go out under their "get", as all of them do; the modem's not.
    named = command if command.startswith("modem/") else command.replace("/set", "/get")
    assert answer.json == {"command": named, "error": error}
    assert config_keys(tarvik.config_path) == before
    assert not [c for c in world.nm.calls() if c["method"] in ("CheckpointCreate", "Update", "UpdateUnsaved")]


def test_a_second_change_of_the_device_waits_for_the_first(world, mqtt, wired):
    mqtt.command("ethernet/config/set", {**TRIAL, "confirmWithin": 60, "id": "first"})
    transaction(mqtt, "pending")
    for payload in ({**TRIAL, "address": "192.168.60.3"}, {**TRIAL, "confirmWithin": 60, "id": "second"}):
        mqtt.command("ethernet/config/set", payload)
        assert mqtt.wait_for(mqtt.topic("error")).json == {
            "command": "ethernet/config/get", "error": "Change 'first' of eth0 is waiting for confirmation"}


def test_a_change_left_by_a_killed_tarvik_is_rolled_back_at_its_next_start(world, mqtt, wired):
    device, tarvik = wired
    before = config_keys(tarvik.config_path)
    on_trial(world, mqtt, device, "orphan", 600)
    tarvik.stop(sig=9)
    world.tarvik(write_config=False, config_path=tarvik.config_path)
    rolled_back = transaction(mqtt, "rolledBack", 15)
    assert (rolled_back["id"], rolled_back["reason"]) == ("orphan", "service restarted during the change")
    assert addresses_of(world.nm.connection_settings(device.connection)) == []
    assert world.nm.checkpoints() == []
    assert config_keys(tarvik.config_path) == before


@pytest.mark.parametrize("reachable", [True, False], ids=["reached", "unreachable"])
def test_a_probe_that_is_reached_confirms_the_change_by_itself(world, mqtt, tarvik_binary, reachable):
    device = scenarios.ethernet(world, active=True)
    # Nothing listens on port 1.
    probe = f"127.0.0.1:{world.broker.port if reachable else 1}"
    tarvik = start(world, mqtt, config={"Changes": {"confirmProbe": probe}})
    mqtt.command("ethernet/config/set", {**TRIAL, "confirmWithin": 10, "id": "probed"})
    transaction(mqtt, "pending")
    outcome = transaction(mqtt, "confirmed" if reachable else "rolledBack", 20)
    if reachable:
        assert outcome["reason"] == f"confirmed by reaching {probe}"
        assert addresses_of(world.nm.saved_settings(device.connection)) == ["192.168.60.2"]
        assert config_keys(tarvik.config_path)["Ethernet/address"] == "192.168.60.2"
    else:
        assert outcome["reason"] == "not confirmed within 10 s"
        tarvik.wait_for_log(rf"\[Change\] Change 'probed' of eth0: {probe} not reached yet \(.+\)\.$")


def test_a_wrong_apn_on_trial_is_rolled_back_and_the_modem_connects_again(world, mqtt, tarvik_binary):
    modem = scenarios.modem(world, profile="Broadband", active=True, apns="internet")
    tarvik = start(world, mqtt, config={"Modem": {"apn": "internet"}})
    mqtt.clear()
    mqtt.command("modem/config/set", {"interface": "cdc-wdm0", "apn": "wrong.example", "confirmWithin": 10,
                                      "id": "apn"})
    transaction(mqtt, "pending")
    # The network refuses the APN: the modem stays down until the rollback.
    tarvik.wait_for_log(r"\[Modem\] State changed: Unavailable \(dev=cdc-wdm0, "
                        r"reason=GsmApnSelectFailedReason\)\.$")
    rolled_back = transaction(mqtt, "rolledBack", 20)
    assert rolled_back["rollback"] == {"cdc-wdm0": "restored"}
    world.nm.wait_device_state(modem.device, 100)
    assert world.nm.connection_settings(modem.connection)["gsm"]["apn"] == "internet"
    assert config_keys(tarvik.config_path)["Modem/apn"] == "internet"
