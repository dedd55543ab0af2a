#include "logger/korb_log.h"

#include "logger/korb_logger_light.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QMessageLogger>
#include <QMetaObject>
#include <QObject>
#include <QRegularExpression>

namespace Korb {

int logThreshold = DefaultLogThreshold;

QString sourceName(const QObject *sender)
{
    if (sender) {
        const QString name = sender->objectName();
        return name.isEmpty() ? QString::fromLatin1(sender->metaObject()->className()) : name;
    }
    if (const QCoreApplication *app = QCoreApplication::instance())
        return app->objectName();
    return QStringLiteral("Korb");
}

void log(const QObject *sender, const char *file, unsigned line, const char *function, const QString &message,
         int level, bool fold)
{
    if (!logAdmits(level) || message.isEmpty())
        return;
    KorbLoggerLight::instance()->write(sourceName(sender), file, line, function, message, level, fold);
}

QString reduceFunctionName(const QString &signature)
{
    // Return type, scopes and argument list are cut away; the bare name stays.
    static const QRegularExpression re(
        QStringLiteral("^.+\\s((?:[\\w\\d]+::)+)?([\\w\\d\\<\\>~]+)(?:\\(.*\\)).*$"));
    QString s = signature;
    return s.replace(re, QStringLiteral("\\2()"));
}

QString logTimestamp()
{
    return QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd-hh:mm:ss.zzz"));
}

QDebug trace(const char *file, int line, const char *function)
{
    const QString path = QString::fromUtf8(file);
    static const QRegularExpression sep(QStringLiteral("[/\\\\]"));
    const int cut = path.lastIndexOf(sep);
    const QString fileName = path.right(path.size() - cut - 1);
    QDebug d = QMessageLogger(file, line, function, "default").critical();
    d.noquote() << logTimestamp() << QStringLiteral("%1:%2").arg(fileName).arg(line) << QStringLiteral("~~~~")
                << reduceFunctionName(QString::fromUtf8(function)) + QLatin1Char('\t');
    return d;
}

} // namespace Korb
