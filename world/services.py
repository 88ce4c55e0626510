'''The private system bus and the simulated NetworkManager and ModemManager on it.'''

import json
import os
import select
import subprocess

import dbus

from dbusvalues import dbus_props, dbus_settings, plain
from processes import kill_group, log_tail, spawn, wait_until
from profiles import AP_SECURITY

PYTHON = '/usr/bin/python3'
MOCK_IFACE = 'org.freedesktop.DBus.Mock'
NM_BUS = 'org.freedesktop.NetworkManager'
MM_BUS = 'org.freedesktop.ModemManager1'

BUS_CONFIG = '''<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path={socket}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_type="method_return"/>
    <allow send_type="error"/>
    <allow send_destination="*"/>
    <allow receive_type="method_call"/>
    <allow receive_type="signal"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_sender="*"/>
  </policy>
  <limit name="reply_timeout">60000</limit>
{service_dir}</busconfig>
'''


class Bus:
    '''A private dbus-daemon of type system on a path socket.'''

    def __init__(self, directory, service_dir=None):
        self.directory = directory
        self.service_dir = service_dir
        self.socket = os.path.join(directory, 'system_bus_socket')
        self.config_file = os.path.join(directory, 'system-bus.conf')
        self.proc = None
        self.address = None
        self.connection = None

    def start(self, timeout=10):
        with open(self.config_file, 'w') as f:
            f.write(BUS_CONFIG.format(socket=self.socket, service_dir=f'  <servicedir>{self.service_dir}</servicedir>\n'
                                      if self.service_dir else ''))
        self.proc = spawn(['dbus-daemon', f'--config-file={self.config_file}', '--nofork', '--print-address'],
                          stdout=subprocess.PIPE, stderr=open(os.path.join(self.directory, 'dbus-daemon.log'), 'wb'),
                          stdin=subprocess.DEVNULL)
        ready, _, _ = select.select([self.proc.stdout], [], [], timeout)
        if not ready:
            raise RuntimeError('dbus-daemon printed no address')
        self.address = self.proc.stdout.readline().decode().strip()
        if not self.address:
            raise RuntimeError('dbus-daemon exited: ' + self.log())
        self.connection = dbus.bus.BusConnection(self.address)

    def log(self):
        try:
            with open(os.path.join(self.directory, 'dbus-daemon.log')) as f:
                return f.read()
        except OSError:
            return ''

    def wait_for_name(self, name, proc, timeout=15, log_file=None):
        def owned():
            if proc.poll() is not None:
                raise RuntimeError(f'{name} exited with {proc.returncode} before taking its name'
                                   + log_tail(log_file))
            return self.connection.name_has_owner(name)
        wait_until(owned, timeout, f'{name} on the bus', interval=0.01)

    def stop(self):
        if self.connection is not None:
            try:
                self.connection.close()
            except Exception:  # noqa: BLE001
                pass
            self.connection = None
        kill_group(self.proc)
        self.proc = None


class MockService:
    '''One python-dbusmock process serving a template on the private bus.'''

    def __init__(self, bus, template, name, log_file, ready_call, parameters=None, call_log=True):
        self.ready_call = ready_call
        self.call_log = call_log
        self.bus = bus
        self.template = template
        self.name = name
        self.log_file = log_file
        self.parameters = parameters or {}
        self.proc = None

    def start(self):
        self.launch()
        self.wait_ready()

    def launch(self):
        # dbusmock writes a line for every call it serves; long benchmarks can send that to /dev/null.
        log = self.log_file if self.call_log else os.devnull
        cmd = [PYTHON, '-m', 'dbusmock', '--system', '-l', log, '--template', self.template]
        if self.parameters:
            cmd += ['--parameters', json.dumps(self.parameters)]
        env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=self.bus.address)
        env.pop('DBUS_SESSION_BUS_ADDRESS', None)
        self.proc = spawn(cmd, env=env, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                          stderr=open(self.log_file + '.stderr', 'wb'))

    def wait_ready(self):
        self.bus.wait_for_name(self.name, self.proc, log_file=self.log_file + '.stderr')
        wait_until(self._loaded, 15, f'{self.name} to load its template', interval=0.01)

    def _loaded(self):
        '''The name is taken before the template is loaded: wait until a call of the template answers.'''
        if self.proc.poll() is not None:
            raise RuntimeError(f'{self.name} exited with {self.proc.returncode}' + log_tail(self.log_file + '.stderr'))
        path, iface, method, args = self.ready_call
        try:
            self.bus.connection.call_blocking(self.name, path, iface, method, 's' * len(args), args, timeout=5)
            return True
        except dbus.exceptions.DBusException:
            return False

    def stop(self):
        kill_group(self.proc)
        self.proc = None


class SlowAnswers:
    '''Late and missing answers, for both simulated daemons.'''

    def delay(self, method, seconds, count=-1, path=''):
        '''The next count calls of method (any of the daemon's methods, Get and GetAll included; on the
        object path, or any when empty) are answered after seconds, or never when seconds is None;
        count -1 until clear_delays().'''
        self.mock.Delay(method, path, -1.0 if seconds is None else float(seconds), count)

    def clear_delays(self):
        self.mock.ClearDelays()


class NeverStartingService:
    '''A bus name the bus can activate whose program never takes it, as ModemManager installed but masked or
    skipped: the bus waits for it until its activation timeout. Every launch is counted.'''

    def __init__(self, directory, name):
        self.service_dir = os.path.join(directory, 'services')
        self.launch_file = os.path.join(directory, name + '.launches')
        os.makedirs(self.service_dir, exist_ok=True)
        program = os.path.join(directory, name + '-never-starts')
        with open(program, 'w') as f:
            f.write(f'#!/bin/sh\necho $$ >> {self.launch_file}\nexec sleep 600\n')
        os.chmod(program, 0o755)
        with open(os.path.join(self.service_dir, name + '.service'), 'w') as f:
            f.write(f'[D-BUS Service]\nName={name}\nExec={program}\n')

    def launches(self):
        try:
            with open(self.launch_file) as f:
                return [int(line) for line in f if line.strip()]
        except OSError:
            return []

    def stop(self):
        for pid in self.launches():
            try:
                os.kill(pid, 9)
            except OSError:
                pass


# ---------------------------------------------------------------- NetworkManager

class NetworkManager(SlowAnswers):
    '''Steers the simulated NetworkManager (w.nm).'''

    def __init__(self, bus):
        self.bus = bus
        self.mock = dbus.Interface(bus.connection.get_object(NM_BUS, '/org/freedesktop', introspect=False),
                                   MOCK_IFACE)
        self._macs = 0

    def _mac(self):
        self._macs += 1
        return '02:00:00:00:00:%02X' % self._macs

    # devices
    def add_ethernet(self, iface='eth0', mac=None, carrier=True, state=None, udi=''):
        if state is None:
            state = 30 if carrier else 20
        return str(self.mock.AddEthernetDevice(iface, mac or self._mac(), udi, carrier, state))

    def add_wifi(self, iface='wlan0', mac=None, state=30, udi=''):
        return str(self.mock.AddWifiDevice(iface, mac or self._mac(), udi, state))

    def add_modem(self, iface='cdc-wdm0', modem='/', ip_iface='wwan0', state=30, capabilities=4,
                  operator_code=''):
        '''A modem device; modem is the ModemManager modem path (the device's Udi).'''
        return str(self.mock.AddModemDevice(iface, modem, ip_iface, capabilities, state, operator_code))

    def add_device(self, iface, device_type, state=30, udi='', mac=''):
        return str(self.mock.AddGenericDevice(iface, device_type, state, udi, mac))

    def remove_device(self, device):
        self.mock.RemoveDevice(device)

    # access points
    def add_access_point(self, device, ssid, security=None, bssid=None, strength=70, frequency=2412,
                         max_bitrate=54000, mode=2, flags=None, wpa=0, rsn=0):
        '''security ("open", "wep", "wpa1", "wpa2", "wpa1-wpa2", "wpa2-enterprise") sets the three flag
        words; otherwise flags, wpa and rsn are taken as given (flags defaults to privacy when wpa or rsn).'''
        if security is not None:
            flags, wpa, rsn = AP_SECURITY[security]
        elif flags is None:
            flags = 1 if (wpa or rsn) else 0
        data = ssid.encode() if isinstance(ssid, str) else bytes(ssid)
        self._macs += 1
        bssid = bssid or 'AA:BB:CC:DD:EE:%02X' % self._macs
        return str(self.mock.AddAccessPoint(device, dbus.ByteArray(data), bssid, dbus.Byte(strength),
                                            frequency, max_bitrate, mode, flags, wpa, rsn))

    def add_access_points(self, device, networks):
        '''Many access points found in one scan, announced back to back in one call: networks are
        (ssid, security) pairs (security as for add_access_point). Returns their paths.'''
        found = []
        for ssid, security in networks:
            self._macs += 1
            flags, wpa, rsn = AP_SECURITY[security]
            found.append((dbus.ByteArray(ssid.encode()), '02:AB:%02X:%02X:%02X:%02X' % tuple(
                self._macs.to_bytes(4, 'big')), dbus.Byte(40 + self._macs % 60), flags, wpa, rsn))
        return [str(p) for p in self.mock.AddAccessPoints(device, dbus.Array(found, signature='(aysyuuu)'))]

    def remove_access_point(self, device, ap):
        self.mock.RemoveAccessPoint(device, ap)

    def set_ap_strength(self, ap, strength):
        self.set_properties(ap, 'org.freedesktop.NetworkManager.AccessPoint', {'Strength': dbus.Byte(strength)})

    # profiles
    def add_connection(self, settings, secrets=None):
        '''A saved profile (nested dicts as GetSettings returns them); secrets are merged in and stored apart.'''
        merged = {g: dict(v) for g, v in settings.items()}
        for group, values in (secrets or {}).items():
            merged.setdefault(group, {}).update(values)
        return str(self.mock.AddSavedConnection(dbus_settings(merged)))

    def remove_connection(self, connection):
        self.mock.RemoveSavedConnection(connection)

    def connections(self):
        return [str(p) for p in self._settings_proxy().ListConnections()]

    def find_connection(self, id):
        for path in self.connections():
            if self.connection_settings(path)['connection'].get('id') == id:
                return path
        return None

    def wait_for_connection(self, id, timeout=10):
        '''The path of the profile named id, once it exists.'''
        return wait_until(lambda: self.find_connection(id), timeout, f'a profile named {id!r}')

    def connection_settings(self, connection):
        '''The stored settings (without secrets), read without appearing in the call log.'''
        return plain(self.mock.PeekSettings(connection))

    def saved_settings(self, connection):
        '''The settings on "disk" (without secrets), None for a profile never saved; Update, Save and profiles
        made by tests are saved, UpdateUnsaved and AddConnectionUnsaved change only connection_settings().'''
        return plain(self.mock.PeekSavedSettings(connection)) or None

    def checkpoints(self):
        '''The daemon's checkpoints (the manager's Checkpoints property).'''
        return [str(p) for p in self.manager_property('Checkpoints')]

    def connection_secrets(self, connection, setting=None):
        '''The stored secrets (all settings, or the one named), read without appearing in the call log.'''
        secrets = plain(self.mock.PeekSecrets(connection))
        return secrets.get(setting, {}) if setting else secrets

    def get_secrets(self, connection, setting):
        '''The daemon's own GetSecrets call (it is logged like tarvik's).'''
        proxy = self.bus.connection.get_object(NM_BUS, connection, introspect=False)
        return plain(proxy.GetSecrets(setting, dbus_interface='org.freedesktop.NetworkManager.Settings.Connection'))

    def _settings_proxy(self):
        return dbus.Interface(self.bus.connection.get_object(NM_BUS, '/org/freedesktop/NetworkManager/Settings',
                                                             introspect=False),
                              'org.freedesktop.NetworkManager.Settings')

    # activation and state
    def activate(self, connection, device, ap='/', wait=True, instant=False, timeout=10):
        '''Activates a profile with the daemon's state sequence; returns the active connection path.'''
        active = str(self.mock.Activate(connection, device, ap, instant))
        if wait and not instant:
            wait_until(lambda: self.active_connection(device) == active and self.device_state(device) == 100,
                       timeout, f'{device} activated with {active}')
        return active

    def deactivate(self, device, reason=39, instant=False, wait=True, timeout=10):
        self.mock.Deactivate(device, reason, instant)
        if wait and not instant:
            self.wait_device_state(device, 30, timeout)

    def fail_next_activation(self, device, reason=5):
        self.mock.FailNextActivation(device, reason)

    def set_device_state(self, device, state, reason=0):
        self.mock.SetDeviceState(device, state, reason)

    def set_carrier(self, device, carrier, follow=True):
        '''Cable in or out; with follow the device state goes to 30 / 20 (an active connection ends).'''
        self.mock.SetCarrier(device, carrier, follow)

    def set_ip4_config(self, device, address, prefix=24, gateway='', dns=()):
        return str(self.mock.SetIp4Config(device, address, prefix, gateway, ','.join(dns)))

    def set_dhcp_lease(self, device, address, prefix=24, gateway='', dns=()):
        self.mock.SetDhcpLease(device, address, prefix, gateway, ','.join(dns))

    def set_status(self, state, connectivity=None):
        '''Pins the overall NetworkManager state (and connectivity); activations no longer change them.'''
        if connectivity is None:
            connectivity = self.manager_property('Connectivity')
        self.mock.SetGlobalState(state, connectivity)

    def set_connectivity(self, connectivity):
        self.mock.SetGlobalState(self.manager_property('State'), connectivity)

    def unpin_status(self):
        self.mock.UnpinGlobalState()

    def set_hostname(self, name):
        self.set_properties('/org/freedesktop/NetworkManager/Settings', 'org.freedesktop.NetworkManager.Settings',
                            {'Hostname': dbus.String(name)})

    def set_managed(self, device, managed):
        self.set_properties(device, 'org.freedesktop.NetworkManager.Device', {'Managed': dbus.Boolean(managed)})

    def set_interface_name(self, device, name):
        self.set_properties(device, 'org.freedesktop.NetworkManager.Device', {'Interface': dbus.String(name)})

    def set_properties(self, path, iface, props):
        '''Any property change, announced with org.freedesktop.DBus.Properties.PropertiesChanged.'''
        self.mock.SetProperties(path, iface, dbus_props(props))

    def set_step_delay(self, milliseconds):
        self.mock.SetStepDelay(milliseconds)

    # failures and the call log
    def refuse(self, method, error='org.freedesktop.NetworkManager.Failed', message='Refused by the test',
               count=1, path=''):
        '''The next count calls of method (Update, ActivateConnection, AddAndActivateConnection, GetSecrets,
        GetSettings, RequestScan, DeactivateConnection, Delete, AddConnection, Disconnect) fail with the
        D-Bus error; count -1 until clear_refusals(). With path, only calls on that object (a profile,
        a device; the manager is /org/freedesktop/NetworkManager) are refused.'''
        self.mock.Refuse(method, path, error, message, count)

    def clear_refusals(self):
        self.mock.ClearRefusals()

    def calls(self, method=''):
        '''Calls the daemon received: [{"time", "path", "method", "args"}] (byte arrays as lists).'''
        return json.loads(str(self.mock.CallLog(method)))

    def clear_calls(self):
        self.mock.ClearCallLog()

    def wait_for_call(self, method, count=1, timeout=10):
        return wait_until(lambda: (lambda c: c if len(c) >= count else None)(self.calls(method)), timeout,
                          f'{count} call(s) of {method}')

    # reading back
    def get(self, path, iface, name):
        proxy = self.bus.connection.get_object(NM_BUS, path, introspect=False)
        return plain(proxy.Get(iface, name, dbus_interface='org.freedesktop.DBus.Properties'))

    def manager_property(self, name):
        return self.get('/org/freedesktop/NetworkManager', 'org.freedesktop.NetworkManager', name)

    def device_state(self, device):
        return self.get(device, 'org.freedesktop.NetworkManager.Device', 'State')

    def active_connection(self, device):
        return self.get(device, 'org.freedesktop.NetworkManager.Device', 'ActiveConnection')

    def wait_device_state(self, device, state, timeout=10):
        wait_until(lambda: self.device_state(device) == state, timeout, f'{device} in state {state}')


# ---------------------------------------------------------------- ModemManager

class ModemManager(SlowAnswers):
    '''Steers the simulated ModemManager (w.mm).'''

    MODEM_IFACE = 'org.freedesktop.ModemManager1.Modem'

    def __init__(self, bus):
        self.bus = bus
        self.mock = dbus.Interface(bus.connection.get_object(MM_BUS, '/org/freedesktop/ModemManager1',
                                                             introspect=False), MOCK_IFACE)

    def add_modem(self, kind='gsm', **options):
        '''kind: "gsm" (3GPP + USSD), "lte", "ussd" (GSM capabilities, USSD only) or "cdma".
        Options: sim=True, bearer_interface="wwan0" ("" for none), signal=50, state=8, capabilities,
        manufacturer, model, revision, device_identifier, equipment_identifier, imei, operator_code,
        operator_name, meid, esn, sim_identifier, imsi, apn, announce=True.'''
        typed = {}
        for key, value in options.items():
            if isinstance(value, bool):
                typed[key] = dbus.Boolean(value)
            elif key == 'state':
                typed[key] = dbus.Int32(value)
            elif isinstance(value, int):
                typed[key] = dbus.UInt32(value)
            else:
                typed[key] = dbus.String(value)
        return str(self.mock.AddModem(kind, dbus.Dictionary(typed, signature='sv')))

    def remove_modem(self, modem):
        self.mock.RemoveModem(modem)

    def set_signal(self, modem, quality, recent=True):
        self.mock.SetSignal(modem, quality, recent)

    def set_state(self, modem, state, reason=1):
        self.mock.SetModemState(modem, state, reason)

    def set_properties(self, path, iface, props):
        self.mock.SetProperties(path, iface, dbus.Dictionary(props, signature='sv'))

    def get(self, path, iface, name):
        proxy = self.bus.connection.get_object(MM_BUS, path, introspect=False)
        return plain(proxy.Get(iface, name, dbus_interface='org.freedesktop.DBus.Properties'))
