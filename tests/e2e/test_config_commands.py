"""The three configuration commands: the file rewritten with every key, the
device reprovisioned in the simulated NetworkManager, and their error documents."""

import re

import pytest

import scenarios
import engineflow
from engineflow import addresses, dns
from contract import off_contract
from world import config_keys

BASE = "tolv/network"


STATIC = {"method": "manual", "address": "192.168.50.7", "netmask": "255.255.255.0", "gateway": "192.168.50.1",
          "dns0": "192.168.50.1", "dns1": "9.9.9.9"}
STATIC_STORED = {"method": "manual", "address-data": [("192.168.50.7", 24)],
                 "addresses": [("192.168.50.7", 24, "192.168.50.1")], "gateway": "192.168.50.1",
                 "dns": ["192.168.50.1", "9.9.9.9"]}
NO_ADDRESSES = {"address-data": [], "addresses": [], "gateway": None}
# Each step: the IPv4 part of a set command and the profile NetworkManager must then hold. DHCP keeps the
# name servers; link-local may hold none.
IPV4_STEPS = [
    (STATIC, STATIC_STORED),
    ({"method": "auto"}, {"method": "auto", **NO_ADDRESSES, "dns": ["192.168.50.1", "9.9.9.9"]}),
    ({"method": "link-local"}, {"method": "link-local", **NO_ADDRESSES, "dns": []}),
    (STATIC, STATIC_STORED),
]
# Per device kind: how to build it, its interface, and what every set command carries besides IPv4.
KINDS = {
    "ethernet": (lambda w: scenarios.ethernet(w, active=True), "eth0", {}),
    "wifi": (lambda w: scenarios.wifi(w, profile_ssid="HomeNet", key="homenet-secret", active=True), "wlan0",
             {"ssid": "HomeNet", "key": "homenet-secret"}),
    "modem": (lambda w: scenarios.modem(w, profile="Broadband", active=True), "cdc-wdm0",
              {"apn": "internet", "username": "alice", "password": "s3cret"}),
}


def stored_ipv4(world, connection):
    ipv4 = world.nm.connection_settings(connection)["ipv4"]
    return {"method": ipv4["method"],
            "address-data": [(a["address"], int(a["prefix"])) for a in ipv4.get("address-data", [])],
            "addresses": addresses(ipv4), "gateway": ipv4.get("gateway"), "dns": dns(ipv4)}


@pytest.mark.parametrize("kind", KINDS)
def test_set_commands_end_with_the_profile_asked_for(world, mqtt, kind):
    build, interface, extra = KINDS[kind]
    device = build(world)
    engineflow.start(world, mqtt, config={"Wifi": {"ssid": "HomeNet", "key": "homenet-secret"},
                                          "Modem": {"username": "alice", "password": "s3cret"}})

    for payload, expected in IPV4_STEPS:
        world.nm.clear_calls()
        mqtt.command(f"{kind}/config/set", {"interface": interface, **extra, **payload})
        mqtt.sync()
        assert stored_ipv4(world, device.connection) == expected, payload
        assert [c["method"] for c in world.nm.calls() if c["method"] in ("Update", "ActivateConnection")][-1] == \
            "ActivateConnection", payload
    assert mqtt.messages(BASE + "/error") == []

    if kind == "wifi":
        mqtt.command("wifi/config/set", {"interface": interface, "ssid": "HomeNet", "key": "new-secret-5678"})
        mqtt.sync()
        assert world.nm.connection_secrets(device.connection, "802-11-wireless-security") == {"psk": "new-secret-5678"}
    if kind == "modem":
        # Emptying the password must leave none stored, not keep the old one.
        mqtt.command("modem/config/set", {"interface": interface, "apn": "telco.example", "username": "bob"})
        mqtt.sync()
        gsm = world.nm.connection_settings(device.connection)["gsm"]
        assert (gsm["apn"], gsm["username"]) == ("telco.example", "bob")
        assert world.nm.connection_secrets(device.connection, "gsm") == {}


# Refusals are answered under the command names clients have always seen.
ANSWERED_AS = {"ethernet": "ethernet/config/get", "wifi": "wifi/config/get", "modem": "modem/config/set"}
NOT_DOTTED = [("address", "300.1.1.1"), ("address", "10.0.0.1/24"), ("address", "1.2.3"), ("gateway", "::1")]
REFUSED = [
    ("ethernet", {"interface": "eth9", "method": "auto"}, "Invalid device specified: eth9"),
    ("ethernet", {"interface": "wlan0", "method": "auto"}, "Invalid device specified: wlan0"),
    ("wifi", {"interface": "eth0", "ssid": "HomeNet"}, "Invalid device specified: eth0"),
    ("modem", {"interface": "wlan0", "apn": "x"}, "Invalid device specified: wlan0"),
    # Addresses that would cut a gateway off its network.
    *[("ethernet", off_contract({**STATIC, field: value}), f"Invalid {field}: {value} is not a dotted IPv4 address")
      for field, value in NOT_DOTTED],
    *[("ethernet", off_contract({**STATIC, "netmask": mask}), f"Invalid netmask: {mask} is not a contiguous dotted mask")
      for mask in ("33", "255.0.255.0")],
    ("ethernet", off_contract({"method": "manual", "netmask": "255.255.255.0"}),
     "Missing address: the manual method needs an address and a netmask"),
    ("wifi", off_contract({"ssid": "HomeNet", "key": "k", "method": "auto", "dns1": "abc"}),
     "Invalid dns1: abc is not a dotted IPv4 address"),
    ("modem", off_contract({"apn": "x", "method": "manual", "address": "10.1.1.1"}),
     "Missing netmask: the manual method needs an address and a netmask"),
    ("modem", off_contract({"apn": "x", "dns0": "10.1.1.1\n[Engine] x"}),
     "Invalid dns0: 10.1.1.1\\n[Engine] x is not a dotted IPv4 address"),
]


def test_refused_set_commands_change_neither_the_file_nor_networkmanager(world, mqtt):
    scenarios.ethernet(world, active=True)
    scenarios.wifi(world)
    scenarios.modem(world, profile="Broadband", active=True)
    tarvik = engineflow.start(world, mqtt)
    with open(tarvik.config_path) as f:
        written = f.read()
    world.nm.clear_calls()

    for kind, payload, error in REFUSED:
        mqtt.command(f"{kind}/config/set", payload)
        assert mqtt.wait_for(BASE + "/error").json == {"command": ANSWERED_AS[kind], "error": error}, payload
    with open(tarvik.config_path) as f:
        assert f.read() == written
    assert [c["method"] for c in world.nm.calls() if c["method"] not in ("GetSettings", "GetSecrets")] == []


def test_modem_set_rewrites_the_file_even_when_networkmanager_refuses_the_update(world, mqtt):
    gsm = scenarios.modem(world, profile="Broadband", active=True)
    tarvik = engineflow.start(world, mqtt)
    world.nm.refuse("Update", "org.freedesktop.NetworkManager.Settings.Connection.PermissionDenied",
                    "Not allowed to update", count=1)

    mqtt.command("modem/config/set", {"interface": "cdc-wdm0", "apn": "telco.example", "username": "alice",
                                      "password": "s3cret", "networkId": "24201", "pin": "1234", "method": "auto"})
    tarvik.wait_for_log(re.escape("[Engine] [Modem] Failed to update connection 'Broadband' : Not allowed to update"))

    # Every key is written, the others as they were.
    written = config_keys(tarvik.config_path)
    assert (len(written), written["Mqtt/port"], written["Ethernet/method"]) == (37, str(world.broker.port), "auto")
    assert {key: written["Modem/" + key] for key in ("apn", "username", "password", "network_id", "pin")} == {
        "apn": "telco.example", "username": "alice", "password": "s3cret", "network_id": "24201", "pin": "1234"}
    assert world.nm.connection_settings(gsm.connection)["gsm"]["apn"] == "internet"
    assert mqtt.messages(BASE + "/error") == []
