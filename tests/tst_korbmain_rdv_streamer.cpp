// The real executable: where it runs, and a stop at any moment of the start-up or of a configuration rewrite,
// by a signal (the exit status its number) or through the control channel (0).
#include "service/korb_child_process.h"
#include "service/korb_service_controller.h"
#include "support/rdv_test_encoder.h"
#include "support/tiny_tmpfs.h"
#include "support/ws_test_client.h"

#include <QTcpServer>
#include <QUdpSocket>
#include <QWebSocket>
#include <QtTest>

#include <csignal>

using namespace RdvTest;

namespace {
QString logText(const QString &dir)
{
    return QString::fromUtf8(readFile(QDir(dir).entryInfoList({"*.txt"}).value(0).filePath()));
}

// A relay with a UDP device on two free ports, its log in `logs`.
struct UdpRelay
{
    UdpRelay(const QString &logs, const QStringList &options)
    {
        arguments =
            QStringList{"-e", "-n", "udp" + port, "-p", port, "-ld", logs, "-nofile", "-addr=127.0.0.1:1"}
            << "-udp1=" + udp1 << "-udp2=" + udp2 << options;
        QObject::connect(&client, &QWebSocket::binaryMessageReceived,
                         [this](const QByteArray &packet) { packets << packet; });
    }
    // Its WebSocket port takes a client, and with `udp` its UDP ports are bound.
    bool up(bool udp = true)
    {
        if (client.state() == QAbstractSocket::UnconnectedState)
            client.open(QUrl("ws://127.0.0.1:" + port));
        QUdpSocket probe1, probe2;
        return client.isValid() && (!udp || (!probe1.bind(QHostAddress::LocalHost, udp1.toUShort()) &&
                                             !probe2.bind(QHostAddress::LocalHost, udp2.toUShort())));
    }
    // The next full-size frame of group 1, 60 ms after the one before, to the first port.
    void send()
    {
        sent << frame(channel(1, 60 * sent.size(), 13000));
        device.writeDatagram(datagram(quint32(sent.size()), sent.last()), QHostAddress::LocalHost,
                             udp1.toUShort());
    }
    const QString port = freePort(), udp1 = freePort(true), udp2 = freePort(true);
    QStringList arguments;
    QProcess process;
    QWebSocket client;
    QByteArrayList packets, sent;
    QUdpSocket device;
};
} // namespace

class tst_KorbMainRdvStreamer : public QObject
{
    Q_OBJECT

private slots:
    void stopEndsCleanly_data()
    {
        QTest::addColumn<int>("signal"); // 0: "terminate" through the control channel, as the service process
        QTest::addColumn<int>("afterMs"); // -1: once running; else after the device connection or the rewrite
        QTest::addColumn<bool>("rewrite");
        // Right after the port opens the handler may block in library code.
        QTest::newRow("SIGTERM") << int(SIGTERM) << -1 << false;
        QTest::newRow("SIGINT in start-up") << int(SIGINT) << 0 << false;
        // The device connection comes up right before the configuration is read,
        // and the reading's pause runs the control channel; a rewrite of the file
        // opens the same window again. KORB_STOP_REPEAT runs the sweep again.
        const int repeat = qMax(1, qEnvironmentVariableIntValue("KORB_STOP_REPEAT"));
        for (int round = 1; round <= repeat; ++round) {
            for (int ms = 0; ms <= 600; ms += 60)
                QTest::addRow("round %d, %d ms after the device connection", round, ms) << 0 << ms << false;
            for (int ms : {0, 150, 300})
                QTest::addRow("round %d, %d ms after a configuration rewrite", round, ms) << 0 << ms << true;
        }
    }

    void stopEndsCleanly()
    {
        QFETCH(int, signal);
        QFETCH(int, afterMs);
        QFETCH(bool, rewrite);
        QTcpServer device;
        QTemporaryDir dir;
        const QString config = dir.filePath("relay.ini");
        QVERIFY(device.listen(QHostAddress::LocalHost) && writeFile(config, "[domains]\n"));
        const QString port = freePort();
        const QString name = QStringLiteral("stop%1x%2").arg(port).arg(QCoreApplication::applicationPid());
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        if (!signal)
            environment.insert(KorbChildProcess::RunVariable, "1"); // the service process
        QProcess relay;
        relay.setProcessEnvironment(environment);
        // A signal's in the foreground. The port names the instance lock; "-nofile" counts as "-n" too.
        const QString addr = QStringLiteral("-addr=127.0.0.1:%1").arg(device.serverPort());
        const QStringList arguments{"-n", name, "-p", port, "-ld", dir.path(), addr};
        relay.start(KORB_STREAMER_BIN, signal ? QStringList("-e") + arguments << "-nofile"
                                              : arguments + QStringList{"-cfg", config});
        if (signal) // right after start-up the port is taken; running, the sources are up too
            QTRY_VERIFY_WITH_TIMEOUT(
                afterMs < 0 ? logText(dir.path()).contains(QStringLiteral("установлен интервал отправки: 50"))
                            : !QTcpServer().listen(QHostAddress::Any, port.toUShort()),
                15000);
        else
            QVERIFY(device.waitForNewConnection(15000));
        QElapsedTimer since;
        since.start();
        if (rewrite) {
            // The watcher exists once the first reading has closed its separators.
            QTRY_VERIFY_WITH_TIMEOUT(logText(dir.path()).count(QString(40, '~')) >= 2, 10000);
            QVERIFY(writeFile(config, "[domains]\nhost=127.0.0.1\n"));
            since.restart();
        }
        QTest::qWait(int(qMax<qint64>(0, afterMs - since.elapsed()))); // the moment is what is tested
        if (signal) // the application directory is the current one, the configuration's while it is read
            QCOMPARE(QFileInfo(QStringLiteral("/proc/%1/cwd").arg(relay.processId())).symLinkTarget(),
                     QFileInfo(KORB_STREAMER_BIN).absolutePath());
        if (signal)
            ::kill(pid_t(relay.processId()), signal);
        else
            QVERIFY(KorbServiceController(name).sendCommand(QStringLiteral("terminate")));
        QVERIFY(relay.waitForFinished(15000));
        QCOMPARE(relay.exitStatus(), QProcess::NormalExit);
        QCOMPARE(relay.exitCode(), signal);
        QVERIFY(!QFileInfo::exists(KorbServiceController::socketPath(name)));
    }

    // A disk that runs full costs what was being written, with one line, never a packet: the clients get
    // every frame the device sends while the recording's folder, the dumps' (at a buf:) or the log's is a
    // tiny file system that fills up.
    void fullDiskCostsNoPacket_data()
    {
        QTest::addColumn<QString>("folder"); // on the tiny file system
        QTest::addColumn<QString>("line");   // once, in the log or, for the log's folder, on the console
        // clang-format off
        QTest::newRow("recording") << "rec" << "остановлена";
        QTest::newRow("a buf: dump") << "tmp" << "не записан";
        QTest::newRow("the log") << "logs" << "ошибка записи в файл";
        // clang-format on
    }

    void fullDiskCostsNoPacket()
    {
        QFETCH(QString, folder);
        QFETCH(QString, line);
        if (!TinyTmpfs::unavailableReason().isEmpty())
            QSKIP(qPrintable(TinyTmpfs::unavailableReason()));
        QTemporaryDir dir;
        const QString dumps = QDir::cleanPath(QFileInfo(KORB_STREAMER_BIN).absolutePath() + "/../tmp");
        QVERIFY(QDir().mkpath(dumps) && QDir(dir.path()).mkpath("rec") && QDir(dir.path()).mkpath("logs"));
        const QString tiny = folder == "tmp" ? dumps : dir.filePath(folder);
        UdpRelay relay(dir.filePath("logs"), {"-record=" + dir.filePath("rec")});
        // The log's folder is full from the start; 64 KiB leave room for the pid file, not for the frames.
        TinyTmpfs::start(relay.process, {{tiny, folder == "logs" ? 0 : 64}}, KORB_STREAMER_BIN,
                         relay.arguments);
        QTRY_VERIFY_WITH_TIMEOUT(relay.up(), 15000);
        QByteArrayList expected;
        for (int i = 0; i < 8; ++i) {
            relay.send();
            if (i == 4)
                relay.client.sendTextMessage("buf:");
            // A frame completes when the next one opens; the first only starts the clock.
            if (i >= 2)
                expected << channelPacket({relay.sent[i - 1]});
            QTRY_COMPARE(relay.packets, expected);
        }
        QString console;
        const auto said = [&] {
            console += QString::fromUtf8(relay.process.readAllStandardError());
            return folder == "logs" ? console : logText(dir.filePath("logs"));
        };
        QTRY_COMPARE(said().count(line), 1); // the writer's thread may still be at it
        const QDir seen(TinyTmpfs::seenBy(relay.process, tiny));
        if (folder == "tmp") // the cut dump went, the pid file stays
            QVERIFY(seen.entryList({"zz-*"}).isEmpty() && !seen.entryList({"*.pid"}).isEmpty());
        if (folder == "rec") // the recording holds whole frames
            QVERIFY(seen.entryInfoList(QDir::Files).value(0).size() % relay.sent[0].size() == 0);
        relay.process.kill();
        QVERIFY(relay.process.waitForFinished(10000));
    }

    // Killed outright while it records, the relay leaves a file of the frames
    // it took (the last perhaps cut short), which a replay of the folder plays.
    void killedRecordingReplays()
    {
        QTemporaryDir dir;
        const QString rec = dir.filePath("rec");
        const auto recorded = [&rec] {
            return readFile(QDir(rec).entryInfoList({"*.rdv"}, QDir::Files).value(0).filePath());
        };
        UdpRelay relay(dir.path(), {"-record=" + rec});
        relay.process.start(KORB_STREAMER_BIN, relay.arguments);
        QTRY_VERIFY_WITH_TIMEOUT(relay.up(), 15000);
        // The device sends on (a pause of 550 ms would end its burst) while the recording grows.
        QTimer device;
        QObject::connect(&device, &QTimer::timeout, [&relay] { relay.send(); });
        device.start(20);
        const int frameSize = frame(channel(1, 0, 13000)).size();
        QTRY_VERIFY_WITH_TIMEOUT(recorded().size() >= 10 * frameSize, 10000);
        ::kill(pid_t(relay.process.processId()), SIGKILL);
        device.stop();
        QVERIFY(relay.process.waitForFinished(10000));
        const QByteArray file = recorded();
        const int frames = file.size() / frameSize;
        QVERIFY(frames >= 10 && relay.sent.join().startsWith(file));

        UdpRelay player(dir.path(), {"-file=" + rec});
        player.process.start(KORB_STREAMER_BIN, player.arguments);
        QTRY_VERIFY_WITH_TIMEOUT(player.up(false), 15000);
        QTRY_VERIFY_WITH_TIMEOUT(player.packets.size() >= frames, 15000);
        for (int i = 0; i < frames; ++i)
            QVERIFY2(player.packets[i] == channelPacket({relay.sent[i]}), qPrintable(QString::number(i)));
        player.process.kill();
        QVERIFY(player.process.waitForFinished(10000));
    }
};

QTEST_GUILESS_MAIN(tst_KorbMainRdvStreamer)
#include "tst_korbmain_rdv_streamer.moc"
