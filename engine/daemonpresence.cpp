#include "engine/daemonpresence.h"

#include "engine/pendingcall.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>

namespace Tarvik {

DaemonPresence::DaemonPresence(const QString& service, QObject* parent)
    : QObject(parent)
    , m_service(service)
{
}

void DaemonPresence::start()
{
    QDBusConnection bus = QDBusConnection::systemBus();
    m_watcher = new QDBusServiceWatcher(m_service, bus, QDBusServiceWatcher::WatchForOwnerChange, this);
    connect(m_watcher, &QDBusServiceWatcher::serviceOwnerChanged, this, &DaemonPresence::onOwnerChanged);
    // NameHasOwner is answered by the bus itself and never activates the daemon.
    whenFinished(bus.interface()->asyncCall(QStringLiteral("NameHasOwner"), m_service), this,
                 [this](const QDBusPendingCall& call) {
                     // An owner change seen meanwhile is newer than this answer.
                     if (!m_known)
                         learn(QDBusPendingReply<bool>(call).value());
                 });
}

bool DaemonPresence::isKnown() const
{
    return m_known;
}

bool DaemonPresence::isPresent() const
{
    return m_present;
}

void DaemonPresence::onOwnerChanged(const QString&, const QString&, const QString& newOwner)
{
    learn(!newOwner.isEmpty());
}

void DaemonPresence::learn(bool present)
{
    if (m_known && present == m_present)
        return;
    const bool first = !m_known;
    m_known = true;
    m_present = present;
    if (first)
        emit known(present);
    else
        emit changed(present);
}

} // namespace Tarvik
