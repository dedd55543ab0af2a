// The real executable in the foreground: where it runs, and the exit status
// a signal leaves, also right after start-up.
#include <QTcpServer>
#include <QTcpSocket>
#include <QtTest>

#include <csignal>

class tst_KorbMainRdvStreamer : public QObject
{
    Q_OBJECT

private slots:
    void signalEndsWithItsNumber_data();
    void signalEndsWithItsNumber();
};

void tst_KorbMainRdvStreamer::signalEndsWithItsNumber_data()
{
    QTest::addColumn<int>("signal");
    QTest::addColumn<bool>(
        "running"); // else right after the port opens: the handler may block in library code
    QTest::newRow("SIGTERM") << int(SIGTERM) << true;
    QTest::newRow("SIGINT in start-up") << int(SIGINT) << false;
}

void tst_KorbMainRdvStreamer::signalEndsWithItsNumber()
{
    QFETCH(int, signal);
    QFETCH(bool, running);
    QTcpServer device, probe; // the device only listens
    QVERIFY(device.listen(QHostAddress::LocalHost) && probe.listen(QHostAddress::LocalHost));
    const quint16 port = probe.serverPort();
    probe.close();
    QTemporaryDir logs;
    QProcess relay;
    // The name comes first: "-nofile" counts as "-n" too. The port names the instance lock.
    relay.start(KORB_STREAMER_BIN,
                {"-e", "-n", QStringLiteral("e2e%1").arg(port), "-p", QString::number(port), "-ld",
                 logs.path(), "-nofile", QStringLiteral("-addr=127.0.0.1:%1").arg(device.serverPort())});
    const auto log = [&] {
        QFile file(QDir(logs.path()).entryInfoList({"*.txt"}).value(0).filePath());
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    };
    // Right after start-up the port is taken; running, the sources are up too.
    QTRY_VERIFY_WITH_TIMEOUT(running ? log().contains(QStringLiteral("установлен интервал отправки: 50"))
                                     : !QTcpServer().listen(QHostAddress::Any, port),
                             15000);
    // The application directory is the current one.
    QCOMPARE(QFileInfo(QStringLiteral("/proc/%1/cwd").arg(relay.processId())).symLinkTarget(),
             QFileInfo(KORB_STREAMER_BIN).absolutePath());
    ::kill(pid_t(relay.processId()), signal);
    QTRY_VERIFY_WITH_TIMEOUT(relay.state() == QProcess::NotRunning, 10000);
    QCOMPARE(relay.exitStatus(), QProcess::NormalExit);
    QCOMPARE(relay.exitCode(), signal);
    QVERIFY(!running ||
            log().contains(QStringLiteral(
                "handle the signal 'SIGTERM 'Software termination signal from kill'' - stop programm")));
}

QTEST_GUILESS_MAIN(tst_KorbMainRdvStreamer)
#include "tst_korbmain_rdv_streamer.moc"
