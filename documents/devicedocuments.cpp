// State, configuration, access points and networks of the wired and the
// wireless device.

#include "documents/documentparts.h"
#include "documents/documents.h"
#include "vocabulary/devicestate.h"

#include <NetworkManagerQt/Manager>
#include <NetworkManagerQt/WirelessNetwork>
#include <NetworkManagerQt/WirelessSetting>
#include <QJsonArray>

namespace Tarvik {

namespace {

// Live addresses of the device's active connection, or null while it is not connected.
QJsonValue connectedIpv4(const NetworkManager::Device::Ptr& device, DeviceState state)
{
    const NetworkManager::ActiveConnection::Ptr active = device->activeConnection();
    if (state != Connected || !active) {
        return QJsonValue::Null;
    }
    return toJson(active->ipV4Config());
}

// An SSID is raw bytes; clients get the part before the first zero byte.
QString ssidText(const QByteArray& ssid)
{
    const int end = ssid.indexOf('\0');
    return QString::fromLatin1(end < 0 ? ssid : ssid.left(end));
}

QJsonObject networkObject(const NetworkManager::WirelessNetwork::Ptr& network)
{
    QJsonObject object;
    object.insert("ssid", network->ssid());
    object.insert("signalStrength", network->signalStrength());
    const NetworkManager::Device::Ptr device = NetworkManager::findNetworkInterface(network->device());
    object.insert("device", device ? QJsonValue(device->interfaceName()) : QJsonValue::Null);
    object.insert("referenceAP", toJson(network->referenceAccessPoint()));
    QJsonArray accessPoints;
    for (const NetworkManager::AccessPoint::Ptr& ap : network->accessPoints()) {
        if (ap) {
            accessPoints.append(toJson(ap));
        }
    }
    object.insert("accessPoints", accessPoints);
    return object;
}

} // namespace

QJsonObject ethernetStateDocument(NetworkManager::WiredDevice::Ptr dev)
{
    const DeviceState state = mapDeviceState(dev->state());
    // Without a cable the device cannot be connected, whatever NetworkManager
    // still reports; the addresses follow the real state all the same.
    QJsonObject document;
    DocumentParts::insertStateMembers(document, dev, dev->carrier() ? state : Disconnected);
    document.insert("mac", dev->hardwareAddress());
    document.insert("ipv4", connectedIpv4(dev, state));
    return document;
}

QJsonObject ethernetConfigDocument(NetworkManager::WiredDevice::Ptr dev)
{
    const NetworkManager::Connection::Ptr profile = DocumentParts::firstAvailableConnection(dev);
    if (!profile) {
        return DocumentParts::unknownConfig(dev);
    }
    QJsonObject document = DocumentParts::ipv4ConfigMembers(profile);
    document.insert("interface", dev->interfaceName());
    return document;
}

QJsonObject wifiStateDocument(NetworkManager::WirelessDevice::Ptr dev)
{
    const DeviceState state = mapDeviceState(dev->state());
    QJsonObject document;
    DocumentParts::insertStateMembers(document, dev, state);
    document.insert("mac", dev->hardwareAddress());
    document.insert("ipv4", connectedIpv4(dev, state));
    document.insert("ap", state == Connected ? toJson(dev->activeAccessPoint()) : QJsonValue::Null);
    return document;
}

QJsonObject wifiConfigDocument(NetworkManager::WirelessDevice::Ptr dev, const std::optional<QVariantMap>& secrets)
{
    const NetworkManager::Connection::Ptr profile = DocumentParts::firstAvailableConnection(dev);
    if (!profile) {
        QJsonObject document = DocumentParts::unknownConfig(dev);
        document.insert("ssid", QJsonValue::Null);
        document.insert("key", QJsonValue::Null);
        return document;
    }
    QJsonObject document = DocumentParts::ipv4ConfigMembers(profile);
    const auto wireless = DocumentParts::profileSetting<NetworkManager::WirelessSetting>(
        profile, NetworkManager::Setting::Wireless);
    if (wireless) {
        document.insert("ssid", ssidText(wireless->ssid()));
    }
    // Unset when NetworkManager holds no security secrets for the profile (an open network, for example).
    if (secrets) {
        document.insert("key", secrets->value("psk").toString());
    }
    document.insert("interface", dev->interfaceName());
    return document;
}

QJsonObject wifiAccessPointsDocument(NetworkManager::WirelessDevice::Ptr dev)
{
    QJsonArray aps;
    for (const QString& path : dev->accessPoints()) {
        const NetworkManager::AccessPoint::Ptr ap = dev->findAccessPoint(path);
        if (ap) {
            aps.append(toJson(ap));
        }
    }
    QJsonObject document;
    document.insert("interface", dev->interfaceName());
    document.insert("aps", aps);
    return document;
}

QJsonObject wifiNetworksDocument(NetworkManager::WirelessDevice::Ptr dev)
{
    QJsonArray networks;
    for (const NetworkManager::WirelessNetwork::Ptr& network : dev->networks()) {
        if (network) {
            networks.append(networkObject(network));
        }
    }
    QJsonObject document;
    document.insert("interface", dev->interfaceName());
    document.insert("networks", networks);
    return document;
}

} // namespace Tarvik
