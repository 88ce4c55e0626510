#pragma once

#include <NetworkManagerQt/AccessPoint>
#include <NetworkManagerQt/ActiveConnection>
#include <NetworkManagerQt/IpConfig>
#include <NetworkManagerQt/Ipv4Setting>
#include <NetworkManagerQt/ModemDevice>
#include <NetworkManagerQt/WiredDevice>
#include <NetworkManagerQt/WirelessDevice>
#include <QJsonObject>
#include <QJsonValue>
#include <QMap>
#include <QString>
#include <QVariantMap>

#include <optional>

// Every document tarvik publishes, computed from NetworkManager and
// ModemManager as they are at the moment of the call. Nothing here sends.
namespace Tarvik {

// Monthly data usage as the statistics produce it: month, then "rxbytes" and "txbytes" in megabytes.
using UsageByMonth = QMap<QString, QMap<QString, double>>;

QJsonObject networkStatusDocument();
QJsonObject networkInfoDocument();
QJsonObject errorDocument(const QString& command, const QString& error);

QJsonObject ethernetStateDocument(NetworkManager::WiredDevice::Ptr device);
QJsonObject ethernetConfigDocument(NetworkManager::WiredDevice::Ptr device);
QJsonObject wifiStateDocument(NetworkManager::WirelessDevice::Ptr device);
// secrets: the profile's wireless-security secrets as NetworkManager gave them, or none when it holds none.
QJsonObject wifiConfigDocument(NetworkManager::WirelessDevice::Ptr device, const std::optional<QVariantMap>& secrets);
QJsonObject wifiAccessPointsDocument(NetworkManager::WirelessDevice::Ptr device);
QJsonObject wifiNetworksDocument(NetworkManager::WirelessDevice::Ptr device);

QJsonObject modemStateDocument(NetworkManager::ModemDevice::Ptr device);
// secrets: the profile's GSM secrets as NetworkManager gave them, or none when it holds none.
QJsonObject modemConfigDocument(NetworkManager::ModemDevice::Ptr device, const std::optional<QVariantMap>& secrets);
// Empty when ModemManager does not know the modem (or is not on the bus).
QJsonObject modemSignalDocument(NetworkManager::ModemDevice::Ptr device);
QJsonObject modemStatsDocument(const UsageByMonth& usage);

// The encoders the documents share.
QJsonValue toJson(NetworkManager::ActiveConnection::Ptr connection);
QJsonValue toJson(const NetworkManager::IpConfig& config);
QJsonValue toJson(NetworkManager::Ipv4Setting::Ptr setting);
QJsonValue toJson(NetworkManager::AccessPoint::Ptr ap);

} // namespace Tarvik
