'''The simulated ModemManager 1.20: modems under /org/freedesktop/ModemManager1/Modem/N with their
SIM and bearer objects, and the test control API on org.freedesktop.DBus.Mock at
/org/freedesktop/ModemManager1.

The object manager lists the modems and announces a new one only once all of its interfaces
exist. Every property carries the D-Bus type of the real daemon, because ModemManagerQt reads
them one Get at a time.
'''

import dbus
import dbusmock
from dbusmock import MOCK_IFACE

from . import mockbus
from .mockbus import OBJECT_MANAGER_IFACE, add_object, emit_object_added, emit_object_removed, obj, \
    set_props, strings, u32
from .mockbus import ClearDelays, Delay, SetProperties  # noqa: F401  (served by the template, see __all__)

MM = 'org.freedesktop.ModemManager1'
ROOT_OBJ = '/org/freedesktop/ModemManager1'
MODEM_IFACE = MM + '.Modem'
SIMPLE_IFACE = MM + '.Modem.Simple'
GSM_IFACE = MM + '.Modem.Modem3gpp'
USSD_IFACE = MM + '.Modem.Modem3gpp.Ussd'
CDMA_IFACE = MM + '.Modem.ModemCdma'
SIM_IFACE = MM + '.Sim'
BEARER_IFACE = MM + '.Bearer'
MODEM_PREFIX = ROOT_OBJ + '/Modem/'

CAPABILITY_CDMA, CAPABILITY_GSM, CAPABILITY_LTE = 2, 4, 8
KINDS = {
    # kind: (capabilities, interfaces besides the modem interface)
    'gsm': (CAPABILITY_GSM, (GSM_IFACE, USSD_IFACE)),
    'lte': (CAPABILITY_LTE, (GSM_IFACE, USSD_IFACE)),
    'ussd': (CAPABILITY_GSM, (USSD_IFACE,)),
    'cdma': (CAPABILITY_CDMA, (CDMA_IFACE,)),
}

COUNTERS = {}
# modem path -> the APNs its network accepts (empty: any)
ACCEPTED_APNS = {}
# modem path -> what its bearer's data link is given at each connect
LINKS = {}


def next_number(kind):
    number = COUNTERS.get(kind, 0)
    COUNTERS[kind] = number + 1
    return number


def modems():
    return sorted((p for p in dbusmock.get_objects() if p.startswith(MODEM_PREFIX)),
                  key=lambda p: int(p.rsplit('/', 1)[1]))


def managed_objects(self):
    return dbus.Dictionary({dbus.ObjectPath(p): obj(p).props for p in modems()}, signature='oa{sa{sv}}')


def load(mock, parameters):
    '''Called by dbusmock with the Mock object at ROOT_OBJ; parameters from --parameters.'''
    mockbus.bind(mock)
    COUNTERS.clear()   # dbusmock's Reset() loads the template again: start from nothing
    ACCEPTED_APNS.clear()
    LINKS.clear()
    mock.AddProperties(MM, {'Version': dbus.String(parameters.get('Version', '1.20.4'))})
    mock.AddMethods(MM, [
        ('ScanDevices', '', '', ''),
        ('SetLogging', 's', '', ''),
        ('ReportKernelEvent', 'a{sv}', '', ''),
        ('InhibitDevice', 'sb', '', ''),
    ])
    mock.AddMethod(OBJECT_MANAGER_IFACE, 'GetManagedObjects', '', 'a{oa{sa{sv}}}', managed_objects)


def signal_quality(value, recent=True):
    return dbus.Struct((u32(value), dbus.Boolean(recent)), signature='ub')


def modem_props(options, capabilities, sim, bearers, number):
    ports = [('cdc-wdm%d' % number, 6)]
    if options.get('bearer_interface'):
        ports.append((options['bearer_interface'], 2))
    return {
        'Sim': dbus.ObjectPath(sim),
        'SimSlots': dbus.Array([], signature='o'),
        'PrimarySimSlot': u32(0),
        'Bearers': dbus.Array([dbus.ObjectPath(b) for b in bearers], signature='o'),
        'SupportedCapabilities': dbus.Array([u32(capabilities)], signature='u'),
        'CurrentCapabilities': u32(capabilities),
        'MaxBearers': u32(1),
        'MaxActiveBearers': u32(1),
        'MaxActiveMultiplexedBearers': u32(0),
        'Manufacturer': dbus.String(options.get('manufacturer', 'Simulated Wireless Inc.')),
        'Model': dbus.String(options.get('model', 'SW-100')),
        'Revision': dbus.String(options.get('revision', 'SW100.01.02')),
        'CarrierConfiguration': dbus.String('default'),
        'CarrierConfigurationRevision': dbus.String(''),
        'HardwareRevision': dbus.String('1.0'),
        'DeviceIdentifier': dbus.String(options.get('device_identifier',
                                                    '0123456789abcdef0123456789abcdef0123456%d' % number)),
        'Device': dbus.String('/sys/devices/pci0000:00/0000:00:14.0/usb1/1-%d' % (number + 1)),
        'Physdev': dbus.String('/sys/devices/pci0000:00/0000:00:14.0/usb1/1-%d' % (number + 1)),
        'Drivers': strings(['qmi_wwan', 'option']),
        'Plugin': dbus.String('generic'),
        'PrimaryPort': dbus.String('cdc-wdm%d' % number),
        'Ports': dbus.Array([dbus.Struct((dbus.String(n), u32(t)), signature='su') for n, t in ports],
                            signature='(su)'),
        'EquipmentIdentifier': dbus.String(options.get('equipment_identifier',
                                                       options.get('imei', options.get('esn', '')))),
        'UnlockRequired': u32(1),
        'UnlockRetries': dbus.Dictionary({}, signature='uu'),
        'State': dbus.Int32(options.get('state', 8)),
        'StateFailedReason': u32(0),
        'AccessTechnologies': u32(options.get('access_technologies', 0x4000 if capabilities & CAPABILITY_LTE else 0x20)),
        'SignalQuality': signal_quality(options.get('signal', 50)),
        'OwnNumbers': strings(options.get('own_numbers', [])),
        'PowerState': u32(3),
        'SupportedModes': dbus.Array([dbus.Struct((u32(14), u32(8)), signature='uu')], signature='(uu)'),
        'CurrentModes': dbus.Struct((u32(14), u32(8)), signature='uu'),
        'SupportedBands': dbus.Array([u32(b) for b in (31, 32, 33)], signature='u'),
        'CurrentBands': dbus.Array([u32(b) for b in (31, 32, 33)], signature='u'),
        'SupportedIpFamilies': u32(7),
    }


def gsm_props(options):
    return {
        'Imei': dbus.String(options.get('imei', '359072061234567')),
        'RegistrationState': u32(options.get('registration_state', 1)),
        'OperatorCode': dbus.String(options.get('operator_code', '24201')),
        'OperatorName': dbus.String(options.get('operator_name', 'Telenor')),
        'EnabledFacilityLocks': u32(0),
        'SubscriptionState': u32(0),
        'EpsUeModeOperation': u32(0),
        'Pco': dbus.Array([], signature='(ubay)'),
        'InitialEpsBearer': dbus.ObjectPath('/'),
        'InitialEpsBearerSettings': dbus.Dictionary({}, signature='sv'),
        'PacketServiceState': u32(2),
    }


def ussd_props():
    return {'State': u32(1), 'NetworkNotification': dbus.String(''), 'NetworkRequest': dbus.String('')}


def cdma_props(options):
    return {
        'ActivationState': u32(options.get('activation_state', 3)),
        'Meid': dbus.String(options.get('meid', 'A10000009296F2')),
        'Esn': dbus.String(options.get('esn', '80D5D26C')),
        'Sid': u32(options.get('sid', 4139)),
        'Nid': u32(options.get('nid', 1)),
        'Cdma1xRegistrationState': u32(2),
        'EvdoRegistrationState': u32(2),
    }


def sim_props(options):
    return {
        'Active': True,
        'SimIdentifier': dbus.String(options.get('sim_identifier', '89470000000000000001')),
        'Imsi': dbus.String(options.get('imsi', '242010000000001')),
        'Eid': dbus.String(''),
        'OperatorIdentifier': dbus.String(options.get('operator_code', '24201')),
        'OperatorName': dbus.String(options.get('operator_name', 'Telenor')),
        'EmergencyNumbers': strings(['112']),
        'PreferredNetworks': dbus.Array([], signature='(su)'),
        'SimType': u32(1),
        'EsimStatus': u32(0),
        'Removability': u32(1),
    }


def ip4_config(options, connects):
    '''DHCP on the data port, or with the option "addresses" (comma separated, a /24 each, its .1 the gateway) a
    static address that changes at every connect, as carriers hand them out.'''
    addresses = [a for a in str(options.get('addresses', '')).split(',') if a]
    if not addresses:
        return dbus.Dictionary({'method': u32(3)}, signature='sv')
    address = addresses[connects % len(addresses)]
    return dbus.Dictionary({'method': u32(2), 'address': dbus.String(address), 'prefix': u32(24),
                            'gateway': dbus.String(address.rsplit('.', 1)[0] + '.1')}, signature='sv')


def bearer_props(options):
    return {
        'Interface': dbus.String(options['bearer_interface']),
        'Connected': dbus.Boolean(options.get('bearer_connected', True)),
        'Suspended': False,
        'Multiplexed': False,
        'Ip4Config': ip4_config(options, 0),
        'Ip6Config': dbus.Dictionary({'method': u32(0)}, signature='sv'),
        'Stats': dbus.Dictionary({}, signature='sv'),
        'ReloadStatsSupported': False,
        'IpTimeout': u32(20),
        'BearerType': u32(1),
        'ProfileId': dbus.Int32(-1),
        'Properties': dbus.Dictionary({'apn': dbus.String(options.get('apn', 'internet'))}, signature='sv'),
        'ConnectionError': dbus.Struct((dbus.String(''), dbus.String('')), signature='ss'),
    }


def simple_connect(self, properties):
    '''Modem.Simple.Connect as NetworkManager calls it: the modem's bearer, connected; an APN the network does
    not accept is refused with the 3GPP cause a wrong APN gives.'''
    accepted = ACCEPTED_APNS.get(self.path)
    if accepted and str(properties.get('apn', '')) not in accepted:
        raise dbus.exceptions.DBusException('Requested service option not subscribed',
                                            name=MM + '.Error.MobileEquipment.GprsServiceOptionNotSubscribed')
    bearers = self.props[MODEM_IFACE]['Bearers']
    if not bearers:
        raise dbus.exceptions.DBusException('No bearer to connect', name=MM + '.Error.Core.Failed')
    link = LINKS[self.path]
    link['connects'] += 1
    set_props(str(bearers[0]), BEARER_IFACE, {'Connected': dbus.Boolean(True),
                                               'Ip4Config': ip4_config(link['options'], link['connects'] - 1)})
    return bearers[0]


def simple_disconnect(self, bearer):
    for path in self.props[MODEM_IFACE]['Bearers']:
        if bearer in ('/', path):
            set_props(str(path), BEARER_IFACE, {'Connected': dbus.Boolean(False)})


def simple_status(self):
    modem = self.props[MODEM_IFACE]
    status = {'state': u32(max(0, int(modem['State']))), 'signal-quality': modem['SignalQuality'],
              'access-technologies': modem['AccessTechnologies']}
    gsm = self.props.get(GSM_IFACE)
    if gsm:
        status.update({'m3gpp-registration-state': gsm['RegistrationState'],
                       'm3gpp-operator-code': gsm['OperatorCode'], 'm3gpp-operator-name': gsm['OperatorName']})
    return dbus.Dictionary(status, signature='sv')


@dbus.service.method(MOCK_IFACE, in_signature='sa{sv}', out_signature='s')
def AddModem(self, kind, options):
    '''A modem of the kind (gsm, lte, ussd, cdma) with its SIM and bearer; returns its path.

    Options: sim (b), bearer_interface (s, empty for none), signal (u), state (i), capabilities (u),
    manufacturer, model, revision, device_identifier, equipment_identifier, imei, operator_code,
    operator_name, meid, esn, sim_identifier, imsi, apn, apns (the APNs the network accepts, comma separated;
    empty: any), addresses (static addresses handed out in turn at each connect; empty: DHCP).'''
    if kind not in KINDS:
        raise dbus.exceptions.DBusException(f'unknown modem kind {kind}', name='org.freedesktop.DBus.Mock.NameError')
    options = {str(k): v for k, v in options.items()}
    options.setdefault('bearer_interface', 'wwan0')
    capabilities, extra_ifaces = KINDS[kind]
    capabilities = int(options.get('capabilities', capabilities))
    number = next_number('modem')
    path = f'{MODEM_PREFIX}{number}'

    sim = '/'
    if options.get('sim', True):
        sim = f'{ROOT_OBJ}/SIM/{next_number("sim")}'
        add_object(sim, SIM_IFACE, sim_props(options), [
            ('SendPin', 's', '', ''), ('SendPuk', 'ss', '', ''), ('EnablePin', 'sb', '', ''),
            ('ChangePin', 'ss', '', ''), ('SetPreferredNetworks', 'a(su)', '', '')])
    bearers = []
    if options['bearer_interface']:
        bearer = f'{ROOT_OBJ}/Bearer/{next_number("bearer")}'
        add_object(bearer, BEARER_IFACE, bearer_props(options), [('Connect', '', '', ''), ('Disconnect', '', '', '')])
        bearers.append(bearer)

    ACCEPTED_APNS[path] = [apn for apn in str(options.get('apns', '')).split(',') if apn]
    LINKS[path] = {'options': options, 'connects': 0}
    modem = add_object(path, MODEM_IFACE, modem_props(options, capabilities, sim, bearers, number), [
        ('Enable', 'b', '', ''),
        ('ListBearers', '', 'ao', lambda self: self.props[MODEM_IFACE]['Bearers']),
        ('CreateBearer', 'a{sv}', 'o', 'ret = "/"'),
        ('DeleteBearer', 'o', '', ''),
        ('Reset', '', '', ''),
        ('FactoryReset', 's', '', ''),
        ('SetPowerState', 'u', '', ''),
        ('SetCurrentCapabilities', 'u', '', ''),
        ('SetCurrentModes', '(uu)', '', ''),
        ('SetCurrentBands', 'au', '', ''),
        ('SetPrimarySimSlot', 'u', '', ''),
        ('Command', 'su', 's', 'ret = ""'),
    ])
    # The real daemon lists Simple even though it has no properties: NetworkManager connects through it.
    modem.props[SIMPLE_IFACE] = dbus.Dictionary({}, signature='sv')
    modem.AddMethods(SIMPLE_IFACE, [('Connect', 'a{sv}', 'o', simple_connect), ('Disconnect', 'o', '', simple_disconnect),
                                    ('GetStatus', '', 'a{sv}', simple_status)])
    for iface in extra_ifaces:
        if iface == GSM_IFACE:
            modem.AddProperties(iface, gsm_props(options))
            modem.AddMethods(iface, [('Register', 's', '', ''), ('Scan', '', 'aa{sv}', 'ret = []')])
        elif iface == USSD_IFACE:
            modem.AddProperties(iface, ussd_props())
            modem.AddMethods(iface, [('Initiate', 's', 's', 'ret = ""'), ('Respond', 's', 's', 'ret = ""'),
                                     ('Cancel', '', '', '')])
        elif iface == CDMA_IFACE:
            modem.AddProperties(iface, cdma_props(options))
            modem.AddMethods(iface, [('Activate', 's', '', ''), ('ActivateManual', 'a{sv}', '', '')])

    if options.get('announce', True):
        emit_object_added(path)
    return path


@dbus.service.method(MOCK_IFACE, in_signature='s', out_signature='')
def RemoveModem(self, path):
    modem = obj(path)
    children = [str(modem.props[MODEM_IFACE]['Sim'])] + [str(b) for b in modem.props[MODEM_IFACE]['Bearers']]
    emit_object_removed(path)
    self.RemoveObject(path)
    for child in children:
        if child != '/':
            self.RemoveObject(child)


@dbus.service.method(MOCK_IFACE, in_signature='sub', out_signature='')
def SetSignal(self, path, quality, recent):
    '''A new signal quality, announced as PropertiesChanged on the modem interface.'''
    set_props(path, MODEM_IFACE, {'SignalQuality': signal_quality(quality, recent)})


@dbus.service.method(MOCK_IFACE, in_signature='siu', out_signature='')
def SetModemState(self, path, state, reason):
    old = int(obj(path).props[MODEM_IFACE]['State'])
    obj(path).EmitSignal(MODEM_IFACE, 'StateChanged', 'iiu', [dbus.Int32(old), dbus.Int32(state), u32(reason)])
    set_props(path, MODEM_IFACE, {'State': dbus.Int32(state)})


# What the template imports: load() and every Mock method, the one both simulated daemons share included.
__all__ = ['load'] + [name for name, value in list(globals().items()) if hasattr(value, '_dbus_interface')]
