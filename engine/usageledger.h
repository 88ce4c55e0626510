#pragma once

#include <QDate>
#include <QSettings>
#include <QString>
#include <QStringList>

namespace Tarvik {

// The modem's data as billed, kept in a file of its own: per billing cycle the bytes received and sent (64-bit),
// the alerts announced and whether the cut-off was lifted; and the data port's counters at the last reading.
// Every change is written at once, the whole file replaced atomically.
class UsageLedger
{
public:
    struct Totals {
        quint64 rx = 0;
        quint64 tx = 0;
    };

    explicit UsageLedger(const QString& path);

    // Adds the traffic since the last reading of the same port in the same boot. A counter below the last
    // reading was restarted (a reconnection, a new bearer) and counts from zero, as does the first reading.
    void addReading(const QString& cycle, const QString& device, const QString& port, quint64 rx, quint64 tx);
    Totals totals(const QString& cycle) const;
    // The modem counted last.
    QString device() const;

    // What was announced in the cycle, for the budget it was announced against.
    QStringList announced(const QString& cycle, qint64 budgetBytes) const;
    void setAnnounced(const QString& cycle, qint64 budgetBytes, const QStringList& alerts);
    bool isResumed(const QString& cycle) const;
    void setResumed(const QString& cycle);

    // Forgets the cycles that began more than six months before now.
    void prune(const QDateTime& now);

private:
    void write();

    mutable QSettings m_file;
    const QString m_bootId;
};

} // namespace Tarvik
