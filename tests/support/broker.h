#pragma once

#include <QProcess>
#include <QString>
#include <QTemporaryDir>

namespace TarvikTest {

// A real mosquitto on 127.0.0.1 for one test: a free port chosen at start,
// TCP_NODELAY on, anonymous clients allowed unless a user is given, in which
// case only that user with that password gets in. The process is always
// killed by the destructor.
class Broker
{
public:
    explicit Broker(const QString& username = QString(), const QString& password = QString());
    ~Broker();

    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;

    // Starts on a fresh free port and returns once the broker accepts clients.
    bool start();
    // Kills the broker at once: its clients see the connection drop.
    void stop();
    // Starts again on the port of the previous run.
    bool restart();

    quint16 port() const { return m_port; }
    // Everything the broker wrote so far, for failure messages.
    QByteArray output();

private:
    bool writeConfiguration();
    bool launch();

    QString m_username;
    QString m_password;
    QTemporaryDir m_dir;
    QProcess m_process;
    QByteArray m_output;
    quint16 m_port = 0;
};

// A port on 127.0.0.1 that nothing listens on (at the moment of the call).
quint16 freePort();

} // namespace TarvikTest
