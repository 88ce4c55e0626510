#pragma once

#include <QDateTime>
#include <QMap>
#include <QSettings>
#include <QString>

// The arithmetic of the modem's data usage, apart from timers and devices.
namespace Tarvik {
namespace DataUsage {

// A month's group name in the statistics file, e.g. "2026-11".
QString monthOf(const QDateTime& time);

// A month's total after a reading: the traffic since the previous reading
// added, all modulo 2^32. A counter that restarted below the previous
// reading therefore adds a very large amount; clients have always seen it so.
quint32 addTraffic(quint32 total, quint64 counter, quint64 previous);

// Whether a month's group is old enough to go: it began before six months ago.
bool isExpired(const QString& month, const QDateTime& now);

// The published totals: per month, "rxbytes" and "txbytes" in decimal
// megabytes. A total of 2^31 bytes or more comes out negative, as it always has.
QMap<QString, QMap<QString, double>> megabytesPerMonth(QSettings& store);

} // namespace DataUsage
} // namespace Tarvik
