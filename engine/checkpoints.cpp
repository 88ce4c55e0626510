#include "engine/checkpoints.h"

#include "engine/pendingcall.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusPendingReply>
#include <QDBusVariant>

namespace Tarvik {

namespace {

const QString service = QStringLiteral("org.freedesktop.NetworkManager");
const QString managerPath = QStringLiteral("/org/freedesktop/NetworkManager");
const QString managerInterface = QStringLiteral("org.freedesktop.NetworkManager");
// Profiles the trial added go with a rollback; "disconnect new devices" is refused with a device list.
constexpr uint deleteNewConnections = 0x2;

QDBusPendingCall callManager(const QString& method, const QVariantList& arguments)
{
    QDBusMessage message = QDBusMessage::createMethodCall(service, managerPath, managerInterface, method);
    message.setArguments(arguments);
    return QDBusConnection::systemBus().asyncCall(message);
}

QList<QDBusObjectPath> objectPaths(const QStringList& paths)
{
    QList<QDBusObjectPath> result;
    for (const QString& path : paths)
        result << QDBusObjectPath(path);
    return result;
}

} // namespace

Checkpoints::Checkpoints(QObject* parent)
    : QObject(parent)
{
    qDBusRegisterMetaType<Results>();
}

void Checkpoints::create(const QStringList& devices, uint rollbackSeconds, Created done)
{
    const auto call = callManager(QStringLiteral("CheckpointCreate"),
                                  {QVariant::fromValue(objectPaths(devices)), rollbackSeconds, deleteNewConnections});
    whenFinished(call, this, [done](const QDBusPendingCall& finished) {
        const QDBusPendingReply<QDBusObjectPath> reply = finished;
        done(reply.isError() ? QString() : reply.value().path(), reply.error());
    });
}

void Checkpoints::destroy(const QString& checkpoint, Finished done)
{
    whenFinished(callManager(QStringLiteral("CheckpointDestroy"), {QVariant::fromValue(QDBusObjectPath(checkpoint))}),
                 this, [done](const QDBusPendingCall& finished) { done(finished.error()); });
}

void Checkpoints::rollback(const QString& checkpoint, RolledBack done)
{
    const auto call =
        callManager(QStringLiteral("CheckpointRollback"), {QVariant::fromValue(QDBusObjectPath(checkpoint))});
    whenFinished(call, this, [done](const QDBusPendingCall& finished) {
        const QDBusPendingReply<Results> reply = finished;
        done(reply.isError() ? Results() : reply.value(), reply.error());
    });
}

void Checkpoints::list(Listed done)
{
    QDBusMessage message = QDBusMessage::createMethodCall(service, managerPath,
                                                          QStringLiteral("org.freedesktop.DBus.Properties"),
                                                          QStringLiteral("Get"));
    message.setArguments({managerInterface, QStringLiteral("Checkpoints")});
    whenFinished(QDBusConnection::systemBus().asyncCall(message), this, [done](const QDBusPendingCall& finished) {
        const QDBusPendingReply<QDBusVariant> reply = finished;
        QStringList paths;
        if (!reply.isError()) {
            const auto argument = reply.value().variant().value<QDBusArgument>();
            QList<QDBusObjectPath> objects;
            argument >> objects;
            for (const QDBusObjectPath& path : objects)
                paths << path.path();
        }
        done(paths);
    });
}

} // namespace Tarvik
