#include "engine/engine.h"

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

} // namespace

Engine::Engine(const QString& configPath, QObject* parent)
    : QObject(parent)
    , m_stats(QStringLiteral("./stats/modem.ini"), QSettings::IniFormat)
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

    // Config and IPC share the engine's own parent; the owning pointers are what frees them.
    m_config.reset(new Config(configPath, parent));
    m_ipc.reset(new IPC(m_config.get(), parent));

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
    monitorModemManager();
    m_ipc->connect();
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
    reload();
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
    if (possibleName && (!name.isEmpty() || !anyType)) {
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
    const auto device = findRequestedDevice(payload, NetworkManager::Device::Ethernet,
                                            QStringLiteral("ethernet/state/get"));
    if (device)
        m_ipc->publishDeviceState(device);
}

void Engine::processEthernetConfigGetCommand(const QJsonObject& payload)
{
    const auto device = findRequestedDevice(payload, NetworkManager::Device::Ethernet,
                                            QStringLiteral("ethernet/config/get"));
    if (device)
        m_ipc->publishDeviceConfig(device);
}

void Engine::processWifiStateGetCommand(const QJsonObject& payload)
{
    const auto device = findRequestedDevice(payload, NetworkManager::Device::Wifi, QStringLiteral("wifi/state/get"));
    if (device)
        m_ipc->publishDeviceState(device);
}

void Engine::processWifiConfigGetCommand(const QJsonObject& payload)
{
    const auto device = findRequestedDevice(payload, NetworkManager::Device::Wifi, QStringLiteral("wifi/config/get"));
    if (device)
        m_ipc->publishDeviceConfig(device);
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

void Engine::processWifiApsGetCommand(const QJsonObject& payload)
{
    if (const auto wireless = findRequestedWirelessDevice(payload, QStringLiteral("wifi/aps/get")))
        m_ipc->publishWifiAccessPoints(wireless);
}

void Engine::processWifiNetworksGetCommand(const QJsonObject& payload)
{
    if (const auto wireless = findRequestedWirelessDevice(payload, QStringLiteral("wifi/networks/get")))
        m_ipc->publishWifiNetworks(wireless);
}

void Engine::processModemStateGetCommand(const QJsonObject& payload)
{
    const auto device = findRequestedDevice(payload, NetworkManager::Device::Modem, QStringLiteral("modem/state/get"));
    if (device)
        m_ipc->publishDeviceState(device);
}

void Engine::processModemConfigGetCommand(const QJsonObject& payload)
{
    const auto device = findRequestedDevice(payload, NetworkManager::Device::Modem,
                                            QStringLiteral("modem/config/get"));
    if (device)
        m_ipc->publishDeviceConfig(device);
}

} // namespace Tarvik
