'''The simulated world answers the way the real services do.

Checked through plain D-Bus calls, the MQTT test client, the process helper and,
when it is built, the nmprobe program that reads the world with NetworkManagerQt
and ModemManagerQt exactly as tarvik does.
'''

import json
import os
import subprocess
import threading

import dbus
import pytest

from conftest import probe_path
import scenarios
from world import (dbus_settings, ethernet_profile, group_members, gsm_profile, ip4_to_u32, ipv4_setting, kill_group,
                   spawn, wifi_profile)

NM = 'org.freedesktop.NetworkManager'
CONNECTION = NM + '.Settings.Connection'


def call(world, path, iface, method, *args, bus=NM):
    proxy = world.bus.connection.get_object(bus, path, introspect=False)
    return getattr(proxy, method)(*args, dbus_interface=iface)


# ---------------------------------------------------------------- services on the private bus

def test_services_own_their_names_and_report_version(world):
    assert world.bus.connection.name_has_owner(NM)
    assert world.bus.connection.name_has_owner('org.freedesktop.ModemManager1')
    assert world.nm.manager_property('Version') == '1.42.4'
    assert world.bus_address.startswith('unix:path=' + world.directory)


def test_secrets_are_kept_apart_from_settings(world):
    wpa = world.nm.add_connection(wifi_profile('HomeNet', key='secret-1'))
    wep = world.nm.add_connection(wifi_profile('OldRouter', security='wep', key='wepkey'))
    open_wifi = world.nm.add_connection(wifi_profile('Cafe', security='none'))
    wired = world.nm.add_connection(ethernet_profile())
    gsm = world.nm.add_connection(gsm_profile(password='pw', pin='1234'))

    settings = call(world, wpa, CONNECTION, 'GetSettings')
    assert 'psk' not in settings['802-11-wireless-security']
    assert 'password' not in call(world, gsm, CONNECTION, 'GetSettings')['gsm']
    assert 'wep-key0' not in call(world, wep, CONNECTION, 'GetSettings')['802-11-wireless-security']

    assert world.nm.get_secrets(wpa, '802-11-wireless-security') == {
        'connection': {}, '802-11-wireless': {}, '802-11-wireless-security': {'psk': 'secret-1'},
        'ipv4': {}, 'ipv6': {}}
    assert world.nm.get_secrets(wep, '802-11-wireless-security')['802-11-wireless-security'] == {'wep-key0': 'wepkey'}
    assert world.nm.get_secrets(gsm, 'gsm')['gsm'] == {'password': 'pw', 'pin': '1234'}
    for path in (open_wifi, wired):
        with pytest.raises(dbus.exceptions.DBusException) as error:
            world.nm.get_secrets(path, '802-11-wireless-security')
        assert error.value.get_dbus_name() == CONNECTION + '.SettingNotFound'


def test_ipv4_settings_carry_legacy_and_new_address_forms(world):
    profile = ethernet_profile(ipv4=ipv4_setting('manual', '192.168.7.20', 24, '192.168.7.1', ['1.1.1.1', '8.8.8.8']))
    path = world.nm.add_connection(profile)
    ipv4 = call(world, path, CONNECTION, 'GetSettings')['ipv4']
    assert ipv4['addresses'].signature == 'au'
    assert [list(map(int, a)) for a in ipv4['addresses']] == [
        [ip4_to_u32('192.168.7.20'), 24, ip4_to_u32('192.168.7.1')]]
    assert [dict(d) for d in ipv4['address-data']] == [{'address': '192.168.7.20', 'prefix': 24}]
    assert ipv4['dns'].signature == 'u'
    assert list(map(int, ipv4['dns'])) == [ip4_to_u32('1.1.1.1'), ip4_to_u32('8.8.8.8')]


def test_update_stores_settings_and_keeps_or_replaces_secrets(world):
    path = world.nm.add_connection(wifi_profile('HomeNet', key='old-key'))
    new = wifi_profile('HomeNet', key=None, autoconnect=False)
    call(world, path, CONNECTION, 'Update', world_settings(new))
    assert world.nm.connection_settings(path)['connection']['autoconnect'] is False
    assert world.nm.connection_secrets(path, '802-11-wireless-security') == {'psk': 'old-key'}

    call(world, path, CONNECTION, 'Update', world_settings(wifi_profile('HomeNet', key='new-key')))
    assert world.nm.get_secrets(path, '802-11-wireless-security')['802-11-wireless-security'] == {'psk': 'new-key'}
    assert [c['method'] for c in world.nm.calls('Update')] == ['Update', 'Update']


def world_settings(profile):
    return dbus_settings(profile)


def test_refusals_fail_the_next_call_with_the_chosen_error(world):
    path = world.nm.add_connection(ethernet_profile())
    world.nm.refuse('Update', CONNECTION + '.PermissionDenied', 'not allowed', count=1)
    with pytest.raises(dbus.exceptions.DBusException) as error:
        call(world, path, CONNECTION, 'Update', world_settings(ethernet_profile(autoconnect=False)))
    assert error.value.get_dbus_name() == CONNECTION + '.PermissionDenied'
    assert error.value.get_dbus_message() == 'not allowed'
    call(world, path, CONNECTION, 'Update', world_settings(ethernet_profile(autoconnect=False)))

    other = world.nm.add_connection(ethernet_profile('Other'))
    world.nm.refuse('GetSecrets', CONNECTION + '.Failed', 'no agent', count=-1, path=other)
    assert world.nm.get_secrets(path, 'connection') == {'connection': {}, '802-3-ethernet': {}, 'ipv4': {}, 'ipv6': {}}
    for _ in range(2):
        with pytest.raises(dbus.exceptions.DBusException):
            world.nm.get_secrets(other, 'connection')
    world.nm.clear_refusals()
    world.nm.get_secrets(other, 'connection')


def test_activation_reaches_activated_with_ip_configuration(world):
    device = world.nm.add_ethernet('eth0')
    profile = world.nm.add_connection(ethernet_profile())
    world.nm.set_dhcp_lease(device, '10.1.2.3', 16, '10.1.0.1', ['10.1.0.53'])
    active = call(world, '/org/freedesktop/NetworkManager', NM, 'ActivateConnection', profile, device, '/')
    world.nm.wait_device_state(device, 100, timeout=5)
    assert world.nm.active_connection(device) == active
    assert world.nm.manager_property('PrimaryConnection') == active
    assert world.nm.manager_property('State') == 70
    ip4 = world.nm.get(device, NM + '.Device', 'Ip4Config')
    assert world.nm.get(ip4, NM + '.IP4Config', 'AddressData') == [{'address': '10.1.2.3', 'prefix': 16}]
    assert world.nm.get(ip4, NM + '.IP4Config', 'Gateway') == '10.1.0.1'
    assert world.nm.get(ip4, NM + '.IP4Config', 'Nameservers') == [ip4_to_u32('10.1.0.53')]


def test_unknown_connection_type_and_missing_carrier_are_refused(world):
    device = world.nm.add_ethernet('eth0', carrier=False)
    manager = '/org/freedesktop/NetworkManager'
    with pytest.raises(dbus.exceptions.DBusException) as error:
        call(world, manager, NM, 'AddAndActivateConnection',
             dbus.Dictionary({'connection': dbus.Dictionary({'id': 'unknown', 'type': ''}, signature='sv')},
                             signature='sa{sv}'), dbus.ObjectPath(device), dbus.ObjectPath('/'))
    assert error.value.get_dbus_name() == CONNECTION + '.MissingProperty'
    with pytest.raises(dbus.exceptions.DBusException) as error:
        call(world, manager, NM, 'AddAndActivateConnection', world_settings(ethernet_profile()),
             dbus.ObjectPath(device), dbus.ObjectPath('/'))
    assert error.value.get_dbus_name() == NM + '.UnknownConnection'
    assert 'no carrier' in error.value.get_dbus_message()


# ---------------------------------------------------------------- broker and MQTT client

def test_broker_keeps_retained_messages_and_restarts_on_its_port(world):
    publisher = world.mqtt()
    publisher.publish('tolv/network/status', {'state': 70}, qos=2, retain=True)
    late = world.mqtt(subscribe='tolv/network/#')
    message = late.wait_for('tolv/network/status', timeout=5)
    assert (message.json, message.qos, message.retain) == ({'state': 70}, 2, True)

    port = world.broker.port
    world.broker.restart()
    assert world.broker.port == port
    again = world.mqtt(subscribe='#')
    again.command('status/get', {'x': 1})
    assert again.wait_for('tolv/network/status/get', timeout=5).json == {'x': 1}
    assert again.count('tolv/network/status/get') == 1


def test_silent_listener_accepts_and_never_answers(world):
    import socket
    listener = world.silent_listener()
    with socket.create_connection(('127.0.0.1', listener.port), timeout=2) as s:
        s.sendall(b'\x10\x0c\x00\x04MQTT\x04\x02\x00\x3c\x00\x00')
        s.settimeout(0.3)
        with pytest.raises(socket.timeout):
            s.recv(1)


@pytest.mark.parametrize('world', [{'broker_users': {'tarvik': 'right'}}], indirect=True)
def test_broker_with_password_file_refuses_wrong_password(world):
    world.mqtt(username='tarvik', password='right')
    with pytest.raises(ConnectionError):
        world.mqtt(username='tarvik', password='wrong')


# ---------------------------------------------------------------- the process helper

def test_process_helper_reads_log_lines_private_tmp_and_fake_time(world):
    script = 'echo "first line" >&2; echo snapshot > /tmp/modem-snapshot.ini; date -u +%Y >&2; sleep 60'
    t = world.tarvik(binary='/bin/sh', args=['-c', script], private_tmp=True, faketime='@2031-01-31 23:59:50')
    assert t.wait_for_log(r'^first line$', timeout=5)
    assert t.wait_for_log(r'^2031$', timeout=5)
    with open(t.tmp_file('modem-snapshot.ini')) as f:
        assert f.read() == 'snapshot\n'
    assert not os.path.exists('/tmp/modem-snapshot.ini') or open('/tmp/modem-snapshot.ini').read() != 'snapshot\n'
    pid = t.proc.pid
    t.stop()
    assert group_members(pid) == []


def test_process_helper_controls_interface_counters(world):
    stats = '/sys/class/net/wwan0/statistics'
    script = (f'cat {stats}/rx_bytes >&2; while [ "$(cat {stats}/tx_bytes)" = 2000 ]; do sleep 0.01; done; '
              f'cat {stats}/tx_bytes >&2')
    t = world.tarvik(binary='/bin/sh', args=['-c', script], net_counters={'wwan0': (1000, 2000)})
    assert t.wait_for_log(r'^1000$', timeout=5)
    t.set_counters('wwan0', 1500, 4096)
    assert t.wait_for_log(r'^4096$', timeout=5)


def test_process_helper_captures_syslog_in_a_private_dev(world):
    script = ('import syslog, os\n'
              'syslog.openlog("tarvik", syslog.LOG_PID, syslog.LOG_LOCAL1)\n'
              'syslog.syslog(syslog.LOG_WARNING, "Config file not found: x.")\n'
              'open("/dev/null", "w").write("ignored")\n'
              'syslog.syslog(syslog.LOG_DEBUG, "done " + str(sorted(os.listdir("/dev"))))\n')
    t = world.tarvik(binary='/usr/bin/python3', args=['-c', script])
    assert t.wait() == 0
    warning = t.wait_for_syslog(r'^Config file not found: x\.$', timeout=5)
    assert (warning.priority, warning.facility, warning.ident, warning.pid) == (4, 17, 'tarvik', t.proc.pid)
    done = t.wait_for_syslog(r'^done ', timeout=5)
    assert done.priority == 7 and "'log'" in done.message and "'null'" in done.message


def test_config_file_holds_the_broker_and_given_keys(world):
    t = world.tarvik(binary='/bin/true', config={'Wifi': {'ssid': 'Home Net', 'key': 'a,b'}, 'Modem/usageSec': 5})
    t.wait()
    with open(t.config_path) as f:
        text = f.read()
    assert text == ('[Mqtt]\nurl=127.0.0.1\nport=%d\nbase=tolv/network\n\n'
                    '[Wifi]\nssid="Home Net"\nkey="a,b"\n\n[Modem]\nusageSec=5\n' % world.broker.port)


# ---------------------------------------------------------------- seen through NetworkManagerQt

def probe_or_skip():
    path = probe_path('nmprobe')
    if path is None:
        pytest.skip('nmprobe is not built')
    return path


def run_probe(world, *args, timeout=20):
    env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=world.bus_address)
    result = subprocess.run([probe_or_skip(), *args], env=env, capture_output=True, timeout=timeout, text=True)
    assert result.returncode == 0, result.stderr
    return json.loads(result.stdout)


class ProbeWatch:
    """nmprobe watch: the library signals as they arrive, one JSON object per line."""

    def __init__(self, world, seconds=60):
        env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=world.bus_address)
        self.proc = spawn([probe_or_skip(), 'watch', str(seconds)], env=env, stdout=subprocess.PIPE,
                          stdin=subprocess.DEVNULL, text=True)
        self.events = []
        self._returned = set()
        self._cond = threading.Condition()
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()
        self.next('ready')

    def _read(self):
        for line in self.proc.stdout:
            with self._cond:
                self.events.append(json.loads(line))
                self._cond.notify_all()

    def next(self, name, timeout=10, **fields):
        """The next event of the name whose fields match, not returned before."""
        def find():
            for index, event in enumerate(self.events):
                if index not in self._returned and event['event'] == name and \
                        all(event.get(k) == v for k, v in fields.items()):
                    self._returned.add(index)
                    return event
            return None
        with self._cond:
            event = self._cond.wait_for(find, timeout)
        assert event is not None, f'no {name} {fields} within {timeout} s; got {self.events}'
        return event

    def all(self, name, **fields):
        with self._cond:
            return [e for e in self.events if e['event'] == name and all(e.get(k) == v for k, v in fields.items())]

    def stop(self):
        kill_group(self.proc)


@pytest.fixture
def watch(world):
    w = None

    def start():
        nonlocal w
        w = ProbeWatch(world)
        return w
    yield start
    if w is not None:
        w.stop()


def by(items, key):
    return {item[key]: item for item in items}


def test_libraries_read_the_demo_world(demo_world):
    snap = run_probe(demo_world, 'snapshot')
    assert (snap['version'], snap['hostname'], snap['status'], snap['connectivity']) == ('1.42.4', 'tarvik-test', 7, 4)
    devices = by(snap['devices'], 'interface')
    assert [d['interface'] for d in snap['devices']] == ['lo', 'eth0', 'wlan0', 'cdc-wdm0']
    eth, wlan, modem = devices['eth0'], devices['wlan0'], devices['cdc-wdm0']
    assert (eth['type'], eth['state'], eth['carrier'], eth['mac']) == (1, 30, True, '00:11:22:33:44:55')
    assert eth['availableConnections'] == ['Ethernet'] and eth['activeConnection'] is None

    assert (wlan['type'], wlan['state'], wlan['active']) == (2, 100, True)
    aps = by(wlan['accessPoints'], 'ssid')
    assert {s: (a['capabilities'], a['wpaFlags'], a['rsnFlags']) for s, a in aps.items()} == {
        'HomeNet': (1, 0, 0x188), 'CafeOpen': (0, 0, 0), 'OldRouter': (1, 0, 0), 'Office': (1, 0x144, 0x188)}
    assert (aps['HomeNet']['frequency'], aps['HomeNet']['signalStrength'], aps['HomeNet']['hardwareAddress']) == \
        (2437, 82, 'AA:BB:CC:DD:EE:01')
    assert wlan['activeAccessPoint']['ssid'] == 'HomeNet'
    assert sorted((n['ssid'], n['signalStrength'], n['device'], n['referenceAP']['ssid']) for n in wlan['networks']) == [
        ('CafeOpen', 64, 'wlan0', 'CafeOpen'), ('HomeNet', 82, 'wlan0', 'HomeNet'),
        ('Office', 71, 'wlan0', 'Office'), ('OldRouter', 40, 'wlan0', 'OldRouter')]
    expected_ip = {'addresses': [{'ip': '192.168.2.103', 'netmask': '255.255.255.0', 'gateway': ''}],
                   'gateway': '192.168.2.1', 'nameservers': ['192.168.2.1']}
    assert wlan['ipv4'] == expected_ip
    assert wlan['activeConnection']['ipv4'] == expected_ip
    assert (wlan['dhcp4']['ip_address'], wlan['dhcp4']['routers'], eth['dhcp4']) == ('192.168.2.103', '192.168.2.1', {})
    assert snap['primaryConnection']['connection'] == 'HomeNet' and snap['primaryConnection']['state'] == 2

    assert (modem['type'], modem['udi'], modem['modemFound']) == (8, '/org/freedesktop/ModemManager1/Modem/0', True)
    [mm] = snap['modems']
    assert (mm['isGsm'], mm['isCdma'], mm['hasGsm'], mm['hasUssd'], mm['hasCdma']) == (True, False, True, True, False)
    assert mm['modem']['bearers'] == ['wwan0'] and mm['modem']['signal'] == 67
    assert mm['sim'] == {'imsi': '242010000000001', 'id': '89470000000000000001',
                         'uni': '/org/freedesktop/ModemManager1/SIM/0'}
    assert mm['gsm'] == {'imei': '359072061234567', 'operatorCode': '24201', 'operatorName': 'Telenor'}

    profiles = by(snap['connections'], 'name')
    assert profiles['HomeNet']['settings']['ssid'] == 'HomeNet'
    assert profiles['HomeNet']['wifiSecrets']['map'] == {
        'connection': {}, '802-11-wireless': {}, '802-11-wireless-security': {'psk': 'homenet-secret'},
        'ipv4': {}, 'ipv6': {}}
    assert profiles['Ethernet']['wifiSecrets']['error'] == CONNECTION + '.SettingNotFound'


def test_modem_kinds_as_modemmanagerqt_sees_them(world):
    ussd = world.mm.add_modem('ussd')
    cdma = world.mm.add_modem('cdma', meid='A100000DEADBEE', esn='8BADF00D')
    bare = world.mm.add_modem('gsm', sim=False, bearer_interface='')
    gsm = scenarios.modem(world, 'gsm', profile='Broadband', password='pw', pin='1234')
    snap = run_probe(world, 'snapshot')
    modems = by(snap['modems'], 'uni')
    # ModemManagerQt 5.103 decides isGsmModem() by the 3GPP interface alone, not by the capabilities.
    assert modems[ussd]['modem']['capabilities'] == 4
    assert (modems[ussd]['isGsm'], modems[ussd]['hasGsm'], modems[ussd]['hasUssd']) == (False, False, True)
    assert 'gsm' not in modems[ussd]
    assert (modems[cdma]['isGsm'], modems[cdma]['isCdma'], modems[cdma]['hasCdma']) == (False, True, True)
    assert modems[cdma]['cdma'] == {'meid': 'A100000DEADBEE', 'esn': '8BADF00D'}
    # Without a SIM the library still hands out a Sim object, on the path "/" and with empty texts.
    assert modems[bare]['sim'] == {'imsi': '', 'id': '', 'uni': '/'}
    assert modems[bare]['modem']['bearers'] == []
    [profile] = snap['connections']
    assert profile['settings']['gsm']['apn'] == 'internet' and profile['settings']['gsm']['password'] == ''
    assert profile['gsmSecrets']['map']['gsm'] == {'password': 'pw', 'pin': '1234'}
    assert by(snap['devices'], 'interface')['cdc-wdm0']['udi'] == gsm.modem


def test_activation_and_changes_reach_the_library_as_signals(demo_world, watch):
    w, scene = demo_world, demo_world.scenario
    probe = watch()
    w.nm.activate(scene.ethernet.connection, scene.ethernet.device)
    steps = [(40, 30), (50, 40), (70, 50), (80, 70), (90, 80), (100, 90)]
    for new, old in steps:
        probe.next('stateChanged', device='eth0', new=new, old=old, reason=0)
    assert len(probe.all('stateChanged', device='eth0')) == len(steps)
    assert probe.next('primaryConnectionChanged')['active']['connection'] == 'Ethernet'

    w.nm.activate(scene.wifi.connection, scene.wifi.device, scene.wifi.aps['HomeNet'])
    for new, old, reason in [(110, 100, 60), (30, 110, 60), (40, 30, 0), (100, 90, 0)]:
        probe.next('stateChanged', device='wlan0', new=new, old=old, reason=reason)

    w.mm.set_signal(scene.modem.modem, 80)
    assert probe.next('signalQualityChanged')['signal'] == 80
    w.nm.add_access_point(scene.wifi.device, 'Guest', security='open', strength=55)
    assert probe.next('accessPointAppeared')['ap']['ssid'] == 'Guest'
    probe.next('networkAppeared', ssid='Guest')
    w.nm.set_carrier(scene.ethernet.device, False)
    probe.next('carrierChanged', device='eth0', carrier=False)
    probe.next('stateChanged', device='eth0', new=20, old=100, reason=40)
    probe.next('primaryConnectionChanged')
    w.nm.set_managed(scene.wifi.device, False)
    probe.next('managedChanged', device='wlan0', managed=False)
    w.nm.set_interface_name(scene.ethernet.device, 'eth9')
    probe.next('interfaceNameChanged', device='eth9')

    plugged = w.mm.add_modem('cdma')
    assert probe.next('modemAdded', uni=plugged)['modem']['cdma']['esn'] == '80D5D26C'
    w.nm.add_modem('cdc-wdm1', modem=plugged, capabilities=2)
    assert probe.next('deviceAdded', device='cdc-wdm1')['modemFound'] is True
    w.nm.remove_device(scene.modem.device)
    probe.next('deviceRemoved', path=scene.modem.device)
    w.mm.remove_modem(plugged)
    probe.next('modemRemoved', uni=plugged)


def test_failed_and_ended_activations_walk_the_daemons_states(world, watch):
    wlan = scenarios.wifi(world, profile_ssid=None)
    keyless = world.nm.add_connection(wifi_profile('HomeNet', key=None))
    eth = scenarios.ethernet(world)
    probe = watch()
    world.nm.activate(keyless, wlan.device, wlan.aps['HomeNet'], wait=False)
    for new, old, reason in [(40, 30, 0), (50, 40, 0), (60, 50, 0), (120, 60, 7), (30, 120, 7)]:
        probe.next('stateChanged', device='wlan0', new=new, old=old, reason=reason)

    world.nm.fail_next_activation(eth.device, reason=5)
    world.nm.activate(eth.connection, eth.device, wait=False)
    for new, old, reason in [(70, 50, 0), (120, 70, 5), (30, 120, 5)]:
        probe.next('stateChanged', device='eth0', new=new, old=old, reason=reason)
    assert world.nm.manager_property('ActiveConnections') == []

    world.nm.activate(eth.connection, eth.device)
    world.nm.deactivate(eth.device)
    for new, old, reason in [(110, 100, 39), (30, 110, 39)]:
        probe.next('stateChanged', device='eth0', new=new, old=old, reason=reason)
    assert (world.nm.manager_property('PrimaryConnection'), world.nm.manager_property('State')) == ('/', 20)


def test_command_line_world_runs_until_terminated(tmp_path):
    config = tmp_path / 'tarvik.conf'
    proc = spawn(['/usr/bin/python3', os.path.join(os.path.dirname(scenarios.__file__), 'world.py'),
                  '--scenario', 'demo', '--config-out', str(config)], stdout=subprocess.PIPE, text=True)
    try:
        lines = dict(proc.stdout.readline().strip().split('=', 1) for _ in range(3))
        assert lines['DBUS_SYSTEM_BUS_ADDRESS'].startswith('unix:path=' + lines['WORLD_DIR'])
        text = config.read_text()
        assert f"port={lines['MQTT_PORT']}\n" in text and 'ssid=HomeNet\n' in text
        proc.send_signal(15)
        assert proc.wait(20) == 0
        assert not os.path.exists(lines['WORLD_DIR'])
        assert not [pid for pid in os.listdir('/proc') if pid.isdigit() and lines['WORLD_DIR'] in cmdline(pid)]
    finally:
        kill_group(proc)


def cmdline(pid):
    try:
        with open(f'/proc/{pid}/cmdline', 'rb') as f:
            return f.read().decode(errors='replace')
    except OSError:
        return ''


def test_library_calls_reach_the_simulation(demo_world):
    w, scene = demo_world, demo_world.scenario
    uuid = w.nm.connection_settings(scene.ethernet.connection)['connection']['uuid']
    result = run_probe(w, 'activate', uuid, 'eth0')
    assert result['valid'] is True
    w.nm.wait_device_state(scene.ethernet.device, 100)
    assert w.nm.calls('ActivateConnection')[0]['args'] == [scene.ethernet.connection, scene.ethernet.device, '/']

    refused = run_probe(w, 'add-activate-unknown', 'eth0')
    assert (refused['valid'], refused['error'], refused['message']) == (
        False, CONNECTION + '.MissingProperty', 'connection.type: property is missing')

    updated = run_probe(w, 'update-manual', uuid, '192.168.5.5', '24', '192.168.5.1', '9.9.9.9')
    assert updated['valid'] is True
    assert updated['readBack']['ipv4'] == {'method': 2, 'dns': ['9.9.9.9'], 'addresses': [
        {'ip': '192.168.5.5', 'netmask': '255.255.255.0', 'gateway': '192.168.5.1'}]}
    assert w.nm.connection_settings(scene.ethernet.connection)['ipv4']['address-data'] == [
        {'address': '192.168.5.5', 'prefix': 24}]

    wifi = run_probe(w, 'provision-wifi', 'wlan0', 'Office', scene.wifi.aps['Office'], 'office-key')
    assert wifi['valid'] is True
    w.nm.wait_device_state(scene.wifi.device, 100)
    assert w.nm.get(scene.wifi.device, NM + '.Device.Wireless', 'ActiveAccessPoint') == scene.wifi.aps['Office']
    stored = w.nm.connection_settings(wifi['connection'])
    assert (stored['802-11-wireless']['ssid'], stored['802-11-wireless-security']) == (b'Office', {'key-mgmt': 'wpa-psk'})
    assert w.nm.connection_secrets(wifi['connection']) == {'802-11-wireless-security': {'psk': 'office-key'}}
    gsm = run_probe(w, 'provision-gsm', 'cdc-wdm0', 'Broadband', 'internet.example', 'user', 'pw', '1234')
    assert gsm['valid'] is True
    w.nm.wait_device_state(scene.modem.device, 100)
    assert w.nm.get(scene.modem.device, NM + '.Device', 'IpInterface') == 'wwan0'
    assert w.nm.connection_settings(gsm['connection'])['gsm'] == {
        'apn': 'internet.example', 'number': '*99#', 'username': 'user', 'password-flags': 0, 'pin-flags': 0}
    assert w.nm.get_secrets(gsm['connection'], 'gsm')['gsm'] == {'password': 'pw', 'pin': '1234'}

    w.nm.refuse('RequestScan', NM + '.Device.NotAllowed', 'Scanning not allowed immediately following previous scan')
    assert run_probe(w, 'scan', 'wlan0') == {
        'valid': False, 'error': NM + '.Device.NotAllowed',
        'message': 'Scanning not allowed immediately following previous scan'}
    assert run_probe(w, 'scan', 'wlan0')['valid'] is True
    assert len(w.nm.calls('RequestScan')) == 2
