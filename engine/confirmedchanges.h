#pragma once

#include "documents/transactiondocument.h"
#include "engine/changejournal.h"
#include "engine/devicerecord.h"
#include "log/taggedlog.h"

#include <NetworkManagerQt/Connection>
#include <NetworkManagerQt/Device>
#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QObject>
#include <QTimer>

#include <memory>

namespace Tarvik {

class Checkpoints;
class Config;
class DeviceWork;
class IPC;
struct DeviceKind;

// What a set command asks for beyond its record: to be undone unless confirmed in time.
struct ChangeRequest {
    bool asked = false;
    int confirmWithin = 0;   // seconds
    QString id;              // the client's, or one made up
    QString error;           // why the request is refused

    static ChangeRequest of(const QJsonObject& payload);
};

// Changes applied on trial: a checkpoint of the device first, the profile changed in the daemon's memory only,
// the configuration file left alone until the client confirms. Unconfirmed at the deadline, or refused by the
// daemon, the checkpoint brings the device back as it was. One change per device at a time.
class ConfirmedChanges : public QObject
{
    Q_OBJECT

public:
    ConfirmedChanges(IPC* ipc, Config* config, DeviceWork* work, const QString& journalPath, QObject* parent);
    ~ConfirmedChanges() override;

    bool isPending(const QString& device) const;
    // Refuses the command on `errorCommand` when the device has a change waiting; true when it may go on.
    bool acceptAnotherChange(const QString& device, const QString& errorCommand) const;
    void begin(const DeviceKind& kind, const NetworkManager::Device::Ptr& device, const DeviceRecord& record,
               const QJsonObject& payload, const ChangeRequest& request);
    void confirm(const QJsonObject& payload);
    void rollback(const QJsonObject& payload);
    // After a (re)connection to the broker: the last outcomes and the pending documents again, and a journal
    // left by a tarvik that was stopped inside a window resolved.
    void onBrokerConnected();
    // Its checkpoints and the changes held in its memory went with it: back, it loads the saved profiles.
    void onNetworkManagerGone();

private:
    struct Change;

    Change* find(const QJsonObject& payload, const QString& command);
    void onCheckpointCreated(Change* change, const QString& checkpoint);
    void onProvisioned(Change* change, NetworkManager::Connection::Ptr connection, const QString& refusal);
    void probeLater(const std::shared_ptr<Change>& change);
    // Drops the checkpoint, saves the profile and writes the record to the file.
    void keep(const std::shared_ptr<Change>& change, const QString& reason);
    void rollBack(Change* change, TransactionView::State state, const QString& reason);
    void finish(Change* change, TransactionView::State state, const QString& reason);
    void publish(const Change& change);
    void publishOutcome(const TransactionView& outcome);
    void writeJournal();
    void resolveJournal();

    IPC* const m_ipc;
    Config* const m_config;
    DeviceWork* const m_work;
    Checkpoints* const m_checkpoints;
    const ChangeJournal m_journal;
    QMap<QString, std::shared_ptr<Change>> m_changes;   // by device
    bool m_journalResolved = false;
    QMap<QString, TransactionView> m_outcomes;   // the last one of each device, by interface
    const TaggedLog log{"[Change] "};
};

} // namespace Tarvik
