#pragma once

#include <NetworkManagerQt/Device>
#include <QString>

namespace Tarvik {

// The reduced device state that tarvik reports: many NetworkManager states
// collapse into one so that activation steps do not flood the clients.
enum DeviceState {
    Unavailable = 0,
    Disconnected = 1,
    Disconnecting = 2,
    Connecting = 3,
    Connected = 4
};

DeviceState mapDeviceState(NetworkManager::Device::State state);
QString deviceStateToString(DeviceState state);

} // namespace Tarvik
