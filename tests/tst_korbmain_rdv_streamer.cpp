// The real executable end to end: instance-name rule, foreground run, pid
// file, signals, a stop through the control channel at any moment, a second
// instance, and frames from a UDP or TCP device reaching a WebSocket client
// byte-exact.
#include "support/rdv_test_encoder.h"
#include "support/streamer_process.h"

#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QUdpSocket>
#include <QWebSocket>
#include <QtEndian>
#include <QtTest>

#include <csignal>

namespace {
// A UDP datagram of the device: 8-byte header (length, spare, sequence), then data.
QByteArray datagram(quint32 sequence, const QByteArray &data)
{
    QByteArray d(8, '\0');
    qToLittleEndian<quint16>(quint16(8 + data.size()), d.data());
    qToLittleEndian<quint32>(sequence, d.data() + 4);
    return d + data;
}

// Closes the configuration reading's log lines before and after its pause.
const QString ReadingSeparator(133, QLatin1Char('~'));

bool connectClient(QWebSocket &ws, const QString &url)
{
    QSignalSpy connected(&ws, &QWebSocket::connected);
    ws.open(QUrl(url));
    return connected.wait(5000) || ws.state() == QAbstractSocket::ConnectedState;
}
} // namespace

class tst_KorbMainRdvStreamer : public QObject
{
    Q_OBJECT

private slots:
    void instanceNameRule_data();
    void instanceNameRule();
    void foregroundRunWritesPidFileAndServes();
    void sigtermHaltsAndExitsWithSignalNumber_data();
    void sigtermHaltsAndExitsWithSignalNumber();
    void signalDuringStartUpNeverHangs();
    void terminateAtAnyMomentExitsCleanly_data();
    void terminateAtAnyMomentExitsCleanly();
    void secondInstanceOnSamePortFails();
    void udpFramesReachClients();
    void tcpFramesReachClients();
};

void tst_KorbMainRdvStreamer::instanceNameRule_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("name");
    QTest::newRow("-n NAME") << QStringList{"-t", "-n", "KorbNameA"} << "KorbNameA";
    QTest::newRow("-n as the last argument") << QStringList{"-t", "-n"} << "Korb.RDV2";
    QTest::newRow("-N in upper case") << QStringList{"-t", "-N", "abc"} << "abc";
    QTest::newRow("-nofile counts as -n") << QStringList{"-t", "-nofile", "KorbNameB"} << "KorbNameB";
    QTest::newRow("no name at all") << QStringList{"-t"} << "Korb.RDV2";
}

void tst_KorbMainRdvStreamer::instanceNameRule()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, name);
    // -t of an instance that does not run names the instance and fails with -4.
    const StreamerProcess::Result r = StreamerProcess::run(arguments);
    QCOMPARE(r.exitCode, 252);
    QCOMPARE(QString::fromLocal8Bit(r.err), QStringLiteral("The service %1 is not Running\n").arg(name));
}

void tst_KorbMainRdvStreamer::foregroundRunWritesPidFileAndServes()
{
    StreamerProcess relay;
    QString why;
    QVERIFY2(
        relay.start({"-nofile", "-addr=127.0.0.1:" + QString::number(StreamerProcess::freeTcpPort())}, &why),
        qPrintable(why));
    QWebSocket ws;
    QVERIFY(connectClient(ws, relay.url()));
    QSignalSpy replies(&ws, &QWebSocket::textMessageReceived);
    ws.sendTextMessage(QStringLiteral("ims:20"));
    QTRY_COMPARE(replies.count(), 1);
    QCOMPARE(replies.at(0).at(0).toString(), QStringLiteral("ims:20 OK"));

    const QString pidFile = QFileInfo(QStringLiteral(KORB_STREAMER_BIN)).absolutePath() +
                            QStringLiteral("/../tmp/KorbRdv_streamer-%1.pid").arg(relay.port());
    QTRY_VERIFY(QFile::exists(pidFile));
    QFile f(pidFile);
    QVERIFY(f.open(QIODevice::ReadOnly));
    QCOMPARE(f.readAll().trimmed().toLongLong(), relay.process().processId());
    QTRY_VERIFY(relay.logText().contains(QStringLiteral("установлен интервал отправки: 50")));
    const QString log = relay.logText();
    QVERIFY(log.contains(QStringLiteral("| Версия ПО: Korb v.2.9.1.1106")));
    QVERIFY(log.contains(QStringLiteral("Поддержка SSE2:\tДа")));
    QVERIFY(log.contains(QStringLiteral("установлен порог логирования: 2")));
    QVERIFY(log.contains(QStringLiteral("инициализация завершена")));
}

void tst_KorbMainRdvStreamer::sigtermHaltsAndExitsWithSignalNumber_data()
{
    QTest::addColumn<int>("signal");
    QTest::addColumn<QString>("description");
    QTest::newRow("SIGTERM") << int(SIGTERM) << "SIGTERM 'Software termination signal from kill'";
    QTest::newRow("SIGINT") << int(SIGINT) << "SIGINT interrupt";
}

void tst_KorbMainRdvStreamer::sigtermHaltsAndExitsWithSignalNumber()
{
    QFETCH(int, signal);
    QFETCH(QString, description);
    StreamerProcess relay;
    QString why;
    QVERIFY2(
        relay.start({"-nofile", "-addr=127.0.0.1:" + QString::number(StreamerProcess::freeTcpPort())}, &why),
        qPrintable(why));
    // A running relay: start-up is over, so the handler's log line is written.
    QTRY_VERIFY(relay.logText().contains(QStringLiteral("установлен интервал отправки")));
    QCOMPARE(relay.stopWith(signal), signal);
    const QString log = relay.logText();
    QVERIFY2(log.contains(QStringLiteral("handle the signal '%1' - stop programm").arg(description)),
             qPrintable(log));
    QVERIFY(log.contains(QStringLiteral("приступил к останову приложения")));
    QVERIFY(log.contains(QStringLiteral("к останову приложения готов")));
}

void tst_KorbMainRdvStreamer::signalDuringStartUpNeverHangs()
{
    // Right after the port opens the relay is busy starting up (banner,
    // sockets): a signal then lands inside library code, where the handler's
    // own work may block. The process must still end, with the signal
    // number, every time.
    for (int round = 0; round < 6; ++round) {
        StreamerProcess relay;
        QString why;
        QVERIFY2(relay.start(
                     {"-nofile", "-addr=127.0.0.1:" + QString::number(StreamerProcess::freeTcpPort())}, &why),
                 qPrintable(why));
        const int signal = round % 2 ? SIGINT : SIGTERM;
        QCOMPARE(relay.stopWith(signal), signal);
    }
}

void tst_KorbMainRdvStreamer::terminateAtAnyMomentExitsCleanly_data()
{
    QTest::addColumn<int>("afterMs");
    QTest::addColumn<bool>("rewrite");
    // The device connection comes up right before the configuration is read,
    // and the reading's pause runs the control channel; a rewrite of the file
    // opens the same window again. KORB_STOP_REPEAT runs the sweep again.
    const int repeat = qMax(1, qEnvironmentVariableIntValue("KORB_STOP_REPEAT"));
    for (int round = 1; round <= repeat; ++round) {
        for (int ms = 0; ms <= 600; ms += 60)
            QTest::addRow("round %d, %d ms after the device connection", round, ms) << ms << false;
        for (int ms : {0, 150, 300})
            QTest::addRow("round %d, %d ms after a configuration rewrite", round, ms) << ms << true;
    }
}

void tst_KorbMainRdvStreamer::terminateAtAnyMomentExitsCleanly()
{
    QFETCH(int, afterMs);
    QFETCH(bool, rewrite);
    QTcpServer device;
    QVERIFY(device.listen(QHostAddress::LocalHost, 0));
    QTemporaryDir dir;
    const QString config = dir.filePath(QStringLiteral("relay.ini"));
    QFile file(config);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("[domains]\n");
    file.close();

    StreamerProcess relay;
    QString why;
    QVERIFY2(
        relay.startService({"-cfg", config, "-addr=127.0.0.1:" + QString::number(device.serverPort())}, &why),
        qPrintable(why));
    QVERIFY(device.waitForNewConnection(10000));
    QElapsedTimer since;
    since.start();
    if (rewrite) {
        // The watcher exists once the first reading is over.
        QTRY_VERIFY_WITH_TIMEOUT(relay.logText().count(ReadingSeparator) >= 2, 10000);
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write("[domains]\nhost=127.0.0.1\n");
        file.close();
        since.restart();
    }
    QTest::qWait(int(qMax<qint64>(0, afterMs - since.elapsed())));

    ControlClient control;
    QVERIFY(control.connectTo(relay.controlSocketPath()));
    QCOMPARE(control.exchange("terminate\r\n", 4), QByteArray("true"));
    QVERIFY(relay.process().waitForFinished(15000));
    const QString report = relay.sanitizerReport().right(4000);
    QVERIFY2(relay.process().exitStatus() == QProcess::NormalExit, qPrintable(report));
    QVERIFY2(relay.process().exitCode() == 0,
             qPrintable(QStringLiteral("exit %1: ").arg(relay.process().exitCode()) + report));
    QVERIFY(!QFileInfo::exists(relay.controlSocketPath()));
}

void tst_KorbMainRdvStreamer::secondInstanceOnSamePortFails()
{
    StreamerProcess relay;
    QString why;
    QVERIFY2(
        relay.start({"-nofile", "-addr=127.0.0.1:" + QString::number(StreamerProcess::freeTcpPort())}, &why),
        qPrintable(why));
    const StreamerProcess::Result second =
        StreamerProcess::run({"-e", "-n", relay.name() + "b", "-p", QString::number(relay.port()), "-ld",
                              relay.logDir(), "-nofile"});
    QCOMPARE(second.exitCode, 1);
    QVERIFY(relay.logText().contains(QStringLiteral("уже запущен")));
    // The first instance still serves.
    QWebSocket ws;
    QVERIFY(connectClient(ws, relay.url()));
}

void tst_KorbMainRdvStreamer::udpFramesReachClients()
{
    const quint16 p1 = StreamerProcess::freeUdpPort(), p2 = StreamerProcess::freeUdpPort();
    StreamerProcess relay;
    QString why;
    QVERIFY2(relay.start({"-nofile", "-addr=127.0.0.1:" + QString::number(StreamerProcess::freeTcpPort()),
                          "-udp1=" + QString::number(p1), "-udp2=" + QString::number(p2)},
                         &why),
             qPrintable(why));
    QWebSocket ws;
    QVERIFY(connectClient(ws, relay.url()));
    QSignalSpy packets(&ws, &QWebSocket::binaryMessageReceived);
    // Logged after the receiver is bound: datagrams sent before would be lost.
    QTRY_VERIFY(relay.logText().contains(QStringLiteral("установлен интервал отправки")));

    // Group 3 on the second port; a frame is complete when the next one
    // opens, and the first frame only starts the clock of the rate gate.
    QList<RdvTest::FrameSpec> frames;
    for (int i = 0; i < 3; ++i)
        frames << RdvTest::channelFrame(3, 64, 1700000000, quint32(i) * 100000000u);
    QUdpSocket device;
    quint32 seq = 1; // the receiver expects the sequence to start after 0
    for (const RdvTest::FrameSpec &f : frames)
        device.writeDatagram(datagram(seq++, RdvTest::encodeFrame(f)), QHostAddress::LocalHost, p2);

    QTRY_COMPARE_WITH_TIMEOUT(packets.count(), 1, 10000);
    RdvTest::FrameSpec expected = frames.at(1);
    expected.byte16 = 3 + 8; // the second port's groups are numbered 8 higher
    QCOMPARE(packets.at(0).at(0).toByteArray(), RdvTest::expectedChannelPacket({expected}));
}

void tst_KorbMainRdvStreamer::tcpFramesReachClients()
{
    QTcpServer device;
    QVERIFY(device.listen(QHostAddress::LocalHost, 0));
    StreamerProcess relay;
    QString why;
    QVERIFY2(relay.start({"-nofile", "-addr=127.0.0.1:" + QString::number(device.serverPort())}, &why),
             qPrintable(why));
    QVERIFY(device.waitForNewConnection(10000));
    QTcpSocket *link = device.nextPendingConnection();
    QWebSocket ws;
    QVERIFY(connectClient(ws, relay.url()));
    QSignalSpy packets(&ws, &QWebSocket::binaryMessageReceived);

    QList<RdvTest::FrameSpec> frames;
    for (int i = 0; i < 3; ++i)
        frames << RdvTest::singleFrame(100, 1700000000, quint32(i) * 200000000u);
    link->write(RdvTest::encodeStream(frames));
    QVERIFY(link->waitForBytesWritten(5000));

    QTRY_COMPARE_WITH_TIMEOUT(packets.count(), 2, 10000);
    QCOMPARE(packets.at(0).at(0).toByteArray(), RdvTest::expectedSinglePacket(frames.at(1)));
    QCOMPARE(packets.at(1).at(0).toByteArray(), RdvTest::expectedSinglePacket(frames.at(2)));
}

QTEST_GUILESS_MAIN(tst_KorbMainRdvStreamer)
#include "tst_korbmain_rdv_streamer.moc"
