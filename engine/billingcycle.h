#pragma once

#include <QDate>
#include <QDateTime>
#include <QString>

namespace Tarvik {

// One period of a data plan: from its renewal day to the day before the next renewal, in local time. A
// renewal day past the end of a month falls on the month's last day (31 renews on 28 or 29 February).
struct BillingCycle {
    QDate first;
    QDate last;

    static BillingCycle containing(const QDateTime& now, int cycleDay);

    // Local midnight at its first day, and at the day after its last (an hour off a whole number of days
    // across a change of daylight-saving time).
    QDateTime start() const;
    QDateTime end() const;
    // Its name in the statistics file, its first day as "yyyy-MM-dd".
    QString key() const;
    static QDate firstDayOf(const QString& key);
};

} // namespace Tarvik
