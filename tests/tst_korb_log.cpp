// The log call: records against the line they leave in the day's file
// (threshold, source name, line template), and the console trace line.
#include "logger/korb_log.h"
#include "logger/korb_logger_light.h"

#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

class tst_KorbLog : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    const QString m_time = QStringLiteral("^\\d{4}-\\d\\d-\\d\\d-\\d\\d:\\d\\d:\\d\\d\\.\\d{3} ");

private slots:
    void initTestCase()
    {
        qApp->setObjectName(QStringLiteral("app"));
        KorbLoggerLight::instance()->setLogDir(m_dir.path());
    }

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
        add("threshold 0 drops a warning", 0, 1, "-", "x", "");
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

    void traceLine_data()
    {
        QTest::addColumn<QString>("function");
        QTest::addColumn<QString>("printed");
        auto add = [](const char *function, const char *printed) {
            QTest::newRow(function) << function << printed;
        };
        add("void WebSocketServer::onNewConnection()", "onNewConnection()");
        add("int Korb::Inner::fn(int, char) const", "fn()");
        add("calcBuff", "calcBuff");
    }

    void traceLine()
    {
        QFETCH(QString, function);
        QFETCH(QString, printed);
        // time, file:line, ~~~~, the reduced function name, a tab, the items
        QTest::ignoreMessage(QtCriticalMsg,
                             QRegularExpression(m_time + "file\\.cpp:42 ~~~~ " +
                                                QRegularExpression::escape(printed) + "\\t cmd:  42$"));
        Korb::trace("C:\\src\\file.cpp", 42, function.toUtf8().constData()) << "cmd: " << 42;
    }
};

QTEST_GUILESS_MAIN(tst_KorbLog)
#include "tst_korb_log.moc"
