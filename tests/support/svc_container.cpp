#include "support/svc_container.h"

#include <QFileInfo>

#include <unistd.h>

namespace {

QString containerTool()
{
    const QFileInfo beside(QStringLiteral(KORB_SOURCE_DIR "/../shared/tools/systemd-container"));
    return beside.isExecutable() ? beside.canonicalFilePath()
                                 : QStringLiteral("/work/shared/tools/systemd-container");
}
// Boot takes about a second here; the tool gives up after 60 s by itself.
constexpr int BootWaitMs = 90000;
constexpr int ToolWaitMs = 60000;

} // namespace

SvcContainer::SvcContainer(const QString &stem, const QString &hostDir, const QString &containerDir)
    : m_name(stem + QString::number(::getpid())),
      m_bind(QStringLiteral("--bind-ro=%1:%2").arg(QFileInfo(hostDir).canonicalFilePath(), containerDir))
{
}

SvcContainer::~SvcContainer()
{
    runTool({QStringLiteral("stop"), m_name}, ToolWaitMs);
}

QString SvcContainer::unavailableReason()
{
    if (::geteuid() != 0)
        return QStringLiteral("the systemd container needs root");
    if (!QFileInfo(containerTool()).isExecutable())
        return QStringLiteral("no systemd container tool here");
    if (!QFileInfo::exists(QStringLiteral("/usr/bin/systemd-nspawn")))
        return QStringLiteral("systemd-nspawn is missing (package systemd-container)");
    return QString();
}

QString SvcContainer::boot()
{
    const SvcRun run = runTool({QStringLiteral("start"), m_name}, BootWaitMs);
    return run.exitCode == 0 ? QString()
                             : QStringLiteral("the systemd container did not boot: %1")
                                   .arg(QString::fromLocal8Bit(run.out + run.err).trimmed().right(400));
}

SvcRun SvcContainer::exec(const QStringList &command) const
{
    return runTool(QStringList{QStringLiteral("exec"), m_name} + command, ToolWaitMs);
}

SvcRun SvcContainer::runTool(const QStringList &arguments, int timeoutMs) const
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("KTC_NSPAWN_OPTS"), m_bind);
    return svcRun(containerTool(), arguments, environment, timeoutMs);
}
