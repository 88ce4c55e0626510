#include "ipc/mqttclient.h"

#include <malloc.h>
#include <mosquitto.h>

#include <QHostAddress>
#include <QHostInfo>
#include <QMetaObject>
#include <QPointer>
#include <QSocketNotifier>
#include <QTimer>
#include <QVector>

#include <mutex>

namespace Tarvik {

namespace {

void initLibrary()
{
    static std::once_flag once;
    std::call_once(once, [] { mosquitto_lib_init(); });
}

// The numeric form of one of the addresses a name resolved to, taken in turn by attempt.
QByteArray addressOf(const QHostInfo& found, int attempt)
{
    QList<QByteArray> addresses;
    for (const QHostAddress& address : found.addresses()) {
        const QByteArray text = address.toString().toUtf8();
        if (!addresses.contains(text))
            addresses.append(text);
    }
    return addresses.isEmpty() ? QByteArray() : addresses.at(attempt % addresses.size());
}

MqttClient::ClientError errorFromConnack(int code)
{
    if (code >= MqttError::InvalidProtocolVersion && code <= MqttError::NotAuthorized)
        return static_cast<MqttClient::ClientError>(code);
    return MqttError::ProtocolViolation;
}

MqttClient::ClientError errorFromLibrary(int rc)
{
    switch (rc) {
    case MOSQ_ERR_NO_CONN:
    case MOSQ_ERR_CONN_LOST:
    case MOSQ_ERR_KEEPALIVE:
    case MOSQ_ERR_ERRNO:
    case MOSQ_ERR_EAI:
    case MOSQ_ERR_LOOKUP:
        return MqttError::TransportInvalid;
    case MOSQ_ERR_PROTOCOL:
    case MOSQ_ERR_MALFORMED_PACKET:
    case MOSQ_ERR_MALFORMED_UTF8:
    case MOSQ_ERR_DUPLICATE_PROPERTY:
    case MOSQ_ERR_OVERSIZE_PACKET:
    case MOSQ_ERR_PAYLOAD_SIZE:
        return MqttError::ProtocolViolation;
    default:
        return MqttError::UnknownError;
    }
}

} // namespace

// libmosquitto's callbacks only record what happened; the signals are emitted
// once the library call has returned, so that slots may call back into the
// client (publish, connect again, close) without re-entering the library.
struct MqttClient::Private {
    struct Event {
        enum Kind { State, Error, Message } kind;
        int value = 0;
        QByteArray payload;
        QString topic;
    };

    explicit Private(MqttClient* client) : q(client) {}

    MqttClient* q;
    mosquitto* mosq = nullptr;
    QSocketNotifier* readNotifier = nullptr;
    QSocketNotifier* writeNotifier = nullptr;
    int notifiedSocket = -1;
    QTimer* miscTimer = nullptr;
    qint64 publishedThisTick = 0;
    qint64 publishedSinceTrim = 0;
    int trimsLeft = 0;

    QString hostname;
    int attempt = 0;
    int lookupId = -1;
    quint16 port = 1883;
    QString username;
    QString password;
    int keepAlive = 60;
    QByteArray willTopic;
    QByteArray willPayload;
    int willQos = 0;
    bool willRetain = false;

    ClientState state = Disconnected;
    ClientError error = MqttError::NoError;
    bool refusedByBroker = false;

    QVector<Event> events;
    bool flushing = false;

    bool ensureHandle();
    void destroyHandle();
    void applyCredentials();
    void applyWill();

    void afterLibraryCall();
    void syncNotifiers();
    void dropNotifiers();
    void onReadable();
    void onWritable();
    void onHousekeeping();
    void releaseBurstMemory();

    void onHostFound(const QHostInfo& found);
    void connectTo(const QByteArray& host);
    void abortLookup();
    void failSoon(ClientError e);

    void queueState(ClientState s) { events.append({Event::State, s, {}, {}}); }
    void queueError(ClientError e) { events.append({Event::Error, e, {}, {}}); }
    void flush();

    static void onConnect(mosquitto*, void* obj, int rc);
    static void onDisconnect(mosquitto*, void* obj, int rc);
    static void onMessage(mosquitto*, void* obj, const mosquitto_message* message);
};

bool MqttClient::Private::ensureHandle()
{
    if (mosq)
        return true;
    initLibrary();
    mosq = mosquitto_new(nullptr, true, this);
    if (!mosq)
        return false;
    mosquitto_int_option(mosq, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_callback_set(mosq, &Private::onConnect);
    mosquitto_disconnect_callback_set(mosq, &Private::onDisconnect);
    mosquitto_message_callback_set(mosq, &Private::onMessage);
    return true;
}

void MqttClient::Private::destroyHandle()
{
    dropNotifiers();
    miscTimer->stop();
    if (!mosq)
        return;
    // Destroying the handle closes its socket; nothing may reach us afterwards.
    mosquitto_user_data_set(mosq, nullptr);
    mosquitto_destroy(mosq);
    mosq = nullptr;
}

void MqttClient::Private::applyCredentials()
{
    const QByteArray user = username.toUtf8();
    const QByteArray pass = password.toUtf8();
    if (user.isEmpty())
        mosquitto_username_pw_set(mosq, nullptr, nullptr);
    else
        mosquitto_username_pw_set(mosq, user.constData(), pass.isEmpty() ? nullptr : pass.constData());
}

void MqttClient::Private::applyWill()
{
    if (willTopic.isEmpty())
        mosquitto_will_clear(mosq);
    else
        mosquitto_will_set(mosq, willTopic.constData(), willPayload.size(), willPayload.constData(), willQos,
                           willRetain);
}

void MqttClient::Private::afterLibraryCall()
{
    syncNotifiers();
    flush();
}

void MqttClient::Private::syncNotifiers()
{
    const int socket = mosq ? mosquitto_socket(mosq) : -1;
    if (socket != notifiedSocket) {
        dropNotifiers();
        if (socket >= 0) {
            readNotifier = new QSocketNotifier(socket, QSocketNotifier::Read, q);
            QObject::connect(readNotifier, &QSocketNotifier::activated, q, [this] { onReadable(); });
            writeNotifier = new QSocketNotifier(socket, QSocketNotifier::Write, q);
            QObject::connect(writeNotifier, &QSocketNotifier::activated, q, [this] { onWritable(); });
            notifiedSocket = socket;
            miscTimer->start();
        }
    }
    if (writeNotifier)
        writeNotifier->setEnabled(mosquitto_want_write(mosq));
}

void MqttClient::Private::dropNotifiers()
{
    // The notifiers may be the senders of the signal being handled.
    for (QSocketNotifier* notifier : {readNotifier, writeNotifier}) {
        if (notifier) {
            notifier->setEnabled(false);
            notifier->deleteLater();
        }
    }
    readNotifier = nullptr;
    writeNotifier = nullptr;
    notifiedSocket = -1;
    miscTimer->stop();
}

void MqttClient::Private::onReadable()
{
    if (!mosq)
        return;
    mosquitto_loop_read(mosq, 1);
    afterLibraryCall();
}

void MqttClient::Private::onWritable()
{
    if (!mosq)
        return;
    mosquitto_loop_write(mosq, 1);
    afterLibraryCall();
}

void MqttClient::Private::onHousekeeping()
{
    if (!mosq)
        return;
    mosquitto_loop_misc(mosq);
    afterLibraryCall();
    releaseBurstMemory();
}

void MqttClient::Private::releaseBurstMemory()
{
    // A burst of publishes queues its messages on the heap, and the last of
    // them are freed only as their acknowledgements come in. Once the burst
    // is over, hand the freed pages back on a few quiet ticks so that a
    // service running for months does not keep the peak of its busiest second.
    constexpr qint64 burstBytes = 64 * 1024;
    constexpr int quietTicksTrimmed = 3;
    if (publishedThisTick > 0) {
        publishedSinceTrim += publishedThisTick;
        publishedThisTick = 0;
        return;
    }
    if (publishedSinceTrim >= burstBytes) {
        publishedSinceTrim = 0;
        trimsLeft = quietTicksTrimmed;
    }
    if (trimsLeft > 0) {
        --trimsLeft;
        malloc_trim(0);
    }
}

void MqttClient::Private::flush()
{
    // Slots may queue further events (close the transport, say): the
    // outermost flush delivers them in order. A slot may also delete the
    // client, hence the guard.
    if (flushing)
        return;
    flushing = true;
    QPointer<MqttClient> guard(q);
    while (!events.isEmpty()) {
        const Event event = events.takeFirst();
        switch (event.kind) {
        case Event::State:
            if (state == event.value)
                continue;
            state = static_cast<ClientState>(event.value);
            emit q->stateChanged(state);
            break;
        case Event::Error:
            if (error == event.value)
                continue;
            error = static_cast<ClientError>(event.value);
            emit q->errorChanged(error);
            break;
        case Event::Message:
            emit q->messageReceived(event.payload, event.topic);
            break;
        }
        if (!guard)
            return;
    }
    flushing = false;
}

void MqttClient::Private::onConnect(mosquitto*, void* obj, int rc)
{
    auto* d = static_cast<Private*>(obj);
    if (!d)
        return;
    if (rc == 0) {
        d->queueState(Connected);
    } else {
        d->refusedByBroker = true;
        d->queueError(errorFromConnack(rc));
    }
}

void MqttClient::Private::onDisconnect(mosquitto*, void* obj, int rc)
{
    auto* d = static_cast<Private*>(obj);
    if (!d)
        return;
    // The library has closed the socket already; its number may come back at once.
    d->dropNotifiers();
    if (rc != MOSQ_ERR_SUCCESS && !d->refusedByBroker)
        d->queueError(errorFromLibrary(rc));
    d->queueState(Disconnected);
}

void MqttClient::Private::onMessage(mosquitto*, void* obj, const mosquitto_message* message)
{
    auto* d = static_cast<Private*>(obj);
    if (!d)
        return;
    Event event{Event::Message, 0, {}, QString::fromUtf8(message->topic)};
    event.payload = QByteArray(static_cast<const char*>(message->payload), message->payloadlen);
    d->events.append(event);
}

MqttClient::MqttClient(QObject* parent)
    : QObject(parent)
    , d(new Private(this))
{
    d->miscTimer = new QTimer(this);
    d->miscTimer->setInterval(1000);
    QObject::connect(d->miscTimer, &QTimer::timeout, this, [this] { d->onHousekeeping(); });
}

MqttClient::~MqttClient()
{
    if (d->mosq && d->state == Connected)
        mosquitto_disconnect(d->mosq);
    d->destroyHandle();
    delete d;
}

void MqttClient::setAttempt(int attempt)
{
    d->attempt = attempt;
}

QString MqttClient::hostname() const
{
    return d->hostname;
}

void MqttClient::setHostname(const QString& hostname)
{
    d->hostname = hostname;
}

quint16 MqttClient::port() const
{
    return d->port;
}

void MqttClient::setPort(quint16 port)
{
    d->port = port;
}

QString MqttClient::username() const
{
    return d->username;
}

void MqttClient::setUsername(const QString& username)
{
    d->username = username;
}

QString MqttClient::password() const
{
    return d->password;
}

void MqttClient::setPassword(const QString& password)
{
    d->password = password;
}

int MqttClient::keepAlive() const
{
    return d->keepAlive;
}

void MqttClient::setKeepAlive(int seconds)
{
    d->keepAlive = seconds;
}

void MqttClient::setWill(const QString& topic, const QByteArray& payload, int qos, bool retain)
{
    d->willTopic = topic.toUtf8();
    d->willPayload = payload;
    d->willQos = qos;
    d->willRetain = retain;
}

bool MqttClient::topicMatches(const QString& filter, const QString& topic)
{
    bool result = false;
    return mosquitto_topic_matches_sub(filter.toUtf8().constData(), topic.toUtf8().constData(), &result)
            == MOSQ_ERR_SUCCESS
        && result;
}

MqttClient::ClientState MqttClient::state() const
{
    return d->state;
}

int MqttClient::socketDescriptor() const
{
    return d->mosq ? mosquitto_socket(d->mosq) : -1;
}

MqttClient::ClientError MqttClient::error() const
{
    return d->error;
}

void MqttClient::connectToHost()
{
    if (d->state != Disconnected)
        return;
    if (!d->ensureHandle()) {
        d->queueError(MqttError::UnknownError);
        d->flush();
        return;
    }
    d->applyCredentials();
    d->applyWill();
    d->error = MqttError::NoError;
    d->refusedByBroker = false;
    d->queueState(Connecting);
    d->flush();
    if (d->state != Connecting)
        return;

    // An address needs no lookup: Qt would ask the resolver for its name, and a gateway whose resolver is
    // out of reach would wait for that before every connection.
    const QHostAddress literal(d->hostname);
    if (!literal.isNull()) {
        d->connectTo(literal.toString().toUtf8());
        return;
    }
    // The name is looked up away from the loop: a slow resolver must not hold up the service.
    d->lookupId = QHostInfo::lookupHost(d->hostname, this, [this](const QHostInfo& found) { d->onHostFound(found); });
}

void MqttClient::Private::onHostFound(const QHostInfo& found)
{
    if (found.lookupId() != lookupId || state != Connecting)
        return;
    lookupId = -1;
    if (found.error() != QHostInfo::NoError || found.addresses().isEmpty()) {
        destroyHandle();
        queueState(Disconnected);
        emit q->hostLookupFailed(hostname, found.errorString());
        flush();
        return;
    }
    connectTo(addressOf(found, attempt));
}

void MqttClient::Private::connectTo(const QByteArray& host)
{
    const int rc = mosquitto_connect_async(mosq, host.constData(), port, keepAlive);
    if (rc == MOSQ_ERR_SUCCESS) {
        syncNotifiers();
        return;
    }
    // A refused loopback connect fails right here and no callback follows.
    failSoon(errorFromLibrary(rc));
}

void MqttClient::Private::failSoon(ClientError e)
{
    queueError(e);
    queueState(Disconnected);
    QPointer<MqttClient> guard(q);
    QMetaObject::invokeMethod(q, [this, guard] {
        if (guard)
            flush();
    }, Qt::QueuedConnection);
}

void MqttClient::Private::abortLookup()
{
    if (lookupId < 0)
        return;
    QHostInfo::abortHostLookup(lookupId);
    lookupId = -1;
}

void MqttClient::disconnectFromHost()
{
    if (!d->mosq || d->state == Disconnected)
        return;
    if (d->state == Connected && mosquitto_disconnect(d->mosq) == MOSQ_ERR_SUCCESS) {
        // The DISCONNECT packet goes out (and the callback follows) from the loop.
        d->afterLibraryCall();
        return;
    }
    // No session to end politely: just drop the connection attempt.
    d->abortLookup();
    d->destroyHandle();
    d->queueState(Disconnected);
    d->flush();
}

void MqttClient::closeTransport()
{
    if (d->state == Disconnected)
        return;
    d->abortLookup();
    d->destroyHandle();
    d->queueError(MqttError::TransportInvalid);
    d->queueState(Disconnected);
    d->flush();
}

bool MqttClient::subscribe(const QString& filter, int qos)
{
    if (!d->mosq || d->state != Connected)
        return false;
    const QByteArray bytes = filter.toUtf8();
    const int rc = mosquitto_subscribe(d->mosq, nullptr, bytes.constData(), qos);
    d->afterLibraryCall();
    return rc == MOSQ_ERR_SUCCESS;
}

bool MqttClient::unsubscribe(const QString& filter)
{
    if (!d->mosq || d->state != Connected)
        return false;
    const QByteArray bytes = filter.toUtf8();
    const int rc = mosquitto_unsubscribe(d->mosq, nullptr, bytes.constData());
    d->afterLibraryCall();
    return rc == MOSQ_ERR_SUCCESS;
}

int MqttClient::publish(const QString& topic, const QByteArray& payload, int qos, bool retain)
{
    if (!d->mosq || d->state != Connected)
        return -1;
    const QByteArray bytes = topic.toUtf8();
    int mid = 0;
    const int rc = mosquitto_publish(d->mosq, &mid, bytes.constData(), payload.size(), payload.constData(), qos, retain);
    d->publishedThisTick += payload.size();
    d->afterLibraryCall();
    return rc == MOSQ_ERR_SUCCESS ? mid : -1;
}

} // namespace Tarvik

#include "moc_mqttclient.cpp"
