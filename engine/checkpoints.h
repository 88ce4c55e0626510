#pragma once

#include <QDBusError>
#include <QMap>
#include <QObject>
#include <QString>

#include <functional>

namespace Tarvik {

// NetworkManager's checkpoints, which its Qt library does not offer: a snapshot of some devices and their
// profiles that the daemon restores by itself when the rollback timeout passes, even after tarvik is gone.
// Every call is asynchronous; each answer comes to its callback from the event loop.
class Checkpoints : public QObject
{
    Q_OBJECT

public:
    // Per device path, what the rollback did to it (0 restored, 1 no device, 2 unmanaged, 3 failed).
    using Results = QMap<QString, uint>;
    using Created = std::function<void(const QString& checkpoint, const QDBusError& error)>;
    using Finished = std::function<void(const QDBusError& error)>;
    using RolledBack = std::function<void(const Results& results, const QDBusError& error)>;
    using Listed = std::function<void(const QStringList& checkpoints)>;

    explicit Checkpoints(QObject* parent);

    // Over the devices only (a rollback re-activates every device of the checkpoint); profiles added after it
    // are deleted by a rollback.
    void create(const QStringList& devices, uint rollbackSeconds, Created done);
    void destroy(const QString& checkpoint, Finished done);
    void rollback(const QString& checkpoint, RolledBack done);
    // The checkpoints the daemon holds now (none when it cannot say).
    void list(Listed done);
};

} // namespace Tarvik
