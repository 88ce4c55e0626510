'''Simulated NetworkManager 1.42 for tarvik's tests (a python-dbusmock template).

Serves the D-Bus API that NetworkManagerQt reads and calls: the manager, devices
(wired, wireless, modem, any other type), access points, saved profiles with
secrets kept apart from their settings, active connections and IPv4
configurations. Activation walks the device through the daemon's own state
sequence with StateChanged and org.freedesktop.DBus.Properties.PropertiesChanged.

Tests steer it through methods on org.freedesktop.DBus.Mock at /org/freedesktop
(see world/README.md); world.py wraps them.
'''

import json
import socket
import struct
import time
import uuid

import dbus
import dbusmock
from dbusmock import MOCK_IFACE
from gi.repository import GLib

BUS_NAME = 'org.freedesktop.NetworkManager'
MAIN_OBJ = '/org/freedesktop'
SYSTEM_BUS = True
IS_OBJECT_MANAGER = True

NM = 'org.freedesktop.NetworkManager'
MANAGER_OBJ = '/org/freedesktop/NetworkManager'
SETTINGS_OBJ = '/org/freedesktop/NetworkManager/Settings'
SETTINGS_IFACE = NM + '.Settings'
CONNECTION_IFACE = NM + '.Settings.Connection'
DEVICE_IFACE = NM + '.Device'
WIRED_IFACE = NM + '.Device.Wired'
WIRELESS_IFACE = NM + '.Device.Wireless'
MODEM_IFACE = NM + '.Device.Modem'
GENERIC_IFACE = NM + '.Device.Generic'
STATISTICS_IFACE = NM + '.Device.Statistics'
AP_IFACE = NM + '.AccessPoint'
ACTIVE_IFACE = NM + '.Connection.Active'
IP4_IFACE = NM + '.IP4Config'
DHCP4_IFACE = NM + '.DHCP4Config'
PROPS_IFACE = 'org.freedesktop.DBus.Properties'
NM_AP_PREFIX = '/org/freedesktop/NetworkManager/AccessPoint/'

# Device types and states as numbered by the daemon.
TYPE_ETHERNET, TYPE_WIFI, TYPE_MODEM, TYPE_VETH = 1, 2, 8, 20
STATE_UNMANAGED, STATE_UNAVAILABLE, STATE_DISCONNECTED = 10, 20, 30
STATE_PREPARE, STATE_CONFIG, STATE_NEED_AUTH, STATE_IP_CONFIG = 40, 50, 60, 70
STATE_IP_CHECK, STATE_SECONDARIES, STATE_ACTIVATED = 80, 90, 100
STATE_DEACTIVATING, STATE_FAILED = 110, 120
REASON_NONE, REASON_USER_REQUESTED, REASON_NO_SECRETS = 0, 39, 7
REASON_CARRIER, REASON_REMOVED, REASON_NEW_ACTIVATION = 40, 36, 60
AC_ACTIVATING, AC_ACTIVATED, AC_DEACTIVATING, AC_DEACTIVATED = 1, 2, 3, 4

# Connection types and the device types that can carry them.
DEVICE_TYPE_OF_CONNECTION = {
    '802-3-ethernet': TYPE_ETHERNET,
    '802-11-wireless': TYPE_WIFI,
    'gsm': TYPE_MODEM,
    'cdma': TYPE_MODEM,
}
OTHER_CONNECTION_TYPES = {
    'adsl', 'bluetooth', 'bond', 'bridge', 'dummy', 'generic', 'infiniband', 'ip-tunnel', 'loopback',
    'macsec', 'macvlan', 'olpc-mesh', 'ovs-bridge', 'ovs-interface', 'ovs-port', 'pppoe', 'team', 'tun',
    'veth', 'vlan', 'vpn', 'vrf', 'vxlan', 'wifi-p2p', 'wireguard', 'wpan', '6lowpan',
}
# Default route metrics decide which activated connection is the primary one.
ROUTE_METRIC = {TYPE_ETHERNET: 100, TYPE_WIFI: 600, TYPE_MODEM: 700}

# Keys the daemon treats as secrets: never returned by GetSettings.
SECRET_KEYS = {
    '802-11-wireless-security': {'psk', 'wep-key0', 'wep-key1', 'wep-key2', 'wep-key3', 'leap-password'},
    '802-1x': {'password', 'password-raw', 'private-key-password', 'phase2-private-key-password', 'pin'},
    'gsm': {'password', 'pin'},
    'cdma': {'password'},
    'pppoe': {'password'},
    'vpn': {'secrets'},
    'wireguard': {'private-key'},
}


class World:
    '''Everything the simulated daemon knows beyond the D-Bus properties.'''

    def __init__(self):
        self.counters = {}
        self.connections = {}      # path -> {'settings': {...}, 'secrets': {...}}
        self.devices = {}          # path -> {'generation': int, 'lease': tuple or None, 'fail': reason or None}
        self.active = {}           # path -> {'connection', 'device', 'specific', 'ip4', 'dhcp4'}
        self.refusals = {}         # (method, path or '') -> [error name, message, remaining (-1 = until cleared)]
        self.calls = []
        self.step_ms = 2
        self.pinned_state = False

    def next_number(self, kind, first=1):
        number = self.counters.get(kind, first)
        self.counters[kind] = number + 1
        return number


W = World()
MAIN = None   # the mock object at /org/freedesktop (not yet registered while load() runs)


def u32(value):
    return dbus.UInt32(value)


def paths(items):
    return dbus.Array([dbus.ObjectPath(p) for p in items], signature='o')


def obj(path):
    return MAIN if path == MAIN_OBJ else dbusmock.get_object(path)


def prop(path, iface, name):
    return obj(path).props[iface][name]


def set_props(path, iface, changes):
    '''Stores the new values and announces them the way the daemon does.'''
    o = obj(path)
    for name, value in changes.items():
        o.props[iface][name] = value
    o.EmitSignal(PROPS_IFACE, 'PropertiesChanged', 'sa{sv}as',
                 [iface, dbus.Dictionary(changes, signature='sv'), dbus.Array([], signature='s')])


def ip4_to_u32(address):
    return struct.unpack('=I', socket.inet_aton(address))[0]


def u32_to_ip4(value):
    return socket.inet_ntoa(struct.pack('=I', int(value)))


def plain(value):
    '''D-Bus values as JSON-friendly Python values (byte arrays become lists of numbers).'''
    if isinstance(value, dbus.Boolean):
        return bool(value)
    if isinstance(value, (dbus.String, dbus.ObjectPath, dbus.Signature)):
        return str(value)
    if isinstance(value, (dbus.Byte, int)):
        return int(value)
    if isinstance(value, float):
        return float(value)
    if isinstance(value, (bytes, bytearray)):
        return list(value)
    if isinstance(value, dict):
        return {str(k): plain(v) for k, v in value.items()}
    if isinstance(value, (list, tuple)):
        return [plain(v) for v in value]
    return value


def emit_object_added(path):
    main = obj(MAIN_OBJ)
    main.EmitSignal('org.freedesktop.DBus.ObjectManager', 'InterfacesAdded', 'oa{sa{sv}}',
                    [dbus.ObjectPath(path), obj(path).props])


def emit_object_removed(path):
    main = obj(MAIN_OBJ)
    main.EmitSignal('org.freedesktop.DBus.ObjectManager', 'InterfacesRemoved', 'oas',
                    [dbus.ObjectPath(path), dbus.Array(list(obj(path).props.keys()), signature='s')])


def add_object(path, iface, props, methods=()):
    obj(MAIN_OBJ).AddObject(path, iface, props, [])
    o = obj(path)
    for name, in_sig, out_sig, code in methods:
        o.AddMethod(iface, name, in_sig, out_sig, code)
    return o


def remove_object(path):
    emit_object_removed(path)
    obj(MAIN_OBJ).RemoveObject(path)


# ---------------------------------------------------------------- call log and refusals

CALL_LOG_LIMIT = 100000   # a benchmark makes many calls; keep the memory of the service bounded


def record_call(path, method, args):
    W.calls.append({'time': time.time(), 'path': str(path), 'method': method, 'args': plain(list(args))})
    if len(W.calls) > CALL_LOG_LIMIT:
        del W.calls[:len(W.calls) // 2]


def check_refusal(method, path):
    key = (method, str(path)) if (method, str(path)) in W.refusals else (method, '')
    refusal = W.refusals.get(key)
    if not refusal:
        return
    name, message, remaining = refusal
    if remaining > 0:
        refusal[2] -= 1
        if refusal[2] == 0:
            del W.refusals[key]
    raise dbus.exceptions.DBusException(message, name=name)


def entry(method):
    '''Wraps the implementation of a daemon method: logs the call, then applies any refusal.'''
    def decorate(function):
        def wrapper(self, *args):
            record_call(self.path, method, args)
            check_refusal(method, self.path)
            return function(self, *args)
        return wrapper
    return decorate


def schedule(steps, device=None):
    '''Runs the steps one after the other, W.step_ms apart, after the current call has returned.

    A new sequence on the same device cancels the rest of an older one.'''
    generation = None
    if device is not None:
        W.devices[device]['generation'] += 1
        generation = W.devices[device]['generation']
    steps = list(steps)

    def run():
        if device is not None and (device not in W.devices or W.devices[device]['generation'] != generation):
            return False
        step = steps.pop(0)
        step()
        if steps:
            GLib.timeout_add(W.step_ms, run)
        return False

    if steps:
        GLib.timeout_add(W.step_ms, run)


def run_now(steps):
    for step in steps:
        step()


# ---------------------------------------------------------------- settings

def split_secrets(settings):
    '''(settings without secrets, secrets) of a settings map; empty secrets are dropped.'''
    clean = {}
    secrets = {}
    for group, values in settings.items():
        keys = SECRET_KEYS.get(str(group), set())
        clean[str(group)] = dbus.Dictionary({k: v for k, v in values.items() if k not in keys}, signature='sv')
        found = {k: v for k, v in values.items() if k in keys and not (isinstance(v, str) and v == '')}
        if found:
            secrets[str(group)] = dbus.Dictionary(found, signature='sv')
    return clean, secrets


def carries_secrets(settings):
    return any(k in SECRET_KEYS.get(str(group), set()) for group, values in settings.items() for k in values)


def normalize(settings):
    '''Completes a profile the way the daemon's normalization does for what tarvik reads.'''
    settings = {str(g): dbus.Dictionary(v, signature='sv') for g, v in settings.items()}
    con = settings.setdefault('connection', dbus.Dictionary({}, signature='sv'))
    if 'uuid' not in con or not con['uuid']:
        con['uuid'] = dbus.String(str(uuid.uuid4()))
    ctype = str(con.get('type', ''))
    if ctype in DEVICE_TYPE_OF_CONNECTION:
        settings.setdefault('ipv4', dbus.Dictionary({'method': dbus.String('auto')}, signature='sv'))
        settings.setdefault('ipv6', dbus.Dictionary({'method': dbus.String('auto')}, signature='sv'))
    if ctype in DEVICE_TYPE_OF_CONNECTION and ctype not in settings:
        settings[ctype] = dbus.Dictionary({}, signature='sv')
    if 'ipv4' in settings:
        normalize_ipv4(settings['ipv4'])
    return settings


def normalize_ipv4(ipv4):
    '''The daemon's reading of the two address forms, both returned by GetSettings.

    When a client sends the legacy "addresses", they win and the gateway comes from their first entry
    ("address-data" and "gateway" are ignored); otherwise "address-data" and "gateway" are used.'''
    ipv4.setdefault('method', dbus.String('auto'))
    if 'addresses' in ipv4:
        data = [dbus.Dictionary({'address': dbus.String(u32_to_ip4(item[0])), 'prefix': u32(item[1])},
                                signature='sv') for item in ipv4['addresses']]
        ipv4['address-data'] = dbus.Array(data, signature='a{sv}')
        first_gateway = int(ipv4['addresses'][0][2]) if len(ipv4['addresses']) else 0
        if first_gateway:
            ipv4['gateway'] = dbus.String(u32_to_ip4(first_gateway))
        else:
            ipv4.pop('gateway', None)
    elif 'address-data' in ipv4:
        gateway = str(ipv4.get('gateway', '')) or '0.0.0.0'
        legacy = []
        for index, item in enumerate(ipv4['address-data']):
            gw = ip4_to_u32(gateway) if index == 0 else 0
            legacy.append(dbus.Array([u32(ip4_to_u32(str(item['address']))), u32(item['prefix']), u32(gw)],
                                     signature='u'))
        ipv4['addresses'] = dbus.Array(legacy, signature='au')


def invalid_property(message):
    return dbus.exceptions.DBusException(message, name=CONNECTION_IFACE + '.InvalidProperty')


def verify(sent, settings):
    '''Refuses what the daemon's profile verification refuses, as far as clients can send it.

    sent is the map as the client sent it, settings the same map once the address forms are resolved.'''
    gsm = sent.get('gsm', {})
    if 'password' in gsm and str(gsm['password']) == '':
        raise invalid_property('gsm.password: property is empty')
    ipv4 = settings.get('ipv4', {})
    method = str(ipv4.get('method', 'auto'))
    if method in ('link-local', 'disabled'):
        for key in ('addresses', 'dns'):
            if len(ipv4.get(key, [])):
                raise invalid_property(f"ipv4.{key}: this property is not allowed for 'method={method}'")
    if method == 'manual' and not len(ipv4.get('addresses', [])):
        raise dbus.exceptions.DBusException("ipv4.addresses: this property cannot be empty for 'method=manual'",
                                            name=CONNECTION_IFACE + '.MissingProperty')


def connection_type(settings):
    return str(settings.get('connection', {}).get('type', ''))


def check_valid_type(settings):
    ctype = connection_type(settings)
    if not ctype:
        raise dbus.exceptions.DBusException('connection.type: property is missing',
                                            name=CONNECTION_IFACE + '.MissingProperty')
    if ctype not in DEVICE_TYPE_OF_CONNECTION and ctype not in OTHER_CONNECTION_TYPES:
        raise dbus.exceptions.DBusException(f"connection.type: connection type '{ctype}' is not valid",
                                            name=CONNECTION_IFACE + '.InvalidProperty')


def device_iface(device):
    return str(prop(device, DEVICE_IFACE, 'Interface'))


# What the daemon completes a profile without a type to, from the device it is activated on.
CONNECTION_TYPE_OF_DEVICE = {TYPE_ETHERNET: '802-3-ethernet', TYPE_VETH: '802-3-ethernet',
                             TYPE_WIFI: '802-11-wireless', TYPE_MODEM: 'gsm'}


def compatible(settings, device):
    device_type = int(prop(device, DEVICE_IFACE, 'DeviceType'))
    wanted = DEVICE_TYPE_OF_CONNECTION.get(connection_type(settings))
    if wanted != device_type and not (wanted == TYPE_ETHERNET and device_type == TYPE_VETH):
        return False
    name = str(settings.get('connection', {}).get('interface-name', ''))
    return not name or name == device_iface(device)


def refresh_available_connections(device):
    available = [p for p in sorted(W.connections, key=path_order)
                 if compatible(W.connections[p]['settings'], device)]
    if list(map(str, prop(device, DEVICE_IFACE, 'AvailableConnections'))) != available:
        set_props(device, DEVICE_IFACE, {'AvailableConnections': paths(available)})


def path_order(path):
    head, _, number = path.rpartition('/')
    return (head, int(number) if number.isdigit() else 0)


def connection_methods():
    return [
        ('Update', 'a{sa{sv}}', '', connection_update),
        ('UpdateUnsaved', 'a{sa{sv}}', '', connection_update),
        ('Delete', '', '', connection_delete),
        ('GetSettings', '', 'a{sa{sv}}', connection_get_settings),
        ('GetSecrets', 's', 'a{sa{sv}}', connection_get_secrets),
        ('ClearSecrets', '', '', connection_clear_secrets),
        ('Save', '', '', lambda self: None),
    ]


def add_connection(settings):
    '''Stores a new profile; its secrets go to a store of their own.'''
    sent, settings = settings, normalize(settings)
    verify(sent, settings)
    clean, secrets = split_secrets(settings)
    path = f'{SETTINGS_OBJ}/{W.next_number("connection")}'
    add_object(path, CONNECTION_IFACE,
               {'Unsaved': False, 'Flags': u32(0), 'Filename': dbus.String(
                   f'/etc/NetworkManager/system-connections/{clean["connection"].get("id", "")}.nmconnection')},
               connection_methods())
    obj(path).AddMethod(CONNECTION_IFACE, 'Update2', 'a{sa{sv}}ua{sv}', 'a{sv}', connection_update2)
    W.connections[path] = {'settings': clean, 'secrets': secrets}
    emit_object_added(path)
    set_props(SETTINGS_OBJ, SETTINGS_IFACE, {'Connections': paths(sorted(W.connections, key=path_order))})
    obj(SETTINGS_OBJ).EmitSignal(SETTINGS_IFACE, 'NewConnection', 'o', [dbus.ObjectPath(path)])
    for device in list(W.devices):
        refresh_available_connections(device)
    return path


def remove_connection(path):
    for ac, info in list(W.active.items()):
        if info['connection'] == path:
            deactivate(ac, REASON_USER_REQUESTED, instant=True)
    del W.connections[path]
    set_props(SETTINGS_OBJ, SETTINGS_IFACE, {'Connections': paths(sorted(W.connections, key=path_order))})
    for device in list(W.devices):
        refresh_available_connections(device)
    obj(path).EmitSignal(CONNECTION_IFACE, 'Removed', '', [])
    obj(SETTINGS_OBJ).EmitSignal(SETTINGS_IFACE, 'ConnectionRemoved', 'o', [dbus.ObjectPath(path)])
    remove_object(path)


def require_connection(path):
    if str(path) not in W.connections:
        raise dbus.exceptions.DBusException(f'Connection {path} does not exist',
                                            name=NM + '.UnknownConnection')
    return W.connections[str(path)]


@entry('Update')
def connection_update(self, settings):
    record = require_connection(self.path)
    check_valid_type(settings)
    sent, settings = settings, normalize(settings)
    verify(sent, settings)
    clean, secrets = split_secrets(settings)
    record['settings'] = clean
    if carries_secrets(settings):
        record['secrets'] = secrets
    self.EmitSignal(CONNECTION_IFACE, 'Updated', '', [])
    for device in list(W.devices):
        refresh_available_connections(device)


def connection_update2(self, settings, flags, args):
    connection_update(self, settings)
    return dbus.Dictionary({}, signature='sv')


@entry('Delete')
def connection_delete(self):
    require_connection(self.path)
    remove_connection(self.path)


@entry('GetSettings')
def connection_get_settings(self):
    return require_connection(self.path)['settings']


@entry('GetSecrets')
def connection_get_secrets(self, setting_name):
    return secrets_reply(require_connection(self.path), str(setting_name))


def secrets_reply(record, setting_name):
    '''Every setting of the profile is present, only the asked one carries its secrets.'''
    settings = record['settings']
    if setting_name and setting_name not in settings:
        raise dbus.exceptions.DBusException(f"Connection didn't have requested setting '{setting_name}'.",
                                            name=CONNECTION_IFACE + '.SettingNotFound')
    reply = {}
    for group in settings:
        wanted = not setting_name or group == setting_name
        values = record['secrets'].get(group, {}) if wanted else {}
        reply[group] = dbus.Dictionary(values, signature='sv')
    return dbus.Dictionary(reply, signature='sa{sv}')


@entry('ClearSecrets')
def connection_clear_secrets(self):
    require_connection(self.path)['secrets'] = {}
    self.EmitSignal(CONNECTION_IFACE, 'Updated', '', [])


# ---------------------------------------------------------------- manager and settings objects

def load(mock, parameters):
    global MAIN
    MAIN = mock
    version = parameters.get('Version', '1.42.4')
    manager_props = {
        'Devices': paths([]),
        'AllDevices': paths([]),
        'Checkpoints': paths([]),
        'NetworkingEnabled': True,
        'WirelessEnabled': True,
        'WirelessHardwareEnabled': True,
        'WwanEnabled': True,
        'WwanHardwareEnabled': True,
        'WimaxEnabled': False,
        'WimaxHardwareEnabled': False,
        'RadioFlags': u32(3),
        'ActiveConnections': paths([]),
        'PrimaryConnection': dbus.ObjectPath('/'),
        'PrimaryConnectionType': dbus.String(''),
        'Metered': u32(4),
        'ActivatingConnection': dbus.ObjectPath('/'),
        'Startup': False,
        'Version': dbus.String(version),
        'VersionInfo': dbus.Array([u32(0x012a04)], signature='u'),
        'Capabilities': dbus.Array([], signature='u'),
        'State': u32(parameters.get('State', 20)),
        'Connectivity': u32(parameters.get('Connectivity', 1)),
        'ConnectivityCheckAvailable': True,
        'ConnectivityCheckEnabled': True,
        'ConnectivityCheckUri': dbus.String('http://check.example.org/'),
        'GlobalDnsConfiguration': dbus.Dictionary({}, signature='sv'),
    }
    manager_methods = [
        ('GetDevices', '', 'ao', lambda self: prop(MANAGER_OBJ, NM, 'Devices')),
        ('GetAllDevices', '', 'ao', lambda self: prop(MANAGER_OBJ, NM, 'AllDevices')),
        ('GetDeviceByIpIface', 's', 'o', manager_get_device_by_ip_iface),
        ('ActivateConnection', 'ooo', 'o', manager_activate_connection),
        ('AddAndActivateConnection', 'a{sa{sv}}oo', 'oo', manager_add_and_activate_connection),
        ('AddAndActivateConnection2', 'a{sa{sv}}ooa{sv}', 'ooa{sv}',
         lambda self, s, d, a, o: tuple(manager_add_and_activate_connection(self, s, d, a))
         + (dbus.Dictionary({}, signature='sv'),)),
        ('DeactivateConnection', 'o', '', manager_deactivate_connection),
        ('Sleep', 'b', '', lambda self, sleep: None),
        ('Enable', 'b', '', lambda self, enable: set_props(MANAGER_OBJ, NM, {'NetworkingEnabled': bool(enable)})),
        ('GetPermissions', '', 'a{ss}', lambda self: dbus.Dictionary({}, signature='ss')),
        ('SetLogging', 'ss', '', lambda self, level, domains: None),
        ('GetLogging', '', 'ss', lambda self: ('INFO', 'DEFAULT')),
        ('CheckConnectivity', '', 'u', lambda self: prop(MANAGER_OBJ, NM, 'Connectivity')),
        ('state', '', 'u', lambda self: prop(MANAGER_OBJ, NM, 'State')),
        ('Reload', 'u', '', lambda self, flags: None),
    ]
    add_object(MANAGER_OBJ, NM, manager_props, manager_methods)
    emit_object_added(MANAGER_OBJ)

    settings_props = {
        'Connections': paths([]),
        'Hostname': dbus.String(parameters.get('Hostname', 'tarvik-test')),
        'CanModify': True,
    }
    settings_methods = [
        ('ListConnections', '', 'ao', lambda self: prop(SETTINGS_OBJ, SETTINGS_IFACE, 'Connections')),
        ('GetConnectionByUuid', 's', 'o', settings_get_connection_by_uuid),
        ('AddConnection', 'a{sa{sv}}', 'o', settings_add_connection),
        ('AddConnectionUnsaved', 'a{sa{sv}}', 'o', settings_add_connection),
        ('SaveHostname', 's', '', lambda self, name: set_props(SETTINGS_OBJ, SETTINGS_IFACE,
                                                               {'Hostname': dbus.String(name)})),
        ('ReloadConnections', '', 'b', lambda self: True),
    ]
    add_object(SETTINGS_OBJ, SETTINGS_IFACE, settings_props, settings_methods)
    emit_object_added(SETTINGS_OBJ)


def manager_get_device_by_ip_iface(self, name):
    for device in W.devices:
        if device_iface(device) == name:
            return dbus.ObjectPath(device)
    raise dbus.exceptions.DBusException('No device found for the requested iface.', name=NM + '.UnknownDevice')


@entry('AddConnection')
def settings_add_connection(self, settings):
    check_valid_type(settings)
    return dbus.ObjectPath(add_connection(settings))


def settings_get_connection_by_uuid(self, wanted):
    for path, record in W.connections.items():
        if str(record['settings']['connection'].get('uuid')) == wanted:
            return dbus.ObjectPath(path)
    raise dbus.exceptions.DBusException('No connection with the UUID was found.',
                                        name=SETTINGS_IFACE + '.InvalidConnection')


def require_device(device):
    if str(device) not in W.devices:
        raise dbus.exceptions.DBusException('No device found for the requested iface.', name=NM + '.UnknownDevice')
    return str(device)


def check_available(settings, device, name):
    iface = device_iface(device)
    if not compatible(settings, device):
        raise dbus.exceptions.DBusException(
            f"Connection '{name}' is not available on device {iface} "
            "because device is incompatible with the connection",
            name=NM + '.UnknownConnection')
    if int(prop(device, DEVICE_IFACE, 'State')) < STATE_DISCONNECTED:
        why = 'device has no carrier' if int(prop(device, DEVICE_IFACE, 'DeviceType')) == TYPE_ETHERNET \
            else 'device is not available'
        raise dbus.exceptions.DBusException(
            f"Connection '{name}' is not available on device {iface} because {why}",
            name=NM + '.UnknownConnection')


def pick_device(settings):
    for device in sorted(W.devices, key=path_order):
        if compatible(settings, device) and int(prop(device, DEVICE_IFACE, 'State')) >= STATE_DISCONNECTED:
            return device
    name = settings.get('connection', {}).get('id', '')
    raise dbus.exceptions.DBusException(f"No suitable device found for this connection (device for '{name}').",
                                        name=NM + '.UnknownDevice')


@entry('ActivateConnection')
def manager_activate_connection(self, connection, device, specific):
    record = require_connection(connection)
    settings = record['settings']
    device = pick_device(settings) if str(device) == '/' else require_device(device)
    check_available(settings, device, settings['connection'].get('id', ''))
    return dbus.ObjectPath(activate(str(connection), device, str(specific), instant=False))


@entry('AddAndActivateConnection')
def manager_add_and_activate_connection(self, settings, device, specific):
    settings = {str(g): dbus.Dictionary(v, signature='sv') for g, v in settings.items()}
    if str(device) != '/':
        complete_type(settings, require_device(device))
    check_valid_type(settings)
    device = pick_device(settings) if str(device) == '/' else require_device(device)
    complete(settings, device, str(specific))
    check_available(settings, device, settings['connection'].get('id', ''))
    connection = add_connection(settings)
    active = activate(connection, device, str(specific), instant=False)
    return (dbus.ObjectPath(connection), dbus.ObjectPath(active))


def complete_type(settings, device):
    '''A profile without a type takes the type of a managed device instead of being refused.'''
    con = settings.setdefault('connection', dbus.Dictionary({}, signature='sv'))
    completed = CONNECTION_TYPE_OF_DEVICE.get(int(prop(device, DEVICE_IFACE, 'DeviceType')))
    if not str(con.get('type', '')) and completed and bool(prop(device, DEVICE_IFACE, 'Managed')):
        con['type'] = dbus.String(completed)


def complete(settings, device, specific):
    '''Fills what the daemon fills in a partial profile given to AddAndActivateConnection.'''
    con = settings['connection']
    ctype = connection_type(settings)
    if ctype == '802-11-wireless':
        wireless = settings.setdefault('802-11-wireless', dbus.Dictionary({}, signature='sv'))
        if 'ssid' not in wireless and specific in access_point_paths():
            wireless['ssid'] = prop(specific, AP_IFACE, 'Ssid')
        if 'id' not in con or not con['id']:
            con['id'] = dbus.String(bytes(wireless.get('ssid', b'')).decode('utf-8', 'replace'))
    if 'id' not in con or not con['id']:
        base = {'802-3-ethernet': 'Wired connection', 'gsm': 'GSM connection', 'cdma': 'CDMA connection'}
        con['id'] = dbus.String(f'{base.get(ctype, "Connection")} {W.next_number("auto-name")}')


def access_point_paths():
    return {p for p in dbusmock.get_objects() if p.startswith(NM_AP_PREFIX)}



@entry('DeactivateConnection')
def manager_deactivate_connection(self, active):
    if str(active) not in W.active:
        raise dbus.exceptions.DBusException('The active connection was not found.',
                                            name=NM + '.ConnectionNotActive')
    deactivate(str(active), REASON_USER_REQUESTED, instant=False)


# ---------------------------------------------------------------- devices

def device_props(iface, device_type, state, udi, managed=True):
    return {
        'Udi': dbus.String(udi),
        'Path': dbus.String(''),
        'Interface': dbus.String(iface),
        'IpInterface': dbus.String(iface if state >= STATE_ACTIVATED else ''),
        'Driver': dbus.String('simulated'),
        'DriverVersion': dbus.String('1.0'),
        'FirmwareVersion': dbus.String(''),
        'Capabilities': u32(3),
        'Ip4Address': u32(0),
        'State': u32(state),
        'StateReason': dbus.Struct((u32(state), u32(REASON_NONE)), signature='uu'),
        'ActiveConnection': dbus.ObjectPath('/'),
        'Ip4Config': dbus.ObjectPath('/'),
        'Dhcp4Config': dbus.ObjectPath('/'),
        'Ip6Config': dbus.ObjectPath('/'),
        'Dhcp6Config': dbus.ObjectPath('/'),
        'Managed': dbus.Boolean(managed),
        'Autoconnect': True,
        'FirmwareMissing': False,
        'NmPluginMissing': False,
        'DeviceType': u32(device_type),
        'AvailableConnections': paths([]),
        'PhysicalPortId': dbus.String(''),
        'Mtu': u32(1500),
        'Metered': u32(0),
        'LldpNeighbors': dbus.Array([], signature='a{sv}'),
        'Real': True,
        'Ip4Connectivity': u32(1),
        'Ip6Connectivity': u32(1),
        'InterfaceFlags': u32(0),
        'HwAddress': dbus.String(''),
        'Ports': paths([]),
    }


def device_methods():
    return [
        ('Disconnect', '', '', device_disconnect),
        ('Delete', '', '', lambda self: remove_device(self.path)),
        ('Reapply', 'a{sa{sv}}tu', '', lambda self, s, v, f: None),
        ('GetAppliedConnection', 'u', 'a{sa{sv}}t', device_get_applied_connection),
    ]


def add_device(iface, device_type, state, udi, extra_iface, extra_props, extra_methods=(), managed=True):
    path = f'{MANAGER_OBJ}/Devices/{W.next_number("device")}'
    props = device_props(iface, device_type, state, udi or f'/sys/devices/virtual/net/{iface}', managed)
    if 'HwAddress' in extra_props:
        props['HwAddress'] = extra_props['HwAddress']
    o = add_object(path, DEVICE_IFACE, props, device_methods())
    if extra_iface:
        o.AddProperties(extra_iface, extra_props)
        for name, in_sig, out_sig, code in extra_methods:
            o.AddMethod(extra_iface, name, in_sig, out_sig, code)
    o.AddProperties(STATISTICS_IFACE, {'RefreshRateMs': u32(0), 'TxBytes': dbus.UInt64(0),
                                       'RxBytes': dbus.UInt64(0)})
    W.devices[path] = {'generation': 0, 'lease': None, 'fail': None}
    emit_object_added(path)
    refresh_available_connections(path)
    devices = list(prop(MANAGER_OBJ, NM, 'Devices')) + [path]
    set_props(MANAGER_OBJ, NM, {'Devices': paths(devices), 'AllDevices': paths(devices)})
    obj(MANAGER_OBJ).EmitSignal(NM, 'DeviceAdded', 'o', [dbus.ObjectPath(path)])
    return path


def remove_device(path):
    path = require_device(path)
    W.devices[path]['generation'] += 1
    for ac, info in list(W.active.items()):
        if info['device'] == path:
            finish_deactivation(ac)
    change_state(path, STATE_UNMANAGED, REASON_REMOVED)
    if int(prop(path, DEVICE_IFACE, 'DeviceType')) == TYPE_WIFI:
        for ap in list(prop(path, WIRELESS_IFACE, 'AccessPoints')):
            remove_object(str(ap))
    devices = [d for d in prop(MANAGER_OBJ, NM, 'Devices') if str(d) != path]
    set_props(MANAGER_OBJ, NM, {'Devices': paths(devices), 'AllDevices': paths(devices)})
    obj(MANAGER_OBJ).EmitSignal(NM, 'DeviceRemoved', 'o', [dbus.ObjectPath(path)])
    del W.devices[path]
    remove_object(path)


def change_state(device, new, reason, extra=None):
    '''One device state step: the StateChanged signal, then the property change.'''
    old = int(prop(device, DEVICE_IFACE, 'State'))
    o = obj(device)
    o.EmitSignal(DEVICE_IFACE, 'StateChanged', 'uuu', [u32(new), u32(old), u32(reason)])
    changes = {'State': u32(new), 'StateReason': dbus.Struct((u32(new), u32(reason)), signature='uu')}
    changes.update(extra or {})
    set_props(device, DEVICE_IFACE, changes)


@entry('Disconnect')
def device_disconnect(self):
    active = str(prop(self.path, DEVICE_IFACE, 'ActiveConnection'))
    if active not in W.active:
        raise dbus.exceptions.DBusException('This device is not active', name=DEVICE_IFACE + '.NotActive')
    deactivate(active, REASON_USER_REQUESTED, instant=False)


def device_get_applied_connection(self, flags):
    active = str(prop(self.path, DEVICE_IFACE, 'ActiveConnection'))
    if active not in W.active:
        raise dbus.exceptions.DBusException('Device is not activated', name=DEVICE_IFACE + '.NotActive')
    return (W.connections[W.active[active]['connection']]['settings'], dbus.UInt64(1))


@entry('RequestScan')
def wireless_request_scan(self, options):
    boottime_ms = int(time.clock_gettime(time.CLOCK_BOOTTIME) * 1000)
    set_props(self.path, WIRELESS_IFACE, {'LastScan': dbus.Int64(boottime_ms)})


def wireless_methods():
    return [
        ('GetAccessPoints', '', 'ao', lambda self: prop(self.path, WIRELESS_IFACE, 'AccessPoints')),
        ('GetAllAccessPoints', '', 'ao', lambda self: prop(self.path, WIRELESS_IFACE, 'AccessPoints')),
        ('RequestScan', 'a{sv}', '', wireless_request_scan),
    ]


# ---------------------------------------------------------------- activation

def activate(connection, device, specific, instant):
    '''Creates the active connection and walks the device up to Activated (or a failure).'''
    settings = W.connections[connection]['settings']
    is_wifi = int(prop(device, DEVICE_IFACE, 'DeviceType')) == TYPE_WIFI
    if is_wifi and specific in ('/', ''):
        specific = find_ap_for(device, settings.get('802-11-wireless', {}).get('ssid'))
    path = f'{MANAGER_OBJ}/ActiveConnection/{W.next_number("active")}'
    con = settings['connection']
    add_object(path, ACTIVE_IFACE, {
        'Connection': dbus.ObjectPath(connection),
        'SpecificObject': dbus.ObjectPath(specific or '/'),
        'Id': dbus.String(con.get('id', '')),
        'Uuid': dbus.String(con.get('uuid', '')),
        'Type': dbus.String(con.get('type', '')),
        'Devices': paths([device]),
        'State': u32(AC_ACTIVATING),
        'StateFlags': u32(0),
        'Default': False,
        'Ip4Config': dbus.ObjectPath('/'),
        'Dhcp4Config': dbus.ObjectPath('/'),
        'Default6': False,
        'Ip6Config': dbus.ObjectPath('/'),
        'Dhcp6Config': dbus.ObjectPath('/'),
        'Vpn': False,
        'Controller': dbus.ObjectPath('/'),
        'Master': dbus.ObjectPath('/'),
    })
    W.active[path] = {'connection': connection, 'device': device, 'specific': specific or '/',
                      'ip4': None, 'dhcp4': None}
    emit_object_added(path)
    set_props(MANAGER_OBJ, NM, {'ActiveConnections': paths(list(prop(MANAGER_OBJ, NM, 'ActiveConnections')) + [path]),
                                'ActivatingConnection': dbus.ObjectPath(path)})
    update_global_state()

    steps = []
    previous = [a for a, i in W.active.items() if i['device'] == device and a != path]
    if int(prop(device, DEVICE_IFACE, 'State')) > STATE_DISCONNECTED or previous:
        steps += deactivation_steps(previous, device, REASON_NEW_ACTIVATION, STATE_DISCONNECTED)
    steps += activation_steps(path, device, is_wifi)
    if instant:
        W.devices[device]['generation'] += 1
        run_now(steps)
    else:
        schedule(steps, device)
    return path


def find_ap_for(device, ssid):
    if ssid is None:
        return '/'
    best = None
    for ap in prop(device, WIRELESS_IFACE, 'AccessPoints'):
        if bytes(prop(str(ap), AP_IFACE, 'Ssid')) == bytes(ssid):
            if best is None or int(prop(str(ap), AP_IFACE, 'Strength')) > int(prop(best, AP_IFACE, 'Strength')):
                best = str(ap)
    return best or '/'


def needs_missing_secrets(record):
    security = record['settings'].get('802-11-wireless-security')
    if security is None:
        return False
    secrets = record['secrets'].get('802-11-wireless-security', {})
    key_mgmt = str(security.get('key-mgmt', ''))
    if key_mgmt == 'wpa-psk':
        return 'psk' not in secrets
    if key_mgmt == 'none':
        return not any(k.startswith('wep-key') for k in secrets)
    return False


def activation_steps(active, device, is_wifi):
    info = W.active[active]
    record = W.connections[info['connection']]
    fail_reason = W.devices[device]['fail']
    W.devices[device]['fail'] = None

    def start():
        extra = {'ActiveConnection': dbus.ObjectPath(active)}
        change_state(device, STATE_PREPARE, REASON_NONE, extra)
        if is_wifi:
            set_props(device, WIRELESS_IFACE, {'ActiveAccessPoint': dbus.ObjectPath(info['specific'])})

    def step(state):
        return lambda: change_state(device, state, REASON_NONE)

    def configure_ip():
        ip4, dhcp4 = make_ip4_config(info, device)
        info['ip4'], info['dhcp4'] = ip4, dhcp4
        change_state(device, STATE_IP_CHECK, REASON_NONE, {
            'Ip4Config': dbus.ObjectPath(ip4), 'Dhcp4Config': dbus.ObjectPath(dhcp4 or '/'),
            'IpInterface': dbus.String(ip_interface(device))})

    def activated():
        change_state(device, STATE_ACTIVATED, REASON_NONE)
        set_active_state(active, AC_ACTIVATED, {
            'Ip4Config': dbus.ObjectPath(info['ip4']), 'Dhcp4Config': dbus.ObjectPath(info['dhcp4'] or '/')})
        if str(prop(MANAGER_OBJ, NM, 'ActivatingConnection')) == active:
            set_props(MANAGER_OBJ, NM, {'ActivatingConnection': dbus.ObjectPath('/')})
        update_primary()
        update_global_state()

    def failed(reason):
        def run():
            change_state(device, STATE_FAILED, reason)
            change_state(device, STATE_DISCONNECTED, reason, cleared_device_props(device))
            finish_deactivation(active)
        return run

    steps = [start, step(STATE_CONFIG)]
    if is_wifi and needs_missing_secrets(record):
        return steps + [step(STATE_NEED_AUTH), failed(REASON_NO_SECRETS)]
    steps.append(step(STATE_IP_CONFIG))
    if fail_reason is not None:
        return steps + [failed(fail_reason)]
    return steps + [configure_ip, step(STATE_SECONDARIES), activated]


def ip_interface(device):
    if int(prop(device, DEVICE_IFACE, 'DeviceType')) == TYPE_MODEM:
        return W.devices[device].get('ip_iface') or device_iface(device)
    return device_iface(device)


def cleared_device_props(device):
    return {'ActiveConnection': dbus.ObjectPath('/'), 'Ip4Config': dbus.ObjectPath('/'),
            'Dhcp4Config': dbus.ObjectPath('/'), 'IpInterface': dbus.String('')}


def deactivation_steps(actives, device, reason, final_state):
    def begin():
        change_state(device, STATE_DEACTIVATING, reason)
        for active in actives:
            if active in W.active:
                set_active_state(active, AC_DEACTIVATING)

    def end():
        change_state(device, final_state, reason, cleared_device_props(device))
        if int(prop(device, DEVICE_IFACE, 'DeviceType')) == TYPE_WIFI:
            set_props(device, WIRELESS_IFACE, {'ActiveAccessPoint': dbus.ObjectPath('/')})
        for active in actives:
            if active in W.active:
                finish_deactivation(active)

    return [begin, end]


def deactivate(active, reason, instant, final_state=STATE_DISCONNECTED):
    device = W.active[active]['device']
    steps = deactivation_steps([active], device, reason, final_state)
    if instant:
        W.devices[device]['generation'] += 1
        run_now(steps)
    else:
        schedule(steps, device)


def set_active_state(active, state, extra=None):
    obj(active).EmitSignal(ACTIVE_IFACE, 'StateChanged', 'uu', [u32(state), u32(0)])
    changes = {'State': u32(state)}
    changes.update(extra or {})
    set_props(active, ACTIVE_IFACE, changes)


def finish_deactivation(active):
    '''The active connection reaches Deactivated and disappears with its IPv4 objects.'''
    info = W.active.pop(active)
    set_active_state(active, AC_DEACTIVATED)
    remaining = [a for a in prop(MANAGER_OBJ, NM, 'ActiveConnections') if str(a) != active]
    changes = {'ActiveConnections': paths(remaining)}
    if str(prop(MANAGER_OBJ, NM, 'ActivatingConnection')) == active:
        changes['ActivatingConnection'] = dbus.ObjectPath('/')
    set_props(MANAGER_OBJ, NM, changes)
    update_primary()
    update_global_state()
    remove_object(active)
    for path in (info['ip4'], info['dhcp4']):
        if path and path in dbusmock.get_objects() and not in_use(path):
            remove_object(path)


def in_use(path):
    for device in W.devices:
        if path in (str(prop(device, DEVICE_IFACE, 'Ip4Config')), str(prop(device, DEVICE_IFACE, 'Dhcp4Config'))):
            return True
    return False


def update_primary():
    activated = [a for a in W.active if int(prop(a, ACTIVE_IFACE, 'State')) == AC_ACTIVATED]
    activated.sort(key=lambda a: (ROUTE_METRIC.get(int(prop(W.active[a]['device'], DEVICE_IFACE, 'DeviceType')), 900),
                                  path_order(a)))
    primary = activated[0] if activated else '/'
    for a in W.active:
        is_default = a == primary
        if bool(prop(a, ACTIVE_IFACE, 'Default')) != is_default:
            set_props(a, ACTIVE_IFACE, {'Default': dbus.Boolean(is_default)})
    if str(prop(MANAGER_OBJ, NM, 'PrimaryConnection')) != primary:
        ctype = str(prop(primary, ACTIVE_IFACE, 'Type')) if primary != '/' else ''
        set_props(MANAGER_OBJ, NM, {'PrimaryConnection': dbus.ObjectPath(primary),
                                    'PrimaryConnectionType': dbus.String(ctype)})


def update_global_state():
    if W.pinned_state:
        return
    states = [int(prop(a, ACTIVE_IFACE, 'State')) for a in W.active]
    if AC_ACTIVATED in states:
        state, connectivity = 70, 4
    elif AC_ACTIVATING in states:
        state, connectivity = 40, 1
    else:
        state, connectivity = 20, 1
    set_global_state(state, connectivity)


def set_global_state(state, connectivity=None):
    if int(prop(MANAGER_OBJ, NM, 'State')) != state:
        obj(MANAGER_OBJ).EmitSignal(NM, 'StateChanged', 'u', [u32(state)])
        set_props(MANAGER_OBJ, NM, {'State': u32(state)})
    if connectivity is not None and int(prop(MANAGER_OBJ, NM, 'Connectivity')) != connectivity:
        set_props(MANAGER_OBJ, NM, {'Connectivity': u32(connectivity)})


# ---------------------------------------------------------------- IPv4 configuration

def default_lease(device):
    number = int(device.rsplit('/', 1)[1])
    kind = int(prop(device, DEVICE_IFACE, 'DeviceType'))
    if kind == TYPE_MODEM:
        return (f'10.64.{number}.2', 30, f'10.64.{number}.1', ['10.64.0.53', '10.64.0.54'])
    subnet = {TYPE_ETHERNET: 1, TYPE_WIFI: 2}.get(kind, 3)
    return (f'192.168.{subnet}.{100 + number}', 24, f'192.168.{subnet}.1', [f'192.168.{subnet}.1'])


def profile_addressing(settings):
    '''(address, prefix, gateway, dns) of a manual IPv4 setting, or None for automatic addressing.'''
    ipv4 = settings.get('ipv4', {})
    if str(ipv4.get('method', 'auto')) != 'manual':
        return None
    address, prefix = '0.0.0.0', 0
    if ipv4.get('address-data'):
        first = ipv4['address-data'][0]
        address, prefix = str(first['address']), int(first['prefix'])
    gateway = str(ipv4.get('gateway', ''))
    dns = [u32_to_ip4(d) for d in ipv4.get('dns', [])]
    return (address, prefix, gateway, dns)


def make_ip4_config(info, device):
    settings = W.connections[info['connection']]['settings']
    manual = profile_addressing(settings)
    lease = manual or W.devices[device]['lease'] or default_lease(device)
    ip4 = add_ip4_config(*lease)
    dhcp4 = None
    if manual is None:
        dhcp4 = f'{MANAGER_OBJ}/DHCP4Config/{W.next_number("dhcp4")}'
        address, prefix, gateway, dns = lease
        options = {'ip_address': address, 'routers': gateway, 'domain_name_servers': ' '.join(dns),
                   'subnet_mask': prefix_to_mask(prefix), 'dhcp_lease_time': '86400'}
        add_object(dhcp4, DHCP4_IFACE, {'Options': dbus.Dictionary(
            {k: dbus.String(v, variant_level=1) for k, v in options.items()}, signature='sv')})
        emit_object_added(dhcp4)
    return ip4, dhcp4


def prefix_to_mask(prefix):
    return socket.inet_ntoa(struct.pack('!I', (0xffffffff << (32 - prefix)) & 0xffffffff if prefix else 0))


def add_ip4_config(address, prefix, gateway, dns):
    path = f'{MANAGER_OBJ}/IP4Config/{W.next_number("ip4")}'
    add_object(path, IP4_IFACE, ip4_props(address, prefix, gateway, dns))
    emit_object_added(path)
    return path


def ip4_props(address, prefix, gateway, dns):
    addresses, address_data = [], []
    if address:
        addresses.append(dbus.Array([u32(ip4_to_u32(address)), u32(prefix),
                                     u32(ip4_to_u32(gateway) if gateway else 0)], signature='u'))
        address_data.append(dbus.Dictionary({'address': dbus.String(address), 'prefix': u32(prefix)},
                                            signature='sv'))
    return {
        'Addresses': dbus.Array(addresses, signature='au'),
        'AddressData': dbus.Array(address_data, signature='a{sv}'),
        'Gateway': dbus.String(gateway or ''),
        'Routes': dbus.Array([], signature='au'),
        'RouteData': dbus.Array([], signature='a{sv}'),
        'NameserverData': dbus.Array([dbus.Dictionary({'address': dbus.String(d)}, signature='sv') for d in dns],
                                     signature='a{sv}'),
        'Nameservers': dbus.Array([u32(ip4_to_u32(d)) for d in dns], signature='u'),
        'Domains': dbus.Array([], signature='s'),
        'Searches': dbus.Array([], signature='s'),
        'DnsOptions': dbus.Array([], signature='s'),
        'DnsPriority': dbus.Int32(100),
        'WinsServerData': dbus.Array([], signature='s'),
        'WinsServers': dbus.Array([], signature='u'),
    }


# ---------------------------------------------------------------- control API for the tests

@dbus.service.method(MOCK_IFACE, in_signature='sssbu', out_signature='s')
def AddEthernetDevice(self, iface, mac, udi, carrier, state):
    '''A wired device; returns its path.'''
    return add_device(iface, TYPE_ETHERNET, state, udi, WIRED_IFACE, {
        'HwAddress': dbus.String(mac), 'PermHwAddress': dbus.String(mac), 'Speed': u32(1000 if carrier else 0),
        'S390Subchannels': dbus.Array([], signature='s'), 'Carrier': dbus.Boolean(carrier)})


@dbus.service.method(MOCK_IFACE, in_signature='sssu', out_signature='s')
def AddWifiDevice(self, iface, mac, udi, state):
    '''A wireless device without access points; returns its path.'''
    return add_device(iface, TYPE_WIFI, state, udi, WIRELESS_IFACE, {
        'HwAddress': dbus.String(mac), 'PermHwAddress': dbus.String(mac), 'Mode': u32(2), 'Bitrate': u32(54000),
        'AccessPoints': paths([]), 'ActiveAccessPoint': dbus.ObjectPath('/'), 'WirelessCapabilities': u32(0x7ff),
        'LastScan': dbus.Int64(-1)}, wireless_methods())


@dbus.service.method(MOCK_IFACE, in_signature='sssuus', out_signature='s')
def AddModemDevice(self, iface, modem, ip_iface, capabilities, state, operator_code):
    '''A modem device whose Udi is the ModemManager modem path; returns its path.'''
    path = add_device(iface, TYPE_MODEM, state, modem, MODEM_IFACE, {
        'ModemCapabilities': u32(capabilities), 'CurrentCapabilities': u32(capabilities),
        'DeviceId': dbus.String(modem.rsplit('/', 1)[-1]), 'OperatorCode': dbus.String(operator_code),
        'Apn': dbus.String('')})
    W.devices[path]['ip_iface'] = ip_iface
    return path


@dbus.service.method(MOCK_IFACE, in_signature='suuss', out_signature='s')
def AddGenericDevice(self, iface, device_type, state, udi, mac):
    '''Any other device type; returns its path.'''
    return add_device(iface, device_type, state, udi, GENERIC_IFACE, {
        'HwAddress': dbus.String(mac), 'TypeDescription': dbus.String('')})


@dbus.service.method(MOCK_IFACE, in_signature='s', out_signature='')
def RemoveDevice(self, device):
    remove_device(device)


@dbus.service.method(MOCK_IFACE, in_signature='saysyuuuuuu', out_signature='s')
def AddAccessPoint(self, device, ssid, bssid, strength, frequency, max_bitrate, mode, flags, wpa, rsn):
    '''An access point seen by a wireless device (AccessPointAdded); returns its path.'''
    device = require_device(device)
    path = f'{NM_AP_PREFIX}{W.next_number("ap")}'
    add_object(path, AP_IFACE, {
        'Flags': u32(flags), 'WpaFlags': u32(wpa), 'RsnFlags': u32(rsn),
        'Ssid': dbus.ByteArray(bytes(ssid)), 'Frequency': u32(frequency),
        'HwAddress': dbus.String(bssid), 'Mode': u32(mode), 'MaxBitrate': u32(max_bitrate),
        'Strength': dbus.Byte(strength), 'LastSeen': dbus.Int32(int(time.clock_gettime(time.CLOCK_BOOTTIME))),
        'Bandwidth': u32(20)})
    emit_object_added(path)
    aps = list(prop(device, WIRELESS_IFACE, 'AccessPoints')) + [path]
    obj(device).EmitSignal(WIRELESS_IFACE, 'AccessPointAdded', 'o', [dbus.ObjectPath(path)])
    set_props(device, WIRELESS_IFACE, {'AccessPoints': paths(aps)})
    return path


@dbus.service.method(MOCK_IFACE, in_signature='ss', out_signature='')
def RemoveAccessPoint(self, device, ap):
    device = require_device(device)
    aps = [a for a in prop(device, WIRELESS_IFACE, 'AccessPoints') if str(a) != ap]
    obj(device).EmitSignal(WIRELESS_IFACE, 'AccessPointRemoved', 'o', [dbus.ObjectPath(ap)])
    set_props(device, WIRELESS_IFACE, {'AccessPoints': paths(aps)})
    remove_object(ap)


@dbus.service.method(MOCK_IFACE, in_signature='a{sa{sv}}', out_signature='s')
def AddSavedConnection(self, settings):
    '''A saved profile; secret keys in the map are stored apart. Returns its path.'''
    check_valid_type(settings)
    return add_connection(settings)


@dbus.service.method(MOCK_IFACE, in_signature='s', out_signature='')
def RemoveSavedConnection(self, connection):
    require_connection(connection)
    remove_connection(connection)


@dbus.service.method(MOCK_IFACE, in_signature='s', out_signature='a{sa{sv}}')
def PeekSettings(self, connection):
    '''The stored settings, without leaving a trace in the call log.'''
    return require_connection(connection)['settings']


@dbus.service.method(MOCK_IFACE, in_signature='s', out_signature='a{sa{sv}}')
def PeekSecrets(self, connection):
    return dbus.Dictionary(require_connection(connection)['secrets'], signature='sa{sv}')


@dbus.service.method(MOCK_IFACE, in_signature='sssb', out_signature='s')
def Activate(self, connection, device, specific, instant):
    '''Activates a profile on a device; instant runs every state step before returning.'''
    record = require_connection(connection)
    device = require_device(device)
    check_available(record['settings'], device, record['settings']['connection'].get('id', ''))
    return activate(connection, device, specific, instant)


@dbus.service.method(MOCK_IFACE, in_signature='sub', out_signature='')
def Deactivate(self, device, reason, instant):
    active = str(prop(require_device(device), DEVICE_IFACE, 'ActiveConnection'))
    if active in W.active:
        deactivate(active, reason, instant)


@dbus.service.method(MOCK_IFACE, in_signature='su', out_signature='')
def FailNextActivation(self, device, reason):
    '''The next activation on the device stops at 70 and fails with the reason.'''
    W.devices[require_device(device)]['fail'] = reason


@dbus.service.method(MOCK_IFACE, in_signature='suu', out_signature='')
def SetDeviceState(self, device, state, reason):
    change_state(require_device(device), state, reason)


@dbus.service.method(MOCK_IFACE, in_signature='sbb', out_signature='')
def SetCarrier(self, device, carrier, follow):
    '''Cable plugged or unplugged; with follow the device state follows (20 without carrier, 30 with).'''
    device = require_device(device)
    set_props(device, WIRED_IFACE, {'Carrier': dbus.Boolean(carrier), 'Speed': u32(1000 if carrier else 0)})
    if not follow:
        return
    state = int(prop(device, DEVICE_IFACE, 'State'))
    if carrier and state == STATE_UNAVAILABLE:
        change_state(device, STATE_DISCONNECTED, REASON_CARRIER)
    elif not carrier and state > STATE_UNAVAILABLE:
        W.devices[device]['generation'] += 1
        change_state(device, STATE_UNAVAILABLE, REASON_CARRIER, cleared_device_props(device))
        for ac in [a for a, i in W.active.items() if i['device'] == device]:
            finish_deactivation(ac)


@dbus.service.method(MOCK_IFACE, in_signature='ssuss', out_signature='s')
def SetIp4Config(self, device, address, prefix, gateway, dns):
    '''Gives the device (and its active connection) a new IPv4 configuration object; dns is comma separated.'''
    device = require_device(device)
    ip4 = add_ip4_config(address, prefix, gateway, [d for d in dns.split(',') if d])
    set_props(device, DEVICE_IFACE, {'Ip4Config': dbus.ObjectPath(ip4)})
    active = str(prop(device, DEVICE_IFACE, 'ActiveConnection'))
    if active in W.active:
        W.active[active]['ip4'] = ip4
        set_props(active, ACTIVE_IFACE, {'Ip4Config': dbus.ObjectPath(ip4)})
    return ip4


@dbus.service.method(MOCK_IFACE, in_signature='ssuss', out_signature='')
def SetDhcpLease(self, device, address, prefix, gateway, dns):
    '''What the next automatic activation of the device receives; dns is comma separated.'''
    W.devices[require_device(device)]['lease'] = (address, prefix, gateway, [d for d in dns.split(',') if d])


@dbus.service.method(MOCK_IFACE, in_signature='uu', out_signature='')
def SetGlobalState(self, state, connectivity):
    '''Pins the overall state and connectivity (activations no longer change them).'''
    W.pinned_state = True
    set_global_state(state, connectivity)


@dbus.service.method(MOCK_IFACE, in_signature='', out_signature='')
def UnpinGlobalState(self):
    W.pinned_state = False
    update_global_state()


@dbus.service.method(MOCK_IFACE, in_signature='ssa{sv}', out_signature='')
def SetProperties(self, path, iface, changes):
    '''Changes properties of any object and emits PropertiesChanged.'''
    set_props(path, iface, changes)


@dbus.service.method(MOCK_IFACE, in_signature='sssav', out_signature='')
def EmitOn(self, path, iface, name, args):
    '''Emits a signal on any object (the signature is guessed from the values).'''
    obj(path).EmitSignal(iface, name, ''.join(dbus.lowlevel.Message.guess_signature(a) for a in args), args)


@dbus.service.method(MOCK_IFACE, in_signature='ssssi', out_signature='')
def Refuse(self, method, path, error_name, message, count):
    '''The next count calls of the method (on the object path, or any when empty) fail with the error
    (count -1: until cleared).'''
    W.refusals[(str(method), str(path))] = [error_name, message, count]


@dbus.service.method(MOCK_IFACE, in_signature='', out_signature='')
def ClearRefusals(self):
    W.refusals.clear()


@dbus.service.method(MOCK_IFACE, in_signature='s', out_signature='s')
def CallLog(self, method):
    '''Calls of the daemon's own API as JSON (all methods when empty).'''
    return json.dumps([c for c in W.calls if not method or c['method'] == method])


@dbus.service.method(MOCK_IFACE, in_signature='', out_signature='')
def ClearCallLog(self):
    W.calls.clear()


@dbus.service.method(MOCK_IFACE, in_signature='u', out_signature='')
def SetStepDelay(self, milliseconds):
    '''Pause between two state steps of an activation.'''
    W.step_ms = int(milliseconds)
