// The real executable: where it runs, and a stop at any moment of the
// start-up or of a configuration rewrite, by a signal (the exit status its
// number) or through the control channel (0).
#include "service/korb_child_process.h"
#include "service/korb_service_controller.h"
#include "support/ws_test_client.h"

#include <QTcpServer>
#include <QtTest>

#include <csignal>

namespace {
QString logText(const QString &dir)
{
    QFile file(QDir(dir).entryInfoList({"*.txt"}).value(0).filePath());
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}
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
        QVERIFY(device.listen(QHostAddress::LocalHost) && RdvTest::writeFile(config, "[domains]\n"));
        const QString port = RdvTest::freePort();
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
            QVERIFY(RdvTest::writeFile(config, "[domains]\nhost=127.0.0.1\n"));
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
};

QTEST_GUILESS_MAIN(tst_KorbMainRdvStreamer)
#include "tst_korbmain_rdv_streamer.moc"
