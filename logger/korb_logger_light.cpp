#include "logger/korb_logger_light.h"

#include "logger/korb_log.h"
#include "src/korb_app_dir.h"
#include "src/korb_disk.h"

#include <QCoreApplication>
#include <QDate>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTextCodec>
#include <QThread>

#include <cstdio>

namespace {
QPointer<KorbLoggerLight> g_logger;
QMutex g_instanceMutex;

void consolePrint(QTextCodec *codec, const QString &text)
{
    const QByteArray bytes = codec ? codec->fromUnicode(text) : text.toLocal8Bit();
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stderr);
    std::fputc('\n', stderr);
}
} // namespace

KorbLoggerLight *KorbLoggerLight::instance()
{
    QMutexLocker lock(&g_instanceMutex);
    if (!g_logger) {
        // Console trace lines and log echoes should appear at once, also when
        // the output is a pipe or the journal.
        setlinebuf(stdout);
        setlinebuf(stderr);
        g_logger = new KorbLoggerLight;
    }
    return g_logger;
}

KorbLoggerLight::KorbLoggerLight(QObject *parent) : QObject(parent)
{
    setObjectName(QStringLiteral("logger"));
    m_codec = QTextCodec::codecForName("UTF-8");
    m_dir = Korb::appDir() + QStringLiteral("/../logs/");
    QDir().mkpath(m_dir);
    m_expiry.setInterval(ExpiryPeriodMs);
    connect(&m_expiry, &QTimer::timeout, this, &KorbLoggerLight::expire_messages);
}

void KorbLoggerLight::setLogDir(const QString &dir)
{
    QMutexLocker lock(&m_mutex);
    m_dir = dir;
    QDir().mkpath(m_dir);
}

void KorbLoggerLight::setLoggerName(const QString &name)
{
    QMutexLocker lock(&m_mutex);
    m_name = sanitizeName(name);
}

void KorbLoggerLight::setCodec(QTextCodec *codec)
{
    QMutexLocker lock(&m_mutex);
    if (codec)
        m_codec = codec;
}

void KorbLoggerLight::setConsoleLevel(int level)
{
    QMutexLocker lock(&m_mutex);
    m_consoleLevel = level;
}

QString KorbLoggerLight::sanitizeName(const QString &name)
{
    static const QRegularExpression nonWord(QStringLiteral("\\W+"),
                                            QRegularExpression::UseUnicodePropertiesOption);
    QString s = name;
    s.remove(QLatin1Char('/')).remove(QLatin1Char('\\')).remove(QLatin1Char(':'));
    return s.replace(nonWord, QStringLiteral("-"));
}

QString KorbLoggerLight::currentFilePath() const
{
    QMutexLocker lock(&m_mutex);
    return filePathLocked();
}

QString KorbLoggerLight::filePathLocked() const
{
    return QDir(m_dir).filePath(
        QStringLiteral("%1_%2.txt").arg(m_name, QDate::currentDate().toString(QStringLiteral("yyyy-MM-dd"))));
}

QString KorbLoggerLight::formatLine(const QString &time, int level, const char *file, unsigned line,
                                    const char *function, const QString &source, const QString &message)
{
    // "%0 %1 %2%3 %4() %5: %6", built piecewise so that a '%' inside the
    // message is never taken for a placeholder.
    QString out = time;
    out += QLatin1Char(' ');
    out += level >= 0 ? QStringLiteral("+%1").arg(level) : QString::number(level);
    out += QLatin1Char(' ');
    out += QFileInfo(QString::fromUtf8(file ? file : "")).fileName();
    if (line != 0)
        out += QStringLiteral(":%1").arg(line);
    out += QLatin1Char(' ');
    out += QString::fromUtf8(function ? function : "");
    out += QStringLiteral("() ");
    out += source;
    const QString text = message.trimmed();
    if (!text.isEmpty()) {
        out += QStringLiteral(": ");
        out += text;
    }
    return out;
}

void KorbLoggerLight::write(const QString &source, const char *file, unsigned line, const char *function,
                            const QString &message, int level, bool fold)
{
    if (!Korb::logAdmits(level) || message.isEmpty())
        return;
    if (!m_mutex.tryLock(LockWaitMs)) {
        consolePrint(m_codec, formatLine(Korb::logTimestamp(), level, file, line, function, source, message));
        return;
    }
    struct Unlock
    {
        QMutex &mutex;
        ~Unlock() { mutex.unlock(); }
    } unlock{m_mutex};
    if (fold) {
        for (Recent &r : m_recent) {
            if (r.line == line && r.message == message) {
                ++r.repeats;
                r.since.restart();
                return;
            }
        }
        if (m_recent.size() >= MaxRecentRecords) {
            if (m_recent.first().repeats > 0)
                writeSeriesLocked(m_recent.first());
            m_recent.removeFirst();
        }
        Recent r;
        r.source = source;
        r.file = file;
        r.line = line;
        r.function = function;
        r.message = message;
        r.level = level;
        r.since.start();
        m_recent.append(r);
        ensureExpiryTimer();
    }
    writeLineLocked(formatLine(Korb::logTimestamp(), level, file, line, function, source, message), level);
}

void KorbLoggerLight::writeSeriesLocked(const Recent &r)
{
    const QString text = QStringLiteral("%1 (серия из %2)").arg(r.message).arg(r.repeats);
    writeLineLocked(formatLine(Korb::logTimestamp(), r.level, r.file.constData(), r.line,
                               r.function.constData(), r.source, text),
                    r.level);
}

void KorbLoggerLight::writeLineLocked(const QString &lineText, int level)
{
    if (m_consoleLevel >= 0 && level <= m_consoleLevel)
        consolePrint(m_codec, lineText);

    const QString path = filePathLocked();
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly | QIODevice::Append)) {
        consolePrint(m_codec, QStringLiteral("ошибка открытия файла :") + path);
        return;
    }
    if (f.size() > MaxFileSize) {
        if (reportDue(m_overflowReport))
            consolePrint(m_codec, QStringLiteral("переполнение файла :") + path);
        return;
    }
    const QByteArray bytes = (lineText + QLatin1Char('\n')).toUtf8();
    // A full disk fails every line: the console hears of it once a minute.
    if (!Korb::writeFully(f, bytes.constData(), bytes.size()) && reportDue(m_writeFailureReport))
        consolePrint(m_codec, QStringLiteral("ошибка записи в файл :%1 (%2)").arg(path, f.errorString()));
}

bool KorbLoggerLight::reportDue(QElapsedTimer &lastReport)
{
    if (lastReport.isValid() && lastReport.elapsed() <= ReportIntervalMs)
        return false;
    lastReport.start();
    return true;
}

void KorbLoggerLight::ensureExpiryTimer()
{
    // The timer belongs to the logger's thread; a record from elsewhere (or
    // before the application exists) leaves it to a later record.
    if (!m_expiry.isActive() && QCoreApplication::instance() && QThread::currentThread() == thread())
        m_expiry.start();
}

bool KorbLoggerLight::hasAccumulated() const
{
    QMutexLocker lock(&m_mutex);
    for (const Recent &r : m_recent)
        if (r.repeats > 0)
            return true;
    return false;
}

void KorbLoggerLight::flushAccumulated()
{
    QMutexLocker lock(&m_mutex);
    for (const Recent &r : qAsConst(m_recent))
        if (r.repeats > 0)
            writeSeriesLocked(r);
    m_recent.clear();
}

void KorbLoggerLight::resetFilter()
{
    QMutexLocker lock(&m_mutex);
    m_recent.clear();
}

void KorbLoggerLight::expire_messages()
{
    // A series ends with the expiry period: its line says how many repeats
    // were held back, and the next occurrence is written at once again.
    flushAccumulated();
}
