'''What both simulated daemons do to their dbusmock objects: find them, change and announce
properties, add and remove objects with the object manager's signals, and answer calls late
or never when a test asks for it.'''

import dbus
import dbus.lowlevel
import dbusmock
from dbusmock import MOCK_IFACE
from gi.repository import GLib

PROPS_IFACE = 'org.freedesktop.DBus.Properties'
OBJECT_MANAGER_IFACE = 'org.freedesktop.DBus.ObjectManager'

# The template's main object: dbusmock registers it only after load() returns, so it is kept here.
ROOT = None


def bind(mock):
    '''Called by the template's load() with its main object.'''
    global ROOT
    ROOT = mock


def obj(path):
    return ROOT if path == ROOT.path else dbusmock.get_object(path)


def prop(path, iface, name):
    return obj(path).props[iface][name]


def set_props(path, iface, changes):
    '''Stores the new values and announces them the way the daemons do.'''
    o = obj(path)
    for name, value in changes.items():
        o.props[iface][name] = value
    o.EmitSignal(PROPS_IFACE, 'PropertiesChanged', 'sa{sv}as',
                 [iface, dbus.Dictionary(changes, signature='sv'), dbus.Array([], signature='s')])


def u32(value):
    return dbus.UInt32(value)


def paths(items):
    return dbus.Array([dbus.ObjectPath(p) for p in items], signature='o')


def strings(items):
    return dbus.Array([dbus.String(i) for i in items], signature='s')


def path_order(path):
    '''Sorts object paths by their trailing number (Devices/10 after Devices/9).'''
    head, _, number = path.rpartition('/')
    return (head, int(number) if number.isdigit() else 0)


def emit_object_added(path):
    ROOT.EmitSignal(OBJECT_MANAGER_IFACE, 'InterfacesAdded', 'oa{sa{sv}}', [dbus.ObjectPath(path), obj(path).props])


def emit_object_removed(path):
    ROOT.EmitSignal(OBJECT_MANAGER_IFACE, 'InterfacesRemoved', 'oas',
                    [dbus.ObjectPath(path), dbus.Array(list(obj(path).props.keys()), signature='s')])


def add_object(path, iface, props, methods=()):
    ROOT.AddObject(path, iface, props, [])
    o = obj(path)
    for name, in_sig, out_sig, code in methods:
        o.AddMethod(iface, name, in_sig, out_sig, code)
    return o


def remove_object(path):
    emit_object_removed(path)
    ROOT.RemoveObject(path)


@dbus.service.method(MOCK_IFACE, in_signature='ssa{sv}', out_signature='')
def SetProperties(self, path, iface, changes):
    '''Changes properties of any object and emits PropertiesChanged.'''
    set_props(path, iface, changes)


# ---------------------------------------------------------------- late and missing answers

# (method, object path or '') -> [seconds, or None for never; calls left, -1 until cleared]
DELAYS = {}
# Calls never answered: kept so that they stay unanswered rather than collected.
UNANSWERED = []


def take_delay(message):
    '''The delay asked for this call (False when it is served at once).'''
    if not isinstance(message, dbus.lowlevel.MethodCallMessage) or message.get_interface() == MOCK_IFACE:
        return False
    method, path = message.get_member(), message.get_path()
    key = (method, path) if (method, path) in DELAYS else (method, '')
    delay = DELAYS.get(key)
    if delay is None:
        return False
    seconds, remaining = delay
    if remaining > 0:
        delay[1] -= 1
        if delay[1] == 0:
            del DELAYS[key]
    return seconds


_serve_now = dbusmock.DBusMockObject._message_cb


def _serve(self, connection, message):
    '''Every call of either daemon passes here: a delayed one is served later, by the main loop.'''
    seconds = take_delay(message)
    if seconds is False:
        return _serve_now(self, connection, message)
    if seconds is None:
        UNANSWERED.append(message)
        return None
    GLib.timeout_add(int(seconds * 1000), lambda: _serve_now(self, connection, message) and False)
    return None


# Patched before the template's objects exist, so that every object registers this dispatcher.
dbusmock.DBusMockObject._message_cb = _serve


@dbus.service.method(MOCK_IFACE, in_signature='ssdi', out_signature='')
def Delay(self, method, path, seconds, count):
    '''The next count calls of the method (on the object path, or any when empty) are answered after the
    seconds, or never when seconds is negative (count -1: until cleared).'''
    DELAYS[(str(method), str(path))] = [None if seconds < 0 else float(seconds), int(count)]


@dbus.service.method(MOCK_IFACE, in_signature='', out_signature='')
def ClearDelays(self):
    DELAYS.clear()
