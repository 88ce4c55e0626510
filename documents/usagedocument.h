#pragma once

#include <QDate>
#include <QJsonObject>
#include <QString>

namespace Tarvik {

// What a client learns of the modem's data in the current billing cycle.
struct UsageView {
    enum State { Ok, Warning, ProjectedOver, LimitReached };

    QString interface;   // the modem last counted; empty before the first reading
    QDate firstDay;
    QDate lastDay;
    qint64 rxBytes = 0;
    qint64 txBytes = 0;
    qint64 budgetBytes = 0;      // 0: no budget
    qint64 projectedBytes = 0;   // the total at the cycle's end, at its average rate so far
    State state = Ok;
    int threshold = 0;           // the highest warning share passed, 0 for none
    QString limitAction;
    bool cutOff = false;

    qint64 totalBytes() const { return rxBytes + txBytes; }
};

QJsonObject usageDocument(const UsageView& usage);
const char* usageStateName(UsageView::State state);

} // namespace Tarvik
