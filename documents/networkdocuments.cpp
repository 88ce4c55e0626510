// The network as a whole, the routing of generic devices, and the encoders
// that every device document shares.

#include "documents/daemonsonbus.h"
#include "documents/documentparts.h"
#include "documents/documents.h"
#include "vocabulary/devicestate.h"
#include "vocabulary/valuenames.h"

#include <NetworkManagerQt/Manager>
#include <NetworkManagerQt/Settings>
#include <QJsonArray>

namespace Tarvik {

namespace {

const char* const serviceType = "network";
const char* const serviceVersion = TARVIK_VERSION;

// An active connection names its devices by path; the first one is its device.
NetworkManager::Device::Ptr deviceOf(const NetworkManager::ActiveConnection::Ptr& connection)
{
    const QStringList paths = connection->devices();
    if (paths.isEmpty()) {
        return NetworkManager::Device::Ptr();
    }
    return NetworkManager::findNetworkInterface(paths.first());
}

// What the library reports while it has no daemon to read from.
QJsonObject unknownNetworkStatus()
{
    QJsonObject document;
    document.insert("hostname", QString());
    document.insert("state", int(NetworkManager::Unknown));
    document.insert("stateStr", statusToString(NetworkManager::Unknown));
    document.insert("connectivity", int(NetworkManager::UnknownConnectivity));
    document.insert("connectivityStr", connectivityToString(NetworkManager::UnknownConnectivity));
    document.insert("primaryConnection", QJsonValue::Null);
    return document;
}

} // namespace

QJsonObject networkStatusDocument()
{
    if (!isOnBus(Daemon::NetworkManager)) {
        return unknownNetworkStatus();
    }
    QJsonObject document;
    document.insert("hostname", NetworkManager::hostname());
    document.insert("state", int(NetworkManager::status()));
    document.insert("stateStr", statusToString(NetworkManager::status()));
    document.insert("connectivity", int(NetworkManager::connectivity()));
    document.insert("connectivityStr", connectivityToString(NetworkManager::connectivity()));
    document.insert("primaryConnection", toJson(NetworkManager::primaryConnection()));
    return document;
}

QJsonObject networkInfoDocument()
{
    QJsonObject service;
    service.insert("type", serviceType);
    service.insert("version", serviceVersion);
    QJsonObject document;
    document.insert("service", service);
    return document;
}

QJsonObject errorDocument(const QString& command, const QString& error)
{
    return QJsonObject{{"command", command}, {"error", error}};
}

QJsonValue toJson(NetworkManager::ActiveConnection::Ptr connection)
{
    if (!connection || !connection->isValid()) {
        return QJsonValue::Null;
    }
    QJsonObject object;
    const NetworkManager::Device::Ptr device = deviceOf(connection);
    const DeviceState state = device ? mapDeviceState(device->state()) : Unavailable;
    DocumentParts::insertDeviceMembers(object, device, state);
    const NetworkManager::Connection::Ptr profile = connection->connection();
    object.insert("connectionName", profile ? QJsonValue(profile->name()) : QJsonValue::Null);
    object.insert("ipv4", toJson(connection->ipV4Config()));
    return object;
}

QJsonValue toJson(const NetworkManager::IpConfig& config)
{
    QJsonObject object;
    const QList<NetworkManager::IpAddress> addresses = config.addresses();
    if (!addresses.isEmpty()) {
        object.insert("address", addresses.first().ip().toString());
        object.insert("netmask", addresses.first().netmask().toString());
    }
    const QList<QHostAddress> nameservers = config.nameservers();
    for (int i = 0; i < nameservers.size(); ++i) {
        object.insert(QStringLiteral("dns%1").arg(i), nameservers.at(i).toString());
    }
    object.insert("gateway", config.gateway());
    return object;
}

QJsonValue toJson(NetworkManager::Ipv4Setting::Ptr setting)
{
    if (!setting) {
        return QJsonValue::Null;
    }
    QJsonObject object;
    object.insert("method", ipv4SettingMethodToString(setting->method()));
    const QList<NetworkManager::IpAddress> addresses = setting->addresses();
    if (!addresses.isEmpty()) {
        object.insert("address", addresses.first().ip().toString());
        object.insert("netmask", addresses.first().netmask().toString());
        object.insert("gateway", addresses.first().gateway().toString());
    }
    // Configured values: the profile holds at most two name servers.
    const QList<QHostAddress> dns = setting->dns();
    if (dns.size() > 0) {
        object.insert("dns0", dns.at(0).toString());
    }
    if (dns.size() > 1) {
        object.insert("dns1", dns.at(1).toString());
    }
    return object;
}

QJsonValue toJson(NetworkManager::AccessPoint::Ptr ap)
{
    if (!ap) {
        return QJsonValue::Null;
    }
    QJsonObject object;
    object.insert("ssid", ap->ssid());
    object.insert("frequency", int(ap->frequency()));
    object.insert("hardwareAddress", ap->hardwareAddress());
    object.insert("maxBitRate", int(ap->maxBitRate()));
    object.insert("signalStrength", ap->signalStrength());
    object.insert("mode", apModeToString(ap->mode()));
    object.insert("security", apSecurity(ap));
    return object;
}

namespace DocumentParts {

void insertDeviceMembers(QJsonObject& document, const NetworkManager::Device::Ptr& device, DeviceState state)
{
    if (!device) {
        for (const char* key : {"interface", "type", "typeStr", "state", "stateStr"}) {
            document.insert(key, QJsonValue::Null);
        }
        return;
    }
    document.insert("interface", device->interfaceName());
    document.insert("type", int(device->type()));
    document.insert("typeStr", deviceTypeToString(device->type()));
    document.insert("state", int(state));
    document.insert("stateStr", deviceStateToString(state));
}

void insertStateMembers(QJsonObject& document, const NetworkManager::Device::Ptr& device, DeviceState state)
{
    insertDeviceMembers(document, device, state);
    const NetworkManager::Device::StateChangeReason reason = device->stateReason().reason();
    document.insert("reason", int(reason));
    document.insert("reasonStr", stateChangeReasonToString(reason));
}

NetworkManager::Connection::Ptr firstAvailableConnection(const NetworkManager::Device::Ptr& device)
{
    const NetworkManager::Connection::List connections = device->availableConnections();
    return connections.isEmpty() ? NetworkManager::Connection::Ptr() : connections.first();
}

QJsonObject unknownConfig(const NetworkManager::Device::Ptr& device)
{
    QJsonObject document;
    document.insert("method", "unknown");
    document.insert("interface", device->interfaceName());
    return document;
}

QJsonObject ipv4ConfigMembers(const NetworkManager::Connection::Ptr& profile)
{
    const auto setting = profileSetting<NetworkManager::Ipv4Setting>(profile, NetworkManager::Setting::Ipv4);
    return toJson(setting).toObject();
}

} // namespace DocumentParts

} // namespace Tarvik
