'''Activation: active connection objects, the device's walk through the daemon's state sequence,
and what follows from the active connections (primary connection, overall state, connectivity).'''

import dbus
import dbusmock
from gi.repository import GLib

from ..mockbus import add_object, emit_object_added, obj, path_order, paths, prop, remove_object, \
    set_props, u32
from . import accesspoints, devices, ipconfig, modemlink, profiles
from .constants import AC_ACTIVATED, AC_ACTIVATING, AC_DEACTIVATED, AC_DEACTIVATING, ACTIVE_IFACE, DEVICE_IFACE, \
    MANAGER_OBJ, NM, REASON_NEW_ACTIVATION, REASON_NO_SECRETS, REASON_NONE, REASON_USER_REQUESTED, \
    STATE_ACTIVATED, STATE_CONFIG, STATE_DEACTIVATING, STATE_DISCONNECTED, STATE_FAILED, STATE_IP_CHECK, \
    STATE_IP_CONFIG, STATE_NEED_AUTH, STATE_PREPARE, STATE_SECONDARIES, TYPE_ETHERNET, TYPE_MODEM, TYPE_WIFI, \
    WIRELESS_IFACE
from .state import W, entry

# Default route metrics decide which activated connection is the primary one.
ROUTE_METRIC = {TYPE_ETHERNET: 100, TYPE_WIFI: 600, TYPE_MODEM: 700}


# ---------------------------------------------------------------- the manager's methods

@entry('ActivateConnection')
def manager_activate_connection(self, connection, device, specific):
    record = profiles.require_connection(connection)
    settings = record['settings']
    device = devices.pick_device(settings) if str(device) == '/' else devices.require_device(device)
    devices.check_available(settings, device, settings['connection'].get('id', ''))
    return dbus.ObjectPath(activate(str(connection), device, str(specific), instant=False))


@entry('AddAndActivateConnection')
def manager_add_and_activate_connection(self, settings, device, specific, saved=True):
    settings = {str(g): dbus.Dictionary(v, signature='sv') for g, v in settings.items()}
    if str(device) != '/':
        profiles.complete_type(settings, devices.require_device(device))
    profiles.check_valid_type(settings)
    device = devices.pick_device(settings) if str(device) == '/' else devices.require_device(device)
    profiles.complete(settings, str(specific))
    devices.check_available(settings, device, settings['connection'].get('id', ''))
    connection = profiles.add_connection(settings, saved)
    active = activate(connection, device, str(specific), instant=False)
    return (dbus.ObjectPath(connection), dbus.ObjectPath(active))


@entry('DeactivateConnection')
def manager_deactivate_connection(self, active):
    if str(active) not in W.active:
        raise dbus.exceptions.DBusException('The active connection was not found.',
                                            name=NM + '.ConnectionNotActive')
    deactivate(str(active), REASON_USER_REQUESTED, instant=False)


# ---------------------------------------------------------------- state steps

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


def activate(connection, device, specific, instant):
    '''Creates the active connection and walks the device up to Activated (or a failure).'''
    settings = W.connections[connection]['settings']
    is_wifi = int(prop(device, DEVICE_IFACE, 'DeviceType')) == TYPE_WIFI
    if is_wifi and specific in ('/', ''):
        specific = accesspoints.find_ap_for(device, settings.get('802-11-wireless', {}).get('ssid'))
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


def activation_steps(active, device, is_wifi):
    info = W.active[active]
    record = W.connections[info['connection']]
    fail_reason = W.devices[device]['fail']
    W.devices[device]['fail'] = None
    if fail_reason is None and int(prop(device, DEVICE_IFACE, 'DeviceType')) == TYPE_MODEM:
        fail_reason = modemlink.connect_refusal(prop(device, DEVICE_IFACE, 'Udi'), record['settings'])

    def start():
        extra = {'ActiveConnection': dbus.ObjectPath(active)}
        devices.change_state(device, STATE_PREPARE, REASON_NONE, extra)
        if is_wifi:
            set_props(device, WIRELESS_IFACE, {'ActiveAccessPoint': dbus.ObjectPath(info['specific'])})

    def step(state):
        return lambda: devices.change_state(device, state, REASON_NONE)

    def configure_ip():
        ip4, dhcp4 = ipconfig.make_ip4_config(info, device)
        info['ip4'], info['dhcp4'] = ip4, dhcp4
        devices.change_state(device, STATE_IP_CHECK, REASON_NONE, {
            'Ip4Config': dbus.ObjectPath(ip4), 'Dhcp4Config': dbus.ObjectPath(dhcp4 or '/'),
            'IpInterface': dbus.String(devices.ip_interface(device))})

    def activated():
        devices.change_state(device, STATE_ACTIVATED, REASON_NONE)
        set_active_state(active, AC_ACTIVATED, {
            'Ip4Config': dbus.ObjectPath(info['ip4']), 'Dhcp4Config': dbus.ObjectPath(info['dhcp4'] or '/')})
        if str(prop(MANAGER_OBJ, NM, 'ActivatingConnection')) == active:
            set_props(MANAGER_OBJ, NM, {'ActivatingConnection': dbus.ObjectPath('/')})
        update_primary()
        update_global_state()

    def failed(reason):
        def run():
            devices.change_state(device, STATE_FAILED, reason)
            devices.change_state(device, STATE_DISCONNECTED, reason, devices.cleared_device_props(device))
            finish_deactivation(active)
        return run

    steps = [start, step(STATE_CONFIG)]
    if is_wifi and profiles.needs_missing_secrets(record):
        return steps + [step(STATE_NEED_AUTH), failed(REASON_NO_SECRETS)]
    steps.append(step(STATE_IP_CONFIG))
    if fail_reason is not None:
        return steps + [failed(fail_reason)]
    return steps + [configure_ip, step(STATE_SECONDARIES), activated]


def deactivation_steps(actives, device, reason, final_state):
    def begin():
        devices.change_state(device, STATE_DEACTIVATING, reason)
        for active in actives:
            if active in W.active:
                set_active_state(active, AC_DEACTIVATING)

    def end():
        devices.change_state(device, final_state, reason, devices.cleared_device_props(device))
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


def deactivate_device(device, reason, instant):
    '''Deactivates what is active on the device, if anything.'''
    active = str(prop(device, DEVICE_IFACE, 'ActiveConnection'))
    if active in W.active:
        deactivate(active, reason, instant)


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
        if path and path in dbusmock.get_objects() and not ipconfig.in_use(path):
            remove_object(path)


# ---------------------------------------------------------------- what the manager derives from them

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


def pin_global_state(state, connectivity):
    '''The overall state and connectivity as a test sets them: activations no longer change them.'''
    W.pinned_state = True
    set_global_state(state, connectivity)


def unpin_global_state():
    W.pinned_state = False
    update_global_state()
