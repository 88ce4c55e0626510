#include "support/topicwatcher.h"

#include <QUuid>
#include <QtTest>

namespace TarvikTest {

namespace {

bool publishWithMosquittoPub(quint16 port, const QStringList& arguments)
{
    return QProcess::execute("mosquitto_pub", QStringList{"-h", "127.0.0.1", "-p", QString::number(port)} + arguments)
        == 0;
}

} // namespace

TopicWatcher::TopicWatcher(quint16 port, const QStringList& filters)
    : m_port(port)
    , m_filters(filters)
    , m_marker("tarvik-test/watcher/" + QUuid::createUuid().toString(QUuid::WithoutBraces))
{
}

TopicWatcher::~TopicWatcher()
{
    if (m_process.state() != QProcess::NotRunning) {
        m_process.kill();
        m_process.waitForFinished(5000);
    }
}

bool TopicWatcher::start()
{
    // A retained marker comes back only after the broker has acknowledged
    // the subscription, which holds every filter at once.
    if (!publishWithMosquittoPub(m_port, {"-q", "1", "-r", "-t", m_marker, "-m", "ready"}))
        return false;
    QStringList arguments{"-h", "127.0.0.1", "-p", QString::number(m_port), "-q", "2", "--nodelay",
        "-F", "%q %r %t %x", "-t", m_marker};
    for (const QString& filter : m_filters)
        arguments << "-t" << filter;
    QObject::connect(&m_process, &QProcess::readyReadStandardOutput, [this] { readOutput(); });
    m_process.start("mosquitto_sub", arguments);
    const bool ready = QTest::qWaitFor([this] { return m_ready; }, 10000);
    publishWithMosquittoPub(m_port, {"-q", "1", "-r", "-n", "-t", m_marker});
    return ready;
}

void TopicWatcher::readOutput()
{
    m_pending += m_process.readAllStandardOutput();
    int end;
    while ((end = m_pending.indexOf('\n')) >= 0) {
        const QByteArray line = m_pending.left(end);
        m_pending.remove(0, end + 1);
        const QList<QByteArray> fields = line.split(' ');
        if (fields.size() < 3)
            continue;
        Message message;
        message.qos = fields.at(0).toInt();
        message.retain = fields.at(1) == "1";
        message.topic = QString::fromUtf8(fields.at(2));
        message.payload = fields.size() > 3 ? QByteArray::fromHex(fields.at(3)) : QByteArray();
        if (message.topic == m_marker)
            m_ready = true;
        else
            m_messages << message;
    }
}

bool TopicWatcher::waitForCount(int count, int timeoutMs)
{
    return QTest::qWaitFor([this, count] { return m_messages.size() >= count; }, timeoutMs);
}

TopicWatcher::Message TopicWatcher::waitFor(const QString& topic, int timeoutMs)
{
    Message found;
    (void)QTest::qWaitFor([&] {
        for (const Message& message : m_messages) {
            if (message.topic == topic) {
                found = message;
                return true;
            }
        }
        return false;
    }, timeoutMs);
    return found;
}

QList<TopicWatcher::Message> TopicWatcher::messages()
{
    return m_messages;
}

} // namespace TarvikTest
