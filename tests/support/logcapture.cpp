#include "support/logcapture.h"

#include <QRegularExpression>

#include <cstdio>
#include <unistd.h>

namespace TarvikTest {

LogCapture::LogCapture()
{
    if (!m_file.open())
        return;
    std::fflush(stderr);
    m_savedStderr = ::dup(STDERR_FILENO);
    ::dup2(m_file.handle(), STDERR_FILENO);
}

LogCapture::~LogCapture()
{
    if (m_savedStderr < 0)
        return;
    std::fflush(stderr);
    ::dup2(m_savedStderr, STDERR_FILENO);
    ::close(m_savedStderr);
}

QByteArray LogCapture::text() const
{
    QFile file(m_file.fileName());
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QStringList LogCapture::messages() const
{
    static const QRegularExpression prefix(QStringLiteral("^[^\\[]*: \\[\\s*-?\\d+\\.\\d{3}\\] "));
    QStringList result;
    for (QString line : QString::fromLocal8Bit(text()).split('\n', Qt::SkipEmptyParts)) {
        // A line without the prefix continues a multi-line message (a logged document).
        if (line.contains(prefix) || result.isEmpty())
            result << line.remove(prefix);
        else
            result.last() += '\n' + line;
    }
    return result;
}

} // namespace TarvikTest
