#include "engine/modemdataport.h"

#include "documents/daemonsonbus.h"
#include "engine/pendingcall.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingReply>
#include <QDBusVariant>

namespace Tarvik {

namespace {

const QString service = QStringLiteral("org.freedesktop.ModemManager1");
const QString modemInterface = QStringLiteral("org.freedesktop.ModemManager1.Modem");
const QString bearerInterface = QStringLiteral("org.freedesktop.ModemManager1.Bearer");

QDBusPendingCall getProperty(const QString& path, const QString& interface, const QString& name)
{
    QDBusMessage message = QDBusMessage::createMethodCall(service, path, QStringLiteral("org.freedesktop.DBus.Properties"),
                                                          QStringLiteral("Get"));
    message << interface << name;
    return QDBusConnection::systemBus().asyncCall(message);
}

QVariant valueOf(const QDBusPendingCall& call)
{
    return QDBusPendingReply<QDBusVariant>(call).value().variant();
}

} // namespace

ModemDataPort::ModemDataPort(QObject* parent)
    : QObject(parent)
{
}

void ModemDataPort::refresh(const QString& modemPath, std::function<void()> then)
{
    // A call to the name of a ModemManager that is not running would start it.
    if (!isOnBus(Daemon::ModemManager) || modemPath.isEmpty()) {
        then();
        return;
    }
    whenFinished(getProperty(modemPath, modemInterface, QStringLiteral("Bearers")), this,
                 [this, then = std::move(then)](const QDBusPendingCall& call) {
                     const auto bearers = qdbus_cast<QList<QDBusObjectPath>>(valueOf(call));
                     if (call.isError()) {
                         then();
                     } else if (bearers.isEmpty()) {
                         m_interface.clear();
                         then();
                     } else {
                         readBearerInterface(bearers.first().path(), then);
                     }
                 });
}

void ModemDataPort::readBearerInterface(const QString& bearerPath, std::function<void()> then)
{
    whenFinished(getProperty(bearerPath, bearerInterface, QStringLiteral("Interface")), this,
                 [this, then = std::move(then)](const QDBusPendingCall& call) {
                     if (!call.isError())
                         m_interface = valueOf(call).toString();
                     then();
                 });
}

QString ModemDataPort::interface() const
{
    return m_interface;
}

} // namespace Tarvik
