#pragma once

#include "config/config.h"
#include "engine/devicerecord.h"
#include "engine/devicework.h"
#include "ipc/ipc.h"
#include "log/taggedlog.h"

#include <NetworkManagerQt/ActiveConnection>
#include <NetworkManagerQt/Connection>
#include <NetworkManagerQt/Device>
#include <NetworkManagerQt/Manager>
#include <NetworkManagerQt/ModemDevice>
#include <NetworkManagerQt/WirelessDevice>
#include <QJsonObject>
#include <QMap>
#include <QObject>
#include <QSettings>
#include <QString>
#include <QTimer>

#include <functional>
#include <memory>

namespace Tarvik {

class BurstPublisher;
class ConfirmedChanges;
class DaemonPresence;
class DevicePublisher;
class HomeAssistantDiscovery;
class ModemDataPort;
class UsageBudget;
struct DeviceKind;

// The centre of the service: dispatches commands, watches NetworkManager,
// keeps one profile per device in line with the configuration and counts
// the modem's data usage. It never waits for a daemon: work on a device runs
// in that device's own queue, and each daemon call is answered through the loop.
class Engine : public QObject
{
    Q_OBJECT

public:
    Engine(const QString& configPath, QObject* parent);
    ~Engine() override;

    // False when there is no system bus to reach NetworkManager on.
    bool start();
    void stop();

private slots:
    void onIPCConnected(const QString& url);
    void onIPCDiscconnected();
    void onIPCCommandReceived(const QString& command, const QJsonObject& data);
    void onStatusChanged(NetworkManager::Status status);
    void onPrimaryConnectionChanged(const QString& uni);
    void onDeviceAdded(const QString& uni);
    void onDeviceRemoved(const QString& uni);
    void onDeviceStateChanged(NetworkManager::Device::State newstate, NetworkManager::Device::State oldstate,
                              NetworkManager::Device::StateChangeReason reason);
    void onDeviceManagedChanged();
    void onInterfaceNameChanged();
    void onNetworkManagerDisappeared();
    void onNetworkManagerAppeared();
    void onModemManagerDisappeared();
    void onModemManagerAppeared();
    void onModemAdded(const QString& udi);
    void onNetworkManagerKnown(bool present);
    void onNetworkManagerPresenceChanged(bool present);
    void onModemManagerKnown(bool present);
    void onModemManagerPresenceChanged(bool present);
    void onUsageHoldChanged(bool held);

private:
    using CommandHandler = void (Engine::*)(const QJsonObject&);

    // One reading of the modem's data interface counters.
    struct ModemReading {
        quint64 duration = 0;
        quint64 txBytes = 0;
        quint64 rxBytes = 0;
    };

    // The device type as the "[%s]" tag of a log line.
    static QByteArray typeText(NetworkManager::Device::Type type);

    // Core and dispatch (engine.cpp)
    NetworkManager::Device::Ptr findDevice(const QString& name, NetworkManager::Device::Type type);
    // The device named by the payload's "interface" (or the first of the type); when there is none,
    // publishes "Invalid device specified: <name>" for errorCommand and returns null.
    NetworkManager::Device::Ptr findRequestedDevice(const QJsonObject& payload, NetworkManager::Device::Type type,
                                                    const QString& errorCommand);
    NetworkManager::WirelessDevice::Ptr findRequestedWirelessDevice(const QJsonObject& payload,
                                                                    const QString& errorCommand);
    // An answer about a device comes after the device's earlier work, and after the documents still waiting
    // to be published for it.
    void queueAnswer(const NetworkManager::Device::Ptr& device, DeviceWork::Sort sort, DeviceWork::Job answer);
    void answerState(const QJsonObject& payload, NetworkManager::Device::Type type, const QString& command);
    void answerConfig(const QJsonObject& payload, NetworkManager::Device::Type type, const QString& command);
    void answerWireless(const QJsonObject& payload, const QString& command, Topic topic);
    void processNetworkStatusCommand(const QJsonObject& payload);
    void processNetworkInfoCommand(const QJsonObject& payload);
    void processEthernetStateGetCommand(const QJsonObject& payload);
    void processEthernetConfigGetCommand(const QJsonObject& payload);
    void processWifiStateGetCommand(const QJsonObject& payload);
    void processWifiConfigGetCommand(const QJsonObject& payload);
    void processWifiApsGetCommand(const QJsonObject& payload);
    void processWifiNetworksGetCommand(const QJsonObject& payload);
    void processModemStateGetCommand(const QJsonObject& payload);
    void processModemConfigGetCommand(const QJsonObject& payload);

    // Monitoring (monitoring.cpp)
    void monitorNetwork();
    void monitorModemManager();
    // Logs why tarvik cannot work when the bus itself is missing.
    bool checkSystemBus();
    void startOnceDaemonsKnown();
    void monitorDevice(NetworkManager::Device::Ptr device);
    void unmonitorDevice(NetworkManager::Device::Ptr device);
    NetworkManager::Device::Ptr getDeviceFromSender(QObject* sender);
    NetworkManager::Device::Ptr getDeviceFromUni(const QString& uni);
    NetworkManager::ActiveConnection::Ptr getConnectionFromUni(const QString& uni);
    void monitorWirelessDevice(NetworkManager::WirelessDevice::Ptr wireless);
    void monitorModemSignal(NetworkManager::ModemDevice::Ptr modemDevice);
    void scanWifiNetworks(NetworkManager::WirelessDevice::Ptr wireless);
    // Reloads the modems ModemManager knows, a moment after it announced them.
    void reloadModemsLater(const QString& udi);

    // Provisioning (provisioning.cpp)
    void reload();
    void reloadDevice(NetworkManager::Device::Ptr device);
    void publishConfigWhenVisible(NetworkManager::Device::Ptr device, NetworkManager::Connection::Ptr connection);
    // Makes the device's profile match the record, then hands the profile (or null) to done.
    void updateConnection(NetworkManager::Device::Ptr device, const DeviceRecord& record,
                          std::function<void(NetworkManager::Connection::Ptr)> done);

    // Configuration commands (configcommands.cpp)
    // Publishes why the record cannot be written, when it cannot.
    bool acceptIpv4(const Config::Ipv4Config& ipv4, const QString& errorCommand);
    // Writes the command's record to the file at once, then provisions it after the device's earlier work;
    // a newer record replaces one still waiting.
    void applyConfigSet(const DeviceKind& kind, const QJsonObject& payload);
    void processEthernetConfigSetCommand(const QJsonObject& payload);
    void processWifiConfigSetCommand(const QJsonObject& payload);
    void processModemConfigSetCommand(const QJsonObject& payload);
    void processTransactionConfirmCommand(const QJsonObject& payload);
    void processTransactionRollbackCommand(const QJsonObject& payload);

    // Modem data usage (modemusage.cpp)
    // Counts while the modem is connected.
    void followModemStats(NetworkManager::Device::Ptr modem);
    void startMonitorModemStats();
    void stopMonitorModemStats();
    void updateModemStats();
    ModemReading getModemStats(NetworkManager::ModemDevice::Ptr device);
    static qint64 readIntegerFromFile(const QString& path);
    void publishModemStats();
    void processModemStatsGetCommand(const QJsonObject& payload);
    void pruneModemStats();
    // The data plan's commands; an "interface", when given, must name a modem.
    void processModemUsageGetCommand(const QJsonObject& payload);
    void processModemUsageSetCommand(const QJsonObject& payload);
    void processModemUsageResumeCommand(const QJsonObject& payload);
    bool acceptModemInterface(const QJsonObject& payload, const QString& errorCommand);
    // Disconnects the modem while its data budget holds it down (a connected modem that is not held: nothing).
    void holdModemDown(NetworkManager::Device::Ptr modem);

    QTimer m_statsTimer;
    QSettings m_stats;
    std::unique_ptr<Config> m_config;
    std::unique_ptr<IPC> m_ipc;
    std::unique_ptr<QTimer> m_scanTimer;
    QMap<QString, CommandHandler> m_commands;
    DaemonPresence* m_networkManager;
    DaemonPresence* m_modemManager;
    DeviceWork* m_work;
    DevicePublisher* m_publisher;
    BurstPublisher* m_bursts;
    ModemDataPort* m_modemDataPort;
    ConfirmedChanges* m_changes;
    UsageBudget* m_usage;
    HomeAssistantDiscovery* m_discovery;
    bool m_brokerConnected = false;
    bool m_started = false;
    // Once a library has read its daemon, its own signals say when the daemon comes and goes.
    bool m_networkManagerLinked = false;
    bool m_modemManagerLinked = false;
    const TaggedLog log{"[Engine] "};
};

} // namespace Tarvik
