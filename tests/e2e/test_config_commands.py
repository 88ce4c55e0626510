"""The three configuration commands: the file rewritten with every key, the
device reprovisioned in the simulated NetworkManager, and their error documents."""

import re

import scenarios
from world import config_keys, u32_to_ip4

BASE = "tolv/network"


def full_file(world, **groups):
    """The 37 keys that a rewrite of this world's configuration holds, with the given changes."""
    keys = {
        "Mqtt/url": "127.0.0.1", "Mqtt/port": str(world.broker.port), "Mqtt/user": "", "Mqtt/pass": "",
        "Mqtt/base": BASE,
        "Ethernet/id": "Ethernet", "Ethernet/autocon": "true", "Ethernet/method": "auto",
        "Wifi/id": "Wifi", "Wifi/autocon": "true", "Wifi/ssid": "", "Wifi/key": "", "Wifi/method": "auto",
        "Modem/id": "Broadband", "Modem/autocon": "true", "Modem/username": "", "Modem/password": "",
        "Modem/apn": "internet", "Modem/network_id": "", "Modem/pin": "", "Modem/method": "auto",
        "Modem/usageSec": "120",
    }
    for name in ("address", "mask", "gateway", "dns0", "dns1"):
        keys[f"Ethernet/{name}"] = keys[f"Wifi/{name}"] = ""
    for name in ("address", "netmask", "gateway", "dns0", "dns1"):
        keys[f"Modem/{name}"] = ""
    for group, values in groups.items():
        keys.update({f"{group}/{k}": v for k, v in values.items()})
    assert len(keys) == 37
    return keys


def start(world, **kwargs):
    client = world.mqtt(subscribe=BASE + "/#")
    tarvik = world.tarvik(**kwargs)
    tarvik.wait_for_log(r"\[Engine\] IPC Connected to ")
    # The status follows tarvik's subscriptions on its session: commands sent from now on reach it.
    client.wait_for(BASE + "/status")
    return tarvik, client


def test_wifi_set_with_only_ssid_and_key_empties_ipv4_and_gives_a_link_local_profile(world):
    scenarios.wifi(world)
    tarvik, client = start(world)
    tarvik.wait_for_log(re.escape("[Engine] [Wifi] SSID not configured."))

    client.command("wifi/config/set", {"interface": "wlan0", "ssid": "HomeNet", "key": "sesame-1234"})
    tarvik.wait_for_log(re.escape("[Engine] [Wifi] Connection 'HomeNet' created successfully."))

    assert config_keys(tarvik.config_path) == full_file(world, Wifi={"ssid": "HomeNet", "key": "sesame-1234", "method": ""})
    profile = world.nm.find_connection("HomeNet")
    settings = world.nm.connection_settings(profile)
    assert settings["ipv4"]["method"] == "link-local"
    assert settings["802-11-wireless"]["ssid"] == b"HomeNet"
    assert world.nm.connection_secrets(profile, "802-11-wireless-security")["psk"] == "sesame-1234"
    assert client.messages(BASE + "/error") == []


def test_ethernet_static_address_is_applied_and_activated(world):
    eth = scenarios.ethernet(world)
    tarvik, client = start(world)
    tarvik.wait_for_log(re.escape("[Engine] [Ethernet] Connection 'Ethernet' activated."))
    world.nm.wait_device_state(eth.device, 100)

    client.command("ethernet/config/set", {
        "interface": "eth0", "method": "manual", "address": "192.168.50.7", "netmask": "255.255.255.0",
        "gateway": "192.168.50.1", "dns0": "192.168.50.1", "dns1": "9.9.9.9"})
    tarvik.wait_for_log(re.escape("[Engine] [Ethernet] Connection settings have changed. Applying new settings."))
    tarvik.wait_for_log(re.escape("[Engine] [Ethernet] Connection 'Ethernet' updated."))

    assert config_keys(tarvik.config_path) == full_file(world, Ethernet={
        "method": "manual", "address": "192.168.50.7", "mask": "255.255.255.0", "gateway": "192.168.50.1",
        "dns0": "192.168.50.1", "dns1": "9.9.9.9"})
    ipv4 = world.nm.connection_settings(eth.connection)["ipv4"]
    assert ipv4["method"] == "manual"
    assert [(a["address"], a["prefix"]) for a in ipv4["address-data"]] == [("192.168.50.7", 24)]
    assert ipv4["gateway"] == "192.168.50.1"
    assert [u32_to_ip4(d) for d in ipv4["dns"]] == ["192.168.50.1", "9.9.9.9"]

    connected = client.wait_for(BASE + "/ethernet/state", predicate=lambda m: m.json["state"] == 4
                                and (m.json["ipv4"] or {}).get("address") == "192.168.50.7")
    assert connected.json["ipv4"]["gateway"] == "192.168.50.1"
    client.command("ethernet/config/get", {"interface": "eth0"})
    config = client.wait_for(BASE + "/ethernet/config", predicate=lambda m: m.json.get("method") == "manual")
    assert config.json == {"interface": "eth0", "method": "manual", "address": "192.168.50.7",
                           "netmask": "255.255.255.0", "gateway": "192.168.50.1", "dns0": "192.168.50.1",
                           "dns1": "9.9.9.9"}


def test_unknown_or_mistyped_devices_are_answered_with_the_historic_command_names(world):
    scenarios.ethernet(world, carrier=False, profile=None)
    scenarios.wifi(world)
    tarvik, client = start(world)
    with open(tarvik.config_path) as f:
        written = f.read()

    cases = [
        ("ethernet/config/set", {"interface": "eth9", "method": "auto"},
         {"command": "ethernet/config/get", "error": "Invalid device specified: eth9"}),
        ("ethernet/config/set", {"interface": "wlan0", "method": "auto"},
         {"command": "ethernet/config/get", "error": "Invalid device specified: wlan0"}),
        ("wifi/config/set", {"interface": "eth0", "ssid": "HomeNet"},
         {"command": "wifi/config/get", "error": "Invalid device specified: eth0"}),
        ("modem/config/set", {"interface": "wlan0", "apn": "x"},
         {"command": "modem/config/set", "error": "Invalid device specified: wlan0"}),
        ("modem/config/set", {"apn": "x"},
         {"command": "modem/config/set", "error": "Invalid device specified: "}),
    ]
    for command, payload, error in cases:
        client.command(command, payload)
        assert client.wait_for(BASE + "/error").json == error, command
    with open(tarvik.config_path) as f:
        assert f.read() == written


def test_modem_set_rewrites_the_file_even_when_networkmanager_refuses_the_update(world):
    gsm = scenarios.modem(world, profile="Broadband", active=True)
    tarvik, client = start(world)
    tarvik.wait_for_log(re.escape("[Engine] [Modem] No update required for connection 'Broadband'."))
    world.nm.refuse("Update", "org.freedesktop.NetworkManager.Settings.Connection.PermissionDenied",
                    "Not allowed to update", count=1)

    client.command("modem/config/set", {"interface": "cdc-wdm0", "apn": "telco.example", "username": "alice",
                                        "password": "s3cret", "networkId": "24201", "pin": "1234",
                                        "method": "auto"})
    tarvik.wait_for_log(re.escape("[Engine] [Modem] Failed to update connection 'Broadband' : Not allowed to update"))

    assert config_keys(tarvik.config_path) == full_file(world, Modem={
        "apn": "telco.example", "username": "alice", "password": "s3cret", "network_id": "24201", "pin": "1234"})
    assert world.nm.connection_settings(gsm.connection)["gsm"]["apn"] == "internet"
    assert client.messages(BASE + "/error") == []
