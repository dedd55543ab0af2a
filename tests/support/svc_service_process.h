#pragma once

#include "support/svc_sandbox.h"

#include <QLocalSocket>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

// Helpers around the framework's test service, korb_test_service, which
// records each operation the framework calls as one line of a log file.
namespace SvcTest {

QString testServiceProgram();
// An instance name no other run uses; encodes to itself.
QString uniqueName(const QString &stem);
// The control socket path of an instance, built here independently.
QString socketPathFor(const QString &encodedName);
QStringList readLog(const QString &path);
// The pid from the test service's "start pid=N ..." line, 0 when none.
qint64 startedPid(const QString &logPath);
// The environment of a management command: not the service process, and
// recording to `logPath` when one is given.
QProcessEnvironment managementEnvironment(const QString &logPath = QString());
// Runs the test service outside any sandbox (for commands that read no registry).
SvcRun runProgram(const QStringList &arguments,
                  const QProcessEnvironment &environment = managementEnvironment());

// A client of the control channel on Qt's own local socket, independent of
// the framework's client.
struct ControlClient
{
    bool connectTo(const QString &path);
    // Sends raw bytes and collects answers until `expected` bytes arrived.
    QByteArray exchange(const QByteArray &bytes, int expected);
    QLocalSocket socket;
};

// Kills a service that a test started detached and removes its socket file,
// however the test ends.
struct DetachedGuard
{
    QString log;
    QString socket;
    ~DetachedGuard();
};

} // namespace SvcTest

// The test service running as the service process of one instance, with its
// control channel open. Killed and cleaned up on destruction.
class SvcServiceProcess
{
    Q_DISABLE_COPY(SvcServiceProcess)

public:
    explicit SvcServiceProcess(const QString &stem, int flags = 1);
    ~SvcServiceProcess();

    // Starts it and waits for its socket; false when it did not come up.
    bool start();
    QString name() const { return m_name; }
    QString socketPath() const { return SvcTest::socketPathFor(m_name); }
    QString logPath() const { return m_dir.path() + QStringLiteral("/service.log"); }
    QStringList log() const { return SvcTest::readLog(logPath()); }
    QProcess &process() { return m_process; }

private:
    QString m_name;
    int m_flags;
    QTemporaryDir m_dir;
    QProcess m_process;
};
