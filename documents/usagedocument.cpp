#include "documents/usagedocument.h"

#include <cmath>

namespace Tarvik {

namespace {

const char* const dayFormat = "yyyy-MM-dd";

QJsonValue orNull(qint64 value)
{
    return value ? QJsonValue(value) : QJsonValue(QJsonValue::Null);
}

} // namespace

const char* usageStateName(UsageView::State state)
{
    static const char* const names[] = {"ok", "warning", "projectedOver", "limitReached"};
    return names[state];
}

QJsonObject usageDocument(const UsageView& usage)
{
    const QJsonValue usedPercent = usage.budgetBytes
        ? QJsonValue(std::round(usage.totalBytes() * 10000.0 / usage.budgetBytes) / 100)
        : QJsonValue(QJsonValue::Null);
    return {{"interface", usage.interface.isEmpty() ? QJsonValue(QJsonValue::Null) : QJsonValue(usage.interface)},
            {"firstDay", usage.firstDay.toString(QLatin1String(dayFormat))},
            {"lastDay", usage.lastDay.toString(QLatin1String(dayFormat))},
            {"rxBytes", usage.rxBytes},
            {"txBytes", usage.txBytes},
            {"totalBytes", usage.totalBytes()},
            {"budgetBytes", orNull(usage.budgetBytes)},
            {"usedPercent", usedPercent},
            {"projectedBytes", usage.projectedBytes},
            {"state", usageStateName(usage.state)},
            {"threshold", orNull(usage.threshold)},
            {"limitAction", usage.limitAction},
            {"cutOff", usage.cutOff}};
}

} // namespace Tarvik
