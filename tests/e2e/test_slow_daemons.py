"""tarvik never waits for a daemon: a slow or missing NetworkManager or ModemManager holds up
only the device it is working on, bursts are coalesced, and a read that fails is never
published as an empty value."""

import os

import scenarios
from engineflow import published, start
from world import config_keys

SET_COUNT = 100


def static(last_octet):
    return {"method": "manual", "address": f"192.168.50.{last_octet}", "netmask": "255.255.255.0",
            "gateway": "192.168.50.254"}


def test_a_burst_of_set_commands_is_provisioned_at_most_twice_with_the_last_record(world, mqtt, tarvik_binary):
    device = scenarios.ethernet(world, active=True)
    tarvik = start(world, mqtt)
    world.nm.clear_calls()

    for octet in range(1, SET_COUNT + 1):
        mqtt.command("ethernet/config/set", {"interface": "eth0", **static(octet)}, wait=False)
    # A configuration request after the burst is answered with the result of its last command.
    mqtt.command("ethernet/config/get", {"interface": "eth0"})
    answer = mqtt.wait_for(mqtt.topic("ethernet/config"), 15, predicate=lambda m: not m.retain)
    assert answer.json == {**static(SET_COUNT), "interface": "eth0"}

    assert len(world.nm.calls("ActivateConnection")) <= 2
    assert len(world.nm.calls("Update")) <= 2
    ipv4 = world.nm.connection_settings(device.connection)["ipv4"]
    assert [a["address"] for a in ipv4["address-data"]] == [f"192.168.50.{SET_COUNT}"]
    assert config_keys(tarvik.config_path)["Ethernet/address"] == f"192.168.50.{SET_COUNT}"
