'''What the simulated daemon knows beyond its D-Bus properties, the log of the calls it served
and the refusals tests ask for.'''

import json
import time

import dbus

from dbusvalues import plain


class World:
    '''Everything the simulated daemon knows beyond the D-Bus properties.'''

    def __init__(self):
        self.reset()

    def reset(self):
        self.counters = {}
        self.connections = {}      # path -> {'settings': {...}, 'secrets': {...}}
        self.devices = {}          # path -> {'generation': int, 'lease': tuple or None, 'fail': reason or None}
        self.active = {}           # path -> {'connection', 'device', 'specific', 'ip4', 'dhcp4'}
        self.refusals = {}         # (method, path or '') -> [error name, message, remaining (-1 = until cleared)]
        self.calls = []
        self.step_ms = 2
        self.pinned_state = False

    def next_number(self, kind, first=1):
        number = self.counters.get(kind, first)
        self.counters[kind] = number + 1
        return number


# One instance, changed in place: every module holds the same object.
W = World()

CALL_LOG_LIMIT = 100000   # a benchmark makes many calls; keep the memory of the service bounded


def record_call(path, method, args):
    W.calls.append({'time': time.time(), 'path': str(path), 'method': method, 'args': plain(list(args))})
    if len(W.calls) > CALL_LOG_LIMIT:
        del W.calls[:len(W.calls) // 2]


def calls_json(method):
    '''The call log as JSON (all methods when empty); byte arrays become lists of numbers.'''
    return json.dumps([c for c in W.calls if not method or c['method'] == method], default=list)


def check_refusal(method, path):
    key = (method, str(path)) if (method, str(path)) in W.refusals else (method, '')
    refusal = W.refusals.get(key)
    if not refusal:
        return
    name, message, remaining = refusal
    if remaining > 0:
        refusal[2] -= 1
        if refusal[2] == 0:
            del W.refusals[key]
    raise dbus.exceptions.DBusException(message, name=name)


def entry(method):
    '''Wraps the implementation of a daemon method: logs the call, then applies any refusal.'''
    def decorate(function):
        def wrapper(self, *args):
            record_call(self.path, method, args)
            check_refusal(method, self.path)
            return function(self, *args)
        return wrapper
    return decorate
