'''IPv4 configuration objects (IP4Config) and DHCP leases (DHCP4Config) of devices and active
connections.'''

import socket
import struct

import dbus

from dbusvalues import ip4_to_u32, u32_to_ip4
from ..mockbus import add_object, emit_object_added, prop, set_props, u32
from .constants import ACTIVE_IFACE, DEVICE_IFACE, DHCP4_IFACE, IP4_IFACE, MANAGER_OBJ, TYPE_ETHERNET, TYPE_MODEM, \
    TYPE_WIFI
from .state import W


def default_lease(device):
    '''What the daemon's DHCP client would get on the device, by device type and number.'''
    number = int(device.rsplit('/', 1)[1])
    kind = int(prop(device, DEVICE_IFACE, 'DeviceType'))
    if kind == TYPE_MODEM:
        return (f'10.64.{number}.2', 30, f'10.64.{number}.1', ['10.64.0.53', '10.64.0.54'])
    subnet = {TYPE_ETHERNET: 1, TYPE_WIFI: 2}.get(kind, 3)
    return (f'192.168.{subnet}.{100 + number}', 24, f'192.168.{subnet}.1', [f'192.168.{subnet}.1'])


def set_dhcp_lease(device, address, prefix, gateway, dns):
    W.devices[device]['lease'] = (address, prefix, gateway, dns)


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
    '''The IP4Config (and, for automatic addressing, DHCP4Config) an activation reaches at 80.'''
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


def set_ip4_config(device, address, prefix, gateway, dns):
    '''A new IPv4 configuration object for the device and its active connection.'''
    ip4 = add_ip4_config(address, prefix, gateway, dns)
    set_props(device, DEVICE_IFACE, {'Ip4Config': dbus.ObjectPath(ip4)})
    active = str(prop(device, DEVICE_IFACE, 'ActiveConnection'))
    if active in W.active:
        W.active[active]['ip4'] = ip4
        set_props(active, ACTIVE_IFACE, {'Ip4Config': dbus.ObjectPath(ip4)})
    return ip4


def in_use(path):
    '''Whether a device still refers to the configuration object.'''
    for device in W.devices:
        if path in (str(prop(device, DEVICE_IFACE, 'Ip4Config')), str(prop(device, DEVICE_IFACE, 'Dhcp4Config'))):
            return True
    return False


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
