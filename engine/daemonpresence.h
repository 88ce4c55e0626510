#pragma once

#include <QObject>
#include <QString>

class QDBusServiceWatcher;

namespace Tarvik {

// Whether a daemon has an owner on the system bus, learned from the bus alone: asking the daemon itself would
// start it when it is activatable, and wait for the activation to time out when it does not start.
class DaemonPresence : public QObject
{
    Q_OBJECT

public:
    DaemonPresence(const QString& service, QObject* parent);

    // Asks the bus once, then follows every change of owner.
    void start();
    bool isKnown() const;
    bool isPresent() const;

signals:
    // The bus's first answer.
    void known(bool present);
    // Every change after it.
    void changed(bool present);

private:
    void onOwnerChanged(const QString& service, const QString& oldOwner, const QString& newOwner);
    void learn(bool present);

    const QString m_service;
    QDBusServiceWatcher* m_watcher = nullptr;
    bool m_known = false;
    bool m_present = false;
};

} // namespace Tarvik
