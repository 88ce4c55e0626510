#pragma once

#include <QByteArray>
#include <QStringList>
#include <QTemporaryFile>

namespace TarvikTest {

// Points file descriptor 2 at a temporary file while it lives, so that a test
// reads what the log mirrored to standard error (LOG_PERROR); restores it at the end.
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();

    // Everything written so far.
    QByteArray text() const;
    // The lines as messages: ident and stamp cut off, so that one reads like
    // "[IPC] Connected."; a line of another shape stays whole.
    QStringList messages() const;

private:
    QTemporaryFile m_file;
    int m_savedStderr = -1;
};

} // namespace TarvikTest
