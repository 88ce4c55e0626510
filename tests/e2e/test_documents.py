"""The documents tarvik publishes about the network and its devices, as a
client on the broker sees them: content taken from the simulated world, the
indented text form with keys in ascending order, QoS 2 on a QoS 2
subscription, and the retained copy that a late subscriber gets."""

import json
import os
import time

import dbus
import pytest

import scenarios
from world import World, ipv4_setting, wifi_profile

TIMEOUT = 15

ETH_MAC = "00:11:22:33:44:55"
WLAN_MAC = "00:11:22:33:44:66"
HOME_KEY = scenarios.DEMO_WIFI_KEY


# ---------------------------------------------------------------------------
# helpers

def qt_indented(value, level=0):
    """The text QJsonDocument::toJson() writes for a value: four blanks per
    level, one member per line, keys in ascending order, and empty containers
    still broken over two lines."""
    outer = "    " * level
    inner = "    " * (level + 1)
    if isinstance(value, dict):
        items = [inner + json.dumps(key, ensure_ascii=False) + ": " + qt_indented(value[key], level + 1)
                 for key in sorted(value)]
        brackets = "{}"
    elif isinstance(value, list):
        items = [inner + qt_indented(item, level + 1) for item in value]
        brackets = "[]"
    else:
        return json.dumps(value, ensure_ascii=False)
    return brackets[0] + "\n" + ",\n".join(items) + ("\n" if items else "") + outer + brackets[1]


def check_form(msg):
    assert msg.text == qt_indented(msg.json) + "\n", \
        "%s is not in the indented form with ascending keys:\n%s" % (msg.topic, msg.text)
    assert msg.qos == 2, "%s arrived with QoS %d on a QoS 2 subscription" % (msg.topic, msg.qos)


def check_retained(scene, msg):
    """A client subscribing after the publication gets the same document, retained."""
    late = scene.world.mqtt()
    try:
        late.subscribe(msg.topic, qos=2)
        copy = late.wait_for(msg.topic, timeout=TIMEOUT)
        assert copy.retain, "%s is not retained" % msg.topic
        assert copy.payload == msg.payload
    finally:
        late.disconnect()


def ask(scene, command, topic, expected, payload=None, normalise=lambda doc: doc):
    """Sends the get command until the answer on the topic equals the expected
    document (the world may still be settling into the state the test set up),
    then checks the answer's form and its retained copy."""
    client = scene.client
    full = scene.world.base + "/" + topic
    deadline = time.monotonic() + TIMEOUT
    answer = None
    while time.monotonic() < deadline:
        client.clear()
        client.command(command, payload or {})
        try:
            answer = client.wait_for(full, timeout=max(0.1, min(2, deadline - time.monotonic())))
        except TimeoutError:
            continue
        if normalise(answer.json) == normalise(expected):
            break
    assert answer is not None, "no answer to %s on %s\n%s" % (command, full, scene.log_tail())
    assert normalise(answer.json) == normalise(expected), scene.log_tail()
    check_form(answer)
    check_retained(scene, answer)
    return answer.json


def expect_event(scene, topic, expected):
    """Waits for a document that tarvik publishes by itself and checks it like an answer."""
    full = scene.world.base + "/" + topic
    try:
        msg = scene.client.wait_for(full, timeout=TIMEOUT, predicate=lambda m: m.json == expected)
    except TimeoutError:
        got = [m.json for m in scene.client.messages(full)]
        pytest.fail("no document equal to %r on %s; got %r\n%s" % (expected, full, got, scene.log_tail()))
    check_form(msg)
    check_retained(scene, msg)


def access_point(ssid, bssid, strength, frequency, security, max_bitrate=54000):
    return {"ssid": ssid, "hardwareAddress": bssid, "signalStrength": strength, "frequency": frequency,
            "maxBitRate": max_bitrate, "mode": "infra", "security": security}


def unordered_networks(document):
    """Networks (and the access points of each) come in no defined order."""
    networks = sorted(document["networks"], key=lambda n: n["ssid"])
    for network in networks:
        network["accessPoints"] = sorted(network["accessPoints"], key=lambda ap: ap["hardwareAddress"])
    return dict(document, networks=networks)


def state_members(interface, device_type, type_text, state, state_text, reason=0, reason_text="UnknownReason"):
    return {"interface": interface, "type": device_type, "typeStr": type_text, "state": state,
            "stateStr": state_text, "reason": reason, "reasonStr": reason_text}


def forget_loaded_secrets(world, *connections):
    """Announces the profiles as changed: tarvik's library drops the settings it
    holds for them (with the secrets that provisioning loaded) and reads them
    again, without secrets, so a document must ask for the secrets itself."""
    world.nm.clear_calls()
    for connection in connections:
        world.nm.mock.EmitOn(connection, "org.freedesktop.NetworkManager.Settings.Connection", "Updated",
                             dbus.Array([], signature="v"))
    world.nm.wait_for_call("GetSettings", count=len(connections))


class Scene:
    """A simulated world with tarvik running against it and a client on everything it publishes."""

    def __init__(self):
        self.world = World()
        self.tarvik = None
        self.client = None

    def start(self, config, last_topics):
        """Starts tarvik and waits until its reload has published the documents of every device."""
        self.client = self.world.mqtt(subscribe=self.world.base + "/#")
        self.tarvik = self.world.tarvik(config=dict(config, **{"Modem/usageSec": 0}))
        for topic in last_topics:
            self.client.wait_for(self.world.base + "/" + topic, timeout=TIMEOUT)
        return self

    def log_tail(self):
        return "tarvik's last log lines:\n" + "\n".join(self.tarvik.log_lines[-30:]) if self.tarvik else ""


@pytest.fixture(scope="module")
def scene_factory():
    if not os.path.exists(os.environ.get("TARVIK_BINARY", "")):
        pytest.skip("TARVIK_BINARY is not built")
    started = []

    def make():
        scene = Scene()
        started.append(scene)
        scene.world.start()
        return scene
    try:
        yield make
    finally:
        for scene in started:
            scene.world.stop()


# ---------------------------------------------------------------------------
# everything connected: wired (static address), Wi-Fi with a key, GSM modem with secrets

# How the simulated access points announce each security text; "unknown" is
# RSN flags without the privacy bit.
AP_FLAGS = {"none": {"security": "open"}, "wep": {"security": "wep"}, "wpa2": {"security": "wpa2"},
            "wpa1-wpa2": {"security": "wpa1-wpa2"}, "unknown": {"flags": 0, "wpa": 0, "rsn": 0x188}}

HOME_APS = [
    # ssid, bssid, strength, frequency, security
    ("HomeNet", "AA:BB:CC:DD:EE:01", 82, 2437, "wpa2"),
    ("CafeOpen", "AA:BB:CC:DD:EE:02", 64, 2412, "none"),
    ("OldRouter", "AA:BB:CC:DD:EE:03", 40, 2462, "wep"),
    ("Office", "AA:BB:CC:DD:EE:04", 71, 5180, "wpa1-wpa2"),
    ("HomeNet", "AA:BB:CC:DD:EE:05", 35, 5200, "wpa2"),
    ("Strange", "AA:BB:CC:DD:EE:06", 50, 2472, "unknown"),
]

MODEM_IDENTITY = dict(manufacturer="Quectel", model="EC25", revision="EC25EFAR06A06M4G",
                      device_identifier="3f8a6c0b2d", imei="867698040000017", operator_code="24201",
                      operator_name="Telia", sim_identifier="8946000000000000017", imsi="242010000000017")

MODEM_PROFILE = dict(apn="online.example", username="mobile", password="apn-secret", pin="4321",
                     network_id="24201")

ETH_IP4 = {"address": "192.168.1.10", "netmask": "255.255.255.0", "gateway": "192.168.1.1",
           "dns0": "192.168.1.1", "dns1": "8.8.8.8", "dns2": "9.9.9.9"}
WLAN_IP4 = {"address": "192.168.2.20", "netmask": "255.255.255.0", "gateway": "192.168.2.1", "dns0": "192.168.2.1"}
MODEM_IP4 = {"address": "10.64.3.2", "netmask": "255.255.255.252", "gateway": "10.64.3.1",
             "dns0": "10.64.0.53", "dns1": "10.64.0.54"}
OTHER_IP4 = {"address": "172.16.9.9", "netmask": "255.255.0.0", "gateway": "172.16.0.1", "dns0": "172.16.0.53"}


def give_addresses(world, device, connection_ip4, device_ip4):
    """Gives the device's active connection and the device itself their own IPv4 configuration."""
    def configure(ip4):
        prefix = bin(int.from_bytes(bytes(int(b) for b in ip4["netmask"].split(".")), "big")).count("1")
        dns = [ip4[key] for key in sorted(ip4) if key.startswith("dns")]
        return world.nm.set_ip4_config(device, ip4["address"], prefix, ip4["gateway"], dns=dns)
    connection_config = configure(connection_ip4)
    configure(device_ip4)
    world.nm.set_properties(world.nm.active_connection(device), "org.freedesktop.NetworkManager.Connection.Active",
                            {"Ip4Config": dbus.ObjectPath(connection_config)})


@pytest.fixture(scope="module")
def connected(scene_factory):
    scene = scene_factory()
    w = scene.world
    eth = scenarios.ethernet(w, mac=ETH_MAC, active=True,
                             ipv4=ipv4_setting("manual", "192.168.1.10", 24, "192.168.1.1",
                                               ["192.168.1.1", "8.8.8.8"]))
    wlan = w.nm.add_wifi("wlan0", mac=WLAN_MAC)
    aps = {}
    for ssid, bssid, strength, frequency, security in HOME_APS:
        aps[bssid] = w.nm.add_access_point(wlan, ssid, bssid=bssid, strength=strength, frequency=frequency,
                                           **AP_FLAGS[security])
    home = w.nm.add_connection(wifi_profile("HomeNet", key=HOME_KEY))
    w.nm.activate(home, wlan, aps["AA:BB:CC:DD:EE:01"], instant=True)
    gsm = scenarios.modem(w, "gsm", profile="Broadband", active=True, **MODEM_PROFILE, **MODEM_IDENTITY)
    scene.start({"Ethernet": {"method": "manual", "address": "192.168.1.10", "mask": "255.255.255.0",
                              "gateway": "192.168.1.1", "dns0": "192.168.1.1", "dns1": "8.8.8.8"},
                 "Wifi": {"ssid": "HomeNet", "key": HOME_KEY},
                 "Modem": {"apn": MODEM_PROFILE["apn"], "username": MODEM_PROFILE["username"],
                           "password": MODEM_PROFILE["password"], "pin": MODEM_PROFILE["pin"],
                           "network_id": MODEM_PROFILE["network_id"]}},
                ["ethernet/config", "wifi/networks", "modem/signal"])
    # The active connections and the devices get different addresses, so that
    # each document shows which of the two it reads. The wired connection has a
    # third name server, which only the live encoder writes.
    give_addresses(w, eth.device, ETH_IP4, OTHER_IP4)
    give_addresses(w, wlan, WLAN_IP4, OTHER_IP4)
    give_addresses(w, gsm.device, OTHER_IP4, MODEM_IP4)
    w.nm.set_status(70, connectivity=4)
    forget_loaded_secrets(w, home, gsm.connection)
    scene.wlan, scene.modem = wlan, gsm.modem
    return scene


def test_status_names_the_primary_connection(connected):
    ask(connected, "status/get", "status", {
        "hostname": "tarvik-test", "state": 7, "stateStr": "Connected", "connectivity": 4, "connectivityStr": "Full",
        "primaryConnection": {"connectionName": "Ethernet", "interface": "eth0", "type": 1, "typeStr": "Ethernet",
                              "state": 4, "stateStr": "Connected", "ipv4": ETH_IP4}})


def test_info_describes_the_service(connected):
    ask(connected, "info/get", "info", {"service": {"type": "network", "version": os.environ["TARVIK_VERSION"]}})


def test_ethernet_state_carries_the_live_addresses(connected):
    ask(connected, "ethernet/state/get", "ethernet/state",
        dict(state_members("eth0", 1, "Ethernet", 4, "Connected"), mac=ETH_MAC, ipv4=ETH_IP4))


def test_ethernet_config_carries_the_static_profile(connected):
    ask(connected, "ethernet/config/get", "ethernet/config", {
        "method": "manual", "address": "192.168.1.10", "netmask": "255.255.255.0", "gateway": "192.168.1.1",
        "dns0": "192.168.1.1", "dns1": "8.8.8.8", "interface": "eth0"})


def test_connected_wifi_state_has_addresses_and_access_point(connected):
    ask(connected, "wifi/state/get", "wifi/state",
        dict(state_members("wlan0", 2, "Wifi", 4, "Connected"), mac=WLAN_MAC, ipv4=WLAN_IP4,
             ap=access_point("HomeNet", "AA:BB:CC:DD:EE:01", 82, 2437, "wpa2")),
        payload={"interface": "wlan0"})


def test_wifi_config_carries_the_stored_key(connected):
    ask(connected, "wifi/config/get", "wifi/config",
        {"method": "auto", "ssid": "HomeNet", "key": HOME_KEY, "interface": "wlan0"})


def test_wifi_access_points_name_their_security(connected):
    ask(connected, "wifi/aps/get", "wifi/aps", {
        "interface": "wlan0",
        "aps": [access_point(ssid, bssid, strength, frequency, security)
                for ssid, bssid, strength, frequency, security in HOME_APS]})


def test_wifi_networks_group_access_points_by_ssid(connected):
    def ap(bssid):
        ssid, bssid, strength, frequency, security = next(a for a in HOME_APS if a[1] == bssid)
        return access_point(ssid, bssid, strength, frequency, security)

    def network(ssid, strength, reference, members):
        return {"ssid": ssid, "signalStrength": strength, "device": "wlan0", "referenceAP": ap(reference),
                "accessPoints": [ap(b) for b in members]}
    ask(connected, "wifi/networks/get", "wifi/networks", {"interface": "wlan0", "networks": [
        network("HomeNet", 82, "AA:BB:CC:DD:EE:01", ["AA:BB:CC:DD:EE:01", "AA:BB:CC:DD:EE:05"]),
        network("CafeOpen", 64, "AA:BB:CC:DD:EE:02", ["AA:BB:CC:DD:EE:02"]),
        network("OldRouter", 40, "AA:BB:CC:DD:EE:03", ["AA:BB:CC:DD:EE:03"]),
        network("Office", 71, "AA:BB:CC:DD:EE:04", ["AA:BB:CC:DD:EE:04"]),
        network("Strange", 50, "AA:BB:CC:DD:EE:06", ["AA:BB:CC:DD:EE:06"]),
    ]}, normalise=unordered_networks)


def test_gsm_modem_state_carries_hardware_sim_and_operator(connected):
    ask(connected, "modem/state/get", "modem/state", dict(
        state_members("cdc-wdm0", 8, "Modem", 4, "Connected"),
        ipv4=MODEM_IP4,
        device={"id": MODEM_IDENTITY["device_identifier"], "manufacturer": "Quectel", "model": "EC25",
                "revision": MODEM_IDENTITY["revision"]},
        sim={"imsi": MODEM_IDENTITY["imsi"], "id": MODEM_IDENTITY["sim_identifier"]},
        gsm={"imei": MODEM_IDENTITY["imei"], "operatorCode": "24201", "operatorName": "Telia"},
        signal=67))


def test_modem_config_carries_the_gsm_secrets(connected):
    ask(connected, "modem/config/get", "modem/config", {
        "method": "auto", "apn": "online.example", "username": "mobile", "password": "apn-secret",
        "networkId": "24201", "pin": "4321", "interface": "cdc-wdm0"})


def test_modem_signal_follows_modem_manager(connected):
    connected.client.clear()
    connected.world.mm.set_signal(connected.modem, 80)
    expect_event(connected, "modem/signal", {"interface": "cdc-wdm0", "quality": 80})


def test_status_of_a_primary_connection_whose_device_is_gone(scene_factory):
    scene = scene_factory()
    w = scene.world
    eth = scenarios.ethernet(w, mac=ETH_MAC, active=True)
    scene.start({}, ["ethernet/config"])
    # An address-less configuration encodes as its gateway alone.
    w.nm.set_ip4_config(eth.device, "", 0, "", dns=[])
    w.nm.set_properties(w.nm.active_connection(eth.device), "org.freedesktop.NetworkManager.Connection.Active",
                        {"Devices": dbus.Array([], signature="o")})
    w.nm.set_status(70, connectivity=4)
    ask(scene, "status/get", "status", {
        "hostname": "tarvik-test", "state": 7, "stateStr": "Connected", "connectivity": 4, "connectivityStr": "Full",
        "primaryConnection": {"connectionName": "Ethernet", "interface": None, "type": None, "typeStr": None,
                              "state": None, "stateStr": None, "ipv4": {"gateway": ""}}})


# ---------------------------------------------------------------------------
# nothing connected: a wired device without cable that NetworkManager still
# calls activating, Wi-Fi devices without profile, with an open profile, and
# one caught in the middle of connecting

@pytest.fixture(scope="module")
def idle(scene_factory):
    scene = scene_factory()
    w = scene.world
    eth = w.nm.add_ethernet("eth0", mac=ETH_MAC, carrier=False)
    w.nm.set_device_state(eth, 40)
    w.nm.add_wifi("wlan0", mac=WLAN_MAC)

    wlan1 = w.nm.add_wifi("wlan1", mac="00:11:22:33:44:77")
    home = w.nm.add_access_point(wlan1, "HomeNet", security="wpa2", bssid="AA:BB:CC:DD:EE:11", strength=60)
    profile = w.nm.add_connection(wifi_profile("HomeNet", key=HOME_KEY, interface="wlan1"))
    w.nm.activate(profile, wlan1, home, instant=True)
    w.nm.set_device_state(wlan1, 70)

    wlan2 = w.nm.add_wifi("wlan2", mac="00:11:22:33:44:88")
    w.nm.add_access_point(wlan2, "CafeOpen", security="open", bssid="AA:BB:CC:DD:EE:12")
    w.nm.add_connection(wifi_profile("CafeOpen", security="none", interface="wlan2"))
    # No SSID configured: tarvik leaves the Wi-Fi profiles as they are.
    return scene.start({}, ["ethernet/config"] + ["wifi/networks"] * 3)


def test_unplugged_ethernet_is_disconnected_whatever_network_manager_says(idle):
    ask(idle, "ethernet/state/get", "ethernet/state",
        dict(state_members("eth0", 1, "Ethernet", 1, "Disconnected"), mac=ETH_MAC, ipv4=None))


def test_ethernet_without_profile_has_unknown_method(idle):
    ask(idle, "ethernet/config/get", "ethernet/config", {"method": "unknown", "interface": "eth0"})


def test_wifi_without_profile_has_unknown_method_and_null_ssid_and_key(idle):
    ask(idle, "wifi/config/get", "wifi/config",
        {"method": "unknown", "ssid": None, "key": None, "interface": "wlan0"}, payload={"interface": "wlan0"})


def test_wifi_seeing_nothing_lists_no_access_points_or_networks(idle):
    ask(idle, "wifi/aps/get", "wifi/aps", {"interface": "wlan0", "aps": []}, payload={"interface": "wlan0"})
    ask(idle, "wifi/networks/get", "wifi/networks", {"interface": "wlan0", "networks": []},
        payload={"interface": "wlan0"})


def test_connecting_wifi_has_neither_addresses_nor_access_point(idle):
    ask(idle, "wifi/state/get", "wifi/state",
        dict(state_members("wlan1", 2, "Wifi", 3, "Connecting"), mac="00:11:22:33:44:77", ipv4=None, ap=None),
        payload={"interface": "wlan1"})


def test_open_network_profile_has_no_key(idle):
    ask(idle, "wifi/config/get", "wifi/config", {"method": "auto", "ssid": "CafeOpen", "interface": "wlan2"},
        payload={"interface": "wlan2"})


# ---------------------------------------------------------------------------
# modems of every kind, none of them connected, and no primary connection

@pytest.fixture(scope="module")
def modems(scene_factory):
    scene = scene_factory()
    w = scene.world
    # Unavailable devices: NetworkManager refuses to activate anything on them.
    ussd = w.mm.add_modem("ussd", signal=41, **MODEM_IDENTITY)
    w.nm.add_modem("cdc-wdm0", modem=ussd, ip_iface="wwan0", state=20)
    cdma = w.mm.add_modem("cdma", sim=False, signal=23, manufacturer="Sierra", model="MC5728V", revision="p2101",
                          device_identifier="77aa", meid="A10000009296F2", esn="80D5D26C")
    w.nm.add_modem("cdc-wdm1", modem=cdma, ip_iface="wwan1", state=20, capabilities=2)
    gone = w.mm.add_modem("gsm", signal=55)
    w.nm.add_modem("cdc-wdm2", modem=gone, ip_iface="wwan2", state=20)
    w.nm.set_status(20, connectivity=1)
    scene.start({}, ["modem/signal"] * 3)
    scene.gone = gone
    return scene


def unavailable_modem(interface):
    return dict(state_members(interface, 8, "Modem", 0, "Unavailable"), ipv4=None)


def test_status_without_primary_connection(modems):
    ask(modems, "status/get", "status", {
        "hostname": "tarvik-test", "state": 2, "stateStr": "Disconnected", "connectivity": 1,
        "connectivityStr": "NoConnectivity", "primaryConnection": None})


def test_ussd_only_modem_reports_an_empty_gsm_ussd_object(modems):
    ask(modems, "modem/state/get", "modem/state", dict(
        unavailable_modem("cdc-wdm0"),
        device={"id": MODEM_IDENTITY["device_identifier"], "manufacturer": "Quectel", "model": "EC25",
                "revision": MODEM_IDENTITY["revision"]},
        sim={"imsi": MODEM_IDENTITY["imsi"], "id": MODEM_IDENTITY["sim_identifier"]},
        gsmUssd={}, signal=41), payload={"interface": "cdc-wdm0"})


def test_cdma_modem_without_sim_reports_its_cdma_identity(modems):
    ask(modems, "modem/state/get", "modem/state", dict(
        unavailable_modem("cdc-wdm1"),
        device={"id": "77aa", "manufacturer": "Sierra", "model": "MC5728V", "revision": "p2101"},
        cdma={"meid": "A10000009296F2", "esn": "80D5D26C"}, signal=23), payload={"interface": "cdc-wdm1"})


def test_modem_without_profile_has_unknown_method(modems):
    ask(modems, "modem/config/get", "modem/config", {"method": "unknown", "interface": "cdc-wdm0"},
        payload={"interface": "cdc-wdm0"})


def test_modem_unknown_to_modem_manager_has_network_manager_members_only(modems):
    modems.world.mm.remove_modem(modems.gone)
    ask(modems, "modem/state/get", "modem/state", unavailable_modem("cdc-wdm2"), payload={"interface": "cdc-wdm2"})
