#pragma once

#include <QObject>
#include <QString>

#include <functional>

namespace Tarvik {

// The network interface a modem carries its data on (its bearer's, e.g. wwan0), learned from ModemManager in
// the background and kept, so that reading its counters never waits for a daemon, not even at stop.
class ModemDataPort : public QObject
{
    Q_OBJECT

public:
    explicit ModemDataPort(QObject* parent);

    // Asks ModemManager again for the modem at this object path; the answer replaces the interface known so
    // far. `then` runs once the answer is in (or at once, without ModemManager).
    void refresh(const QString& modemPath, std::function<void()> then = [] {});
    // Empty until ModemManager has named one.
    QString interface() const;

private:
    void readBearerInterface(const QString& bearerPath, std::function<void()> then);

    QString m_interface;
};

} // namespace Tarvik
