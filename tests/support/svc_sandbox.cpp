#include "support/svc_sandbox.h"

#include <QDir>
#include <QFile>
#include <QProcess>

namespace {

QString mountScript(const QString &root, const QString &setup)
{
    return QStringLiteral("set -e\n"
                          "mount -t overlay korbsvc -o lowerdir=/etc,upperdir=%1/upper,workdir=%1/work /etc\n"
                          "mount --bind %1/unit /usr/lib/systemd/system\n"
                          "%2\n"
                          "exec \"$@\"\n")
        .arg(root, setup);
}

} // namespace

SvcSandbox::SvcSandbox()
{
    QDir root(m_dir.path());
    root.mkpath(QStringLiteral("upper"));
    root.mkpath(QStringLiteral("work"));
    root.mkpath(QStringLiteral("unit"));
}

SvcSandbox::~SvcSandbox() = default;

QString SvcSandbox::unavailableReason()
{
    static const QString reason = [] {
        SvcSandbox probe;
        const SvcRun run =
            probe.run(QStringLiteral("/bin/sh"),
                      {QStringLiteral("-c"), QStringLiteral("echo probe > /etc/korbsvc-probe")});
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

QString SvcSandbox::etcDir() const
{
    return m_dir.path() + QStringLiteral("/upper");
}

QString SvcSandbox::unitDir() const
{
    return m_dir.path() + QStringLiteral("/unit");
}

QString SvcSandbox::registryPath() const
{
    return etcDir() + QStringLiteral("/KorbService.conf");
}

void SvcSandbox::writeRegistry(const QByteArray &ini)
{
    QFile file(registryPath());
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(ini);
}

QByteArray SvcSandbox::readRegistry() const
{
    QFile file(registryPath());
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

SvcRun SvcSandbox::run(const QString &program, const QStringList &arguments,
                       const QProcessEnvironment &environment, const QString &setup, int timeoutMs) const
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral("unshare"),
                  QStringList{QStringLiteral("--mount"), QStringLiteral("--propagation"),
                              QStringLiteral("private"), QStringLiteral("/bin/sh"), QStringLiteral("-c"),
                              mountScript(m_dir.path(), setup), QStringLiteral("sh"), program} +
                      arguments);
    SvcRun result;
    if (!process.waitForStarted(timeoutMs))
        return result;
    result.finished = process.waitForFinished(timeoutMs) && process.exitStatus() == QProcess::NormalExit;
    if (!result.finished) {
        process.kill();
        process.waitForFinished(1000);
    }
    result.exitCode = qint8(process.exitCode()); // -1 and -4 as the program returned them
    result.out = process.readAllStandardOutput();
    result.err = process.readAllStandardError();
    return result;
}
