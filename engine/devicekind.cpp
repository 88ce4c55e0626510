#include "engine/devicekind.h"

#include "documents/documents.h"

#include <NetworkManagerQt/WiredDevice>
#include <NetworkManagerQt/WirelessDevice>
#include <NetworkManagerQt/WirelessNetwork>

namespace Tarvik {

namespace {

using NetworkManager::Device;

QString text(const QJsonObject& payload, const char* key)
{
    return payload.value(QLatin1String(key)).toString();
}

// Absent keys clear the field on purpose: a set command carries the whole addressing.
Config::Ipv4Config ipv4OfPayload(const QJsonObject& payload)
{
    Config::Ipv4Config ipv4;
    ipv4.method = text(payload, "method");
    ipv4.address = text(payload, "address");
    ipv4.netmask = text(payload, "netmask");
    ipv4.gateway = text(payload, "gateway");
    ipv4.dns0 = text(payload, "dns0");
    ipv4.dns1 = text(payload, "dns1");
    return ipv4;
}

QByteArray tagOf(const Device::Ptr& device)
{
    return deviceTypeToString(device->type()).toLocal8Bit();
}

// Ethernet

std::optional<ProfileTarget> wiredTarget(const Device::Ptr& device, const DeviceRecord& record, const TaggedLog& log)
{
    const QByteArray tag = tagOf(device);
    const auto wired = device.objectCast<NetworkManager::WiredDevice>();
    if (!wired || !wired->carrier()) {
        log(Log::Info, "[%s] Carrier not detected (cable unplugged). Will not attempt to connect.", tag.constData());
        return std::nullopt;
    }
    log(Log::Info, "[%s] Carrier detected (cable is plugged).", tag.constData());
    return ProfileTarget{tag, std::get<Config::Ethernet>(record).id, NetworkManager::ConnectionSettings::Wired, {}, {}};
}

void readEthernetPayload(DeviceRecord& record, const QJsonObject& payload)
{
    std::get<Config::Ethernet>(record).ipv4 = ipv4OfPayload(payload);
}

// Wi-Fi

std::optional<ProfileTarget> wirelessTarget(const Device::Ptr& device, const DeviceRecord& record, const TaggedLog& log)
{
    const QByteArray tag = tagOf(device);
    const QString& ssid = std::get<Config::Wifi>(record).ssid;
    if (ssid.isEmpty()) {
        log(Log::Info, "[%s] SSID not configured. Will not attempt to connect.", tag.constData());
        return std::nullopt;
    }
    const auto accessPoint = findAccessPoint(device, ssid);
    if (!accessPoint) {
        log(Log::Info, "[Wifi] Configured access point '%s' not in range. Will not attempt to connect.",
            qPrintable(ssid));
        return std::nullopt;
    }
    return ProfileTarget{tag, ssid, NetworkManager::ConnectionSettings::Wireless, accessPoint->uni(),
                         apSecurityOf(accessPoint)};
}

void readWifiPayload(DeviceRecord& record, const QJsonObject& payload)
{
    auto& wifi = std::get<Config::Wifi>(record);
    wifi.ipv4 = ipv4OfPayload(payload);
    wifi.ssid = text(payload, "ssid");
    wifi.key = text(payload, "key");
}

// Modem

std::optional<ProfileTarget> modemTarget(const Device::Ptr& device, const DeviceRecord& record, const TaggedLog&)
{
    return ProfileTarget{tagOf(device), std::get<Config::Modem>(record).id, NetworkManager::ConnectionSettings::Gsm,
                         {}, {}};
}

void readModemPayload(DeviceRecord& record, const QJsonObject& payload)
{
    auto& modem = std::get<Config::Modem>(record);
    modem.ipv4 = ipv4OfPayload(payload);
    modem.apn = text(payload, "apn");
    modem.username = text(payload, "username");
    modem.password = text(payload, "password");
    modem.networkId = text(payload, "networkId");
    modem.pin = text(payload, "pin");
}

template <typename T>
QSharedPointer<T> as(const Device::Ptr& device)
{
    return device.objectCast<T>();
}

const DeviceKind ethernet{
    Device::Ethernet, "ethernet", "ethernet/config/get", NetworkManager::ConnectionSettings::Wired,
    NetworkManager::Setting::Generic, false, false,
    {Topic::EthernetState, [](const Device::Ptr& d) { return ethernetStateDocument(as<NetworkManager::WiredDevice>(d)); }},
    Topic::EthernetConfig,
    [](const Device::Ptr& d, const std::optional<QVariantMap>&) {
        return ethernetConfigDocument(as<NetworkManager::WiredDevice>(d));
    },
    {},
    [](const Config& config) { return DeviceRecord(config.ethernet()); },
    [](Config& config, const DeviceRecord& record) { config.setEthernet(std::get<Config::Ethernet>(record)); },
    readEthernetPayload,
    wiredTarget,
};

const DeviceKind wifi{
    Device::Wifi, "wifi", "wifi/config/get", NetworkManager::ConnectionSettings::Wireless,
    NetworkManager::Setting::WirelessSecurity, true, false,
    {Topic::WifiState, [](const Device::Ptr& d) { return wifiStateDocument(as<NetworkManager::WirelessDevice>(d)); }},
    Topic::WifiConfig,
    [](const Device::Ptr& d, const std::optional<QVariantMap>& secrets) {
        return wifiConfigDocument(as<NetworkManager::WirelessDevice>(d), secrets);
    },
    {{Topic::WifiAccessPoints,
      [](const Device::Ptr& d) { return wifiAccessPointsDocument(as<NetworkManager::WirelessDevice>(d)); }},
     {Topic::WifiNetworks,
      [](const Device::Ptr& d) { return wifiNetworksDocument(as<NetworkManager::WirelessDevice>(d)); }}},
    [](const Config& config) { return DeviceRecord(config.wifi()); },
    [](Config& config, const DeviceRecord& record) { config.setWifi(std::get<Config::Wifi>(record)); },
    readWifiPayload,
    wirelessTarget,
};

const DeviceKind modem{
    Device::Modem, "modem", "modem/config/set", NetworkManager::ConnectionSettings::Gsm,
    NetworkManager::Setting::Gsm, false, true,
    {Topic::ModemState, [](const Device::Ptr& d) { return modemStateDocument(as<NetworkManager::ModemDevice>(d)); }},
    Topic::ModemConfig,
    [](const Device::Ptr& d, const std::optional<QVariantMap>& secrets) {
        return modemConfigDocument(as<NetworkManager::ModemDevice>(d), secrets);
    },
    {{Topic::ModemSignal, [](const Device::Ptr& d) { return modemSignalDocument(as<NetworkManager::ModemDevice>(d)); }}},
    [](const Config& config) { return DeviceRecord(config.modem()); },
    [](Config& config, const DeviceRecord& record) { config.setModem(std::get<Config::Modem>(record)); },
    readModemPayload,
    modemTarget,
};

} // namespace

QString DeviceKind::configGetCommand() const
{
    return QLatin1String(name) + QStringLiteral("/config/get");
}

bool DeviceKind::hasSecrets() const
{
    return secretSetting != NetworkManager::Setting::Generic;
}

QString DeviceKind::secretSettingName() const
{
    return NetworkManager::Setting::typeAsString(secretSetting);
}

const DeviceKind* DeviceKind::of(NetworkManager::Device::Type type)
{
    for (const DeviceKind* kind : {&ethernet, &wifi, &modem}) {
        if (kind->deviceType == type)
            return kind;
    }
    return nullptr;
}

NetworkManager::AccessPoint::Ptr findAccessPoint(const NetworkManager::Device::Ptr& device, const QString& ssid)
{
    const auto wireless = device.objectCast<NetworkManager::WirelessDevice>();
    if (!wireless)
        return {};
    for (const NetworkManager::WirelessNetwork::Ptr& network : wireless->networks()) {
        if (network->ssid() == ssid)
            return network->referenceAccessPoint();
    }
    return {};
}

} // namespace Tarvik
