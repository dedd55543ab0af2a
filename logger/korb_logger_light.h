#pragma once

#include <QElapsedTimer>
#include <QList>
#include <QMutex>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTimer>

class QTextCodec;

// The process's single file logger: daily UTF-8 text files in the log
// directory, a size cap per file, and folding of identical repeated records
// into one series line.
class KorbLoggerLight : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY(KorbLoggerLight)

public:
    // A day's file that has grown past this receives no more lines that day,
    // so a runaway message cannot fill the disk.
    static constexpr qint64 MaxFileSize = 4194303;
    // The console hears about an overflowing file, and about lines a full
    // disk refuses, at most this often.
    static constexpr qint64 ReportIntervalMs = 60000;
    // Period of the series expiry timer.
    static constexpr int ExpiryPeriodMs = 360000;
    // Distinct folded records kept at once; the oldest is flushed beyond it,
    // so varying folded messages cannot grow the list without bound.
    static constexpr int MaxRecentRecords = 512;
    // A record waits at most this long for the logger's lock. The signal
    // handler logs from signal context; should it interrupt a write in
    // progress, its record goes to the console instead of deadlocking.
    static constexpr int LockWaitMs = 250;

    // The shared instance, created on first use.
    static KorbLoggerLight *instance();

    // Writes one record (the log call's filtering is repeated here).
    void write(const QString &source, const char *file, unsigned line, const char *function,
               const QString &message, int level, bool fold);

    void setLogDir(const QString &dir);
    void setLoggerName(const QString &name);
    // Codec for the console echo (-tc); log files are always UTF-8.
    void setCodec(QTextCodec *codec);
    // Records at this level or below are echoed to standard error as well
    // (negative: no echo).
    void setConsoleLevel(int level);

    // Path of today's log file.
    QString currentFilePath() const;

    // Whether a folded record has been repeated and waits for its series line.
    bool hasAccumulated() const;
    // Writes the series line of every repeated record and forgets them.
    void flushAccumulated();
    // Forgets every folded record without writing anything.
    void resetFilter();

    static QString sanitizeName(const QString &name);
    static QString formatLine(const QString &time, int level, const char *file, unsigned line,
                              const char *function, const QString &source, const QString &message);

public slots:
    // Writes the series lines of records whose series has ended.
    void expire_messages();

private:
    explicit KorbLoggerLight(QObject *parent = nullptr);

    struct Recent
    {
        QString source;
        QByteArray file;
        unsigned line = 0;
        QByteArray function;
        QString message;
        int level = 0;
        int repeats = 0;
        QElapsedTimer since;
    };

    QString filePathLocked() const;
    void writeLineLocked(const QString &lineText, int level);
    void writeSeriesLocked(const Recent &r);
    void ensureExpiryTimer();
    // Whether a console report is due (none within ReportIntervalMs); starts its clock again when it is.
    static bool reportDue(QElapsedTimer &lastReport);

    mutable QMutex m_mutex;
    QString m_dir;
    QString m_name = QStringLiteral("korb");
    QTextCodec *m_codec = nullptr;
    int m_consoleLevel = -1;
    QList<Recent> m_recent;
    QElapsedTimer m_overflowReport;
    QElapsedTimer m_writeFailureReport;
    QTimer m_expiry;
};
