#include "engine/profilesecrets.h"

#include "engine/pendingcall.h"

#include <NetworkManagerQt/GenericTypes>
#include <QDBusPendingReply>

namespace Tarvik {

namespace {

// The daemon's own ways of saying that there is nothing to read.
const QString settingNotFound = QStringLiteral("org.freedesktop.NetworkManager.Settings.Connection.SettingNotFound");
const QString noSecrets = QStringLiteral("org.freedesktop.NetworkManager.AgentManager.NoSecrets");

ProfileSecrets secretsOf(const QDBusPendingReply<NMVariantMapMap>& reply, const QString& setting)
{
    ProfileSecrets secrets;
    if (reply.isValid()) {
        secrets.outcome = ProfileSecrets::Read;
        secrets.values = reply.value().value(setting);
        return secrets;
    }
    secrets.error = reply.error();
    const QString name = secrets.error.name();
    secrets.outcome = name == settingNotFound || name == noSecrets ? ProfileSecrets::NoneStored
                                                                    : ProfileSecrets::Failed;
    return secrets;
}

} // namespace

void readProfileSecrets(const NetworkManager::Connection::Ptr& connection, const QString& setting, QObject* context,
                        std::function<void(const ProfileSecrets&)> done)
{
    whenFinished(connection->secrets(setting), context, [setting, done = std::move(done)](const QDBusPendingCall& call) {
        done(secretsOf(call, setting));
    });
}

} // namespace Tarvik
