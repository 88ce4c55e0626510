#pragma once

#include "documents/usagedocument.h"
#include "engine/billingcycle.h"
#include "engine/usageledger.h"
#include "log/taggedlog.h"

#include <QDateTime>
#include <QJsonObject>
#include <QObject>
#include <QTimer>

#include <functional>

namespace Tarvik {

class Config;
class IPC;

// The modem's data plan: exact totals per billing cycle from the data port's counters, the budget's warnings
// (each announced once per cycle), and the cut-off that holds the modem down once the budget is used up,
// until the cycle renews or a client lifts it. The engine hands it the readings and does what it asks of the
// modem; the clock is passed in.
class UsageBudget : public QObject
{
    Q_OBJECT

public:
    static const char* const setCommand;
    static const char* const resumeCommand;

    using Clock = std::function<QDateTime()>;

    UsageBudget(IPC* ipc, Config* config, const QString& ledgerPath, QObject* parent,
                Clock clock = &QDateTime::currentDateTime);

    // A reading of the counters of the modem `device`'s data interface `port`.
    void record(const QString& device, const QString& port, quint64 rx, quint64 tx);
    // The budget is used up, with the cut-off asked for and not lifted: the modem must stay down.
    bool holdsModemDown() const;

    void onBrokerConnected();
    void get();
    void set(const QJsonObject& payload);
    void resume();

signals:
    void holdChanged(bool held);
    void planChanged();

private:
    UsageView assess(const BillingCycle& cycle, const QDateTime& now) const;
    void announce(const UsageView& usage, const BillingCycle& cycle);
    // Announces what is new, follows the cut-off and publishes the document.
    void evaluate();
    void onCycleTimer();
    void scheduleCycleCheck();
    BillingCycle currentCycle() const;
    bool shouldHold(const UsageView& usage, const BillingCycle& cycle) const;
    // The cut-off is lifted by a command some clients only: subscribed once the plan may cut off.
    void listenForResume();

    IPC* const m_ipc;
    Config* const m_config;
    const Clock m_clock;
    UsageLedger m_ledger;
    QTimer m_cycleTimer;
    QString m_cycle;   // the key of the cycle last evaluated
    bool m_held = false;
    const TaggedLog log{"[Usage] "};
};

} // namespace Tarvik
