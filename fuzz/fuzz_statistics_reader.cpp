// Statistics reader: any bytes as ./stats/modem.ini. tarvik publishes the totals, prunes old months
// and adds a reading, as at start and at each reading; the reading must survive whatever was there.

#include "engine/datausage.h"
#include "fuzzsupport.h"

#include <cmath>

using FuzzSupport::require;
namespace DataUsage = Tarvik::DataUsage;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static FuzzSupport::ScratchFiles files;
    static const QDateTime now(QDate(2026, 11, 15), QTime(12, 0));
    const QString path = files.write(QByteArray::fromRawData(reinterpret_cast<const char*>(data), int(size)));
    {
        QSettings store(path, QSettings::IniFormat);
        const QStringList months = store.childGroups();
        // The counters of each month, in slots by what tarvik makes of the month: this one, one to
        // prune (anything that is not a month included), one to keep.
        for (const QString& month : months) {
            const uint32_t kind = month == DataUsage::monthOf(now) ? 0 : DataUsage::isExpired(month, now) ? 1 : 2;
            FuzzSupport::recordShapes(store, {month + QStringLiteral("/rxbytes"), month + QStringLiteral("/txbytes")},
                                      2 * kind);
        }
        FuzzSupport::shapeCounters[6 * 16 + qMin(months.size(), 15)]++;
        const auto totals = DataUsage::megabytesPerMonth(store);
        require(totals.size() == months.size(), "every month is published");
        for (const auto& month : totals) {
            for (const char* key : {"rxbytes", "txbytes"}) {
                const double megabytes = month.value(QLatin1String(key), NAN);
                require(std::isfinite(megabytes) && std::fabs(megabytes) <= 2147.483648, "a total is 32 bits of bytes");
            }
        }

        QStringList expired;
        for (const QString& month : months) {
            if (DataUsage::isExpired(month, now)) {
                expired << month;
                store.remove(month);
            }
        }
        const QString key = DataUsage::monthOf(now) + QStringLiteral("/rxbytes");
        const quint32 total = DataUsage::addTraffic(static_cast<quint32>(store.value(key).toULongLong()), 5000, 1000);
        store.setValue(key, total);
        store.sync();

        const QSettings reread(files.copy(path), QSettings::IniFormat);
        require(reread.value(key).toUInt() == total, "a reading is stored whatever the file held");
        for (const QString& month : expired)
            require(!reread.childGroups().contains(month), "an expired month is gone");
    }
    files.clear();
    return 0;
}
