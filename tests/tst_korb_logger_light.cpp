// The log call and the light logger: records against the line they leave in the day's file (threshold, source
// name, line template); a run of records and logger steps against the messages the file receives and what the
// console hears (folding into series, the size cap and its report, an unopenable file, the console echo).
#include "logger/korb_log.h"
#include "logger/korb_logger_light.h"
#include "support/stderr_capture.h"

#include <QtTest>

class tst_KorbLoggerLight : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    const QString m_time = QStringLiteral("^\\d{4}-\\d\\d-\\d\\d-\\d\\d:\\d\\d:\\d\\d\\.\\d{3} ");

private slots:
    void initTestCase() { qApp->setObjectName(QStringLiteral("app")); }

    void record_data()
    {
        QTest::addColumn<int>("threshold");
        QTest::addColumn<int>("level");
        QTest::addColumn<QString>("sender"); // "-" none, else its object name
        QTest::addColumn<QString>("message");
        QTest::addColumn<QString>("written"); // the line after its time stamp
        auto add = [](const char *tag, int threshold, int level, const char *sender, const char *message,
                      const char *written) {
            QTest::newRow(tag) << threshold << level << sender << message << written;
        };
        add("threshold 0 keeps an error", 0, 0, "-", "x", "+0 file.cpp:5 fn() app: x");
        add("level -1 always", -5, -1, "-", "x", "-1 file.cpp:5 fn() app: x");
        add("threshold 3 drops level 4", 3, 4, "-", "x", "");
        add("threshold 4 keeps level 4", 4, 4, "-", "x", "+4 file.cpp:5 fn() app: x");
        add("object name names the source", 2, 1, "server", "x", "+1 file.cpp:5 fn() server: x");
        add("else the class name", 2, 1, "", "x", "+1 file.cpp:5 fn() QTimer: x");
        add("trimmed, percent signs stay", 2, 1, "-", " 50%1 %2\n", "+1 file.cpp:5 fn() app: 50%1 %2");
        add("empty message: nothing", 2, -1, "-", "", "");
    }

    void record()
    {
        QFETCH(int, threshold);
        QFETCH(int, level);
        QFETCH(QString, sender);
        QFETCH(QString, message);
        QFETCH(QString, written);
        KorbLoggerLight::instance()->setLogDir(m_dir.filePath("records"));
        KorbLoggerLight::instance()->setLoggerName(QString::fromLatin1(QTest::currentDataTag()));
        Korb::logThreshold = threshold;
        QTimer object;
        object.setObjectName(sender);
        Korb::log(sender == "-" ? nullptr : &object, "/a/b/file.cpp", 5, "fn", message, level, false);
        QFile file(KorbLoggerLight::instance()->currentFilePath());
        const QString text = file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
        QCOMPARE(text.section(QRegularExpression(m_time), 1), written.isEmpty() ? "" : written + '\n');
        // A guarded call site does not even build a dropped message.
        int built = 0;
        KLOG(nullptr, level, QString::number(++built));
        QCOMPARE(built, written.isEmpty() && !message.isEmpty() ? 0 : 1);
    }

    void steps_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("steps");   // '|'-separated
        QTest::addColumn<QString>("file");    // the messages written, '|'-separated
        QTest::addColumn<QString>("console"); // the lines heard, time stamps left out
        auto add = [](const char *tag, const char *steps, const char *file, const char *console = "",
                      const char *name = "rdv") { QTest::newRow(tag) << name << steps << file << console; };
        add("folded: once, a series line when it expires, then again",
            "fold:ab|fold:ab|fold:ab|fold:ab|fold:ab|fold:ab|fold:ab|fold:ab|fold:ab|fold:ab|expire|fold:ab",
            "ab|ab (серия из 9)|ab");
        add("the same text on another line is no repeat", "fold:a|fold2:a|fold:a|flush",
            "a|a|a (серия из 1)");
        add("unfolded repeats are all written", "log:a|log:a", "a|a");
        add("one occurrence is no series; reset forgets", "fold:a|expire|fold:b|fold:b|reset|flush", "a|b");
        add("a file of the cap takes one more line", "size:4194303|log:a", "a");
        add("one byte over takes none, reported once a minute", "size:4194304|log:a|log:b", "",
            "переполнение файла :%F");
        add("an unopenable file is reported", "dir|log:a", "", "ошибка открытия файла :%F");
        add("console echo up to its level", "echo|log:a|error:b", "a|b", "+0 file.cpp:3 fn() src: b");
        add("the name loses / \\ : and runs of non-word characters", "log:a", "a", "",
            "a/b\\c:d. журнал (1)");
    }

    void steps()
    {
        QFETCH(QString, name);
        QFETCH(QString, steps);
        QFETCH(QString, file);
        QFETCH(QString, console);
        KorbLoggerLight *logger = KorbLoggerLight::instance();
        const QString dir = m_dir.filePath(QStringLiteral("%1/logs").arg(QTest::currentDataTag()));
        logger->setLogDir(dir);
        QVERIFY(QFileInfo(dir).isDir()); // a missing directory is made
        logger->setLoggerName(name);
        logger->setConsoleLevel(-1);
        logger->resetFilter();
        const QString path = logger->currentFilePath();
        StderrCapture capture;
        for (const QString &step : steps.split('|')) {
            const QString text = step.section(':', 1);
            if (step.startsWith("size:"))
                QVERIFY(QFile(path).open(QIODevice::WriteOnly) && QFile::resize(path, text.toLongLong()));
            else if (step == "dir")
                QVERIFY(QDir().mkpath(path));
            else if (step == "echo")
                logger->setConsoleLevel(0);
            else if (step == "expire")
                logger->expire_messages();
            else if (step == "flush")
                logger->flushAccumulated();
            else if (step == "reset")
                logger->resetFilter();
            else
                logger->write("src", "/x/file.cpp", step.startsWith("fold2") ? 2 : 3, "fn", text,
                              step.startsWith("error") ? 0 : 1, step.startsWith("fold"));
        }
        QFile log(path);
        QStringList written;
        if (QFileInfo(path).isFile() && log.open(QIODevice::ReadOnly)) // zeros of "size:" left out
            for (const QString &line : QString::fromUtf8(log.readAll().replace('\0', "")).split('\n'))
                written << line.section(": ", 1);
        QCOMPARE(written.join('|'), file + (file.isEmpty() ? "" : "|"));
        QCOMPARE(QString::fromUtf8(capture.text())
                     .remove(QRegularExpression("^\\d{4}-\\S+ ", QRegularExpression::MultilineOption))
                     .replace(path, "%F")
                     .trimmed(),
                 console);
        QCOMPARE(QFileInfo(path).fileName(), (name == "rdv" ? name : "abcd-журнал-1-") + '_' +
                                                 QDate::currentDate().toString("yyyy-MM-dd") + ".txt");
    }
};

QTEST_GUILESS_MAIN(tst_KorbLoggerLight)
#include "tst_korb_logger_light.moc"
