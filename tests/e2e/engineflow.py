"""Helpers shared by the end-to-end tests of monitoring and provisioning."""

import os
import re

from world import config_keys, u32_to_ip4, wait_until

# A Wi-Fi record that names no network: the Wi-Fi device is watched and
# published, but no profile is looked at.
NO_WIFI = {"Wifi": {"ssid": ""}}

STAMP = re.compile(r"\[\s*(\d+\.\d+)\] ")

DEVICE = "org.freedesktop.NetworkManager.Device"
# The device types tarvik publishes documents for (NetworkManager's numbers), by their name in topics.
KINDS = {1: "ethernet", 2: "wifi", 8: "modem"}


def start(world, mqtt, config=None, extra_args=(), level="2"):
    """Starts tarvik and returns once its first reload has run to its end.

    The info level keeps the published documents out of the log, so that a
    failure shows the engine's own lines."""
    tarvik = world.tarvik(config=NO_WIFI if config is None else config, extra_args=["-v", level, *extra_args])
    tarvik.wait_for_log(r"\[Engine\] Reloading all devices and connections\.", timeout=15)
    # The reload's own documents must not pass for the answers that sync waits for; they stay for the
    # test to read.
    mqtt.wait_for(mqtt.topic("info"))
    for kind, interface in published_devices(world):
        wait_until(lambda k=kind, i=interface: any(m.json.get("interface") == i
                                                   for m in mqtt.messages(mqtt.topic(f"{k}/config"))),
                   15, f"the {kind}/config document of {interface}")
    mqtt.sync()
    return tarvik


def published_devices(world):
    """(kind, interface) of each device of the simulated NetworkManager that tarvik publishes documents for."""
    for path in world.nm.manager_property("Devices"):
        kind = KINDS.get(int(world.nm.get(path, DEVICE, "DeviceType")))
        if kind:
            yield kind, str(world.nm.get(path, DEVICE, "Interface"))


def published(mqtt, topic, since):
    """The documents published on topic (relative to the base) after the given time."""
    return [m for m in mqtt.messages(mqtt.topic(topic)) if m.time >= since]


def stamp(line):
    """tarvik's own time stamp of a log line, in seconds."""
    return float(STAMP.search(line).group(1))


def addresses(ipv4):
    """The legacy address entries of an ipv4 setting as (address, prefix, gateway)."""
    return [(u32_to_ip4(a), p, u32_to_ip4(g)) for a, p, g in ipv4.get("addresses", [])]


def dns(ipv4):
    return [u32_to_ip4(server) for server in ipv4.get("dns", [])]


def usage_totals(path):
    """{month: (rxbytes, txbytes)} as the statistics file holds them."""
    keys = config_keys(path) if os.path.exists(path) else {}
    return {key[:-8]: (int(value), int(keys[key[:-8] + "/txbytes"])) for key, value in keys.items()
            if key.endswith("/rxbytes")}
