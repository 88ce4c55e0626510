// The Log module as seen from outside: a probe program logs what its command
// line asks for, and the tests read the bytes that reach standard error
// (LOG_PERROR) or, in a private mount namespace, the syslog socket.
#include "support/childprocess.h"

#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

QString libfaketime()
{
    for (const QString& dir : { QStringLiteral("/usr/lib/x86_64-linux-gnu/faketime"),
                                QStringLiteral("/usr/lib/aarch64-linux-gnu/faketime"),
                                QStringLiteral("/usr/lib/faketime") }) {
        const QString path = dir + QStringLiteral("/libfaketime.so.1");
        if (QFileInfo::exists(path))
            return path;
    }
    return QString();
}

struct Line {
    QByteArray stampField; // what stands between the brackets
    double stamp = 0;
    QByteArray message;    // everything after "] "
};

// Splits the probe's standard error into its log lines; fails the test on a
// line that does not carry the ident and a bracketed stamp.
QList<Line> logLines(const QByteArray& standardError)
{
    static const QRegularExpression shape(QStringLiteral("^logprobe: \\[([ \\-0-9.]+)\\] (.*)$"),
                                          QRegularExpression::DotMatchesEverythingOption);
    QList<Line> lines;
    QList<QByteArray> raw = standardError.split('\n');
    if (!raw.isEmpty() && raw.last().isEmpty())
        raw.removeLast();
    for (const QByteArray& text : raw) {
        const auto match = shape.match(QString::fromLatin1(text));
        if (!match.hasMatch()) {
            qWarning("unexpected line on stderr: %s", text.constData());
            return {};
        }
        Line line;
        line.stampField = match.captured(1).toLatin1();
        line.stamp = line.stampField.trimmed().toDouble();
        line.message = match.captured(2).toLatin1();
        lines.append(line);
    }
    return lines;
}

QList<QByteArray> messages(const QList<Line>& lines)
{
    QList<QByteArray> result;
    for (const Line& line : lines)
        result.append(line.message);
    return result;
}

ChildResult runProbe(const QStringList& steps)
{
    return runChild(probePath("logprobe"), steps);
}

} // namespace

class TestLog : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY2(QFileInfo(probePath("logprobe")).isExecutable(), "TARVIK_PROBE_logprobe is not set");
    }

    void maskDropsMessagesAboveTheLevel()
    {
        const ChildResult run = runProbe({ "open", "level=1", "info=i1", "debug=d1", "warning=w1", "error=e1",
                                           "vprint=7:seven1", "level=0", "warning=w0", "error=e0", "level=2",
                                           "info=i2", "debug=d2", "level=3", "debug=d3", "vprint=7:seven3" });
        QVERIFY(run.finished);
        QCOMPARE(run.exitCode, 0);
        const QList<QByteArray> expected { "w1", "e1", "e0", "i2", "d3", "seven3" };
        QCOMPARE(messages(logLines(run.standardError)), expected);
    }

    void stampCountsWallClockSecondsSinceOpen()
    {
        const ChildResult run = runProbe({ "open", "info=first", "after=1.5", "info=later" });
        QVERIFY(run.finished);
        const QList<Line> lines = logLines(run.standardError);
        QCOMPARE(lines.size(), 2);

        const QRegularExpression oneDigit(QStringLiteral("^    \\d\\.\\d{3}$"));
        for (const Line& line : lines)
            QVERIFY2(oneDigit.match(QString::fromLatin1(line.stampField)).hasMatch(), line.stampField);
        // Generous upper bounds: the machine may be loaded, but the clock must
        // start at open and follow the wall clock.
        QVERIFY2(lines[0].stamp >= 0 && lines[0].stamp < 3.0, lines[0].stampField);
        QVERIFY2(lines[1].stamp >= 1.5 && lines[1].stamp < 9.9, lines[1].stampField);
    }

    void stampRoundsToMillisecondsAndIsNeverCut_data()
    {
        QTest::addColumn<QString>("clock");
        QTest::addColumn<QByteArray>("expected");
        // Each reading of the faked clock advances it by the step; the log
        // reads it once at open and once per message.
        QTest::newRow("12.3456 s rounds up") << "@2026-01-01 00:00:00 i12.3456"
                                             << QByteArray("logprobe: [   12.346] a\nlogprobe: [   24.691] b\n");
        QTest::newRow("frozen clock") << "2026-01-01 00:00:00"
                                      << QByteArray("logprobe: [    0.000] a\nlogprobe: [    0.000] b\n");
        QTest::newRow("wider than the field") << "@2026-01-01 00:00:00 i1000000"
                                              << QByteArray("logprobe: [1000000.000] a\nlogprobe: [2000000.000] b\n");
    }

    void stampRoundsToMillisecondsAndIsNeverCut()
    {
        QFETCH(QString, clock);
        QFETCH(QByteArray, expected);
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        // libfaketime is preloaded ahead of the sanitizer runtime in a sanitizer build. It is preloaded
        // directly: the faketime wrapper leaves a semaphore in /dev/shm behind whenever it is killed.
        environment.insert("ASAN_OPTIONS", environment.value("ASAN_OPTIONS") + ":verify_asan_link_order=0");
        QVERIFY2(!libfaketime().isEmpty(), "libfaketime is not installed (Debian package faketime)");
        environment.insert("LD_PRELOAD", libfaketime());
        environment.insert("FAKETIME", clock);
        const ChildResult run = runChild(probePath("logprobe"), { "open", "info=a", "info=b" }, environment);
        QVERIFY2(run.finished && run.exitCode == 0, run.standardError);
        QCOMPARE(run.standardError, expected);
    }

    void colourWrapsTheMessageButNotTheStamp()
    {
        const ChildResult run = runProbe({ "open-color", "level=3", "error=E", "warning=W", "info=I", "debug=D",
                                           "vprint=7:S", "text=0:T" });
        QVERIFY(run.finished);
        const QList<QByteArray> expected { "\033[31mE\033[39m", "\033[33mW\033[39m", "\033[39mI\033[39m",
                                           "\033[35mD\033[39m", "S\033[39m", "\033[31mT\033[39m" };
        QCOMPARE(messages(logLines(run.standardError)), expected);
    }

    void onlyFormatsConvertArguments()
    {
        const ChildResult run = runProbe({ "open", "vprint=2:v-%d-%s", "text=2:t-%d-%s", "info=i-%d",
                                           "open-color", "text=2:c-%d" });
        QVERIFY(run.finished);
        const QList<QByteArray> expected { "v-42-arg", "t-%d-%s", "i-42", "\033[39mc-%d\033[39m" };
        QCOMPARE(messages(logLines(run.standardError)), expected);
    }

    void textFromOutsideCannotForgeLinesOrFloodTheLog()
    {
        const ChildResult run = runProbe({ "open", "text=2:eth0\n[Engine] FAKE\x1b[31m\x7f\t",
                                           "text=2:" + QString(5000, 'x') });
        QVERIFY(run.finished);
        const QList<QByteArray> expected { "eth0\\n[Engine] FAKE\\x1b[31m\\x7f\\t", QByteArray(2048, 'x') + "..." };
        QCOMPARE(messages(logLines(run.standardError)), expected);
    }

    // The syslog datagrams themselves: facility local1 after open, the
    // level's priority, the ident without a pid, and before open the C
    // library's defaults with a stamp counted from 1970.
    void syslogReceivesLocal1WithTheLevelsPriority()
    {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        const QByteArray socketPath = QFile::encodeName(dir.filePath("log"));
        const int receiver = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        QVERIFY(receiver >= 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        qstrncpy(address.sun_path, socketPath.constData(), sizeof(address.sun_path));
        QVERIFY(::bind(receiver, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0);

        const QString script = QStringLiteral(
            "mount -t tmpfs none /dev && touch /dev/log && mount --bind \"$0\" /dev/log && exec \"$@\"");
        const double before = QDateTime::currentMSecsSinceEpoch() / 1000.0;
        const ChildResult run = runChild("unshare", { "--mount", "--propagation", "private", "/bin/sh", "-c", script,
                                                      QString::fromLocal8Bit(socketPath), probePath("logprobe"),
                                                      "info=before", "open", "level=1", "info=dropped", "warning=w",
                                                      "error=e", "level=3", "debug=d", "vprint=7:seven" });
        if (!run.standardError.contains("logprobe: [")) {
            ::close(receiver);
            QSKIP(qPrintable("no private mount namespace here: " + QString::fromLocal8Bit(run.standardError)));
        }
        QVERIFY2(run.finished && run.exitCode == 0, run.standardError);

        QList<QByteArray> datagrams;
        char buffer[2048];
        ssize_t size;
        while ((size = ::recv(receiver, buffer, sizeof(buffer), MSG_DONTWAIT)) > 0)
            datagrams.append(QByteArray(buffer, int(size)));
        ::close(receiver);

        const QRegularExpression shape(QStringLiteral("^<(\\d+)>\\w{3} [ \\d]\\d \\d\\d:\\d\\d:\\d\\d logprobe: "
                                                      "\\[([ \\d.]+)\\] (.*)$"));
        QList<QByteArray> seen;
        for (const QByteArray& datagram : datagrams) {
            const auto match = shape.match(QString::fromLatin1(datagram));
            QVERIFY2(match.hasMatch(), datagram);
            seen.append(match.captured(1).toLatin1() + " " + match.captured(3).toLatin1());
            if (match.captured(3) == "before") {
                const double stamp = match.captured(2).toDouble();
                QVERIFY2(stamp > before - 60 && stamp < before + 60, datagram);
            }
        }
        const QList<QByteArray> expected { "14 before", "140 w", "139 e", "143 d", "143 seven" };
        QCOMPARE(seen, expected);
    }
};

QTEST_GUILESS_MAIN(TestLog)
#include "test_log.moc"
