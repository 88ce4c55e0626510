#include "engine/datausage.h"

namespace Tarvik {
namespace DataUsage {

namespace {
const char* const monthFormat = "yyyy-MM";
constexpr int keptMonths = 6;
} // namespace

QString monthOf(const QDateTime& time)
{
    return time.toString(QLatin1String(monthFormat));
}

quint32 addTraffic(quint32 total, quint64 counter, quint64 previous)
{
    return total + (static_cast<quint32>(counter) - static_cast<quint32>(previous));
}

bool isExpired(const QString& month, const QDateTime& now)
{
    return QDateTime::fromString(month, QLatin1String(monthFormat)) < now.addMonths(-keptMonths);
}

QMap<QString, QMap<QString, double>> megabytesPerMonth(QSettings& store)
{
    QMap<QString, QMap<QString, double>> totals;
    const QStringList months = store.childGroups();
    for (const QString& month : months) {
        store.beginGroup(month);
        for (const QString& key : {QStringLiteral("rxbytes"), QStringLiteral("txbytes")}) {
            totals[month][key] = static_cast<qint32>(store.value(key).toUInt()) / 1000000.0;
        }
        store.endGroup();
    }
    return totals;
}

} // namespace DataUsage
} // namespace Tarvik
