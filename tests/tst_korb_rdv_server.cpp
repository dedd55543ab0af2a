// The streamer object: what its command line settles, the functions the log
// lines of start-up and stop name, pause, the UDP receiver opened once.
#include "logger/korb_log.h"
#include "logger/korb_logger_light.h"
#include "src/korb_env.h"
#include "src/korb_rdv_server.h"
#include "src/korb_rdv_settings.h"
#include "src/korb_rdv_wsserver.h"
#include "support/ws_test_client.h"

#include <QtTest>

using RdvTest::freePort;

namespace {
QString logText()
{
    QFile f(KorbLoggerLight::instance()->currentFilePath());
    return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()) : QString();
}

// On a free port unless the options name one.
KorbRdvStreamer *streamer(QStringList options)
{
    if (!options.contains("-p"))
        options << "-p" << freePort();
    return new KorbRdvStreamer(nullptr, false, QStringList("KorbRdv_streamer") + options);
}
} // namespace

class tst_KorbRdvServer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        Korb::setAppDir(m_tmp.filePath("bin"));
        KorbLoggerLight::instance()->setLogDir(m_tmp.filePath("logs"));
        QFile(m_tmp.filePath("rec.bin")).open(QIODevice::WriteOnly);
    }

    void options_data()
    {
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<QString>("settled"); // as options() writes it
        const QString rec = m_tmp.filePath("rec.bin");
        // clang-format off
        QTest::newRow("defaults") << QStringList{"-p", "0"} << "port=3005 interval=50 udp=0,0 device=127.0.0.1:3005 clients=1024 replay=";
        QTest::newRow("-p 0x10 hexadecimal, ff too") << QStringList{"-p", "0x10", "-p", "ff"} << "port=255";
        QTest::newRow("-interval_ms=1 refused") << QStringList{"-interval_ms=1"} << "interval=50";
        QTest::newRow("one UDP port alone is cleared") << QStringList{"-udp1=5000"} << "udp=0,0";
        QTest::newRow("both UDP ports; 65535 refused") << QStringList{"-udp1=5000", "-udp2=65535", "-udp2=5001"} << "udp=5000,5001";
        QTest::newRow("device: bracketed IPv6 with port; client limit, 0 refused") << QStringList{"-addr=[::1]:4001", "-max_clients=5", "-max_clients=0"} << "device=::1:4001 clients=5";
        QTest::newRow("-file= of nothing, then of a file") << QStringList{"-file=" + rec + "x", "-file=" + rec} << "replay=" + rec;
        // clang-format on
    }

    void options()
    {
        QFETCH(QStringList, options);
        QFETCH(QString, settled);
        Korb::sendIntervalMs = Korb::DefaultSendIntervalMs;
        QScopedPointer<KorbRdvStreamer> s(streamer(options));
        const QString all =
            QStringList{"port=" + QString::number(s->port()),
                        "interval=" + QString::number(Korb::sendIntervalMs),
                        QStringLiteral("udp=%1,%2").arg(s->udpPort1()).arg(s->udpPort2()),
                        QStringLiteral("device=%1:%2").arg(s->deviceHost()).arg(s->devicePort()),
                        "clients=" + QString::number(s->server()->maxClients()),
                        "replay=" + (s->replay() ? s->replayFile() : QString()),
                        ""}
                .join(' ');
        for (const QString &item : settled.split(' '))
            QVERIFY2(all.contains(item + ' '), qPrintable(item + " not in " + all));
    }

    void stopSequence_data()
    {
        QTest::addColumn<QString>("first"); // the function as the log line names it, and its first line
        QTest::newRow("halt()") << "halt() server: приступил к останову приложения";
        QTest::newRow("end()") << "end() server: приступил к останову постов";
    }

    void stopSequence()
    {
        QFETCH(QString, first);
        KorbLoggerLight::instance()->setLoggerName(QTest::currentDataTag());
        QScopedPointer<KorbRdvStreamer> s(streamer({"-nofile"}));
        QSignalSpy finished(s.data(), &KorbRdvStreamer::finished);
        for (int i = 0; i < 3; ++i)
            KLOGF(nullptr, 1, QStringLiteral("повтор"));
        QElapsedTimer t;
        t.start();
        first.startsWith("end") ? s->end() : s->halt();
        QTRY_VERIFY(!finished.isEmpty());
        QVERIFY2(t.elapsed() >= 50, "two steps of 25 ms");
        // The sequence's lines name its function; the repeats are flushed.
        QVERIFY2(logText().contains(first), qPrintable(logText()));
        QVERIFY(!KorbLoggerLight::instance()->hasAccumulated());
    }

    void startPauseAndUdpReceiver()
    {
        QScopedPointer<KorbRdvStreamer> s(
            streamer({"-udp1=" + freePort(true), "-udp2=" + freePort(true), "-addr=127.0.0.1:1"}));
        QVERIFY(s->init());
        const auto *udp = s->udpReceiver();
        QVERIFY(udp && s->createConnect()); // a second call opens no second receiver
        QCOMPARE(s->udpReceiver(), udp);
        QFile pid(s->pidFilePath());
        QVERIFY(pid.open(QIODevice::ReadOnly) &&
                pid.readAll().trimmed().toLongLong() == QCoreApplication::applicationPid());
        s->pause();
        QVERIFY(!pid.exists());
    }

private:
    QTemporaryDir m_tmp;
};

QTEST_GUILESS_MAIN(tst_KorbRdvServer)
#include "tst_korb_rdv_server.moc"
