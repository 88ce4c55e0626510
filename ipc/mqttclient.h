#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>

#include "vocabulary/mqtterror.h"

struct mosquitto;
struct mosquitto_message;
class QSocketNotifier;
class QTimer;

namespace Tarvik {

// A small MQTT client on libmosquitto, driven by the Qt event loop of the
// calling thread: socket notifiers for reading and writing, a timer for the
// keep-alive housekeeping. No libmosquitto thread is ever started.
class MqttClient : public QObject
{
    Q_OBJECT

public:
    enum ClientState {
        Disconnected = 0,
        Connecting,
        Connected
    };
    Q_ENUM(ClientState)

    using ClientError = MqttError::Code;

    explicit MqttClient(QObject* parent = nullptr);
    ~MqttClient() override;

    QString hostname() const;
    void setHostname(const QString& hostname);
    quint16 port() const;
    void setPort(quint16 port);
    QString username() const;
    void setUsername(const QString& username);
    QString password() const;
    void setPassword(const QString& password);
    int keepAlive() const;
    void setKeepAlive(int seconds);
    // What the broker publishes for this client when its session dies without a DISCONNECT (next connection on).
    void setWill(const QString& topic, const QByteArray& payload, int qos, bool retain);
    // Which of the addresses the host name resolves to this attempt uses (counted
    // round): a name such as localhost may give one the broker does not listen on.
    void setAttempt(int attempt);

    ClientState state() const;
    // The connection's socket, or -1 while there is none.
    int socketDescriptor() const;
    ClientError error() const;

    void connectToHost();
    void disconnectFromHost();
    // Drops the network connection at once, without a DISCONNECT packet.
    void closeTransport();

    static bool topicMatches(const QString& filter, const QString& topic);

    bool subscribe(const QString& filter, int qos);
    bool unsubscribe(const QString& filter);
    // Returns the message id, or -1 when the message could not be queued.
    int publish(const QString& topic, const QByteArray& payload, int qos, bool retain);

signals:
    void stateChanged(Tarvik::MqttClient::ClientState state);
    void errorChanged(Tarvik::MqttError::Code error);
    // The broker's name did not resolve; the attempt ends without an errorChanged.
    void hostLookupFailed(const QString& hostname, const QString& reason);
    void messageReceived(const QByteArray& message, const QString& topic);

private:
    // Implementation details are left to the implementation file.
    struct Private;
    Private* d;
};

} // namespace Tarvik
