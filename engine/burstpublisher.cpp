#include "engine/burstpublisher.h"

#include <QTimer>

namespace Tarvik {

namespace {
constexpr int quietMs = 100;
constexpr int longestDelayMs = 1000;
} // namespace

BurstPublisher::BurstPublisher(QObject* parent)
    : QObject(parent)
{
}

void BurstPublisher::publishLater(const QString& device, int document, std::function<void()> publish)
{
    const Key key(device, document);
    Pending& pending = m_pending[key];
    pending.publish = std::move(publish);
    if (!pending.quiet) {
        pending.quiet = new QTimer(this);
        pending.quiet->setSingleShot(true);
        pending.deadline = QDeadlineTimer(longestDelayMs);
        connect(pending.quiet, &QTimer::timeout, this, [this, key] { publishNow(key); });
    }
    pending.quiet->start(int(qMin<qint64>(pending.deadline.remainingTime(), quietMs)));
}

void BurstPublisher::flush(const QString& device)
{
    const QList<Key> keys = m_pending.keys();
    for (const Key& key : keys) {
        if (key.first == device)
            publishNow(key);
    }
}

void BurstPublisher::publishNow(const Key& key)
{
    const Pending pending = m_pending.take(key);
    pending.quiet->deleteLater();
    pending.publish();
}

} // namespace Tarvik
