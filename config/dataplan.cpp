#include "config/dataplan.h"

#include "vocabulary/clienttext.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <algorithm>
#include <cmath>

namespace Tarvik {

namespace {

constexpr int lastCycleDay = 31;
constexpr double maxLimitMB = 1e9;   // a petabyte: far beyond any plan, far below 64-bit byte counts
constexpr double bytesPerMB = 1e6;

const char* const actionNames[] = {"none", "disconnect"};

// Each member: its name in the file's modem group and in a request, how its text is read into a plan (false
// when it does not pass), how a plan writes it, and what a passing value is.
struct Member {
    const char* name;
    bool (*read)(DataPlan& plan, const QString& text);
    QString (*text)(const DataPlan& plan);
    const char* expected;
    bool list = false;
};

const Member members[] = {
    {"cycleDay",
     [](DataPlan& plan, const QString& text) {
         bool ok = false;
         const int day = text.trimmed().toInt(&ok);
         if (ok && day >= 1 && day <= lastCycleDay)
             plan.cycleDay = day;
         return ok && day >= 1 && day <= lastCycleDay;
     },
     [](const DataPlan& plan) { return QString::number(plan.cycleDay); }, "a day of the month from 1 to 31"},
    {"limitMB",
     [](DataPlan& plan, const QString& text) {
         bool ok = false;
         const double mb = text.trimmed().toDouble(&ok);
         ok = ok && std::isfinite(mb) && mb >= 0 && mb <= maxLimitMB;
         if (ok)
             plan.limitBytes = std::llround(mb * bytesPerMB);
         return ok;
     },
     [](const DataPlan& plan) { return QString::number(plan.limitBytes / bytesPerMB, 'g', 16); },
     "a number of megabytes from 0 to 1000000000"},
    {"warnPercent",
     [](DataPlan& plan, const QString& text) {
         QList<int> shares;
         const QStringList parts = text.split(QLatin1Char(','), Qt::SkipEmptyParts);
         for (const QString& part : parts) {
             bool ok = false;
             const int share = part.trimmed().toInt(&ok);
             if (!ok || share < 1 || share > 100 || (!shares.isEmpty() && share <= shares.last()))
                 return false;
             shares << share;
         }
         plan.warnPercent = shares;
         return true;
     },
     [](const DataPlan& plan) {
         QStringList parts;
         for (int share : plan.warnPercent)
             parts << QString::number(share);
         return parts.join(QLatin1Char(','));
     },
     "a rising list of percentages from 1 to 100", true},
    {"limitAction",
     [](DataPlan& plan, const QString& text) {
         for (auto action : {DataPlan::LimitAction::None, DataPlan::LimitAction::Disconnect}) {
             if (text == limitActionName(action)) {
                 plan.limitAction = action;
                 return true;
             }
         }
         return false;
     },
     [](const DataPlan& plan) { return limitActionName(plan.limitAction); }, "none or disconnect"},
};

QString fileKey(const Member& member)
{
    return QStringLiteral("Modem/") + QLatin1String(member.name);
}

QString refusal(const Member& member, const QString& text)
{
    return QStringLiteral("Invalid %1: %2 is not %3")
        .arg(QLatin1String(member.name), clientText(text), QLatin1String(member.expected));
}

// A request's value as the file would hold it; a list only where the member is one.
QString requestText(const QJsonValue& value, bool list)
{
    if (value.isString())
        return value.toString();
    if (value.isDouble())
        return value.toVariant().toString();
    if (value.isArray() && list) {
        QStringList parts;
        for (const QJsonValue& element : value.toArray())
            parts << (element.isDouble() ? element.toVariant().toString() : QStringLiteral("?"));
        return parts.join(QLatin1Char(','));
    }
    const QJsonArray wrapped{value};
    return QString::fromUtf8(QJsonDocument(wrapped).toJson(QJsonDocument::Compact)).mid(1).chopped(1);
}

} // namespace

bool DataPlan::operator==(const DataPlan& other) const
{
    return cycleDay == other.cycleDay && limitBytes == other.limitBytes && warnPercent == other.warnPercent
        && limitAction == other.limitAction;
}

QString limitActionName(DataPlan::LimitAction action)
{
    return QLatin1String(actionNames[static_cast<int>(action)]);
}

DataPlan readDataPlan(QSettings& settings, QStringList* refused)
{
    DataPlan plan;
    for (const Member& member : members) {
        const QVariant value = settings.value(fileKey(member));
        if (!value.isValid())
            continue;
        // An unquoted list in the file reads as several texts.
        const QString text = value.toStringList().join(QLatin1Char(','));
        if (!member.read(plan, text))
            *refused << refusal(member, text);
    }
    return plan;
}

void writeDataPlan(QSettings& settings, const DataPlan& plan)
{
    for (const Member& member : members)
        settings.setValue(fileKey(member), member.text(plan));
    settings.sync();
}

QString applyDataPlanRequest(DataPlan& plan, const QJsonObject& request)
{
    DataPlan changed = plan;
    bool any = false;
    for (auto it = request.begin(); it != request.end(); ++it) {
        if (it.key() == QLatin1String("interface"))
            continue;
        const auto member = std::find_if(std::begin(members), std::end(members),
                                         [&it](const Member& m) { return it.key() == QLatin1String(m.name); });
        if (member == std::end(members))
            return QStringLiteral("Unknown setting: %1").arg(clientText(it.key()));
        const QString text = requestText(it.value(), member->list);
        if (!member->read(changed, text))
            return refusal(*member, text);
        any = true;
    }
    if (!any)
        return QStringLiteral("Nothing to change: give cycleDay, limitMB, warnPercent or limitAction");
    plan = changed;
    return {};
}

} // namespace Tarvik
