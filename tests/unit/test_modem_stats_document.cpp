// The data-usage document as clients receive it from a real broker: values
// rounded to two decimals, missing counters as 0, QoS 0 but retained.

#include "config/config.h"
#include "ipc/ipc.h"
#include "support/broker.h"

#include <QDeadlineTimer>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

namespace {

const char* const statsTopic = "tolv/network/modem/stats";

struct Received {
    bool retain = false;
    int qos = -1;
    QByteArray payload;
};

// mosquitto_sub in a child process: an MQTT client independent of ours that
// reports the QoS and retain flag of every message it gets.
class Subscriber
{
public:
    ~Subscriber()
    {
        m_process.kill();
        m_process.waitForFinished(5000);
    }

    // Returns once the broker has acknowledged the QoS 2 subscription.
    bool start(quint16 port, const QString& topic)
    {
        m_process.setProcessChannelMode(QProcess::MergedChannels);
        // Line-buffered, or the acknowledgement line would sit in stdio's buffer.
        m_process.start("stdbuf", {"-oL", "mosquitto_sub", "-h", "127.0.0.1", "-p", QString::number(port), "--nodelay",
                                          "-q", "2", "-t", topic, "-d", "-F", "MSG %r %q %x"});
        return waitForLine("Subscribed", 10000).startsWith("Subscribed");
    }

    bool next(Received& message, int timeoutMs = 10000)
    {
        const QByteArray line = waitForLine("MSG ", timeoutMs);
        const QList<QByteArray> fields = line.split(' ');
        if (fields.size() != 4) {
            return false;
        }
        message.retain = fields.at(1) == "1";
        message.qos = fields.at(2).toInt();
        message.payload = QByteArray::fromHex(fields.at(3));
        return true;
    }

    QByteArray output() const { return m_output; }

private:
    QByteArray waitForLine(const QByteArray& prefix, int timeoutMs)
    {
        QDeadlineTimer deadline(timeoutMs);
        for (;;) {
            while (m_process.canReadLine()) {
                const QByteArray line = m_process.readLine().trimmed();
                m_output += line + '\n';
                if (line.startsWith(prefix)) {
                    return line;
                }
            }
            if (deadline.hasExpired() || m_process.state() == QProcess::NotRunning) {
                return QByteArray();
            }
            // Our client publishes from the event loop, so keep it turning while waiting.
            QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
            m_process.waitForReadyRead(10);
        }
    }

    QProcess m_process;
    QByteArray m_output;
};

using Stats = QMap<QString, QMap<QString, double> >;

} // namespace

class TestModemStatsDocument : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void publishesRoundedRetainedDocument_data();
    void publishesRoundedRetainedDocument();

private:
    TarvikTest::Broker m_broker;
    QTemporaryDir m_dir;
    Tarvik::Config* m_config = nullptr;
    Tarvik::IPC* m_ipc = nullptr;
};

void TestModemStatsDocument::initTestCase()
{
    QVERIFY2(m_broker.start(), m_broker.output().constData());
    m_config = new Tarvik::Config(m_dir.filePath("tarvik.conf"), nullptr);
    Tarvik::Config::Mqtt mqtt = m_config->mqtt();
    mqtt.url = "127.0.0.1";
    mqtt.port = m_broker.port();
    m_config->setMqtt(mqtt);

    m_ipc = new Tarvik::IPC(m_config, nullptr);
    m_ipc->setLogEnable(false);
    QSignalSpy connected(m_ipc, &Tarvik::IPC::connected);
    m_ipc->connect();
    QVERIFY2(connected.wait(10000), "the IPC never connected to the broker");
}

void TestModemStatsDocument::cleanupTestCase()
{
    delete m_ipc;
    delete m_config;
    m_broker.stop();
}

void TestModemStatsDocument::publishesRoundedRetainedDocument_data()
{
    QTest::addColumn<Stats>("stats");
    QTest::addColumn<QByteArray>("document");

    QTest::newRow("rounded half up to two decimals")
        << Stats{{"2026-10", {{"txbytes", 1.234}, {"rxbytes", 1.235}}},
                 {"2026-11", {{"txbytes", 20.5}, {"rxbytes", 0.004}}}}
        << QByteArray("{\n"
                      "    \"2026-10\": {\n"
                      "        \"download\": 1.24,\n"
                      "        \"upload\": 1.23\n"
                      "    },\n"
                      "    \"2026-11\": {\n"
                      "        \"download\": 0,\n"
                      "        \"upload\": 20.5\n"
                      "    }\n"
                      "}\n");
    QTest::newRow("missing counters as 0, other counters ignored")
        << Stats{{"2026-11", {{"rxbytes", 2.5}, {"packets", 9}}},
                 {"2026-12", {}}}
        << QByteArray("{\n"
                      "    \"2026-11\": {\n"
                      "        \"download\": 2.5,\n"
                      "        \"upload\": 0\n"
                      "    },\n"
                      "    \"2026-12\": {\n"
                      "        \"download\": 0,\n"
                      "        \"upload\": 0\n"
                      "    }\n"
                      "}\n");
    QTest::newRow("no periods")
        << Stats{}
        << QByteArray("{\n}\n");
}

void TestModemStatsDocument::publishesRoundedRetainedDocument()
{
    QFETCH(Stats, stats);
    QFETCH(QByteArray, document);

    Subscriber live;
    QVERIFY2(live.start(m_broker.port(), statsTopic), live.output().constData());
    m_ipc->publishModemStats(stats);

    // The copy retained from the previous row may come first; ours is the live one.
    Received message;
    do {
        QVERIFY2(live.next(message), live.output().constData());
    } while (message.retain);
    QCOMPARE(message.payload, document);
    QCOMPARE(message.qos, 0);

    Subscriber late;
    QVERIFY2(late.start(m_broker.port(), statsTopic), late.output().constData());
    Received retained;
    QVERIFY2(late.next(retained), late.output().constData());
    QVERIFY(retained.retain);
    QCOMPARE(retained.payload, document);
}

QTEST_GUILESS_MAIN(TestModemStatsDocument)
#include "test_modem_stats_document.moc"
