#pragma once

#include <NetworkManagerQt/Connection>
#include <QDBusError>
#include <QObject>
#include <QString>
#include <QVariantMap>

#include <functional>

namespace Tarvik {

// What NetworkManager answered when asked for a profile's secrets of one setting.
struct ProfileSecrets {
    enum Outcome {
        // `values` holds the setting's secrets (possibly none of its keys).
        Read,
        // The profile lacks the setting, or holds no secrets for it: an open network, a modem without password.
        NoneStored,
        // No answer worth believing: a timeout, a daemon gone or refusing. `values` must not stand for the truth.
        Failed
    };
    Outcome outcome = Failed;
    QVariantMap values;
    QDBusError error;
};

// Asks for the secrets of one setting of a profile; `done` runs from the event loop once the daemon has
// answered, unless `context` is gone by then.
void readProfileSecrets(const NetworkManager::Connection::Ptr& connection, const QString& setting, QObject* context,
                        std::function<void(const ProfileSecrets&)> done);

} // namespace Tarvik
