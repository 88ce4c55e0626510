"""tarvik seen from outside: its availability on the broker, and the gateway in Home Assistant through the
discovery documents, each checked against what Home Assistant accepts and rendered with Jinja2 against the
live documents it points at."""

import re
import signal

import homeassistant
import scenarios
from contract import off_contract
from world import wait_until

BASE = "tolv/network"
PREFIX = "homeassistant"
DISCOVERY = {"HomeAssistant": {"enabled": "true", "nodeId": "gw 1.example"}}


def value_or_none(document, *path):
    for key in path:
        document = (document or {}).get(key)
    return str(document)


# What each entity must show, read from its document by hand.
EXPECTED = {
    "connectivity": lambda d: d["connectivityStr"],
    "network_state": lambda d: d["stateStr"],
    "primary_connection": lambda d: value_or_none(d, "primaryConnection", "connectionName"),
    "primary_interface": lambda d: value_or_none(d, "primaryConnection", "interface"),
    "connected": lambda d: "ON" if d["state"] == 4 else "OFF",
    "ipv4": lambda d: value_or_none(d, "ipv4", "address"),
    "ssid": lambda d: value_or_none(d, "ap", "ssid"),
    "signal": lambda d: str(d["quality"]) if "quality" in d else value_or_none(d, "ap", "signalStrength"),
    "operator": lambda d: value_or_none(d, "gsm", "operatorName"),
    "modem_data": lambda d: str(d["totalBytes"]),
    "modem_budget": lambda d: d["state"],
}
DEVICES = {"eth0": ["connected", "ipv4"], "wlan0": ["connected", "ipv4", "ssid", "signal"],
           "cdc-wdm0": ["connected", "ipv4", "signal", "operator"]}
GATEWAY = ["connectivity", "network_state", "primary_connection", "primary_interface", "modem_data", "modem_budget"]
# Object ids as Home Assistant allows them: the node id and interface names with "_" for what it refuses.
ENTITIES = {f"gw_1_example_{key}": (None, key) for key in GATEWAY} | {
    f"gw_1_example_{interface}_{key}": (interface, key) for interface, keys in DEVICES.items()
    for key in keys}


def gateway(world):
    """Wired, Wi-Fi and modem devices, each connected; returns the Wi-Fi device's."""
    scenarios.ethernet(world, active=True)
    scenarios.modem(world, bearer_interface="wwan0", profile="Broadband", active=True)
    return scenarios.wifi(world, profile_ssid="HomeNet", active=True)


def start(world, config, **kwargs):
    return world.tarvik(config={"Wifi": {"ssid": "HomeNet", "key": scenarios.DEMO_WIFI_KEY},
                                "Modem": {"usageSec": 1, "limitMB": 1000}, **config},
                        net_counters={"wwan0": (123_456_789, 4_321)}, **kwargs)


def configs(client):
    """The discovery documents the broker holds now, by topic (a removed one is gone)."""
    held = {}
    for message in client.messages(PREFIX + "/#"):
        if message.topic.endswith("/config"):
            held[message.topic] = message.json if message.payload else None
    return {topic: document for topic, document in held.items() if document is not None}


def wait_for_configs(client, count):
    wait_until(lambda: len(configs(client)) == count, 15, f"{count} discovery documents")
    return configs(client)


def assert_rendered(client, documents):
    """Each entity's template, rendered against the last document of its device on its topic, shows what the
    document says."""
    for document in documents:
        interface, key = ENTITIES[document["object_id"]]
        state = [m for m in client.messages(document["state_topic"])
                 if interface is None or m.json.get("interface") == interface][-1]
        assert homeassistant.render(document["value_template"], state.payload) == EXPECTED[key](state.json), \
            document["object_id"]


def test_every_entity_is_accepted_and_renders_its_live_document(world):
    wifi = gateway(world)
    client = world.mqtt(subscribe=PREFIX + "/#")
    client.subscribe(BASE + "/#")
    start(world, DISCOVERY)
    held = wait_for_configs(client, len(GATEWAY) + sum(map(len, DEVICES.values())))
    client.wait_for(BASE + "/modem/usage", predicate=lambda m: m.json["rxBytes"] == 123_456_789)

    assert {document["object_id"] for document in held.values()} == set(ENTITIES)
    for topic, document in held.items():
        component, node, object_key = re.fullmatch(rf"{PREFIX}/(\w+)/([\w-]+)/([\w-]+)/config", topic).groups()
        assert (node, document["object_id"]) == ("gw_1_example", f"{node}_{object_key}"), topic
        assert homeassistant.problems(component, document) == [], topic
        assert document["unique_id"].startswith(document["device"]["identifiers"][0] + "_")
        assert document["device"]["connections"] == [["mac", "00:11:22:33:44:55"], ["mac", "00:11:22:33:44:66"]]
        assert (document["availability_topic"], document["payload_available"]) == (BASE + "/availability", "online")
    assert_rendered(client, held.values())

    # Off the air, the Wi-Fi entities say so rather than keep their last values.
    world.nm.deactivate(wifi.device)
    client.wait_for(BASE + "/wifi/state", predicate=lambda m: m.json["state"] != 4)
    wifi_entities = [d for d in held.values() if ENTITIES[d["object_id"]][0] == "wlan0"]
    assert {homeassistant.render(d["value_template"], client.messages(BASE + "/wifi/state")[-1].payload)
            for d in wifi_entities} == {"OFF", "None"}
    assert_rendered(client, wifi_entities)
    assert client.messages(BASE + "/availability")[-1].text == "online"


def test_discovery_follows_home_assistant_and_the_devices_and_is_removed_when_switched_off(world):
    wifi = gateway(world)
    client = world.mqtt(subscribe=PREFIX + "/#")
    client.subscribe(BASE + "/availability")
    tarvik = start(world, DISCOVERY)
    held = wait_for_configs(client, 16)
    late = world.mqtt(subscribe=PREFIX + "/#")
    wait_until(lambda: len(late.messages()) == 16, 10, "the retained documents")
    assert all(m.retain and m.qos == 1 for m in late.messages())

    # Home Assistant restarted: it hears every document again.
    client.publish(PREFIX + "/status", b"online")
    wait_until(lambda: all(len(client.messages(topic)) == 2 for topic in held), 10, "every document again")

    world.nm.remove_device(wifi.device)
    assert sorted(held.keys() - wait_for_configs(client, 12).keys()) == [
        f"{PREFIX}/binary_sensor/gw_1_example/wlan0_connected/config",
        f"{PREFIX}/sensor/gw_1_example/wlan0_ipv4/config", f"{PREFIX}/sensor/gw_1_example/wlan0_signal/config",
        f"{PREFIX}/sensor/gw_1_example/wlan0_ssid/config"]
    assert tarvik.stop() == 0
    client.wait_for(BASE + "/availability", predicate=lambda m: m.text == "offline")

    # Switched off, the next run takes away what the last one left on the broker.
    start(world, {"HomeAssistant": {"nodeId": "gw 1.example"}})
    wait_for_configs(client, 0)


def test_availability_is_online_while_the_session_lives_and_offline_when_tarvik_dies(world):
    scenarios.ethernet(world, active=True)
    client = world.mqtt(subscribe=BASE + "/#")
    client.subscribe(PREFIX + "/#")
    tarvik = world.tarvik()
    assert client.wait_for(BASE + "/availability").text == "online"
    tarvik.wait_for_log(r"\[Engine\] Reloading all devices and connections\.")
    client.sync()
    # Discovery is off unless switched on.
    assert client.messages(PREFIX + "/#") == []

    tarvik.stop(sig=signal.SIGKILL)
    assert client.wait_for(BASE + "/availability").text == "offline"
    message = world.mqtt(subscribe=BASE + "/availability").wait_for(BASE + "/availability")
    assert (message.text, message.retain, message.qos) == ("offline", True, 1)
    world.tarvik()
    assert client.wait_for(BASE + "/availability").text == "online"
    # The will of a session that outlived its connection at the broker does not stand.
    client.publish(BASE + "/availability", off_contract(b"offline"), qos=1, retain=True)
    assert client.wait_for(BASE + "/availability", predicate=lambda m: m.text == "online")
