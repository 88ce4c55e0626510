'''D-Bus values in and out: plain Python values, IPv4 addresses as NetworkManager's numbers, and
profiles typed as a{sa{sv}}. The world and the simulated daemons (simulated/) both use them.'''

import socket
import struct

import dbus


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
