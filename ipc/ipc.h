#pragma once

#include "config/config.h"
#include "ipc/mqttclient.h"
#include "log/taggedlog.h"

#include <NetworkManagerQt/AccessPoint>
#include <NetworkManagerQt/ActiveConnection>
#include <NetworkManagerQt/Device>
#include <NetworkManagerQt/IpConfig>
#include <NetworkManagerQt/Ipv4Setting>
#include <NetworkManagerQt/ModemDevice>
#include <NetworkManagerQt/WiredDevice>
#include <NetworkManagerQt/WirelessDevice>
#include <QJsonObject>
#include <QJsonValue>
#include <QMap>
#include <QObject>
#include <QString>

class QTimer;

namespace Tarvik {

// The service's only link to the outside world: one broker session kept alive
// for ever, the command intake, and every published document.
class IPC : public QObject
{
    Q_OBJECT

public:
    IPC(Config* config, QObject* parent);
    ~IPC() override;

    void setLogEnable(bool enable);
    QString topicBase() const;

    void subscribe(const QString& filter);
    void unsubscribe(const QString& filter);
    void publish(const QString& topic, const QByteArray& data, int qos, bool retain);

    static QJsonValue toJson(NetworkManager::ActiveConnection::Ptr connection);
    static QJsonValue toJson(const NetworkManager::IpConfig& config);
    static QJsonValue toJson(NetworkManager::Ipv4Setting::Ptr setting);
    static QJsonValue toJson(NetworkManager::AccessPoint::Ptr ap);

signals:
    void connected(const QString& url);
    void disconnected();
    void error(int code, const QString& descr);
    void commandReceived(const QString& command, const QJsonObject& data);

public slots:
    void connect();
    void disconnect();
    void publishNetworkStatus();
    void publishNetworkInfo();
    void publishDeviceState(NetworkManager::Device::Ptr dev);
    void publishDeviceConfig(NetworkManager::Device::Ptr dev);
    void publishEthernetState(NetworkManager::WiredDevice::Ptr dev);
    void publishEthernetConfig(NetworkManager::WiredDevice::Ptr dev);
    void publishWifiState(NetworkManager::WirelessDevice::Ptr dev);
    void publishWifiConfig(NetworkManager::WirelessDevice::Ptr dev);
    void publishWifiAccessPoints(NetworkManager::WirelessDevice::Ptr dev);
    void publishWifiNetworks(NetworkManager::WirelessDevice::Ptr dev);
    void publishModemState(NetworkManager::ModemDevice::Ptr modem);
    void publishModemStats(const QMap<QString, QMap<QString, double> >& stats);
    void publishModemConfig(NetworkManager::ModemDevice::Ptr dev);
    void publishDeviceModemSignal(NetworkManager::ModemDevice::Ptr modem);
    void publishError(const QString& command, const QString& error);

private slots:
    void onMqttStateChanged(Tarvik::MqttClient::ClientState state);
    void onMqttErrorChanged(Tarvik::MqttError::Code err);
    void onMqttMessage(const QByteArray& message, const QString& topic = QString());
    void onConnectTimeout();

private:
    // Publishes a document in the indented form that every topic uses.
    void publishDocument(const QString& topic, const QJsonObject& document, int qos, bool retain);

    Config* m_config = nullptr;
    MqttClient* m_client = nullptr;
    QTimer* m_connectTimer = nullptr;
    TaggedLog log{"[IPC] "};
};

} // namespace Tarvik
