'''A world whose NetworkManager is the real daemon, in network and mount namespaces of its own.

The daemon runs on the world's private bus beside the simulated ModemManager, with its own
configuration, state and keyfile directory in the world directory, a read-only /sys (it then does
without udev) and empty /run and /var/lib/NetworkManager. Its namespace holds a veth named after
the modem's data port and a veth it manages as a device of its own; their far ends sit in a second
namespace where dnsmasq answers DHCP. The broker, the test clients and tarvik run in the daemon's
namespace, so tarvik reads the data port's real counters from /sys/class/net.
'''

import atexit
import contextlib
import ctypes
import itertools
import os
import shutil
import socket
import subprocess

import dbus

from broker import Broker
from dbusvalues import dbus_settings, plain
from profiles import gsm_profile
from processes import kill_group, log_tail, spawn, wait_until
from services import NM_BUS, ModemManager, NetworkManager
from tarvikprocess import Tarvik
from world import World

DATA_PORT = 'wwan0'
MODEM_DEVICE = 'cdc-wdm0'   # the simulated modem's primary port, the daemon's name for it
MODEM_PROFILE = 'Broadband'
OWN_DEVICE = 'tv0'
MANAGED_PREFIX = 'tv'
# Each link of the daemon and the subnet dnsmasq serves on it (the daemon's end gets <subnet>.2).
SUBNETS = {DATA_PORT: '10.64.0', OWN_DEVICE: '10.65.0'}
DNS_SERVERS = ('10.64.0.53', '10.64.0.54')

CONFIG = '''[main]
plugins=keyfile
dhcp=internal
dns=none
rc-manager=unmanaged
hostname-mode=none
auth-polkit=false
no-auto-default=*

[keyfile]
path={keyfiles}
unmanaged-devices=except:interface-name:{prefix}*;except:type:gsm

[connectivity]
enabled=false
'''

# Inside the namespaces made by `ip netns exec` and unshare: no udev, nothing of the machine's state.
MOUNTS = '''set -e
mount -o remount,bind,ro /sys
mount -t tmpfs -o mode=0755 nm-run /run
mount -t tmpfs -o mode=0755 nm-state /var/lib/NetworkManager
exec "$@"
'''

_CLONE_NEWNET = 0x40000000
_runs = itertools.count()


class Unavailable(Exception):
    '''The machine cannot run the real daemon (the tests skip, naming the reason).'''


def unavailable():
    '''Why the real daemon cannot run here, or None.'''
    if os.geteuid() != 0:
        return 'the real NetworkManager needs root (network namespaces)'
    for program, package in (('NetworkManager', 'network-manager'), ('dnsmasq', 'dnsmasq-base'),
                             ('ip', 'iproute2'), ('unshare', 'util-linux'), ('dbus-monitor', 'dbus')):
        if not shutil.which(program):
            return f'{program} is not installed (Debian package {package})'
    return None


def run(*cmd):
    result = subprocess.run(cmd, stdin=subprocess.DEVNULL, capture_output=True, text=True)
    if result.returncode != 0:
        raise RuntimeError(f'{" ".join(cmd)}: {result.stderr.strip()}')
    return result.stdout


class Namespace:
    '''A named network namespace.'''

    def __init__(self, name):
        self.name = name
        self.exec_prefix = ['ip', 'netns', 'exec', name]

    def create(self):
        try:
            run('ip', 'netns', 'add', self.name)
        except RuntimeError as error:
            raise Unavailable(f'no network namespaces here ({error})') from error
        atexit.register(self.delete)   # also when no teardown runs
        self.ip('link', 'set', 'lo', 'up')

    def ip(self, *args):
        return run('ip', '-n', self.name, *args)

    def read(self, path):
        '''A file as seen inside the namespace (its own /sys/class/net).'''
        return run(*self.exec_prefix, 'cat', path)

    @contextlib.contextmanager
    def entered(self):
        '''The calling thread lives in the namespace for a while: processes, threads and sockets it
        makes meanwhile stay there.'''
        setns = ctypes.CDLL('libc.so.6', use_errno=True).setns
        with open('/proc/thread-self/ns/net') as own, open(f'/run/netns/{self.name}') as target:
            if setns(target.fileno(), _CLONE_NEWNET) != 0:
                raise OSError(ctypes.get_errno(), f'setns {self.name}')
            try:
                yield
            finally:
                setns(own.fileno(), _CLONE_NEWNET)

    def delete(self):
        subprocess.run(['ip', 'netns', 'delete', self.name], stderr=subprocess.DEVNULL)


class NetworkManagerDaemon:
    '''NetworkManager itself with links to manage and DHCP beside them; start() waits until it is ready.'''

    def __init__(self, bus, directory):
        self.bus = bus
        self.directory = os.path.join(directory, 'networkmanager')
        tag = f'{os.getpid()}-{next(_runs)}'
        self.netns = Namespace(f'tarvik-nm-{tag}')
        self.peer = Namespace(f'tarvik-dhcp-{tag}')
        self.keyfiles = os.path.join(self.directory, 'system-connections')
        self.log_file = os.path.join(directory, 'networkmanager.log')
        self.proc = self.dhcp = self.monitor = None
        self.version = None

    def create_links(self):
        self.netns.create()
        self.peer.create()
        for index, (name, subnet) in enumerate(SUBNETS.items()):
            far = f'dhcp{index}'
            self.netns.ip('link', 'add', name, 'type', 'veth', 'peer', 'name', far, 'netns', self.peer.name)
            self.peer.ip('address', 'add', f'{subnet}.1/24', 'dev', far)
            self.peer.ip('link', 'set', far, 'up')
        ranges = [f'--dhcp-range={subnet}.2,{subnet}.2,255.255.255.0,1h' for subnet in SUBNETS.values()]
        self.dhcp = spawn(self.peer.exec_prefix + [
            'dnsmasq', '--no-daemon', '--conf-file=/dev/null', '--port=0', '--no-ping', '--leasefile-ro',
            '--dhcp-option=option:dns-server,' + ','.join(DNS_SERVERS), *ranges],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=open(os.path.join(os.path.dirname(self.directory), 'dnsmasq.log'), 'wb'))

    def command(self):
        files = {name: os.path.join(self.directory, name) for name in
                 ('NetworkManager.conf', 'conf.d', 'system-conf.d', 'state', 'intern.conf')}
        for name in (files['conf.d'], files['system-conf.d'], self.keyfiles):
            os.makedirs(name, exist_ok=True)
        with open(files['NetworkManager.conf'], 'w') as f:
            f.write(CONFIG.format(keyfiles=self.keyfiles, prefix=MANAGED_PREFIX))
        return self.netns.exec_prefix + [
            'unshare', '--mount', '--uts', '--propagation', 'private', 'sh', '-c', MOUNTS, 'nm-mounts',
            'NetworkManager', '--no-daemon', '--debug', '--config=' + files['NetworkManager.conf'],
            '--config-dir=' + files['conf.d'], '--system-config-dir=' + files['system-conf.d'],
            '--state-file=' + files['state'], '--intern-config=' + files['intern.conf'],
            '--pid-file=' + os.path.join(self.directory, 'NetworkManager.pid')]

    def start(self, timeout=30):
        os.makedirs(self.directory, exist_ok=True)
        self.create_links()
        self._spawn('wb')
        # The daemon keeps no call log: a monitor writes every call made to it and every device state change.
        self.monitor = spawn(['dbus-monitor', '--address', self.bus.address, '--profile',
                              f"type='method_call',destination='{NM_BUS}'",
                              "type='signal',interface='org.freedesktop.NetworkManager.Device',member='StateChanged'"],
                             stdin=subprocess.DEVNULL, stdout=open(self.bus_log_file, 'wb'),
                             stderr=subprocess.DEVNULL)
        version = self._wait_ready(timeout)
        self.version = f'NetworkManager {run("NetworkManager", "--version").strip()} (D-Bus Version {version})'

    def restart(self, timeout=30):
        """Stopped as its service would be (its unsaved profiles and checkpoints go with it) and started again on
        the same links, files and keyfiles."""
        kill_group(self.proc)
        self._spawn('ab')
        self._wait_ready(timeout)

    def _spawn(self, log_mode):
        env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=self.bus.address)
        self.proc = spawn(self.command(), env=env, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                          stderr=open(self.log_file, log_mode))

    def _wait_ready(self, timeout):
        self.bus.wait_for_name(NM_BUS, self.proc, timeout, self.log_file)
        # The name comes before the objects: the manager answers once it is exported.
        return wait_until(self._version, timeout, 'the NetworkManager object', interval=0.01)

    def _version(self):
        try:
            return self.manager().manager_property('Version')
        except dbus.exceptions.DBusException:
            if self.proc.poll() is not None:
                raise RuntimeError('NetworkManager exited' + log_tail(self.log_file)) from None
            return None

    @property
    def bus_log_file(self):
        return os.path.join(self.directory, 'bus.log')

    def manager(self):
        return RealNetworkManager(self.bus, self)

    def stop(self):
        for proc in (self.proc, self.monitor, self.dhcp):
            kill_group(proc)
        self.proc = self.monitor = self.dhcp = None
        self.netns.delete()
        self.peer.delete()


class RealNetworkManager(NetworkManager):
    '''Reads back what the real daemon holds (w.nm); the steering methods of the simulated one do not apply.'''

    DEVICE = 'org.freedesktop.NetworkManager.Device'
    CONNECTION = 'org.freedesktop.NetworkManager.Settings.Connection'

    def __init__(self, bus, daemon):
        super().__init__(bus)
        self.daemon = daemon
        self._marks = itertools.count()

    def _call(self, path, iface, method, *args):
        proxy = self.bus.connection.get_object(NM_BUS, path, introspect=False)
        return plain(proxy.get_dbus_method(method, iface)(*args))

    def devices(self):
        '''{interface name: device path}'''
        found = {}
        for path in self.manager_property('Devices'):
            try:
                found[self.get(path, self.DEVICE, 'Interface')] = path
            except dbus.exceptions.DBusException:
                pass   # gone meanwhile (the data port's own device, once the modem claims it)
        return found

    def connection_settings(self, connection):
        return self._call(connection, self.CONNECTION, 'GetSettings')

    def connection_secrets(self, connection, setting=None):
        '''The stored secrets of the setting ({} when the daemon has none).'''
        try:
            return self._call(connection, self.CONNECTION, 'GetSecrets', setting).get(setting, {})
        except dbus.exceptions.DBusException as error:
            if error.get_dbus_name().endswith(('.NoSecrets', '.SettingNotFound')):
                return {}
            raise

    def bus_log(self):
        '''[(path, member)] of the calls made to the daemon and of its devices' StateChanged signals so far,
        in bus order (the test's own calls included).

        Everything sent before this call is in: a call of its own, once the monitor has it, closes the list.'''
        mark = (f'/tarvik/mark{next(self._marks)}', 'Ping')
        try:
            self._call(mark[0], 'org.freedesktop.DBus.Peer', 'Ping')
        except dbus.exceptions.DBusException:
            pass

        def read():
            with open(self.daemon.bus_log_file) as f:
                rows = [line.rstrip('\n').split('\t') for line in f if line.startswith(('mc\t', 'sig\t'))]
            found = [(row[5], row[7]) for row in rows if len(row) >= 8]
            return found[:found.index(mark)] if mark in found else None
        return wait_until(read, 10, 'the bus monitor')

    def add_and_activate(self, settings, device):
        '''A saved profile, activated on the device; returns the profile's path.'''
        manager = '/org/freedesktop/NetworkManager'
        return self._call(manager, NM_BUS, 'AddAndActivateConnection', dbus_settings(settings),
                          dbus.ObjectPath(device), dbus.ObjectPath('/'))[0]

    def wait_for_device(self, iface, state, timeout=30):
        '''The path of the device once it is in the state.'''
        def ready():
            path = self.devices().get(iface)
            return path if path and self.device_state(path) == state else None
        return wait_until(ready, timeout, f'{iface} in state {state}', interval=0.05)


class _NamespacedBroker(Broker):
    def __init__(self, netns, *args, **kwargs):
        super().__init__(*args, **kwargs)
        self.netns = netns

    def start(self, timeout=10):
        with self.netns.entered():
            super().start(timeout)


class _NamespacedTarvik(Tarvik):
    def command_line(self):
        return self.world.daemon.netns.exec_prefix + super().command_line()


class RealWorld(World):
    '''A World (see world.py) whose NetworkManager is the real daemon: w.nm reads it back, w.daemon runs it.

    w.mm is the simulated ModemManager; the modem to connect is added by start() (with modem_options for
    add_modem). Making or starting one raises Unavailable when the machine cannot run the daemon (and leaves
    nothing behind).

    With broker_over_modem the broker sits at the far end of the modem's data port, as a fleet's central broker
    behind a cellular uplink: tarvik reaches it only while the modem is connected (start() connects it with a
    profile of its own), the test clients from beside it.'''

    def __init__(self, broker_over_modem=False, modem_options=None, **kwargs):
        reason = unavailable()
        if reason:
            raise Unavailable(reason)
        super().__init__(**kwargs)
        self.daemon = NetworkManagerDaemon(self.bus, self.directory)
        self.broker_over_modem = broker_over_modem
        self.modem_options = modem_options or {}
        if broker_over_modem:
            self.broker = _NamespacedBroker(self.daemon.peer, self.directory, host=SUBNETS[DATA_PORT] + '.1')
        else:
            self.broker = _NamespacedBroker(self.daemon.netns, self.directory)
        self.modem = None

    @property
    def client_namespace(self):
        return self.daemon.peer if self.broker_over_modem else self.daemon.netns

    def start(self):
        try:
            return super().start()
        except RuntimeError as error:
            if isinstance(error.__cause__, Unavailable):
                self.stop()
                raise error.__cause__ from None
            raise

    def start_services(self):
        self.mm_service = self.modemmanager_service()
        self.mm_service.start()
        self.mm = ModemManager(self.bus)
        self.modem = self.mm.add_modem('gsm', bearer_interface=DATA_PORT, **self.modem_options)
        self.nm_service = self.daemon
        self.daemon.start()
        self.nm = self.daemon.manager()
        modem = self.nm.wait_for_device(MODEM_DEVICE, state=30)
        self.nm.wait_for_device(OWN_DEVICE, state=30)
        wait_until(lambda: not self.nm.manager_property('Startup'), 30, 'NetworkManager to finish starting')
        if self.broker_over_modem:
            profile = gsm_profile(MODEM_PROFILE, apn=self.modem_options.get('apn', 'internet'))
            profile['ipv6'] = {'method': 'ignore'}
            self.nm.add_and_activate(profile, modem)
            self.nm.wait_for_device(MODEM_DEVICE, state=100)

    def tarvik_config(self):
        config = super().tarvik_config()
        config['Mqtt']['url'] = self.broker.host
        return config

    def tarvik(self, config=None, start=True, **kwargs):
        t = _NamespacedTarvik(self, config=config, **kwargs)
        self._tarviks.append(t)
        return t.start() if start else t

    def mqtt(self, subscribe=None, qos=2, **kwargs):
        # The client's network thread is born in the namespace and reconnects there.
        with self.client_namespace.entered():
            return super().mqtt(subscribe, qos, host=self.broker.host, **kwargs)

    def counters(self, iface=DATA_PORT):
        '''(rx_bytes, tx_bytes) of a link of the daemon's namespace.'''
        return tuple(int(self.daemon.netns.read(f'/sys/class/net/{iface}/statistics/{name}'))
                     for name in ('rx_bytes', 'tx_bytes'))

    def push_bytes(self, total, iface=DATA_PORT):
        '''At least total bytes over the link, half each way, in the largest datagrams UDP carries.'''
        self.send_traffic(iface, size=65000, count=-(-total // 130000))

    def send_traffic(self, iface=DATA_PORT, size=1000, count=50):
        '''UDP datagrams over the link in both directions, to a port nobody listens on.'''
        subnet = SUBNETS[iface]
        for namespace, target in ((self.daemon.netns, f'{subnet}.1'), (self.daemon.peer, f'{subnet}.2')):
            with namespace.entered():
                with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
                    for _ in range(count):
                        sock.sendto(b'x' * size, (target, 9))
