"""Fleets: the gateway's broker bridged to a central broker with the shipped example configuration;
an operator on the central broker commands one gateway under its own topic base."""

import os
import re

import scenarios
from contract import off_contract
from world import Broker, MqttClient, config_keys, wait_until

SOURCE_DIR = os.environ.get('TARVIK_SOURCE_DIR') or os.path.abspath(os.path.join(os.path.dirname(__file__), '..', '..'))
BRIDGE_EXAMPLE = os.path.join(SOURCE_DIR, 'packaging', 'mosquitto-bridge.conf')
SITE = 'site/gw-0001'   # the example's gateway
CENTRAL_BASE = SITE + '/network'


def bridge_to(port):
    with open(BRIDGE_EXAMPLE) as f:
        return re.sub(r'^address .*$', f'address 127.0.0.1:{port}', f.read(), flags=re.M).splitlines()


def retained(port, base):
    '''{subtopic: payload} of the retained documents under base, as a new subscriber gets them.'''
    client = MqttClient(port)
    client.connect()
    try:
        client.subscribe(base + '/#')
        # Retained messages come right after the subscription, before anything published later; the
        # marker stays outside the base, where no bridge carries it.
        client.subscribe('fleet-test-marker')
        client.publish('fleet-test-marker', off_contract(b'end'), qos=2)
        client.wait_for('fleet-test-marker')
        return {m.topic[len(base) + 1:]: m.payload for m in client.messages() if m.retain}
    finally:
        client.disconnect()


def wait_for_central_to_mirror(world, central):
    '''Central's retained documents, once they hold every retained document of the gateway.'''
    def mirrored():
        gateway, site = retained(world.broker.port, world.base), retained(central.port, CENTRAL_BASE)
        return site if 'status' in gateway and all(site.get(t) == p for t, p in gateway.items()) else None
    return wait_until(mirrored, 30, 'the central broker to hold every retained document of the gateway', interval=0.1)


def test_operator_commands_a_gateway_through_the_bridge_and_keeps_its_retained_documents(world):
    central = Broker(os.path.join(world.directory, 'central'))
    os.makedirs(central.directory)
    central.start()
    try:
        world.broker.extra_config = bridge_to(central.port)
        world.broker.restart()
        scenarios.demo(world)
        tarvik = world.tarvik(config=scenarios.CONFIGS["demo"])
        operator = MqttClient(central.port, base=CENTRAL_BASE)
        operator.connect()
        operator.subscribe(SITE + '/#')
        operator.wait_for(SITE + '/bridge/state', predicate=lambda m: m.text == '1')
        tarvik.wait_for_log(r'\[Engine\] IPC Connected to ')

        operator.command('status/get', {})
        assert operator.wait_for(CENTRAL_BASE + '/status', predicate=lambda m: not m.retain).json['connectivity'] == 4
        assert operator.count(CENTRAL_BASE + '/status/get') == 1   # no command comes back over the bridge
        operator.command('ethernet/config/set', {'interface': 'eth0', 'method': 'manual', 'address': '192.168.1.50',
                                                 'netmask': '255.255.255.0', 'gateway': '192.168.1.1'})
        wait_until(lambda: config_keys(tarvik.config_path).get('Ethernet/address') == '192.168.1.50', 10,
                   'the configuration rewritten by the set command')
        operator.command('ethernet/config/get', {'interface': 'eth0'})
        operator.wait_for(CENTRAL_BASE + '/ethernet/config',
                          predicate=lambda m: m.json.get('address') == '192.168.1.50')
        documents = wait_for_central_to_mirror(world, central)
        assert {'status', 'info', 'ethernet/config', 'wifi/state', 'modem/state'} <= set(documents)
        operator.disconnect()

        # The central broker restarts and loses every retained document: the bridge brings them back. Then
        # the gateway's broker restarts, the bridge with it: central keeps them all meanwhile.
        for broker in (central, world.broker):
            broker.restart()
            assert set(wait_for_central_to_mirror(world, central)) >= set(documents)
        # The operator sees the gateway online again once its bridge is back.
        wait_until(lambda: retained(central.port, SITE).get('bridge/state') == b'1', 30, 'the bridge online',
                   interval=0.1)
    finally:
        central.stop()
