#include "app/stopsignals.h"

#include <QSocketNotifier>

#include <csignal>
#include <sys/signalfd.h>
#include <unistd.h>

namespace {

sigset_t stoppingSignals()
{
    sigset_t stopping;
    sigemptyset(&stopping);
    sigaddset(&stopping, SIGTERM);
    sigaddset(&stopping, SIGINT);
    return stopping;
}

} // namespace

void StopSignals::block()
{
    const sigset_t stopping = stoppingSignals();
    pthread_sigmask(SIG_BLOCK, &stopping, nullptr);
}

StopSignals::StopSignals(QObject* parent)
    : QObject(parent)
{
    block();
    const sigset_t stopping = stoppingSignals();
    // A signal that came while blocked is pending and is read from here like any later one.
    m_fd = signalfd(-1, &stopping, SFD_NONBLOCK | SFD_CLOEXEC);
    if (m_fd >= 0) {
        m_notifier = new QSocketNotifier(m_fd, QSocketNotifier::Read, this);
        connect(m_notifier, &QSocketNotifier::activated, this, &StopSignals::onReadable);
    }
}

StopSignals::~StopSignals()
{
    if (m_fd >= 0)
        close(m_fd);
}

void StopSignals::onReadable()
{
    signalfd_siginfo info{};
    while (read(m_fd, &info, sizeof(info)) == sizeof(info))
        emit received(int(info.ssi_signo));
}
