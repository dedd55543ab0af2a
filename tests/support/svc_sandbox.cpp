#include "support/svc_sandbox.h"

#include <QDir>
#include <QFile>
#include <QProcess>

SvcRun svcRun(const QString &program, const QStringList &arguments, const QProcessEnvironment &environment,
              int timeoutMs)
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(program, arguments);
    SvcRun run;
    if (!process.waitForStarted(timeoutMs))
        return run;
    run.finished = process.waitForFinished(timeoutMs) && process.exitStatus() == QProcess::NormalExit;
    if (run.finished) {
        run.exitCode = qint8(process.exitCode());
    } else {
        process.kill();
        process.waitForFinished(1000);
    }
    run.out = process.readAllStandardOutput();
    run.err = process.readAllStandardError();
    return run;
}

SvcSandbox::SvcSandbox()
{
    for (const char *sub : {"upper", "work", "unit"})
        QDir(m_dir.path()).mkpath(QString::fromLatin1(sub));
}

QString SvcSandbox::unavailableReason()
{
    static const QString reason = [] {
        SvcSandbox probe;
        const SvcRun run = probe.run(QStringLiteral("/bin/sh"), {"-c", "echo probe > /etc/korbsvc-probe"});
        if (!run.finished || run.exitCode != 0)
            return QStringLiteral("private mount namespace with an /etc overlay not permitted here: %1")
                .arg(QString::fromLocal8Bit(run.err.trimmed()));
        if (!QFile::exists(probe.etcDir() + QStringLiteral("/korbsvc-probe")))
            return QStringLiteral("the /etc overlay did not take the write");
        if (QFile::exists(QStringLiteral("/etc/korbsvc-probe")))
            return QStringLiteral("the /etc overlay leaked to the machine");
        return QString();
    }();
    return reason;
}

void SvcSandbox::writeRegistry(const QByteArray &ini)
{
    QFile file(registryPath());
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(ini);
}

SvcRun SvcSandbox::run(const QString &program, const QStringList &arguments,
                       const QProcessEnvironment &environment, const QString &setup) const
{
    const QString script =
        QStringLiteral("set -e\n"
                       "mount -t overlay korbsvc -o lowerdir=/etc,upperdir=%1/upper,workdir=%1/work /etc\n"
                       "mount --bind %1/unit /usr/lib/systemd/system\n"
                       "%2\n"
                       "exec \"$@\"\n")
            .arg(m_dir.path(), setup);
    return svcRun(QStringLiteral("unshare"),
                  QStringList{"--mount", "--propagation", "private", "/bin/sh", "-c", script, "sh", program} +
                      arguments,
                  environment);
}
