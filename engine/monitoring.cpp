#include "engine/engine.h"

namespace Tarvik {

void Engine::monitorNetwork() {}
void Engine::monitorDevice(NetworkManager::Device::Ptr) {}
void Engine::unmonitorDevice(NetworkManager::Device::Ptr) {}
NetworkManager::Device::Ptr Engine::getDeviceFromSender(QObject*) { return {}; }
NetworkManager::Device::Ptr Engine::getDeviceFromUni(const QString&) { return {}; }
NetworkManager::ActiveConnection::Ptr Engine::getConnectionFromUni(const QString&) { return {}; }
void Engine::onStatusChanged(NetworkManager::Status) {}
void Engine::onPrimaryConnectionChanged(const QString&) {}
void Engine::onDeviceAdded(const QString&) {}
void Engine::onDeviceRemoved(const QString&) {}
void Engine::onDeviceStateChanged(NetworkManager::Device::State, NetworkManager::Device::State,
                                  NetworkManager::Device::StateChangeReason)
{
}
void Engine::onDeviceManagedChanged() {}
void Engine::onInterfaceNameChanged() {}

} // namespace Tarvik
