"""tarvik keeps one NetworkManager profile per device in line with its configuration.

Each test prepares devices and saved profiles in the simulated NetworkManager, runs
the real binary, and checks the calls tarvik made and the profiles it leaves behind,
read back from the simulated daemon; log lines only where they are what a user sees.
"""

import pytest

import scenarios
from engineflow import addresses, dns, start
from world import ethernet_profile

def provisioning_lines(tarvik, tag):
    """The engine's lines for one device type, without time stamp, prefix and monitoring lines."""
    prefix = f"[Engine] [{tag}] "
    lines = [line.split(prefix, 1)[1] for line in tarvik.log_lines if prefix in line]
    return [line for line in lines if not line.startswith(("Device found", "Started monitoring", "State changed"))
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

    # Keys and passwords only compare equal once their secrets are fetched;
    # the modem's profile is not active yet and is only activated.
    secrets = [(c["path"], c["args"][0]) for c in world.nm.calls("GetSecrets")]
    assert (wifi.connection, "802-11-wireless-security") in secrets and (gsm.connection, "gsm") in secrets
    assert methods(world) == ["ActivateConnection"]
    assert world.nm.calls("ActivateConnection")[0]["args"] == [gsm.connection, gsm.device, "/"]
    assert provisioning_lines(tarvik, "Ethernet")[-2:] == [
        "Connection 'Ethernet' already exists.", "No update required for connection 'Ethernet'."]


def test_missing_profiles_are_created_from_the_configuration(world, mqtt, tarvik_binary):
    eth = world.nm.add_ethernet("eth0")
    wlan = world.nm.add_wifi("wlan0")
    home = world.nm.add_access_point(wlan, "HomeNet", security="wpa2")
    modem = scenarios.modem(world)
    tarvik = start(world, mqtt, config={
        "Ethernet": {"id": "Office LAN", "autocon": False, "method": "manual", "address": "192.168.1.20",
                     "mask": "255.255.255.0", "gateway": "192.168.1.254", "dns0": "192.168.1.1", "dns1": "9.9.9.9"},
        "Wifi": {"ssid": "HomeNet", "key": "homenet-secret", "method": "link-local"},
        "Modem": {"id": "Mobile", "apn": "internet.example", "username": "user", "password": "secret",
                  "pin": "1234", "network_id": "24201"}})
    tarvik.wait_for_log(r"\[Engine\] \[Modem\] Connection 'Mobile' created successfully\.$")

    created = {c["args"][1]: c["args"][2] for c in world.nm.calls("AddAndActivateConnection")}
    assert created == {eth: "/", wlan: home, modem.device: "/"}
    # The profile reaches the device's list after it was created: the retained
    # configuration documents must end up describing it all the same.
    for topic, key, value in (("ethernet/config", "method", "manual"), ("wifi/config", "ssid", "HomeNet"),
                              ("modem/config", "apn", "internet.example")):
        mqtt.wait_for(mqtt.topic(topic), predicate=lambda m: m.json.get(key) == value)

    wired = world.nm.connection_settings(world.nm.find_connection("Office LAN"))
    assert (wired["connection"]["type"], wired["connection"]["autoconnect"]) == ("802-3-ethernet", False)
    assert (wired["ipv4"]["method"], addresses(wired["ipv4"]), dns(wired["ipv4"])) == (
        "manual", [("192.168.1.20", 24, "192.168.1.254")], ["192.168.1.1", "9.9.9.9"])

    wireless_path = world.nm.find_connection("HomeNet")
    wireless = world.nm.connection_settings(wireless_path)
    assert (wireless["connection"]["type"], wireless["connection"].get("autoconnect", True),
            wireless["802-11-wireless"]["ssid"], wireless["802-11-wireless"]["security"],
            wireless["802-11-wireless-security"]["key-mgmt"]) == (
        "802-11-wireless", True, b"HomeNet", "802-11-wireless-security", "wpa-psk")
    assert world.nm.connection_secrets(wireless_path, "802-11-wireless-security") == {"psk": "homenet-secret"}
    assert (wireless["ipv4"]["method"], wireless["ipv6"]["method"]) == ("link-local", "ignore")

    gsm_path = world.nm.find_connection("Mobile")
    gsm = world.nm.connection_settings(gsm_path)["gsm"]
    assert (gsm["apn"], gsm["username"], gsm["network-id"], gsm["number"]) == (
        "internet.example", "user", "24201", "*99#")
    assert (gsm.get("password-flags", 0), gsm.get("pin-flags", 0)) == (0, 0)
    assert world.nm.connection_secrets(gsm_path, "gsm") == {"password": "secret", "pin": "1234"}


# Access points whose security leads to another security setting than WPA's (in the test above).
SECURITIES = [
    ({"security": "wep"}, {"key-mgmt": "none", "wep-key-type": 2}, {"wep-key0": "abcde"}),
    # RSN flags without the privacy bit: neither open nor protected. Logged at error level (red), no security.
    ({"flags": 0, "wpa": 0, "rsn": 0x188}, None, {}),
]


@pytest.mark.parametrize("flags, security, secrets", SECURITIES, ids=["wep", "unclassifiable"])
def test_wifi_profile_gets_the_security_its_access_point_asks_for(world, mqtt, tarvik_binary, flags, security,
                                                                   secrets):
    wlan = world.nm.add_wifi("wlan0")
    world.nm.add_access_point(wlan, "Router", **flags)
    tarvik = start(world, mqtt, config={"Wifi": {"ssid": "Router", "key": "abcde"}}, extra_args=["-c"])
    tarvik.wait_for_log(r"\[Engine\] \[Wifi\] Connection 'Router' created successfully\.")

    path = world.nm.find_connection("Router")
    settings = world.nm.connection_settings(path)
    assert settings.get("802-11-wireless-security") == security
    assert world.nm.connection_secrets(path, "802-11-wireless-security") == secrets
    unclassified = ("\x1b[31m[Engine] Could not determine Wifi security for AP 'Router'. "
                    "Defaulting to 'none'.\x1b[39m")
    assert any(line.endswith(unclassified) for line in tarvik.log_lines) == (security is None)


def test_devices_that_cannot_or_must_not_be_connected_get_no_profile(world, mqtt, tarvik_binary):
    scenarios.ethernet(world, carrier=False, profile=None)
    scenarios.wifi(world)
    # NetworkManager would complete a profile without a type for a veth and activate it.
    world.nm.add_device("veth0", 20)
    world.nm.clear_calls()
    tarvik = start(world, mqtt, config={"Wifi": {"ssid": "Elsewhere", "key": "x"}})
    mqtt.wait_for(mqtt.topic("wifi/config"))
    tarvik.wait_for_log(r"\[Engine\] Skipping device: veth0$")

    assert provisioning_lines(tarvik, "Ethernet") == [
        "Carrier not detected (cable unplugged). Will not attempt to connect."]
    assert provisioning_lines(tarvik, "Wifi") == [
        "Configured access point 'Elsewhere' not in range. Will not attempt to connect."]
    assert provisioning_lines(tarvik, "Veth") == ["No configuration for this device type. Will not attempt to connect."]
    assert methods(world) == [] and world.nm.connections() == []


def test_first_of_two_equally_named_profiles_is_used_and_unreadable_secrets_count_as_changed(world, mqtt,
                                                                                             tarvik_binary):
    eth = world.nm.add_ethernet("eth0")
    first = world.nm.add_connection(ethernet_profile("Ethernet", autoconnect=False))
    second = world.nm.add_connection(ethernet_profile("Ethernet"))
    wifi = scenarios.wifi(world, profile_ssid="HomeNet", key="homenet-secret", active=True)
    world.nm.refuse("GetSecrets", "org.freedesktop.NetworkManager.AgentManager.NoSecrets", "No agents available")
    world.nm.clear_calls()
    tarvik = start(world, mqtt, config={"Wifi": {"ssid": "HomeNet", "key": "homenet-secret"}})
    tarvik.wait_for_log(r"\[Engine\] \[Ethernet\] Connection 'Ethernet' updated\.$")
    tarvik.wait_for_log(r"\[Engine\] \[Wifi\] Connection 'HomeNet' updated\.$")

    assert {c["path"] for c in world.nm.calls("Update")} == {first, wifi.connection}
    assert world.nm.calls("ActivateConnection")[0]["args"][:2] == [first, eth]
    # Every update names an empty GSM password and PIN, which NetworkManager refuses for a profile without
    # them: the same update goes again without that group, and one line says so.
    refused, again = [c["args"][0] for c in world.nm.calls("Update") if c["path"] == first]
    assert refused["gsm"] == {"password": "", "pin": ""} and again == {k: v for k, v in refused.items() if k != "gsm"}
    assert provisioning_lines(tarvik, "Ethernet")[-2:] == [
        "NetworkManager refused the empty GSM secrets of connection 'Ethernet' (gsm.password: property is empty). "
        "Updating without them.", "Connection 'Ethernet' updated."]
    assert world.nm.connection_settings(first)["connection"].get("autoconnect", True) is True
    assert world.nm.connection_settings(second)["connection"]["autoconnect"] is True
    assert provisioning_lines(tarvik, "Wifi").count("Failed to get secrets: 'HomeNet' : No agents available") == 1
    update = [c for c in world.nm.calls("Update") if c["path"] == wifi.connection][-1]
    assert update["args"][0]["802-11-wireless-security"]["psk"] == "homenet-secret"


# A refusal of NetworkManager's is logged with its message and ends the provisioning of the device:
# a profile that differs from the configuration is updated first, an equal one only activated.
REFUSALS = [
    ("Update", False, "org.freedesktop.NetworkManager.Settings.Connection.PermissionDenied",
     "Insufficient privileges.", "Failed to update connection 'Ethernet' : Insufficient privileges."),
    ("ActivateConnection", True, "org.freedesktop.NetworkManager.UnknownConnection",
     "Not available on device eth0", "Failed to activate connection: Not available on device eth0"),
]


@pytest.mark.parametrize("method, autoconnect, error, message, line", REFUSALS, ids=["update", "activation"])
def test_refusals_are_logged_and_change_nothing(world, mqtt, tarvik_binary, method, autoconnect, error, message,
                                                line):
    eth = scenarios.ethernet(world, autoconnect=autoconnect)
    before = world.nm.connection_settings(eth.connection)
    world.nm.refuse(method, error, message, count=-1)
    world.nm.clear_calls()
    tarvik = start(world, mqtt)
    mqtt.wait_for(mqtt.topic("ethernet/config"))
    mqtt.sync()

    assert provisioning_lines(tarvik, "Ethernet")[-1] == line
    assert methods(world) == [method]
    assert world.nm.connection_settings(eth.connection) == before
