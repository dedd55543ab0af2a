#include "src/korb_app_dir.h"

#include <QCoreApplication>
#include <QFileInfo>

namespace {
QString g_appDir;
} // namespace

namespace Korb {

QString appDir()
{
    if (!g_appDir.isEmpty())
        return g_appDir;
    if (QCoreApplication::instance())
        return QCoreApplication::applicationDirPath();
    return QFileInfo(QStringLiteral("/proc/self/exe")).canonicalPath();
}

void setAppDir(const QString &dir)
{
    g_appDir = dir;
}

} // namespace Korb
