#include "ipc/mqttclient.h"
#include "support/broker.h"

#include <QElapsedTimer>
#include <QHostAddress>
#include <QProcess>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QtTest>

#include <algorithm>

using Tarvik::MqttClient;
using Tarvik::MqttError;
using TarvikTest::Broker;

namespace {

constexpr int Deadline = 10000;

QList<MqttClient::ClientState> statesOf(const QSignalSpy& spy)
{
    QList<MqttClient::ClientState> states;
    for (const QList<QVariant>& args : spy)
        states << args.at(0).value<MqttClient::ClientState>();
    return states;
}

QList<MqttClient::ClientError> errorsOf(const QSignalSpy& spy)
{
    QList<MqttClient::ClientError> errors;
    for (const QList<QVariant>& args : spy)
        errors << args.at(0).value<MqttClient::ClientError>();
    return errors;
}

// A client with spies on all of its signals.
struct Probe {
    explicit Probe(quint16 port, const QString& user = QString(), const QString& pass = QString())
        : states(&client, &MqttClient::stateChanged)
        , errors(&client, &MqttClient::errorChanged)
        , messages(&client, &MqttClient::messageReceived)
    {
        client.setHostname("127.0.0.1");
        client.setPort(port);
        client.setUsername(user);
        client.setPassword(pass);
        client.setKeepAlive(60);
    }

    bool connectAndWait()
    {
        client.connectToHost();
        return QTest::qWaitFor([this] { return client.state() != MqttClient::Connecting; }, Deadline)
            && client.state() == MqttClient::Connected;
    }

    // The broker handles one client's packets in order: once our own marker
    // comes back, the subscription is in place for everybody's messages.
    bool subscribeAndWait(const QString& filter, int qos, const QString& markerTopic)
    {
        if (!client.subscribe(filter, qos) || client.publish(markerTopic, "marker", 0, false) < 0)
            return false;
        const bool seen = QTest::qWaitFor([this] { return !messages.isEmpty(); }, Deadline);
        messages.clear();
        return seen;
    }

    MqttClient client;
    QSignalSpy states;
    QSignalSpy errors;
    QSignalSpy messages;
};

// Runs mosquitto_sub as an independent late subscriber and returns its
// "qos retain topic payload" line for the first message.
QByteArray readWithMosquittoSub(quint16 port, const QString& topic)
{
    QProcess sub;
    sub.start("mosquitto_sub", {"-h", "127.0.0.1", "-p", QString::number(port), "-q", "2", "-t", topic,
                                   "-C", "1", "-W", "10", "-F", "%q %r %t %p"});
    // Keep the event loop running: our own clients may still have to finish
    // their QoS 2 handshakes meanwhile.
    QSignalSpy finished(&sub, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished));
    if (!finished.wait(Deadline + 2000)) {
        sub.kill();
        sub.waitForFinished();
    }
    return sub.readAllStandardOutput().trimmed();
}

} // namespace

class TestMqttClient : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void publishesAndReceivesAtEveryQos_data();
    void publishesAndReceivesAtEveryQos();
    void completesManyQos2FlowsBothWays();
    void reportsRefusedPortAsTransportInvalid();
    void acceptsRightPasswordAndRejectsWrongOneWithNotAuthorized();
    void reportsBrokerLossAsTransportInvalid();
    void closesTransportOfSilentPeerAndConnectsAgain();
    void disconnectsCleanlyAndDropsPublishWhileDisconnected();

private:
    Broker m_broker;
};

void TestMqttClient::initTestCase()
{
    qRegisterMetaType<MqttClient::ClientState>();
    qRegisterMetaType<MqttClient::ClientError>();
    qRegisterMetaType<QProcess::ExitStatus>();
    QVERIFY2(m_broker.start(), m_broker.output().constData());
}

void TestMqttClient::publishesAndReceivesAtEveryQos_data()
{
    QTest::addColumn<int>("qos");
    QTest::newRow("qos0") << 0;
    QTest::newRow("qos1") << 1;
    QTest::newRow("qos2") << 2;
}

void TestMqttClient::publishesAndReceivesAtEveryQos()
{
    QFETCH(int, qos);
    const QString topic = QString("roundtrip/qos%1").arg(qos);
    Probe publisher(m_broker.port());
    Probe subscriber(m_broker.port());
    QVERIFY(publisher.connectAndWait());
    QVERIFY(subscriber.connectAndWait());
    QCOMPARE(statesOf(subscriber.states), (QList<MqttClient::ClientState>{MqttClient::Connecting, MqttClient::Connected}));

    QVERIFY(subscriber.subscribeAndWait(topic + "/data", 2, topic + "/data"));

    // Round trip: publish, then wait for the subscriber to see it.
    QElapsedTimer timer;
    QList<qint64> nanos;
    for (int i = 0; i < 50; ++i) {
        const QByteArray payload = QByteArray::number(i);
        timer.start();
        QVERIFY(publisher.client.publish(topic + "/data", payload, qos, false) >= 0);
        QVERIFY(subscriber.messages.wait(Deadline));
        nanos << timer.nsecsElapsed();
        QCOMPARE(subscriber.messages.at(i).at(0).toByteArray(), payload);
        QCOMPARE(subscriber.messages.at(i).at(1).toString(), topic + "/data");
    }
    std::sort(nanos.begin(), nanos.end());
    qInfo("QoS %d round trip through the broker: p50 %.3f ms, max %.3f ms", qos, nanos.at(nanos.size() / 2) / 1e6,
        nanos.last() / 1e6);

    // Retained at this QoS: a subscriber arriving later gets it with both flags.
    const QByteArray retained = "kept at qos " + QByteArray::number(qos);
    QVERIFY(publisher.client.publish(topic + "/retained", retained, qos, true) >= 0);
    QCOMPARE(readWithMosquittoSub(m_broker.port(), topic + "/retained"),
        QByteArray::number(qos) + " 1 " + (topic + "/retained").toUtf8() + " " + retained);

    // And the same seen through our own client.
    Probe late(m_broker.port());
    QVERIFY(late.connectAndWait());
    QVERIFY(late.client.subscribe(topic + "/retained", qos));
    QVERIFY(late.messages.wait(Deadline));
    QCOMPARE(late.messages.at(0).at(0).toByteArray(), retained);
    QCOMPARE(late.messages.at(0).at(1).toString(), topic + "/retained");

    // A non-retained publish is not kept.
    QVERIFY(publisher.client.publish(topic + "/volatile/a", "gone", qos, false) >= 0);
    QVERIFY(publisher.client.publish(topic + "/volatile/b", "kept", qos, true) >= 0);
    QCOMPARE(readWithMosquittoSub(m_broker.port(), topic + "/volatile/+"),
        QByteArray::number(qos) + " 1 " + (topic + "/volatile/b").toUtf8() + " kept");
}

void TestMqttClient::completesManyQos2FlowsBothWays()
{
    // Far more messages than libmosquitto and the broker allow in flight
    // (20): they only all arrive if every QoS 2 handshake completes, in both
    // the publishing and the receiving client.
    Probe publisher(m_broker.port());
    Probe subscriber(m_broker.port());
    QVERIFY(publisher.connectAndWait());
    QVERIFY(subscriber.connectAndWait());
    QVERIFY(subscriber.subscribeAndWait("bulk/data", 2, "bulk/data"));

    const int count = 200;
    for (int i = 0; i < count; ++i)
        QVERIFY(publisher.client.publish("bulk/data", QByteArray::number(i), 2, false) >= 0);
    QTRY_COMPARE_WITH_TIMEOUT(subscriber.messages.count(), count, Deadline);
    for (int i = 0; i < count; ++i)
        QCOMPARE(subscriber.messages.at(i).at(0).toByteArray(), QByteArray::number(i));
    QCOMPARE(publisher.errors.count(), 0);
    QCOMPARE(subscriber.errors.count(), 0);
}

void TestMqttClient::reportsRefusedPortAsTransportInvalid()
{
    Probe probe(TarvikTest::freePort());
    probe.client.connectToHost();
    // Connecting is reported at once; the failure only from the event loop.
    QCOMPARE(statesOf(probe.states), QList<MqttClient::ClientState>{MqttClient::Connecting});
    QCOMPARE(probe.errors.count(), 0);

    QTRY_COMPARE_WITH_TIMEOUT(probe.client.state(), MqttClient::Disconnected, Deadline);
    QCOMPARE(statesOf(probe.states), (QList<MqttClient::ClientState>{MqttClient::Connecting, MqttClient::Disconnected}));
    QCOMPARE(errorsOf(probe.errors), QList<MqttClient::ClientError>{MqttError::TransportInvalid});
    QCOMPARE(probe.client.error(), MqttError::TransportInvalid);
}

void TestMqttClient::acceptsRightPasswordAndRejectsWrongOneWithNotAuthorized()
{
    Broker secured(Broker::Options{"tarvik", "s3cret"});
    QVERIFY2(secured.start(), secured.output().constData());

    Probe right(secured.port(), "tarvik", "s3cret");
    QVERIFY(right.connectAndWait());
    QCOMPARE(right.errors.count(), 0);

    // mosquitto 2 answers a bad password with CONNACK 5, not 4.
    Probe wrong(secured.port(), "tarvik", "guess");
    QVERIFY(!wrong.connectAndWait());
    QTRY_COMPARE_WITH_TIMEOUT(wrong.client.state(), MqttClient::Disconnected, Deadline);
    QCOMPARE(errorsOf(wrong.errors), QList<MqttClient::ClientError>{MqttError::NotAuthorized});
    QCOMPARE(statesOf(wrong.states), (QList<MqttClient::ClientState>{MqttClient::Connecting, MqttClient::Disconnected}));

    Probe anonymous(secured.port());
    QVERIFY(!anonymous.connectAndWait());
    QCOMPARE(errorsOf(anonymous.errors), QList<MqttClient::ClientError>{MqttError::NotAuthorized});
}

void TestMqttClient::reportsBrokerLossAsTransportInvalid()
{
    Broker own;
    QVERIFY2(own.start(), own.output().constData());
    Probe probe(own.port());
    QVERIFY(probe.connectAndWait());

    own.stop();
    QTRY_COMPARE_WITH_TIMEOUT(probe.client.state(), MqttClient::Disconnected, Deadline);
    QCOMPARE(errorsOf(probe.errors), QList<MqttClient::ClientError>{MqttError::TransportInvalid});
    QCOMPARE(statesOf(probe.states),
        (QList<MqttClient::ClientState>{MqttClient::Connecting, MqttClient::Connected, MqttClient::Disconnected}));
    QCOMPARE(probe.client.publish("after/loss", "x", 0, false), -1);
}

void TestMqttClient::closesTransportOfSilentPeerAndConnectsAgain()
{
    // A peer that accepts TCP and never answers CONNECT.
    QTcpServer silent;
    QVERIFY(silent.listen(QHostAddress::LocalHost, 0));
    Probe probe(silent.serverPort());
    probe.client.connectToHost();
    QVERIFY(silent.waitForNewConnection(Deadline));
    QTcpSocket* peer = silent.nextPendingConnection();
    // The CONNECT packet (type 1) reaches the peer: writing works while connecting.
    QTRY_VERIFY_WITH_TIMEOUT(peer->bytesAvailable() > 0, Deadline);
    QCOMPARE(static_cast<unsigned char>(peer->peek(1).at(0)) >> 4, 1);
    QCOMPARE(probe.client.state(), MqttClient::Connecting);

    probe.client.closeTransport();
    QCOMPARE(probe.client.state(), MqttClient::Disconnected);
    QCOMPARE(errorsOf(probe.errors), QList<MqttClient::ClientError>{MqttError::TransportInvalid});
    // The socket is really gone: the peer sees the end of the stream.
    QTRY_COMPARE_WITH_TIMEOUT(peer->state(), QAbstractSocket::UnconnectedState, Deadline);

    // The same client may try again, here against the real broker.
    probe.client.setPort(m_broker.port());
    QVERIFY(probe.connectAndWait());
    QCOMPARE(statesOf(probe.states),
        (QList<MqttClient::ClientState>{MqttClient::Connecting, MqttClient::Disconnected, MqttClient::Connecting,
            MqttClient::Connected}));
}

void TestMqttClient::disconnectsCleanlyAndDropsPublishWhileDisconnected()
{
    Probe probe(m_broker.port());
    QCOMPARE(probe.client.publish("early", "x", 1, false), -1);
    QVERIFY(!probe.client.subscribe("early", 0));
    QVERIFY(probe.connectAndWait());

    probe.client.disconnectFromHost();
    QTRY_COMPARE_WITH_TIMEOUT(probe.client.state(), MqttClient::Disconnected, Deadline);
    QCOMPARE(probe.errors.count(), 0);
    QCOMPARE(probe.client.error(), MqttError::NoError);
    QCOMPARE(probe.client.publish("late", "x", 1, false), -1);
}

QTEST_GUILESS_MAIN(TestMqttClient)
#include "test_mqttclient.moc"
