#include "engine/engine.h"

#include "documents/daemonsonbus.h"
#include "documents/documents.h"
#include "engine/burstpublisher.h"
#include "engine/confirmedchanges.h"
#include "engine/daemonpresence.h"
#include "engine/devicekind.h"
#include "engine/devicepublisher.h"
#include "engine/devicework.h"
#include "engine/homeassistantdiscovery.h"
#include "engine/modemdataport.h"
#include "engine/usagebudget.h"
#include "vocabulary/clienttext.h"
#include "vocabulary/valuenames.h"

#include <NetworkManagerQt/WirelessDevice>

#include <cstdarg>
#include <limits>

namespace Tarvik {

namespace {

QString requestedInterface(const QJsonObject& payload)
{
    return payload.value(QStringLiteral("interface")).toString();
}

QString invalidDeviceText(const QJsonObject& payload)
{
    return QStringLiteral("Invalid device specified: ") + clientText(requestedInterface(payload));
}

// The kernel's limit: a longer name cannot name a device.
constexpr int maxInterfaceNameBytes = 15;

const QString networkManagerService = QStringLiteral("org.freedesktop.NetworkManager");
const QString modemManagerService = QStringLiteral("org.freedesktop.ModemManager1");

} // namespace

Engine::Engine(const QString& configPath, QObject* parent)
    : QObject(parent)
    , m_stats(QStringLiteral("./stats/modem.ini"), QSettings::IniFormat)
    , m_networkManager(new DaemonPresence(networkManagerService, this))
    , m_modemManager(new DaemonPresence(modemManagerService, this))
    , m_work(new DeviceWork(this))
    , m_bursts(new BurstPublisher(this))
    , m_modemDataPort(new ModemDataPort(this))
{
    m_commands.insert(QStringLiteral("status/get"), &Engine::processNetworkStatusCommand);
    m_commands.insert(QStringLiteral("info/get"), &Engine::processNetworkInfoCommand);
    m_commands.insert(QStringLiteral("ethernet/state/get"), &Engine::processEthernetStateGetCommand);
    m_commands.insert(QStringLiteral("ethernet/config/get"), &Engine::processEthernetConfigGetCommand);
    m_commands.insert(QStringLiteral("ethernet/config/set"), &Engine::processEthernetConfigSetCommand);
    m_commands.insert(QStringLiteral("wifi/state/get"), &Engine::processWifiStateGetCommand);
    m_commands.insert(QStringLiteral("wifi/config/get"), &Engine::processWifiConfigGetCommand);
    m_commands.insert(QStringLiteral("wifi/config/set"), &Engine::processWifiConfigSetCommand);
    m_commands.insert(QStringLiteral("wifi/aps/get"), &Engine::processWifiApsGetCommand);
    m_commands.insert(QStringLiteral("wifi/networks/get"), &Engine::processWifiNetworksGetCommand);
    m_commands.insert(QStringLiteral("modem/state/get"), &Engine::processModemStateGetCommand);
    m_commands.insert(QStringLiteral("modem/stats/get"), &Engine::processModemStatsGetCommand);
    m_commands.insert(QStringLiteral("modem/config/get"), &Engine::processModemConfigGetCommand);
    m_commands.insert(QStringLiteral("modem/config/set"), &Engine::processModemConfigSetCommand);
    m_commands.insert(QStringLiteral("modem/usage/get"), &Engine::processModemUsageGetCommand);
    m_commands.insert(QLatin1String(UsageBudget::setCommand), &Engine::processModemUsageSetCommand);
    m_commands.insert(QLatin1String(UsageBudget::resumeCommand), &Engine::processModemUsageResumeCommand);
    m_commands.insert(QStringLiteral("transaction/confirm"), &Engine::processTransactionConfirmCommand);
    m_commands.insert(QStringLiteral("transaction/rollback"), &Engine::processTransactionRollbackCommand);

    // Config and IPC share the engine's own parent; the owning pointers are what frees them.
    m_config.reset(new Config(configPath, parent));
    m_ipc.reset(new IPC(m_config.get(), parent));
    m_publisher = new DevicePublisher(m_ipc.get(), this);
    m_changes = new ConfirmedChanges(m_ipc.get(), m_config.get(), m_work, QStringLiteral("./stats/changes.json"), this);
    m_usage = new UsageBudget(m_ipc.get(), m_config.get(), QStringLiteral("./stats/modem-usage.ini"), this);
    connect(m_usage, &UsageBudget::holdChanged, this, &Engine::onUsageHoldChanged);
    m_discovery = new HomeAssistantDiscovery(m_ipc.get(), m_config.get(), this);
    connect(m_usage, &UsageBudget::planChanged, m_discovery, &HomeAssistantDiscovery::refresh);

    connect(m_ipc.get(), &IPC::connected, this, &Engine::onIPCConnected);
    connect(m_ipc.get(), &IPC::disconnected, this, &Engine::onIPCDiscconnected);
    connect(m_ipc.get(), &IPC::commandReceived, this, &Engine::onIPCCommandReceived);

    const int usageSec = m_config->modem().usageSec;
    if (usageSec != 0) {
        connect(&m_statsTimer, &QTimer::timeout, this, &Engine::updateModemStats);
        // Computed wide so that an absurd period in the file cannot overflow.
        const qint64 interval = qint64(usageSec) * 1000;
        m_statsTimer.setInterval(int(qBound<qint64>(0, interval, std::numeric_limits<int>::max())));
    }

    pruneModemStats();
}

Engine::~Engine() = default;

bool Engine::start()
{
    if (!checkSystemBus())
        return false;
    connect(m_networkManager, &DaemonPresence::known, this, &Engine::onNetworkManagerKnown);
    connect(m_networkManager, &DaemonPresence::changed, this, &Engine::onNetworkManagerPresenceChanged);
    connect(m_modemManager, &DaemonPresence::known, this, &Engine::onModemManagerKnown);
    connect(m_modemManager, &DaemonPresence::changed, this, &Engine::onModemManagerPresenceChanged);
    m_networkManager->start();
    m_modemManager->start();
    return true;
}

void Engine::stop()
{
    log(Log::Info, "Stopping.");
    updateModemStats();
    m_stats.sync();
    m_ipc->disconnect();
}


QByteArray Engine::typeText(NetworkManager::Device::Type type)
{
    return deviceTypeToString(type).toLocal8Bit();
}

void Engine::onIPCConnected(const QString& url)
{
    log(Log::Info, "IPC Connected to %s", url.toLocal8Bit().constData());
    m_brokerConnected = true;
    m_discovery->onBrokerConnected();
    reload();
    m_changes->onBrokerConnected();
    m_usage->onBrokerConnected();
}

void Engine::onIPCDiscconnected()
{
    log(Log::Info, "IPC Disconnected.");
    m_brokerConnected = false;
}

void Engine::onIPCCommandReceived(const QString& command, const QJsonObject& data)
{
    const auto handler = m_commands.constFind(command);
    if (handler == m_commands.constEnd()) {
        log(Log::Error, "Unsupported command '%s'", command.toLocal8Bit().constData());
        m_ipc->publishError(command, QStringLiteral("Unsupported command"));
        return;
    }
    log(Log::Info, "Command Received : %s", command.toLocal8Bit().constData());
    (this->*handler.value())(data);
}

NetworkManager::Device::Ptr Engine::findDevice(const QString& name, NetworkManager::Device::Type type)
{
    const bool anyType = type == NetworkManager::Device::UnknownType;
    const bool possibleName = name.toUtf8().size() <= maxInterfaceNameBytes;
    if (possibleName && (!name.isEmpty() || !anyType) && isOnBus(Daemon::NetworkManager)) {
        const auto devices = NetworkManager::networkInterfaces();
        for (const NetworkManager::Device::Ptr& device : devices) {
            const bool nameMatches = name.isEmpty() || device->interfaceName() == name;
            const bool typeMatches = anyType || device->type() == type;
            if (nameMatches && typeMatches)
                return device;
        }
    }
    log(Log::Error, "ERROR: Could not find device with name=%s and type=%s", clientText(name).toLocal8Bit().constData(),
        typeText(type).constData());
    return {};
}

NetworkManager::Device::Ptr Engine::findRequestedDevice(const QJsonObject& payload, NetworkManager::Device::Type type,
                                                        const QString& errorCommand)
{
    NetworkManager::Device::Ptr device = findDevice(requestedInterface(payload), type);
    if (!device)
        m_ipc->publishError(errorCommand, invalidDeviceText(payload));
    return device;
}

NetworkManager::WirelessDevice::Ptr Engine::findRequestedWirelessDevice(const QJsonObject& payload,
                                                                       const QString& errorCommand)
{
    const auto device = findRequestedDevice(payload, NetworkManager::Device::Wifi, errorCommand);
    if (!device)
        return {};
    const auto wireless = device.objectCast<NetworkManager::WirelessDevice>();
    if (!wireless)
        m_ipc->publishError(errorCommand, invalidDeviceText(payload));
    return wireless;
}

void Engine::queueAnswer(const NetworkManager::Device::Ptr& device, DeviceWork::Sort sort, DeviceWork::Job answer)
{
    m_work->add(device->uni(), sort, [this, device, answer](const DeviceWork::Finished& finished) {
        m_bursts->flush(device->uni());
        answer(finished);
    });
}

void Engine::answerState(const QJsonObject& payload, NetworkManager::Device::Type type, const QString& command)
{
    const auto device = findRequestedDevice(payload, type, command);
    if (!device)
        return;
    queueAnswer(device, DeviceWork::Once, [this, device](const DeviceWork::Finished& finished) {
        m_publisher->publishState(device);
        finished();
    });
}

void Engine::answerConfig(const QJsonObject& payload, NetworkManager::Device::Type type, const QString& command)
{
    const auto device = findRequestedDevice(payload, type, command);
    if (!device)
        return;
    queueAnswer(device, DeviceWork::ConfigReading, [this, device](const DeviceWork::Finished& finished) {
        m_publisher->publishConfig(device, finished);
    });
}

void Engine::answerWireless(const QJsonObject& payload, const QString& command, Topic topic)
{
    const auto wireless = findRequestedWirelessDevice(payload, command);
    if (!wireless)
        return;
    queueAnswer(wireless, DeviceWork::Once, [this, wireless, topic](const DeviceWork::Finished& finished) {
        m_ipc->publish(topic, topic == Topic::WifiAccessPoints ? wifiAccessPointsDocument(wireless)
                                                               : wifiNetworksDocument(wireless));
        finished();
    });
}

void Engine::processNetworkStatusCommand(const QJsonObject&)
{
    m_ipc->publishNetworkStatus();
}

void Engine::processNetworkInfoCommand(const QJsonObject&)
{
    m_ipc->publishNetworkInfo();
}

void Engine::processEthernetStateGetCommand(const QJsonObject& payload)
{
    answerState(payload, NetworkManager::Device::Ethernet, QStringLiteral("ethernet/state/get"));
}

void Engine::processEthernetConfigGetCommand(const QJsonObject& payload)
{
    answerConfig(payload, NetworkManager::Device::Ethernet, QStringLiteral("ethernet/config/get"));
}

void Engine::processWifiStateGetCommand(const QJsonObject& payload)
{
    answerState(payload, NetworkManager::Device::Wifi, QStringLiteral("wifi/state/get"));
}

void Engine::processWifiConfigGetCommand(const QJsonObject& payload)
{
    answerConfig(payload, NetworkManager::Device::Wifi, QStringLiteral("wifi/config/get"));
}

void Engine::processWifiApsGetCommand(const QJsonObject& payload)
{
    answerWireless(payload, QStringLiteral("wifi/aps/get"), Topic::WifiAccessPoints);
}

void Engine::processWifiNetworksGetCommand(const QJsonObject& payload)
{
    answerWireless(payload, QStringLiteral("wifi/networks/get"), Topic::WifiNetworks);
}

void Engine::processModemStateGetCommand(const QJsonObject& payload)
{
    answerState(payload, NetworkManager::Device::Modem, QStringLiteral("modem/state/get"));
}

void Engine::processModemConfigGetCommand(const QJsonObject& payload)
{
    answerConfig(payload, NetworkManager::Device::Modem, QStringLiteral("modem/config/get"));
}

} // namespace Tarvik
