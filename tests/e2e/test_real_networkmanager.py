"""tarvik against the real NetworkManager daemon (world/realnetworkmanager.py).

One daemon serves the module: its keyfile directory starts empty, the simulated
ModemManager offers a GSM modem whose data port is a veth, and a second veth is a
device of a type tarvik does not provision. What tarvik leaves in the daemon is read
back over D-Bus, the calls made to it from a bus monitor. Skipped where the daemon
cannot run (no root, no network namespaces, not installed).
"""

import ipaddress
import os
import time

import pytest

from conftest import stopped_after
from engineflow import addresses, dns, usage_totals
from realnetworkmanager import MODEM_DEVICE as MODEM, OWN_DEVICE, RealWorld, Unavailable
from world import wait_until

PROFILE = "Broadband"
NM = "org.freedesktop.NetworkManager"


@pytest.fixture(scope="module")
def real(request):
    try:
        world = RealWorld().start()
    except Unavailable as reason:
        world, skipped = None, str(reason)
    # Whatever the outcome, the run's log names the daemon it was tested against.
    with request.config.pluginmanager.get_plugin("capturemanager").global_and_fixture_disabled():
        print(f"\nreal daemon: {world.daemon.version if world else 'skipped, ' + skipped}")
    if not world:
        pytest.skip(skipped)
    with stopped_after(request, world):
        yield world


@pytest.fixture
def start(real, tarvik_binary, request):
    """start(config) runs tarvik in the daemon's namespace; returns (tarvik, client) once its reload is over."""
    started = []

    def run(config=None):
        client = real.mqtt(subscribe=real.base + "/#")
        started.append((real.tarvik(config=config, binary=tarvik_binary, private_tmp=True), client))
        reloaded(*started[-1])
        return started[-1]
    yield run
    for index, (tarvik, client) in enumerate(started):
        tarvik.stop()
        client.disconnect()
        with open(os.path.join(real.directory, f"{request.node.name}-tarvik-{index}.log"), "w") as log:
            log.write("\n".join(tarvik.log_lines))


def reloaded(tarvik, client):
    """Returns once a reload has run to its end (the modem's signal is its last document)."""
    tarvik.wait_for_log(r"\[Engine\] Reloading all devices and connections\.$", timeout=20)
    client.wait_for(client.topic("modem/signal"))
    client.sync()


def outcome(tarvik):
    """The line that ends the provisioning of the modem profile."""
    return tarvik.wait_for_log(rf"\[Modem\] (Connection '{PROFILE}' (updated|created successfully)\."
                               r"|No update required.*|Failed to .*)$").group(1)


def set_modem(real, tarvik, client, record):
    """modem/config/set once the modem is connected: the line ending its provisioning, after the re-activation.

    Never while an activation is under way: NetworkManager 1.42.4 aborts ("nm-device-modem.c:80: assertion
    failed") when a re-activation meets the answer to its Modem.Simple.Connect."""
    device = real.nm.wait_for_device(MODEM, 100)
    before = real.nm.active_connection(device)
    tarvik.mark()
    client.command("modem/config/set", {"interface": MODEM, **record})
    line = outcome(tarvik)
    if line.endswith("updated."):
        wait_until(lambda: real.nm.active_connection(device) not in ("/", before) and real.nm.device_state(device) == 100,
                   15, f"{MODEM} activated again")
    return line


def daemon_ipv4(real, owner, interface):
    """The IP4Config of a device or an active connection of the daemon, as tarvik's "ipv4" member."""
    config = real.nm.get(owner, f"{NM}.{interface}", "Ip4Config")
    data = real.nm.get(config, f"{NM}.IP4Config", "AddressData")[0]
    dns = [entry["address"] for entry in real.nm.get(config, f"{NM}.IP4Config", "NameserverData")]
    return {"address": data["address"], "netmask": str(ipaddress.IPv4Network(f"0.0.0.0/{data['prefix']}").netmask),
            "gateway": real.nm.get(config, f"{NM}.IP4Config", "Gateway"), **{f"dns{i}": a for i, a in enumerate(dns[:2])}}


def within(document, expected):
    if isinstance(expected, dict):
        return isinstance(document, dict) and all(within(document.get(k), v) for k, v in expected.items())
    return document == expected


def agrees(client, topic, expected):
    """The answer to <topic>/get, once it holds what expected() reads from the daemon at that moment."""
    seen = {}

    def answer():
        sent = time.monotonic()
        client.command(f"{topic}/get", {})
        seen["message"] = client.wait_for(client.topic(topic), predicate=lambda m: m.time >= sent)
        seen["daemon"] = expected()
        return within(seen["message"].json, seen["daemon"])
    try:
        wait_until(answer, 10, topic, interval=0.2)
    except TimeoutError:
        pytest.fail(f"{topic} {seen['message'].json} does not hold {seen['daemon']}")
    return seen["message"]


def test_modem_profile_is_created_activated_published_and_counted(real, start):
    tarvik, client = start({"Modem": {"usageSec": 1}})
    assert outcome(tarvik) == f"Connection '{PROFILE}' created successfully."
    device = real.nm.wait_for_device(MODEM, 100)
    profile = real.nm.find_connection(PROFILE)
    assert real.nm.get(real.nm.active_connection(device), f"{NM}.Connection.Active", "Connection") == profile
    stored = real.nm.connection_settings(profile)
    assert (stored["connection"]["type"], stored["gsm"]["apn"], stored["ipv4"]["method"]) == ("gsm", "internet", "auto")
    assert f"{PROFILE}.nmconnection" in os.listdir(real.daemon.keyfiles)
    # The daemon reports the modem activated before the DHCP lease on its data port arrives.
    wait_until(lambda: real.nm.get(real.nm.get(device, f"{NM}.Device", "Ip4Config"), f"{NM}.IP4Config", "AddressData"),
               10, "the data port's lease")
    primary = real.nm.manager_property("PrimaryConnection")
    documents = {"modem/state": lambda: {"interface": MODEM, "state": 4, "ipv4": daemon_ipv4(real, device, "Device")},
                 "status": lambda: {"primaryConnection": {"connectionName": PROFILE, "interface": MODEM,
                                                          "ipv4": daemon_ipv4(real, primary, "Connection.Active")}}}
    for topic, expected in documents.items():
        assert ": null" not in agrees(client, topic, expected).text

    # Without a snapshot the first reading counts the data port's counters whole.
    real.send_traffic()
    stats = os.path.join(real.directory, "stats", "modem.ini")
    wait_until(lambda: (totals := list(usage_totals(stats).values())) == [real.counters()] and totals[0][0] > 50_000,
               15, f"the data port's counters {real.counters()} in {stats}")

    # A month past 4 GB: billed to the byte, while the monthly document wraps as it always has.
    real.push_bytes(5_100_000_000)
    usage = client.wait_for(client.topic("modem/usage"), timeout=30, predicate=lambda m: (
        m.json["rxBytes"], m.json["txBytes"]) == real.counters()).json
    assert usage["totalBytes"] > 5_100_000_000 and usage["interface"] == MODEM
    legacy = {"download": legacy_megabytes(usage["rxBytes"]), "upload": legacy_megabytes(usage["txBytes"])}
    # Both documents come from the same reading.
    assert legacy in [month for m in client.messages(client.topic("modem/stats")) for month in m.json.values()]

    retained = real.mqtt(subscribe=client.topic("modem/config"))
    assert retained.wait_for(client.topic("modem/config")).json == {
        "apn": "internet", "interface": MODEM, "method": "auto", "networkId": "", "password": "", "pin": "",
        "username": ""}


def legacy_megabytes(counted):
    """A monthly total as modem/stats has always shown it: 32 bits, signed, two decimals cut toward zero."""
    signed = (counted + 2**31) % 2**32 - 2**31
    return int(signed / 1e6 * 100 + 0.5) / 100


def stored_ipv4(real, profile):
    ipv4 = real.nm.connection_settings(profile)["ipv4"]
    return (ipv4["method"], addresses(ipv4), [(d["address"], d["prefix"]) for d in ipv4.get("address-data", [])],
            ipv4.get("gateway", ""), dns(ipv4))


def recorded_ipv4(record):
    """stored_ipv4 of a profile that holds the record."""
    dns = [record[key] for key in ("dns0", "dns1") if record.get(key)]
    if record["method"] != "manual":
        return record["method"], [], [], "", dns if record["method"] == "auto" else []
    prefix = ipaddress.IPv4Network(f"0.0.0.0/{record['netmask']}").prefixlen
    address, gateway = record["address"], record["gateway"]
    return "manual", [(address, prefix, gateway)], [(address, prefix)], gateway, dns


SETS = [
    {"apn": "internet.example", "username": "user", "password": "secret", "method": "manual", "address": "10.64.0.20",
     "netmask": "255.255.255.0", "gateway": "10.64.0.1", "dns0": "10.64.0.53", "dns1": "9.9.9.9"},
    # Without a password the user goes too: the daemon would wait for a secret agent to supply one.
    {"apn": "web.example", "method": "auto", "dns0": "10.64.0.53", "dns1": "9.9.9.9"},
    {"password": "secret", "method": "link-local"},
    {"password": "secret", "method": "manual", "address": "10.64.1.30", "netmask": "255.255.0.0",
     "gateway": "10.64.0.1", "dns0": "1.1.1.1"},
]


def test_a_second_start_leaves_the_profile_alone_and_each_set_is_stored_as_sent(real, start):
    device, profile = real.nm.wait_for_device(MODEM, 100), real.nm.find_connection(PROFILE)
    active, since = real.nm.active_connection(device), len(real.nm.bus_log())
    tarvik, client = start({"Modem": {"usageSec": 1}})
    assert outcome(tarvik) == f"No update required for connection '{PROFILE}'."
    assert [call for call in real.nm.bus_log()[since:]
            if call in ((profile, "Update"), (profile, "Update2")) or call[1] == "ActivateConnection"] == []
    assert (real.nm.active_connection(device), real.nm.device_state(device)) == (active, 100)

    for step in SETS:
        record = {"apn": "internet", "method": "auto", **step}
        line = set_modem(real, tarvik, client, record)
        gsm = real.nm.connection_settings(profile)["gsm"]
        password = real.nm.connection_secrets(profile, "gsm").get("password", "")
        assert (line, gsm["apn"], gsm.get("username", ""), password, stored_ipv4(real, profile)) == (
            f"Connection '{PROFILE}' updated.", record["apn"], record.get("username", ""),
            record.get("password", ""), recorded_ipv4(record)), step


def test_other_devices_get_no_profile_across_reloads(real, start):
    device, since = real.nm.devices()[OWN_DEVICE], len(real.nm.bus_log())
    tarvik, client = start()
    for _ in range(3):
        client.disconnect()
        real.broker.restart()
        client = real.mqtt(subscribe=real.base + "/#")
        reloaded(tarvik, client)
    profiles = [real.nm.connection_settings(path)["connection"]["id"] for path in real.nm.connections()]
    state_changes = real.nm.bus_log()[since:].count((device, "StateChanged"))
    assert (profiles, state_changes, real.nm.device_state(device)) == ([PROFILE], 0, 30)


def test_the_cut_off_keeps_the_modem_down_until_a_resume(real, start):
    """The budget (a kilobyte, long used up) holds the modem down: the daemon blocks its autoconnect after the
    disconnect, and a resume has tarvik activate it again."""
    device = real.nm.wait_for_device(MODEM, 100)
    tarvik, client = start({"Modem": {"usageSec": 1, "limitMB": 0.001, "limitAction": "disconnect"}})
    tarvik.wait_for_log(r"\[Modem\] Data budget used up: disconnecting cdc-wdm0\.")
    real.nm.wait_for_device(MODEM, 30)
    assert not real.nm.get(device, f"{NM}.Device", "Autoconnect")

    client.command("modem/usage/resume", {})
    tarvik.wait_for_log(rf"\[Modem\] Connection '{PROFILE}' not active\. Activating\.")
    real.nm.wait_for_device(MODEM, 100, timeout=30)
    client.wait_for(client.topic("modem/usage"), predicate=lambda m: m.json["budgetBytes"] == 1000
                    and m.json["state"] == "limitReached" and not m.json["cutOff"])
