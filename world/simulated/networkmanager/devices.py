'''Devices (wired, wireless, modem, any other type): their objects, state changes, carrier and the
profiles available on them.'''

import time

import dbus

from ..mockbus import add_object, emit_object_added, obj, path_order, paths, prop, remove_object, \
    set_props, u32
from . import activation, profiles
from .constants import DEVICE_IFACE, DEVICE_TYPE_OF_CONNECTION, GENERIC_IFACE, MANAGER_OBJ, MODEM_IFACE, NM, \
    REASON_CARRIER, REASON_NONE, REASON_REMOVED, REASON_USER_REQUESTED, STATE_ACTIVATED, STATE_DISCONNECTED, \
    STATE_UNAVAILABLE, STATE_UNMANAGED, STATISTICS_IFACE, TYPE_ETHERNET, TYPE_MODEM, TYPE_VETH, TYPE_WIFI, \
    WIRED_IFACE, WIRELESS_IFACE
from .state import W, entry


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


def wireless_methods():
    return [
        ('GetAccessPoints', '', 'ao', lambda self: prop(self.path, WIRELESS_IFACE, 'AccessPoints')),
        ('GetAllAccessPoints', '', 'ao', lambda self: prop(self.path, WIRELESS_IFACE, 'AccessPoints')),
        ('RequestScan', 'a{sv}', '', wireless_request_scan),
    ]


# ---------------------------------------------------------------- adding and removing

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


def add_ethernet(iface, mac, udi, carrier, state):
    return add_device(iface, TYPE_ETHERNET, state, udi, WIRED_IFACE, {
        'HwAddress': dbus.String(mac), 'PermHwAddress': dbus.String(mac), 'Speed': u32(1000 if carrier else 0),
        'S390Subchannels': dbus.Array([], signature='s'), 'Carrier': dbus.Boolean(carrier)})


def add_wifi(iface, mac, udi, state):
    return add_device(iface, TYPE_WIFI, state, udi, WIRELESS_IFACE, {
        'HwAddress': dbus.String(mac), 'PermHwAddress': dbus.String(mac), 'Mode': u32(2), 'Bitrate': u32(54000),
        'AccessPoints': paths([]), 'ActiveAccessPoint': dbus.ObjectPath('/'), 'WirelessCapabilities': u32(0x7ff),
        'LastScan': dbus.Int64(-1)}, wireless_methods())


def add_modem(iface, modem, ip_iface, capabilities, state, operator_code):
    '''A modem device whose Udi is the ModemManager modem path; ip_iface carries its data.'''
    path = add_device(iface, TYPE_MODEM, state, modem, MODEM_IFACE, {
        'ModemCapabilities': u32(capabilities), 'CurrentCapabilities': u32(capabilities),
        'DeviceId': dbus.String(modem.rsplit('/', 1)[-1]), 'OperatorCode': dbus.String(operator_code),
        'Apn': dbus.String('')})
    W.devices[path]['ip_iface'] = ip_iface
    return path


def add_generic(iface, device_type, state, udi, mac):
    return add_device(iface, device_type, state, udi, GENERIC_IFACE, {
        'HwAddress': dbus.String(mac), 'TypeDescription': dbus.String('')})


def remove_device(path):
    path = require_device(path)
    W.devices[path]['generation'] += 1
    for ac, info in list(W.active.items()):
        if info['device'] == path:
            activation.finish_deactivation(ac)
    change_state(path, STATE_UNMANAGED, REASON_REMOVED)
    if int(prop(path, DEVICE_IFACE, 'DeviceType')) == TYPE_WIFI:
        for ap in list(prop(path, WIRELESS_IFACE, 'AccessPoints')):
            remove_object(str(ap))
    devices = [d for d in prop(MANAGER_OBJ, NM, 'Devices') if str(d) != path]
    set_props(MANAGER_OBJ, NM, {'Devices': paths(devices), 'AllDevices': paths(devices)})
    obj(MANAGER_OBJ).EmitSignal(NM, 'DeviceRemoved', 'o', [dbus.ObjectPath(path)])
    del W.devices[path]
    remove_object(path)


def require_device(device):
    if str(device) not in W.devices:
        raise dbus.exceptions.DBusException('No device found for the requested iface.', name=NM + '.UnknownDevice')
    return str(device)


def get_device_by_ip_iface(self, name):
    for device in W.devices:
        if device_iface(device) == name:
            return dbus.ObjectPath(device)
    raise dbus.exceptions.DBusException('No device found for the requested iface.', name=NM + '.UnknownDevice')


# ---------------------------------------------------------------- state

def change_state(device, new, reason, extra=None):
    '''One device state step: the StateChanged signal, then the property change.'''
    old = int(prop(device, DEVICE_IFACE, 'State'))
    o = obj(device)
    o.EmitSignal(DEVICE_IFACE, 'StateChanged', 'uuu', [u32(new), u32(old), u32(reason)])
    changes = {'State': u32(new), 'StateReason': dbus.Struct((u32(new), u32(reason)), signature='uu')}
    changes.update(extra or {})
    set_props(device, DEVICE_IFACE, changes)


def cleared_device_props(device):
    return {'ActiveConnection': dbus.ObjectPath('/'), 'Ip4Config': dbus.ObjectPath('/'),
            'Dhcp4Config': dbus.ObjectPath('/'), 'IpInterface': dbus.String('')}


def set_carrier(device, carrier, follow):
    '''Cable plugged or unplugged; with follow the device state follows (20 without carrier, 30 with).'''
    set_props(device, WIRED_IFACE, {'Carrier': dbus.Boolean(carrier), 'Speed': u32(1000 if carrier else 0)})
    if not follow:
        return
    state = int(prop(device, DEVICE_IFACE, 'State'))
    if carrier and state == STATE_UNAVAILABLE:
        change_state(device, STATE_DISCONNECTED, REASON_CARRIER)
        autoconnect(device)
    elif not carrier and state > STATE_UNAVAILABLE:
        W.devices[device]['generation'] += 1
        change_state(device, STATE_UNAVAILABLE, REASON_CARRIER, cleared_device_props(device))
        for ac in [a for a, i in W.active.items() if i['device'] == device]:
            activation.finish_deactivation(ac)


def autoconnect(device):
    '''As the daemon does when a cable returns: the first available profile that connects by itself
    is activated.'''
    for connection in prop(device, DEVICE_IFACE, 'AvailableConnections'):
        settings = W.connections[str(connection)]['settings']
        if bool(settings['connection'].get('autoconnect', True)):
            activation.activate(str(connection), device, '/', instant=False)
            return


@entry('Disconnect')
def device_disconnect(self):
    active = str(prop(self.path, DEVICE_IFACE, 'ActiveConnection'))
    if active not in W.active:
        raise dbus.exceptions.DBusException('This device is not active', name=DEVICE_IFACE + '.NotActive')
    activation.deactivate(active, REASON_USER_REQUESTED, instant=False)


def device_get_applied_connection(self, flags):
    active = str(prop(self.path, DEVICE_IFACE, 'ActiveConnection'))
    if active not in W.active:
        raise dbus.exceptions.DBusException('Device is not activated', name=DEVICE_IFACE + '.NotActive')
    return (W.connections[W.active[active]['connection']]['settings'], dbus.UInt64(1))


@entry('RequestScan')
def wireless_request_scan(self, options):
    boottime_ms = int(time.clock_gettime(time.CLOCK_BOOTTIME) * 1000)
    set_props(self.path, WIRELESS_IFACE, {'LastScan': dbus.Int64(boottime_ms)})


# ---------------------------------------------------------------- which profile suits which device

def device_iface(device):
    return str(prop(device, DEVICE_IFACE, 'Interface'))


def ip_interface(device):
    if int(prop(device, DEVICE_IFACE, 'DeviceType')) == TYPE_MODEM:
        return W.devices[device].get('ip_iface') or device_iface(device)
    return device_iface(device)


def compatible(settings, device):
    device_type = int(prop(device, DEVICE_IFACE, 'DeviceType'))
    wanted = DEVICE_TYPE_OF_CONNECTION.get(profiles.connection_type(settings))
    if wanted != device_type and not (wanted == TYPE_ETHERNET and device_type == TYPE_VETH):
        return False
    name = str(settings.get('connection', {}).get('interface-name', ''))
    return not name or name == device_iface(device)


def refresh_available_connections(device):
    available = [p for p in sorted(W.connections, key=path_order)
                 if compatible(W.connections[p]['settings'], device)]
    if list(map(str, prop(device, DEVICE_IFACE, 'AvailableConnections'))) != available:
        set_props(device, DEVICE_IFACE, {'AvailableConnections': paths(available)})


def refresh_all_available_connections():
    for device in list(W.devices):
        refresh_available_connections(device)


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
