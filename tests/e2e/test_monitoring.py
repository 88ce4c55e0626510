"""tarvik follows NetworkManager and ModemManager while it runs.

Each test runs the real binary in its own simulated world, changes that world
and checks what tarvik logs and publishes in response.
"""

import re
import time

import pytest

import scenarios
from engineflow import NO_WIFI, published, start, stamp
from world import gsm_profile, wifi_profile


def state_changes(tarvik, since_line=0):
    return [line for line in tarvik.log_lines[since_line:] if "State changed:" in line]


def test_failed_and_successful_activations_publish_one_state_per_reduced_state(world, mqtt, tarvik_binary):
    wlan = world.nm.add_wifi("wlan0")
    ap = world.nm.add_access_point(wlan, "HomeNet", security="open")
    profile = world.nm.add_connection(wifi_profile("HomeNet", security="none"))
    tarvik = start(world, mqtt)
    mark, since = len(tarvik.log_lines), time.monotonic()

    world.nm.fail_next_activation(wlan, reason=5)
    world.nm.activate(profile, wlan, ap, wait=False)
    tarvik.wait_for_log(
        r"\[Engine\] \[Wifi\] State changed: Unavailable \(dev=wlan0, reason=ConfigUnavailableReason\)\.$")
    tarvik.wait_for_log(
        r"\[Engine\] \[Wifi\] State changed: Disconnected \(dev=wlan0, reason=ConfigUnavailableReason\)\.$")
    mqtt.sync()
    assert len(state_changes(tarvik, mark)) == 3
    assert [m.json["stateStr"] for m in published(mqtt, "wifi/state", since)] == [
        "Connecting", "Unavailable", "Disconnected"]

    # Unmanaged and Unavailable reduce to the same state: nothing to report
    # between the first and the last change.
    mark = len(tarvik.log_lines)
    for state, reason in ((20, 0), (10, 3), (20, 0), (30, 0)):
        world.nm.set_device_state(wlan, state, reason=reason)
    tarvik.wait_for_log(r"\[Engine\] \[Wifi\] State changed: Disconnected \(dev=wlan0, reason=UnknownReason\)\.$")
    assert [line.split("State changed: ")[1] for line in state_changes(tarvik, mark)] == [
        "Unavailable (dev=wlan0, reason=UnknownReason).", "Disconnected (dev=wlan0, reason=UnknownReason)."]
    mqtt.sync()

    # 30 -> 40 -> 50 -> 70 -> 80 -> 90 -> 100, as the daemon does it.
    mark, since = len(tarvik.log_lines), time.monotonic()
    world.nm.activate(profile, wlan, ap)
    tarvik.wait_for_log(r"\[Engine\] \[Wifi\] State changed: Connected \(dev=wlan0, reason=UnknownReason\)\.$")
    mqtt.sync()
    assert [re.sub(r"^.*\[Engine\] ", "", line) for line in state_changes(tarvik, mark)] == [
        "[Wifi] State changed: Connecting (dev=wlan0, reason=UnknownReason).",
        "[Wifi] State changed: Connected (dev=wlan0, reason=UnknownReason).",
    ]
    states = published(mqtt, "wifi/state", since)
    assert [(m.json["state"], m.json["stateStr"], m.qos) for m in states] == [(3, "Connecting", 2), (4, "Connected", 2)]
    assert states[-1].json["ap"]["ssid"] == "HomeNet"
    tarvik.wait_for_log(r"\[Engine\] \[Network\] Primary connection changed: HomeNet$")
    status = mqtt.wait_for(mqtt.topic("status"), predicate=lambda m: m.json["primaryConnection"] is not None)
    assert status.json["primaryConnection"]["connectionName"] == "HomeNet"


def test_cable_pulled_and_plugged_back_is_followed_to_connected(world, mqtt, tarvik_binary):
    eth = scenarios.ethernet(world, active=True)
    # A modem that ModemManager does not know is watched all the same.
    world.nm.add_modem("cdc-wdm0", modem="/org/freedesktop/ModemManager1/Modem/42")
    tarvik = start(world, mqtt)
    tarvik.wait_for_log(r"\[Engine\] \[Modem\] Started monitoring device: cdc-wdm0$")
    tarvik.wait_for_log(r"\[Engine\] \[Modem\] Checking connection: Broadband$")
    since = time.monotonic()

    world.nm.set_carrier(eth.device, False)
    tarvik.wait_for_log(r"\[Engine\] \[Ethernet\] State changed: Unavailable \(dev=eth0, reason=CarrierReason\)\.$")
    # NetworkManager connects an autoconnect profile again once the cable is back.
    world.nm.set_carrier(eth.device, True)
    tarvik.wait_for_log(r"\[Engine\] \[Ethernet\] State changed: Connected \(dev=eth0, reason=UnknownReason\)\.$")
    mqtt.sync()
    assert [m.json["stateStr"] for m in published(mqtt, "ethernet/state", since)] == [
        "Disconnected", "Disconnected", "Connecting", "Connected"]


def test_managed_flag_and_interface_name_are_only_logged(world, mqtt, tarvik_binary):
    wlan = world.nm.add_wifi("wlan0")
    tarvik = start(world, mqtt)
    since = time.monotonic()

    world.nm.set_managed(wlan, False)
    tarvik.wait_for_log(r"\[Engine\] \[Wifi\] Device is no longer managed \(name=wlan0\)\.$")
    world.nm.set_managed(wlan, True)
    tarvik.wait_for_log(r"\[Engine\] \[Wifi\] Device is now managed \(name=wlan0\)\.$")
    world.nm.set_interface_name(wlan, "wlan7")
    tarvik.wait_for_log(r"\[Engine\] \[Wifi\] Device interface name changed: wlan7\.$")
    mqtt.sync()
    documents = [m.topic for m in mqtt.messages() if m.time >= since and not m.topic.endswith("/get")]
    assert documents == [mqtt.topic("info")]


def test_device_added_is_provisioned_a_second_later_and_removal_only_logged(world, mqtt, tarvik_binary):
    tarvik = start(world, mqtt, config={"Wifi": {"ssid": ""}, "Ethernet": {"id": "Office LAN"}})

    eth = world.nm.add_ethernet("eth1", carrier=True)
    added = tarvik.wait_for_log(r"\[Engine\] Device added: Ethernet \(dev=eth1, active=0, managed=1\)$")
    monitored = tarvik.wait_for_log(r"\[Engine\] \[Ethernet\] Started monitoring device: eth1$")
    delay = stamp(monitored.string) - stamp(added.string)
    assert 0.995 <= delay < 2, f"provisioned {delay:.3f} s after the announcement"
    tarvik.wait_for_log(r"\[Engine\] \[Ethernet\] Connection 'Office LAN' created successfully\.$")
    mqtt.wait_for(mqtt.topic("ethernet/state"), predicate=lambda m: m.json["interface"] == "eth1")
    mqtt.wait_for(mqtt.topic("ethernet/config"), predicate=lambda m: m.json["interface"] == "eth1")
    assert world.nm.find_connection("Office LAN") is not None

    tarvik.wait_for_log(r"\[Engine\] \[Ethernet\] State changed: Connected \(dev=eth1, reason=UnknownReason\)\.$")

    # The removal itself is only logged; what follows comes from the
    # device's last state changes, not from a new provisioning.
    mqtt.sync()
    mark, since = len(tarvik.log_lines), time.monotonic()
    world.nm.remove_device(eth)
    tarvik.wait_for_log(r"\[Engine\] Device removed: " + re.escape(eth) + "$")
    mqtt.sync()
    assert published(mqtt, "ethernet/config", since) == []
    assert not any(re.search(r"Stopped monitoring|Checking connection|Started monitoring", line)
                   for line in tarvik.log_lines[mark:])


def test_modem_usage_is_counted_while_connected(world, mqtt, tarvik_binary):
    modem = scenarios.modem(world, profile="Broadband")
    tarvik = start(world, mqtt)
    tarvik.wait_for_log(r"\[Engine\] \[Modem\] State changed: Connected \(dev=cdc-wdm0, reason=UnknownReason\)\.$")
    tarvik.wait_for_log(r"\[Engine\] \[Modem\] Started monitoring Data usage$")

    world.nm.deactivate(modem.device, wait=False)
    tarvik.wait_for_log(
        r"\[Engine\] \[Modem\] State changed: Disconnecting \(dev=cdc-wdm0, reason=UserRequestedReason\)\.$")
    mqtt.sync()
    # Whatever happened in between, counting ends with the connection; the
    # state lines and activations say what happened if it does not.
    monitoring = [line for line in tarvik.log_lines if "monitoring Data usage" in line]
    assert monitoring[-1].endswith("[Engine] [Modem] Stopped monitoring Data usage"), (
        monitoring, state_changes(tarvik), world.nm.calls("ActivateConnection"))


def test_refused_scan_of_last_monitored_wifi_is_logged_without_publication(world, mqtt, tarvik_binary):
    world.nm.add_wifi("wlan0")
    wlan1 = world.nm.add_wifi("wlan1")
    world.nm.refuse("RequestScan", "org.freedesktop.NetworkManager.Device.NotAllowed", "Scanning not allowed",
                    count=-1)
    tarvik = start(world, mqtt, level="3")
    monitored = [line for line in tarvik.log_lines if "Started monitoring device: wlan1" in line][0]
    since = time.monotonic()

    scan = tarvik.wait_for_log(r"\[Engine\] \[Wifi\] Scanning for  Wifi networks\.$", timeout=40)
    refused = tarvik.wait_for_log(r"\[Engine\] \[Wifi\] Failed to scan for Wifi networks: Scanning not allowed$")
    mqtt.sync()

    # A coarse timer: up to 5 % early.
    assert 28.4 <= stamp(scan.string) - stamp(monitored) < 33
    assert stamp(refused.string) - stamp(scan.string) < 1
    assert [call["path"] for call in world.nm.calls("RequestScan")] == [wlan1]
    assert published(mqtt, "wifi/aps", since) == [] and published(mqtt, "wifi/networks", since) == []


MODEM = "/org/freedesktop/ModemManager1/Modem/0"


def networkmanager_devices(world):
    """A Wi-Fi device and the modem with its profile in place and active: reloads leave it alone, so that
    nothing but the test's own changes happens afterwards. Returns the Wi-Fi device."""
    wlan = world.nm.add_wifi("wlan0")
    device = world.nm.add_modem("cdc-wdm0", modem=MODEM)
    world.nm.activate(world.nm.add_connection(gsm_profile("Broadband")), device, instant=True)
    return wlan


def restart_broker(world, tarvik):
    world.broker.restart()
    tarvik.wait_for_log(r"\[Engine\] Reloading all devices and connections\.$", timeout=20)


def restart_modemmanager(world, tarvik):
    world.restart_modemmanager()
    tarvik.wait_for_log(r"\[Engine\] \[Modem\] ModemManager left the system bus\.")
    tarvik.wait_for_log(r"\[Engine\] \[Modem\] ModemManager is on the system bus\.$")
    # The modem comes back at its old path, as a new object.
    world.mm.add_modem(kind="gsm", bearer_interface="wwan0", signal=67)
    tarvik.wait_for_log(r"\[Engine\] \[Modem\] ModemManager announced the modem of cdc-wdm0\.$")


def restart_networkmanager(world, tarvik):
    world.restart_networkmanager()
    tarvik.wait_for_log(r"\[Engine\] \[Network\] NetworkManager left the system bus\. Waiting for it to return\.$")
    tarvik.wait_for_log(r"\[Engine\] \[Network\] NetworkManager is on the system bus\.$")
    tarvik.wait_for_log(r"\[Engine\] Reloading all devices and connections\.$")
    # It comes back with its devices and profiles, announcing each.
    return networkmanager_devices(world)


def test_networkmanager_missing_at_start_is_named_and_awaited(world, mqtt, tarvik_binary):
    world.nm_service.stop()
    tarvik = world.tarvik(config=NO_WIFI, extra_args=["-v", "2"])
    tarvik.wait_for_log(r"\[Engine\] \[Network\] NetworkManager is not on the system bus\. Waiting for it\.$")
    assert mqtt.wait_for(mqtt.topic("status")).json["connectivityStr"] == "UnknownConnectivity"

    world.nm_service.start()
    tarvik.wait_for_log(r"\[Engine\] \[Network\] NetworkManager is on the system bus\.$")
    tarvik.wait_for_log(r"\[Engine\] Reloading all devices and connections\.$")


@pytest.mark.parametrize("restart", [restart_broker, restart_modemmanager, restart_networkmanager],
                         ids=["broker", "modemmanager", "networkmanager"])
def test_restarts_restore_monitoring_without_doubling_a_handler(world, mqtt, tarvik_binary, restart):
    world.mm.add_modem(kind="gsm", bearer_interface="wwan0", signal=67)
    wlan = networkmanager_devices(world)
    tarvik = start(world, mqtt)
    tarvik.wait_for_log(r"\[Engine\] \[Modem\] No update required for connection 'Broadband'\.$")

    wlan = restart(world, tarvik) or wlan
    tarvik.wait_for_log(r"\[Engine\] \[Modem\] No update required for connection 'Broadband'\.$")
    client = world.mqtt(subscribe=world.base + "/#")
    # The current documents are published again (the broker keeps no
    # retained copies over its own restart): the signal comes last.
    client.wait_for(client.topic("modem/signal"))
    # The reload's own configuration document can pass for the first sync's answer while its signal is still
    # on the way; the second sync's answer comes after the reload's work on the modem.
    client.sync()
    client.sync()
    mark, since = len(tarvik.log_lines), time.monotonic()

    world.nm.set_status(60)
    tarvik.wait_for_log(r"\[Engine\] \[Network\] Status changed: 6 \(ConnectedSiteOnly\)$")
    world.nm.set_device_state(wlan, 20, reason=40)
    tarvik.wait_for_log(r"\[Engine\] \[Wifi\] State changed: Unavailable \(dev=wlan0, reason=CarrierReason\)\.$")
    world.nm.add_access_point(wlan, "Cafe", security="open", strength=42)
    tarvik.wait_for_log(r"\[Engine\] \[Wifi\] Network 'Cafe' found")
    world.mm.set_signal(MODEM, 77)
    tarvik.wait_for_log(r"\[Engine\] \[Modem\] Signal changed '77'")
    client.sync()

    for topic in ("status", "wifi/state", "wifi/networks", "modem/signal"):
        assert len(published(client, topic, since)) == 1, f"{topic} published more than once"
    # An access point that shows up is only logged; its network is published.
    assert published(client, "wifi/aps", since) == []
    assert published(client, "modem/signal", since)[0].json == {"interface": "cdc-wdm0", "quality": 77}
    for text in ("Status changed", "State changed", "AccessPoint 'Cafe' appeared", "Network 'Cafe' found",
                 "Signal changed"):
        assert sum(text in line for line in tarvik.log_lines[mark:]) == 1, f"'{text}' logged more than once"
