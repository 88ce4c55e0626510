#pragma once

#include "config/config.h"
#include "ipc/ipc.h"
#include "log/taggedlog.h"
#include "vocabulary/valuenames.h"

#include <NetworkManagerQt/AccessPoint>
#include <NetworkManagerQt/ActiveConnection>
#include <NetworkManagerQt/Connection>
#include <NetworkManagerQt/ConnectionSettings>
#include <NetworkManagerQt/Device>
#include <NetworkManagerQt/Ipv4Setting>
#include <NetworkManagerQt/Manager>
#include <NetworkManagerQt/ModemDevice>
#include <NetworkManagerQt/WirelessDevice>
#include <NetworkManagerQt/WirelessSetting>
#include <QJsonObject>
#include <QMap>
#include <QObject>
#include <QSettings>
#include <QString>
#include <QTimer>

#include <memory>
#include <optional>

namespace Tarvik {

// The centre of the service: dispatches commands, watches NetworkManager,
// keeps one profile per device in line with the configuration and counts
// the modem's data usage.
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
    // Logs which daemons are missing; false when the bus itself is.
    bool checkSystemBus();
    void monitorDevice(NetworkManager::Device::Ptr device);
    void unmonitorDevice(NetworkManager::Device::Ptr device);
    NetworkManager::Device::Ptr getDeviceFromSender(QObject* sender);
    NetworkManager::Device::Ptr getDeviceFromUni(const QString& uni);
    NetworkManager::ActiveConnection::Ptr getConnectionFromUni(const QString& uni);
    void monitorWirelessDevice(NetworkManager::WirelessDevice::Ptr wireless);
    void monitorModemSignal(NetworkManager::ModemDevice::Ptr modemDevice);
    void scanWifiNetworks(NetworkManager::WirelessDevice::Ptr wireless);

    // The profile a device is to hold: its name and type, and for Wi-Fi the
    // access point it is activated on and what that asks for.
    struct ProfileTarget {
        QByteArray tag;
        QString name;
        NetworkManager::ConnectionSettings::ConnectionType type = NetworkManager::ConnectionSettings::Unknown;
        QString accessPoint;
        ApSecurity security = ApSecurity::None;
    };

    // Provisioning (provisioning.cpp)
    void reload();
    void reloadDevice(NetworkManager::Device::Ptr device);
    void publishConfigWhenVisible(NetworkManager::Device::Ptr device, NetworkManager::Connection::Ptr connection);
    NetworkManager::Connection::Ptr updateConnection(NetworkManager::Device::Ptr device, const Config& config);
    // Logs why a device gets no profile (no cable, no SSID, out of range, another type).
    std::optional<ProfileTarget> profileTarget(NetworkManager::Device::Ptr device, const Config& config);
    NetworkManager::Connection::Ptr createConnection(NetworkManager::Device::Ptr device, const Config& config,
                                                     const ProfileTarget& target);
    bool configureSettings(NetworkManager::ConnectionSettings::Ptr settings, const Config& config,
                           const ProfileTarget& target);
    bool sendUpdate(NetworkManager::Connection::Ptr connection, NetworkManager::ConnectionSettings::Ptr settings,
                    bool clearSecrets, const ProfileTarget& target);
    bool activate(NetworkManager::Connection::Ptr connection, NetworkManager::Device::Ptr device,
                  const ProfileTarget& target);
    NetworkManager::Connection::Ptr findConnection(const QString& name, NetworkManager::Device::Ptr device);
    NetworkManager::AccessPoint::Ptr findAccessPoint(NetworkManager::Device::Ptr device, const QString& ssid);
    void loadConnectionSecrets(NetworkManager::Connection::Ptr connection, NetworkManager::Device::Ptr device);

    // Configuration commands (configcommands.cpp)
    // Publishes why the record cannot be written, when it cannot.
    bool acceptIpv4(const Config::Ipv4Config& ipv4, const QString& errorCommand);
    void processEthernetConfigSetCommand(const QJsonObject& payload);
    void processWifiConfigSetCommand(const QJsonObject& payload);
    void processModemConfigSetCommand(const QJsonObject& payload);

    // Modem data usage (modemusage.cpp)
    void startMonitorModemStats();
    void stopMonitorModemStats();
    void updateModemStats();
    ModemReading getModemStats(NetworkManager::ModemDevice::Ptr device);
    static qint64 readIntegerFromFile(const QString& path);
    void publishModemStats();
    void processModemStatsGetCommand(const QJsonObject& payload);
    void pruneModemStats();

    QTimer m_statsTimer;
    QSettings m_stats;
    std::unique_ptr<Config> m_config;
    std::unique_ptr<IPC> m_ipc;
    std::unique_ptr<QTimer> m_scanTimer;
    QMap<QString, CommandHandler> m_commands;
    bool m_brokerConnected = false;
    const TaggedLog log{"[Engine] "};
};

} // namespace Tarvik
