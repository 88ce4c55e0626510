#pragma once

#include "support/stderrcapture.h"

#include <QString>
#include <QStringList>

namespace TarvikTest {

// The log lines mirrored to this process's standard error (Log::open with
// the mirror on) while the capture lives, read as messages: the syslog ident
// and the time stamp are cut off, so a message reads like "[IPC] Connected.".
class LogCapture
{
public:
    QStringList messages();
    // Index of the first message equal to `message` at or after `from`,
    // waiting for it (running the event loop) up to timeoutMs; -1 if none.
    int waitFor(const QString& message, int from = 0, int timeoutMs = 10000);
    int indexOf(const QString& message, int from = 0);
    // Everything captured, for failure messages.
    QByteArray text();

private:
    StderrCapture m_stderr;
};

} // namespace TarvikTest
