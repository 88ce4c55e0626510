#!/usr/bin/python3
'''The simulated world tarvik runs in during tests, the demo and the benchmark.

A private system bus, a simulated NetworkManager and ModemManager (python-dbusmock
with the templates beside this file), a mosquitto broker, tarvik itself and MQTT
test clients. Everything started here runs in its own process group and is
killed by stop(), at interpreter exit, and (through the parent-death signal)
when the process that started it dies. See README.md for the API.
'''

import argparse
import atexit
import ctypes
import json
import os
import re
import select
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time

import dbus

HERE = os.path.dirname(os.path.abspath(__file__))
TEMPLATES = os.path.join(HERE, 'templates')
PYTHON = '/usr/bin/python3'
MOCK_IFACE = 'org.freedesktop.DBus.Mock'
NM_BUS = 'org.freedesktop.NetworkManager'
MM_BUS = 'org.freedesktop.ModemManager1'
DEFAULT_BASE = 'tolv/network'


# ---------------------------------------------------------------- processes

_live = set()
_PR_SET_PDEATHSIG = 1


def _die_with_parent():
    ctypes.CDLL('libc.so.6', use_errno=True).prctl(_PR_SET_PDEATHSIG, signal.SIGKILL)


def spawn(cmd, **kwargs):
    '''Starts a process in its own process group that dies with this one.'''
    proc = subprocess.Popen(cmd, start_new_session=True, preexec_fn=_die_with_parent, **kwargs)
    _live.add(proc)
    return proc


def kill_group(proc, timeout=5.0, sig=signal.SIGTERM):
    '''Stops the process group: the signal first, SIGKILL when it lingers; waits for the leader.'''
    if proc is None:
        return None
    try:
        if proc.poll() is None:
            try:
                os.killpg(proc.pid, sig)
            except ProcessLookupError:
                pass
            try:
                proc.wait(timeout)
            except subprocess.TimeoutExpired:
                pass
        try:
            os.killpg(proc.pid, signal.SIGKILL)
        except (ProcessLookupError, PermissionError):
            pass
        proc.wait(timeout)
        wait_until(lambda: not group_members(proc.pid), timeout, f'process group {proc.pid} to end')
    finally:
        _live.discard(proc)
    return proc.returncode


def group_members(pgid):
    '''Processes of the group that still run (zombies waiting for their reaper do not count).'''
    members = []
    for entry in os.listdir('/proc'):
        if not entry.isdigit():
            continue
        try:
            with open(f'/proc/{entry}/stat') as f:
                fields = f.read().rsplit(')', 1)[1].split()
        except OSError:
            continue
        if int(fields[2]) == pgid and fields[0] not in ('Z', 'X'):
            members.append(int(entry))
    return members


def _kill_everything():
    for proc in list(_live):
        try:
            kill_group(proc, timeout=2.0)
        except Exception:  # noqa: BLE001 - best effort at exit
            pass


atexit.register(_kill_everything)


def _install_termination_handler():
    '''SIGTERM unwinds like Ctrl-C, so that finally blocks and fixtures stop what they started.'''
    if threading.current_thread() is not threading.main_thread():
        return
    if signal.getsignal(signal.SIGTERM) == signal.SIG_DFL:
        def on_term(signum, frame):
            raise KeyboardInterrupt('SIGTERM')
        signal.signal(signal.SIGTERM, on_term)


def wait_until(condition, timeout, what, interval=0.005):
    '''Polls condition until it returns a true value or the deadline passes.'''
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise TimeoutError(f'timed out after {timeout} s waiting for {what}')
        time.sleep(interval)


def free_port():
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.bind(('127.0.0.1', 0))
        return s.getsockname()[1]


# ---------------------------------------------------------------- D-Bus values

def plain(value):
    '''D-Bus values as plain Python values (byte arrays become bytes).'''
    if isinstance(value, dbus.Boolean):
        return bool(value)
    if isinstance(value, (dbus.String, dbus.ObjectPath, dbus.Signature)):
        return str(value)
    if isinstance(value, dbus.Byte):
        return int(value)
    if isinstance(value, (dbus.Double, float)):
        return float(value)
    if isinstance(value, int):
        return int(value)
    if isinstance(value, dbus.ByteArray) or (isinstance(value, dbus.Array) and value.signature == 'y'):
        return bytes(value)
    if isinstance(value, dict):
        return {plain(k): plain(v) for k, v in value.items()}
    if isinstance(value, dbus.Struct):
        return tuple(plain(v) for v in value)
    if isinstance(value, (list, tuple)):
        return [plain(v) for v in value]
    return value


def ip4_to_u32(address):
    '''An IPv4 address as NetworkManager's au/aau values hold it (network byte order).'''
    return struct.unpack('=I', socket.inet_aton(address))[0]


def u32_to_ip4(value):
    return socket.inet_ntoa(struct.pack('=I', int(value)))


# D-Bus types of the profile keys that are not strings; anything else goes by its Python type.
SETTING_TYPES = {
    'timestamp': 't', 'autoconnect': 'b', 'autoconnect-priority': 'i', 'autoconnect-retries': 'i',
    'auth-retries': 'i', 'metered': 'i', 'read-only': 'b', 'wait-device-timeout': 'i', 'llmnr': 'i', 'mdns': 'i',
    'ssid': 'ay', 'mac-address': 'ay', 'cloned-mac-address': 'ay', 'seen-bssids': 'as', 'hidden': 'b',
    'channel': 'u', 'mtu': 'u', 'speed': 'u', 'duplex': 's', 'auto-negotiate': 'b', 'tx-power': 'u', 'rate': 'u',
    'powersave': 'u', 'wep-key-type': 'u', 'psk-flags': 'u', 'wep-key-flags': 'u', 'wep-tx-keyidx': 'u',
    'leap-password-flags': 'u', 'pmf': 'i', 'wps-method': 'u', 'fils': 'i',
    'proto': 'as', 'pairwise': 'as', 'group': 'as',
    'addresses': 'aau', 'address-data': 'aa{sv}', 'dns': 'au', 'routes': 'aau', 'route-data': 'aa{sv}',
    'dns-search': 'as', 'dns-options': 'as', 'route-metric': 'x', 'route-table': 'u', 'dns-priority': 'i',
    'may-fail': 'b', 'ignore-auto-dns': 'b', 'ignore-auto-routes': 'b', 'never-default': 'b',
    'dhcp-send-hostname': 'b', 'dhcp-timeout': 'i', 'required-timeout': 'i', 'dad-timeout': 'i',
    'password-flags': 'u', 'pin-flags': 'u', 'home-only': 'b', 'auto-config': 'b', 'device-id': 's',
    'sim-id': 's', 'sim-operator-id': 's', 'mtu-gsm': 'u', 'addr-gen-mode': 'i', 'ip6-privacy': 'i',
}


def _typed(key, value):
    if isinstance(value, (dbus.Boolean, dbus.String, dbus.Array, dbus.Dictionary, dbus.Struct, dbus.ByteArray,
                          dbus.Byte, dbus.Int16, dbus.UInt16, dbus.Int32, dbus.UInt32, dbus.Int64, dbus.UInt64,
                          dbus.Double, dbus.ObjectPath)):
        return value
    kind = SETTING_TYPES.get(key)
    if kind == 'ay':
        data = value.encode() if isinstance(value, str) else bytes(value)
        return dbus.ByteArray(data) if key == 'ssid' else dbus.Array([dbus.Byte(b) for b in data], signature='y')
    if kind == 'b':
        return dbus.Boolean(value)
    if kind in ('u', 'i', 't', 'x'):
        return {'u': dbus.UInt32, 'i': dbus.Int32, 't': dbus.UInt64, 'x': dbus.Int64}[kind](value)
    if kind == 'as':
        return dbus.Array([dbus.String(v) for v in value], signature='s')
    if kind == 'au':
        return dbus.Array([dbus.UInt32(ip4_to_u32(v) if isinstance(v, str) else v) for v in value], signature='u')
    if kind == 'aau':
        return dbus.Array([dbus.Array([dbus.UInt32(ip4_to_u32(x) if isinstance(x, str) else x) for x in entry],
                                      signature='u') for entry in value], signature='au')
    if kind == 'aa{sv}':
        return dbus.Array([dbus.Dictionary({k: _typed(k, v) for k, v in entry.items()}, signature='sv')
                           for entry in value], signature='a{sv}')
    if isinstance(value, bool):
        return dbus.Boolean(value)
    if isinstance(value, int):
        return dbus.UInt32(value) if value >= 0 else dbus.Int32(value)
    if isinstance(value, (bytes, bytearray)):
        return dbus.Array([dbus.Byte(b) for b in value], signature='y')
    if isinstance(value, dict):
        return dbus.Dictionary({k: _typed(k, v) for k, v in value.items()}, signature='sv')
    if isinstance(value, (list, tuple)):
        return dbus.Array([dbus.String(v) for v in value], signature='s')
    return dbus.String(value)


def dbus_settings(settings):
    '''A profile given as nested plain dicts, typed as NetworkManager's a{sa{sv}}.'''
    return dbus.Dictionary({group: dbus.Dictionary({k: _typed(k, v) for k, v in values.items()}, signature='sv')
                            for group, values in settings.items()}, signature='sa{sv}')


def dbus_props(props):
    return dbus.Dictionary({k: _typed(k, v) for k, v in props.items()}, signature='sv')


# ---------------------------------------------------------------- profile builders

def ipv4_setting(method='auto', address=None, prefix=24, gateway=None, dns=()):
    '''An ipv4 setting in the daemon's shape: legacy "addresses" and "address-data" together, dns as au.'''
    setting = {'method': method}
    if address:
        setting['addresses'] = [[address, prefix, gateway or '0.0.0.0']]
        setting['address-data'] = [{'address': address, 'prefix': dbus.UInt32(prefix)}]
        if gateway:
            setting['gateway'] = gateway
    if dns:
        setting['dns'] = list(dns)
    return setting


def ethernet_profile(id='Ethernet', autoconnect=True, ipv4=None, interface=None, uuid=None):
    connection = {'id': id, 'type': '802-3-ethernet', 'autoconnect': autoconnect,
                  'timestamp': dbus.UInt64(1700000000)}
    if uuid:
        connection['uuid'] = uuid
    if interface:
        connection['interface-name'] = interface
    return {'connection': connection, '802-3-ethernet': {},
            'ipv4': ipv4 or ipv4_setting(), 'ipv6': {'method': 'auto'}}


def wifi_profile(ssid, security='wpa-psk', key=None, id=None, autoconnect=True, ipv4=None, uuid=None,
                 interface=None):
    '''security: "none" (open), "wep" or "wpa-psk" (WPA1 and WPA2 personal).'''
    connection = {'id': id or ssid, 'type': '802-11-wireless', 'autoconnect': autoconnect,
                  'timestamp': dbus.UInt64(1700000000)}
    if uuid:
        connection['uuid'] = uuid
    if interface:
        connection['interface-name'] = interface
    profile = {'connection': connection, '802-11-wireless': {'ssid': ssid, 'mode': 'infrastructure'},
               'ipv4': ipv4 or ipv4_setting(), 'ipv6': {'method': 'ignore'}}
    if security == 'wpa-psk':
        profile['802-11-wireless']['security'] = '802-11-wireless-security'
        profile['802-11-wireless-security'] = {'key-mgmt': 'wpa-psk', **({'psk': key} if key else {})}
    elif security == 'wep':
        profile['802-11-wireless']['security'] = '802-11-wireless-security'
        profile['802-11-wireless-security'] = {'key-mgmt': 'none', 'wep-key-type': dbus.UInt32(2),
                                               **({'wep-key0': key} if key else {})}
    elif security != 'none':
        raise ValueError(f'unknown Wi-Fi security {security}')
    return profile


def gsm_profile(id='Broadband', apn='internet', username='', password='', pin='', network_id='',
                autoconnect=True, ipv4=None, uuid=None, number='*99#'):
    connection = {'id': id, 'type': 'gsm', 'autoconnect': autoconnect, 'timestamp': dbus.UInt64(1700000000)}
    if uuid:
        connection['uuid'] = uuid
    gsm = {'apn': apn, 'number': number, 'password-flags': dbus.UInt32(0), 'pin-flags': dbus.UInt32(0)}
    for key, value in (('username', username), ('password', password), ('pin', pin), ('network-id', network_id)):
        if value:
            gsm[key] = value
    return {'connection': connection, 'gsm': gsm, 'ipv4': ipv4 or ipv4_setting(), 'ipv6': {'method': 'auto'}}


# Access point security as the daemon's Flags/WpaFlags/RsnFlags (PSK with TKIP or CCMP).
AP_SECURITY = {
    'open': (0x0, 0x0, 0x0),
    'wep': (0x1, 0x0, 0x0),
    'wpa1': (0x1, 0x144, 0x0),
    'wpa2': (0x1, 0x0, 0x188),
    'wpa1-wpa2': (0x1, 0x144, 0x188),
    'wpa2-enterprise': (0x1, 0x0, 0x288),
}


# ---------------------------------------------------------------- the bus

BUS_CONFIG = '''<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path={socket}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_type="method_return"/>
    <allow send_type="error"/>
    <allow send_destination="*"/>
    <allow receive_type="method_call"/>
    <allow receive_type="signal"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_sender="*"/>
  </policy>
  <limit name="reply_timeout">60000</limit>
</busconfig>
'''


class Bus:
    '''A private dbus-daemon of type system on a path socket.'''

    def __init__(self, directory):
        self.directory = directory
        self.socket = os.path.join(directory, 'system_bus_socket')
        self.config_file = os.path.join(directory, 'system-bus.conf')
        self.proc = None
        self.address = None
        self.connection = None

    def start(self, timeout=10):
        with open(self.config_file, 'w') as f:
            f.write(BUS_CONFIG.format(socket=self.socket))
        self.proc = spawn(['dbus-daemon', f'--config-file={self.config_file}', '--nofork', '--print-address'],
                          stdout=subprocess.PIPE, stderr=open(os.path.join(self.directory, 'dbus-daemon.log'), 'wb'),
                          stdin=subprocess.DEVNULL)
        ready, _, _ = select.select([self.proc.stdout], [], [], timeout)
        if not ready:
            raise RuntimeError('dbus-daemon printed no address')
        self.address = self.proc.stdout.readline().decode().strip()
        if not self.address:
            raise RuntimeError('dbus-daemon exited: ' + self.log())
        self.connection = dbus.bus.BusConnection(self.address)

    def log(self):
        try:
            with open(os.path.join(self.directory, 'dbus-daemon.log')) as f:
                return f.read()
        except OSError:
            return ''

    def wait_for_name(self, name, proc, timeout=15):
        def owned():
            if proc.poll() is not None:
                raise RuntimeError(f'{name} exited with {proc.returncode} before taking its name')
            return self.connection.name_has_owner(name)
        wait_until(owned, timeout, f'{name} on the bus', interval=0.01)

    def stop(self):
        if self.connection is not None:
            try:
                self.connection.close()
            except Exception:  # noqa: BLE001
                pass
            self.connection = None
        kill_group(self.proc)
        self.proc = None


class MockService:
    '''One python-dbusmock process serving a template on the private bus.'''

    def __init__(self, bus, template, name, log_file, ready_call, parameters=None):
        self.ready_call = ready_call
        self.bus = bus
        self.template = template
        self.name = name
        self.log_file = log_file
        self.parameters = parameters or {}
        self.proc = None

    def start(self):
        cmd = [PYTHON, '-m', 'dbusmock', '--system', '-l', self.log_file, '--template', self.template]
        if self.parameters:
            cmd += ['--parameters', json.dumps(self.parameters)]
        env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=self.bus.address)
        env.pop('DBUS_SESSION_BUS_ADDRESS', None)
        self.proc = spawn(cmd, env=env, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                          stderr=open(self.log_file + '.stderr', 'wb'))
        self.bus.wait_for_name(self.name, self.proc)
        wait_until(self._loaded, 15, f'{self.name} to load its template', interval=0.01)

    def _loaded(self):
        '''The name is taken before the template is loaded: wait until a call of the template answers.'''
        if self.proc.poll() is not None:
            raise RuntimeError(f'{self.name} exited with {self.proc.returncode}; see {self.log_file}.stderr')
        path, iface, method, args = self.ready_call
        try:
            self.bus.connection.call_blocking(self.name, path, iface, method, 's' * len(args), args, timeout=5)
            return True
        except dbus.exceptions.DBusException:
            return False

    def stop(self):
        kill_group(self.proc)
        self.proc = None


# ---------------------------------------------------------------- NetworkManager

class NetworkManager:
    '''Steers the simulated NetworkManager (w.nm).'''

    def __init__(self, bus):
        self.bus = bus
        self.mock = dbus.Interface(bus.connection.get_object(NM_BUS, '/org/freedesktop', introspect=False),
                                   MOCK_IFACE)
        self._macs = 0

    def _mac(self):
        self._macs += 1
        return '02:00:00:00:00:%02X' % self._macs

    # devices
    def add_ethernet(self, iface='eth0', mac=None, carrier=True, state=None, udi=''):
        if state is None:
            state = 30 if carrier else 20
        return str(self.mock.AddEthernetDevice(iface, mac or self._mac(), udi, carrier, state))

    def add_wifi(self, iface='wlan0', mac=None, state=30, udi=''):
        return str(self.mock.AddWifiDevice(iface, mac or self._mac(), udi, state))

    def add_modem(self, iface='cdc-wdm0', modem='/', ip_iface='wwan0', state=30, capabilities=4,
                  operator_code=''):
        '''A modem device; modem is the ModemManager modem path (the device's Udi).'''
        return str(self.mock.AddModemDevice(iface, modem, ip_iface, capabilities, state, operator_code))

    def add_device(self, iface, device_type, state=30, udi='', mac=''):
        return str(self.mock.AddGenericDevice(iface, device_type, state, udi, mac))

    def remove_device(self, device):
        self.mock.RemoveDevice(device)

    # access points
    def add_access_point(self, device, ssid, security=None, bssid=None, strength=70, frequency=2412,
                         max_bitrate=54000, mode=2, flags=None, wpa=0, rsn=0):
        '''security ("open", "wep", "wpa1", "wpa2", "wpa1-wpa2", "wpa2-enterprise") sets the three flag
        words; otherwise flags, wpa and rsn are taken as given (flags defaults to privacy when wpa or rsn).'''
        if security is not None:
            flags, wpa, rsn = AP_SECURITY[security]
        elif flags is None:
            flags = 1 if (wpa or rsn) else 0
        data = ssid.encode() if isinstance(ssid, str) else bytes(ssid)
        self._macs += 1
        bssid = bssid or 'AA:BB:CC:DD:EE:%02X' % self._macs
        return str(self.mock.AddAccessPoint(device, dbus.ByteArray(data), bssid, dbus.Byte(strength),
                                            frequency, max_bitrate, mode, flags, wpa, rsn))

    def remove_access_point(self, device, ap):
        self.mock.RemoveAccessPoint(device, ap)

    def set_ap_strength(self, ap, strength):
        self.set_properties(ap, 'org.freedesktop.NetworkManager.AccessPoint', {'Strength': dbus.Byte(strength)})

    # profiles
    def add_connection(self, settings, secrets=None):
        '''A saved profile (nested dicts as GetSettings returns them); secrets are merged in and stored apart.'''
        merged = {g: dict(v) for g, v in settings.items()}
        for group, values in (secrets or {}).items():
            merged.setdefault(group, {}).update(values)
        return str(self.mock.AddSavedConnection(dbus_settings(merged)))

    def remove_connection(self, connection):
        self.mock.RemoveSavedConnection(connection)

    def connections(self):
        return [str(p) for p in self._settings_proxy().ListConnections()]

    def find_connection(self, id):
        for path in self.connections():
            if self.connection_settings(path)['connection'].get('id') == id:
                return path
        return None

    def connection_settings(self, connection):
        '''The stored settings (without secrets), read without appearing in the call log.'''
        return plain(self.mock.PeekSettings(connection))

    def connection_secrets(self, connection, setting=None):
        '''The stored secrets (all settings, or the one named), read without appearing in the call log.'''
        secrets = plain(self.mock.PeekSecrets(connection))
        return secrets.get(setting, {}) if setting else secrets

    def get_secrets(self, connection, setting):
        '''The daemon's own GetSecrets call (it is logged like tarvik's).'''
        proxy = self.bus.connection.get_object(NM_BUS, connection, introspect=False)
        return plain(proxy.GetSecrets(setting, dbus_interface='org.freedesktop.NetworkManager.Settings.Connection'))

    def _settings_proxy(self):
        return dbus.Interface(self.bus.connection.get_object(NM_BUS, '/org/freedesktop/NetworkManager/Settings',
                                                             introspect=False),
                              'org.freedesktop.NetworkManager.Settings')

    # activation and state
    def activate(self, connection, device, ap='/', wait=True, instant=False, timeout=10):
        '''Activates a profile with the daemon's state sequence; returns the active connection path.'''
        active = str(self.mock.Activate(connection, device, ap, instant))
        if wait and not instant:
            wait_until(lambda: self.active_connection(device) == active and self.device_state(device) == 100,
                       timeout, f'{device} activated with {active}')
        return active

    def deactivate(self, device, reason=39, instant=False, wait=True, timeout=10):
        self.mock.Deactivate(device, reason, instant)
        if wait and not instant:
            self.wait_device_state(device, 30, timeout)

    def fail_next_activation(self, device, reason=5):
        self.mock.FailNextActivation(device, reason)

    def set_device_state(self, device, state, reason=0):
        self.mock.SetDeviceState(device, state, reason)

    def set_carrier(self, device, carrier, follow=True):
        '''Cable in or out; with follow the device state goes to 30 / 20 (an active connection ends).'''
        self.mock.SetCarrier(device, carrier, follow)

    def set_ip4_config(self, device, address, prefix=24, gateway='', dns=()):
        return str(self.mock.SetIp4Config(device, address, prefix, gateway, ','.join(dns)))

    def set_dhcp_lease(self, device, address, prefix=24, gateway='', dns=()):
        self.mock.SetDhcpLease(device, address, prefix, gateway, ','.join(dns))

    def set_status(self, state, connectivity=None):
        '''Pins the overall NetworkManager state (and connectivity); activations no longer change them.'''
        if connectivity is None:
            connectivity = self.manager_property('Connectivity')
        self.mock.SetGlobalState(state, connectivity)

    def set_connectivity(self, connectivity):
        self.mock.SetGlobalState(self.manager_property('State'), connectivity)

    def unpin_status(self):
        self.mock.UnpinGlobalState()

    def set_hostname(self, name):
        self.set_properties('/org/freedesktop/NetworkManager/Settings', 'org.freedesktop.NetworkManager.Settings',
                            {'Hostname': dbus.String(name)})

    def set_managed(self, device, managed):
        self.set_properties(device, 'org.freedesktop.NetworkManager.Device', {'Managed': dbus.Boolean(managed)})

    def set_interface_name(self, device, name):
        self.set_properties(device, 'org.freedesktop.NetworkManager.Device', {'Interface': dbus.String(name)})

    def set_properties(self, path, iface, props):
        '''Any property change, announced with org.freedesktop.DBus.Properties.PropertiesChanged.'''
        self.mock.SetProperties(path, iface, dbus_props(props))

    def set_step_delay(self, milliseconds):
        self.mock.SetStepDelay(milliseconds)

    # failures and the call log
    def refuse(self, method, error='org.freedesktop.NetworkManager.Failed', message='Refused by the test',
               count=1):
        '''The next count calls of method (Update, ActivateConnection, AddAndActivateConnection, GetSecrets,
        GetSettings, RequestScan, DeactivateConnection, Delete, AddConnection, Disconnect) fail with the
        D-Bus error; count -1 until clear_refusals().'''
        self.mock.Refuse(method, error, message, count)

    def clear_refusals(self):
        self.mock.ClearRefusals()

    def calls(self, method=''):
        '''Calls the daemon received: [{"time", "path", "method", "args"}] (byte arrays as lists).'''
        return json.loads(str(self.mock.CallLog(method)))

    def clear_calls(self):
        self.mock.ClearCallLog()

    def wait_for_call(self, method, count=1, timeout=10):
        return wait_until(lambda: (lambda c: c if len(c) >= count else None)(self.calls(method)), timeout,
                          f'{count} call(s) of {method}')

    # reading back
    def get(self, path, iface, name):
        proxy = self.bus.connection.get_object(NM_BUS, path, introspect=False)
        return plain(proxy.Get(iface, name, dbus_interface='org.freedesktop.DBus.Properties'))

    def manager_property(self, name):
        return self.get('/org/freedesktop/NetworkManager', 'org.freedesktop.NetworkManager', name)

    def device_state(self, device):
        return self.get(device, 'org.freedesktop.NetworkManager.Device', 'State')

    def active_connection(self, device):
        return self.get(device, 'org.freedesktop.NetworkManager.Device', 'ActiveConnection')

    def wait_device_state(self, device, state, timeout=10):
        wait_until(lambda: self.device_state(device) == state, timeout, f'{device} in state {state}')


# ---------------------------------------------------------------- ModemManager

class ModemManager:
    '''Steers the simulated ModemManager (w.mm).'''

    MODEM_IFACE = 'org.freedesktop.ModemManager1.Modem'

    def __init__(self, bus):
        self.bus = bus
        self.mock = dbus.Interface(bus.connection.get_object(MM_BUS, '/org/freedesktop/ModemManager1',
                                                             introspect=False), MOCK_IFACE)

    def add_modem(self, kind='gsm', **options):
        '''kind: "gsm" (3GPP + USSD), "lte", "ussd" (GSM capabilities, USSD only) or "cdma".
        Options: sim=True, bearer_interface="wwan0" ("" for none), signal=50, state=8, capabilities,
        manufacturer, model, revision, device_identifier, equipment_identifier, imei, operator_code,
        operator_name, meid, esn, sim_identifier, imsi, apn, announce=True.'''
        typed = {}
        for key, value in options.items():
            if isinstance(value, bool):
                typed[key] = dbus.Boolean(value)
            elif key == 'state':
                typed[key] = dbus.Int32(value)
            elif isinstance(value, int):
                typed[key] = dbus.UInt32(value)
            else:
                typed[key] = dbus.String(value)
        return str(self.mock.AddModem(kind, dbus.Dictionary(typed, signature='sv')))

    def remove_modem(self, modem):
        self.mock.RemoveModem(modem)

    def set_signal(self, modem, quality, recent=True):
        self.mock.SetSignal(modem, quality, recent)

    def set_state(self, modem, state, reason=1):
        self.mock.SetModemState(modem, state, reason)

    def set_properties(self, path, iface, props):
        self.mock.SetProperties(path, iface, dbus.Dictionary(props, signature='sv'))

    def get(self, path, iface, name):
        proxy = self.bus.connection.get_object(MM_BUS, path, introspect=False)
        return plain(proxy.Get(iface, name, dbus_interface='org.freedesktop.DBus.Properties'))


# ---------------------------------------------------------------- broker

class Broker:
    '''mosquitto on 127.0.0.1, on a port chosen per run; stop() and start() keep the port.'''

    def __init__(self, directory, port=None, users=None):
        self.directory = directory
        self.port = port or free_port()
        self.users = users or {}
        self.proc = None
        self.config_file = os.path.join(directory, 'mosquitto.conf')
        self.password_file = os.path.join(directory, 'mosquitto.passwd')
        self.log_file = os.path.join(directory, 'mosquitto.log')

    def _write_config(self):
        lines = [f'listener {self.port} 127.0.0.1', 'set_tcp_nodelay true', 'log_dest stderr',
                 'log_type error', 'log_type warning', 'log_type notice', 'log_type information',
                 'persistence false']
        if self.users:
            if os.path.exists(self.password_file):
                os.unlink(self.password_file)
            for user, password in self.users.items():
                create = [] if os.path.exists(self.password_file) else ['-c']
                subprocess.run(['mosquitto_passwd', *create, '-b', self.password_file, user, password],
                               check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            os.chmod(self.password_file, 0o644)
            lines += ['allow_anonymous false', f'password_file {self.password_file}']
        else:
            lines.append('allow_anonymous true')
        with open(self.config_file, 'w') as f:
            f.write('\n'.join(lines) + '\n')
        os.chmod(self.config_file, 0o644)

    def start(self, timeout=10):
        self._write_config()
        self.proc = spawn(['mosquitto', '-c', self.config_file], stdin=subprocess.DEVNULL,
                          stdout=subprocess.DEVNULL, stderr=open(self.log_file, 'ab'))

        def listening():
            if self.proc.poll() is not None:
                raise RuntimeError(f'mosquitto exited with {self.proc.returncode}; see {self.log_file}')
            try:
                socket.create_connection(('127.0.0.1', self.port), timeout=0.5).close()
                return True
            except OSError:
                return False
        wait_until(listening, timeout, f'mosquitto on port {self.port}', interval=0.01)

    def stop(self):
        kill_group(self.proc)
        self.proc = None

    def restart(self):
        self.stop()
        self.start()

    @property
    def running(self):
        return self.proc is not None and self.proc.poll() is None


# ---------------------------------------------------------------- MQTT test client

class Message:
    def __init__(self, topic, payload, qos, retain):
        self.topic = topic
        self.payload = payload
        self.qos = qos
        self.retain = retain
        self.time = time.monotonic()

    @property
    def text(self):
        return self.payload.decode('utf-8')

    @property
    def json(self):
        return json.loads(self.payload.decode('utf-8'))

    def __repr__(self):
        return f'Message({self.topic!r}, {self.payload!r}, qos={self.qos}, retain={self.retain})'


class MqttClient:
    '''A paho-mqtt client with TCP_NODELAY that records every message it receives.'''

    def __init__(self, port, host='127.0.0.1', base=DEFAULT_BASE, username=None, password=None, client_id=''):
        import paho.mqtt.client as mqtt
        self._mqtt = mqtt
        self.base = base
        self.received = []
        self._returned = set()
        self._cond = threading.Condition()
        self._connected = None
        self._subacks = {}
        self.client = mqtt.Client(client_id=client_id, clean_session=True, protocol=mqtt.MQTTv311)
        if username is not None:
            self.client.username_pw_set(username, password)
        self.client.reconnect_delay_set(0.1, 0.5)
        self.client.on_socket_open = self._on_socket_open
        self.client.on_connect = self._on_connect
        self.client.on_message = self._on_message
        self.client.on_subscribe = self._on_subscribe
        self.host, self.port = host, port

    @staticmethod
    def _on_socket_open(client, userdata, sock):
        sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def _on_connect(self, client, userdata, flags, rc):
        with self._cond:
            self._connected = rc
            self._cond.notify_all()

    def _on_subscribe(self, client, userdata, mid, granted_qos):
        with self._cond:
            self._subacks[mid] = granted_qos
            self._cond.notify_all()

    def _on_message(self, client, userdata, msg):
        with self._cond:
            self.received.append(Message(msg.topic, bytes(msg.payload), msg.qos, bool(msg.retain)))
            self._cond.notify_all()

    def connect(self, timeout=10):
        self.client.connect(self.host, self.port, keepalive=60)
        self.client.loop_start()
        with self._cond:
            if not self._cond.wait_for(lambda: self._connected is not None, timeout):
                raise TimeoutError('no CONNACK from the broker')
        if self._connected != 0:
            self.disconnect()
            raise ConnectionError(f'broker refused the connection: {self._connected}')
        return self

    def disconnect(self):
        # Flagging the network thread before DISCONNECT lets it end at once instead of after its 1 s poll.
        self.client._thread_terminate = True
        try:
            self.client.disconnect()
        finally:
            self.client.loop_stop()

    def subscribe(self, topic_filter, qos=2, timeout=10):
        '''Subscribes and waits for the SUBACK; returns the granted QoS.'''
        result, mid = self.client.subscribe(topic_filter, qos)
        if result != 0:
            raise ConnectionError(f'subscribe failed: {result}')
        with self._cond:
            if not self._cond.wait_for(lambda: mid in self._subacks, timeout):
                raise TimeoutError(f'no SUBACK for {topic_filter}')
            return self._subacks[mid][0]

    def publish(self, topic, payload=b'', qos=0, retain=False, timeout=10):
        if isinstance(payload, (dict, list)):
            payload = json.dumps(payload)
        info = self.client.publish(topic, payload, qos, retain)
        info.wait_for_publish(timeout)
        if not info.is_published():
            raise TimeoutError(f'publish on {topic} not completed')

    def command(self, name, payload=None, qos=2):
        '''Publishes a command on base + "/" + name (a dict becomes JSON; bytes and text go as they are).'''
        self.publish(f'{self.base}/{name}', b'{}' if payload is None else payload, qos)

    def topic(self, name):
        return f'{self.base}/{name}'

    def _matches(self, msg, topic, predicate):
        if topic is not None and not self._mqtt.topic_matches_sub(topic, msg.topic):
            return False
        return predicate is None or predicate(msg)

    def wait_for(self, topic, timeout=10, predicate=None):
        '''The next message on topic (a filter may have wildcards) matching predicate that no earlier
        wait_for returned, in arrival order since the last clear().'''
        def find():
            for index, msg in enumerate(self.received):
                if index not in self._returned and self._matches(msg, topic, predicate):
                    self._returned.add(index)
                    return msg
            return None
        with self._cond:
            msg = self._cond.wait_for(find, timeout)
        if msg is None:
            seen = [m.topic for m in self.messages()]
            raise TimeoutError(f'no message on {topic} within {timeout} s; received topics: {seen}')
        return msg

    def expect_none(self, topic, within, predicate=None):
        '''Asserts that no new message on topic arrives within the time (a bounded wait, not a sleep).'''
        try:
            msg = self.wait_for(topic, within, predicate)
        except TimeoutError:
            return
        raise AssertionError(f'unexpected message {msg}')

    def messages(self, topic=None):
        with self._cond:
            return [m for m in self.received if self._matches(m, topic, None)]

    def count(self, topic):
        return len(self.messages(topic))

    def latest(self, topic):
        found = self.messages(topic)
        return found[-1] if found else None

    def clear(self):
        with self._cond:
            self.received.clear()
            self._returned.clear()


# ---------------------------------------------------------------- tarvik

CONFIG_GROUPS = ('Mqtt', 'Ethernet', 'Wifi', 'Modem')


def _ini_value(value):
    if isinstance(value, bool):
        return 'true' if value else 'false'
    text = str(value)
    if text == '' or re.fullmatch(r'[A-Za-z0-9_.:/@*#+\-]+', text):
        return text
    return '"' + text.replace('\\', '\\\\').replace('"', '\\"') + '"'


def config_text(config):
    '''The INI text of a configuration given as {"Group": {"key": value}} and/or {"Group/key": value}.'''
    groups = {}
    for key, value in config.items():
        if isinstance(value, dict):
            groups.setdefault(key, {}).update(value)
        else:
            group, _, name = key.partition('/')
            groups.setdefault(group, {})[name] = value
    order = [g for g in CONFIG_GROUPS if g in groups] + [g for g in groups if g not in CONFIG_GROUPS]
    lines = []
    for group in order:
        lines.append(f'[{group}]')
        lines += [f'{name}={_ini_value(value)}' for name, value in groups[group].items()]
        lines.append('')
    return '\n'.join(lines)


class Tarvik:
    '''The tarvik process: INI file, environment, stderr collected line by line in a thread.'''

    def __init__(self, world, config=None, args=None, extra_args=(), cwd=None, private_tmp=False,
                 faketime=None, env=None, config_path=None, write_config=True, binary=None):
        self.world = world
        self.binary = binary or os.environ.get('TARVIK_BINARY') or 'tarvik'
        self.config_path = config_path or os.path.join(world.directory, 'tarvik.conf')
        self.cwd = cwd or world.directory
        self.tmp_dir = os.path.join(world.directory, 'private-tmp') if private_tmp else None
        self.faketime = faketime
        self.extra_env = env or {}
        self.proc = None
        self.log_lines = []
        self.stdout_lines = []
        self._cursor = 0
        self._cond = threading.Condition()
        self._threads = []
        if write_config:
            merged = world.tarvik_config()
            for key, value in (config or {}).items():
                if isinstance(value, dict):
                    merged.setdefault(key, {}).update(value)
                else:
                    group, _, name = key.partition('/')
                    merged.setdefault(group, {})[name] = value
            with open(self.config_path, 'w') as f:
                f.write(config_text(merged))
        self.args = list(args) if args is not None else ['-f', self.config_path, '-e', '-v', '3']
        self.args = [a.replace('{config}', self.config_path) for a in self.args] + list(extra_args)

    def command_line(self):
        cmd = [self.binary] + self.args
        if self.faketime:
            cmd = ['faketime', '-f', self.faketime] + cmd
        if self.tmp_dir:
            os.makedirs(self.tmp_dir, exist_ok=True)
            cmd = ['unshare', '--mount', '--propagation', 'private', 'sh', '-c',
                   'mount --bind "$0" /tmp && exec "$@"', self.tmp_dir] + cmd
        return cmd

    def start(self):
        env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=self.world.bus_address)
        env.pop('DBUS_SESSION_BUS_ADDRESS', None)
        if self.faketime:
            env.setdefault('FAKETIME_DONT_FAKE_MONOTONIC', '1')
        env.update(self.extra_env)
        os.makedirs(self.cwd, exist_ok=True)
        self.proc = spawn(self.command_line(), cwd=self.cwd, env=env, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        for stream, lines in ((self.proc.stderr, self.log_lines), (self.proc.stdout, self.stdout_lines)):
            thread = threading.Thread(target=self._read, args=(stream, lines), daemon=True)
            thread.start()
            self._threads.append(thread)
        return self

    def _read(self, stream, lines):
        for raw in iter(stream.readline, b''):
            with self._cond:
                lines.append(raw.decode('utf-8', 'replace').rstrip('\n'))
                self._cond.notify_all()
        with self._cond:
            self._cond.notify_all()

    @property
    def running(self):
        return self.proc is not None and self.proc.poll() is None

    def wait_for_log(self, pattern, timeout=10):
        '''The next stderr line (after the previous match) that matches the regular expression.'''
        regex = re.compile(pattern)

        def find():
            for index in range(self._cursor, len(self.log_lines)):
                match = regex.search(self.log_lines[index])
                if match:
                    self._cursor = index + 1
                    return match
            if self.proc.poll() is not None and all(not t.is_alive() for t in self._threads):
                return 'exited'
            return None
        with self._cond:
            found = self._cond.wait_for(find, timeout)
        if found is None or found == 'exited':
            why = f'tarvik exited with {self.proc.returncode}' if found == 'exited' else f'timed out after {timeout} s'
            tail = '\n'.join(self.log_lines[-40:])
            raise AssertionError(f'no log line matching {pattern!r} ({why}); last lines:\n{tail}')
        return found

    def mark(self):
        '''Later waits only look at lines that arrive from now on.'''
        with self._cond:
            self._cursor = len(self.log_lines)

    def lines_matching(self, pattern):
        regex = re.compile(pattern)
        with self._cond:
            return [line for line in self.log_lines if regex.search(line)]

    def tmp_file(self, name):
        '''Path of a file that tarvik sees as /tmp/<name> (private_tmp only).'''
        return os.path.join(self.tmp_dir, name)

    def stop(self, sig=signal.SIGTERM, timeout=5):
        code = kill_group(self.proc, timeout, sig)
        for thread in self._threads:
            thread.join(2)
        return code

    def wait(self, timeout=10):
        try:
            code = self.proc.wait(timeout)
        finally:
            if self.proc.poll() is not None:
                _live.discard(self.proc)
        for thread in self._threads:
            thread.join(2)
        return code


# ---------------------------------------------------------------- the world

class World:
    '''Bus, NetworkManager, ModemManager and broker for one test (or module, or demo run).'''

    def __init__(self, directory=None, broker_users=None, broker_port=None, nm_parameters=None,
                 base=DEFAULT_BASE, keep=None):
        self._own_directory = directory is None
        parent = os.environ.get('TARVIK_WORLD_DIR', '/var/tmp')
        self.directory = directory or tempfile.mkdtemp(prefix='tarvik-world-', dir=parent)
        os.makedirs(self.directory, exist_ok=True)
        os.chmod(self.directory, 0o755)
        self.keep = bool(os.environ.get('TARVIK_KEEP_WORLD')) if keep is None else keep
        self.base = base
        self.bus = Bus(self.directory)
        self.broker = Broker(self.directory, broker_port, broker_users)
        self.nm_parameters = nm_parameters or {}
        self.nm_service = None
        self.mm_service = None
        self.nm = None
        self.mm = None
        self._tarviks = []
        self._clients = []

    @property
    def bus_address(self):
        return self.bus.address

    def start(self):
        _install_termination_handler()
        try:
            self.bus.start()
            self.nm_service = MockService(
                self.bus, os.path.join(TEMPLATES, 'networkmanager.py'), NM_BUS,
                os.path.join(self.directory, 'networkmanager.log'),
                ('/org/freedesktop/NetworkManager', 'org.freedesktop.DBus.Properties', 'Get',
                 ['org.freedesktop.NetworkManager', 'Version']), self.nm_parameters)
            self.mm_service = MockService(
                self.bus, os.path.join(TEMPLATES, 'modemmanager.py'), MM_BUS,
                os.path.join(self.directory, 'modemmanager.log'),
                ('/org/freedesktop/ModemManager1', 'org.freedesktop.DBus.ObjectManager', 'GetManagedObjects', []))
            self.nm_service.start()
            self.mm_service.start()
            self.nm = NetworkManager(self.bus)
            self.mm = ModemManager(self.bus)
            self.broker.start()
        except BaseException:
            self.stop()
            raise
        return self

    def tarvik_config(self):
        '''The configuration that points tarvik at this world's broker.'''
        return {'Mqtt': {'url': '127.0.0.1', 'port': self.broker.port, 'base': self.base}}

    def tarvik(self, config=None, start=True, **kwargs):
        '''A tarvik process for this world (started unless start=False); stopped with the world.'''
        t = Tarvik(self, config=config, **kwargs)
        self._tarviks.append(t)
        return t.start() if start else t

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
        self.broker.stop()
        for service in (self.mm_service, self.nm_service):
            if service is not None:
                service.stop()
        self.bus.stop()
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
    options = parser.parse_args()

    stop = threading.Event()
    for sig in (signal.SIGINT, signal.SIGTERM):
        signal.signal(sig, lambda *_: stop.set())
    world = World(directory=options.dir, broker_port=options.port)
    try:
        world.start()
        scenarios.SCENARIOS[options.scenario](world)
        if options.config_out:
            with open(options.config_out, 'w') as f:
                f.write(config_text({**world.tarvik_config(), **scenarios.CONFIGS.get(options.scenario, {})}))
        print(f'DBUS_SYSTEM_BUS_ADDRESS={world.bus_address}', flush=True)
        print(f'MQTT_PORT={world.broker.port}', flush=True)
        print(f'WORLD_DIR={world.directory}', flush=True)
        while not stop.wait(0.5):
            pass
    finally:
        world.stop()


if __name__ == '__main__':
    main()
