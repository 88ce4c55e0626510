#include "childprocess.h"

#include <QProcess>

#include <csignal>
#include <unistd.h>

namespace {

class GroupLeaderProcess : public QProcess
{
protected:
    void setupChildProcess() override
    {
        ::setpgid(0, 0);
    }
};

} // namespace

ChildResult runChild(const QString& program, const QStringList& arguments,
                     const QProcessEnvironment& environment, int timeoutMs)
{
    ChildResult result;
    GroupLeaderProcess process;
    process.setProcessEnvironment(environment);
    process.start(program, arguments);
    if (!process.waitForStarted(timeoutMs))
        return result;

    const qint64 group = process.processId();
    result.finished = process.waitForFinished(timeoutMs);
    if (!result.finished) {
        ::kill(-pid_t(group), SIGKILL);
        process.waitForFinished(5000);
    }
    result.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    result.standardOutput = process.readAllStandardOutput();
    result.standardError = process.readAllStandardError();
    return result;
}

QString probePath(const char* name)
{
    return qEnvironmentVariable((QByteArray("TARVIK_PROBE_") + name).constData());
}
