#include "engine/reachabilityprobe.h"

#include <QTcpSocket>
#include <QTimer>

namespace Tarvik {

namespace {

constexpr int attemptMs = 5000;

} // namespace

void ReachabilityProbe::start(const QString& hostAndPort, QObject* parent, Done done)
{
    auto* probe = new ReachabilityProbe(parent, std::move(done));
    const int colon = hostAndPort.lastIndexOf(QLatin1Char(':'));
    bool validPort = false;
    const quint16 port = hostAndPort.mid(colon + 1).toUShort(&validPort);
    if (colon <= 0 || !validPort || port == 0) {
        probe->finish(false, QStringLiteral("not a host:port: ") + hostAndPort);
        return;
    }
    connect(probe->m_socket, &QTcpSocket::connected, probe, [probe] { probe->finish(true, QString()); });
    connect(probe->m_socket, &QTcpSocket::errorOccurred, probe,
            [probe] { probe->finish(false, probe->m_socket->errorString()); });
    QTimer::singleShot(attemptMs, probe, [probe] { probe->finish(false, QStringLiteral("no answer")); });
    probe->m_socket->connectToHost(hostAndPort.left(colon), port);
}

ReachabilityProbe::ReachabilityProbe(QObject* parent, Done done)
    : QObject(parent)
    , m_socket(new QTcpSocket(this))
    , m_done(std::move(done))
{
}

void ReachabilityProbe::finish(bool reached, const QString& why)
{
    if (m_finished)
        return;
    m_finished = true;
    m_socket->abort();
    deleteLater();
    m_done(reached, why);
}

} // namespace Tarvik
