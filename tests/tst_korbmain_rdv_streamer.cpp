// The real executable: where it runs, the exit status a signal leaves, also
// right after start-up, and a stop through the control channel at any moment
// of the start-up or of a configuration rewrite.
#include "service/korb_child_process.h"
#include "service/korb_service_controller.h"
#include "support/ws_test_client.h"

#include <QLocalSocket>
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
    void signalEndsWithItsNumber_data()
    {
        QTest::addColumn<int>("signal");
        QTest::addColumn<bool>(
            "running"); // else right after the port opens: the handler may block in library code
        QTest::newRow("SIGTERM") << int(SIGTERM) << true;
        QTest::newRow("SIGINT in start-up") << int(SIGINT) << false;
    }

    void signalEndsWithItsNumber()
    {
        QFETCH(int, signal);
        QFETCH(bool, running);
        QTcpServer device; // the device only listens
        QVERIFY(device.listen(QHostAddress::LocalHost));
        const QString port = RdvTest::freePort();
        QTemporaryDir logs;
        QProcess relay;
        // The name comes first: "-nofile" counts as "-n" too. The port names the instance lock.
        relay.start(KORB_STREAMER_BIN, {"-e", "-n", "e2e" + port, "-p", port, "-ld", logs.path(), "-nofile",
                                        QStringLiteral("-addr=127.0.0.1:%1").arg(device.serverPort())});
        // Right after start-up the port is taken; running, the sources are up too.
        QTRY_VERIFY_WITH_TIMEOUT(
            running ? logText(logs.path()).contains(QStringLiteral("установлен интервал отправки: 50"))
                    : !QTcpServer().listen(QHostAddress::Any, port.toUShort()),
            15000);
        // The application directory is the current one.
        QCOMPARE(QFileInfo(QStringLiteral("/proc/%1/cwd").arg(relay.processId())).symLinkTarget(),
                 QFileInfo(KORB_STREAMER_BIN).absolutePath());
        ::kill(pid_t(relay.processId()), signal);
        QTRY_VERIFY_WITH_TIMEOUT(relay.state() == QProcess::NotRunning, 10000);
        QCOMPARE(relay.exitStatus(), QProcess::NormalExit);
        QCOMPARE(relay.exitCode(), signal);
    }

    void terminateAtAnyMomentExitsCleanly_data()
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

    void terminateAtAnyMomentExitsCleanly()
    {
        QFETCH(int, afterMs);
        QFETCH(bool, rewrite);
        QTcpServer device;
        QTemporaryDir dir;
        QFile config(dir.filePath("relay.ini"));
        QVERIFY(device.listen(QHostAddress::LocalHost) && config.open(QIODevice::WriteOnly));
        config.write("[domains]\n");
        config.close();
        const QString port = RdvTest::freePort();
        const QString name = QStringLiteral("stop%1x%2").arg(port).arg(QCoreApplication::applicationPid());
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(KorbChildProcess::RunVariable, "1"); // run as the service process
        QProcess relay;
        relay.setProcessEnvironment(environment);
        relay.start(KORB_STREAMER_BIN, {"-n", name, "-p", port, "-ld", dir.path(), "-cfg", config.fileName(),
                                        QStringLiteral("-addr=127.0.0.1:%1").arg(device.serverPort())});
        QVERIFY(device.waitForNewConnection(15000));
        QElapsedTimer since;
        since.start();
        if (rewrite) {
            // The watcher exists once the first reading has closed its separators.
            QTRY_VERIFY_WITH_TIMEOUT(logText(dir.path()).count(QString(40, '~')) >= 2, 10000);
            QVERIFY(config.open(QIODevice::WriteOnly | QIODevice::Truncate));
            config.write("[domains]\nhost=127.0.0.1\n");
            config.close();
            since.restart();
        }
        QTest::qWait(int(qMax<qint64>(0, afterMs - since.elapsed()))); // the moment is what is tested
        QLocalSocket control;
        control.connectToServer(KorbServiceController::socketPath(name));
        QVERIFY(control.waitForConnected(5000));
        control.write("terminate\r\n");
        QVERIFY(control.waitForReadyRead(5000));
        QCOMPARE(control.readAll(), QByteArray("true"));
        QVERIFY(relay.waitForFinished(15000));
        QCOMPARE(relay.exitStatus(), QProcess::NormalExit);
        QCOMPARE(relay.exitCode(), 0);
        QVERIFY(!QFileInfo::exists(KorbServiceController::socketPath(name)));
    }
};

QTEST_GUILESS_MAIN(tst_KorbMainRdvStreamer)
#include "tst_korbmain_rdv_streamer.moc"
