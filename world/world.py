#!/usr/bin/python3
'''The simulated world tarvik runs in during tests, the demo and the benchmark.

A private system bus, a simulated NetworkManager and ModemManager (python-dbusmock
with the templates beside this file), a mosquitto broker, tarvik itself and MQTT
test clients. Everything started here runs in its own process group and is
killed by stop(), at interpreter exit, and (through the parent-death signal)
when the process that started it dies. See README.md for the API.

The pieces live beside this file: processes.py, dbusvalues.py, profiles.py,
services.py (bus, NetworkManager, ModemManager), broker.py, mqttclient.py and
tarvikprocess.py; this module puts them together and is what tests import.
'''

import argparse
import os
import shutil
import signal
import sys
import tempfile
import threading

from broker import Broker, SilentListener
from dbusvalues import dbus_props, dbus_settings, ip4_to_u32, plain, u32_to_ip4
from mqttclient import DEFAULT_BASE, Message, MqttClient
from processes import group_members, install_termination_handler, kill_group, spawn, wait_until
from profiles import AP_SECURITY, ethernet_profile, gsm_profile, ipv4_setting, wifi_profile
from services import MM_BUS, NM_BUS, Bus, MockService, ModemManager, NetworkManager, NeverStartingService
from tarvikprocess import SyslogRecord, Tarvik, config_keys, config_text, under_tmp

HERE = os.path.dirname(os.path.abspath(__file__))
TEMPLATES = os.path.join(HERE, 'templates')

# What tests import from here (the pieces live in the modules beside this one).
__all__ = [
    'AP_SECURITY', 'Broker', 'Bus', 'Message', 'MockService', 'ModemManager', 'MqttClient', 'NetworkManager',
    'SilentListener', 'SyslogRecord', 'Tarvik', 'World', 'config_keys', 'config_text', 'dbus_props', 'dbus_settings',
    'ethernet_profile', 'group_members', 'gsm_profile', 'ip4_to_u32', 'ipv4_setting', 'kill_group', 'plain',
    'spawn', 'u32_to_ip4', 'wait_until', 'wifi_profile',
]


# ---------------------------------------------------------------- the world

def world_parent_directory():
    '''$TARVIK_WORLD_DIR, else <build dir>/worlds (each checkout keeps its own), else /var/tmp.

    Never /tmp: tarvik may run with a private /tmp. The bus socket path must stay short.'''
    parent = os.environ.get('TARVIK_WORLD_DIR')
    build = os.environ.get('TARVIK_BUILD_DIR')
    if not parent and build and len(os.path.join(build, 'worlds')) < 60 and not under_tmp(build):
        parent = os.path.join(build, 'worlds')
    parent = parent or '/var/tmp'
    os.makedirs(parent, exist_ok=True)
    return parent


class World:
    '''Bus, NetworkManager, ModemManager and broker for one test (or module, or demo run).'''

    def __init__(self, directory=None, broker_users=None, broker_port=None, nm_parameters=None,
                 base=DEFAULT_BASE, keep=None, service_logs=True, modemmanager='simulated'):
        '''modemmanager: "simulated", or "never-starts" (activatable on the bus, never taking its name).'''
        self._own_directory = directory is None
        self.directory = directory or tempfile.mkdtemp(prefix='tarvik-world-', dir=world_parent_directory())
        os.makedirs(self.directory, exist_ok=True)
        os.chmod(self.directory, 0o755)
        self.keep = bool(os.environ.get('TARVIK_KEEP_WORLD')) if keep is None else keep
        self.base = base
        self.never_starting_mm = (NeverStartingService(self.directory, MM_BUS)
                                  if modemmanager == 'never-starts' else None)
        self.bus = Bus(self.directory, self.never_starting_mm and self.never_starting_mm.service_dir)
        self.broker = Broker(self.directory, broker_port, broker_users)
        self.nm_parameters = nm_parameters or {}
        self.service_logs = service_logs
        self.nm_service = None
        self.mm_service = None
        self.nm = None
        self.mm = None
        self._tarviks = []
        self._clients = []
        self._listeners = []

    @property
    def bus_address(self):
        return self.bus.address

    def start(self):
        install_termination_handler()
        try:
            self.bus.start()
            self.start_services()
            self.broker.start()
        except BaseException as error:
            self.stop(remove=False)
            if isinstance(error, Exception):
                raise RuntimeError(f'{error}\n(logs in {self.directory})') from error
            raise
        return self

    def start_services(self):
        '''The simulated NetworkManager and ModemManager, started side by side.'''
        self.nm_service = MockService(
            self.bus, os.path.join(TEMPLATES, 'networkmanager.py'), NM_BUS,
            os.path.join(self.directory, 'networkmanager.log'),
            ('/org/freedesktop/NetworkManager', 'org.freedesktop.DBus.Properties', 'Get',
             ['org.freedesktop.NetworkManager', 'Version']), self.nm_parameters, self.service_logs)
        self.nm_service.launch()
        if not self.never_starting_mm:
            self.mm_service = self.modemmanager_service()
            self.mm_service.launch()
        self.nm_service.wait_ready()
        self.nm = NetworkManager(self.bus)
        if self.mm_service:
            self.mm_service.wait_ready()
            self.mm = ModemManager(self.bus)

    def modemmanager_activations(self):
        '''How often the bus tried to start the never-starting ModemManager.'''
        return len(self.never_starting_mm.launches())

    def modemmanager_service(self):
        '''The simulated ModemManager for this world's bus (not yet launched).'''
        return MockService(
            self.bus, os.path.join(TEMPLATES, 'modemmanager.py'), MM_BUS,
            os.path.join(self.directory, 'modemmanager.log'),
            ('/org/freedesktop/ModemManager1', 'org.freedesktop.DBus.ObjectManager', 'GetManagedObjects', []),
            None, self.service_logs)

    def restart_networkmanager(self):
        '''The simulated NetworkManager leaves the bus and comes back empty, as after a package upgrade.'''
        self.nm_service.stop()
        self.nm_service.start()
        self.nm = NetworkManager(self.bus)

    def restart_modemmanager(self):
        '''The simulated ModemManager leaves the bus and comes back without modems.'''
        self.mm_service.stop()
        self.mm_service.start()
        self.mm = ModemManager(self.bus)

    def tarvik_config(self):
        '''The configuration that points tarvik at this world's broker.'''
        return {'Mqtt': {'url': '127.0.0.1', 'port': self.broker.port, 'base': self.base}}

    def tarvik(self, config=None, start=True, **kwargs):
        '''A tarvik process for this world (started unless start=False); stopped with the world.'''
        t = Tarvik(self, config=config, **kwargs)
        self._tarviks.append(t)
        return t.start() if start else t

    def silent_listener(self):
        '''A port that accepts connections and never answers (for the connect watchdog); closed with the world.'''
        listener = SilentListener()
        self._listeners.append(listener)
        return listener

    def mqtt(self, subscribe=None, qos=2, **kwargs):
        '''A connected test client (subscribed to the filter when given); disconnected with the world.'''
        kwargs.setdefault('base', self.base)
        client = MqttClient(self.broker.port, **kwargs)
        self._clients.append(client)
        client.connect()
        if subscribe:
            client.subscribe(subscribe, qos)
        return client

    def stop(self, remove=None):
        for t in self._tarviks:
            try:
                t.stop()
            except Exception:  # noqa: BLE001
                pass
        for client in self._clients:
            try:
                client.disconnect()
            except Exception:  # noqa: BLE001
                pass
        for listener in self._listeners:
            listener.close()
        self.broker.stop()
        for service in (self.mm_service, self.nm_service):
            if service is not None:
                service.stop()
        self.bus.stop()
        if self.never_starting_mm:
            self.never_starting_mm.stop()
        if remove is None:
            remove = not self.keep
        if remove and self._own_directory:
            shutil.rmtree(self.directory, ignore_errors=True)

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.stop()


# ---------------------------------------------------------------- command line (the demo uses it)

def main():
    sys.path.insert(0, HERE)
    import scenarios

    parser = argparse.ArgumentParser(description='Run a simulated world until SIGINT or SIGTERM.')
    parser.add_argument('--scenario', default='demo', choices=sorted(scenarios.SCENARIOS))
    parser.add_argument('--config-out', help='write a tarvik configuration for this world to the file')
    parser.add_argument('--dir', help='directory for sockets and logs (default: a new one under /var/tmp)')
    parser.add_argument('--port', type=int, help='broker port (default: a free one)')
    parser.add_argument('--animate', type=float, nargs='?', const=10.0, metavar='SECONDS',
                        help='change the world every SECONDS (default 10) as the scenario describes')
    options = parser.parse_args()

    stop = threading.Event()
    for sig in (signal.SIGINT, signal.SIGTERM):
        signal.signal(sig, lambda *_: stop.set())
    world = World(directory=options.dir, broker_port=options.port)
    try:
        world.start()
        built = scenarios.SCENARIOS[options.scenario](world)
        changes = scenarios.CHANGES.get(options.scenario) if options.animate else None
        steps = changes(world, built) if changes else None
        if options.config_out:
            with open(options.config_out, 'w') as f:
                f.write(config_text({**world.tarvik_config(), **scenarios.CONFIGS.get(options.scenario, {})}))
        print(f'DBUS_SYSTEM_BUS_ADDRESS={world.bus_address}', flush=True)
        print(f'MQTT_PORT={world.broker.port}', flush=True)
        print(f'WORLD_DIR={world.directory}', flush=True)
        period = options.animate or 0.5
        while not stop.wait(period):
            if steps:
                next(steps)
    finally:
        world.stop()


if __name__ == '__main__':
    main()
