#include "engine/usageledger.h"

#include "engine/billingcycle.h"

#include <QFile>

namespace Tarvik {

namespace {

constexpr int keptMonths = 6;

const QString readingGroup = QStringLiteral("reading/");
const QString bootIdPath = QStringLiteral("/proc/sys/kernel/random/boot_id");

// The kernel's counters restart with it; a reading of an earlier boot is no base for this one.
QString readBootId()
{
    QFile file(bootIdPath);
    return file.open(QIODevice::ReadOnly) ? QString::fromLatin1(file.readAll().trimmed()) : QString();
}

QString key(const QString& cycle, const char* name)
{
    return cycle + QLatin1Char('/') + QLatin1String(name);
}

quint64 traffic(quint64 counter, quint64 last, bool sameCounter)
{
    return sameCounter && counter >= last ? counter - last : counter;
}

} // namespace

UsageLedger::UsageLedger(const QString& path)
    : m_file(path, QSettings::IniFormat)
    , m_bootId(readBootId())
{
}

void UsageLedger::addReading(const QString& cycle, const QString& device, const QString& port, quint64 rx, quint64 tx)
{
    const bool sameCounter = m_file.value(readingGroup + "boot").toString() == m_bootId
        && m_file.value(readingGroup + "port").toString() == port;
    const Totals before = totals(cycle);
    m_file.setValue(key(cycle, "rxbytes"), before.rx + traffic(rx, m_file.value(readingGroup + "rxbytes").toULongLong(), sameCounter));
    m_file.setValue(key(cycle, "txbytes"), before.tx + traffic(tx, m_file.value(readingGroup + "txbytes").toULongLong(), sameCounter));
    m_file.setValue(readingGroup + "boot", m_bootId);
    m_file.setValue(readingGroup + "port", port);
    m_file.setValue(readingGroup + "device", device);
    m_file.setValue(readingGroup + "rxbytes", rx);
    m_file.setValue(readingGroup + "txbytes", tx);
    write();
}

UsageLedger::Totals UsageLedger::totals(const QString& cycle) const
{
    return {m_file.value(key(cycle, "rxbytes")).toULongLong(), m_file.value(key(cycle, "txbytes")).toULongLong()};
}

QString UsageLedger::device() const
{
    return m_file.value(readingGroup + "device").toString();
}

QStringList UsageLedger::announced(const QString& cycle, qint64 budgetBytes) const
{
    if (m_file.value(key(cycle, "announcedFor")).toLongLong() != budgetBytes)
        return {};
    return m_file.value(key(cycle, "announced")).toStringList();
}

void UsageLedger::setAnnounced(const QString& cycle, qint64 budgetBytes, const QStringList& alerts)
{
    m_file.setValue(key(cycle, "announcedFor"), budgetBytes);
    m_file.setValue(key(cycle, "announced"), alerts);
    write();
}

bool UsageLedger::isResumed(const QString& cycle) const
{
    return m_file.value(key(cycle, "resumed")).toBool();
}

void UsageLedger::setResumed(const QString& cycle)
{
    m_file.setValue(key(cycle, "resumed"), true);
    write();
}

void UsageLedger::prune(const QDateTime& now)
{
    const QDateTime oldest = now.addMonths(-keptMonths);
    bool changed = false;
    const QStringList groups = m_file.childGroups();
    for (const QString& group : groups) {
        const QDate first = BillingCycle::firstDayOf(group);
        if (first.isValid() && QDateTime(first, QTime(0, 0)) < oldest) {
            m_file.remove(group);
            changed = true;
        }
    }
    if (changed)
        write();
}

void UsageLedger::write()
{
    m_file.sync();
}

} // namespace Tarvik
