#include "engine/devicework.h"

#include <QPointer>
#include <QTimer>

#include <memory>

namespace Tarvik {

namespace {
// Where a job stands when its Finished is called: still inside the call that started it, or later.
enum class Progress { Starting, FinishedWhileStarting, Running, Finished };

// A set command's provisioning starts once no newer one came for this long, or this long after the first.
constexpr int quietMs = 100;
constexpr int burstLimitMs = 1000;

QDeadlineTimer quietPeriod(DeviceWork::Sort sort)
{
    return QDeadlineTimer(sort == DeviceWork::Provisioning ? quietMs : 0);
}

QDeadlineTimer burstLimit(DeviceWork::Sort sort)
{
    return QDeadlineTimer(sort == DeviceWork::Provisioning ? burstLimitMs : 0);
}
} // namespace

DeviceWork::DeviceWork(QObject* parent)
    : QObject(parent)
{
}

void DeviceWork::add(const QString& device, Sort sort, Job job)
{
    Queue& queue = m_queues[device];
    if (sort != Once && !queue.waiting.isEmpty() && queue.waiting.last().sort == sort) {
        Entry& waiting = queue.waiting.last();
        waiting.job = std::move(job);
        waiting.quiet = qMin(quietPeriod(sort), waiting.limit);
    } else {
        queue.waiting.append({sort, std::move(job), quietPeriod(sort), burstLimit(sort)});
    }
    runNext(device);
}

void DeviceWork::runNext(const QString& device)
{
    // Jobs that finish at once are run in this loop rather than recursively.
    for (;;) {
        const auto queue = m_queues.find(device);
        if (queue == m_queues.end() || queue->running)
            return;
        if (queue->waiting.isEmpty()) {
            m_queues.erase(queue);
            return;
        }
        const qint64 quiet = queue->waiting.first().quiet.remainingTime();
        if (quiet > 0) {
            if (!queue->timerArmed) {
                queue->timerArmed = true;
                QTimer::singleShot(int(quiet), Qt::PreciseTimer, this, [this, device] {
                    m_queues[device].timerArmed = false;
                    runNext(device);
                });
            }
            return;
        }
        const Entry entry = queue->waiting.takeFirst();
        queue->running = true;

        const auto progress = std::make_shared<Progress>(Progress::Starting);
        const QPointer<DeviceWork> self(this);
        entry.job([self, device, progress] {
            if (!self || *progress == Progress::FinishedWhileStarting || *progress == Progress::Finished)
                return;
            const bool starting = *progress == Progress::Starting;
            *progress = starting ? Progress::FinishedWhileStarting : Progress::Finished;
            self->m_queues[device].running = false;
            if (!starting)
                self->runNext(device);
        });
        if (*progress == Progress::Starting) {
            *progress = Progress::Running;
            return;
        }
    }
}

} // namespace Tarvik
