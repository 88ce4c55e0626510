'''What the daemon asks ModemManager when it activates a modem: Modem.Simple.Connect with the profile's APN.
A refusal fails the activation with the reason the daemon gives for it.'''

import dbus

MM_BUS = 'org.freedesktop.ModemManager1'
MODEM_PREFIX = '/org/freedesktop/ModemManager1/Modem/'
SIMPLE_IFACE = MM_BUS + '.Modem.Simple'
# ModemManager's errors and the device state reasons the daemon turns them into.
REASONS = {
    MM_BUS + '.Error.MobileEquipment.GprsServiceOptionNotSubscribed': 29,   # GSM_APN_FAILED
    MM_BUS + '.Error.MobileEquipment.GprsMissingOrUnknownApn': 29,
}


def connect_refusal(modem, settings):
    '''The reason the activation fails with; None when ModemManager connects, or is not there to ask (asking
    an absent one would start it through the bus).'''
    if not str(modem).startswith(MODEM_PREFIX):
        return None
    bus = dbus.SystemBus()
    if not bus.name_has_owner(MM_BUS):
        return None
    apn = settings.get('gsm', {}).get('apn', '')
    try:
        bus.call_blocking(MM_BUS, str(modem), SIMPLE_IFACE, 'Connect', 'a{sv}',
                          [dbus.Dictionary({'apn': dbus.String(apn)}, signature='sv')], timeout=5)
    except dbus.exceptions.DBusException as error:
        return REASONS.get(error.get_dbus_name())
    return None
