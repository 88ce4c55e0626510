#include "engine/engine.h"

#include "vocabulary/devicestate.h"
#include "vocabulary/valuenames.h"

#include <NetworkManagerQt/GsmSetting>
#include <NetworkManagerQt/Ipv6Setting>
#include <NetworkManagerQt/Settings>
#include <NetworkManagerQt/WiredDevice>
#include <NetworkManagerQt/WirelessDevice>
#include <NetworkManagerQt/WirelessNetwork>
#include <NetworkManagerQt/WirelessSecuritySetting>
#include <NetworkManagerQt/WirelessSetting>
#include <QDBusPendingReply>
#include <QDateTime>
#include <QHostAddress>

namespace Tarvik {

namespace {

const QString wirelessSecurityGroup = QStringLiteral("802-11-wireless-security");
const QString gsmGroup = QStringLiteral("gsm");
const QString gsmDialNumber = QStringLiteral("*99#");

template <typename T>
QSharedPointer<T> settingOf(NetworkManager::ConnectionSettings::Ptr settings, NetworkManager::Setting::SettingType type)
{
    return settings->setting(type).template staticCast<T>();
}

// Writes the wanted value through the setter when the getter reads another
// one; true when it did.
template <typename Object, typename Getter, typename Setter, typename Value>
bool updateValue(Object& object, Getter get, Setter set, const Value& wanted)
{
    if ((object.*get)() == wanted) {
        return false;
    }
    (object.*set)(wanted);
    return true;
}

// Every update names the GSM password and PIN, empty when the profile holds
// none; the group travels with profiles of every type.
NMVariantMapMap updateMapOf(NetworkManager::ConnectionSettings::Ptr settings)
{
    NMVariantMapMap map = settings->toMap();
    QVariantMap& gsm = map[gsmGroup];
    if (!gsm.contains(QStringLiteral("password"))) {
        gsm.insert(QStringLiteral("password"), QString());
    }
    if (!gsm.contains(QStringLiteral("pin"))) {
        gsm.insert(QStringLiteral("pin"), QString());
    }
    return map;
}

QList<QHostAddress> dnsListOf(const Config::Ipv4Config& ipv4)
{
    QList<QHostAddress> dns;
    for (const QString& server : {ipv4.dns0, ipv4.dns1}) {
        if (!server.isEmpty()) {
            dns.append(QHostAddress(server));
        }
    }
    return dns;
}

bool sameAddresses(const QList<NetworkManager::IpAddress>& current, const NetworkManager::IpAddress& wanted)
{
    return current.size() == 1 && current.first().ip() == wanted.ip() && current.first().netmask() == wanted.netmask()
        && current.first().gateway() == wanted.gateway();
}

} // namespace

void Engine::reload()
{
    log(Log::Info, "Reloading all devices and connections.");
    m_ipc->publishNetworkStatus();
    m_ipc->publishNetworkInfo();
    monitorNetwork();

    for (const NetworkManager::Device::Ptr& device : NetworkManager::networkInterfaces()) {
        if (!device->isValid() || device->interfaceName() == QLatin1String("lo")) {
            continue;
        }
        const bool managed = device->managed();
        const bool active = device->isActive();
        log(Log::Info, "[%s] Device found: %s (active=%d, managed=%d)", typeText(device->type()).constData(),
            qPrintable(device->interfaceName()), active ? 1 : 0, managed ? 1 : 0);
        reloadDevice(device);
    }
}

void Engine::reloadDevice(NetworkManager::Device::Ptr device)
{
    monitorDevice(device);
    updateConnection(device, *m_config);

    switch (device->type()) {
    case NetworkManager::Device::Ethernet: {
        auto wired = device.objectCast<NetworkManager::WiredDevice>();
        m_ipc->publishEthernetState(wired);
        m_ipc->publishEthernetConfig(wired);
        break;
    }
    case NetworkManager::Device::Wifi: {
        auto wireless = device.objectCast<NetworkManager::WirelessDevice>();
        m_ipc->publishWifiState(wireless);
        m_ipc->publishWifiConfig(wireless);
        m_ipc->publishWifiAccessPoints(wireless);
        m_ipc->publishWifiNetworks(wireless);
        break;
    }
    case NetworkManager::Device::Modem: {
        auto modem = device.objectCast<NetworkManager::ModemDevice>();
        m_ipc->publishModemState(modem);
        m_ipc->publishModemConfig(modem);
        m_ipc->publishDeviceModemSignal(modem);
        if (mapDeviceState(device->state()) == Connected) {
            startMonitorModemStats();
        } else {
            stopMonitorModemStats();
        }
        break;
    }
    default:
        log(Log::Warning, "Skipping device: %s", qPrintable(device->interfaceName()));
        break;
    }
}

NetworkManager::Connection::Ptr Engine::updateConnection(NetworkManager::Device::Ptr device, const Config& config)
{
    if (!device || !device->isValid()) {
        return {};
    }

    QString name = QStringLiteral("unknown");
    QString accessPointPath;
    QString security;
    auto connectionType = NetworkManager::ConnectionSettings::Unknown;
    const QByteArray type = typeText(device->type());

    switch (device->type()) {
    case NetworkManager::Device::Ethernet: {
        name = config.ethernet().id;
        auto wired = device.objectCast<NetworkManager::WiredDevice>();
        if (!wired || !wired->carrier()) {
            log(Log::Info, "[%s] Carrier not detected (cable unplugged). Will not attempt to connect.",
                type.constData());
            return {};
        }
        log(Log::Info, "[%s] Carrier detected (cable is plugged).", type.constData());
        connectionType = NetworkManager::ConnectionSettings::Wired;
        break;
    }
    case NetworkManager::Device::Wifi: {
        const QString& ssid = config.wifi().ssid;
        if (ssid.isEmpty()) {
            log(Log::Info, "[%s] SSID not configured. Will not attempt to connect.", type.constData());
            return {};
        }
        auto accessPoint = findAccessPoint(device, ssid);
        if (!accessPoint) {
            log(Log::Info, "[Wifi] Configured access point '%s' not in range. Will not attempt to connect.",
                qPrintable(ssid));
            return {};
        }
        name = ssid;
        accessPointPath = accessPoint->uni();
        security = apSecurity(accessPoint);
        connectionType = NetworkManager::ConnectionSettings::Wireless;
        break;
    }
    case NetworkManager::Device::Modem:
        name = config.modem().id;
        connectionType = NetworkManager::ConnectionSettings::Gsm;
        break;
    default:
        break;
    }

    log(Log::Info, "[%s] Checking connection: %s", type.constData(), qPrintable(name));
    if (name.isEmpty()) {
        return {};
    }

    const auto activate = [&](NetworkManager::Connection::Ptr connection) {
        QDBusPendingReply<QDBusObjectPath> reply =
            NetworkManager::activateConnection(connection->path(), device->uni(), accessPointPath);
        reply.waitForFinished();
        if (!reply.isValid()) {
            log(Log::Info, "[%s] Failed to activate connection: %s", type.constData(),
                qPrintable(reply.error().message()));
        }
        return reply.isValid();
    };

    NetworkManager::Connection::Ptr connection = findConnection(name, device);
    if (!connection) {
        log(Log::Info, "[%s] Connection '%s' does not exist. Creating and activating.", type.constData(),
            qPrintable(name));
        NetworkManager::ConnectionSettings::Ptr settings(new NetworkManager::ConnectionSettings(connectionType));
        settings->setUuid(NetworkManager::ConnectionSettings::createNewUuid());
        settings->setTimestamp(QDateTime::currentDateTime());
        updateConnectionSettings(settings, config, security);

        QDBusPendingReply<QDBusObjectPath, QDBusObjectPath> reply =
            NetworkManager::addAndActivateConnection(settings->toMap(), device->uni(), accessPointPath);
        reply.waitForFinished();
        if (!reply.isValid()) {
            log(Log::Info, "[%s] Failed to create connection '%s' : %s", type.constData(), qPrintable(name),
                qPrintable(reply.error().message()));
            return {};
        }
        log(Log::Info, "[%s] Connection '%s' created successfully.", type.constData(), qPrintable(name));
        return NetworkManager::findConnection(reply.argumentAt<0>().path());
    }

    log(Log::Info, "[%s] Connection '%s' already exists.", type.constData(), qPrintable(name));
    loadConnectionSecrets(connection, device);
    NetworkManager::ConnectionSettings::Ptr settings = connection->settings();
    if (updateConnectionSettings(settings, config, security)) {
        log(Log::Info, "[%s] Connection settings have changed. Applying new settings.", type.constData());
        QDBusPendingReply<> reply = connection->update(updateMapOf(settings));
        reply.waitForFinished();
        if (!reply.isValid()) {
            log(Log::Info, "[%s] Failed to update connection '%s' : %s", type.constData(), qPrintable(name),
                qPrintable(reply.error().message()));
            return {};
        }
        if (!activate(connection)) {
            return {};
        }
        log(Log::Info, "[%s] Connection '%s' updated.", type.constData(), qPrintable(name));
        return connection;
    }

    log(Log::Info, "[%s] No update required for connection '%s'.", type.constData(), qPrintable(name));
    NetworkManager::ActiveConnection::Ptr active = device->activeConnection();
    if (active && active->connection() == connection) {
        return connection;
    }
    log(Log::Info, "[%s] Connection '%s' not active. Activating.", type.constData(), qPrintable(name));
    if (!activate(connection)) {
        return {};
    }
    log(Log::Info, "[%s] Connection '%s' activated.", type.constData(), qPrintable(name));
    return connection;
}

bool Engine::updateConnectionSettings(NetworkManager::ConnectionSettings::Ptr settings, const Config& config,
                                      const QString& security)
{
    if (!settings) {
        return false;
    }
    using Settings = NetworkManager::ConnectionSettings;
    bool changed = false;

    switch (settings->connectionType()) {
    case Settings::Wired: {
        const Config::Ethernet& ethernet = config.ethernet();
        changed |= updateValue(*settings, &Settings::id, &Settings::setId, ethernet.id);
        changed |= updateValue(*settings, &Settings::autoconnect, &Settings::setAutoconnect, ethernet.autocon);
        changed |= updateIpv4Of(settings, ethernet.ipv4);
        break;
    }
    case Settings::Gsm: {
        const Config::Modem& modem = config.modem();
        // Name and autoconnect are rewritten but, on their own, do not make
        // the profile count as changed.
        settings->setId(modem.id);
        settings->setAutoconnect(modem.autocon);
        using Gsm = NetworkManager::GsmSetting;
        auto gsm = settingOf<Gsm>(settings, NetworkManager::Setting::Gsm);
        if (gsm) {
            changed |= updateValue(*gsm, &Gsm::apn, &Gsm::setApn, modem.apn);
            changed |= updateValue(*gsm, &Gsm::username, &Gsm::setUsername, modem.username);
            changed |= updateValue(*gsm, &Gsm::networkId, &Gsm::setNetworkId, modem.networkId);
            changed |= updateValue(*gsm, &Gsm::password, &Gsm::setPassword, modem.password);
            changed |= updateValue(*gsm, &Gsm::pin, &Gsm::setPin, modem.pin);
            gsm->setNumber(gsmDialNumber);
            gsm->setPasswordFlags(NetworkManager::Setting::None);
            gsm->setPinFlags(NetworkManager::Setting::None);
            gsm->setInitialized(true);
        }
        changed |= updateIpv4Of(settings, modem.ipv4);
        break;
    }
    case Settings::Wireless: {
        const Config::Wifi& wifi = config.wifi();
        changed |= updateValue(*settings, &Settings::id, &Settings::setId, wifi.ssid);
        changed |= updateValue(*settings, &Settings::autoconnect, &Settings::setAutoconnect, wifi.autocon);

        auto wireless = settingOf<NetworkManager::WirelessSetting>(settings, NetworkManager::Setting::Wireless);
        if (wireless && QString::fromUtf8(wireless->ssid()) != wifi.ssid) {
            wireless->setSsid(wifi.ssid.toUtf8());
            changed = true;
        }
        changed |= updateWirelessSecurity(settings, wireless, wifi, security);
        changed |= updateIpv4Of(settings, wifi.ipv4);

        auto ipv6 = settingOf<NetworkManager::Ipv6Setting>(settings, NetworkManager::Setting::Ipv6);
        if (ipv6 && ipv6->method() != NetworkManager::Ipv6Setting::Ignored) {
            ipv6->setMethod(NetworkManager::Ipv6Setting::Ignored);
            ipv6->setInitialized(true);
            changed = true;
        }
        break;
    }
    default:
        break;
    }
    return changed;
}

bool Engine::updateWirelessSecurity(NetworkManager::ConnectionSettings::Ptr settings,
                                    NetworkManager::WirelessSetting::Ptr wireless, const Config::Wifi& wifi,
                                    const QString& security)
{
    using Security = NetworkManager::WirelessSecuritySetting;
    const bool wpa = security == QLatin1String("wpa1") || security == QLatin1String("wpa2")
        || security == QLatin1String("wpa1-wpa2");
    const bool wep = security == QLatin1String("wep");
    if (security == QLatin1String("unknown")) {
        log(Log::Error, "Could not determine Wifi security for AP '%s'. Defaulting to 'none'.", qPrintable(wifi.ssid));
    }
    auto securitySetting = settingOf<Security>(settings, NetworkManager::Setting::WirelessSecurity);
    if (!(wpa || wep) || !securitySetting) {
        return false;
    }

    bool changed = false;
    if (wpa) {
        changed |= updateValue(*securitySetting, &Security::keyMgmt, &Security::setKeyMgmt, Security::WpaPsk);
        changed |= updateValue(*securitySetting, &Security::psk, &Security::setPsk, wifi.key);
    } else {
        changed |= updateValue(*securitySetting, &Security::keyMgmt, &Security::setKeyMgmt, Security::Wep);
        changed |= updateValue(*securitySetting, &Security::wepKey0, &Security::setWepKey0, wifi.key);
        securitySetting->setWepKeyType(Security::Passphrase);
    }
    securitySetting->setInitialized(true);
    if (wireless) {
        wireless->setSecurity(wirelessSecurityGroup);
        wireless->setInitialized(true);
    }
    return changed;
}

bool Engine::updateIpv4Of(NetworkManager::ConnectionSettings::Ptr settings, const Config::Ipv4Config& ipv4)
{
    auto setting = settingOf<NetworkManager::Ipv4Setting>(settings, NetworkManager::Setting::Ipv4);
    return setting && updateIpv4Configuration(setting, ipv4);
}

bool Engine::updateIpv4Configuration(NetworkManager::Ipv4Setting::Ptr setting, const Config::Ipv4Config& ipv4)
{
    bool changed = false;

    if (ipv4.method == QLatin1String("auto")) {
        if (setting->method() != NetworkManager::Ipv4Setting::Automatic) {
            setting->setAddresses({});
            setting->setMethod(NetworkManager::Ipv4Setting::Automatic);
            changed = true;
        }
    } else if (ipv4.method == QLatin1String("manual")) {
        NetworkManager::IpAddress address;
        address.setIp(QHostAddress(ipv4.address));
        address.setNetmask(QHostAddress(ipv4.netmask));
        address.setGateway(QHostAddress(ipv4.gateway));

        if (setting->method() != NetworkManager::Ipv4Setting::Manual) {
            setting->setMethod(NetworkManager::Ipv4Setting::Manual);
            changed = true;
        }
        if (!sameAddresses(setting->addresses(), address)) {
            setting->setAddresses({address});
            changed = true;
        }
        const QList<QHostAddress> dns = dnsListOf(ipv4);
        if (setting->dns() != dns) {
            setting->setDns(dns);
            changed = true;
        }
    } else if (setting->method() != NetworkManager::Ipv4Setting::LinkLocal) {
        setting->setMethod(NetworkManager::Ipv4Setting::LinkLocal);
        changed = true;
    }

    setting->setInitialized(true);
    return changed;
}

// Keys and passwords are not part of the settings NetworkManager hands out:
// fetch them so that they take part in the comparison with the configuration.
void Engine::loadConnectionSecrets(NetworkManager::Connection::Ptr connection, NetworkManager::Device::Ptr device)
{
    NetworkManager::ConnectionSettings::Ptr settings = connection->settings();
    if (device->type() == NetworkManager::Device::Wifi) {
        auto securitySetting =
            settingOf<NetworkManager::WirelessSecuritySetting>(settings, NetworkManager::Setting::WirelessSecurity);
        if (!securitySetting) {
            return;
        }
        QDBusPendingReply<NMVariantMapMap> reply = connection->secrets(securitySetting->name());
        reply.waitForFinished();
        if (!reply.isValid()) {
            log(Log::Info, "[%s] Failed to get secrets: '%s' : %s", typeText(device->type()).constData(),
                qPrintable(connection->name()), qPrintable(reply.error().message()));
        }
        securitySetting->secretsFromMap(reply.value().value(wirelessSecurityGroup));
    } else if (settings->connectionType() == NetworkManager::ConnectionSettings::Gsm) {
        auto gsmSetting = settingOf<NetworkManager::GsmSetting>(settings, NetworkManager::Setting::Gsm);
        QDBusPendingReply<NMVariantMapMap> reply = connection->secrets(gsmGroup);
        reply.waitForFinished();
        if (!reply.isError() && gsmSetting) {
            gsmSetting->secretsFromMap(reply.value().value(gsmGroup));
        }
    }
}

NetworkManager::Connection::Ptr Engine::findConnection(const QString& name, NetworkManager::Device::Ptr device)
{
    const NetworkManager::Connection::List candidates =
        device ? device->availableConnections() : NetworkManager::listConnections();
    for (const NetworkManager::Connection::Ptr& connection : candidates) {
        if (connection->name() == name) {
            return connection;
        }
    }
    return {};
}

NetworkManager::AccessPoint::Ptr Engine::findAccessPoint(NetworkManager::Device::Ptr device, const QString& ssid)
{
    if (!device || device->type() != NetworkManager::Device::Wifi) {
        return {};
    }
    auto wireless = device.objectCast<NetworkManager::WirelessDevice>();
    for (const NetworkManager::WirelessNetwork::Ptr& network : wireless->networks()) {
        if (network->ssid() == ssid) {
            return network->referenceAccessPoint();
        }
    }
    return {};
}

} // namespace Tarvik
