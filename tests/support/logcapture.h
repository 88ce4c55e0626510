#pragma once

#include <QString>
#include <QStringList>
#include <QTemporaryFile>

namespace TarvikTest {

// Captures this process's standard error, where the log mirrors its lines
// (Log::open with the mirror on), in a file so that a writer never blocks.
// The syslog ident and the time stamp are cut off: a message reads like
// "[IPC] Connected.". Standard error is given back by the destructor.
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();

    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    QStringList messages();
    // Index of the first message equal to `message` at or after `from`,
    // waiting for it (running the event loop) up to timeoutMs; -1 if none.
    int waitFor(const QString& message, int from = 0, int timeoutMs = 10000);
    int indexOf(const QString& message, int from = 0);
    // Everything captured, for failure messages.
    QByteArray text();

private:
    QTemporaryFile m_file;
    int m_savedStderr = -1;
};

} // namespace TarvikTest
