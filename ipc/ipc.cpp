#include "ipc/ipc.h"

#include "documents/documents.h"
#include "ipc/brokerroute.h"
#include "ipc/commandintake.h"
#include "vocabulary/valuenames.h"

#include <QJsonDocument>
#include <QTimer>

#include <cstdarg>

namespace Tarvik {

namespace {
constexpr int KeepAliveSeconds = 60;
constexpr int ConnectTimeoutMs = 10000;
constexpr int ReconnectDelayMs = 3000;

struct Publication {
    const char* name;
    int qos;
    bool retain;
};

Publication publicationOf(Topic topic)
{
    // Errors are neither kept nor acknowledged; statistics are kept but sent at most once.
    static const QMap<Topic, Publication> publications {
        { Topic::Status, { "status", 2, true } },
        { Topic::Info, { "info", 2, true } },
        { Topic::Error, { "error", 0, false } },
        { Topic::EthernetState, { "ethernet/state", 2, true } },
        { Topic::EthernetConfig, { "ethernet/config", 2, true } },
        { Topic::WifiState, { "wifi/state", 2, true } },
        { Topic::WifiConfig, { "wifi/config", 2, true } },
        { Topic::WifiAccessPoints, { "wifi/aps", 2, true } },
        { Topic::WifiNetworks, { "wifi/networks", 2, true } },
        { Topic::ModemState, { "modem/state", 2, true } },
        { Topic::ModemConfig, { "modem/config", 2, true } },
        { Topic::ModemSignal, { "modem/signal", 2, true } },
        { Topic::ModemStats, { "modem/stats", 0, true } },
        { Topic::ModemUsage, { "modem/usage", 2, true } },
        { Topic::Transaction, { "transaction", 2, true } },
        { Topic::Availability, { "availability", 1, true } },
    };
    return publications.value(topic);
}

const QByteArray online = QByteArrayLiteral("online");
const QByteArray offline = QByteArrayLiteral("offline");
} // namespace

// IPC declares its own connect() and disconnect() slots, which hide QObject's
// static functions of the same names: signal connections here are always
// spelled QObject::connect / QObject::disconnect.

IPC::IPC(Config* config, QObject* parent)
    : QObject(parent)
    , m_config(config)
    , m_client(new MqttClient(this))
    , m_reconnectTimer(new QTimer(this))
{
    m_reconnectTimer->setSingleShot(true);
    m_reconnectTimer->setTimerType(Qt::PreciseTimer);
    QObject::connect(m_reconnectTimer, &QTimer::timeout, this, &IPC::connect);
    qRegisterMetaType<Tarvik::MqttClient::ClientState>();
    qRegisterMetaType<Tarvik::MqttError::Code>();
}

IPC::~IPC() = default;

void IPC::setLogEnable(bool enable)
{
    log.setEnabled(enable);
}

QString IPC::topicBase() const
{
    return m_config->mqtt().base;
}

void IPC::connect()
{
    const Config::Mqtt& mqtt = m_config->mqtt();

    // connect() may run from inside a signal of the client it replaces, so the
    // old objects are released through the event loop; they must not reach
    // this object any more in the meantime.
    MqttClient* oldClient = m_client;
    m_client = new MqttClient(this);
    if (oldClient) {
        QObject::disconnect(oldClient, nullptr, this, nullptr);
        oldClient->deleteLater();
    }
    m_client->setHostname(mqtt.url);
    m_client->setPort(mqtt.port);
    m_client->setUsername(mqtt.user);
    m_client->setPassword(mqtt.pass);
    m_client->setKeepAlive(KeepAliveSeconds);
    const Publication availability = publicationOf(Topic::Availability);
    m_client->setWill(topicOf(Topic::Availability), offline, availability.qos, availability.retain);
    m_client->setAttempt(m_attempts++);
    QObject::connect(m_client, &MqttClient::stateChanged, this, &IPC::onMqttStateChanged);
    QObject::connect(m_client, &MqttClient::messageReceived, this, &IPC::onMqttMessage);
    QObject::connect(m_client, &MqttClient::errorChanged, this, &IPC::onMqttErrorChanged);
    QObject::connect(m_client, &MqttClient::hostLookupFailed, this, &IPC::onBrokerHostLookupFailed);

    QTimer* oldTimer = m_connectTimer;
    m_connectTimer = new QTimer(this);
    m_connectTimer->setTimerType(Qt::PreciseTimer);
    if (oldTimer) {
        oldTimer->stop();
        QObject::disconnect(oldTimer, nullptr, this, nullptr);
        oldTimer->deleteLater();
    }
    QObject::connect(m_connectTimer, &QTimer::timeout, this, &IPC::onConnectTimeout);

    m_client->connectToHost();
}

void IPC::disconnect()
{
    log(Log::Info, "Disconnecting from broker.");
    // Goes out before the DISCONNECT, which keeps the broker from sending the will.
    if (m_client->state() == MqttClient::Connected)
        publishAvailability(false);
    m_client->disconnectFromHost();
}

void IPC::onConnectTimeout()
{
    log(Log::Error, "MQTT broker not available.");
    m_client->closeTransport();
}

void IPC::onMqttStateChanged(Tarvik::MqttClient::ClientState state)
{
    switch (state) {
    case MqttClient::Connecting:
        log(Log::Info, "Connecting to %s:%u", m_client->hostname().toLocal8Bit().constData(),
            static_cast<unsigned>(m_client->port()));
        m_connectTimer->start(ConnectTimeoutMs);
        break;
    case MqttClient::Connected:
        m_connectTimer->stop();
        m_lostRoutePeer.clear();
        log(Log::Info, "Connected.");
        publishAvailability(true);
        // A session lost without a word lingers at the broker until its keep-alive runs out; its will then
        // says "offline" while this one lives.
        subscribeAt(topicOf(Topic::Availability));
        subscribe("+/get");
        subscribe("+/+/get");
        subscribe("+/+/set");
        for (const QString& filter : m_extraFilters + m_watchedFilters)
            subscribeAt(filter);
        emit connected(m_client->hostname());
        break;
    case MqttClient::Disconnected:
        log(Log::Info, "Disconnected.");
        emit disconnected();
        // Retried for as long as the service runs, whatever ended the session.
        m_reconnectTimer->start(ReconnectDelayMs);
        break;
    }
}

void IPC::onNetworkChanged()
{
    if (m_client->state() == MqttClient::Connected) {
        const BrokerRoute::Ends ends = BrokerRoute::ofSocket(m_client->socketDescriptor());
        if (ends.local.isNull() || ends.local.isLoopback()
            || BrokerRoute::sourceFor(ends.peer, ends.peerPort).isEqual(ends.local))
            return;
        log(Log::Info, "The route to the broker from %s is gone: connecting again.",
            ends.local.toString().toLocal8Bit().constData());
        m_lostRoutePeer = ends.peer;
        m_lostRoutePort = ends.peerPort;
        m_client->closeTransport();
    }
    if (m_reconnectTimer->isActive() && !m_lostRoutePeer.isNull()
        && !BrokerRoute::sourceFor(m_lostRoutePeer, m_lostRoutePort).isNull())
        m_reconnectTimer->start(0);
}

void IPC::onMqttErrorChanged(Tarvik::MqttError::Code err)
{
    log(Log::Error, "ERROR: %s (%d).", mqttErrorToString(err).toLocal8Bit().constData(), static_cast<int>(err));
}

void IPC::onBrokerHostLookupFailed(const QString& hostname, const QString& reason)
{
    log(Log::Error, "ERROR: Could not resolve broker host '%s': %s.", hostname.toLocal8Bit().constData(),
        reason.toLocal8Bit().constData());
}

void IPC::onMqttMessage(const QByteArray& message, const QString& topic)
{
    if (topic == topicOf(Topic::Availability)) {
        if (message == offline) {
            log(Log::Info, "An earlier session's will said offline: online again.");
            publishAvailability(true);
        }
        return;
    }
    for (const QString& filter : qAsConst(m_watchedFilters)) {
        // Including the echo of what tarvik published there itself: not worth a line each.
        if (MqttClient::topicMatches(filter, topic)) {
            log(Log::Debug, "Message Received [%s]", topic.toLocal8Bit().constData());
            emit watchedMessage(topic, message);
            return;
        }
    }
    log(Log::Info, "Message Received [%s]", topic.toLocal8Bit().constData());
    const Command command = parseCommand(topic, message, topicBase());
    log(Log::Debug, "Command : %s", command.name.toLocal8Bit().constData());
    log(Log::Debug, "Data    : %s", message.constData());

    if (!command.error.isEmpty()) {
        log(Log::Error, "%s", command.error.toLocal8Bit().constData());
        publishError(command.name, command.error);
        return;
    }
    emit commandReceived(command.name, command.data);
}

void IPC::subscribe(const QString& filter)
{
    subscribeAt(topicBase() + "/" + filter);
}

void IPC::subscribeAt(const QString& fullFilter)
{
    log(Log::Info, "Subscribing to topic [%s].", fullFilter.toLocal8Bit().constData());
    m_client->subscribe(fullFilter, 0);
}

void IPC::watch(const QString& fullFilter)
{
    keepSubscribed(m_watchedFilters, fullFilter);
}

void IPC::listenFor(const QString& filter)
{
    keepSubscribed(m_extraFilters, topicBase() + "/" + filter);
}

void IPC::keepSubscribed(QStringList& filters, const QString& fullFilter)
{
    if (filters.contains(fullFilter))
        return;
    filters.append(fullFilter);
    if (m_client->state() == MqttClient::Connected)
        subscribeAt(fullFilter);
}

void IPC::unsubscribe(const QString& filter)
{
    const QString fullFilter = topicBase() + "/" + filter;
    log(Log::Info, "Unsubscribing from topic [%s].", fullFilter.toLocal8Bit().constData());
    m_client->unsubscribe(fullFilter);
}

void IPC::publish(const QString& topic, const QByteArray& data, int qos, bool retain)
{
    publishAt(topicBase() + "/" + topic, data, qos, retain);
}

void IPC::publishAt(const QString& fullTopic, const QByteArray& data, int qos, bool retain)
{
    log(Log::Debug, "Publishing Message");
    log(Log::Debug, "Topic: [%s]", fullTopic.toLocal8Bit().constData());
    log(Log::Debug, "QoS  : %d", qos);
    log(Log::Debug, "Retn : %s", retain ? "true" : "false");
    log.composed(Log::Debug, "Data : [" + data.toStdString() + "]");
    // Nothing is queued here: while the session is down the message is lost.
    m_client->publish(fullTopic, data, qos, retain);
}

void IPC::publish(Topic topic, const QJsonObject& document)
{
    const Publication publication = publicationOf(topic);
    publish(QLatin1String(publication.name), QJsonDocument(document).toJson(), publication.qos, publication.retain);
}

QString IPC::topicOf(Topic topic) const
{
    return topicBase() + QLatin1Char('/') + QLatin1String(publicationOf(topic).name);
}

void IPC::publishAvailability(bool available)
{
    const Publication publication = publicationOf(Topic::Availability);
    publish(QLatin1String(publication.name), available ? online : offline, publication.qos, publication.retain);
}

void IPC::publishError(const QString& command, const QString& error)
{
    publish(Topic::Error, errorDocument(command, error));
}

void IPC::publishNetworkStatus()
{
    publish(Topic::Status, networkStatusDocument());
}

void IPC::publishNetworkInfo()
{
    publish(Topic::Info, networkInfoDocument());
}

void IPC::publishModemStats(const QMap<QString, QMap<QString, double> >& stats)
{
    publish(Topic::ModemStats, modemStatsDocument(stats));
}

} // namespace Tarvik

#include "moc_ipc.cpp"
