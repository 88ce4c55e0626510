#include "engine/engine.h"
#include "engine/profilesettings.h"

#include "vocabulary/devicestate.h"
#include "vocabulary/valuenames.h"

#include <NetworkManagerQt/GsmSetting>
#include <NetworkManagerQt/Settings>
#include <NetworkManagerQt/WiredDevice>
#include <NetworkManagerQt/WirelessDevice>
#include <NetworkManagerQt/WirelessNetwork>
#include <NetworkManagerQt/WirelessSecuritySetting>
#include <QDBusPendingReply>
#include <QDateTime>

#include <memory>

namespace Tarvik {

namespace {

const QString wirelessSecurityGroup = QStringLiteral("802-11-wireless-security");
const QString gsmGroup = QStringLiteral("gsm");

template <typename T>
QSharedPointer<T> settingOf(NetworkManager::ConnectionSettings::Ptr settings, NetworkManager::Setting::SettingType type)
{
    return settings->setting(type).template staticCast<T>();
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
    const NetworkManager::Connection::Ptr connection = updateConnection(device, *m_config);

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
    publishConfigWhenVisible(device, connection);
}

void Engine::publishConfigWhenVisible(NetworkManager::Device::Ptr device, NetworkManager::Connection::Ptr connection)
{
    if (!connection) {
        return;
    }
    const QString path = connection->path();
    for (const NetworkManager::Connection::Ptr& available : device->availableConnections()) {
        if (available->path() == path) {
            return;
        }
    }
    // A profile just created joins the device's list a moment later, and the
    // configuration document published until then describes no profile.
    // The handler lives in the device object: it must not keep it alive.
    const QWeakPointer<NetworkManager::Device> watched = device;
    auto handler = std::make_shared<QMetaObject::Connection>();
    *handler = connect(device.data(), &NetworkManager::Device::availableConnectionAppeared, this,
                       [this, watched, path, handler](const QString& appeared) {
                           const auto device = watched.toStrongRef();
                           if (appeared != path || !device) {
                               return;
                           }
                           disconnect(*handler);
                           m_ipc->publishDeviceConfig(device);
                       });
}

std::optional<Engine::ProfileTarget> Engine::profileTarget(NetworkManager::Device::Ptr device, const Config& config)
{
    ProfileTarget target;
    target.tag = typeText(device->type());
    const char* tag = target.tag.constData();

    switch (device->type()) {
    case NetworkManager::Device::Ethernet: {
        auto wired = device.objectCast<NetworkManager::WiredDevice>();
        if (!wired || !wired->carrier()) {
            log(Log::Info, "[%s] Carrier not detected (cable unplugged). Will not attempt to connect.", tag);
            return std::nullopt;
        }
        log(Log::Info, "[%s] Carrier detected (cable is plugged).", tag);
        target.name = config.ethernet().id;
        target.type = NetworkManager::ConnectionSettings::Wired;
        return target;
    }
    case NetworkManager::Device::Wifi: {
        const QString& ssid = config.wifi().ssid;
        if (ssid.isEmpty()) {
            log(Log::Info, "[%s] SSID not configured. Will not attempt to connect.", tag);
            return std::nullopt;
        }
        auto accessPoint = findAccessPoint(device, ssid);
        if (!accessPoint) {
            log(Log::Info, "[Wifi] Configured access point '%s' not in range. Will not attempt to connect.",
                qPrintable(ssid));
            return std::nullopt;
        }
        target.name = ssid;
        target.type = NetworkManager::ConnectionSettings::Wireless;
        target.accessPoint = accessPoint->uni();
        target.security = apSecurityOf(accessPoint);
        return target;
    }
    case NetworkManager::Device::Modem:
        target.name = config.modem().id;
        target.type = NetworkManager::ConnectionSettings::Gsm;
        return target;
    default:
        // NetworkManager would complete a profile without a type from the
        // device and activate it, taking the link down each time.
        log(Log::Info, "[%s] No configuration for this device type. Will not attempt to connect.", tag);
        return std::nullopt;
    }
}

NetworkManager::Connection::Ptr Engine::updateConnection(NetworkManager::Device::Ptr device, const Config& config)
{
    if (!device || !device->isValid()) {
        return {};
    }
    const std::optional<ProfileTarget> target = profileTarget(device, config);
    if (!target) {
        return {};
    }
    const char* tag = target->tag.constData();
    const QByteArray name = target->name.toLocal8Bit();
    log(Log::Info, "[%s] Checking connection: %s", tag, name.constData());
    if (target->name.isEmpty()) {
        return {};
    }

    NetworkManager::Connection::Ptr connection = findConnection(target->name, device);
    if (!connection) {
        return createConnection(device, config, *target);
    }

    log(Log::Info, "[%s] Connection '%s' already exists.", tag, name.constData());
    loadConnectionSecrets(connection, device);
    const NetworkManager::ConnectionSettings::Ptr settings = connection->settings();
    const bool clearSecrets = emptiesStoredSecrets(settings, config.modem());
    if (configureSettings(settings, config, *target)) {
        log(Log::Info, "[%s] Connection settings have changed. Applying new settings.", tag);
        if (!sendUpdate(connection, settings, clearSecrets, *target) || !activate(connection, device, *target)) {
            return {};
        }
        log(Log::Info, "[%s] Connection '%s' updated.", tag, name.constData());
        return connection;
    }

    log(Log::Info, "[%s] No update required for connection '%s'.", tag, name.constData());
    NetworkManager::ActiveConnection::Ptr active = device->activeConnection();
    if (active && active->connection() == connection) {
        return connection;
    }
    log(Log::Info, "[%s] Connection '%s' not active. Activating.", tag, name.constData());
    if (!activate(connection, device, *target)) {
        return {};
    }
    log(Log::Info, "[%s] Connection '%s' activated.", tag, name.constData());
    return connection;
}

NetworkManager::Connection::Ptr Engine::createConnection(NetworkManager::Device::Ptr device, const Config& config,
                                                         const ProfileTarget& target)
{
    const char* tag = target.tag.constData();
    const QByteArray name = target.name.toLocal8Bit();
    log(Log::Info, "[%s] Connection '%s' does not exist. Creating and activating.", tag, name.constData());
    NetworkManager::ConnectionSettings::Ptr settings(new NetworkManager::ConnectionSettings(target.type));
    settings->setUuid(NetworkManager::ConnectionSettings::createNewUuid());
    settings->setTimestamp(QDateTime::currentDateTime());
    configureSettings(settings, config, target);

    QDBusPendingReply<QDBusObjectPath, QDBusObjectPath> reply =
        NetworkManager::addAndActivateConnection(settings->toMap(), device->uni(), target.accessPoint);
    reply.waitForFinished();
    if (!reply.isValid()) {
        log(Log::Info, "[%s] Failed to create connection '%s' : %s", tag, name.constData(),
            qPrintable(reply.error().message()));
        return {};
    }
    log(Log::Info, "[%s] Connection '%s' created successfully.", tag, name.constData());
    return NetworkManager::findConnection(reply.argumentAt<0>().path());
}

bool Engine::configureSettings(NetworkManager::ConnectionSettings::Ptr settings, const Config& config,
                               const ProfileTarget& target)
{
    if (target.security == ApSecurity::Unknown) {
        log(Log::Error, "Could not determine Wifi security for AP '%s'. Defaulting to 'none'.",
            qPrintable(target.name));
    }
    return updateConnectionSettings(settings, config, target.security);
}

bool Engine::sendUpdate(NetworkManager::Connection::Ptr connection, NetworkManager::ConnectionSettings::Ptr settings,
                        bool clearSecrets, const ProfileTarget& target)
{
    const char* tag = target.tag.constData();
    if (clearSecrets) {
        QDBusPendingReply<> cleared = connection->clearSecrets();
        cleared.waitForFinished();
        if (!cleared.isValid()) {
            log(Log::Info, "[%s] Failed to clear the secrets of connection '%s' : %s", tag,
                qPrintable(target.name), qPrintable(cleared.error().message()));
        }
    }

    const UpdateMap update = updateMapOf(settings);
    QDBusPendingReply<> reply = connection->update(update.settings);
    reply.waitForFinished();
    if (!reply.isValid() && update.refusesAddedKey(reply.error().name(), reply.error().message())) {
        log(Log::Info, "[%s] NetworkManager refused the empty GSM secrets of connection '%s' (%s). "
                       "Updating without them.",
            tag, qPrintable(target.name), qPrintable(reply.error().message()));
        reply = connection->update(update.withoutAddedKeys());
        reply.waitForFinished();
    }
    if (!reply.isValid()) {
        log(Log::Info, "[%s] Failed to update connection '%s' : %s", tag, qPrintable(target.name),
            qPrintable(reply.error().message()));
        return false;
    }
    return true;
}

bool Engine::activate(NetworkManager::Connection::Ptr connection, NetworkManager::Device::Ptr device,
                      const ProfileTarget& target)
{
    QDBusPendingReply<QDBusObjectPath> reply =
        NetworkManager::activateConnection(connection->path(), device->uni(), target.accessPoint);
    reply.waitForFinished();
    if (!reply.isValid()) {
        log(Log::Info, "[%s] Failed to activate connection: %s", target.tag.constData(),
            qPrintable(reply.error().message()));
    }
    return reply.isValid();
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
