// The light logger: daily files, the size cap and its console report, folding
// of repeated records into series lines, directory creation, name rules.
#include "logger/korb_log.h"
#include "logger/korb_logger_light.h"
#include "support/stderr_capture.h"

#include <QDate>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

namespace {
QStringList lines(const QString &path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(f.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}
} // namespace

class tst_KorbLoggerLight : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void sanitizedName_data();
    void sanitizedName();
    void dailyFileNameAndUtf8();
    void missingDirectoryIsCreated();
    void overflowReportedOncePerMinute();
    void sizeCap_data();
    void sizeCap();
    void unopenableFileReported();
    void foldingWritesOnceThenSeries();
    void foldingDistinguishesLineAndMessage();
    void haltStyleFlushAndReset();
    void consoleEcho();

private:
    KorbLoggerLight *logger() { return KorbLoggerLight::instance(); }
    QTemporaryDir m_dir;
};

void tst_KorbLoggerLight::init()
{
    QVERIFY(m_dir.isValid());
    logger()->setLogDir(m_dir.path());
    logger()->setLoggerName(QString::fromLatin1(QTest::currentTestFunction()));
    logger()->resetFilter();
    logger()->setConsoleLevel(-1);
    QFile::remove(logger()->currentFilePath());
    Korb::logThreshold = 2;
}

void tst_KorbLoggerLight::sanitizedName_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("expected");
    QTest::newRow("plain") << "rdv"
                           << "rdv";
    QTest::newRow("separators removed") << "a/b\\c:d"
                                        << "abcd";
    QTest::newRow("non-word runs become one hyphen") << "Korb. RDV2 (x)"
                                                     << "Korb-RDV2-x-";
    QTest::newRow("cyrillic letters are word characters") << "журнал 1"
                                                          << "журнал-1";
}

void tst_KorbLoggerLight::sanitizedName()
{
    QFETCH(QString, name);
    QFETCH(QString, expected);
    QCOMPARE(KorbLoggerLight::sanitizeName(name), expected);
}

void tst_KorbLoggerLight::dailyFileNameAndUtf8()
{
    logger()->setLoggerName(QStringLiteral("rdv"));
    const QString path = logger()->currentFilePath();
    QVERIFY(path.endsWith(QStringLiteral(".txt")));
    QVERIFY(path.contains(QStringLiteral("rdv")));
    QVERIFY(path.contains(QDate::currentDate().toString(QStringLiteral("yyyy-MM-dd"))));
    QFile::remove(path);
    KLOG(nullptr, 1, QStringLiteral("приступил к останову приложения"));
    const QStringList got = lines(path);
    QCOMPARE(got.size(), 1);
    QVERIFY2(got.first().endsWith(QStringLiteral(": приступил к останову приложения")),
             qPrintable(got.first()));
}

void tst_KorbLoggerLight::missingDirectoryIsCreated()
{
    const QString dir = m_dir.filePath(QStringLiteral("new/logs"));
    QVERIFY(!QFileInfo::exists(dir));
    logger()->setLogDir(dir);
    QVERIFY(QFileInfo(dir).isDir());
    KLOG(nullptr, 1, QStringLiteral("x"));
    QCOMPARE(lines(logger()->currentFilePath()).size(), 1);
}

void tst_KorbLoggerLight::sizeCap_data()
{
    QTest::addColumn<qint64>("startSize");
    QTest::addColumn<bool>("written");
    QTest::newRow("exactly the cap still receives a line") << KorbLoggerLight::MaxFileSize << true;
    QTest::newRow("one byte over receives nothing") << KorbLoggerLight::MaxFileSize + 1 << false;
}

void tst_KorbLoggerLight::sizeCap()
{
    QFETCH(qint64, startSize);
    QFETCH(bool, written);
    const QString path = logger()->currentFilePath();
    {
        QFile f(path);
        QVERIFY(f.open(QIODevice::WriteOnly));
        QVERIFY(f.resize(startSize));
    }
    StderrCapture capture;
    KLOG(nullptr, 1, QStringLiteral("after the cap"));
    QCOMPARE(QFileInfo(path).size() > startSize, written);
}

void tst_KorbLoggerLight::overflowReportedOncePerMinute()
{
    // Runs before any other overflow in this process: the report clock is
    // process-wide.
    const QString path = logger()->currentFilePath();
    {
        QFile f(path);
        QVERIFY(f.open(QIODevice::WriteOnly));
        QVERIFY(f.resize(KorbLoggerLight::MaxFileSize + 10));
    }
    StderrCapture capture;
    KLOG(nullptr, 1, QStringLiteral("one"));
    KLOG(nullptr, 1, QStringLiteral("two"));
    const QString text = QString::fromUtf8(capture.text());
    QCOMPARE(text.count(QStringLiteral("переполнение файла :") + path), 1);
}

void tst_KorbLoggerLight::unopenableFileReported()
{
    // A directory where the file should be cannot be opened for writing.
    QVERIFY(QDir().mkpath(logger()->currentFilePath()));
    StderrCapture capture;
    KLOG(nullptr, 1, QStringLiteral("lost"));
    QVERIFY(QString::fromUtf8(capture.text()).contains(QStringLiteral("ошибка открытия файла :")));
    QDir(logger()->currentFilePath()).removeRecursively();
}

void tst_KorbLoggerLight::foldingWritesOnceThenSeries()
{
    const QString path = logger()->currentFilePath();
    for (int i = 0; i < 10; ++i)
        KLOGF(nullptr, 1, QStringLiteral("клиент не читает"));
    QCOMPARE(lines(path).size(), 1);
    QVERIFY(logger()->hasAccumulated());
    logger()->expire_messages();
    const QStringList got = lines(path);
    QCOMPARE(got.size(), 2);
    QVERIFY2(got.last().endsWith(QStringLiteral(": клиент не читает (серия из 9)")), qPrintable(got.last()));
    QVERIFY(!logger()->hasAccumulated());
    // The series has ended: the next occurrence is written at once again.
    KLOGF(nullptr, 1, QStringLiteral("клиент не читает"));
    QCOMPARE(lines(path).size(), 3);
}

void tst_KorbLoggerLight::foldingDistinguishesLineAndMessage()
{
    const QString path = logger()->currentFilePath();
    for (int i = 0; i < 3; ++i) {
        KLOGF(nullptr, 1, QStringLiteral("a"));
        KLOGF(nullptr, 1, QStringLiteral("b"));
    }
    KLOGF(nullptr, 1, QStringLiteral("a")); // same text, other line
    QCOMPARE(lines(path).size(), 3);
    // Without folding every record is written.
    for (int i = 0; i < 3; ++i)
        KLOG(nullptr, 1, QStringLiteral("a"));
    QCOMPARE(lines(path).size(), 6);
}

void tst_KorbLoggerLight::haltStyleFlushAndReset()
{
    const QString path = logger()->currentFilePath();
    for (int i = 0; i < 2; ++i) {
        QVERIFY(!logger()->hasAccumulated()); // a single occurrence is no series
        KLOGF(nullptr, 1, QStringLiteral("once"));
    }
    QVERIFY(logger()->hasAccumulated());
    logger()->resetFilter();
    QVERIFY(!logger()->hasAccumulated());
    logger()->flushAccumulated();
    QCOMPARE(lines(path).size(), 1); // reset forgets without writing
}

void tst_KorbLoggerLight::consoleEcho()
{
    logger()->setConsoleLevel(0);
    StderrCapture capture;
    KLOG(nullptr, 1, QStringLiteral("only in the file"));
    KLOG(nullptr, 0, QStringLiteral("error on the console too"));
    const QString text = QString::fromUtf8(capture.text());
    QVERIFY(!text.contains(QStringLiteral("only in the file")));
    QVERIFY(text.contains(QStringLiteral("error on the console too")));
}

QTEST_GUILESS_MAIN(tst_KorbLoggerLight)
#include "tst_korb_logger_light.moc"
