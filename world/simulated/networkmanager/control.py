'''The test control API: methods on org.freedesktop.DBus.Mock at /org/freedesktop (world/services.py
calls them). The template imports every one of them, because dbusmock serves what it finds there.'''

import dbus
from dbusmock import MOCK_IFACE

from ..mockbus import ClearDelays, Delay, SetProperties, obj  # noqa: F401  (served by the template, see __all__)
from . import accesspoints, activation, devices, ipconfig, profiles
from .state import W, calls_json


@dbus.service.method(MOCK_IFACE, in_signature='sssbu', out_signature='s')
def AddEthernetDevice(self, iface, mac, udi, carrier, state):
    '''A wired device; returns its path.'''
    return devices.add_ethernet(iface, mac, udi, carrier, state)


@dbus.service.method(MOCK_IFACE, in_signature='sssu', out_signature='s')
def AddWifiDevice(self, iface, mac, udi, state):
    '''A wireless device without access points; returns its path.'''
    return devices.add_wifi(iface, mac, udi, state)


@dbus.service.method(MOCK_IFACE, in_signature='sssuus', out_signature='s')
def AddModemDevice(self, iface, modem, ip_iface, capabilities, state, operator_code):
    '''A modem device whose Udi is the ModemManager modem path; returns its path.'''
    return devices.add_modem(iface, modem, ip_iface, capabilities, state, operator_code)


@dbus.service.method(MOCK_IFACE, in_signature='suuss', out_signature='s')
def AddGenericDevice(self, iface, device_type, state, udi, mac):
    '''Any other device type; returns its path.'''
    return devices.add_generic(iface, device_type, state, udi, mac)


@dbus.service.method(MOCK_IFACE, in_signature='s', out_signature='')
def RemoveDevice(self, device):
    devices.remove_device(device)


@dbus.service.method(MOCK_IFACE, in_signature='saysyuuuuuu', out_signature='s')
def AddAccessPoint(self, device, ssid, bssid, strength, frequency, max_bitrate, mode, flags, wpa, rsn):
    '''An access point seen by a wireless device (AccessPointAdded); returns its path.'''
    return accesspoints.add_access_point(devices.require_device(device), ssid, bssid, strength, frequency,
                                         max_bitrate, mode, flags, wpa, rsn)


@dbus.service.method(MOCK_IFACE, in_signature='sa(aysyuuu)', out_signature='as')
def AddAccessPoints(self, device, networks):
    '''Access points (ssid, bssid, strength, flags, wpa, rsn) found in one scan, announced back to back;
    returns their paths.'''
    device = devices.require_device(device)
    return [accesspoints.add_access_point(device, ssid, bssid, strength, 2412, 54000, 2, flags, wpa, rsn)
            for ssid, bssid, strength, flags, wpa, rsn in networks]


@dbus.service.method(MOCK_IFACE, in_signature='ss', out_signature='')
def RemoveAccessPoint(self, device, ap):
    accesspoints.remove_access_point(devices.require_device(device), ap)


@dbus.service.method(MOCK_IFACE, in_signature='a{sa{sv}}', out_signature='s')
def AddSavedConnection(self, settings):
    '''A saved profile; secret keys in the map are stored apart. Returns its path.'''
    profiles.check_valid_type(settings)
    return profiles.add_connection(settings)


@dbus.service.method(MOCK_IFACE, in_signature='s', out_signature='')
def RemoveSavedConnection(self, connection):
    profiles.require_connection(connection)
    profiles.remove_connection(connection)


@dbus.service.method(MOCK_IFACE, in_signature='s', out_signature='a{sa{sv}}')
def PeekSettings(self, connection):
    '''The stored settings, without leaving a trace in the call log.'''
    return profiles.require_connection(connection)['settings']


@dbus.service.method(MOCK_IFACE, in_signature='s', out_signature='a{sa{sv}}')
def PeekSavedSettings(self, connection):
    '''The settings on "disk" (empty for a profile never saved).'''
    saved = profiles.require_connection(connection)['saved']
    return dbus.Dictionary(saved['settings'] if saved else {}, signature='sa{sv}')


@dbus.service.method(MOCK_IFACE, in_signature='s', out_signature='a{sa{sv}}')
def PeekSecrets(self, connection):
    return dbus.Dictionary(profiles.require_connection(connection)['secrets'], signature='sa{sv}')


@dbus.service.method(MOCK_IFACE, in_signature='sssb', out_signature='s')
def Activate(self, connection, device, specific, instant):
    '''Activates a profile on a device; instant runs every state step before returning.'''
    record = profiles.require_connection(connection)
    device = devices.require_device(device)
    devices.check_available(record['settings'], device, record['settings']['connection'].get('id', ''))
    return activation.activate(connection, device, specific, instant)


@dbus.service.method(MOCK_IFACE, in_signature='sub', out_signature='')
def Deactivate(self, device, reason, instant):
    activation.deactivate_device(devices.require_device(device), reason, instant)


@dbus.service.method(MOCK_IFACE, in_signature='su', out_signature='')
def FailNextActivation(self, device, reason):
    '''The next activation on the device stops at 70 and fails with the reason.'''
    W.devices[devices.require_device(device)]['fail'] = reason


@dbus.service.method(MOCK_IFACE, in_signature='suu', out_signature='')
def SetDeviceState(self, device, state, reason):
    devices.change_state(devices.require_device(device), state, reason)


@dbus.service.method(MOCK_IFACE, in_signature='sbb', out_signature='')
def SetCarrier(self, device, carrier, follow):
    '''Cable plugged or unplugged; with follow the device state follows (20 without carrier, 30 with).'''
    devices.set_carrier(devices.require_device(device), carrier, follow)


@dbus.service.method(MOCK_IFACE, in_signature='ssuss', out_signature='s')
def SetIp4Config(self, device, address, prefix, gateway, dns):
    '''Gives the device (and its active connection) a new IPv4 configuration object; dns is comma separated.'''
    return ipconfig.set_ip4_config(devices.require_device(device), address, prefix, gateway, split_list(dns))


@dbus.service.method(MOCK_IFACE, in_signature='ssuss', out_signature='')
def SetDhcpLease(self, device, address, prefix, gateway, dns):
    '''What the next automatic activation of the device receives; dns is comma separated.'''
    ipconfig.set_dhcp_lease(devices.require_device(device), address, prefix, gateway, split_list(dns))


@dbus.service.method(MOCK_IFACE, in_signature='uu', out_signature='')
def SetGlobalState(self, state, connectivity):
    '''Pins the overall state and connectivity (activations no longer change them).'''
    activation.pin_global_state(state, connectivity)


@dbus.service.method(MOCK_IFACE, in_signature='', out_signature='')
def UnpinGlobalState(self):
    activation.unpin_global_state()


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
    return calls_json(method)


@dbus.service.method(MOCK_IFACE, in_signature='', out_signature='')
def ClearCallLog(self):
    W.calls.clear()


@dbus.service.method(MOCK_IFACE, in_signature='u', out_signature='')
def SetStepDelay(self, milliseconds):
    '''Pause between two state steps of an activation.'''
    W.step_ms = int(milliseconds)


def split_list(text):
    return [item for item in text.split(',') if item]


# What the template imports: every method above, and the one both simulated daemons share.
__all__ = [name for name, value in list(globals().items()) if hasattr(value, '_dbus_interface')]
