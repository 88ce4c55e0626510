#pragma once

#include <QObject>

class QSocketNotifier;

// SIGTERM and SIGINT, taken from the event loop instead of ending the process
// where it stands: a service manager stops tarvik with SIGTERM, and the last
// usage reading and a clean broker goodbye must still happen.
class StopSignals : public QObject
{
    Q_OBJECT

public:
    // Blocks the two signals in this thread and every thread started after it. Called first thing in
    // main: a stop that comes while the service is still starting then waits for the event loop.
    static void block();

    // Blocks the signals too: construct before anything else starts threads.
    explicit StopSignals(QObject* parent = nullptr);
    ~StopSignals() override;

signals:
    void received(int signal);

private:
    void onReadable();

    int m_fd = -1;
    QSocketNotifier* m_notifier = nullptr;
};
