// The MQTT client on its own against a real mosquitto: the publications the
// service relies on, and the states and errors its session logic reads (the
// session itself is tested with IPC).
#include "support/broker.h"
#include "support/peer.h"

#include <QtTest>

using Tarvik::MqttClient;
using Tarvik::MqttError;
using namespace TarvikTest;

namespace {

constexpr int Deadline = 10000;

// The first arguments of the signals a spy recorded, as numbers.
QList<int> valuesOf(const QSignalSpy& spy)
{
    QList<int> values;
    for (const QList<QVariant>& arguments : spy)
        values << arguments.at(0).toInt();
    return values;
}

} // namespace

class TestMqttClient : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        qRegisterMetaType<MqttClient::ClientState>();
        qRegisterMetaType<MqttClient::ClientError>();
        QVERIFY2(m_broker.start(), m_broker.output().constData());
    }

    // Far more messages than libmosquitto and the broker allow in flight
    // (20): at QoS 2 they only all arrive if every handshake completes, in
    // the publishing and in the receiving client.
    void publishesInOrderAtQos2()
    {
        Peer publisher(m_broker.port());
        Peer subscriber(m_broker.port());
        QVERIFY(publisher.connectAndWait() && subscriber.connectAndWait());
        QVERIFY(subscriber.subscribeAndWait("flood/#", "flood/marker"));
        QList<QByteArray> sent;
        for (int i = 0; i < 200; ++i) {
            sent << QByteArray::number(i);
            QVERIFY(publisher.publish("flood/data", sent.last(), 2));
        }
        QTRY_COMPARE_WITH_TIMEOUT(subscriber.payloads(), sent, Deadline);
        QCOMPARE(publisher.errors.count() + subscriber.errors.count(), 0);
    }

    void reportsARefusedPortFromTheEventLoop()
    {
        Peer probe(freePort());
        probe.client.connectToHost();
        // Connecting is reported at once; the failure only from the event loop.
        QCOMPARE(valuesOf(probe.states), QList<int>({MqttClient::Connecting}));
        QCOMPARE(probe.errors.count(), 0);
        QTRY_COMPARE_WITH_TIMEOUT(probe.client.state(), MqttClient::Disconnected, Deadline);
        QCOMPARE(valuesOf(probe.states), QList<int>({MqttClient::Connecting, MqttClient::Disconnected}));
        QCOMPARE(valuesOf(probe.errors), QList<int>({MqttError::TransportInvalid}));
    }

    void refusesWorkOutsideASessionAndEndsOneWithoutError()
    {
        Peer probe(m_broker.port());
        QCOMPARE(probe.client.publish("early", "x", 1, false), -1);
        QVERIFY(!probe.client.subscribe("early", 0));
        QVERIFY(probe.connectAndWait());

        probe.client.disconnectFromHost();
        QTRY_COMPARE_WITH_TIMEOUT(probe.client.state(), MqttClient::Disconnected, Deadline);
        QCOMPARE(probe.errors.count(), 0);
        QCOMPARE(probe.client.publish("late", "x", 1, false), -1);
    }

private:
    Broker m_broker;
};

QTEST_GUILESS_MAIN(TestMqttClient)
#include "test_mqttclient.moc"
