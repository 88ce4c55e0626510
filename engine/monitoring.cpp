#include "engine/engine.h"

#include "documents/daemonsonbus.h"
#include "documents/documents.h"
#include "engine/burstpublisher.h"
#include "engine/confirmedchanges.h"
#include "engine/daemonpresence.h"
#include "engine/devicekind.h"
#include "engine/devicepublisher.h"
#include "engine/homeassistantdiscovery.h"
#include "engine/pendingcall.h"
#include "vocabulary/devicestate.h"
#include "vocabulary/valuenames.h"

#include <ModemManagerQt/GenericTypes>
#include <ModemManagerQt/Manager>
#include <ModemManagerQt/Modem>
#include <ModemManagerQt/ModemDevice>
#include <NetworkManagerQt/Settings>
#include <NetworkManagerQt/WiredDevice>
#include <NetworkManagerQt/WirelessDevice>
#include <NetworkManagerQt/WirelessNetwork>
#include <QDBusConnection>

namespace Tarvik {

namespace {

constexpr int scanIntervalMs = 30000;
// NetworkManager announces a device before all of its properties are in
// place; give it a moment before the device is provisioned.
constexpr int deviceSettleDelayMs = 1000;

} // namespace

void Engine::monitorNetwork()
{
    // Every reconnection of the broker lands here: drop whatever is attached
    // so that each notifier signal ends up with exactly one handler.
    m_networkManagerLinked = true;
    NetworkManager::settingsNotifier()->disconnect();
    NetworkManager::notifier()->disconnect();

    auto* notifier = NetworkManager::notifier();
    connect(notifier, &NetworkManager::Notifier::statusChanged, this, &Engine::onStatusChanged);
    connect(notifier, &NetworkManager::Notifier::primaryConnectionChanged, this, &Engine::onPrimaryConnectionChanged);
    connect(notifier, &NetworkManager::Notifier::deviceAdded, this, &Engine::onDeviceAdded);
    connect(notifier, &NetworkManager::Notifier::deviceRemoved, this, &Engine::onDeviceRemoved);
    connect(notifier, &NetworkManager::Notifier::serviceDisappeared, this, &Engine::onNetworkManagerDisappeared);
    connect(notifier, &NetworkManager::Notifier::serviceAppeared, this, &Engine::onNetworkManagerAppeared);
}

void Engine::monitorModemManager()
{
    m_modemManagerLinked = true;
    auto* notifier = ModemManager::notifier();
    connect(notifier, &ModemManager::Notifier::serviceDisappeared, this, &Engine::onModemManagerDisappeared);
    connect(notifier, &ModemManager::Notifier::serviceAppeared, this, &Engine::onModemManagerAppeared);
    connect(notifier, &ModemManager::Notifier::modemAdded, this, &Engine::onModemAdded);
}

bool Engine::checkSystemBus()
{
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.isConnected()) {
        log(Log::Error, "Cannot reach the D-Bus system bus: %s. tarvik cannot work without it.",
            qPrintable(bus.lastError().message()));
        return false;
    }
    return true;
}

// The broker session starts once the bus has said which daemons are there (a
// millisecond): the first reload then knows what it may read.
void Engine::startOnceDaemonsKnown()
{
    if (m_started || !m_networkManager->isKnown() || !m_modemManager->isKnown())
        return;
    m_started = true;
    m_ipc->connect();
}

void Engine::onNetworkManagerKnown(bool present)
{
    setOnBus(Daemon::NetworkManager, present);
    if (!present)
        log(Log::Error, "[Network] NetworkManager is not on the system bus. Waiting for it.");
    startOnceDaemonsKnown();
}

void Engine::onNetworkManagerPresenceChanged(bool present)
{
    setOnBus(Daemon::NetworkManager, present);
    if (!present)
        m_changes->onNetworkManagerGone();
    if (m_networkManagerLinked)
        return;
    if (present)
        onNetworkManagerAppeared();
    else
        onNetworkManagerDisappeared();
}

void Engine::onModemManagerKnown(bool present)
{
    setOnBus(Daemon::ModemManager, present);
    if (present)
        monitorModemManager();
    else
        log(Log::Warning, "[Modem] ModemManager is not on the system bus. Waiting for it.");
    startOnceDaemonsKnown();
}

void Engine::onModemManagerPresenceChanged(bool present)
{
    setOnBus(Daemon::ModemManager, present);
    if (m_modemManagerLinked)
        return;
    if (!present) {
        onModemManagerDisappeared();
        return;
    }
    onModemManagerAppeared();
    monitorModemManager();
    // The library has just read the modems that were there before it.
    for (const ModemManager::ModemDevice::Ptr& modem : ModemManager::modemDevices())
        reloadModemsLater(modem->uni());
}

void Engine::onNetworkManagerDisappeared()
{
    log(Log::Error, "[Network] NetworkManager left the system bus. Waiting for it to return.");
}

void Engine::onNetworkManagerAppeared()
{
    log(Log::Info, "[Network] NetworkManager is on the system bus.");
    // Everything it knew is new to the library: start over as at a broker connection.
    if (m_brokerConnected) {
        reload();
    }
}

void Engine::onModemManagerDisappeared()
{
    log(Log::Warning, "[Modem] ModemManager left the system bus. Signal quality is not followed until it returns.");
}

void Engine::onModemManagerAppeared()
{
    log(Log::Info, "[Modem] ModemManager is on the system bus.");
}

void Engine::onModemAdded(const QString& udi)
{
    reloadModemsLater(udi);
}

void Engine::reloadModemsLater(const QString& udi)
{
    if (!m_networkManagerLinked || !isOnBus(Daemon::NetworkManager))
        return;
    // A modem of a returning ModemManager is a new object: the NetworkManager
    // device that refers to it is watched and provisioned afresh.
    for (const NetworkManager::Device::Ptr& device : NetworkManager::networkInterfaces()) {
        if (device->type() != NetworkManager::Device::Modem || device->udi() != udi) {
            continue;
        }
        log(Log::Info, "[Modem] ModemManager announced the modem of %s.", qPrintable(device->interfaceName()));
        QTimer::singleShot(deviceSettleDelayMs, Qt::PreciseTimer, this, [this, device]() { reloadDevice(device); });
    }
}

void Engine::monitorDevice(NetworkManager::Device::Ptr device)
{
    log(Log::Info, "[%s] Started monitoring device: %s", typeText(device->type()).constData(),
        qPrintable(device->interfaceName()));

    device->disconnect();
    connect(device.data(), &NetworkManager::Device::stateChanged, this, &Engine::onDeviceStateChanged);
    connect(device.data(), &NetworkManager::Device::managedChanged, this, &Engine::onDeviceManagedChanged);
    connect(device.data(), &NetworkManager::Device::interfaceNameChanged, this, &Engine::onInterfaceNameChanged);
    // The broker session may run over this device: an address that comes or goes can end its route.
    connect(device.data(), &NetworkManager::Device::ipV4ConfigChanged, m_ipc.get(), &IPC::onNetworkChanged);
    connect(device.data(), &NetworkManager::Device::ipV6ConfigChanged, m_ipc.get(), &IPC::onNetworkChanged);

    // Carrier changes of a wired device are seen through the state changes that follow them.
    if (const auto wireless = device.objectCast<NetworkManager::WirelessDevice>())
        monitorWirelessDevice(wireless);
    if (const auto modem = device.objectCast<NetworkManager::ModemDevice>())
        monitorModemSignal(modem);
}

void Engine::monitorWirelessDevice(NetworkManager::WirelessDevice::Ptr wireless)
{
    if (!wireless) {
        return;
    }
    // The handlers live in the device object itself: a strong reference there
    // would keep a removed device alive for ever.
    const QWeakPointer<NetworkManager::WirelessDevice> watched = wireless;
    disconnect(wireless.data(), &NetworkManager::WirelessDevice::accessPointAppeared, nullptr, nullptr);
    connect(wireless.data(), &NetworkManager::WirelessDevice::accessPointAppeared, this,
            [this, watched](const QString& path) {
                const auto wireless = watched.toStrongRef();
                auto accessPoint = wireless ? wireless->findAccessPoint(path) : NetworkManager::AccessPoint::Ptr();
                if (!accessPoint) {
                    return;
                }
                log(Log::Info, "[Wifi] AccessPoint '%s' appeared (dev=%s, signal=%d%%).",
                    qPrintable(accessPoint->ssid()), qPrintable(wireless->interfaceName()),
                    accessPoint->signalStrength());
            });
    disconnect(wireless.data(), &NetworkManager::WirelessDevice::networkAppeared, nullptr, nullptr);
    connect(wireless.data(), &NetworkManager::WirelessDevice::networkAppeared, this,
            [this, watched](const QString& ssid) {
                const auto wireless = watched.toStrongRef();
                auto network = wireless ? wireless->findNetwork(ssid) : NetworkManager::WirelessNetwork::Ptr();
                if (!network) {
                    return;
                }
                log(Log::Info, "[Wifi] Network '%s' found (dev=%s, signal=%d%%).", qPrintable(network->ssid()),
                    qPrintable(wireless->interfaceName()), network->signalStrength());
                m_bursts->publishLater(wireless->uni(), int(Topic::WifiNetworks), [this, watched] {
                    if (const auto wireless = watched.toStrongRef())
                        m_ipc->publish(Topic::WifiNetworks, wifiNetworksDocument(wireless));
                });
            });

    // One scan timer for the whole system: the Wi-Fi device monitored last is
    // the one that gets scanned.
    m_scanTimer.reset(new QTimer(this));
    connect(m_scanTimer.get(), &QTimer::timeout, this, [this, wireless]() { scanWifiNetworks(wireless); });
    m_scanTimer->start(scanIntervalMs);
}

void Engine::scanWifiNetworks(NetworkManager::WirelessDevice::Ptr wireless)
{
    const QByteArray type = typeText(wireless->type());
    log(Log::Debug, "[%s] Scanning for  Wifi networks.", type.constData());
    whenFinished(wireless->requestScan(QVariantMap()), this, [this, wireless, type](const QDBusPendingCall& reply) {
        if (reply.isError()) {
            log(Log::Info, "[%s] Failed to scan for Wifi networks: %s", type.constData(),
                qPrintable(reply.error().message()));
            return;
        }
        m_ipc->publish(Topic::WifiAccessPoints, wifiAccessPointsDocument(wireless));
        m_ipc->publish(Topic::WifiNetworks, wifiNetworksDocument(wireless));
    });
}

void Engine::monitorModemSignal(NetworkManager::ModemDevice::Ptr modemDevice)
{
    if (!modemDevice) {
        return;
    }
    auto modem = isOnBus(Daemon::ModemManager) ? ModemManager::findModemDevice(modemDevice->udi())
                                               : ModemManager::ModemDevice::Ptr();
    ModemManager::Modem::Ptr modemInterface = modem ? modem->modemInterface() : ModemManager::Modem::Ptr();
    if (!modemInterface) {
        log(Log::Warning, "[Modem] No ModemManager modem found for %s (dev=%s). Signal quality not monitored.",
            qPrintable(modemDevice->udi()), qPrintable(modemDevice->interfaceName()));
        return;
    }
    disconnect(modemInterface.data(), &ModemManager::Modem::signalQualityChanged, nullptr, nullptr);
    connect(modemInterface.data(), &ModemManager::Modem::signalQualityChanged, this,
            [this, modemDevice](ModemManager::SignalQualityPair signalQuality) {
                log(Log::Info, "[Modem] Signal changed '%u' (dev=%s).", signalQuality.signal,
                    qPrintable(modemDevice->interfaceName()));
                const QJsonObject document = modemSignalDocument(modemDevice);
                if (!document.isEmpty())
                    m_ipc->publish(Topic::ModemSignal, document);
            });
}

void Engine::unmonitorDevice(NetworkManager::Device::Ptr device)
{
    log(Log::Info, "Stopped monitoring device '%s'.", qPrintable(device->interfaceName()));
    device->disconnect();
}

NetworkManager::Device::Ptr Engine::getDeviceFromSender(QObject* sender)
{
    auto* device = qobject_cast<NetworkManager::Device*>(sender);
    if (!device) {
        return {};
    }
    return getDeviceFromUni(device->uni());
}

NetworkManager::Device::Ptr Engine::getDeviceFromUni(const QString& uni)
{
    auto device = NetworkManager::findNetworkInterface(uni);
    if (!device) {
        log(Log::Error, "getDeviceFromSender(): No device found for %s", qPrintable(uni));
    }
    return device;
}

NetworkManager::ActiveConnection::Ptr Engine::getConnectionFromUni(const QString& uni)
{
    auto connection = NetworkManager::findActiveConnection(uni);
    if (!connection) {
        log(Log::Error, "getConnectionFromUni(): No connection found for %s", qPrintable(uni));
    }
    return connection;
}

void Engine::onStatusChanged(NetworkManager::Status status)
{
    log(Log::Info, "[Network] Status changed: %d (%s)", static_cast<int>(status),
        qPrintable(statusToString(status)));
    m_ipc->publishNetworkStatus();
}

void Engine::onPrimaryConnectionChanged(const QString& uni)
{
    auto active = getConnectionFromUni(uni);
    if (!active) {
        return;
    }
    auto profile = active->connection();
    log(Log::Info, "[Network] Primary connection changed: %s", profile ? qPrintable(profile->name()) : "");
    m_ipc->publishNetworkStatus();
}

void Engine::onDeviceAdded(const QString& uni)
{
    auto device = getDeviceFromUni(uni);
    if (!device || !device->isValid()) {
        return;
    }
    log(Log::Info, "Device added: %s (dev=%s, active=%d, managed=%d)", typeText(device->type()).constData(),
        qPrintable(device->interfaceName()), device->isActive() ? 1 : 0, device->managed() ? 1 : 0);
    QTimer::singleShot(deviceSettleDelayMs, Qt::PreciseTimer, this, [this, device]() { reloadDevice(device); });
    m_discovery->setDevices(HomeAssistantDiscovery::devicesOnBus());
}

void Engine::onDeviceRemoved(const QString& uni)
{
    log(Log::Info, "Device removed: %s", qPrintable(uni));
    m_discovery->setDevices(HomeAssistantDiscovery::devicesOnBus());
}

void Engine::onDeviceStateChanged(NetworkManager::Device::State newstate, NetworkManager::Device::State oldstate,
                                  NetworkManager::Device::StateChangeReason reason)
{
    auto device = getDeviceFromSender(sender());
    if (!device) {
        return;
    }
    const DeviceState state = mapDeviceState(newstate);
    if (state == mapDeviceState(oldstate)) {
        return;
    }
    log(Log::Info, "[%s] State changed: %s (dev=%s, reason=%s).", typeText(device->type()).constData(),
        qPrintable(deviceStateToString(state)), qPrintable(device->interfaceName()),
        qPrintable(stateChangeReasonToString(reason)));
    m_publisher->publishState(device);
    followModemStats(device);
    m_ipc->onNetworkChanged();
}

void Engine::onDeviceManagedChanged()
{
    auto device = getDeviceFromSender(sender());
    if (!device) {
        return;
    }
    log(Log::Info, "[%s] Device is %s managed (name=%s).", typeText(device->type()).constData(),
        device->managed() ? "now" : "no longer", qPrintable(device->interfaceName()));
}

void Engine::onInterfaceNameChanged()
{
    auto device = getDeviceFromSender(sender());
    if (!device) {
        return;
    }
    log(Log::Info, "[%s] Device interface name changed: %s.", typeText(device->type()).constData(),
        qPrintable(device->interfaceName()));
}

} // namespace Tarvik
