#pragma once

#include "config/config.h"
#include "ipc/mqttclient.h"
#include "log/taggedlog.h"

#include <QHostAddress>
#include <QJsonObject>
#include <QMap>
#include <QObject>
#include <QString>

class QTimer;

namespace Tarvik {

// Every topic tarvik publishes; the table in ipc.cpp gives each its name, QoS and retain flag.
enum class Topic {
    Status,
    Info,
    Error,
    EthernetState,
    EthernetConfig,
    WifiState,
    WifiConfig,
    WifiAccessPoints,
    WifiNetworks,
    ModemState,
    ModemConfig,
    ModemSignal,
    ModemStats,
    ModemUsage,
    Transaction,
    Availability,
};

// The service's only link to the outside world: one broker session kept alive
// for ever, the command intake, and the publication of every document (the
// documents themselves are built in documents/).
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
    // Subscribes now and at every later connection (for commands only some clients use).
    void listenFor(const QString& filter);
    void publish(const QString& topic, const QByteArray& data, int qos, bool retain);
    // In the indented form, with the topic's own QoS and retain flag.
    void publish(Topic topic, const QJsonObject& document);
    // The full name of a topic of tarvik's own.
    QString topicOf(Topic topic) const;
    // Topics outside the base (another application's convention): published and watched as they are named.
    void publishAt(const QString& fullTopic, const QByteArray& data, int qos, bool retain);
    void watch(const QString& fullFilter);

signals:
    void connected(const QString& url);
    void disconnected();
    void error(int code, const QString& descr);
    void commandReceived(const QString& command, const QJsonObject& data);
    void watchedMessage(const QString& topic, const QByteArray& payload);

public slots:
    void connect();
    void disconnect();
    void publishNetworkStatus();
    void publishNetworkInfo();
    void publishModemStats(const QMap<QString, QMap<QString, double> >& stats);
    void publishError(const QString& command, const QString& error);
    // Something in the network changed: a session whose route is gone is opened again at once, and a session
    // lost that way is not left waiting for its next attempt once a route is back.
    void onNetworkChanged();

private slots:
    void onMqttStateChanged(Tarvik::MqttClient::ClientState state);
    void onMqttErrorChanged(Tarvik::MqttError::Code err);
    void onBrokerHostLookupFailed(const QString& hostname, const QString& reason);
    void onMqttMessage(const QByteArray& message, const QString& topic = QString());
    void onConnectTimeout();

private:
    void subscribeAt(const QString& fullFilter);
    // Subscribes now if the session is up, and at every later connection.
    void keepSubscribed(QStringList& filters, const QString& fullFilter);
    // "online" while the session lives; the broker's will says "offline" when it dies.
    void publishAvailability(bool available);

    Config* m_config = nullptr;
    MqttClient* m_client = nullptr;
    QTimer* m_connectTimer = nullptr;
    QTimer* m_reconnectTimer = nullptr;
    // Where the session that ended for a lost route went, while no new one has come up.
    QHostAddress m_lostRoutePeer;
    quint16 m_lostRoutePort = 0;
    int m_attempts = 0;
    QStringList m_extraFilters;
    QStringList m_watchedFilters;
    TaggedLog log{"[IPC] "};
};

} // namespace Tarvik
