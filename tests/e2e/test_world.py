'''The simulated world answers the way the real services do.

Checked through plain D-Bus calls, the MQTT test client, the process helper and,
when it is built, the nmprobe program that reads the world with NetworkManagerQt
and ModemManagerQt exactly as tarvik does.
'''

import json
import os
import subprocess

import dbus
import pytest

from conftest import probe_path
from world import dbus_settings, ethernet_profile, group_members, gsm_profile, ip4_to_u32, ipv4_setting, wifi_profile

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


def test_config_file_holds_the_broker_and_given_keys(world):
    t = world.tarvik(binary='/bin/true', config={'Wifi': {'ssid': 'Home Net', 'key': 'a,b'}, 'Modem/usageSec': 5})
    t.wait()
    with open(t.config_path) as f:
        text = f.read()
    assert text == ('[Mqtt]\nurl=127.0.0.1\nport=%d\nbase=tolv/network\n\n'
                    '[Wifi]\nssid="Home Net"\nkey="a,b"\n\n[Modem]\nusageSec=5\n' % world.broker.port)


# ---------------------------------------------------------------- seen through NetworkManagerQt

def run_probe(world, *args, timeout=20):
    path = probe_path('nmprobe')
    if path is None:
        pytest.skip('nmprobe is not built')
    env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=world.bus_address)
    result = subprocess.run([path, *args], env=env, capture_output=True, timeout=timeout, text=True)
    assert result.returncode == 0, result.stderr
    return json.loads(result.stdout)
