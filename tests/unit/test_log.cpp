// The Log module as seen from outside: the bytes that reach standard error
// (LOG_PERROR). Runs that need a clock of their own start this program again
// as a child that logs a fixed sequence (see main). The syslog priorities are
// checked on the real binary's records.
#include "log/log.h"
#include "support/logcapture.h"

#include <QProcess>
#include <QtTest>


using TarvikTest::LogCapture;

namespace {

const char* const ChildVariable = "TARVIK_TEST_LOG_CHILD";

// What the child logs: at two levels.
int runChild()
{
    Log::open("test_log", true, false);
    Log::setLevel(Log::Warning);
    Log::info("dropped");
    Log::warning("w");
    Log::error("e");
    Log::setLevel(Log::Debug);
    Log::debug("d");
    Log::print(Log::Level(7), "seven");
    return 0;
}

// Runs this program as the child, behind the given command prefix (empty: none).
QByteArray runSelf(QStringList prefix, QProcessEnvironment environment, bool* ok)
{
    environment.insert(ChildVariable, "1");
    prefix << QCoreApplication::applicationFilePath();
    QProcess child;
    child.setProcessEnvironment(environment);
    child.start(prefix.takeFirst(), prefix);
    // A child that outlives the deadline is killed with the QProcess.
    *ok = child.waitForFinished(60000) && child.exitStatus() == QProcess::NormalExit && child.exitCode() == 0;
    return child.readAllStandardError();
}

QString libfaketime()
{
    for (const char* arch : {"x86_64-linux-gnu/", "aarch64-linux-gnu/", ""}) {
        const QString path = QString("/usr/lib/%1faketime/libfaketime.so.1").arg(arch);
        if (QFileInfo::exists(path))
            return path;
    }
    return QString();
}

} // namespace

class TestLog : public QObject
{
    Q_OBJECT

private slots:
    // Text from outside can neither forge a line nor flood the log.
    void maskColourEscapingAndCut()
    {
        LogCapture capture;
        Log::open("test_log", true, true);
        Log::setLevel(Log::Error);
        Log::warning("w0");
        Log::error("e%d-%s", 0, "arg");
        Log::setLevel(Log::Info);
        Log::debug("d");
        Log::print(Log::Level(7), "7");
        Log::warning("W");
        Log::info("%s", std::string(5000, 'x').c_str());
        Log::setLevel(Log::Debug);
        Log::debug("D");
        Log::print(Log::Level(7), "S");
        Log::print(Log::Info, std::string("eth0\n[Engine] FAKE\x1b[31m\x7f\t%d"));
        QCOMPARE(capture.messages(), QStringList({"\033[31me0-arg\033[39m", "\033[33mW\033[39m",
            "\033[39m" + QString(2048, 'x') + "...\033[39m", "\033[35mD\033[39m", "S\033[39m",
            "\033[39meth0\\n[Engine] FAKE\\x1b[31m\\x7f\\t%d\033[39m"}));
    }

    void stampsOnAFakedClock_data()
    {
        QTest::addColumn<QString>("step");
        QTest::addColumn<QByteArray>("expected");
        QTest::newRow("12.3456 s rounds up") << "12.3456"
            << QByteArray("[   12.346] w\n[   24.691] e\n[   37.037] d\n[   49.382] seven\n");
        QTest::newRow("wider than the field") << "1000000"
            << QByteArray("[1000000.000] w\n[2000000.000] e\n[3000000.000] d\n[4000000.000] seven\n");
    }

    // The child runs on a faked clock, which each reading advances by the step (the log reads it at
    // open and once per message it writes).
    void stampsOnAFakedClock()
    {
        QFETCH(QString, step);
        QFETCH(QByteArray, expected);
        QVERIFY2(!libfaketime().isEmpty(), "libfaketime is not installed (Debian package faketime)");
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        // libfaketime is preloaded ahead of the sanitizer runtime in a sanitizer build. It is preloaded
        // into the child alone, whose /dev/shm lives and goes with its namespace: the semaphore it keeps
        // there would otherwise stay behind whenever a process using it is killed.
        environment.insert("ASAN_OPTIONS", environment.value("ASAN_OPTIONS") + ":verify_asan_link_order=0");
        environment.insert("TARVIK_TEST_PRELOAD", libfaketime());
        environment.insert("FAKETIME", "@2026-01-01 00:00:00 i" + step);
        bool ok = false;
        const QByteArray standardError = runSelf({"unshare", "--mount", "--propagation", "private", "/bin/sh", "-c",
            "mount -t tmpfs none /dev && mkdir /dev/shm && LD_PRELOAD=$TARVIK_TEST_PRELOAD exec \"$@\"", "sh"},
            environment, &ok);
        if (!standardError.contains("test_log: ["))
            QSKIP(qPrintable("no private mount namespace here: " + QString::fromLocal8Bit(standardError)));
        QVERIFY2(ok, standardError);
        QCOMPARE(standardError, expected.replace("[", "test_log: ["));
    }
};

int main(int argc, char* argv[])
{
    if (qEnvironmentVariableIsSet(ChildVariable))
        return runChild();
    QCoreApplication app(argc, argv);
    TestLog test;
    return QTest::qExec(&test, argc, argv);
}

#include "test_log.moc"
