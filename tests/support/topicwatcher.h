#pragma once

#include <QByteArray>
#include <QList>
#include <QProcess>
#include <QString>
#include <QStringList>

namespace TarvikTest {

// An independent observer on the broker (mosquitto_sub, QoS 2 subscription,
// TCP_NODELAY) that records every message with the QoS and retain flag it
// arrived with. Ready for messages once start() has returned true.
class TopicWatcher
{
public:
    struct Message {
        int qos = -1;
        bool retain = false;
        QString topic;
        QByteArray payload;
    };

    TopicWatcher(quint16 port, const QStringList& filters);
    ~TopicWatcher();

    TopicWatcher(const TopicWatcher&) = delete;
    TopicWatcher& operator=(const TopicWatcher&) = delete;

    bool start();
    // Waits, running the event loop, until count messages have arrived.
    bool waitForCount(int count, int timeoutMs);
    // Waits for the first message on this topic; the result's qos is -1 when none came.
    Message waitFor(const QString& topic, int timeoutMs);
    QList<Message> messages();

private:
    void readOutput();

    quint16 m_port;
    QStringList m_filters;
    QString m_marker;
    bool m_ready = false;
    QProcess m_process;
    QByteArray m_pending;
    QList<Message> m_messages;
};

} // namespace TarvikTest
