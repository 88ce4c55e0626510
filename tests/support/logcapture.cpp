#include "support/logcapture.h"

#include <QRegularExpression>
#include <QtTest>

namespace TarvikTest {

QByteArray LogCapture::text()
{
    return m_stderr.text();
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
