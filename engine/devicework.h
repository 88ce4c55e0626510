#pragma once

#include <QDeadlineTimer>
#include <QHash>
#include <QList>
#include <QObject>
#include <QString>

#include <functional>

namespace Tarvik {

// Work on one device runs in the order it was asked for, one piece at a time, so that an answer reflects every
// command on the same device before it; different devices never wait for each other.
class DeviceWork : public QObject
{
    Q_OBJECT

public:
    using Finished = std::function<void()>;
    // A job calls its Finished once, at once or when its last daemon call has come back.
    using Job = std::function<void(const Finished&)>;

    // Work that a newer request of the same sort makes pointless while it still waits: only the newest record
    // needs provisioning, and one reading answers every request made while it waited. Provisioning also waits
    // for a burst of set commands to pass before it starts, so that the burst costs one re-activation.
    enum Sort { Once, Reload, Provisioning, ConfigReading };

    explicit DeviceWork(QObject* parent);

    // Queues the job behind the device's earlier work; a job of a sort other than Once takes the place of a
    // job of its sort that waits at the end of the queue.
    void add(const QString& device, Sort sort, Job job);

private:
    struct Entry {
        Sort sort;
        Job job;
        // Not started before, nor later than the burst's limit.
        QDeadlineTimer quiet;
        QDeadlineTimer limit;
    };
    struct Queue {
        QList<Entry> waiting;
        bool running = false;
        bool timerArmed = false;
    };

    void runNext(const QString& device);

    QHash<QString, Queue> m_queues;
};

} // namespace Tarvik
