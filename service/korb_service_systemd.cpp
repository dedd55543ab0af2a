#include "service/korb_service_systemd.h"

#include "service/korb_child_process.h"

#include <QFile>
#include <QFileInfo>

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
    const KorbChildProcess::Result version =
        KorbChildProcess::run(QString::fromLatin1(SystemctlPath), {QStringLiteral("--version")},
                              VersionStartWaitMs, VersionFinishWaitMs);
    return version.succeeded() && version.out.startsWith("systemd ");
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
    const KorbChildProcess::Result tool =
        KorbChildProcess::run(QString::fromLatin1(SystemctlPath), arguments, RunStartWaitMs, RunFinishWaitMs);
    const bool ok = tool.succeeded();
    std::printf("Run: systemctl %s [%s]\n", joined.constData(), ok ? "OK" : "ER");
    if (tool.started) {
        std::printf("Std: systemctl %s\n%s\n", joined.constData(), tool.out.trimmed().constData());
        std::printf("Err: systemctl %s\n%s\n", joined.constData(), tool.err.trimmed().constData());
    }
    std::fflush(stdout);
    return ok;
}

bool systemctlOutput(const QStringList &arguments, QString *output)
{
    const KorbChildProcess::Result tool =
        KorbChildProcess::run(QString::fromLatin1(SystemctlPath), arguments, RunStartWaitMs, RunFinishWaitMs);
    if (!tool.finished || !tool.normalExit)
        return false;
    if (output)
        *output = QString::fromLocal8Bit(tool.out).trimmed();
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
