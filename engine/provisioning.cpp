#include "engine/engine.h"

#include "documents/daemonsonbus.h"
#include "engine/confirmedchanges.h"
#include "engine/devicekind.h"
#include "engine/devicepublisher.h"
#include "engine/devicework.h"
#include "engine/homeassistantdiscovery.h"
#include "engine/profileprovisioning.h"
#include "engine/usagebudget.h"

#include <memory>

namespace Tarvik {

void Engine::reload()
{
    log(Log::Info, "Reloading all devices and connections.");
    m_ipc->publishNetworkStatus();
    m_ipc->publishNetworkInfo();
    if (!isOnBus(Daemon::NetworkManager)) {
        return;
    }
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
    m_discovery->setDevices(HomeAssistantDiscovery::devicesOnBus());
}

void Engine::reloadDevice(NetworkManager::Device::Ptr device)
{
    m_work->add(device->uni(), DeviceWork::Reload, [this, device](const DeviceWork::Finished& finished) {
        monitorDevice(device);
        const DeviceKind* kind = DeviceKind::of(device->type());
        const DeviceRecord record = kind ? kind->recordOf(*m_config) : DeviceRecord();
        const auto provisioned = [this, device, kind, finished](NetworkManager::Connection::Ptr connection) {
            if (!kind) {
                log(Log::Warning, "Skipping device: %s", qPrintable(device->interfaceName()));
                finished();
                return;
            }
            m_publisher->publishAll(device, [this, device, connection, finished] {
                followModemStats(device);
                publishConfigWhenVisible(device, connection);
                finished();
            });
        };
        // A change on trial may be what cut the broker off: provisioning from the file would undo it before
        // it can be confirmed.
        if (m_changes->isPending(device->uni()))
            provisioned({});
        else
            updateConnection(device, record, provisioned);
    });
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
                           m_work->add(device->uni(), DeviceWork::ConfigReading,
                                       [this, device](const DeviceWork::Finished& finished) {
                                           m_publisher->publishConfig(device, finished);
                                       });
                       });
}

void Engine::updateConnection(NetworkManager::Device::Ptr device, const DeviceRecord& record,
                              std::function<void(NetworkManager::Connection::Ptr)> done)
{
    // The record waits in the file: the modem is provisioned when the cut-off ends.
    if (device->type() == NetworkManager::Device::Modem && m_usage->holdsModemDown()) {
        log(Log::Info, "[Modem] %s stays down: its data budget is used up.", qPrintable(device->interfaceName()));
        done({});
        return;
    }
    ProfileProvisioning::start(device, record, this, std::move(done));
}

} // namespace Tarvik
