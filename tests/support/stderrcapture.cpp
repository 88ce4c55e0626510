#include "stderrcapture.h"

#include <QFile>

#include <cstdio>
#include <unistd.h>

StderrCapture::StderrCapture()
{
    if (!m_file.open())
        return;
    std::fflush(stderr);
    m_savedStderr = ::dup(STDERR_FILENO);
    ::dup2(m_file.handle(), STDERR_FILENO);
}

StderrCapture::~StderrCapture()
{
    finish();
}

QByteArray StderrCapture::text() const
{
    QFile file(m_file.fileName());
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QByteArray StderrCapture::finish()
{
    if (m_savedStderr < 0)
        return {};
    std::fflush(stderr);
    ::dup2(m_savedStderr, STDERR_FILENO);
    ::close(m_savedStderr);
    m_savedStderr = -1;
    m_file.seek(0);
    return m_file.readAll();
}
