#include "documents/transactiondocument.h"

namespace Tarvik {

namespace {

const char* stateName(TransactionView::State state)
{
    switch (state) {
    case TransactionView::Pending:
        return "pending";
    case TransactionView::Confirmed:
        return "confirmed";
    case TransactionView::RolledBack:
        return "rolledBack";
    case TransactionView::Failed:
        return "failed";
    }
    return "failed";
}

// NetworkManager's rollback results, in its own order.
QString rollbackResultName(uint result)
{
    static const char* const names[] = {"restored", "noDevice", "unmanaged", "failed"};
    return QLatin1String(result < 4 ? names[result] : "failed");
}

} // namespace

QJsonObject transactionDocument(const TransactionView& change)
{
    QJsonObject document{{"id", change.id}, {"command", change.command}, {"interface", change.interface},
                         {"state", stateName(change.state)}, {"deadline", change.deadline}};
    if (!change.reason.isEmpty())
        document.insert("reason", change.reason);
    if (change.state == TransactionView::RolledBack) {
        QJsonObject results;
        for (auto it = change.rollbackResults.cbegin(); it != change.rollbackResults.cend(); ++it)
            results.insert(it.key(), rollbackResultName(it.value()));
        document.insert("rollback", results);
    }
    return document;
}

} // namespace Tarvik
