#pragma once

#include "support/svc_sandbox.h"

#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

// Helpers around the framework's test service, korb_test_service.
namespace SvcTest {

QString testServiceProgram();
// An instance name no other run uses; encodes to itself.
QString uniqueName(const QString &stem);
// The control socket path of an instance, built here independently.
QString socketPathFor(const QString &encodedName);
QString loginName();
// The lines the test service has recorded so far.
QStringList readLog(const QString &path);
// The pid from the test service's "start pid=N ..." line, 0 when none.
qint64 startedPid(const QString &logPath);
// Runs the test service outside any sandbox (for commands that read no
// registry); the exit code is seen as the program returned it (-1, -4).
SvcRun runProgram(const QStringList &arguments,
                  const QProcessEnvironment &environment = QProcessEnvironment::systemEnvironment());
// Kills a process that a test started detached, if it still runs.
void killPid(qint64 pid);

} // namespace SvcTest

// The test service running as the service process of one instance, with
// its control channel open. Killed and cleaned up on destruction.
class SvcServiceProcess
{
    Q_DISABLE_COPY(SvcServiceProcess)

public:
    explicit SvcServiceProcess(const QString &stem, int flags = 1);
    ~SvcServiceProcess();

    // Starts it and waits for its socket; false when it did not come up.
    bool start(const QStringList &extraArguments = QStringList());
    QString name() const { return m_name; }
    QString socketPath() const;
    QString logPath() const;
    QStringList log() const;
    QProcess &process() { return m_process; }

private:
    QString m_name;
    int m_flags;
    QTemporaryDir m_dir;
    QProcess m_process;
};
