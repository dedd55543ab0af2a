// The log call: threshold filtering, source names, the line template and the
// console trace line.
#include "logger/korb_log.h"
#include "logger/korb_logger_light.h"

#include <QCoreApplication>
#include <QFile>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

namespace {
class Named : public QObject
{
    Q_OBJECT
};

QStringList logLines()
{
    QFile f(KorbLoggerLight::instance()->currentFilePath());
    if (!f.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(f.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}
} // namespace

class tst_KorbLog : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void thresholdFiltering_data();
    void thresholdFiltering();
    void guardedCallSiteBuildsNothing();
    void emptyMessageWritesNothing();
    void sourceName_data();
    void sourceName();
    void lineTemplate_data();
    void lineTemplate();
    void reduceFunctionName_data();
    void reduceFunctionName();
    void consoleTraceLine();

private:
    QTemporaryDir m_dir;
};

void tst_KorbLog::init()
{
    QVERIFY(m_dir.isValid());
    KorbLoggerLight::instance()->setLogDir(m_dir.path());
    KorbLoggerLight::instance()->setLoggerName(QTest::currentDataTag()
                                                   ? QString::fromLatin1(QTest::currentDataTag())
                                                   : QString::fromLatin1(QTest::currentTestFunction()));
    KorbLoggerLight::instance()->resetFilter();
    QFile::remove(KorbLoggerLight::instance()->currentFilePath());
    Korb::logThreshold = 2;
}

void tst_KorbLog::thresholdFiltering_data()
{
    QTest::addColumn<int>("threshold");
    QTest::addColumn<int>("level");
    QTest::addColumn<bool>("written");
    QTest::newRow("threshold 0 drops a warning") << 0 << 1 << false;
    QTest::newRow("threshold 0 keeps an error") << 0 << 0 << true;
    QTest::newRow("threshold 0 keeps level -1") << 0 << -1 << true;
    QTest::newRow("negative threshold keeps level -1") << -5 << -1 << true;
    QTest::newRow("threshold 3 drops level 4") << 3 << 4 << false;
    QTest::newRow("threshold 4 keeps level 4") << 4 << 4 << true;
    QTest::newRow("threshold 2 keeps level 2") << 2 << 2 << true;
}

void tst_KorbLog::thresholdFiltering()
{
    QFETCH(int, threshold);
    QFETCH(int, level);
    QFETCH(bool, written);
    Korb::logThreshold = threshold;
    Korb::log(nullptr, __FILE__, __LINE__, "fn", QStringLiteral("record"), level, false);
    QCOMPARE(logLines().size(), written ? 1 : 0);
}

void tst_KorbLog::guardedCallSiteBuildsNothing()
{
    int built = 0;
    auto message = [&built] {
        ++built;
        return QStringLiteral("expensive");
    };
    Korb::logThreshold = 3;
    KLOG(nullptr, 4, message());
    QCOMPARE(built, 0);
    QVERIFY(logLines().isEmpty());
    Korb::logThreshold = 4;
    KLOG(nullptr, 4, message());
    QCOMPARE(built, 1);
    QCOMPARE(logLines().size(), 1);
}

void tst_KorbLog::emptyMessageWritesNothing()
{
    Korb::log(nullptr, __FILE__, 1, "fn", QString(), -1, false);
    Korb::log(nullptr, __FILE__, 1, "fn", QString(), 0, true);
    QVERIFY(logLines().isEmpty());
}

void tst_KorbLog::sourceName_data()
{
    QTest::addColumn<QString>("objectName");
    QTest::addColumn<QString>("expected");
    QTest::newRow("object name wins") << "server"
                                      << "server";
    QTest::newRow("empty name gives the class name") << ""
                                                     << "Named";
}

void tst_KorbLog::sourceName()
{
    QFETCH(QString, objectName);
    QFETCH(QString, expected);
    Named obj;
    obj.setObjectName(objectName);
    QCOMPARE(Korb::sourceName(&obj), expected);
}

void tst_KorbLog::lineTemplate_data()
{
    QTest::addColumn<int>("level");
    QTest::addColumn<uint>("line");
    QTest::addColumn<QString>("message");
    QTest::addColumn<QString>("expected");
    const QString t = QStringLiteral("2026-11-21-10:00:00.123");
    QTest::newRow("level 4 prints +4") << 4 << 77u << "  text  " << t + " +4 file.cpp:77 fn() src: text";
    QTest::newRow("level 0 prints +0") << 0 << 5u << "x" << t + " +0 file.cpp:5 fn() src: x";
    QTest::newRow("level -1 prints -1") << -1 << 5u << "x" << t + " -1 file.cpp:5 fn() src: x";
    QTest::newRow("line 0 has no :line") << 1 << 0u << "x" << t + " +1 file.cpp fn() src: x";
    QTest::newRow("empty message: short form") << 1 << 9u << "" << t + " +1 file.cpp:9 fn() src";
    QTest::newRow("percent signs stay") << 1 << 9u << "50%1 %2" << t + " +1 file.cpp:9 fn() src: 50%1 %2";
}

void tst_KorbLog::lineTemplate()
{
    QFETCH(int, level);
    QFETCH(uint, line);
    QFETCH(QString, message);
    QFETCH(QString, expected);
    QCOMPARE(KorbLoggerLight::formatLine(QStringLiteral("2026-11-21-10:00:00.123"), level, "/a/b/file.cpp",
                                         line, "fn", QStringLiteral("src"), message),
             expected);
}

void tst_KorbLog::reduceFunctionName_data()
{
    QTest::addColumn<QString>("signature");
    QTest::addColumn<QString>("expected");
    QTest::newRow("slot with class scope") << "void WebSocketServer::onNewConnection()"
                                           << "onNewConnection()";
    QTest::newRow("arguments and return type")
        << "bool KorbRdvStreamerTcp::connectToServer(const QString&, quint16, int)"
        << "connectToServer()";
    QTest::newRow("nested scopes") << "int Korb::Inner::fn(int) const"
                                   << "fn()";
    QTest::newRow("destructor") << "virtual KorbRdvStreamer::~KorbRdvStreamer()"
                                << "~KorbRdvStreamer()";
    QTest::newRow("plain name unchanged") << "calcBuff"
                                          << "calcBuff";
}

void tst_KorbLog::reduceFunctionName()
{
    QFETCH(QString, signature);
    QFETCH(QString, expected);
    QCOMPARE(Korb::reduceFunctionName(signature), expected);
}

void tst_KorbLog::consoleTraceLine()
{
    // time, file:line, ~~~~, reduced function name, tab, items
    QTest::ignoreMessage(QtCriticalMsg, QRegularExpression(QStringLiteral(
                                            "^\\d{4}-\\d\\d-\\d\\d-\\d\\d:\\d\\d:\\d\\d\\.\\d{3} "
                                            "tst_korb_log\\.cpp:\\d+ ~~~~ consoleTraceLine\\(\\)\\t "
                                            "cmd:  42$")));
    KTRACE << "cmd: " << 42;
}

QTEST_GUILESS_MAIN(tst_KorbLog)
#include "tst_korb_log.moc"
