#pragma once

#include "engine/devicekind.h"
#include "ipc/ipc.h"
#include "log/taggedlog.h"

#include <NetworkManagerQt/Device>
#include <QObject>

#include <functional>

namespace Tarvik {

// Sends the documents of a device, each built at the moment it goes out. The configuration document waits for
// the profile's secrets without holding anything else up; when they cannot be read, an error naming the device
// goes out instead of a document that would pass their absence off as the truth.
class DevicePublisher : public QObject
{
    Q_OBJECT

public:
    DevicePublisher(IPC* ipc, QObject* parent);

    // Devices of other kinds have no documents: nothing is published for them.
    void publishState(const NetworkManager::Device::Ptr& device);
    // `then` runs once the document or the error is out.
    void publishConfig(const NetworkManager::Device::Ptr& device, std::function<void()> then);
    // State, configuration and companions, in this order; `then` runs once all are out.
    void publishAll(const NetworkManager::Device::Ptr& device, std::function<void()> then);

private:
    void publish(const NetworkManager::Device::Ptr& device, const DeviceDocument& document);
    void publishSecretsFailure(const NetworkManager::Device::Ptr& device, const DeviceKind& kind,
                               const NetworkManager::Connection::Ptr& profile, const QDBusError& error);

    IPC* m_ipc;
    const TaggedLog log{"[Engine] "};
};

} // namespace Tarvik
