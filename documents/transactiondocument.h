#pragma once

#include <QJsonObject>
#include <QMap>
#include <QString>

namespace Tarvik {

// What a client learns of a confirmed change.
struct TransactionView {
    enum State { Pending, Confirmed, RolledBack, Failed };

    QString id;
    QString command;
    QString interface;
    State state = Pending;
    qint64 deadline = 0;   // seconds since the epoch
    QString reason;
    // Per interface, what the daemon's rollback did to it (its own numbers).
    QMap<QString, uint> rollbackResults;
};

QJsonObject transactionDocument(const TransactionView& change);

} // namespace Tarvik
