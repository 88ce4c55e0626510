#include "engine/usagebudget.h"

#include "config/config.h"
#include "ipc/ipc.h"

#include <cmath>

namespace Tarvik {

namespace {

// A clock that is set or jumps is noticed within the hour.
constexpr qint64 maxCheckIntervalMs = 3600 * 1000;
// Before a cycle is a day old, its average rate says little about its end.
constexpr qint64 projectionAfterMs = 24 * 3600 * 1000;

const QString projectedAlert = QStringLiteral("projected");
const QString limitAlert = QStringLiteral("limit");
const char* const dayFormat = "yyyy-MM-dd";

QByteArray day(const QDate& date)
{
    return date.toString(QLatin1String(dayFormat)).toLatin1();
}

bool passes(qint64 total, qint64 budget, int share)
{
    return total * 100 >= budget * share;
}

} // namespace

const char* const UsageBudget::setCommand = "modem/usage/set";
const char* const UsageBudget::resumeCommand = "modem/usage/resume";

UsageBudget::UsageBudget(IPC* ipc, Config* config, const QString& ledgerPath, QObject* parent, Clock clock)
    : QObject(parent)
    , m_ipc(ipc)
    , m_config(config)
    , m_clock(std::move(clock))
    , m_ledger(ledgerPath)
{
    m_cycleTimer.setSingleShot(true);
    m_cycleTimer.setTimerType(Qt::PreciseTimer);
    connect(&m_cycleTimer, &QTimer::timeout, this, &UsageBudget::onCycleTimer);
    const QDateTime now = m_clock();
    m_ledger.prune(now);
    const BillingCycle cycle = currentCycle();
    m_cycle = cycle.key();
    m_held = shouldHold(assess(cycle, now), cycle);
    listenForResume();
    scheduleCycleCheck();
}

void UsageBudget::record(const QString& device, const QString& port, quint64 rx, quint64 tx)
{
    m_ledger.addReading(currentCycle().key(), device, port, rx, tx);
    evaluate();
}

bool UsageBudget::holdsModemDown() const
{
    return m_held;
}

void UsageBudget::onBrokerConnected()
{
    evaluate();
}

void UsageBudget::get()
{
    evaluate();
}

void UsageBudget::set(const QJsonObject& payload)
{
    DataPlan plan = m_config->dataPlan();
    const QString error = applyDataPlanRequest(plan, payload);
    if (!error.isEmpty()) {
        log(Log::Error, "Data plan refused: %s", qPrintable(error));
        m_ipc->publishError(QLatin1String(setCommand), error);
        return;
    }
    m_config->setDataPlan(plan);
    QStringList shares;
    for (int share : plan.warnPercent)
        shares << QString::number(share) + QLatin1Char('%');
    log(Log::Info, "Data plan set: cycle day %d, budget %.6g MB, warnings at %s, at the budget: %s.", plan.cycleDay,
        plan.limitBytes / 1e6, shares.isEmpty() ? "none" : qPrintable(shares.join(QStringLiteral(", "))),
        qPrintable(limitActionName(plan.limitAction)));
    listenForResume();
    evaluate();
    scheduleCycleCheck();
    emit planChanged();
}

void UsageBudget::resume()
{
    if (!m_held) {
        m_ipc->publishError(QLatin1String(resumeCommand), QStringLiteral("The modem is not cut off"));
        return;
    }
    const BillingCycle cycle = currentCycle();
    m_ledger.setResumed(cycle.key());
    log(Log::Warning, "Cut-off lifted by %s until the cycle ends on %s.", resumeCommand, day(cycle.last).constData());
    evaluate();
}

BillingCycle UsageBudget::currentCycle() const
{
    return BillingCycle::containing(m_clock(), m_config->dataPlan().cycleDay);
}

UsageView UsageBudget::assess(const BillingCycle& cycle, const QDateTime& now) const
{
    const DataPlan& plan = m_config->dataPlan();
    const UsageLedger::Totals totals = m_ledger.totals(cycle.key());
    UsageView usage;
    usage.interface = m_ledger.device();
    usage.firstDay = cycle.first;
    usage.lastDay = cycle.last;
    usage.rxBytes = qint64(totals.rx);
    usage.txBytes = qint64(totals.tx);
    usage.budgetBytes = plan.limitBytes;
    usage.limitAction = limitActionName(plan.limitAction);
    const qint64 elapsed = std::max<qint64>(cycle.start().msecsTo(now), 1);
    usage.projectedBytes = std::llround(double(usage.totalBytes()) * cycle.start().msecsTo(cycle.end()) / elapsed);
    if (!plan.hasBudget())
        return usage;
    for (int share : plan.warnPercent) {
        if (passes(usage.totalBytes(), plan.limitBytes, share))
            usage.threshold = share;
    }
    if (usage.totalBytes() >= plan.limitBytes)
        usage.state = UsageView::LimitReached;
    else if (elapsed >= projectionAfterMs && usage.projectedBytes > plan.limitBytes)
        usage.state = UsageView::ProjectedOver;
    else if (usage.threshold)
        usage.state = UsageView::Warning;
    return usage;
}

void UsageBudget::announce(const UsageView& usage, const BillingCycle& cycle)
{
    const QStringList announced = m_ledger.announced(cycle.key(), usage.budgetBytes);
    QStringList alerts = announced;
    const long long total = usage.totalBytes();
    const long long budget = usage.budgetBytes;
    for (int share : m_config->dataPlan().warnPercent) {
        const QString alert = QString::number(share);
        if (share <= usage.threshold && !alerts.contains(alert)) {
            log(Log::Warning, "Modem data passed %d%% of the budget: %lld of %lld bytes in the cycle %s to %s.", share,
                total, budget, day(cycle.first).constData(), day(cycle.last).constData());
            alerts << alert;
        }
    }
    if (usage.state == UsageView::ProjectedOver && !alerts.contains(projectedAlert)) {
        log(Log::Warning, "Modem data is projected to pass the budget: %lld of %lld bytes by the end of %s.",
            static_cast<long long>(usage.projectedBytes), budget, day(cycle.last).constData());
        alerts << projectedAlert;
    }
    if (usage.state == UsageView::LimitReached && !alerts.contains(limitAlert)) {
        log(Log::Warning, "Modem data budget used up: %lld of %lld bytes in the cycle %s to %s.", total, budget,
            day(cycle.first).constData(), day(cycle.last).constData());
        alerts << limitAlert;
    }
    if (alerts != announced)
        m_ledger.setAnnounced(cycle.key(), usage.budgetBytes, alerts);
}

bool UsageBudget::shouldHold(const UsageView& usage, const BillingCycle& cycle) const
{
    return m_config->dataPlan().limitAction == DataPlan::LimitAction::Disconnect
        && usage.state == UsageView::LimitReached && !m_ledger.isResumed(cycle.key());
}

void UsageBudget::evaluate()
{
    const QDateTime now = m_clock();
    const BillingCycle cycle = BillingCycle::containing(now, m_config->dataPlan().cycleDay);
    if (cycle.key() != m_cycle) {
        m_cycle = cycle.key();
        log(Log::Info, "Billing cycle %s to %s began.", day(cycle.first).constData(), day(cycle.last).constData());
        m_ledger.prune(now);
    }
    UsageView usage = assess(cycle, now);
    announce(usage, cycle);
    const bool held = shouldHold(usage, cycle);
    if (held != m_held) {
        m_held = held;
        if (held)
            log(Log::Warning, "Cutting the modem off until %s (or %s).", day(cycle.last.addDays(1)).constData(),
                resumeCommand);
        else
            log(Log::Info, "Cut-off ended: the modem may connect again.");
        emit holdChanged(held);
    }
    usage.cutOff = m_held;
    m_ipc->publish(Topic::ModemUsage, usageDocument(usage));
}

void UsageBudget::onCycleTimer()
{
    if (currentCycle().key() != m_cycle)
        evaluate();
    scheduleCycleCheck();
}

void UsageBudget::scheduleCycleCheck()
{
    const qint64 untilEnd = m_clock().msecsTo(currentCycle().end());
    m_cycleTimer.start(int(qBound<qint64>(1, untilEnd, maxCheckIntervalMs)));
}

void UsageBudget::listenForResume()
{
    const DataPlan& plan = m_config->dataPlan();
    if (plan.hasBudget() && plan.limitAction == DataPlan::LimitAction::Disconnect)
        m_ipc->listenFor(QLatin1String(resumeCommand));
}

} // namespace Tarvik
