// The broker session against a real mosquitto. The MQTT client on its own:
// the publications the service relies on, and the states and errors its
// session logic reads. The service's session on it: what it subscribes to,
// how it answers a bad command, and how it keeps the session alive (the lines
// it logs are what an operator reads of all this).
#include "config/config.h"
#include "ipc/ipc.h"
#include "support/broker.h"
#include "support/logcapture.h"
#include "support/peer.h"

#include <QElapsedTimer>
#include <QHostAddress>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

#include <algorithm>
#include <memory>

using namespace Tarvik;
using namespace TarvikTest;

namespace {

constexpr int Deadline = 10000;
// The reconnect delay is 3000 ms on a precise timer; allow for the clock's grain.
constexpr int ReconnectDelayFloor = 2950;
// What a session does first: says tarvik is online, then subscribes to the command filters.
const QStringList subscribing{"[IPC] Publishing Message", "[IPC] Topic: [tolv/network/availability]",
    "[IPC] QoS  : 1", "[IPC] Retn : true", "[IPC] Data : [online]",
    "[IPC] Subscribing to topic [tolv/network/availability].", "[IPC] Subscribing to topic [tolv/network/+/get].",
    "[IPC] Subscribing to topic [tolv/network/+/+/get].", "[IPC] Subscribing to topic [tolv/network/+/+/set]."};

// The first arguments of the signals a spy recorded, as numbers.
QList<int> valuesOf(const QSignalSpy& spy)
{
    QList<int> values;
    for (const QList<QVariant>& arguments : spy)
        values << arguments.at(0).toInt();
    return values;
}

// Sends commands to the service, in order.
bool sendCommands(Peer& user, const QList<QPair<QString, QByteArray>>& commands)
{
    return std::all_of(commands.begin(), commands.end(),
        [&user](const auto& command) { return user.publish("tolv/network/" + command.first, command.second); });
}

} // namespace

class TestMqttSession : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        qRegisterMetaType<MqttClient::ClientState>();
        qRegisterMetaType<MqttClient::ClientError>();
        // A machine whose name servers are out of reach must still fail a lookup within the deadline.
        qputenv("RES_OPTIONS", "timeout:1 attempts:1");
        Log::open("test_mqtt_session", true, false);
        Log::setLevel(Log::Debug);
        QVERIFY(m_dir.isValid());
        m_config = new Config(m_dir.filePath("tarvik.conf"), this);
        QVERIFY2(m_broker.start(), m_broker.output().constData());
    }

    void cleanup()
    {
        if (QTest::currentTestFailed() && m_log)
            qInfo().noquote() << "Captured log:\n" << m_log->text();
        m_ipc.clear();
        m_log.reset();
    }

    // Far more messages than libmosquitto and the broker allow in flight
    // (20): at QoS 2 they only all arrive if every handshake completes, in
    // the publishing and in the receiving client.
    void publishesInOrderAtQos2AndEndsTheSessionWithoutError()
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

        publisher.client.disconnectFromHost();
        QTRY_COMPARE_WITH_TIMEOUT(publisher.client.state(), MqttClient::Disconnected, Deadline);
        QCOMPARE(publisher.client.publish("late", "x", 1, false), -1);
        QCOMPARE(publisher.errors.count() + subscriber.errors.count(), 0);
    }

    void refusesWorkOutsideASessionAndReportsARefusedPortFromTheEventLoop()
    {
        Peer probe(freePort());
        QCOMPARE(probe.client.publish("early", "x", 1, false), -1);
        QVERIFY(!probe.client.subscribe("early", 0));
        probe.client.connectToHost();
        // Connecting is reported at once; the failure only from the event loop.
        QCOMPARE(valuesOf(probe.states), QList<int>({MqttClient::Connecting}));
        QCOMPARE(probe.errors.count(), 0);
        QTRY_COMPARE_WITH_TIMEOUT(probe.client.state(), MqttClient::Disconnected, Deadline);
        QCOMPARE(valuesOf(probe.states), QList<int>({MqttClient::Connecting, MqttClient::Disconnected}));
        QCOMPARE(valuesOf(probe.errors), QList<int>({MqttError::TransportInvalid}));
    }

    void takesCommandsFromItsThreeFiltersAndAnswersBadOnes()
    {
        IPC* ipc = startIpc(m_broker.port());
        QSignalSpy commands(ipc, &IPC::commandReceived);
        QVERIFY(QSignalSpy(ipc, &IPC::connected).wait(Deadline));
        QCOMPARE(ipcLines(), QStringList({connectingLine(m_broker.port()), "[IPC] Connected."}) + subscribing);

        // From one publisher in order: the last command arrives third only if
        // the topics outside the filters were ignored.
        Peer user(m_broker.port());
        QVERIFY(user.connectAndWait() && user.subscribeAndWait("tolv/network/error", "tolv/network/error"));
        QVERIFY(sendCommands(user, {{"status/get", "{}"}, {"a/b/c/get", "{}"}, {"wifi/state", "{}"},
            {"wifi/state/get", "{"}, {"wifi/config/set", R"({"ssid": "HomeNet"})"}, {"ethernet/config/get", ""}}));
        QTRY_COMPARE_WITH_TIMEOUT(commands.count(), 3, Deadline);
        QStringList names;
        for (const QList<QVariant>& command : commands)
            names << command.at(0).toString();
        QCOMPARE(names, QStringList({"status/get", "wifi/config/set", "ethernet/config/get"}));
        QCOMPARE(commands.at(1).at(1).toJsonObject(), QJsonObject({{"ssid", "HomeNet"}}));

        // The unparsable one is answered on the error topic, neither kept nor acknowledged.
        QTRY_COMPARE_WITH_TIMEOUT(user.payloads(), QList<QByteArray>({"{\n    \"command\": \"wifi/state/get\",\n"
            "    \"error\": \"Json parse error: unterminated object\"\n}\n"}), Deadline);
        const QStringList lines = ipcLines();
        const int received = lines.indexOf("[IPC] Message Received [tolv/network/wifi/state/get]");
        QCOMPARE(lines.mid(received, 9), QStringList({"[IPC] Message Received [tolv/network/wifi/state/get]",
            "[IPC] Command : wifi/state/get", "[IPC] Data    : {", "[IPC] Json parse error: unterminated object",
            "[IPC] Publishing Message", "[IPC] Topic: [tolv/network/error]", "[IPC] QoS  : 0", "[IPC] Retn : false",
            // The document tarvik built is logged as it is sent, line breaks and all.
            "[IPC] Data : [" + QString::fromUtf8(user.payloads().value(0)) + "]"}));
    }

    void logsTheBrokersRefusalOfAWrongPassword()
    {
        Broker secured("tarvik", "s3cret");
        QVERIFY2(secured.start(), secured.output().constData());
        QVERIFY(QSignalSpy(startIpc(secured.port(), "tarvik", "s3cret"), &IPC::connected).wait(Deadline));
        m_log.reset();
        IPC* wrong = startIpc(secured.port(), "tarvik", "guess");
        QSignalSpy connected(wrong, &IPC::connected);
        QVERIFY(QSignalSpy(wrong, &IPC::disconnected).wait(Deadline));
        QCOMPARE(connected.count(), 0);
        // mosquitto 2 refuses a bad password with CONNACK 5.
        QCOMPARE(ipcLines(), QStringList({connectingLine(secured.port()), "[IPC] ERROR: NotAuthorized (5).",
            "[IPC] Disconnected."}));
    }

    // The name is looked up away from the loop, and a failed lookup says so.
    void logsABrokerHostThatDoesNotResolve()
    {
        IPC* ipc = startIpc(m_broker.port(), QString(), QString(), "broker.invalid");
        QVERIFY(QSignalSpy(ipc, &IPC::disconnected).wait(Deadline));
        const QStringList lines = ipcLines();
        QCOMPARE(lines.size(), 3);
        QCOMPARE(lines.at(0), QString("[IPC] Connecting to broker.invalid:%1").arg(m_broker.port()));
        QVERIFY2(lines.at(1).startsWith("[IPC] ERROR: Could not resolve broker host 'broker.invalid': "),
            qPrintable(lines.at(1)));
        QCOMPARE(lines.at(2), QString("[IPC] Disconnected."));
    }

    // A broker that accepts TCP and never answers is given up after ten
    // seconds and tried again three seconds later.
    void abandonsASilentBrokerAndRetries()
    {
        Broker own;
        QVERIFY2(own.start(), own.output().constData());
        own.stop();
        QTcpServer silent;
        QVERIFY(silent.listen(QHostAddress::LocalHost, own.port()));
        QElapsedTimer clock;
        clock.start();
        IPC* ipc = startIpc(own.port());
        QSignalSpy connected(ipc, &IPC::connected);
        QSignalSpy disconnected(ipc, &IPC::disconnected);

        QVERIFY(disconnected.wait(15000));
        const qint64 watchdog = clock.restart();
        QVERIFY2(watchdog >= 9950 && watchdog < 12000, qPrintable(QString::number(watchdog)));
        // The socket is really gone: the broker's end sees the end of the stream, well before the retry
        // would replace the client.
        QTcpSocket* brokerEnd = silent.nextPendingConnection();
        QVERIFY(brokerEnd);
        QTRY_COMPARE_WITH_TIMEOUT(brokerEnd->state(), QAbstractSocket::UnconnectedState, 2000);
        silent.close();
        QVERIFY2(own.restart(), own.output().constData());
        QVERIFY(connected.wait(Deadline));
        QVERIFY2(clock.elapsed() >= ReconnectDelayFloor, qPrintable(QString::number(clock.elapsed())));
        // The retry's session subscribes as a first session does.
        QCOMPARE(ipcLines(), QStringList({connectingLine(own.port()), "[IPC] MQTT broker not available.",
            "[IPC] ERROR: TransportInvalid (256).", "[IPC] Disconnected.", connectingLine(own.port()),
            "[IPC] Connected."}) + subscribing);
    }

private:
    // The service's session with these broker settings, started; its log captured from now on.
    IPC* startIpc(quint16 port, const QString& user = QString(), const QString& pass = QString(),
        const QString& host = "127.0.0.1")
    {
        m_config->setMqtt({host, port, user, pass, "tolv/network"});
        if (!m_log)
            m_log = std::make_unique<LogCapture>();
        m_ipc.push_back(std::make_unique<IPC>(m_config, nullptr));
        m_ipc.back()->connect();
        return m_ipc.back().get();
    }

    QStringList ipcLines() const { return m_log->messages().filter(QRegularExpression("^\\[IPC\\] ")); }
    static QString connectingLine(quint16 port) { return QString("[IPC] Connecting to 127.0.0.1:%1").arg(port); }

    QTemporaryDir m_dir;
    Broker m_broker;
    Config* m_config = nullptr;
    std::unique_ptr<LogCapture> m_log;
    std::vector<std::unique_ptr<IPC>> m_ipc;
};

QTEST_GUILESS_MAIN(TestMqttSession)
#include "test_mqtt_session.moc"
