'''Object paths, interface names and the daemon's numbering of device types, states and reasons.'''

NM = 'org.freedesktop.NetworkManager'
MANAGER_OBJ = '/org/freedesktop/NetworkManager'
SETTINGS_OBJ = '/org/freedesktop/NetworkManager/Settings'
SETTINGS_IFACE = NM + '.Settings'
CONNECTION_IFACE = NM + '.Settings.Connection'
DEVICE_IFACE = NM + '.Device'
WIRED_IFACE = NM + '.Device.Wired'
WIRELESS_IFACE = NM + '.Device.Wireless'
MODEM_IFACE = NM + '.Device.Modem'
GENERIC_IFACE = NM + '.Device.Generic'
STATISTICS_IFACE = NM + '.Device.Statistics'
AP_IFACE = NM + '.AccessPoint'
ACTIVE_IFACE = NM + '.Connection.Active'
IP4_IFACE = NM + '.IP4Config'
DHCP4_IFACE = NM + '.DHCP4Config'
NM_AP_PREFIX = '/org/freedesktop/NetworkManager/AccessPoint/'

TYPE_ETHERNET, TYPE_WIFI, TYPE_MODEM, TYPE_VETH = 1, 2, 8, 20
STATE_UNMANAGED, STATE_UNAVAILABLE, STATE_DISCONNECTED = 10, 20, 30
STATE_PREPARE, STATE_CONFIG, STATE_NEED_AUTH, STATE_IP_CONFIG = 40, 50, 60, 70
STATE_IP_CHECK, STATE_SECONDARIES, STATE_ACTIVATED = 80, 90, 100
STATE_DEACTIVATING, STATE_FAILED = 110, 120
REASON_NONE, REASON_USER_REQUESTED, REASON_NO_SECRETS = 0, 39, 7
REASON_CARRIER, REASON_REMOVED, REASON_NEW_ACTIVATION = 40, 36, 60
AC_ACTIVATING, AC_ACTIVATED, AC_DEACTIVATING, AC_DEACTIVATED = 1, 2, 3, 4

# Connection types and the device types that can carry them.
DEVICE_TYPE_OF_CONNECTION = {
    '802-3-ethernet': TYPE_ETHERNET,
    '802-11-wireless': TYPE_WIFI,
    'gsm': TYPE_MODEM,
    'cdma': TYPE_MODEM,
}
