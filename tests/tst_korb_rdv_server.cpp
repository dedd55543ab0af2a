// The streamer object: its stop sequence, pause, the UDP receiver opened once.
#include "logger/korb_log.h"
#include "logger/korb_logger_light.h"
#include "src/korb_env.h"
#include "src/korb_rdv_assembly.h"
#include "src/korb_rdv_server.h"
#include "src/korb_rdv_settings.h"
#include "src/korb_rdv_wsserver.h"
#include "support/ws_test_client.h"

#include <QtTest>

using RdvTest::freePort;

namespace {
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
    }

    void stopSequence_data()
    {
        QTest::addColumn<bool>("end"); // end() rather than halt()
        QTest::newRow("halt()") << false;
        QTest::newRow("end()") << true;
    }

    void stopSequence()
    {
        QFETCH(bool, end);
        QScopedPointer<KorbRdvStreamer> s(streamer({"-nofile"}));
        QSignalSpy finished(s.data(), &KorbRdvStreamer::finished);
        for (int i = 0; i < 3; ++i)
            KLOGF(nullptr, 1, QStringLiteral("повтор"));
        end ? s->end() : s->halt();
        // The folded repeats reach the log before the application quits.
        QVERIFY(!KorbLoggerLight::instance()->hasAccumulated());
        QTRY_VERIFY(!finished.isEmpty());
    }

    void startPauseAndUdpReceiver()
    {
        // One UDP port alone opens no receiver; both do, once.
        QScopedPointer<KorbRdvStreamer> one(streamer({"-udp1=" + freePort(true), "-addr=127.0.0.1:1"}));
        QVERIFY(one->init() && !one->assembly()->udpReceiver());
        one.reset();
        QScopedPointer<KorbRdvStreamer> s(
            streamer({"-udp1=" + freePort(true), "-udp2=" + freePort(true), "-addr=127.0.0.1:1"}));
        QVERIFY(s->init());
        const auto *udp = s->assembly()->udpReceiver();
        QVERIFY(udp && s->createConnect()); // a second call opens no second receiver
        QCOMPARE(s->assembly()->udpReceiver(), udp);
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
