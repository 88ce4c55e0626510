#include "app/stopsignals.h"

#include <QSocketNotifier>

#include <csignal>
#include <sys/signalfd.h>
#include <unistd.h>

StopSignals::StopSignals(QObject* parent)
    : QObject(parent)
{
    sigset_t stopping;
    sigemptyset(&stopping);
    sigaddset(&stopping, SIGTERM);
    sigaddset(&stopping, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopping, nullptr);
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
