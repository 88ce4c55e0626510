'''Checkpoints as NetworkManager 1.42 keeps them: a snapshot of some devices and their active profiles, restored
by a call or by the checkpoint's own timer (whoever made it may be gone), held in memory only.'''

import time

import dbus
from gi.repository import GLib

from ..mockbus import add_object, emit_object_added, paths, prop, remove_object, set_props, u32
from . import activation, profiles
from .constants import DEVICE_IFACE, MANAGER_OBJ, NM, REASON_USER_REQUESTED
from .state import W, entry

CHECKPOINT_IFACE = NM + '.Checkpoint'
CHECKPOINT_PREFIX = MANAGER_OBJ + '/Checkpoint/'
DESTROY_ALL, DELETE_NEW_CONNECTIONS, DISCONNECT_NEW_DEVICES, ALLOW_OVERLAPPING = 0x1, 0x2, 0x4, 0x8
KNOWN_FLAGS = 0x1f
RESULT_OK, RESULT_NO_DEVICE = 0, 1

# path -> {'devices': {device: snapshot or None}, 'connections': set of paths, 'flags', 'timer'}
CHECKPOINTS = {}


def invalid(message):
    return dbus.exceptions.DBusException(message, name=NM + '.InvalidArguments')


def snapshot(device):
    '''The profile active on the device, as it is now (None when none is).'''
    for info in W.active.values():
        if info['device'] == device:
            record = W.connections[info['connection']]
            return {'connection': info['connection'], 'specific': info['specific'],
                    'stored': profiles.stored_copy(record)}
    return None


def require_checkpoint(path):
    if str(path) not in CHECKPOINTS:
        raise invalid(f'checkpoint {path} does not exist')
    return CHECKPOINTS[str(path)]


@entry('CheckpointCreate')
def checkpoint_create(self, device_paths, rollback_timeout, flags):
    if flags & ~KNOWN_FLAGS:
        raise invalid('invalid flags')
    if device_paths and flags & DISCONNECT_NEW_DEVICES:
        raise invalid('the DISCONNECT_NEW_DEVICES flag can only be used with an empty device list')
    for device in device_paths:
        if str(device) not in W.devices:
            raise dbus.exceptions.DBusException(f'device {device} does not exist', name=NM + '.UnknownDevice')
    chosen = [str(d) for d in device_paths] or list(prop(MANAGER_OBJ, NM, 'Devices'))
    if flags & DESTROY_ALL:
        for path in list(CHECKPOINTS):
            drop(path)
    if not flags & ALLOW_OVERLAPPING:
        for path, checkpoint in CHECKPOINTS.items():
            for device in chosen:
                if device in checkpoint['devices']:
                    name = prop(device, DEVICE_IFACE, 'Interface')
                    raise invalid(f"device '{name}' is already included in checkpoint {path}")
    path = f'{CHECKPOINT_PREFIX}{W.next_number("checkpoint")}'
    add_object(path, CHECKPOINT_IFACE, {
        'Devices': paths(chosen),
        'Created': dbus.Int64(int(time.clock_gettime(time.CLOCK_BOOTTIME) * 1000)),
        'RollbackTimeout': u32(rollback_timeout),
    })
    emit_object_added(path)
    CHECKPOINTS[path] = {'devices': {d: snapshot(d) for d in chosen}, 'connections': set(W.connections),
                         'flags': flags, 'timer': None}
    arm(path, rollback_timeout)
    announce()
    return dbus.ObjectPath(path)


def arm(path, seconds):
    checkpoint = CHECKPOINTS[path]
    if checkpoint['timer']:
        GLib.source_remove(checkpoint['timer'])
    checkpoint['timer'] = GLib.timeout_add(int(seconds) * 1000, lambda: roll_back(path) and False) if seconds else None


@entry('CheckpointDestroy')
def checkpoint_destroy(self, path):
    require_checkpoint(path)
    drop(str(path))


@entry('CheckpointRollback')
def checkpoint_rollback(self, path):
    require_checkpoint(path)
    return roll_back(str(path))


@entry('CheckpointAdjustRollbackTimeout')
def checkpoint_adjust_rollback_timeout(self, path, add_timeout):
    require_checkpoint(path)
    set_props(str(path), CHECKPOINT_IFACE, {'RollbackTimeout': u32(add_timeout)})
    arm(str(path), add_timeout)


def roll_back(path):
    '''Every profile recorded comes back (in memory), every device with its profile re-activated, the others
    disconnected; with DELETE_NEW_CONNECTIONS the profiles added since go.'''
    checkpoint = CHECKPOINTS[path]
    results = {}
    for device, recorded in checkpoint['devices'].items():
        if device not in W.devices:
            results[device] = RESULT_NO_DEVICE
            continue
        if recorded and recorded['connection'] in W.connections:
            profiles.restore(recorded['connection'], recorded['stored'])
            activation.activate(recorded['connection'], device, recorded['specific'], instant=False)
        else:
            activation.deactivate_device(device, REASON_USER_REQUESTED, instant=False)
        results[device] = RESULT_OK
    if checkpoint['flags'] & DELETE_NEW_CONNECTIONS:
        for connection in set(W.connections) - checkpoint['connections']:
            profiles.remove_connection(connection)
    drop(path)
    return dbus.Dictionary(results, signature='su')


def drop(path):
    checkpoint = CHECKPOINTS.pop(path)
    if checkpoint['timer']:
        GLib.source_remove(checkpoint['timer'])
    remove_object(path)
    announce()


def announce():
    set_props(MANAGER_OBJ, NM, {'Checkpoints': paths(sorted(CHECKPOINTS))})


def forget_all():
    '''A new daemon (the template loaded again) holds none.'''
    for checkpoint in CHECKPOINTS.values():
        if checkpoint['timer']:
            GLib.source_remove(checkpoint['timer'])
    CHECKPOINTS.clear()
