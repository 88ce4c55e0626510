'''Profiles as the simulated NetworkManager stores them (plain nested dicts, secrets included).'''

import dbus

def ipv4_setting(method='auto', address=None, prefix=24, gateway=None, dns=()):
    '''An ipv4 setting in the daemon's shape: legacy "addresses" and "address-data" together, dns as au.'''
    setting = {'method': method}
    if address:
        setting['addresses'] = [[address, prefix, gateway or '0.0.0.0']]
        setting['address-data'] = [{'address': address, 'prefix': dbus.UInt32(prefix)}]
        if gateway:
            setting['gateway'] = gateway
    if dns:
        setting['dns'] = list(dns)
    return setting


def ethernet_profile(id='Ethernet', autoconnect=True, ipv4=None, interface=None, uuid=None):
    connection = {'id': id, 'type': '802-3-ethernet', 'autoconnect': autoconnect,
                  'timestamp': dbus.UInt64(1700000000)}
    if uuid:
        connection['uuid'] = uuid
    if interface:
        connection['interface-name'] = interface
    return {'connection': connection, '802-3-ethernet': {},
            'ipv4': ipv4 or ipv4_setting(), 'ipv6': {'method': 'auto'}}


def wifi_profile(ssid, security='wpa-psk', key=None, id=None, autoconnect=True, ipv4=None, uuid=None,
                 interface=None):
    '''security: "none" (open), "wep" or "wpa-psk" (WPA1 and WPA2 personal).'''
    connection = {'id': id or ssid, 'type': '802-11-wireless', 'autoconnect': autoconnect,
                  'timestamp': dbus.UInt64(1700000000)}
    if uuid:
        connection['uuid'] = uuid
    if interface:
        connection['interface-name'] = interface
    profile = {'connection': connection, '802-11-wireless': {'ssid': ssid, 'mode': 'infrastructure'},
               'ipv4': ipv4 or ipv4_setting(), 'ipv6': {'method': 'ignore'}}
    if security == 'wpa-psk':
        profile['802-11-wireless']['security'] = '802-11-wireless-security'
        profile['802-11-wireless-security'] = {'key-mgmt': 'wpa-psk', **({'psk': key} if key else {})}
    elif security == 'wep':
        profile['802-11-wireless']['security'] = '802-11-wireless-security'
        profile['802-11-wireless-security'] = {'key-mgmt': 'none', 'wep-key-type': dbus.UInt32(2),
                                               **({'wep-key0': key} if key else {})}
    elif security != 'none':
        raise ValueError(f'unknown Wi-Fi security {security}')
    return profile


def gsm_profile(id='Broadband', apn='internet', username='', password='', pin='', network_id='',
                autoconnect=True, ipv4=None, uuid=None, number='*99#'):
    connection = {'id': id, 'type': 'gsm', 'autoconnect': autoconnect, 'timestamp': dbus.UInt64(1700000000)}
    if uuid:
        connection['uuid'] = uuid
    gsm = {'apn': apn, 'number': number, 'password-flags': dbus.UInt32(0), 'pin-flags': dbus.UInt32(0)}
    for key, value in (('username', username), ('password', password), ('pin', pin), ('network-id', network_id)):
        if value:
            gsm[key] = value
    return {'connection': connection, 'gsm': gsm, 'ipv4': ipv4 or ipv4_setting(), 'ipv6': {'method': 'auto'}}


# Access point security as the daemon's Flags/WpaFlags/RsnFlags (PSK with TKIP or CCMP).
AP_SECURITY = {
    'open': (0x0, 0x0, 0x0),
    'wep': (0x1, 0x0, 0x0),
    'wpa1': (0x1, 0x144, 0x0),
    'wpa2': (0x1, 0x0, 0x188),
    'wpa1-wpa2': (0x1, 0x144, 0x188),
    'wpa2-enterprise': (0x1, 0x0, 0x288),
}
