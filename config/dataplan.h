#pragma once

#include <QJsonObject>
#include <QList>
#include <QSettings>
#include <QString>
#include <QStringList>

namespace Tarvik {

// How the modem's data is billed: the day its cycle renews, the budget per cycle, the shares of it that raise
// a warning, and what happens when it is used up.
struct DataPlan {
    enum class LimitAction { None, Disconnect };

    int cycleDay = 1;
    qint64 limitBytes = 0;   // 0: no budget
    QList<int> warnPercent{80, 95};
    LimitAction limitAction = LimitAction::None;

    bool hasBudget() const { return limitBytes > 0; }
    bool operator==(const DataPlan& other) const;
};

// The plan held in the modem group of the configuration; a value that does not pass keeps its default and
// its refusal is added to `refused`.
DataPlan readDataPlan(QSettings& settings, QStringList* refused);
void writeDataPlan(QSettings& settings, const DataPlan& plan);

// The members of a client's request applied to `plan`; a refusal naming the first member that does not pass,
// or an empty text.
QString applyDataPlanRequest(DataPlan& plan, const QJsonObject& request);

QString limitActionName(DataPlan::LimitAction action);

} // namespace Tarvik
