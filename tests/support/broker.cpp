#include "support/broker.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QHostAddress>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTextStream>

#include <unistd.h>

namespace TarvikTest {

namespace {
constexpr int StartTimeoutMs = 10000;
}

quint16 freePort()
{
    QTcpServer server;
    if (!server.listen(QHostAddress::LocalHost, 0))
        return 0;
    return server.serverPort();
}

Broker::Broker() = default;

Broker::Broker(const Options& options)
    : m_options(options)
{
}

Broker::~Broker()
{
    stop();
}

bool Broker::start()
{
    stop();
    m_port = freePort();
    return m_port != 0 && launch();
}

bool Broker::restart()
{
    stop();
    return m_port != 0 && launch();
}

void Broker::stop()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.kill();
    m_process.waitForFinished(5000);
    m_output += m_process.readAll();
}

bool Broker::isRunning() const
{
    return m_process.state() == QProcess::Running;
}

QByteArray Broker::output()
{
    if (m_process.state() != QProcess::NotRunning)
        m_output += m_process.readAll();
    return m_output;
}

bool Broker::writeConfiguration()
{
    const bool withUser = !m_options.username.isEmpty();
    const QString passwordFile = m_dir.filePath("passwd");
    if (withUser) {
        const int rc = QProcess::execute("mosquitto_passwd",
            {"-b", "-c", passwordFile, m_options.username, m_options.password});
        if (rc != 0)
            return false;
    }

    QFile file(m_dir.filePath("mosquitto.conf"));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    QTextStream out(&file);
    out << "listener " << m_port << " 127.0.0.1\n"
        << "allow_anonymous " << (withUser ? "false" : "true") << "\n"
        << "set_tcp_nodelay true\n"
        << "persistence false\n"
        << "log_dest stderr\n";
    // Started as root, mosquitto would otherwise switch to a user that cannot
    // read the private temporary directory.
    if (geteuid() == 0)
        out << "user root\n";
    if (withUser)
        out << "password_file " << passwordFile << "\n";
    return true;
}

bool Broker::launch()
{
    if (!m_dir.isValid() || !writeConfiguration())
        return false;
    m_process.setProcessChannelMode(QProcess::MergedChannels);
    m_process.start("mosquitto", {"-c", m_dir.filePath("mosquitto.conf")});
    if (!m_process.waitForStarted(StartTimeoutMs))
        return false;

    // Ready once a TCP connection is accepted; a refused connect returns at
    // once, so each try waits a little for the process to get further.
    QDeadlineTimer deadline(StartTimeoutMs);
    while (!deadline.hasExpired()) {
        if (m_process.state() != QProcess::Running)
            break;
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
