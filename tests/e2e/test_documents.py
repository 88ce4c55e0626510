"""The documents tarvik publishes about the network and its devices, built by
tarvik's own code against the simulated NetworkManager and ModemManager, without
a broker: their content, the indented text form with keys in ascending order,
and their agreement with the published contract."""

import contextlib
import json
import os
import re
import subprocess

import dbus
import pytest

import scenarios
from conftest import CONTRACT, stopped_after
from world import World, ipv4_setting, wifi_profile

PROBE = os.environ.get("TARVIK_PROBE_documentprobe", "")
ETH_MAC = "00:11:22:33:44:55"
WLAN_MAC = "00:11:22:33:44:66"
HOME_KEY = scenarios.DEMO_WIFI_KEY


def qt_indented(value):
    """The text QJsonDocument::toJson() writes for a value: four blanks per level, one member per line, keys in
    ascending order, and empty containers still broken over two lines."""
    text = json.dumps(value, indent=4, sort_keys=True, ensure_ascii=False)
    return re.sub(r"^( *)(.*)([\[{])([\]}])(,?)$", r"\1\2\3\n\1\4\5", text, flags=re.M)


def document(world, topic, interface=""):
    """The document as tarvik builds it for the topic, checked for its form and against the contract."""
    text = subprocess.run([PROBE, topic, interface], capture_output=True, text=True, timeout=30, check=True,
                          env=dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=world.bus_address)).stdout
    value = json.loads(text)
    assert text == qt_indented(value) + "\n", f"{topic} is not in the indented form with ascending keys:\n{text}"
    problem = CONTRACT.problem(topic, CONTRACT.published[topic], value)
    assert problem is None, problem
    return value


def access_point(ssid, bssid, strength, frequency, security, max_bitrate=54000):
    return {"ssid": ssid, "hardwareAddress": bssid, "signalStrength": strength, "frequency": frequency,
            "maxBitRate": max_bitrate, "mode": "infra", "security": security}


def unordered(value):
    """Networks and their access points come in no defined order."""
    if isinstance(value, dict):
        return {k: unordered(v) for k, v in value.items()}
    if isinstance(value, list):
        return sorted((unordered(v) for v in value), key=lambda v: json.dumps(v, sort_keys=True))
    return value


def state_members(interface, device_type, type_text, state, state_text, reason=0, reason_text="UnknownReason"):
    return {"interface": interface, "type": device_type, "typeStr": type_text, "state": state,
            "stateStr": state_text, "reason": reason, "reasonStr": reason_text}


@pytest.fixture(scope="module")
def new_world(request):
    if not os.path.exists(PROBE):
        pytest.skip("the document probe is not built")
    with contextlib.ExitStack() as worlds:
        yield lambda: worlds.enter_context(stopped_after(request, World().start()))


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


MODEM_STATE = dict(device={"id": MODEM_IDENTITY["device_identifier"], "manufacturer": "Quectel", "model": "EC25",
                          "revision": MODEM_IDENTITY["revision"]},
                  sim={"imsi": MODEM_IDENTITY["imsi"], "id": MODEM_IDENTITY["sim_identifier"]})


@pytest.fixture(scope="module")
def connected(new_world):
    """Wired with a static profile, Wi-Fi on HomeNet with its key, a GSM modem with its secrets, all active."""
    w = new_world()
    eth = scenarios.ethernet(w, mac=ETH_MAC, active=True,
                             ipv4=ipv4_setting("manual", "192.168.1.10", 24, "192.168.1.1",
                                               ["192.168.1.1", "8.8.8.8"]))
    wlan = w.nm.add_wifi("wlan0", mac=WLAN_MAC)
    aps = {bssid: w.nm.add_access_point(wlan, ssid, bssid=bssid, strength=strength, frequency=frequency,
                                        **AP_FLAGS[security])
           for ssid, bssid, strength, frequency, security in HOME_APS}
    w.nm.activate(w.nm.add_connection(wifi_profile("HomeNet", key=HOME_KEY)), wlan, aps["AA:BB:CC:DD:EE:01"],
                  instant=True)
    gsm = scenarios.modem(w, "gsm", profile="Broadband", active=True, **MODEM_PROFILE, **MODEM_IDENTITY)
    # The active connections and the devices get different addresses, so that
    # each document shows which of the two it reads. The wired connection has a
    # third name server, which only the live encoder writes.
    give_addresses(w, eth.device, ETH_IP4, OTHER_IP4)
    give_addresses(w, wlan, WLAN_IP4, OTHER_IP4)
    give_addresses(w, gsm.device, OTHER_IP4, MODEM_IP4)
    w.nm.set_status(70, connectivity=4)
    return w


def network(ssid, strength, reference, members):
    def ap(bssid):
        return access_point(*next(a for a in HOME_APS if a[1] == bssid))
    return {"ssid": ssid, "signalStrength": strength, "device": "wlan0", "referenceAP": ap(reference),
            "accessPoints": [ap(b) for b in members]}


CONNECTED = [
    ("status", "", {
        "hostname": "tarvik-test", "state": 7, "stateStr": "Connected", "connectivity": 4, "connectivityStr": "Full",
        "primaryConnection": {"connectionName": "Ethernet", "interface": "eth0", "type": 1, "typeStr": "Ethernet",
                              "state": 4, "stateStr": "Connected", "ipv4": ETH_IP4}}),
    ("info", "", {"service": {"type": "network", "version": os.environ.get("TARVIK_VERSION")}}),
    ("ethernet/state", "eth0", dict(state_members("eth0", 1, "Ethernet", 4, "Connected"), mac=ETH_MAC, ipv4=ETH_IP4)),
    ("ethernet/config", "eth0", {"method": "manual", "address": "192.168.1.10", "netmask": "255.255.255.0",
                                 "gateway": "192.168.1.1", "dns0": "192.168.1.1", "dns1": "8.8.8.8",
                                 "interface": "eth0"}),
    ("wifi/state", "wlan0", dict(state_members("wlan0", 2, "Wifi", 4, "Connected"), mac=WLAN_MAC, ipv4=WLAN_IP4,
                                 ap=access_point("HomeNet", "AA:BB:CC:DD:EE:01", 82, 2437, "wpa2"))),
    # The key is a secret: the document asks NetworkManager for it.
    ("wifi/config", "wlan0", {"method": "auto", "ssid": "HomeNet", "key": HOME_KEY, "interface": "wlan0"}),
    ("wifi/aps", "wlan0", {"interface": "wlan0", "aps": [access_point(*ap) for ap in HOME_APS]}),
    ("wifi/networks", "wlan0", {"interface": "wlan0", "networks": [
        network("HomeNet", 82, "AA:BB:CC:DD:EE:01", ["AA:BB:CC:DD:EE:01", "AA:BB:CC:DD:EE:05"]),
        network("CafeOpen", 64, "AA:BB:CC:DD:EE:02", ["AA:BB:CC:DD:EE:02"]),
        network("OldRouter", 40, "AA:BB:CC:DD:EE:03", ["AA:BB:CC:DD:EE:03"]),
        network("Office", 71, "AA:BB:CC:DD:EE:04", ["AA:BB:CC:DD:EE:04"]),
        network("Strange", 50, "AA:BB:CC:DD:EE:06", ["AA:BB:CC:DD:EE:06"])]}),
    ("modem/state", "cdc-wdm0", dict(
        state_members("cdc-wdm0", 8, "Modem", 4, "Connected"), ipv4=MODEM_IP4, signal=67, **MODEM_STATE,
        gsm={"imei": MODEM_IDENTITY["imei"], "operatorCode": "24201", "operatorName": "Telia"})),
    ("modem/config", "cdc-wdm0", {"method": "auto", "apn": "online.example", "username": "mobile",
                                  "password": "apn-secret", "networkId": "24201", "pin": "4321",
                                  "interface": "cdc-wdm0"}),
    ("modem/signal", "cdc-wdm0", {"interface": "cdc-wdm0", "quality": 67}),
]


@pytest.mark.parametrize("topic, interface, expected", CONNECTED, ids=[row[0] for row in CONNECTED])
def test_documents_of_a_connected_gateway(connected, topic, interface, expected):
    assert unordered(document(connected, topic, interface)) == unordered(expected)


@pytest.fixture(scope="module")
def idle(new_world):
    """A wired device without cable that NetworkManager still calls activating; Wi-Fi devices without profile,
    caught in the middle of connecting, and with an open profile; modems of every kind, none connected."""
    w = new_world()
    eth = w.nm.add_ethernet("eth0", mac=ETH_MAC, carrier=False)
    w.nm.set_device_state(eth, 40)
    w.nm.add_wifi("wlan0", mac=WLAN_MAC)
    wlan1 = w.nm.add_wifi("wlan1", mac="00:11:22:33:44:77")
    home = w.nm.add_access_point(wlan1, "HomeNet", security="wpa2", bssid="AA:BB:CC:DD:EE:11", strength=60)
    w.nm.activate(w.nm.add_connection(wifi_profile("HomeNet", key=HOME_KEY, interface="wlan1")), wlan1, home,
                  instant=True)
    w.nm.set_device_state(wlan1, 70)
    wlan2 = w.nm.add_wifi("wlan2", mac="00:11:22:33:44:88")
    w.nm.add_access_point(wlan2, "CafeOpen", security="open", bssid="AA:BB:CC:DD:EE:12")
    w.nm.add_connection(wifi_profile("CafeOpen", security="none", interface="wlan2"))
    # Unavailable modems: NetworkManager activates nothing on them.
    w.nm.add_modem("cdc-wdm0", modem=w.mm.add_modem("ussd", signal=41, **MODEM_IDENTITY), state=20)
    cdma = w.mm.add_modem("cdma", sim=False, signal=23, manufacturer="Sierra", model="MC5728V", revision="p2101",
                          device_identifier="77aa", meid="A10000009296F2", esn="80D5D26C")
    w.nm.add_modem("cdc-wdm1", modem=cdma, ip_iface="wwan1", state=20, capabilities=2)
    w.nm.add_modem("cdc-wdm2", modem="/org/freedesktop/ModemManager1/Modem/42", ip_iface="wwan2", state=20)
    w.nm.set_status(20, connectivity=1)
    w.nm.set_properties("/org/freedesktop/NetworkManager", "org.freedesktop.NetworkManager",
                        {"PrimaryConnection": dbus.ObjectPath("/")})
    return w


def unavailable_modem(interface, **members):
    return dict(state_members(interface, 8, "Modem", 0, "Unavailable"), ipv4=None, **members)


IDLE = [
    ("status", "", {"hostname": "tarvik-test", "state": 2, "stateStr": "Disconnected", "connectivity": 1,
                    "connectivityStr": "NoConnectivity", "primaryConnection": None}),
    ("ethernet/state", "eth0", dict(state_members("eth0", 1, "Ethernet", 1, "Disconnected"), mac=ETH_MAC, ipv4=None)),
    ("ethernet/config", "eth0", {"method": "unknown", "interface": "eth0"}),
    ("wifi/config", "wlan0", {"method": "unknown", "ssid": None, "key": None, "interface": "wlan0"}),
    ("wifi/aps", "wlan0", {"interface": "wlan0", "aps": []}),
    ("wifi/networks", "wlan0", {"interface": "wlan0", "networks": []}),
    ("wifi/state", "wlan1", dict(state_members("wlan1", 2, "Wifi", 3, "Connecting"), mac="00:11:22:33:44:77",
                                 ipv4=None, ap=None)),
    ("wifi/config", "wlan2", {"method": "auto", "ssid": "CafeOpen", "interface": "wlan2"}),
    ("modem/state", "cdc-wdm0", unavailable_modem("cdc-wdm0", gsmUssd={}, signal=41, **MODEM_STATE)),
    ("modem/state", "cdc-wdm1", unavailable_modem(
        "cdc-wdm1", device={"id": "77aa", "manufacturer": "Sierra", "model": "MC5728V", "revision": "p2101"},
        cdma={"meid": "A10000009296F2", "esn": "80D5D26C"}, signal=23)),
    ("modem/config", "cdc-wdm0", {"method": "unknown", "interface": "cdc-wdm0"}),
    ("modem/state", "cdc-wdm2", unavailable_modem("cdc-wdm2")),
]


@pytest.mark.parametrize("topic, interface, expected", IDLE, ids=[f"{row[0]} {row[1]}" for row in IDLE])
def test_documents_of_an_idle_gateway(idle, topic, interface, expected):
    assert document(idle, topic, interface) == expected


def test_status_of_a_primary_connection_whose_device_is_gone(new_world):
    w = new_world()
    eth = scenarios.ethernet(w, mac=ETH_MAC, active=True)
    # An address-less configuration encodes as its gateway alone.
    w.nm.set_ip4_config(eth.device, "", 0, "", dns=[])
    w.nm.set_properties(w.nm.active_connection(eth.device), "org.freedesktop.NetworkManager.Connection.Active",
                        {"Devices": dbus.Array([], signature="o")})
    w.nm.set_status(70, connectivity=4)
    assert document(w, "status") == {
        "hostname": "tarvik-test", "state": 7, "stateStr": "Connected", "connectivity": 4, "connectivityStr": "Full",
        "primaryConnection": {"connectionName": "Ethernet", "interface": None, "type": None, "typeStr": None,
                              "state": None, "stateStr": None, "ipv4": {"gateway": ""}}}
