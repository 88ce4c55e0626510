#include "support/logcapture.h"

#include <QRegularExpression>
#include <QtTest>

#include <unistd.h>

namespace TarvikTest {

LogCapture::LogCapture()
{
    if (!m_file.open())
        return;
    fflush(stderr);
    m_savedStderr = dup(STDERR_FILENO);
    dup2(m_file.handle(), STDERR_FILENO);
}

LogCapture::~LogCapture()
{
    if (m_savedStderr < 0)
        return;
    fflush(stderr);
    dup2(m_savedStderr, STDERR_FILENO);
    close(m_savedStderr);
}

QByteArray LogCapture::text()
{
    QFile file(m_file.fileName());
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QStringList LogCapture::messages()
{
    static const QRegularExpression prefix(QStringLiteral("^(?:[^\\[]*: )?\\[\\s*-?\\d+\\.\\d{3}\\] "));
    QStringList result;
    for (QString line : QString::fromLocal8Bit(text()).split('\n', Qt::SkipEmptyParts))
        result << line.remove(prefix);
    return result;
}

int LogCapture::indexOf(const QString& message, int from)
{
    return messages().indexOf(message, from);
}

int LogCapture::waitFor(const QString& message, int from, int timeoutMs)
{
    int index = -1;
    (void)QTest::qWaitFor([&] { return (index = indexOf(message, from)) >= 0; }, timeoutMs);
    return index;
}

} // namespace TarvikTest
