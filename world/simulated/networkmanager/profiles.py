'''Saved profiles (Settings.Connection objects): secrets kept apart from the settings, the daemon's
normalisation and verification, and what AddAndActivateConnection completes.'''

import uuid

import dbus

from dbusvalues import ip4_to_u32, u32_to_ip4
from ..mockbus import add_object, emit_object_added, obj, path_order, paths, prop, remove_object, \
    set_props, u32
from . import accesspoints, activation, devices
from .constants import AP_IFACE, CONNECTION_IFACE, DEVICE_IFACE, DEVICE_TYPE_OF_CONNECTION, NM, REASON_USER_REQUESTED, \
    SETTINGS_IFACE, SETTINGS_OBJ, TYPE_ETHERNET, TYPE_MODEM, TYPE_VETH, TYPE_WIFI
from .state import W, entry

OTHER_CONNECTION_TYPES = {
    'adsl', 'bluetooth', 'bond', 'bridge', 'dummy', 'generic', 'infiniband', 'ip-tunnel', 'loopback',
    'macsec', 'macvlan', 'olpc-mesh', 'ovs-bridge', 'ovs-interface', 'ovs-port', 'pppoe', 'team', 'tun',
    'veth', 'vlan', 'vpn', 'vrf', 'vxlan', 'wifi-p2p', 'wireguard', 'wpan', '6lowpan',
}

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

# What the daemon completes a profile without a type to, from the device it is activated on.
CONNECTION_TYPE_OF_DEVICE = {TYPE_ETHERNET: '802-3-ethernet', TYPE_VETH: '802-3-ethernet',
                             TYPE_WIFI: '802-11-wireless', TYPE_MODEM: 'gsm'}


# ---------------------------------------------------------------- settings maps

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
    apn = str(gsm.get('apn', ''))
    if len(apn.encode()) > 64:
        raise invalid_property(f"gsm.apn: property value '{apn}' is empty or too long (>64)")
    if any(not (c.isascii() and (c.isalnum() or c in '._-')) for c in apn):
        raise invalid_property(f"gsm.apn: '{apn}' contains invalid char(s) (use [A-Za-z._-])")
    ssid = sent.get('802-11-wireless', {}).get('ssid')
    if ssid is not None and not 1 <= len(ssid) <= 32:
        raise invalid_property('802-11-wireless.ssid: SSID length is out of range <1-32> bytes')
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


def complete_type(settings, device):
    '''A profile without a type takes the type of a managed device instead of being refused.'''
    con = settings.setdefault('connection', dbus.Dictionary({}, signature='sv'))
    completed = CONNECTION_TYPE_OF_DEVICE.get(int(prop(device, DEVICE_IFACE, 'DeviceType')))
    if not str(con.get('type', '')) and completed and bool(prop(device, DEVICE_IFACE, 'Managed')):
        con['type'] = dbus.String(completed)


def complete(settings, specific):
    '''Fills what the daemon fills in a partial profile given to AddAndActivateConnection.'''
    con = settings['connection']
    ctype = connection_type(settings)
    if ctype == '802-11-wireless':
        wireless = settings.setdefault('802-11-wireless', dbus.Dictionary({}, signature='sv'))
        if 'ssid' not in wireless and specific in accesspoints.access_point_paths():
            wireless['ssid'] = prop(specific, AP_IFACE, 'Ssid')
        if 'id' not in con or not con['id']:
            con['id'] = dbus.String(bytes(wireless.get('ssid', b'')).decode('utf-8', 'replace'))
    if 'id' not in con or not con['id']:
        base = {'802-3-ethernet': 'Wired connection', 'gsm': 'GSM connection', 'cdma': 'CDMA connection'}
        con['id'] = dbus.String(f'{base.get(ctype, "Connection")} {W.next_number("auto-name")}')


def needs_missing_secrets(record):
    '''A Wi-Fi profile whose key management asks for a key it does not hold.'''
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


# ---------------------------------------------------------------- Settings.Connection objects

def connection_methods():
    return [
        ('Update', 'a{sa{sv}}', '', connection_update),
        ('UpdateUnsaved', 'a{sa{sv}}', '', connection_update_unsaved),
        ('Delete', '', '', connection_delete),
        ('GetSettings', '', 'a{sa{sv}}', connection_get_settings),
        ('GetSecrets', 's', 'a{sa{sv}}', connection_get_secrets),
        ('ClearSecrets', '', '', connection_clear_secrets),
        ('Save', '', '', connection_save),
    ]


# Settings.Connection flags and Update2 flags of the daemon.
FLAG_UNSAVED = 0x1
UPDATE2_TO_DISK, UPDATE2_IN_MEMORY = 0x1, 0x2


def add_connection(settings, saved=True):
    '''Stores a new profile (on "disk" unless saved is False); its secrets go to a store of their own.'''
    sent, settings = settings, normalize(settings)
    verify(sent, settings)
    clean, secrets = split_secrets(settings)
    path = f'{SETTINGS_OBJ}/{W.next_number("connection")}'
    add_object(path, CONNECTION_IFACE,
               {'Unsaved': False, 'Flags': u32(0), 'Filename': dbus.String(
                   f'/etc/NetworkManager/system-connections/{clean["connection"].get("id", "")}.nmconnection')},
               connection_methods())
    obj(path).AddMethod(CONNECTION_IFACE, 'Update2', 'a{sa{sv}}ua{sv}', 'a{sv}', connection_update2)
    W.connections[path] = {'settings': clean, 'secrets': secrets, 'saved': None}
    mark_saved(path, saved)
    emit_object_added(path)
    set_props(SETTINGS_OBJ, SETTINGS_IFACE, {'Connections': paths(sorted(W.connections, key=path_order))})
    obj(SETTINGS_OBJ).EmitSignal(SETTINGS_IFACE, 'NewConnection', 'o', [dbus.ObjectPath(path)])
    devices.refresh_all_available_connections()
    return path


def remove_connection(path):
    for ac, info in list(W.active.items()):
        if info['connection'] == path:
            activation.deactivate(ac, REASON_USER_REQUESTED, instant=True)
    del W.connections[path]
    set_props(SETTINGS_OBJ, SETTINGS_IFACE, {'Connections': paths(sorted(W.connections, key=path_order))})
    devices.refresh_all_available_connections()
    obj(path).EmitSignal(CONNECTION_IFACE, 'Removed', '', [])
    obj(SETTINGS_OBJ).EmitSignal(SETTINGS_IFACE, 'ConnectionRemoved', 'o', [dbus.ObjectPath(path)])
    remove_object(path)


def require_connection(path):
    if str(path) not in W.connections:
        raise dbus.exceptions.DBusException(f'Connection {path} does not exist',
                                            name=NM + '.UnknownConnection')
    return W.connections[str(path)]


def mark_saved(path, saved):
    '''A saved profile's "disk" copy is its settings now; an unsaved one keeps the copy it had.'''
    record = W.connections[path]
    if saved:
        record['saved'] = stored_copy(record)
    set_props(path, CONNECTION_IFACE, {'Unsaved': dbus.Boolean(not saved), 'Flags': u32(0 if saved else FLAG_UNSAVED)})


@entry('Update')
def connection_update(self, settings):
    change_settings(self, settings)
    mark_saved(self.path, True)


@entry('UpdateUnsaved')
def connection_update_unsaved(self, settings):
    change_settings(self, settings)
    mark_saved(self.path, False)


@entry('Save')
def connection_save(self):
    require_connection(self.path)
    mark_saved(self.path, True)


def stored_copy(record):
    '''Settings and secrets as they are now; the values themselves are never changed in place, only replaced.'''
    return {part: {group: dbus.Dictionary(values, signature='sv') for group, values in record[part].items()}
            for part in ('settings', 'secrets')}


def restore(path, stored):
    '''Puts settings and secrets kept earlier back, in memory (a checkpoint's rollback).'''
    record = W.connections[path]
    record['settings'], record['secrets'] = stored_copy(stored).values()
    mark_saved(path, False)
    obj(path).EmitSignal(CONNECTION_IFACE, 'Updated', '', [])
    devices.refresh_all_available_connections()


def change_settings(self, settings):
    record = require_connection(self.path)
    check_valid_type(settings)
    sent, settings = settings, normalize(settings)
    verify(sent, settings)
    clean, secrets = split_secrets(settings)
    record['settings'] = clean
    if carries_secrets(settings):
        record['secrets'] = secrets
    self.EmitSignal(CONNECTION_IFACE, 'Updated', '', [])
    devices.refresh_all_available_connections()


def connection_update2(self, settings, flags, args):
    if flags & UPDATE2_IN_MEMORY and not flags & UPDATE2_TO_DISK:
        connection_update_unsaved(self, settings)
    else:
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


# ---------------------------------------------------------------- the Settings object

def add_settings_object(hostname):
    add_object(SETTINGS_OBJ, SETTINGS_IFACE, {
        'Connections': paths([]),
        'Hostname': dbus.String(hostname),
        'CanModify': True,
    }, [
        ('ListConnections', '', 'ao', lambda self: prop(SETTINGS_OBJ, SETTINGS_IFACE, 'Connections')),
        ('GetConnectionByUuid', 's', 'o', settings_get_connection_by_uuid),
        ('AddConnection', 'a{sa{sv}}', 'o', settings_add_connection),
        ('AddConnectionUnsaved', 'a{sa{sv}}', 'o', settings_add_connection_unsaved),
        ('SaveHostname', 's', '', lambda self, name: set_props(SETTINGS_OBJ, SETTINGS_IFACE,
                                                               {'Hostname': dbus.String(name)})),
        ('ReloadConnections', '', 'b', lambda self: True),
    ])
    emit_object_added(SETTINGS_OBJ)


@entry('AddConnection')
def settings_add_connection(self, settings):
    check_valid_type(settings)
    return dbus.ObjectPath(add_connection(settings))


@entry('AddConnectionUnsaved')
def settings_add_connection_unsaved(self, settings):
    check_valid_type(settings)
    return dbus.ObjectPath(add_connection(settings, saved=False))


def settings_get_connection_by_uuid(self, wanted):
    for path, record in W.connections.items():
        if str(record['settings']['connection'].get('uuid')) == wanted:
            return dbus.ObjectPath(path)
    raise dbus.exceptions.DBusException('No connection with the UUID was found.',
                                        name=SETTINGS_IFACE + '.InvalidConnection')
