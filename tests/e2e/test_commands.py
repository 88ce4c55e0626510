"""Command dispatch and the get commands of tarvik, driven through the broker
against the simulated NetworkManager and ModemManager."""

import re

import pytest

from conftest import CONTRACT
from contract import off_contract
from world import wait_until

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
    tarvik = w.tarvik(config={"Modem": {"usageSec": 0}})
    settle(tarvik, client)
    yield w, tarvik, client
    tarvik.stop()


def settle(tarvik, client):
    """Returns once what tarvik published at connection time has reached the client: a command
    answered after the start-up publications is delivered after them."""
    tarvik.wait_for_log(r"\[Engine\] IPC Connected to 127\.0\.0\.1$")
    # The status follows tarvik's subscriptions on its session: commands sent from now on reach it.
    client.wait_for(BASE + "/status")
    client.command("info/get", {})
    tarvik.wait_for_log(re.escape("[Engine] Command Received : info/get"))
    wait_until(lambda: client.count(BASE + "/info") >= 2, 10, "the answer to info/get")
    client.clear()


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


LONG_NAME = "x" * 100
ERRORS = [
    # command, payload, error document, log line
    ("bogus/get", off_contract({}), "Unsupported command", "[Engine] Unsupported command 'bogus/get'"),
    ("WIFI/STATE/get", off_contract({}), "Unsupported command", "[Engine] Unsupported command 'WIFI/STATE/get'"),
    ("Wifi/state/get", off_contract({}), "Unsupported command", "[Engine] Unsupported command 'Wifi/state/get'"),
    ("wifi//get", off_contract({}), "Unsupported command", "[Engine] Unsupported command 'wifi//get'"),
    ("ethernet/state/set", off_contract({}), "Unsupported command", "[Engine] Unsupported command 'ethernet/state/set'"),
    ("ethernet/state/get", {"interface": "eth9"}, "Invalid device specified: eth9",
     "[Engine] ERROR: Could not find device with name=eth9 and type=Ethernet"),
    ("ethernet/state/get", {"interface": "wlan0"}, "Invalid device specified: wlan0",
     "[Engine] ERROR: Could not find device with name=wlan0 and type=Ethernet"),
    ("ethernet/config/get", {"interface": "cdc-wdm0"}, "Invalid device specified: cdc-wdm0",
     "[Engine] ERROR: Could not find device with name=cdc-wdm0 and type=Ethernet"),
    ("wifi/state/get", {"interface": "eth0"}, "Invalid device specified: eth0",
     "[Engine] ERROR: Could not find device with name=eth0 and type=Wifi"),
    ("wifi/config/get", {"interface": "ETH0"}, "Invalid device specified: ETH0",
     "[Engine] ERROR: Could not find device with name=ETH0 and type=Wifi"),
    ("wifi/aps/get", {"interface": "eth1"}, "Invalid device specified: eth1",
     "[Engine] ERROR: Could not find device with name=eth1 and type=Wifi"),
    ("wifi/networks/get", {"interface": "wlan9"}, "Invalid device specified: wlan9",
     "[Engine] ERROR: Could not find device with name=wlan9 and type=Wifi"),
    ("modem/state/get", {"interface": "wlan0"}, "Invalid device specified: wlan0",
     "[Engine] ERROR: Could not find device with name=wlan0 and type=Modem"),
    ("modem/config/get", {"interface": "wwan0"}, "Invalid device specified: wwan0",
     "[Engine] ERROR: Could not find device with name=wwan0 and type=Modem"),
    ("modem/stats/get", {"interface": "eth0"}, "Invalid device specified: eth0",
     "[Engine] ERROR: Could not find device with name=eth0 and type=Modem"),
    # What comes from a client is repeated cut and with its control characters escaped, so that it can
    # neither forge a log line nor flood the log; a payload too large to be a command is not even read.
    ("ethernet/state/get", off_contract({"interface": LONG_NAME}), f"Invalid device specified: {LONG_NAME[:64]}...",
     f"[Engine] ERROR: Could not find device with name={LONG_NAME[:64]}... and type=Ethernet"),
    ("ethernet/state/get", off_contract({"interface": "eth0\n[Engine] FAKE\u001b[31m\u0000"}),
     "Invalid device specified: eth0\\n[Engine] FAKE\\x1b[31m\\x00",
     "[Engine] ERROR: Could not find device with name=eth0\\n[Engine] FAKE\\x1b[31m\\x00 and type=Ethernet"),
    ("ethernet/state/get", off_contract({"interface": "x" * 1000000}), "Payload too large: 1000017 bytes (at most 4096)",
     "[IPC] Payload too large: 1000017 bytes (at most 4096)"),
    (f"{LONG_NAME}/get", off_contract({}), "Unsupported command", f"[Engine] Unsupported command '{LONG_NAME[:64]}...'"),
]


@pytest.mark.parametrize("command, payload, error, line", ERRORS, ids=lambda v: v[:40] if isinstance(v, str) else None)
def test_errors_are_published_on_the_error_topic(scene, command, payload, error, line):
    _, tarvik, client = scene
    msg = ask(client, command, payload, "error")
    expected_command = command if len(command) <= 64 else command[:64] + "..."
    assert msg.json == {"command": expected_command, "error": error}
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
    assert retained == {topic: channel.mqtt["qos"] for topic, channel in CONTRACT.published.items()
                        if channel.mqtt["retain"]}
