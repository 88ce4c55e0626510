'''Access points seen by wireless devices.'''

import time

import dbus
import dbusmock

from ..mockbus import add_object, emit_object_added, obj, paths, prop, remove_object, set_props, u32
from .constants import AP_IFACE, NM_AP_PREFIX, WIRELESS_IFACE
from .state import W


def add_access_point(device, ssid, bssid, strength, frequency, max_bitrate, mode, flags, wpa, rsn):
    '''Announced with AccessPointAdded and a new AccessPoints list on the device.'''
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


def remove_access_point(device, ap):
    aps = [a for a in prop(device, WIRELESS_IFACE, 'AccessPoints') if str(a) != ap]
    obj(device).EmitSignal(WIRELESS_IFACE, 'AccessPointRemoved', 'o', [dbus.ObjectPath(ap)])
    set_props(device, WIRELESS_IFACE, {'AccessPoints': paths(aps)})
    remove_object(ap)


def access_point_paths():
    return {p for p in dbusmock.get_objects() if p.startswith(NM_AP_PREFIX)}


def find_ap_for(device, ssid):
    '''The strongest access point of the device with the SSID, or "/".'''
    if ssid is None:
        return '/'
    best = None
    for ap in prop(device, WIRELESS_IFACE, 'AccessPoints'):
        if bytes(prop(str(ap), AP_IFACE, 'Ssid')) == bytes(ssid):
            if best is None or int(prop(str(ap), AP_IFACE, 'Strength')) > int(prop(best, AP_IFACE, 'Strength')):
                best = str(ap)
    return best or '/'
