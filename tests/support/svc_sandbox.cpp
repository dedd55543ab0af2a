#include "support/svc_sandbox.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QProcess>
#include <QRegularExpression>
#include <QSettings>
#include <QThread>

#include <signal.h>

namespace {

QStringList fileLines(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

} // namespace

SvcRun svcRun(const QString &program, const QStringList &arguments, const QProcessEnvironment &environment,
              int timeoutMs)
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(program, arguments);
    SvcRun run;
    if (process.waitForFinished(timeoutMs) && process.exitStatus() == QProcess::NormalExit)
        run.exitCode = qint8(process.exitCode());
    process.kill();
    process.waitForFinished(1000);
    run.out = process.readAllStandardOutput();
    run.err = process.readAllStandardError();
    return run;
}

QStringList privateMounts(const QString &script, const QString &program, const QStringList &arguments)
{
    const QString shell = "set -e\n" + script + "exec \"$@\"\n";
    return QStringList{"--mount", "--propagation", "private", "/bin/sh", "-c", shell, "sh", program} +
           arguments;
}

SvcSandbox::SvcSandbox(bool systemd)
{
    for (const char *sub : {"upper", "work", "unit"})
        QDir(m_dir.path()).mkpath(QString::fromLatin1(sub));
    write(QStringLiteral("comm"), systemd ? "systemd\n" : "init\n");
    write(QStringLiteral("systemctl"),
          QStringLiteral("#!/bin/sh\necho \"$*\" >> %1/calls\n"
                         "case $1 in is-*) cat %1/$1 2>/dev/null || echo unknown;; esac\n")
              .arg(m_dir.path())
              .toUtf8());
    QFile::setPermissions(path(QStringLiteral("systemctl")), QFile::ReadOwner | QFile::ExeOwner);
}

QString SvcSandbox::unavailableReason()
{
    static const QString reason = [] {
        const SvcRun run =
            SvcSandbox().run(QStringLiteral("/bin/sh"), {"-c", "echo probe > /etc/korbsvc-probe"});
        if (run.exitCode != 0 || QFile::exists(QStringLiteral("/etc/korbsvc-probe")))
            return QStringLiteral("no private mount namespace with these mounts here: ") + run.err.trimmed();
        return QString();
    }();
    return reason;
}

void SvcSandbox::write(const QString &name, const QByteArray &bytes) const
{
    QFile file(path(name));
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(bytes);
}

QStringList SvcSandbox::lines(const QString &name) const
{
    return fileLines(path(name));
}

QStringList SvcSandbox::registryLines() const
{
    QSettings settings(path(QStringLiteral("upper/KorbService.conf")), QSettings::IniFormat);
    settings.beginGroup(QStringLiteral("services"));
    QStringList result;
    for (const QString &name : settings.childGroups()) {
        settings.beginGroup(name);
        QString line = name;
        for (const QString &key : settings.childKeys())
            line += QLatin1Char(' ') + key + QLatin1Char('=') + settings.value(key).toString();
        settings.endGroup();
        result << line;
    }
    return result;
}

SvcRun SvcSandbox::run(const QString &program, const QStringList &arguments,
                       const QProcessEnvironment &environment, const QString &setup) const
{
    const QString script =
        QStringLiteral("mount -t overlay korbsvc -o lowerdir=/etc,upperdir=%1/upper,workdir=%1/work /etc\n"
                       "mount --bind %1/unit /usr/lib/systemd/system\n"
                       "mount --bind %1/comm /proc/1/comm\n"
                       "mount --bind %1/systemctl /usr/bin/systemctl\n"
                       "%2\n")
            .arg(m_dir.path(), setup);
    return svcRun(QStringLiteral("unshare"), privateMounts(script, program, arguments), environment);
}

namespace SvcTest {

QString program()
{
    return QStringLiteral(KORB_TEST_PROGRAMS_DIR "/korb_test_service");
}

QStringList readLog(const QString &path)
{
    QStringList lines =
        fileLines(path).replaceInStrings(QRegularExpression(QStringLiteral("pid=\\d+ ")), QString());
    lines.sort();
    return lines;
}

QProcessEnvironment environment(const QString &logPath, const QStringList &extra)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(QStringLiteral("KORBSERVICE_RUN"));
    environment.insert(QStringLiteral("KORB_TEST_SERVICE_LOG"), logPath);
    for (const QString &item : extra)
        environment.insert(item.section(QLatin1Char('='), 0, 0), item.section(QLatin1Char('='), 1));
    return environment;
}

DetachedGuard::~DetachedGuard()
{
    static const QRegularExpression started(QStringLiteral("^start pid=(\\d+) "));
    for (const QString &line : fileLines(log)) {
        const pid_t pid = pid_t(started.match(line).captured(1).toInt());
        const QDeadlineTimer deadline(3000);
        while (pid > 0 && ::kill(pid, SIGKILL) == 0 && !deadline.hasExpired())
            QThread::msleep(10);
    }
    QFile::remove(socket);
}

} // namespace SvcTest
