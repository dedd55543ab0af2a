#include "service/korb_service_systemd.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>

#include <cstdio>

namespace KorbSystemd {

namespace {

bool detectSystemd()
{
    QFile comm(QStringLiteral("/proc/1/comm"));
    if (comm.open(QIODevice::ReadOnly)) {
        if (comm.readAll().trimmed() == "systemd")
            return true;
    }
    if (!QFileInfo(QStringLiteral("/run/systemd/system")).isDir())
        return false;
    QProcess tool;
    tool.start(QString::fromLatin1(SystemctlPath), {QStringLiteral("--version")});
    if (!tool.waitForStarted(VersionStartWaitMs))
        return false;
    if (!tool.waitForFinished(VersionFinishWaitMs)) {
        tool.kill();
        tool.waitForFinished(VersionKillWaitMs);
        return false;
    }
    return tool.exitStatus() == QProcess::NormalExit && tool.exitCode() == 0 &&
           tool.readAllStandardOutput().startsWith("systemd ");
}

} // namespace

bool isSystemd()
{
    static const bool systemd = detectSystemd();
    return systemd;
}

bool runSystemctl(const QStringList &arguments)
{
    const QByteArray joined = arguments.join(QLatin1Char(' ')).toLocal8Bit();
    QProcess tool;
    tool.start(QString::fromLatin1(SystemctlPath), arguments);
    if (!tool.waitForStarted(RunStartWaitMs)) {
        std::printf("Run: systemctl %s [ER]\n", joined.constData());
        std::fflush(stdout);
        return false;
    }
    tool.waitForFinished(RunFinishWaitMs);
    const bool ok = tool.state() == QProcess::NotRunning && tool.exitStatus() == QProcess::NormalExit &&
                    tool.exitCode() == 0;
    std::printf("Run: systemctl %s [%s]\n", joined.constData(), ok ? "OK" : "ER");
    const QByteArray out = tool.readAllStandardOutput().trimmed();
    const QByteArray err = tool.readAllStandardError().trimmed();
    std::printf("Std: systemctl %s\n%s\n", joined.constData(), out.constData());
    std::printf("Err: systemctl %s\n%s\n", joined.constData(), err.constData());
    std::fflush(stdout);
    return ok;
}

bool systemctlOutput(const QStringList &arguments, QString *output)
{
    QProcess tool;
    tool.start(QString::fromLatin1(SystemctlPath), arguments);
    if (!tool.waitForStarted(RunStartWaitMs))
        return false;
    if (!tool.waitForFinished(RunFinishWaitMs)) {
        tool.kill();
        tool.waitForFinished(VersionKillWaitMs);
        return false;
    }
    if (tool.exitStatus() != QProcess::NormalExit)
        return false;
    if (output)
        *output = QString::fromLocal8Bit(tool.readAllStandardOutput()).trimmed();
    return true;
}

QString unitName(const QString &instance)
{
    return instance + QLatin1String(".service");
}

bool unitFileExists(const QString &instance)
{
    const QString unit = unitName(instance);
    return QFileInfo::exists(QString::fromLatin1(EtcUnitDir) + QLatin1Char('/') + unit) ||
           QFileInfo::exists(QString::fromLatin1(LibUnitDir) + QLatin1Char('/') + unit);
}

bool activeAnswerMeansRunning(const QString &answer)
{
    const QString trimmed = answer.trimmed();
    return trimmed.compare(QLatin1String("active"), Qt::CaseInsensitive) == 0 ||
           trimmed.compare(QLatin1String("activating"), Qt::CaseInsensitive) == 0 ||
           trimmed.compare(QLatin1String("reloading"), Qt::CaseInsensitive) == 0;
}

bool isActive(const QString &instance)
{
    if (!isSystemd() || !unitFileExists(instance))
        return false;
    QString answer;
    if (!systemctlOutput({QStringLiteral("is-active"), unitName(instance)}, &answer))
        return false;
    return activeAnswerMeansRunning(answer);
}

} // namespace KorbSystemd
