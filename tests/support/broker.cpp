#include "support/broker.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QHostAddress>
#include <QRandomGenerator>
#include <QTcpServer>
#include <QTcpSocket>

#include <unistd.h>

namespace TarvikTest {

namespace {
constexpr int StartTimeoutMs = 10000;
}

// Below the ephemeral range, so that no outgoing connection takes the port while its broker restarts.
quint16 freePort()
{
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const auto port = quint16(20000 + QRandomGenerator::global()->bounded(12000));
        QTcpServer server;
        if (server.listen(QHostAddress::LocalHost, port))
            return port;
    }
    return 0;
}

Broker::Broker(const QString& username, const QString& password)
    : m_username(username)
    , m_password(password)
{
}

Broker::~Broker()
{
    stop();
}

bool Broker::start()
{
    m_port = freePort();
    return restart();
}

bool Broker::restart()
{
    stop();
    return m_port != 0 && writeConfiguration() && launch();
}

void Broker::stop()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.kill();
    m_process.waitForFinished(5000);
    m_output += m_process.readAll();
}

QByteArray Broker::output()
{
    m_output += m_process.readAll();
    return m_output;
}

bool Broker::writeConfiguration()
{
    const bool withUser = !m_username.isEmpty();
    const QString passwordFile = m_dir.filePath("passwd");
    QStringList lines{QString("listener %1 127.0.0.1").arg(m_port), "set_tcp_nodelay true", "persistence false",
        "log_dest stderr", QString("allow_anonymous ") + (withUser ? "false" : "true")};
    if (withUser) {
        lines << "password_file " + passwordFile;
        const QStringList arguments{"-b", "-c", passwordFile, m_username, m_password};
        if (QProcess::execute("mosquitto_passwd", arguments) != 0)
            return false;
    }
    // Started as root, mosquitto would otherwise switch to a user that cannot
    // read the private temporary directory.
    if (geteuid() == 0)
        lines << "user root";
    QFile file(m_dir.filePath("mosquitto.conf"));
    return m_dir.isValid() && file.open(QIODevice::WriteOnly | QIODevice::Truncate)
        && file.write((lines.join('\n') + '\n').toUtf8()) > 0;
}

bool Broker::launch()
{
    m_process.setProcessChannelMode(QProcess::MergedChannels);
    m_process.start("mosquitto", {"-c", m_dir.filePath("mosquitto.conf")});
    if (!m_process.waitForStarted(StartTimeoutMs))
        return false;

    // Ready once a TCP connection is accepted; a refused connect returns at
    // once, so each try waits a little for the process to get further.
    QDeadlineTimer deadline(StartTimeoutMs);
    while (!deadline.hasExpired() && m_process.state() == QProcess::Running) {
        QTcpSocket probe;
        probe.connectToHost(QHostAddress::LocalHost, m_port);
        if (probe.waitForConnected(1000))
            return true;
        m_process.waitForReadyRead(20);
        m_output += m_process.readAll();
    }
    stop();
    return false;
}

} // namespace TarvikTest
