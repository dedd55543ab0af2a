#pragma once

#include <QProcessEnvironment>
#include <QStringList>
#include <QTemporaryDir>

// The outcome of one run of a program; the exit code as the program returned
// it (-1 and -4, not 255 and 252), and -1000 unless it ended normally in time.
struct SvcRun
{
    int exitCode = -1000;
    QByteArray out;
    QByteArray err;
};

// Runs `program` to its end, killing it when `timeoutMs` runs out.
SvcRun svcRun(const QString &program, const QStringList &arguments,
              const QProcessEnvironment &environment = QProcessEnvironment::systemEnvironment(),
              int timeoutMs = 30000);
// The arguments of unshare that run `program` in a private mount namespace
// once the shell lines `script` have set up its mounts.
QStringList privateMounts(const QString &script, const QString &program, const QStringList &arguments);

// Runs programs in a private mount namespace over files of this sandbox: /etc is an overlay writing to
// "upper", /usr/lib/systemd/system is "unit", /proc/1/comm says "systemd" or "init", and /usr/bin/systemctl
// appends its arguments to "calls" and answers "is-*" questions from the file of that name ("unknown" without
// one). The machine's own are never touched.
class SvcSandbox
{
    Q_DISABLE_COPY(SvcSandbox)

public:
    explicit SvcSandbox(bool systemd = false);

    // Empty when namespaces and these mounts work here, else why not.
    static QString unavailableReason();
    QString path(const QString &name) const { return m_dir.filePath(name); }
    void write(const QString &name, const QByteArray &bytes) const;
    QStringList lines(const QString &name) const;
    // One line per registered instance: "NAME key=value ..." in key order.
    QStringList registryLines() const;

    // `setup` is shell text run inside the namespace after the mounts.
    SvcRun run(const QString &program, const QStringList &arguments,
               const QProcessEnvironment &environment = QProcessEnvironment::systemEnvironment(),
               const QString &setup = QString()) const;

private:
    QTemporaryDir m_dir;
};

// The framework's test service, korb_test_service, records each operation
// the framework calls as one line of the file in KORB_TEST_SERVICE_LOG.
namespace SvcTest {

QString program();
// The log's lines, sorted (a detached instance records beside its starter),
// the pid left out of the "start" line.
QStringList readLog(const QString &path);
// A management command's environment: not the service process, recording
// to `logPath`, plus "NAME=VALUE" items.
QProcessEnvironment environment(const QString &logPath, const QStringList &extra = {});

// Kills a service that a test started detached (its pid from its log) and
// removes its socket file, however the test ends.
struct DetachedGuard
{
    QString log;
    QString socket;
    ~DetachedGuard();
};

} // namespace SvcTest
