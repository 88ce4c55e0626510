"""Command dispatch and the get commands of tarvik, driven through the broker
against the simulated NetworkManager and ModemManager."""

import re

import pytest

import engineflow
from conftest import CONTRACT
from contract import off_contract

BASE = "tolv/network"


@pytest.fixture(scope="module")
def scene(module_world):
    """Two wired and two Wi-Fi devices and a modem; tarvik connected, its start-up publications received."""
    w = module_world
    modem = w.mm.add_modem(kind="gsm", bearer_interface="wwan0", signal=67)
    w.nm.add_ethernet("eth0", carrier=False)
    wlan0 = w.nm.add_wifi("wlan0")
    w.nm.add_access_point(wlan0, "HomeNet", security="wpa2", strength=70)
    w.nm.add_ethernet("eth1", carrier=False)
    w.nm.add_wifi("wlan1")
    w.nm.add_modem("cdc-wdm0", modem=modem)
    client = w.mqtt(subscribe=BASE + "/#")
    return w, engineflow.start(w, client, config={"Modem": {"usageSec": 0}}), client


def ask(client, command, payload, topic):
    client.clear()
    client.command(command, payload)
    return client.wait_for(f"{BASE}/{topic}", timeout=10)


GET_COMMANDS = [
    # command, answer topic, device type text, payload, interface answering
    ("ethernet/state/get", "ethernet/state", {}, "eth0"),
    ("ethernet/state/get", "ethernet/state", {"interface": "eth1"}, "eth1"),
    ("ethernet/config/get", "ethernet/config", {}, "eth0"),
    ("ethernet/config/get", "ethernet/config", {"interface": "eth1"}, "eth1"),
    ("wifi/state/get", "wifi/state", {}, "wlan0"),
    ("wifi/state/get", "wifi/state", {"interface": "wlan1"}, "wlan1"),
    ("wifi/state/get", "wifi/state", off_contract({"interface": 5}), "wlan0"),
    ("wifi/config/get", "wifi/config", {"interface": "wlan1"}, "wlan1"),
    ("wifi/aps/get", "wifi/aps", {}, "wlan0"),
    ("wifi/networks/get", "wifi/networks", {"interface": "wlan1"}, "wlan1"),
    ("modem/state/get", "modem/state", {}, "cdc-wdm0"),
    ("modem/config/get", "modem/config", {"interface": "cdc-wdm0"}, "cdc-wdm0"),
]


@pytest.mark.parametrize("command, topic, payload, interface", GET_COMMANDS)
def test_device_get_commands_answer_for_the_named_or_first_device(scene, command, topic, payload, interface):
    _, tarvik, client = scene
    assert ask(client, command, payload, topic).json["interface"] == interface
    tarvik.wait_for_log(re.escape(f"[Engine] Command Received : {command}"))


def test_network_get_commands_ignore_their_payload(scene):
    _, _, client = scene
    # The contract checks what the answers hold.
    ask(client, "status/get", off_contract({"interface": "eth9", "anything": [1, 2]}), "status")
    ask(client, "info/get", off_contract({"interface": "nothing"}), "info")


def cut(text):
    return text if len(text) <= 64 else text[:64] + "..."


LONG_NAME = "x" * 100
UNSUPPORTED = ["bogus/get", "WIFI/STATE/get", "Wifi/state/get", "wifi//get", "ethernet/state/set", f"{LONG_NAME}/get"]
# Each handler looks for a device of its own type.
NOT_FOUND = [("ethernet/state/get", "eth9", "Ethernet"), ("ethernet/state/get", "wlan0", "Ethernet"),
             ("ethernet/config/get", "cdc-wdm0", "Ethernet"), ("wifi/state/get", "eth0", "Wifi"),
             ("wifi/config/get", "ETH0", "Wifi"), ("wifi/aps/get", "eth1", "Wifi"), ("wifi/networks/get", "wlan9", "Wifi"),
             ("modem/state/get", "wlan0", "Modem"), ("modem/config/get", "wwan0", "Modem"),
             ("modem/stats/get", "eth0", "Modem")]
ERRORS = [(command, off_contract({}), "Unsupported command", f"[Engine] Unsupported command '{cut(command)}'")
          for command in UNSUPPORTED] + [
    (command, {"interface": name}, f"Invalid device specified: {name}",
     f"[Engine] ERROR: Could not find device with name={name} and type={kind}") for command, name, kind in NOT_FOUND] + [
    # What comes from a client is repeated cut and with its control characters escaped, so that it can
    # neither forge a log line nor flood the log; a payload too large to be a command is not even read.
    ("ethernet/state/get", off_contract({"interface": LONG_NAME}), f"Invalid device specified: {cut(LONG_NAME)}",
     f"[Engine] ERROR: Could not find device with name={cut(LONG_NAME)} and type=Ethernet"),
    ("ethernet/state/get", off_contract({"interface": "eth0\n[Engine] FAKE\u001b[31m\u0000"}),
     "Invalid device specified: eth0\\n[Engine] FAKE\\x1b[31m\\x00",
     "[Engine] ERROR: Could not find device with name=eth0\\n[Engine] FAKE\\x1b[31m\\x00 and type=Ethernet"),
    ("ethernet/state/get", off_contract({"interface": "x" * 1000000}), "Payload too large: 1000017 bytes (at most 4096)",
     "[IPC] Payload too large: 1000017 bytes (at most 4096)"),
]


@pytest.mark.parametrize("command, payload, error, line", ERRORS, ids=lambda v: v[:40] if isinstance(v, str) else None)
def test_errors_are_published_on_the_error_topic(scene, command, payload, error, line):
    _, tarvik, client = scene
    msg = ask(client, command, payload, "error")
    assert msg.json == {"command": cut(command), "error": error}
    tarvik.wait_for_log(re.escape(line) + "$")
    assert not any(re.match(r"(tarvik: )?\[Engine\] FAKE", l) for l in tarvik.log_lines)


def test_late_subscribers_get_every_document_retained_but_errors(scene):
    w, _, client = scene
    assert ask(client, "modem/stats/get", {}, "modem/stats").json == {}
    ask(client, "bogus/get", off_contract({}), "error")
    late = w.mqtt(subscribe=BASE + "/#")
    # Retained copies come right after the subscription, before anything published later.
    late.subscribe("marker")
    late.publish("marker", off_contract(b"end"))
    late.wait_for("marker")
    retained = {m.topic[len(BASE) + 1:]: m.qos for m in late.messages() if m.retain}
    # "transaction" exists once a change was put on trial.
    assert retained == {topic: channel.mqtt["qos"] for topic, channel in CONTRACT.published.items()
                        if channel.mqtt["retain"] and topic != "transaction"}
