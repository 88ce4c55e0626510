#pragma once

#include <QDBusPendingCall>
#include <QDBusPendingCallWatcher>
#include <QObject>

#include <utility>

namespace Tarvik {

// Hands a D-Bus call to `done` once it has finished, from the event loop: nothing waits for a daemon.
// `done` is dropped with `context`.
template <typename Done>
void whenFinished(const QDBusPendingCall& call, QObject* context, Done done)
{
    auto* watcher = new QDBusPendingCallWatcher(call, context);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, context,
                     [watcher, done = std::move(done)]() mutable {
                         watcher->deleteLater();
                         done(static_cast<const QDBusPendingCall&>(*watcher));
                     });
}

} // namespace Tarvik
