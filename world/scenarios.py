'''Standard worlds built from the World API; tests combine the building blocks.

Every builder returns a plain namespace of the object paths it created, so that
a test can steer what it set up (w.nm.set_carrier(eth.device, False), ...).
'''

import os
from types import SimpleNamespace

from netcounters import write_counters
from profiles import ethernet_profile, gsm_profile, ipv4_setting, wifi_profile

# Access points of the demo: one of each security kind.
DEMO_APS = (
    # ssid, security, strength, frequency
    ('HomeNet', 'wpa2', 82, 2437),
    ('CafeOpen', 'open', 64, 2412),
    ('OldRouter', 'wep', 40, 2462),
    ('Office', 'wpa1-wpa2', 71, 5180),
)
DEMO_WIFI_KEY = 'homenet-secret'


def ethernet(world, iface='eth0', carrier=True, profile='Ethernet', autoconnect=True, active=False, ipv4=None,
             mac='00:11:22:33:44:55'):
    '''A wired device, optionally with a saved profile (active or not).'''
    device = world.nm.add_ethernet(iface, mac=mac, carrier=carrier)
    connection = active_connection = None
    if profile:
        connection = world.nm.add_connection(ethernet_profile(profile, autoconnect=autoconnect, ipv4=ipv4))
        if active:
            active_connection = world.nm.activate(connection, device, instant=True)
    return SimpleNamespace(device=device, connection=connection, active=active_connection)


def wifi(world, iface='wlan0', aps=DEMO_APS, profile_ssid=None, key=DEMO_WIFI_KEY, active=False, ipv4=None,
         mac='00:11:22:33:44:66'):
    '''A wireless device seeing the access points, optionally with a profile for one of them.'''
    device = world.nm.add_wifi(iface, mac=mac)
    access_points = {}
    for index, (ssid, security, strength, frequency) in enumerate(aps):
        access_points[ssid] = world.nm.add_access_point(device, ssid, security=security, strength=strength,
                                                        frequency=frequency,
                                                        bssid='AA:BB:CC:DD:EE:%02X' % (index + 1))
    connection = active_connection = None
    if profile_ssid:
        security = dict((s, sec) for s, sec, _, _ in aps).get(profile_ssid, 'wpa2')
        kind = {'open': 'none', 'wep': 'wep'}.get(security, 'wpa-psk')
        connection = world.nm.add_connection(wifi_profile(profile_ssid, security=kind,
                                                          key=None if kind == 'none' else key, ipv4=ipv4))
        if active:
            active_connection = world.nm.activate(connection, device, access_points.get(profile_ssid, '/'),
                                                  instant=True)
    return SimpleNamespace(device=device, aps=access_points, connection=connection, active=active_connection)


def modem(world, kind='gsm', iface='cdc-wdm0', bearer_interface='wwan0', signal=67, profile=None, active=False,
          apn='internet', username='', password='', pin='', network_id='', nm_device=True, **options):
    '''A ModemManager modem and, unless nm_device is False, its NetworkManager device (Udi = modem path).'''
    modem_path = world.mm.add_modem(kind, bearer_interface=bearer_interface, signal=signal, **options)
    device = connection = active_connection = None
    if nm_device:
        capabilities = {'cdma': 2, 'lte': 8}.get(kind, 4)
        device = world.nm.add_modem(iface, modem=modem_path, ip_iface=bearer_interface or iface,
                                    capabilities=capabilities)
    if profile:
        connection = world.nm.add_connection(gsm_profile(profile, apn=apn, username=username, password=password,
                                                         pin=pin, network_id=network_id))
        if active and device:
            active_connection = world.nm.activate(connection, device, instant=True)
    return SimpleNamespace(modem=modem_path, device=device, connection=connection, active=active_connection)


def demo(world):
    '''eth0 with carrier and a saved "Ethernet" profile; wlan0 seeing open, WEP, WPA2 and WPA1+WPA2
    networks, connected to HomeNet; a GSM modem with SIM, bearer wwan0 and signal 67, whose network accepts
    the APN "internet" only (any other fails its activation, as a wrong APN does).'''
    world.nm.add_device('lo', 32, state=10, udi='/sys/devices/virtual/net/lo')
    eth = ethernet(world)
    wlan = wifi(world, profile_ssid='HomeNet', active=True)
    gsm = modem(world, 'gsm', apns='internet')
    return SimpleNamespace(ethernet=eth, wifi=wlan, modem=gsm)


def empty(world):
    '''NetworkManager and ModemManager without any device.'''
    return SimpleNamespace()


def demo_changes(world, built):
    '''What happens in the demo world as time goes by, one step at a time, for ever: the modem's
    signal drifts, a neighbour's access point comes and goes, the cable is pulled and plugged back, and
    the modem's data port moves 0.8 MB a step (counters in <world>/sys-class-net, for the demo to show
    tarvik as /sys/class/net).'''
    neighbour = None
    net_dir = os.path.join(world.directory, 'sys-class-net')
    signals = (71, 58, 49, 63, 80, 67)
    step = 0
    while True:
        if step % 2 == 0:
            world.mm.set_signal(built.modem.modem, signals[(step // 2) % len(signals)])
        elif step % 8 == 1:
            neighbour = world.nm.add_access_point(built.wifi.device, 'Neighbour', security='wpa2', strength=35,
                                                  frequency=2462, bssid='AA:BB:CC:DD:EE:20')
        elif step % 8 == 5 and neighbour:
            world.nm.remove_access_point(built.wifi.device, neighbour)
            neighbour = None
        elif step % 8 == 3:
            world.nm.set_carrier(built.ethernet.device, False)
        elif step % 8 == 7:
            world.nm.set_carrier(built.ethernet.device, True)
        step += 1
        write_counters(net_dir, 'wwan0', step * 700_000, step * 100_000)
        yield


SCENARIOS = {'demo': demo, 'empty': empty}
CHANGES = {'demo': demo_changes}

# Configuration that goes with a scenario (besides the broker settings of the world).
CONFIGS = {
    # A budget small enough for its warnings to show within a minute of the demo; the gateway announced to
    # Home Assistant.
    'demo': {'Wifi': {'ssid': 'HomeNet', 'key': DEMO_WIFI_KEY}, 'Modem': {'limitMB': 5, 'usageSec': 10},
             'HomeAssistant': {'enabled': 'true'}},
}

__all__ = ['ethernet', 'wifi', 'modem', 'demo', 'empty', 'SCENARIOS', 'CHANGES', 'CONFIGS', 'ipv4_setting']
