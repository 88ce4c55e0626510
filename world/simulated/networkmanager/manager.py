'''The manager object (/org/freedesktop/NetworkManager) and the template's load().'''

import dbus

from .. import mockbus
from ..mockbus import add_object, emit_object_added, paths, prop, set_props, u32
from . import activation, checkpoints, devices, profiles
from .constants import MANAGER_OBJ, NM
from .state import W


def load(mock, parameters):
    '''Called by dbusmock with the Mock object at /org/freedesktop; parameters from --parameters.'''
    mockbus.bind(mock)
    W.reset()   # dbusmock's Reset() loads the template again: start from nothing
    checkpoints.forget_all()
    add_manager_object(parameters)
    profiles.add_settings_object(parameters.get('Hostname', 'tarvik-test'))


def add_manager_object(parameters):
    add_object(MANAGER_OBJ, NM, {
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
        'Version': dbus.String(parameters.get('Version', '1.42.4')),
        'VersionInfo': dbus.Array([u32(0x012a04)], signature='u'),
        'Capabilities': dbus.Array([], signature='u'),
        'State': u32(parameters.get('State', 20)),
        'Connectivity': u32(parameters.get('Connectivity', 1)),
        'ConnectivityCheckAvailable': True,
        'ConnectivityCheckEnabled': True,
        'ConnectivityCheckUri': dbus.String('http://check.example.org/'),
        'GlobalDnsConfiguration': dbus.Dictionary({}, signature='sv'),
    }, [
        ('GetDevices', '', 'ao', lambda self: prop(MANAGER_OBJ, NM, 'Devices')),
        ('GetAllDevices', '', 'ao', lambda self: prop(MANAGER_OBJ, NM, 'AllDevices')),
        ('GetDeviceByIpIface', 's', 'o', devices.get_device_by_ip_iface),
        ('ActivateConnection', 'ooo', 'o', activation.manager_activate_connection),
        ('AddAndActivateConnection', 'a{sa{sv}}oo', 'oo', activation.manager_add_and_activate_connection),
        ('AddAndActivateConnection2', 'a{sa{sv}}ooa{sv}', 'ooa{sv}',
         lambda self, s, d, a, o: tuple(activation.manager_add_and_activate_connection(
             self, s, d, a, saved=str(o.get('persist', 'disk')) == 'disk')) + (dbus.Dictionary({}, signature='sv'),)),
        ('CheckpointCreate', 'aouu', 'o', checkpoints.checkpoint_create),
        ('CheckpointDestroy', 'o', '', checkpoints.checkpoint_destroy),
        ('CheckpointRollback', 'o', 'a{su}', checkpoints.checkpoint_rollback),
        ('CheckpointAdjustRollbackTimeout', 'ou', '', checkpoints.checkpoint_adjust_rollback_timeout),
        ('DeactivateConnection', 'o', '', activation.manager_deactivate_connection),
        ('Sleep', 'b', '', lambda self, sleep: None),
        ('Enable', 'b', '', lambda self, enable: set_props(MANAGER_OBJ, NM, {'NetworkingEnabled': bool(enable)})),
        ('GetPermissions', '', 'a{ss}', lambda self: dbus.Dictionary({}, signature='ss')),
        ('SetLogging', 'ss', '', lambda self, level, domains: None),
        ('GetLogging', '', 'ss', lambda self: ('INFO', 'DEFAULT')),
        ('CheckConnectivity', '', 'u', lambda self: prop(MANAGER_OBJ, NM, 'Connectivity')),
        ('state', '', 'u', lambda self: prop(MANAGER_OBJ, NM, 'State')),
        ('Reload', 'u', '', lambda self, flags: None),
    ])
    emit_object_added(MANAGER_OBJ)
