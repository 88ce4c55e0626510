#include "engine/confirmedchanges.h"

#include "config/config.h"
#include "engine/checkpoints.h"
#include "engine/devicekind.h"
#include "engine/devicework.h"
#include "engine/pendingcall.h"
#include "engine/profileprovisioning.h"
#include "engine/reachabilityprobe.h"
#include "ipc/ipc.h"
#include "vocabulary/clienttext.h"

#include <QDateTime>
#include <QUuid>

namespace Tarvik {

namespace {

constexpr int shortestWindowSeconds = 10;
constexpr int longestWindowSeconds = 3600;
// tarvik, when alive, rolls back a moment before the daemon's own timer would: its rollback answers with what
// it did to the device, the daemon's own one tells nobody.
constexpr int rollbackLeadMs = 1000;
// Between two attempts to reach the probe: each opens a fresh connection.
constexpr int probeIntervalMs = 2000;
const QString confirmCommand = QStringLiteral("transaction/confirm");
const QString rollbackCommand = QStringLiteral("transaction/rollback");

} // namespace

struct ConfirmedChanges::Change {
    TransactionView view;
    NetworkManager::Device::Ptr device;
    const DeviceKind* kind = nullptr;
    DeviceRecord record;
    QJsonObject payload;
    QString checkpoint;
    NetworkManager::Connection::Ptr connection;
    QTimer deadline;
    bool confirming = false;
    bool finished = false;
};

ChangeRequest ChangeRequest::of(const QJsonObject& payload)
{
    ChangeRequest request;
    if (!payload.contains(QLatin1String("confirmWithin")))
        return request;
    request.asked = true;
    const QJsonValue window = payload.value(QLatin1String("confirmWithin"));
    const double seconds = window.toDouble(-1);
    if (!window.isDouble() || seconds != double(qint64(seconds)) || seconds < shortestWindowSeconds
        || seconds > longestWindowSeconds) {
        request.error = QStringLiteral("confirmWithin must be a whole number of seconds from %1 to %2")
                            .arg(shortestWindowSeconds)
                            .arg(longestWindowSeconds);
        return request;
    }
    request.confirmWithin = int(seconds);
    const QJsonValue id = payload.value(QLatin1String("id"));
    if (id.isUndefined()) {
        request.id = QUuid::createUuid().toString(QUuid::WithoutBraces);
    } else if (!id.isString() || id.toString().isEmpty() || id.toString().size() > maxClientTextLength) {
        request.error = QStringLiteral("id must be a text of 1 to %1 characters").arg(maxClientTextLength);
    } else {
        request.id = id.toString();
    }
    return request;
}

ConfirmedChanges::ConfirmedChanges(IPC* ipc, Config* config, DeviceWork* work, const QString& journalPath,
                                   QObject* parent)
    : QObject(parent)
    , m_ipc(ipc)
    , m_config(config)
    , m_work(work)
    , m_checkpoints(new Checkpoints(this))
    , m_journal(journalPath)
{
}

ConfirmedChanges::~ConfirmedChanges() = default;

bool ConfirmedChanges::isPending(const QString& device) const
{
    return m_changes.contains(device);
}

bool ConfirmedChanges::acceptAnotherChange(const QString& device, const QString& errorCommand) const
{
    const auto change = m_changes.value(device);
    if (!change)
        return true;
    const QString error = QStringLiteral("Change '%1' of %2 is waiting for confirmation")
                              .arg(clientText(change->view.id), change->view.interface);
    log(Log::Error, "%s", qPrintable(error));
    m_ipc->publishError(errorCommand, error);
    return false;
}

void ConfirmedChanges::begin(const DeviceKind& kind, const NetworkManager::Device::Ptr& device,
                             const DeviceRecord& record, const QJsonObject& payload, const ChangeRequest& request)
{
    auto change = std::make_shared<Change>();
    change->view = {request.id, QLatin1String(kind.name) + QStringLiteral("/config/set"), device->interfaceName(),
                    TransactionView::Pending,
                    QDateTime::currentSecsSinceEpoch() + request.confirmWithin, QString(), {}};
    change->device = device;
    change->kind = &kind;
    change->record = record;
    change->payload = payload;
    change->deadline.setSingleShot(true);
    change->deadline.setInterval(request.confirmWithin * 1000 - rollbackLeadMs);
    m_changes.insert(device->uni(), change);
    m_ipc->listenFor(QStringLiteral("transaction/+"));
    log(Log::Info, "Change '%s' of %s: on trial for %d s.", qPrintable(clientText(request.id)),
        qPrintable(device->interfaceName()), request.confirmWithin);
    m_checkpoints->create({device->uni()}, uint(request.confirmWithin),
                          [this, change](const QString& checkpoint, const QDBusError& error) {
                              if (change->finished)
                                  return;
                              if (error.isValid()) {
                                  finish(change.get(), TransactionView::Failed,
                                         QStringLiteral("NetworkManager refused the checkpoint: ") + error.message());
                                  return;
                              }
                              onCheckpointCreated(change.get(), checkpoint);
                          });
}

void ConfirmedChanges::onCheckpointCreated(Change* change, const QString& checkpoint)
{
    change->checkpoint = checkpoint;
    writeJournal();
    publish(*change);
    const int seconds = (change->deadline.interval() + rollbackLeadMs) / 1000;
    connect(&change->deadline, &QTimer::timeout, this, [this, change, seconds] {
        rollBack(change, TransactionView::RolledBack, QStringLiteral("not confirmed within %1 s").arg(seconds));
    });
    change->deadline.start();
    const auto held = m_changes.value(change->device->uni());
    m_work->add(change->device->uni(), DeviceWork::Once, [this, held](const DeviceWork::Finished& finished) {
        ProfileProvisioning::start(held->device, held->record, ProfileProvisioning::Persistence::Memory, this,
                                   [this, held, finished](NetworkManager::Connection::Ptr connection,
                                                          const QString& refusal) {
                                       onProvisioned(held.get(), connection, refusal);
                                       finished();
                                   });
    });
}

void ConfirmedChanges::onProvisioned(Change* change, NetworkManager::Connection::Ptr connection,
                                     const QString& refusal)
{
    if (change->finished)
        return;
    if (!connection) {
        rollBack(change, TransactionView::Failed,
                 refusal.isEmpty() ? QStringLiteral("no profile could be made for the record") : refusal);
        return;
    }
    change->connection = connection;
    if (!m_config->confirmProbe().isEmpty())
        probeLater(m_changes.value(change->device->uni()));
}

// Once the device is back up with the change, reaching the probe proves the gateway is still reachable.
void ConfirmedChanges::probeLater(const std::shared_ptr<Change>& change)
{
    QTimer::singleShot(probeIntervalMs, this, [this, change] {
        if (change->finished)
            return;
        if (change->device->state() != NetworkManager::Device::Activated) {
            probeLater(change);
            return;
        }
        const QString probe = m_config->confirmProbe();
        ReachabilityProbe::start(probe, this, [this, change, probe](bool reached, const QString& why) {
            if (change->finished)
                return;
            if (!reached) {
                log(Log::Info, "Change '%s' of %s: %s not reached yet (%s).", qPrintable(clientText(change->view.id)),
                    qPrintable(change->view.interface), qPrintable(probe), qPrintable(why));
                probeLater(change);
                return;
            }
            keep(change, QStringLiteral("confirmed by reaching ") + probe);
        });
    });
}

ConfirmedChanges::Change* ConfirmedChanges::find(const QJsonObject& payload, const QString& command)
{
    const QString id = payload.value(QLatin1String("id")).toString();
    for (const auto& change : qAsConst(m_changes)) {
        if (change->view.id == id && !id.isEmpty())
            return change.get();
    }
    const QString error = QStringLiteral("No change waiting for confirmation: '%1'").arg(clientText(id));
    log(Log::Error, "%s", qPrintable(error));
    m_ipc->publishError(command, error);
    return nullptr;
}

void ConfirmedChanges::confirm(const QJsonObject& payload)
{
    Change* change = find(payload, confirmCommand);
    if (!change)
        return;
    if (!change->connection) {
        m_ipc->publishError(confirmCommand, QStringLiteral("Change '%1' is still being applied")
                                                .arg(clientText(change->view.id)));
        return;
    }
    keep(m_changes.value(change->device->uni()), QString());
}

void ConfirmedChanges::keep(const std::shared_ptr<Change>& held, const QString& reason)
{
    // The client's confirmation and the probe's may cross.
    if (held->confirming)
        return;
    held->confirming = true;
    held->deadline.stop();
    m_checkpoints->destroy(held->checkpoint, [this, held, reason](const QDBusError& error) {
        if (held->finished)
            return;
        if (error.isValid()) {
            // The daemon no longer holds the checkpoint: its own timer, or a restart, undid the change.
            finish(held.get(), TransactionView::RolledBack,
                   QStringLiteral("NetworkManager undid the change before the confirmation: ") + error.message());
            return;
        }
        whenFinished(held->connection->save(), this, [this, held, reason](const QDBusPendingCall& saved) {
            if (saved.isError()) {
                finish(held.get(), TransactionView::Failed,
                       QStringLiteral("NetworkManager could not save the profile: ") + saved.error().message());
                return;
            }
            held->kind->store(*m_config, held->record);
            finish(held.get(), TransactionView::Confirmed, reason);
        });
    });
}

void ConfirmedChanges::rollback(const QJsonObject& payload)
{
    if (Change* change = find(payload, rollbackCommand))
        rollBack(change, TransactionView::RolledBack, QStringLiteral("rolled back on request"));
}

void ConfirmedChanges::rollBack(Change* change, TransactionView::State state, const QString& reason)
{
    change->deadline.stop();
    if (change->checkpoint.isEmpty()) {
        finish(change, state, reason);
        return;
    }
    const auto held = m_changes.value(change->device->uni());
    m_checkpoints->rollback(change->checkpoint, [this, held, state, reason](const Checkpoints::Results& results,
                                                                            const QDBusError&) {
        if (held->finished)
            return;
        // A checkpoint the daemon already rolled back by itself answers with an error: the outcome is the same.
        for (auto it = results.cbegin(); it != results.cend(); ++it) {
            const bool ours = it.key() == held->device->uni();
            held->view.rollbackResults.insert(ours ? held->view.interface : it.key(), it.value());
        }
        finish(held.get(), state, reason);
    });
}

void ConfirmedChanges::finish(Change* change, TransactionView::State state, const QString& reason)
{
    change->finished = true;
    change->deadline.stop();
    change->view.state = state;
    change->view.reason = reason;
    publishOutcome(change->view);
    log(state == TransactionView::Confirmed ? Log::Info : Log::Warning, "Change '%s' of %s %s%s%s",
        qPrintable(clientText(change->view.id)), qPrintable(change->view.interface),
        state == TransactionView::Confirmed ? "confirmed" : state == TransactionView::Failed ? "failed" : "rolled back",
        reason.isEmpty() ? "" : ": ", qPrintable(reason));
    const auto keep = m_changes.take(change->device->uni());
    writeJournal();
}

void ConfirmedChanges::publish(const Change& change)
{
    m_ipc->publish(Topic::Transaction, transactionDocument(change.view));
}

// An outcome can be sent into a session whose route just went (the change, or the daemon leaving, may be what
// took it) and be lost with it: the last outcome of each device goes out again at every new session.
void ConfirmedChanges::publishOutcome(const TransactionView& outcome)
{
    m_outcomes.insert(outcome.interface, outcome);
    m_ipc->publish(Topic::Transaction, transactionDocument(outcome));
}

void ConfirmedChanges::writeJournal()
{
    QList<JournalEntry> entries;
    for (const auto& change : qAsConst(m_changes)) {
        if (!change->checkpoint.isEmpty()) {
            entries.append({change->view.id, change->view.command, change->view.interface, change->checkpoint,
                            change->view.deadline, change->payload});
        }
    }
    m_journal.write(entries);
}

void ConfirmedChanges::onBrokerConnected()
{
    for (const TransactionView& outcome : qAsConst(m_outcomes))
        m_ipc->publish(Topic::Transaction, transactionDocument(outcome));
    for (const auto& change : qAsConst(m_changes)) {
        if (!change->checkpoint.isEmpty())
            publish(*change);
    }
    if (!m_journalResolved) {
        m_journalResolved = true;
        resolveJournal();
    }
}

void ConfirmedChanges::onNetworkManagerGone()
{
    const auto changes = m_changes.values();
    for (const auto& change : changes)
        finish(change.get(), TransactionView::RolledBack, QStringLiteral("NetworkManager restarted during the change"));
}

// A change left by a tarvik that stopped inside its window is undone: its trial profile was never saved and
// the file still holds the previous record.
void ConfirmedChanges::resolveJournal()
{
    const QList<JournalEntry> left = m_journal.read();
    if (left.isEmpty())
        return;
    m_journal.write({});
    m_checkpoints->list([this, left](const QStringList& held) {
        for (const JournalEntry& entry : left) {
            TransactionView view{entry.id, entry.command, entry.interface, TransactionView::RolledBack,
                                 entry.deadline, QStringLiteral("service restarted during the change"), {}};
            if (!held.contains(entry.checkpoint)) {
                publishOutcome(view);
                continue;
            }
            m_checkpoints->rollback(entry.checkpoint, [this, view](const Checkpoints::Results& results,
                                                                   const QDBusError&) mutable {
                if (!results.isEmpty())
                    view.rollbackResults.insert(view.interface, results.first());
                publishOutcome(view);
            });
        }
    });
}

} // namespace Tarvik
