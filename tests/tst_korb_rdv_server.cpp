// The streamer object: its command line, defaults, the single-instance lock,
// the stop sequence, pause and the configuration watcher.
#include "logger/korb_log.h"
#include "logger/korb_logger_light.h"
#include "src/korb_env.h"
#include "src/korb_rdv_server.h"
#include "src/korb_rdv_settings.h"
#include "src/korb_rdv_udp_cli.h"
#include "src/korb_rdv_wsserver.h"

#include <QFile>
#include <QFileSystemWatcher>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QUdpSocket>
#include <QtTest>

namespace {
// A port nobody listens on right now, for the WebSocket server under test.
quint16 freePort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort();
}

QStringList args(const QStringList &rest)
{
    return QStringList{QStringLiteral("KorbRdv_streamer")} + rest;
}

QString logText()
{
    QFile f(KorbLoggerLight::instance()->currentFilePath());
    f.open(QIODevice::ReadOnly);
    return QString::fromUtf8(f.readAll());
}
} // namespace

class tst_KorbRdvServer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void portOption_data();
    void portOption();
    void attachedOptions_data();
    void attachedOptions();
    void wholeWordOptions_data();
    void wholeWordOptions();
    void replayFileNeedsAnExistingFile();
    void secondInstanceOnSamePortIsRefused();
    void stopSequenceTakesTwoSteps();
    void haltFlushesOnlyRepeatedRecords();
    void createConnectOpensUdpOnce();
    void pauseRemovesPidFile();
    void configWatcher();
    void configPauseSurvivesDeletion();

private:
    QTemporaryDir m_tmp;
};

void tst_KorbRdvServer::initTestCase()
{
    QVERIFY(m_tmp.isValid());
    QDir().mkpath(m_tmp.filePath(QStringLiteral("bin")));
    Korb::setAppDir(m_tmp.filePath(QStringLiteral("bin")));
}

void tst_KorbRdvServer::init()
{
    Korb::logThreshold = 2;
    Korb::sendIntervalMs = Korb::DefaultSendIntervalMs;
    KorbLoggerLight::instance()->setLogDir(m_tmp.filePath(QStringLiteral("logs")));
    KorbLoggerLight::instance()->setLoggerName(QString::fromLatin1(QTest::currentTestFunction()));
    KorbLoggerLight::instance()->resetFilter();
    QFile::remove(KorbLoggerLight::instance()->currentFilePath());
}

void tst_KorbRdvServer::portOption_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<int>("port");
    const quint16 p = freePort();
    QTest::newRow("no -p gives 3005") << QStringList() << 3005;
    QTest::newRow("-p 1 gives 3005") << QStringList{"-p", "1"} << 3005;
    QTest::newRow("-p 0 gives 3005") << QStringList{"-p", "0"} << 3005;
    QTest::newRow("-p 0x10 is hexadecimal") << QStringList{"-p", "0x10"} << 16;
    QTest::newRow("-p 65534 gives 3005") << QStringList{"-p", "65534"} << 3005;
    QTest::newRow("-p 65533 is kept") << QStringList{"-p", "65533"} << 65533;
    QTest::newRow("-p ff falls back to hexadecimal") << QStringList{"-p", "ff"} << 255;
    QTest::newRow("-p zz converts in neither base") << QStringList{"-p", "zz"} << 3005;
    QTest::newRow("-P in upper case counts") << QStringList{"-P", QString::number(p)} << int(p);
    QTest::newRow("-p without value takes none") << QStringList{"-p", "-nofile"} << 3005;
}

void tst_KorbRdvServer::portOption()
{
    QFETCH(QStringList, options);
    QFETCH(int, port);
    KorbRdvStreamer s(nullptr, false, args(options));
    QCOMPARE(int(s.port()), port);
}

void tst_KorbRdvServer::attachedOptions_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<int>("interval");
    QTest::addColumn<int>("udp1");
    QTest::addColumn<int>("udp2");
    QTest::addColumn<QString>("host");
    QTest::addColumn<int>("devicePort");
    QTest::addColumn<int>("maxClients");
    QTest::newRow("defaults") << QStringList() << 50 << 0 << 0 << "127.0.0.1" << 3005 << 1024;
    QTest::newRow("interval 1 is refused")
        << QStringList{"-interval_ms=1"} << 50 << 0 << 0 << "127.0.0.1" << 3005 << 1024;
    QTest::newRow("interval 2 is accepted")
        << QStringList{"-interval_ms=2"} << 2 << 0 << 0 << "127.0.0.1" << 3005 << 1024;
    QTest::newRow("interval not a number")
        << QStringList{"-interval_ms=x"} << 50 << 0 << 0 << "127.0.0.1" << 3005 << 1024;
    QTest::newRow("udp1 alone is cleared")
        << QStringList{"-udp1=5000"} << 50 << 0 << 0 << "127.0.0.1" << 3005 << 1024;
    QTest::newRow("both udp ports enable udp")
        << QStringList{"-udp1=5000", "-udp2=5001"} << 50 << 5000 << 5001 << "127.0.0.1" << 3005 << 1024;
    QTest::newRow("udp2 65535 is refused")
        << QStringList{"-udp1=5000", "-udp2=65535"} << 50 << 0 << 0 << "127.0.0.1" << 3005 << 1024;
    QTest::newRow("address without port")
        << QStringList{"-addr=127.0.0.2"} << 50 << 0 << 0 << "127.0.0.2" << 3005 << 1024;
    QTest::newRow("address with port")
        << QStringList{"-addr=127.0.0.1:4000"} << 50 << 0 << 0 << "127.0.0.1" << 4000 << 1024;
    QTest::newRow("bracketed ipv6 with port")
        << QStringList{"-addr=[::1]:4001"} << 50 << 0 << 0 << "::1" << 4001 << 1024;
    QTest::newRow("bare ipv6") << QStringList{"-addr=::1"} << 50 << 0 << 0 << "::1" << 3005 << 1024;
    QTest::newRow("client limit") << QStringList{"-max_clients=5"} << 50 << 0 << 0 << "127.0.0.1" << 3005
                                  << 5;
    QTest::newRow("client limit 0 is refused")
        << QStringList{"-max_clients=0"} << 50 << 0 << 0 << "127.0.0.1" << 3005 << 1024;
}

void tst_KorbRdvServer::attachedOptions()
{
    QFETCH(QStringList, options);
    QFETCH(int, interval);
    QFETCH(int, udp1);
    QFETCH(int, udp2);
    QFETCH(QString, host);
    QFETCH(int, devicePort);
    QFETCH(int, maxClients);
    KorbRdvStreamer s(nullptr, false, args(options + QStringList{"-p", QString::number(freePort())}));
    QCOMPARE(int(Korb::sendIntervalMs), interval);
    QCOMPARE(int(s.udpPort1()), udp1);
    QCOMPARE(int(s.udpPort2()), udp2);
    QCOMPARE(s.deviceHost(), host);
    QCOMPARE(int(s.devicePort()), devicePort);
    QCOMPARE(s.server()->maxClients(), maxClients);
}

void tst_KorbRdvServer::wholeWordOptions_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<int>("threshold");
    QTest::addColumn<bool>("noFile");
    QTest::addColumn<QString>("cfgSuffix");
    QTest::newRow("-lt 4") << QStringList{"-lt", "4"} << 4 << false << "/etc/KorbRdv_streamer.ini";
    QTest::newRow("-lt abc sets 0") << QStringList{"-lt", "abc"} << 0 << false << "/etc/KorbRdv_streamer.ini";
    QTest::newRow("-NOFILE in any case")
        << QStringList{"-NOFILE"} << 2 << true << "/etc/KorbRdv_streamer.ini";
    QTest::newRow("-cfg relative goes to ../etc")
        << QStringList{"-cfg", "my.ini"} << 2 << false << "/etc/my.ini";
    QTest::newRow("-cfg -x takes no value, -x is an option")
        << QStringList{"-cfg", "-nofile"} << 2 << true << "/etc/KorbRdv_streamer.ini";
}

void tst_KorbRdvServer::wholeWordOptions()
{
    QFETCH(QStringList, options);
    QFETCH(int, threshold);
    QFETCH(bool, noFile);
    QFETCH(QString, cfgSuffix);
    KorbRdvStreamer s(nullptr, false, args(options + QStringList{"-p", QString::number(freePort())}));
    QCOMPARE(Korb::logThreshold, threshold);
    QCOMPARE(s.noFile(), noFile);
    QCOMPARE(s.configFile(), QDir(m_tmp.path()).absolutePath() + cfgSuffix);
}

void tst_KorbRdvServer::replayFileNeedsAnExistingFile()
{
    const QString file = m_tmp.filePath(QStringLiteral("rec.bin"));
    {
        QFile f(file);
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.write("x");
    }
    const QString p = QString::number(freePort());
    KorbRdvStreamer missing(nullptr, false, args({"-p", p, "-file=" + file + ".none"}));
    QVERIFY(!missing.replay());
    KorbRdvStreamer present(nullptr, false, args({"-p", QString::number(freePort()), "-file=" + file}));
    QVERIFY(present.replay());
    QCOMPARE(present.replayFile(), QFileInfo(file).absoluteFilePath());
}

void tst_KorbRdvServer::secondInstanceOnSamePortIsRefused()
{
    const QString p = QString::number(freePort());
    KorbRdvStreamer first(nullptr, false, args({"-p", p}));
    QVERIFY(first.locked());
    KorbRdvStreamer second(nullptr, false, args({"-p", p}));
    QVERIFY(!second.locked());
    QVERIFY(logText().contains(QStringLiteral("уже запущен")));
}

void tst_KorbRdvServer::stopSequenceTakesTwoSteps()
{
    KorbRdvStreamer s(nullptr, false, args({"-p", QString::number(freePort()), "-nofile"}));
    QSignalSpy finished(&s, &KorbRdvStreamer::finished);
    QElapsedTimer t;
    t.start();
    s.halt();
    QVERIFY(finished.isEmpty());
    QTRY_COMPARE(finished.count(), 1);
    QVERIFY2(t.elapsed() >= 50, qPrintable(QString::number(t.elapsed())));
    const QString log = logText();
    QVERIFY(log.contains(QStringLiteral("приступил к останову приложения")));
    QVERIFY(log.contains(QStringLiteral("к останову приложения готов")));
    QVERIFY(log.contains(QStringLiteral("остановка приложения")));
    QVERIFY(log.contains(QString(133, QLatin1Char('-'))));
}

void tst_KorbRdvServer::haltFlushesOnlyRepeatedRecords()
{
    KorbRdvStreamer s(nullptr, false, args({"-p", QString::number(freePort()), "-nofile"}));
    s.halt();
    QString log = logText();
    QVERIFY(!log.contains(QStringLiteral("сбросить в лог накопившиеся сообщения")));
    QVERIFY(!log.contains(QStringLiteral("фильтр сообщений сброшен")));
    for (int i = 0; i < 3; ++i)
        KLOGF(nullptr, 1, QStringLiteral("повтор"));
    s.halt();
    log = logText();
    QVERIFY(log.contains(QStringLiteral("сбросить в лог накопившиеся сообщения")));
    QVERIFY(log.contains(QStringLiteral("повтор (серия из 2)")));
    QVERIFY(log.contains(QStringLiteral("фильтр сообщений сброшен")));
    QVERIFY(!KorbLoggerLight::instance()->hasAccumulated());
}

void tst_KorbRdvServer::createConnectOpensUdpOnce()
{
    QUdpSocket a, b;
    QVERIFY(a.bind(QHostAddress(QHostAddress::LocalHost), 0));
    QVERIFY(b.bind(QHostAddress(QHostAddress::LocalHost), 0));
    const QString p1 = QString::number(a.localPort()), p2 = QString::number(b.localPort());
    a.close();
    b.close();
    KorbRdvStreamer s(nullptr, false,
                      args({"-p", QString::number(freePort()), "-nofile", "-udp1=" + p1, "-udp2=" + p2}));
    QVERIFY(s.createConnect());
    KorbRdvStreamerUdp *first = s.udpReceiver();
    QVERIFY(first);
    QCOMPARE(s.udpPort1(), quint16(0));
    QVERIFY(s.createConnect());
    QCOMPARE(s.udpReceiver(), first);
}

void tst_KorbRdvServer::pauseRemovesPidFile()
{
    KorbRdvStreamer s(nullptr, false, args({"-p", QString::number(freePort()), "-nofile"}));
    QVERIFY(s.init());
    const QString pid = s.pidFilePath();
    QVERIFY(pid.endsWith(QStringLiteral("/KorbRdv_streamer-%1.pid").arg(s.port())));
    QFile f(pid);
    QVERIFY(f.open(QIODevice::ReadOnly));
    QCOMPARE(f.readAll().trimmed().toLongLong(), QCoreApplication::applicationPid());
    f.close();
    s.pause();
    QVERIFY(!QFile::exists(pid));
    s.pause(); // a missing pid file is not an error
    QVERIFY(logText().contains(QStringLiteral("инициализация завершена")));
}

void tst_KorbRdvServer::configWatcher()
{
    const QString device = QStringLiteral("-addr=127.0.0.1:%1").arg(freePort());
    KorbRdvStreamer s(nullptr, false, args({"-p", QString::number(freePort()), "-cfg", "watch.ini", device}));
    const QString cfg = s.configFile();
    {
        QFile f(cfg);
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.write("[domains]\nhost=127.0.0.1\n");
    }
    // The start-up reads the file once and starts watching it.
    QTRY_VERIFY(s.configWatcher());
    QCOMPARE(s.configWatcher()->files(), QStringList{cfg});
    QCOMPARE(logText().count(QStringLiteral("считываются локальные ip-адреса и файл конфигурации")), 1);
    QCOMPARE(logText().count(QString(133, QLatin1Char('~'))), 2);

    // A second reading keeps the one watcher.
    QFileSystemWatcher *watcher = s.configWatcher();
    s.iniR(QString());
    QCOMPARE(s.configWatcher(), watcher);
    QCOMPARE(s.configWatcher()->files(), QStringList{cfg});
    QCOMPARE(logText().count(QStringLiteral("считываются локальные ip-адреса и файл конфигурации")), 2);

    // An edit of the file runs the reading again with the file's path.
    {
        QFile f(cfg);
        QVERIFY(f.open(QIODevice::Append));
        f.write("x=1\n");
    }
    QTRY_VERIFY_WITH_TIMEOUT(logText().contains(QStringLiteral("конфигурационный файл был изменен")), 5000);

    s.setReadingSuppressed(true);
    const QString before = logText();
    s.iniR(QString());
    QCOMPARE(logText(), before);
}

void tst_KorbRdvServer::configPauseSurvivesDeletion()
{
    const QString device = QStringLiteral("-addr=127.0.0.1:%1").arg(freePort());
    QPointer<KorbRdvStreamer> s =
        new KorbRdvStreamer(nullptr, false, args({"-p", QString::number(freePort()), device}));
    QTRY_VERIFY(s->configWatcher()); // start-up is over
    const int before = logText().size();
    // An event of the pause deletes the streamer: the reading ends there,
    // without its closing separator and without touching the object.
    QTimer::singleShot(50, s, &QObject::deleteLater);
    s->iniR(QString());
    QVERIFY(s.isNull());
    QCOMPARE(logText().mid(before).count(QString(133, QLatin1Char('~'))), 1);
}

QTEST_GUILESS_MAIN(tst_KorbRdvServer)
#include "tst_korb_rdv_server.moc"
