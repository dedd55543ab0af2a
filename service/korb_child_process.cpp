#include "service/korb_child_process.h"

#include <QList>
#include <QProcess>
#include <QProcessEnvironment>

#include <memory>

KorbChildProcess::Result KorbChildProcess::run(const QString &program, const QStringList &arguments,
                                               int startWaitMs, int finishWaitMs, Overrun overrun)
{
    auto child = std::make_unique<QProcess>();
    Result result;
    child->start(program, arguments);
    result.started = child->waitForStarted(startWaitMs);
    if (!result.started)
        return result;
    result.finished = child->waitForFinished(finishWaitMs);
    if (!result.finished) {
        if (overrun == LetRun) {
            // Destroying the QProcess would kill the child, so the object is
            // kept until this short-lived management process ends.
            static QList<QProcess *> running;
            running.append(child.release());
            return result;
        }
        child->kill();
        child->waitForFinished(KillWaitMs);
    }
    result.normalExit = child->exitStatus() == QProcess::NormalExit;
    result.exitCode = child->exitCode();
    result.out = child->readAllStandardOutput();
    result.err = child->readAllStandardError();
    return result;
}

bool KorbChildProcess::startService(const QString &program, const QStringList &arguments)
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QString::fromLatin1(RunVariable), QStringLiteral("1"));
    process.setProcessEnvironment(environment);
    process.setProgram(program);
    process.setArguments(arguments);
    return process.startDetached();
}
