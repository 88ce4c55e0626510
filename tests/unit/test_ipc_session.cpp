#include "config/config.h"
#include "ipc/ipc.h"
#include "log/log.h"
#include "support/broker.h"
#include "support/logcapture.h"
#include "support/topicwatcher.h"

#include <QElapsedTimer>
#include <QHostAddress>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

using Tarvik::Config;
using Tarvik::IPC;
using Tarvik::MqttClient;
using TarvikTest::Broker;
using TarvikTest::LogCapture;
using TarvikTest::TopicWatcher;

namespace {

constexpr int Deadline = 10000;
// The reconnect delay is 3000 ms on a precise timer; allow for the clock's grain.
constexpr int ReconnectDelayFloor = 2950;

const QString Base = QStringLiteral("tolv/network");

// A plain client of our own that plays the service's user and sends commands.
struct Commander {
    explicit Commander(quint16 port)
    {
        client.setHostname("127.0.0.1");
        client.setPort(port);
        client.connectToHost();
    }
    bool waitConnected()
    {
        return QTest::qWaitFor([this] { return client.state() == MqttClient::Connected; }, Deadline);
    }
    void send(const QString& relativeTopic, const QByteArray& payload)
    {
        QVERIFY(client.publish(Base + "/" + relativeTopic, payload, 1, false) >= 0);
    }
    MqttClient client;
};

// The slice of captured messages from `from` on that carry the IPC tag.
QStringList ipcMessagesFrom(LogCapture& log, int from)
{
    return log.messages().mid(from).filter(QRegularExpression("^\\[IPC\\] "));
}

} // namespace

class TestIpcSession : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();
    void cleanupTestCase();

    void takesCommandsFromTheThreeFiltersOnly();
    void answersUnparsablePayloadOnTheErrorTopic();
    void publishesUnderTheBaseWithFiveDebugLines();
    void writesNothingWhileItsLogIsDisabled();
    void logsBrokerRefusalOfWrongPassword();
    void reconnectsThreeSecondsAfterBrokerLossAndAfterDisconnect();
    void abandonsSilentBrokerAfterTenSecondsAndTriesAgain();

private:
    // Creates the service's session with the given broker settings and starts it.
    IPC* startIpc(quint16 port, const QString& user = QString(), const QString& pass = QString());
    bool waitConnected(IPC* ipc);
    int logMark() { return m_log->messages().size(); }

    std::unique_ptr<LogCapture> m_log;
    QTemporaryDir m_dir;
    Broker m_broker;
    Config* m_config = nullptr;
    std::vector<std::unique_ptr<IPC>> m_ipcs;
};

void TestIpcSession::initTestCase()
{
    qRegisterMetaType<MqttClient::ClientState>();
    m_log = std::make_unique<LogCapture>();
    Log::open("tarvik-test", true, false);
    Log::setLevel(Log::Debug);
    QVERIFY(m_dir.isValid());
    m_config = new Config(m_dir.filePath("tarvik.conf"), this);
    QVERIFY2(m_broker.start(), m_broker.output().constData());
}

void TestIpcSession::cleanup()
{
    if (QTest::currentTestFailed())
        qInfo().noquote() << "Captured log:\n" << m_log->text();
    m_ipcs.clear();
}

void TestIpcSession::cleanupTestCase()
{
    m_log.reset();
}

IPC* TestIpcSession::startIpc(quint16 port, const QString& user, const QString& pass)
{
    Config::Mqtt mqtt = m_config->mqtt();
    mqtt.url = "127.0.0.1";
    mqtt.port = port;
    mqtt.user = user;
    mqtt.pass = pass;
    mqtt.base = Base;
    m_config->setMqtt(mqtt);
    m_ipcs.push_back(std::make_unique<IPC>(m_config, nullptr));
    m_ipcs.back()->connect();
    return m_ipcs.back().get();
}

bool TestIpcSession::waitConnected(IPC* ipc)
{
    QSignalSpy connected(ipc, &IPC::connected);
    return connected.wait(Deadline);
}

void TestIpcSession::takesCommandsFromTheThreeFiltersOnly()
{
    const int mark = logMark();
    IPC* ipc = startIpc(m_broker.port());
    QSignalSpy connected(ipc, &IPC::connected);
    QSignalSpy commands(ipc, &IPC::commandReceived);
    QVERIFY(connected.wait(Deadline));
    QCOMPARE(connected.at(0).at(0).toString(), QString("127.0.0.1"));
    const QStringList expectedStart{
        QString("[IPC] Connecting to 127.0.0.1:%1").arg(m_broker.port()),
        "[IPC] Connected.",
        "[IPC] Subscribing to topic [tolv/network/+/get].",
        "[IPC] Subscribing to topic [tolv/network/+/+/get].",
        "[IPC] Subscribing to topic [tolv/network/+/+/set].",
    };
    QCOMPARE(ipcMessagesFrom(*m_log, mark), expectedStart);

    // In order from one publisher: the last one proves that all before it were handled.
    Commander commander(m_broker.port());
    QVERIFY(commander.waitConnected());
    commander.send("status/get", "{}");
    commander.send("a/b/c/get", "{}");
    commander.send("wifi/state/get", "");
    commander.send("wifi/config/set", R"({"autocon": true, "ssid": "HomeNet"})");
    commander.send("wifi/state", "{}");
    commander.send("modem/state/get", "[1, 2]");
    commander.send("tolv/network/get", R"({"twice": 1})");
    commander.send("ethernet/config/get", R"({"interface": "eth1"})");
    // A stray command would shift the list: the last one only arrives sixth
    // if everything that had to be ignored was ignored.
    QTRY_COMPARE_WITH_TIMEOUT(commands.count(), 6, Deadline);

    const QList<QPair<QString, QJsonObject>> expected{
        {"status/get", {}},
        {"wifi/state/get", {}},
        {"wifi/config/set", {{"autocon", true}, {"ssid", "HomeNet"}}},
        {"modem/state/get", {}},
        // Every occurrence of the base goes, not just the leading one.
        {"get", {{"twice", 1}}},
        {"ethernet/config/get", {{"interface", "eth1"}}},
    };
    for (int i = 0; i < expected.size(); ++i) {
        QCOMPARE(commands.at(i).at(0).toString(), expected.at(i).first);
        QCOMPARE(commands.at(i).at(1).toJsonObject(), expected.at(i).second);
    }

    // The intake's own lines for a message without payload.
    const QStringList intake = ipcMessagesFrom(*m_log, mark);
    const int received = intake.indexOf("[IPC] Message Received [tolv/network/wifi/state/get]");
    QVERIFY2(received >= 0, qPrintable(intake.join('\n')));
    QCOMPARE(intake.mid(received, 3),
        (QStringList{"[IPC] Message Received [tolv/network/wifi/state/get]", "[IPC] Command : wifi/state/get",
            "[IPC] Data    : "}));
    QVERIFY(intake.contains("[IPC] Command : get"));
    QVERIFY(!intake.contains("[IPC] Message Received [tolv/network/a/b/c/get]"));
}

void TestIpcSession::answersUnparsablePayloadOnTheErrorTopic()
{
    TopicWatcher watcher(m_broker.port(), {Base + "/#"});
    QVERIFY(watcher.start());
    IPC* ipc = startIpc(m_broker.port());
    QSignalSpy commands(ipc, &IPC::commandReceived);
    QVERIFY(waitConnected(ipc));
    const int mark = logMark();

    Commander commander(m_broker.port());
    QVERIFY(commander.waitConnected());
    commander.send("wifi/state/get", "{");
    commander.send("status/get", "");
    QVERIFY(commands.wait(Deadline));
    QCOMPARE(commands.count(), 1);
    QCOMPARE(commands.at(0).at(0).toString(), QString("status/get"));

    // The error document as an outside subscriber sees it.
    const TopicWatcher::Message error = watcher.waitFor("tolv/network/error", Deadline);
    QCOMPARE(error.qos, 0);
    QCOMPARE(error.retain, false);
    QCOMPARE(error.payload,
        QByteArray("{\n"
                   "    \"command\": \"wifi/state/get\",\n"
                   "    \"error\": \"Json parse error: unterminated object\"\n"
                   "}\n"));

    const QStringList lines = ipcMessagesFrom(*m_log, mark);
    const QStringList expected{
        "[IPC] Message Received [tolv/network/wifi/state/get]",
        "[IPC] Command : wifi/state/get",
        "[IPC] Data    : {",
        "[IPC] Json parse error: unterminated object",
        "[IPC] Publishing Message",
        "[IPC] Topic: [tolv/network/error]",
        "[IPC] QoS  : 0",
        "[IPC] Retn : false",
        // The indented document stays on one line: line breaks are escaped.
        "[IPC] Data : [" + QString::fromUtf8(error.payload).replace("\n", "\\n") + "]",
        "[IPC] Message Received [tolv/network/status/get]",
    };
    QCOMPARE(lines.mid(0, 10), expected);
}

void TestIpcSession::publishesUnderTheBaseWithFiveDebugLines()
{
    TopicWatcher watcher(m_broker.port(), {Base + "/wifi/state", Base + "/modem/stats"});
    QVERIFY(watcher.start());
    IPC* ipc = startIpc(m_broker.port());
    QVERIFY(waitConnected(ipc));
    QCOMPARE(ipc->topicBase(), Base);

    const int mark = logMark();
    ipc->publish("wifi/state", R"({"state":"Connected"})", 2, true);
    ipc->publish("modem/stats", "stats", 0, true);
    const TopicWatcher::Message state = watcher.waitFor("tolv/network/wifi/state", Deadline);
    QCOMPARE(state.qos, 2);
    QCOMPARE(state.payload, QByteArray(R"({"state":"Connected"})"));
    const TopicWatcher::Message stats = watcher.waitFor("tolv/network/modem/stats", Deadline);
    QCOMPARE(stats.qos, 0);
    QCOMPARE(stats.payload, QByteArray("stats"));

    QCOMPARE(ipcMessagesFrom(*m_log, mark).mid(0, 5),
        (QStringList{"[IPC] Publishing Message", "[IPC] Topic: [tolv/network/wifi/state]", "[IPC] QoS  : 2",
            "[IPC] Retn : true", R"([IPC] Data : [{"state":"Connected"}])"}));

    // Both were retained: a later subscriber gets them, flagged as such.
    TopicWatcher late(m_broker.port(), {Base + "/wifi/state", Base + "/modem/stats"});
    QVERIFY(late.start());
    QVERIFY(late.waitForCount(2, Deadline));
    for (const TopicWatcher::Message& message : late.messages())
        QVERIFY2(message.retain, qPrintable(message.topic));
}

void TestIpcSession::writesNothingWhileItsLogIsDisabled()
{
    TopicWatcher watcher(m_broker.port(), {Base + "/error"});
    QVERIFY(watcher.start());
    IPC* ipc = startIpc(m_broker.port());
    QSignalSpy commands(ipc, &IPC::commandReceived);
    QVERIFY(waitConnected(ipc));

    ipc->setLogEnable(false);
    const int mark = logMark();
    Commander commander(m_broker.port());
    QVERIFY(commander.waitConnected());
    commander.send("wifi/state/get", "{");
    commander.send("status/get", "{}");
    QVERIFY(commands.wait(Deadline));
    QVERIFY(watcher.waitForCount(1, Deadline));
    QSignalSpy disconnected(ipc, &IPC::disconnected);
    ipc->disconnect();
    QVERIFY(disconnected.count() > 0 || disconnected.wait(Deadline));

    QCOMPARE(ipcMessagesFrom(*m_log, mark), QStringList());

    ipc->setLogEnable(true);
    ipc->publish("wifi/state", "{}", 2, true);
    QCOMPARE(ipcMessagesFrom(*m_log, mark).value(0), QString("[IPC] Publishing Message"));
}

void TestIpcSession::logsBrokerRefusalOfWrongPassword()
{
    Broker secured(Broker::Options{"tarvik", "s3cret"});
    QVERIFY2(secured.start(), secured.output().constData());

    IPC* right = startIpc(secured.port(), "tarvik", "s3cret");
    QVERIFY(waitConnected(right));

    const int mark = logMark();
    IPC* wrong = startIpc(secured.port(), "tarvik", "guess");
    QSignalSpy connected(wrong, &IPC::connected);
    QSignalSpy disconnected(wrong, &IPC::disconnected);
    QVERIFY(disconnected.wait(Deadline));
    QCOMPARE(connected.count(), 0);
    // mosquitto 2 refuses a bad password with CONNACK 5.
    QCOMPARE(ipcMessagesFrom(*m_log, mark),
        (QStringList{QString("[IPC] Connecting to 127.0.0.1:%1").arg(secured.port()), "[IPC] ERROR: NotAuthorized (5).",
            "[IPC] Disconnected."}));
}

void TestIpcSession::reconnectsThreeSecondsAfterBrokerLossAndAfterDisconnect()
{
    Broker own;
    QVERIFY2(own.start(), own.output().constData());
    IPC* ipc = startIpc(own.port());
    QSignalSpy connected(ipc, &IPC::connected);
    QSignalSpy disconnected(ipc, &IPC::disconnected);
    QSignalSpy commands(ipc, &IPC::commandReceived);
    QVERIFY(connected.wait(Deadline));

    // The broker goes away and comes back on the same port before the retry.
    int mark = logMark();
    own.stop();
    QVERIFY(disconnected.wait(Deadline));
    QElapsedTimer sinceLoss;
    sinceLoss.start();
    QVERIFY2(own.restart(), own.output().constData());
    QVERIFY(connected.wait(Deadline));
    QVERIFY2(sinceLoss.elapsed() >= ReconnectDelayFloor, qPrintable(QString::number(sinceLoss.elapsed())));
    QCOMPARE(connected.count(), 2);
    QCOMPARE(ipcMessagesFrom(*m_log, mark),
        (QStringList{"[IPC] ERROR: TransportInvalid (256).", "[IPC] Disconnected.",
            QString("[IPC] Connecting to 127.0.0.1:%1").arg(own.port()), "[IPC] Connected.",
            "[IPC] Subscribing to topic [tolv/network/+/get].", "[IPC] Subscribing to topic [tolv/network/+/+/get].",
            "[IPC] Subscribing to topic [tolv/network/+/+/set]."}));

    // The subscriptions were made again on the new broker.
    {
        Commander commander(own.port());
        QVERIFY(commander.waitConnected());
        commander.send("wifi/state/get", "{}");
        commander.send("status/get", "{}");
        commander.send("wifi/config/set", "{}");
        QTRY_COMPARE_WITH_TIMEOUT(commands.count(), 3, Deadline);
    }

    // A deliberate disconnect is retried the same way.
    mark = logMark();
    ipc->disconnect();
    QVERIFY(disconnected.count() == 2 || disconnected.wait(Deadline));
    QElapsedTimer sinceDisconnect;
    sinceDisconnect.start();
    QVERIFY(connected.wait(Deadline));
    QVERIFY2(sinceDisconnect.elapsed() >= ReconnectDelayFloor, qPrintable(QString::number(sinceDisconnect.elapsed())));
    QCOMPARE(ipcMessagesFrom(*m_log, mark).mid(0, 4),
        (QStringList{"[IPC] Disconnecting from broker.", "[IPC] Disconnected.",
            QString("[IPC] Connecting to 127.0.0.1:%1").arg(own.port()), "[IPC] Connected."}));
}

void TestIpcSession::abandonsSilentBrokerAfterTenSecondsAndTriesAgain()
{
    // Accepts TCP connections and never says a word.
    QTcpServer silent;
    QVERIFY(silent.listen(QHostAddress::LocalHost, 0));
    QSignalSpy accepted(&silent, &QTcpServer::newConnection);

    const int mark = logMark();
    QElapsedTimer sinceConnect;
    sinceConnect.start();
    IPC* ipc = startIpc(silent.serverPort());
    QSignalSpy disconnected(ipc, &IPC::disconnected);
    QVERIFY(accepted.wait(Deadline));

    QVERIFY(disconnected.wait(15000));
    const qint64 watchdog = sinceConnect.elapsed();
    QVERIFY2(watchdog >= 9950 && watchdog < 12000, qPrintable(QString::number(watchdog)));
    const QString connecting = QString("[IPC] Connecting to 127.0.0.1:%1").arg(silent.serverPort());
    QCOMPARE(ipcMessagesFrom(*m_log, mark),
        (QStringList{connecting, "[IPC] MQTT broker not available.", "[IPC] ERROR: TransportInvalid (256).",
            "[IPC] Disconnected."}));

    // A new attempt follows, on a new connection.
    QVERIFY(accepted.count() == 2 || accepted.wait(Deadline));
    QVERIFY2(sinceConnect.elapsed() >= watchdog + ReconnectDelayFloor, qPrintable(QString::number(sinceConnect.elapsed())));
    QCOMPARE(ipcMessagesFrom(*m_log, mark).value(4), connecting);
}

QTEST_GUILESS_MAIN(TestIpcSession)
#include "test_ipc_session.moc"
