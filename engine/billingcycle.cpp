#include "engine/billingcycle.h"

#include <algorithm>

namespace Tarvik {

namespace {

const char* const keyFormat = "yyyy-MM-dd";

QDate renewalIn(int year, int month, int cycleDay)
{
    const QDate monthStart(year, month, 1);
    return QDate(year, month, std::min(cycleDay, monthStart.daysInMonth()));
}

QDate renewalAfter(const QDate& day, int months, int cycleDay)
{
    const QDate month = QDate(day.year(), day.month(), 1).addMonths(months);
    return renewalIn(month.year(), month.month(), cycleDay);
}

} // namespace

BillingCycle BillingCycle::containing(const QDateTime& now, int cycleDay)
{
    const QDate today = now.date();
    const QDate thisMonth = renewalIn(today.year(), today.month(), cycleDay);
    const QDate first = today >= thisMonth ? thisMonth : renewalAfter(today, -1, cycleDay);
    return {first, renewalAfter(first, 1, cycleDay).addDays(-1)};
}

QDateTime BillingCycle::start() const
{
    return QDateTime(first, QTime(0, 0));
}

QDateTime BillingCycle::end() const
{
    return QDateTime(last.addDays(1), QTime(0, 0));
}

QString BillingCycle::key() const
{
    return first.toString(QLatin1String(keyFormat));
}

QDate BillingCycle::firstDayOf(const QString& key)
{
    return QDate::fromString(key, QLatin1String(keyFormat));
}

} // namespace Tarvik
