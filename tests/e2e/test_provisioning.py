"""tarvik keeps one NetworkManager profile per device in line with its configuration.

Each test prepares devices and saved profiles in a simulated NetworkManager,
runs the real binary, and checks both sides: the lines tarvik logs and the
profiles it leaves behind, read back from the simulated daemon.
"""

import re

import scenarios
from engineflow import addresses, dns, start, sync
from world import ethernet_profile, ipv4_setting

STATIC_ETHERNET = {"method": "manual", "address": "192.168.1.20", "mask": "255.255.255.0",
                   "gateway": "192.168.1.254", "dns0": "", "dns1": "9.9.9.9"}


def engine_lines(tarvik, tag):
    """The engine's lines for one device type, without time stamp and prefix."""
    prefix = f"[Engine] [{tag}] "
    return [line.split(prefix, 1)[1] for line in tarvik.log_lines if prefix in line]


def provisioning_lines(tarvik, tag):
    return [line for line in engine_lines(tarvik, tag)
            if not line.startswith(("Device found", "Started monitoring", "State changed"))
            and "Data usage" not in line]


def methods(world):
    return [call["method"] for call in world.nm.calls()
            if call["method"] in ("Update", "ActivateConnection", "AddAndActivateConnection")]


def test_profiles_equal_to_the_configuration_are_left_alone(world, mqtt, tarvik_binary):
    scenarios.ethernet(world, active=True)
    wifi = scenarios.wifi(world, profile_ssid="HomeNet", key="homenet-secret", active=True)
    gsm = scenarios.modem(world, profile="Broadband", apn="internet.example", username="user",
                          password="secret", pin="1234", network_id="24201")
    world.nm.clear_calls()
    tarvik = start(world, mqtt, config={
        "Wifi": {"ssid": "HomeNet", "key": "homenet-secret"},
        "Modem": {"apn": "internet.example", "username": "user", "password": "secret", "pin": "1234",
                  "network_id": "24201"}})
    tarvik.wait_for_log(r"\[Engine\] \[Modem\] Connection 'Broadband' activated\.$")

    assert provisioning_lines(tarvik, "Ethernet") == [
        "Carrier detected (cable is plugged).",
        "Checking connection: Ethernet",
        "Connection 'Ethernet' already exists.",
        "No update required for connection 'Ethernet'.",
    ]
    # The key only compares equal once the secrets have been fetched.
    assert provisioning_lines(tarvik, "Wifi") == [
        "Checking connection: HomeNet",
        "Connection 'HomeNet' already exists.",
        "No update required for connection 'HomeNet'.",
    ]
    # Same for the modem's password and PIN; its profile is not active yet.
    assert provisioning_lines(tarvik, "Modem") == [
        "Checking connection: Broadband",
        "Connection 'Broadband' already exists.",
        "No update required for connection 'Broadband'.",
        "Connection 'Broadband' not active. Activating.",
        "Connection 'Broadband' activated.",
    ]
    secrets = [(c["path"], c["args"][0]) for c in world.nm.calls("GetSecrets")]
    assert (wifi.connection, "802-11-wireless-security") in secrets and (gsm.connection, "gsm") in secrets
    activations = world.nm.calls("ActivateConnection")
    assert [c["args"] for c in activations] == [[gsm.connection, gsm.device, "/"]]
    assert methods(world) == ["ActivateConnection"]


def test_changed_static_address_is_written_and_reactivated(world, mqtt, tarvik_binary):
    eth = scenarios.ethernet(world, active=True,
                             ipv4=ipv4_setting("manual", "192.168.1.10", 24, "192.168.1.1", dns=["192.168.1.1"]))
    world.nm.clear_calls()
    tarvik = start(world, mqtt, config={"Ethernet": STATIC_ETHERNET})
    tarvik.wait_for_log(r"\[Engine\] \[Ethernet\] Connection 'Ethernet' updated\.$")

    # The empty GSM secrets that every update names are refused for a wired
    # profile: the same update goes again without the group it did not have.
    assert provisioning_lines(tarvik, "Ethernet") == [
        "Carrier detected (cable is plugged).",
        "Checking connection: Ethernet",
        "Connection 'Ethernet' already exists.",
        "Connection settings have changed. Applying new settings.",
        "NetworkManager refused the empty GSM secrets of connection 'Ethernet' "
        "(gsm.password: property is empty). Updating without them.",
        "Connection 'Ethernet' updated.",
    ]
    assert methods(world) == ["Update", "Update", "ActivateConnection"]
    first, second = world.nm.calls("Update")
    assert first["path"] == second["path"] == eth.connection
    assert first["args"][0]["gsm"] == {"password": "", "pin": ""}
    assert second["args"][0] == {k: v for k, v in first["args"][0].items() if k != "gsm"}
    assert world.nm.calls("ActivateConnection")[0]["args"] == [eth.connection, eth.device, "/"]

    ipv4 = world.nm.connection_settings(eth.connection)["ipv4"]
    assert ipv4["method"] == "manual"
    assert addresses(ipv4) == [("192.168.1.20", 24, "192.168.1.254")]
    assert dns(ipv4) == ["9.9.9.9"]


def test_missing_profiles_are_created_from_the_configuration(world, mqtt, tarvik_binary):
    eth = world.nm.add_ethernet("eth0")
    wlan = world.nm.add_wifi("wlan0")
    home = world.nm.add_access_point(wlan, "HomeNet", security="wpa2")
    modem = scenarios.modem(world)
    tarvik = start(world, mqtt, config={
        "Ethernet": {"id": "Office LAN", "autocon": False, **STATIC_ETHERNET, "dns0": "192.168.1.1"},
        "Wifi": {"ssid": "HomeNet", "key": "homenet-secret", "method": "link-local"},
        "Modem": {"id": "Mobile", "apn": "internet.example", "username": "user", "password": "secret",
                  "pin": "1234", "network_id": "24201"}})
    tarvik.wait_for_log(r"\[Engine\] \[Modem\] Connection 'Mobile' created successfully\.$")

    for tag, name in (("Ethernet", "Office LAN"), ("Wifi", "HomeNet"), ("Modem", "Mobile")):
        assert provisioning_lines(tarvik, tag)[-3:] == [
            f"Checking connection: {name}",
            f"Connection '{name}' does not exist. Creating and activating.",
            f"Connection '{name}' created successfully.",
        ]
    created = {c["args"][1]: c["args"][2] for c in world.nm.calls("AddAndActivateConnection")}
    assert created == {eth: "/", wlan: home, modem.device: "/"}
    # The profile reaches the device's list after it was created: the retained
    # configuration documents must end up describing it all the same.
    for topic, key, value in (("ethernet/config", "method", "manual"), ("wifi/config", "ssid", "HomeNet"),
                              ("modem/config", "apn", "internet.example")):
        mqtt.wait_for(mqtt.topic(topic), predicate=lambda m: m.json.get(key) == value)

    wired = world.nm.connection_settings(world.nm.find_connection("Office LAN"))
    assert (wired["connection"]["type"], wired["connection"]["autoconnect"]) == ("802-3-ethernet", False)
    assert wired["ipv4"]["method"] == "manual"
    assert addresses(wired["ipv4"]) == [("192.168.1.20", 24, "192.168.1.254")]
    assert dns(wired["ipv4"]) == ["192.168.1.1", "9.9.9.9"]

    wireless_path = world.nm.find_connection("HomeNet")
    wireless = world.nm.connection_settings(wireless_path)
    assert wireless["connection"]["type"] == "802-11-wireless"
    assert wireless["connection"].get("autoconnect", True) is True
    assert wireless["802-11-wireless"]["ssid"] == b"HomeNet"
    assert wireless["802-11-wireless"]["security"] == "802-11-wireless-security"
    assert wireless["802-11-wireless-security"]["key-mgmt"] == "wpa-psk"
    assert world.nm.connection_secrets(wireless_path, "802-11-wireless-security") == {"psk": "homenet-secret"}
    assert wireless["ipv4"]["method"] == "link-local"
    assert wireless["ipv6"]["method"] == "ignore"

    gsm_path = world.nm.find_connection("Mobile")
    gsm = world.nm.connection_settings(gsm_path)["gsm"]
    assert (gsm["apn"], gsm["username"], gsm["network-id"], gsm["number"]) == (
        "internet.example", "user", "24201", "*99#")
    assert (gsm.get("password-flags", 0), gsm.get("pin-flags", 0)) == (0, 0)
    assert world.nm.connection_secrets(gsm_path, "gsm") == {"password": "secret", "pin": "1234"}


def test_wep_network_gets_a_passphrase_key(world, mqtt, tarvik_binary):
    wlan = world.nm.add_wifi("wlan0")
    world.nm.add_access_point(wlan, "OldRouter", security="wep")
    tarvik = start(world, mqtt, config={"Wifi": {"ssid": "OldRouter", "key": "abcde"}})
    tarvik.wait_for_log(r"\[Engine\] \[Wifi\] Connection 'OldRouter' created successfully\.$")

    path = world.nm.find_connection("OldRouter")
    security = world.nm.connection_settings(path)["802-11-wireless-security"]
    assert (security["key-mgmt"], security["wep-key-type"]) == ("none", 2)
    assert world.nm.connection_secrets(path, "802-11-wireless-security") == {"wep-key0": "abcde"}


def test_unclassifiable_access_point_gets_no_security(world, mqtt, tarvik_binary):
    wlan = world.nm.add_wifi("wlan0")
    # RSN flags without the privacy bit: neither open nor protected.
    world.nm.add_access_point(wlan, "Odd", flags=0, wpa=0, rsn=0x188)
    tarvik = start(world, mqtt, config={"Wifi": {"ssid": "Odd", "key": "whatever"}}, extra_args=["-c"])
    tarvik.wait_for_log(r"\[Engine\] \[Wifi\] Connection 'Odd' created successfully\.")

    # Logged at error level: red.
    assert any(line.endswith("\x1b[31m[Engine] Could not determine Wifi security for AP 'Odd'. "
                             "Defaulting to 'none'.\x1b[39m") for line in tarvik.log_lines)
    settings = world.nm.connection_settings(world.nm.find_connection("Odd"))
    assert "802-11-wireless-security" not in settings
    assert "security" not in settings["802-11-wireless"]


def test_unplugged_cable_and_missing_network_touch_no_profile(world, mqtt, tarvik_binary):
    scenarios.ethernet(world, carrier=False, profile=None)
    scenarios.wifi(world)
    world.nm.clear_calls()
    tarvik = start(world, mqtt, config={"Wifi": {"ssid": "Elsewhere", "key": "x"}})
    state = mqtt.wait_for(mqtt.topic("ethernet/state"))
    mqtt.wait_for(mqtt.topic("ethernet/config"))
    mqtt.wait_for(mqtt.topic("wifi/config"))

    assert provisioning_lines(tarvik, "Ethernet") == [
        "Carrier not detected (cable unplugged). Will not attempt to connect."]
    assert provisioning_lines(tarvik, "Wifi") == [
        "Configured access point 'Elsewhere' not in range. Will not attempt to connect."]
    assert state.json["stateStr"] == "Disconnected"
    assert methods(world) == [] and world.nm.connections() == []


def test_first_listed_of_two_equally_named_profiles_is_used(world, mqtt, tarvik_binary):
    eth = world.nm.add_ethernet("eth0")
    first = world.nm.add_connection(ethernet_profile("Ethernet", autoconnect=False))
    second = world.nm.add_connection(ethernet_profile("Ethernet"))
    world.nm.clear_calls()
    tarvik = start(world, mqtt)
    tarvik.wait_for_log(r"\[Engine\] \[Ethernet\] Connection 'Ethernet' updated\.$")

    assert {c["path"] for c in world.nm.calls("Update")} == {first}
    assert world.nm.calls("ActivateConnection")[0]["args"][:2] == [first, eth]
    assert world.nm.connection_settings(first)["connection"].get("autoconnect", True) is True
    assert world.nm.connection_settings(second)["connection"]["autoconnect"] is True


def test_refused_update_is_logged_and_changes_nothing(world, mqtt, tarvik_binary):
    eth = scenarios.ethernet(world, autoconnect=False, active=True)
    before = world.nm.connection_settings(eth.connection)
    world.nm.refuse("Update", "org.freedesktop.NetworkManager.Settings.Connection.PermissionDenied",
                    "Insufficient privileges.")
    world.nm.clear_calls()
    tarvik = start(world, mqtt)
    tarvik.wait_for_log(r"\[Engine\] \[Ethernet\] Failed to update connection 'Ethernet' : "
                        r"Insufficient privileges\.$")
    mqtt.wait_for(mqtt.topic("ethernet/config"))
    sync(mqtt)

    assert provisioning_lines(tarvik, "Ethernet")[-2:] == [
        "Connection settings have changed. Applying new settings.",
        "Failed to update connection 'Ethernet' : Insufficient privileges.",
    ]
    assert methods(world) == ["Update"]
    assert world.nm.connection_settings(eth.connection) == before


def test_device_of_another_type_gets_no_profile(world, mqtt, tarvik_binary):
    # NetworkManager would complete a profile without a type for a veth and activate it.
    world.nm.add_device("veth0", 20)
    world.nm.clear_calls()
    tarvik = start(world, mqtt)
    tarvik.wait_for_log(r"\[Engine\] Skipping device: veth0$")

    assert provisioning_lines(tarvik, "Veth") == ["No configuration for this device type. Will not attempt to connect."]
    assert methods(world) == [] and world.nm.connections() == []


def test_refused_activation_is_logged(world, mqtt, tarvik_binary):
    scenarios.ethernet(world)
    world.nm.refuse("ActivateConnection", "org.freedesktop.NetworkManager.UnknownConnection",
                    "Connection 'Ethernet' is not available on device eth0")
    tarvik = start(world, mqtt)
    mqtt.wait_for(mqtt.topic("ethernet/config"))

    assert provisioning_lines(tarvik, "Ethernet")[-2:] == [
        "Connection 'Ethernet' not active. Activating.",
        "Failed to activate connection: Connection 'Ethernet' is not available on device eth0",
    ]


def test_unreadable_wifi_secrets_make_the_key_count_as_changed(world, mqtt, tarvik_binary):
    wifi = scenarios.wifi(world, profile_ssid="HomeNet", key="homenet-secret", active=True)
    world.nm.refuse("GetSecrets", "org.freedesktop.NetworkManager.AgentManager.NoSecrets", "No agents available")
    tarvik = start(world, mqtt, config={"Wifi": {"ssid": "HomeNet", "key": "homenet-secret"}})
    tarvik.wait_for_log(r"\[Engine\] \[Wifi\] Connection 'HomeNet' updated\.$")

    assert provisioning_lines(tarvik, "Wifi")[:4] == [
        "Checking connection: HomeNet",
        "Connection 'HomeNet' already exists.",
        "Failed to get secrets: 'HomeNet' : No agents available",
        "Connection settings have changed. Applying new settings.",
    ]
    update = world.nm.calls("Update")[-1]
    assert update["path"] == wifi.connection
    assert update["args"][0]["802-11-wireless-security"]["psk"] == "homenet-secret"
