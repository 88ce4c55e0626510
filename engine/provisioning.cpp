#include "engine/engine.h"

namespace Tarvik {

void Engine::reload() {}
void Engine::reloadDevice(NetworkManager::Device::Ptr) {}
NetworkManager::Connection::Ptr Engine::updateConnection(NetworkManager::Device::Ptr, const Config&) { return {}; }
bool Engine::updateConnectionSettings(NetworkManager::ConnectionSettings::Ptr, const Config&, const QString&)
{
    return false;
}
bool Engine::updateIpv4Configuration(NetworkManager::Ipv4Setting::Ptr, const Config::Ipv4Config&) { return false; }
NetworkManager::Connection::Ptr Engine::findConnection(const QString&, NetworkManager::Device::Ptr) { return {}; }
NetworkManager::AccessPoint::Ptr Engine::findAccessPoint(NetworkManager::Device::Ptr, const QString&) { return {}; }

} // namespace Tarvik
