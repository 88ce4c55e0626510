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
// Waits for the profile's secrets, so that the key is in the document.
QJsonObject wifiConfigDocument(NetworkManager::WirelessDevice::Ptr device);
QJsonObject wifiAccessPointsDocument(NetworkManager::WirelessDevice::Ptr device);
QJsonObject wifiNetworksDocument(NetworkManager::WirelessDevice::Ptr device);

QJsonObject modemStateDocument(NetworkManager::ModemDevice::Ptr device);
// Waits for the profile's secrets, so that the password and PIN are in the document.
QJsonObject modemConfigDocument(NetworkManager::ModemDevice::Ptr device);
// Empty when ModemManager does not know the modem.
QJsonObject modemSignalDocument(NetworkManager::ModemDevice::Ptr device);
QJsonObject modemStatsDocument(const UsageByMonth& usage);

// The encoders the documents share.
QJsonValue toJson(NetworkManager::ActiveConnection::Ptr connection);
QJsonValue toJson(const NetworkManager::IpConfig& config);
QJsonValue toJson(NetworkManager::Ipv4Setting::Ptr setting);
QJsonValue toJson(NetworkManager::AccessPoint::Ptr ap);

} // namespace Tarvik
