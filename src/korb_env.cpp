#include "src/korb_env.h"

#include "logger/korb_log.h"

#include <QDir>
#include <QFileInfo>
#include <QStringList>

namespace {

QChar listSeparator(const QString &value)
{
    return value.contains(QLatin1Char(';')) ? QLatin1Char(';') : QLatin1Char(':');
}

void reportEnv(int level, bool ok, const QString &name, const QString &value)
{
    KLOG(nullptr, level,
         QObject::tr("%1 переменная %2 (%3)")
             .arg(ok ? QObject::tr("установлена") : QObject::tr("не установлена"), name, value));
}
} // namespace

namespace Korb {

QString getAbsPath(const QString &path)
{
    QString name = path;
    const bool absolute =
        path.startsWith(QLatin1Char('/')) || (path.size() > 1 && path.at(1) == QLatin1Char(':'));
    if (!absolute)
        name = QFileInfo(appDir() + QLatin1Char('/') + path).absoluteFilePath();
    if (logThreshold > 5) {
        KLOG(nullptr, 5, QObject::tr("взять абсолютное имя: %1").arg(path));
        KLOG(nullptr, 5, QObject::tr("абсолютное имя: %1").arg(name));
    }
    return name;
}

bool setCurrentDir(const QString &dir)
{
    const QString abs = QDir(dir).absolutePath();
    if ((QDir(abs).exists() || QDir().mkpath(abs)) && QDir::setCurrent(abs))
        return true;
    KLOG(nullptr, -1, QObject::tr("Не создана директория для записи файлов '%1'").arg(abs));
    return false;
}

bool changeWorkDir(const QString &dir)
{
    if (dir.isEmpty())
        return QDir::setCurrent(appDir());
    if (QDir::setCurrent(dir))
        return true;
    KLOG(nullptr, 0, QObject::tr("ошибка смены рабочей директории"));
    return false;
}

bool envSet(const QString &name, const QString &value)
{
    const bool ok = qputenv(name.toLocal8Bit().constData(), value.toLocal8Bit());
    if (logThreshold >= 6)
        reportEnv(1, ok, name, value);
    return ok;
}

bool envAppend(const QString &name, const QString &value)
{
    const QString current = QString::fromLocal8Bit(qgetenv(name.toLocal8Bit().constData()));
    const QChar sep = listSeparator(current);
    QStringList parts = current.isEmpty() ? QStringList() : current.split(sep);
    parts.prepend(value);
    parts.removeDuplicates();
    return envSet(name, parts.join(sep));
}

void setAppPath()
{
    const QString path = QString::fromLocal8Bit(qgetenv("PATH"));
    const QChar sep = listSeparator(path);
    QStringList parts = path.isEmpty() ? QStringList() : path.split(sep);
    parts.removeDuplicates();

    for (const char *dir : {"../php5", "../php"}) {
        const QString abs = getAbsPath(QString::fromLatin1(dir));
        if (QFileInfo(abs).isDir())
            parts.prepend(abs);
    }
    for (const char *dir : {PluginDir, "../lib64", "/lib64", "/usr/lib64", "/usr/local/lib64"}) {
        const QString abs = getAbsPath(QString::fromLatin1(dir));
        if (QFileInfo(abs).isDir())
            envAppend(QStringLiteral("LD_LIBRARY_PATH"), abs);
    }

    parts.removeDuplicates();
    const QString joined = parts.join(sep);
    if (!qputenv("PATH", joined.toLocal8Bit()))
        reportEnv(0, false, QStringLiteral("PATH"), joined);
    else if (logThreshold > 4)
        reportEnv(1, true, QStringLiteral("PATH"), joined);
}

} // namespace Korb
