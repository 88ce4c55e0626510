// Temporary empty definitions so that the library links until the document
// slots land; delete this file on merge.
#include "ipc/ipc.h"

namespace Tarvik {

QJsonValue IPC::toJson(NetworkManager::ActiveConnection::Ptr) { return {}; }
QJsonValue IPC::toJson(const NetworkManager::IpConfig&) { return {}; }
QJsonValue IPC::toJson(NetworkManager::Ipv4Setting::Ptr) { return {}; }
QJsonValue IPC::toJson(NetworkManager::AccessPoint::Ptr) { return {}; }
void IPC::publishNetworkStatus() {}
void IPC::publishNetworkInfo() {}
void IPC::publishDeviceState(NetworkManager::Device::Ptr) {}
void IPC::publishDeviceConfig(NetworkManager::Device::Ptr) {}
void IPC::publishEthernetState(NetworkManager::WiredDevice::Ptr) {}
void IPC::publishEthernetConfig(NetworkManager::WiredDevice::Ptr) {}
void IPC::publishWifiState(NetworkManager::WirelessDevice::Ptr) {}
void IPC::publishWifiConfig(NetworkManager::WirelessDevice::Ptr) {}
void IPC::publishWifiAccessPoints(NetworkManager::WirelessDevice::Ptr) {}
void IPC::publishWifiNetworks(NetworkManager::WirelessDevice::Ptr) {}
void IPC::publishModemState(NetworkManager::ModemDevice::Ptr) {}
void IPC::publishModemStats(const QMap<QString, QMap<QString, double> >&) {}
void IPC::publishModemConfig(NetworkManager::ModemDevice::Ptr) {}
void IPC::publishDeviceModemSignal(NetworkManager::ModemDevice::Ptr) {}

} // namespace Tarvik
