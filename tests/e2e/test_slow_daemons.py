"""tarvik never waits for a daemon: a slow or missing NetworkManager or ModemManager holds up
only the device it is working on, bursts are coalesced, and a read that fails is never
published as an empty value."""

import time

import pytest

import scenarios
from engineflow import start
from world import config_keys

SET_COUNT = 100
AP_COUNT = 500
HOME_WIFI = {"Wifi": {"ssid": "HomeNet", "key": scenarios.DEMO_WIFI_KEY}}


def round_trip(mqtt, command, document):
    sent = time.monotonic()
    mqtt.command(command, {})
    answer = mqtt.wait_for(mqtt.topic(document), predicate=lambda m: m.time >= sent and not m.retain)
    return answer.time - sent


def static(last_octet):
    return {"method": "manual", "address": f"192.168.50.{last_octet}", "netmask": "255.255.255.0",
            "gateway": "192.168.50.254"}


def test_a_burst_of_set_commands_is_provisioned_at_most_twice_with_the_last_record(world, mqtt, tarvik_binary):
    device = scenarios.ethernet(world, active=True)
    tarvik = start(world, mqtt)
    world.nm.clear_calls()
    mqtt.clear()

    for octet in range(1, SET_COUNT + 1):
        # QoS 0: a burst of QoS 2 messages waits on the in-flight windows of the client and the broker.
        mqtt.command("ethernet/config/set", {"interface": "eth0", **static(octet)}, qos=0, wait=False)
    # A configuration request after the burst is answered with the result of its last command.
    mqtt.command("ethernet/config/get", {"interface": "eth0"})
    answer = mqtt.wait_for(mqtt.topic("ethernet/config"), 15, predicate=lambda m: not m.retain)
    assert answer.json == {**static(SET_COUNT), "interface": "eth0"}

    assert len(world.nm.calls("ActivateConnection")) <= 2
    ipv4 = world.nm.connection_settings(device.connection)["ipv4"]
    assert [a["address"] for a in ipv4["address-data"]] == [f"192.168.50.{SET_COUNT}"]
    assert config_keys(tarvik.config_path)["Ethernet/address"] == f"192.168.50.{SET_COUNT}"


def test_slow_secrets_hold_up_neither_start_nor_other_commands(world, mqtt, tarvik_binary):
    scenarios.wifi(world, profile_ssid="HomeNet", active=True)
    world.nm.delay("GetSecrets", 5)
    started = time.monotonic()
    world.tarvik(config=HOME_WIFI)
    first_status = mqtt.wait_for(mqtt.topic("status"))
    assert first_status.time - started < 1.0

    # Every configuration request now waits five seconds for the key; nothing else does.
    mqtt.command("wifi/config/get", {"interface": "wlan0"})
    assert round_trip(mqtt, "info/get", "info") < 0.1
    assert round_trip(mqtt, "status/get", "status") < 0.1


def test_secrets_that_never_come_leave_the_retained_configuration_as_it_was(world, mqtt, tarvik_binary):
    scenarios.wifi(world, profile_ssid="HomeNet", active=True)
    tarvik = start(world, mqtt, config=HOME_WIFI)
    world.nm.delay("GetSecrets", None, count=1)
    mqtt.clear()

    mqtt.command("wifi/config/get", {"interface": "wlan0"})
    # The bus gives up on the call after its default 25 s.
    error = mqtt.wait_for(mqtt.topic("error"), 40)
    assert error.json["command"] == "wifi/config/get"
    assert error.json["error"].startswith("Could not read the configuration of wlan0: ")
    tarvik.wait_for_log(r"\[Wifi\] Could not read the secrets of connection 'HomeNet' \(dev=wlan0\): .+ "
                        r"\(org\.freedesktop\.DBus\.Error\.NoReply\)$")
    mqtt.sync()
    assert not mqtt.messages(mqtt.topic("wifi/config"))
    late = world.mqtt(subscribe=mqtt.topic("wifi/config"))
    assert late.wait_for(mqtt.topic("wifi/config")).json["key"] == scenarios.DEMO_WIFI_KEY


@pytest.mark.parametrize("world", [{"modemmanager": "never-starts"}], indirect=True)
def test_a_modemmanager_that_never_starts_costs_nothing(world, mqtt, tarvik_binary):
    scenarios.ethernet(world, active=True)
    started = time.monotonic()
    tarvik = world.tarvik()
    assert mqtt.wait_for(mqtt.topic("status")).time - started < 2.0
    assert round_trip(mqtt, "status/get", "status") < 0.1
    tarvik.wait_for_log(r"\[Engine\] Reloading all devices and connections\.")
    assert world.modemmanager_activations() == 0


def test_access_points_of_one_scan_are_published_once_with_the_full_list(world, mqtt, tarvik_binary):
    wifi = scenarios.wifi(world, aps=())
    start(world, mqtt)
    mqtt.clear()
    networks = [(f"Net{index:03}", "wpa2") for index in range(AP_COUNT)]
    world.nm.add_access_points(wifi.device, networks)

    mqtt.wait_for(mqtt.topic("wifi/networks"), 30, predicate=lambda m: len(m.json["networks"]) == AP_COUNT)
    mqtt.sync()
    publications = mqtt.messages(mqtt.topic("wifi/networks"))
    assert len(publications) <= 3
    assert sorted(n["ssid"] for n in publications[-1].json["networks"]) == [ssid for ssid, _ in networks]
