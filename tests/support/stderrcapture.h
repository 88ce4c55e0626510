#pragma once

#include <QByteArray>
#include <QTemporaryFile>

// Points file descriptor 2 at a temporary file while it is capturing, so that
// a test can read what the C library mirrored to standard error (LOG_PERROR).
class StderrCapture
{
public:
    StderrCapture();
    ~StderrCapture();

    // Everything written so far; capturing goes on.
    QByteArray text() const;

    // Restores standard error and returns everything written meanwhile.
    QByteArray finish();

private:
    QTemporaryFile m_file;
    int m_savedStderr = -1;
};
