#include "vocabulary/valuenames.h"
#include "vocabulary/tablelookup.h"

namespace Tarvik {

namespace {

QString unknownText()
{
    return QStringLiteral("unknown");
}

} // namespace

QString deviceTypeToString(NetworkManager::Device::Type type)
{
    using D = NetworkManager::Device;
    static const QMap<int, QString> table {
        // Clients have always received this spelling; it stays.
        { D::UnknownType, "UnkownType" },
        { D::Ethernet, "Ethernet" },
        { D::Wifi, "Wifi" },
        { D::Unused1, "Unused1" },
        { D::Unused2, "Unused2" },
        { D::Bluetooth, "Bluetooth" },
        { D::OlpcMesh, "OlpcMesh" },
        { D::Wimax, "Wimax" },
        { D::Modem, "Modem" },
        { D::InfiniBand, "InfiniBand" },
        { D::Bond, "Bond" },
        { D::Vlan, "Vlan" },
        { D::Adsl, "Adsl" },
        { D::Bridge, "Bridge" },
        { D::Generic, "Generic" },
        { D::Team, "Team" },
        { D::Gre, "Gre" },
        { D::MacVlan, "MacVlan" },
        { D::Tun, "Tun" },
        { D::Veth, "Veth" },
    };
    return lookup(table, int(type), unknownText());
}

QString connectionTypeToString(NetworkManager::ConnectionSettings::ConnectionType type)
{
    using C = NetworkManager::ConnectionSettings;
    static const QMap<int, QString> table {
        { C::Unknown, "Unknown" },
        { C::Adsl, "Adsl" },
        { C::Bluetooth, "Bluetooth" },
        { C::Bond, "Bond" },
        { C::Bridge, "Bridge" },
        { C::Cdma, "Cdma" },
        { C::Gsm, "Gsm" },
        { C::Infiniband, "Infiniband" },
        { C::OLPCMesh, "OLPCMesh" },
        { C::Pppoe, "Pppoe" },
        { C::Vlan, "Vlan" },
        { C::Vpn, "Vpn" },
        { C::Wimax, "Wimax" },
        { C::Wired, "Wired" },
        { C::Wireless, "Wireless" },
        { C::Team, "Team" },
        { C::Generic, "Generic" },
        { C::Tun, "Tun" },
    };
    return lookup(table, int(type), unknownText());
}

QString statusToString(NetworkManager::Status status)
{
    static const QMap<int, QString> table {
        { NetworkManager::Unknown, "Unknown" },
        { NetworkManager::Asleep, "Asleep" },
        { NetworkManager::Disconnected, "Disconnected" },
        { NetworkManager::Disconnecting, "Disconnecting" },
        { NetworkManager::Connecting, "Connecting" },
        { NetworkManager::ConnectedLinkLocal, "ConnectedLinkLocal" },
        { NetworkManager::ConnectedSiteOnly, "ConnectedSiteOnly" },
        { NetworkManager::Connected, "Connected" },
    };
    return lookup(table, int(status), unknownText());
}

QString connectivityToString(NetworkManager::Connectivity connectivity)
{
    static const QMap<int, QString> table {
        { NetworkManager::UnknownConnectivity, "UnknownConnectivity" },
        { NetworkManager::NoConnectivity, "NoConnectivity" },
        { NetworkManager::Portal, "Portal" },
        { NetworkManager::Limited, "Limited" },
        { NetworkManager::Full, "Full" },
    };
    return lookup(table, int(connectivity), unknownText());
}

QString stateChangeReasonToString(NetworkManager::Device::StateChangeReason reason)
{
    using D = NetworkManager::Device;
    // NowManagedReason has never had a text of its own; it reads as "unknown".
    static const QMap<int, QString> table {
        { D::UnknownReason, "UnknownReason" },
        { D::NoReason, "NoReason" },
        { D::NowUnmanagedReason, "NowUnmanagedReason" },
        { D::ConfigFailedReason, "ConfigFailedReason" },
        { D::ConfigUnavailableReason, "ConfigUnavailableReason" },
        { D::ConfigExpiredReason, "ConfigExpiredReason" },
        { D::NoSecretsReason, "NoSecretsReason" },
        { D::AuthSupplicantDisconnectReason, "AuthSupplicantDisconnectReason" },
        { D::AuthSupplicantConfigFailedReason, "AuthSupplicantConfigFailedReason" },
        { D::AuthSupplicantFailedReason, "AuthSupplicantFailedReason" },
        { D::AuthSupplicantTimeoutReason, "AuthSupplicantTimeoutReason" },
        { D::PppStartFailedReason, "PppStartFailedReason" },
        { D::PppDisconnectReason, "PppDisconnectReason" },
        { D::PppFailedReason, "PppFailedReason" },
        { D::DhcpStartFailedReason, "DhcpStartFailedReason" },
        { D::DhcpErrorReason, "DhcpErrorReason" },
        { D::DhcpFailedReason, "DhcpFailedReason" },
        { D::SharedStartFailedReason, "SharedStartFailedReason" },
        { D::SharedFailedReason, "SharedFailedReason" },
        { D::AutoIpStartFailedReason, "AutoIpStartFailedReason" },
        { D::AutoIpErrorReason, "AutoIpErrorReason" },
        { D::AutoIpFailedReason, "AutoIpFailedReason" },
        { D::ModemBusyReason, "ModemBusyReason" },
        { D::ModemNoDialToneReason, "ModemNoDialToneReason" },
        { D::ModemNoCarrierReason, "ModemNoCarrierReason" },
        { D::ModemDialTimeoutReason, "ModemDialTimeoutReason" },
        { D::ModemDialFailedReason, "ModemDialFailedReason" },
        { D::ModemInitFailedReason, "ModemInitFailedReason" },
        { D::GsmApnSelectFailedReason, "GsmApnSelectFailedReason" },
        { D::GsmNotSearchingReason, "GsmNotSearchingReason" },
        { D::GsmRegistrationDeniedReason, "GsmRegistrationDeniedReason" },
        { D::GsmRegistrationTimeoutReason, "GsmRegistrationTimeoutReason" },
        { D::GsmRegistrationFailedReason, "GsmRegistrationFailedReason" },
        { D::GsmPinCheckFailedReason, "GsmPinCheckFailedReason" },
        { D::FirmwareMissingReason, "FirmwareMissingReason" },
        { D::DeviceRemovedReason, "DeviceRemovedReason" },
        { D::SleepingReason, "SleepingReason" },
        { D::ConnectionRemovedReason, "ConnectionRemovedReason" },
        { D::UserRequestedReason, "UserRequestedReason" },
        { D::CarrierReason, "CarrierReason" },
        { D::ConnectionAssumedReason, "ConnectionAssumedReason" },
        { D::SupplicantAvailableReason, "SupplicantAvailableReason" },
        { D::ModemNotFoundReason, "ModemNotFoundReason" },
        { D::BluetoothFailedReason, "BluetoothFailedReason" },
        { D::GsmSimNotInserted, "GsmSimNotInserted" },
        { D::GsmSimPinRequired, "GsmSimPinRequired" },
        { D::GsmSimPukRequired, "GsmSimPukRequired" },
        { D::GsmSimWrong, "GsmSimWrong" },
        { D::InfiniBandMode, "InfiniBandMode" },
        { D::DependencyFailed, "DependencyFailed" },
        { D::Br2684Failed, "Br2684Failed" },
        { D::ModemManagerUnavailable, "ModemManagerUnavailable" },
        { D::SsidNotFound, "SsidNotFound" },
        { D::SecondaryConnectionFailed, "SecondaryConnectionFailed" },
        { D::DcbFcoeFailed, "DcbFcoeFailed" },
        { D::TeamdControlFailed, "TeamdControlFailed" },
        { D::ModemFailed, "ModemFailed" },
        { D::ModemAvailable, "ModemAvailable" },
        { D::SimPinIncorrect, "SimPinIncorrect" },
        { D::NewActivation, "NewActivation" },
        { D::ParentChanged, "ParentChanged" },
        { D::ParentManagedChanged, "ParentManagedChanged" },
    };
    return lookup(table, int(reason), unknownText());
}

QString ipv4SettingMethodToString(NetworkManager::Ipv4Setting::ConfigMethod method)
{
    using I = NetworkManager::Ipv4Setting;
    static const QMap<int, QString> table {
        { I::Automatic, "auto" },
        { I::LinkLocal, "link-local" },
        { I::Manual, "manual" },
        { I::Shared, "shared" },
        { I::Disabled, "disabled" },
    };
    return lookup(table, int(method), unknownText());
}

NetworkManager::Ipv4Setting::ConfigMethod ipv4SettingMethodFromString(const QString& method)
{
    using I = NetworkManager::Ipv4Setting;
    static const QMap<QString, I::ConfigMethod> table {
        { "auto", I::Automatic },
        { "link-local", I::LinkLocal },
        { "manual", I::Manual },
        { "shared", I::Shared },
        { "disabled", I::Disabled },
    };
    return lookup(table, method, I::Automatic);
}

QString apModeToString(NetworkManager::AccessPoint::OperationMode mode)
{
    using A = NetworkManager::AccessPoint;
    static const QMap<int, QString> table {
        { A::Unknown, "unknown" },
        { A::Adhoc, "adhoc" },
        { A::Infra, "infra" },
        { A::ApMode, "apmode" },
    };
    return lookup(table, int(mode), unknownText());
}

ApSecurity apSecurityOf(NetworkManager::AccessPoint::Ptr ap)
{
    if (!ap)
        return ApSecurity::Unknown;
    return apSecurityFromFlags(uint(ap->capabilities()), int(ap->wpaFlags()), int(ap->rsnFlags()));
}

ApSecurity apSecurityFromFlags(uint capabilities, int wpaFlags, int rsnFlags)
{
    if (capabilities == 0 && wpaFlags == 0 && rsnFlags == 0)
        return ApSecurity::None;

    // Flags without the privacy bit say nothing trustworthy: such a network is
    // reported as unknown rather than as open.
    const bool privacy = capabilities & NetworkManager::AccessPoint::Privacy;
    if (privacy && wpaFlags == 0 && rsnFlags == 0)
        return ApSecurity::Wep;
    if (privacy && wpaFlags > 0 && rsnFlags == 0)
        return ApSecurity::Wpa1;
    if (privacy && wpaFlags == 0 && rsnFlags > 0)
        return ApSecurity::Wpa2;
    if (privacy && wpaFlags > 0 && rsnFlags > 0)
        return ApSecurity::Wpa1Wpa2;
    return ApSecurity::Unknown;
}

QString apSecurityToString(ApSecurity security)
{
    static const QMap<ApSecurity, QString> table {
        { ApSecurity::None, "none" },
        { ApSecurity::Wep, "wep" },
        { ApSecurity::Wpa1, "wpa1" },
        { ApSecurity::Wpa2, "wpa2" },
        { ApSecurity::Wpa1Wpa2, "wpa1-wpa2" },
    };
    return lookup(table, security, unknownText());
}

QString apSecurity(NetworkManager::AccessPoint::Ptr ap)
{
    return apSecurityToString(apSecurityOf(ap));
}

QString apCapabilitiesTostring(NetworkManager::AccessPoint::Capabilities capabilities)
{
    return capabilities.testFlag(NetworkManager::AccessPoint::Privacy) ? QStringLiteral("privacy")
                                                                         : QStringLiteral("none");
}

QString modemInterfaceToString(ModemManager::Interface::Ptr iface)
{
    // The keys name interfaces the way an older modem library did; the current
    // library's class names never match them, so the answer is "Unknown".
    static const QMap<QString, QString> table {
        { "ModemDevice::ModemInterface", "Modem" },
        { "ModemDevice::SimpleInterface", "Simple" },
        { "ModemDevice::GsmInterface", "Gsm" },
        { "ModemDevice::GsmUssdInterface", "GsmUssd" },
        { "ModemDevice::CdmaInterface", "Cdma" },
        { "ModemDevice::MessagingInterface", "Messaging" },
        { "ModemDevice::LocationInterface", "Location" },
        { "ModemDevice::TimeInterface", "Time" },
        { "ModemDevice::FirmwareInterface", "Firmware" },
        { "ModemDevice::OmaInterface", "Oma" },
        { "ModemDevice::SignalInterface", "Signal" },
    };
    const QString unknown = QStringLiteral("Unknown");
    if (!iface)
        return unknown;
    return lookup(table, QString::fromLatin1(iface->metaObject()->className()), unknown);
}

QString mqttErrorToString(MqttError::Code error)
{
    static const QMap<int, QString> table {
        { MqttError::NoError, "NoError" },
        { MqttError::InvalidProtocolVersion, "InvalidProtocolVersion" },
        { MqttError::IdRejected, "IdRejected" },
        { MqttError::ServerUnavailable, "ServerUnavailable" },
        { MqttError::BadUsernameOrPassword, "BadUsernameOrPassword" },
        { MqttError::NotAuthorized, "NotAuthorized" },
        { MqttError::TransportInvalid, "TransportInvalid" },
        { MqttError::ProtocolViolation, "ProtocolViolation" },
        { MqttError::UnknownError, "UnknownError" },
    };
    return lookup(table, int(error), unknownText());
}

} // namespace Tarvik
