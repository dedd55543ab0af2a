// The control channel of a running service instance: the wire protocol as a
// client sees it, the socket path rule, and the management commands of the
// real executable that travel over it.
#include "support/svc_service_process.h"

#include "service/korb_service_base.h"
#include "service/korb_service_controller.h"
#include "service/korb_service_sys_private.h"

#include <QFileInfo>
#include <QLocalSocket>
#include <QSignalSpy>
#include <QtTest>

namespace {

// Connects to a control socket with Qt's own local socket, independent of
// the framework's client.
class Client
{
public:
    bool connectTo(const QString &path)
    {
        socket.connectToServer(path);
        return socket.waitForConnected(3000);
    }
    // Sends raw bytes and collects answers until `expected` bytes arrived or
    // the wait ends.
    QByteArray exchange(const QByteArray &bytes, int expected)
    {
        socket.write(bytes);
        socket.flush();
        QByteArray answer;
        QElapsedTimer timer;
        timer.start();
        while (answer.size() < expected && timer.elapsed() < 5000) {
            if (socket.bytesAvailable() == 0)
                socket.waitForReadyRead(100);
            answer += socket.readAll();
        }
        return answer;
    }
    QLocalSocket socket;
};

} // namespace

class tst_KorbServiceControl : public QObject
{
    Q_OBJECT

private slots:
    void socketPath_data();
    void socketPath();
    void protocol_data();
    void protocol();
    void partialLineIsKeptUntilItsEnd();
    void oversizedLineClosesTheConnection();
    void terminateAnswersThenStops();
    void terminateRefusedWhenNotStoppable();
    void managementCommands_data();
    void managementCommands();
    void stopThroughManagementCommand();
    void serviceRunReturnsApplicationExitCode();
    void staleSocketFileIsReplaced();
};

void tst_KorbServiceControl::socketPath_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("encoded");
    QTest::newRow("daemon default") << "Korb.RDV2"
                                    << "korbrdv2";
    QTest::newRow("punctuation and blanks vanish") << "Korb-RDV 2_x.y"
                                                   << "korbrdv2xy";
    QTest::newRow("upper case is lowered") << "KORBRDV2"
                                           << "korbrdv2";
    QTest::newRow("non-ascii letters vanish") << QString::fromUtf8("Корб1") << "1";
    QTest::newRow("empty") << ""
                           << "";
}

void tst_KorbServiceControl::socketPath()
{
    QFETCH(QString, name);
    QFETCH(QString, encoded);
    QCOMPARE(KorbServiceController::encodeName(name, false), encoded);
    QCOMPARE(KorbServiceController::socketPath(name), SvcTest::socketPathFor(encoded));
}

void tst_KorbServiceControl::protocol_data()
{
    QTest::addColumn<int>("flags");
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<QByteArray>("answer");
    QTest::addColumn<QStringList>("calls");

    QTest::newRow("alive") << 1 << QByteArray("alive\r\n") << QByteArray("true") << QStringList();
    QTest::newRow("alive with flags 0")
        << 0 << QByteArray("alive\r\n") << QByteArray("true") << QStringList();
    QTest::newRow("upper-case ALIVE is unknown")
        << 1 << QByteArray("ALIVE\r\n") << QByteArray("false") << QStringList();
    QTest::newRow("no trimming") << 1 << QByteArray(" alive\r\n") << QByteArray("false") << QStringList();
    QTest::newRow("pause when suspendable")
        << 1 << QByteArray("pause\r\n") << QByteArray("true") << QStringList{"pause"};
    QTest::newRow("pause refused") << 0 << QByteArray("pause\r\n") << QByteArray("false") << QStringList();
    QTest::newRow("resume when suspendable")
        << 3 << QByteArray("resume\r\n") << QByteArray("true") << QStringList{"resume"};
    QTest::newRow("resume refused") << 2 << QByteArray("resume\r\n") << QByteArray("false") << QStringList();
    QTest::newRow("num code") << 0 << QByteArray("num:42\r\n") << QByteArray("true")
                              << QStringList{"command 42"};
    QTest::newRow("num negative") << 0 << QByteArray("num:-7\r\n") << QByteArray("true")
                                  << QStringList{"command -7"};
    QTest::newRow("num not a number")
        << 1 << QByteArray("num:x\r\n") << QByteArray("true") << QStringList{"command 0"};
    QTest::newRow("num alone is too short")
        << 1 << QByteArray("num:\r\n") << QByteArray("false") << QStringList();
    QTest::newRow("empty line") << 1 << QByteArray("\r\n") << QByteArray("false") << QStringList();
    QTest::newRow("bare LF is no line end")
        << 1 << QByteArray("alive\nalive\r\n") << QByteArray("false") << QStringList();
    QTest::newRow("two commands in one write")
        << 1 << QByteArray("alive\r\npause\r\n") << QByteArray("truetrue") << QStringList{"pause"};
    QTest::newRow("two commands, second refused")
        << 0 << QByteArray("alive\r\npause\r\n") << QByteArray("truefalse") << QStringList();
    QTest::newRow("three commands in order")
        << 1 << QByteArray("num:1\r\nresume\r\nnum:2\r\n") << QByteArray("truetruetrue")
        << QStringList{"command 1", "resume", "command 2"};
}

void tst_KorbServiceControl::protocol()
{
    QFETCH(int, flags);
    QFETCH(QByteArray, request);
    QFETCH(QByteArray, answer);
    QFETCH(QStringList, calls);

    SvcServiceProcess service(QStringLiteral("svcproto"), flags);
    QVERIFY2(service.start(), "the test service did not open its control socket");
    Client client;
    QVERIFY(client.connectTo(service.socketPath()));
    QCOMPARE(client.exchange(request, answer.size()), answer);
    // Nothing more than the answers arrives.
    QVERIFY(!client.socket.waitForReadyRead(100));

    // The operations are called in order, and nothing else is.
    QTRY_COMPARE(service.log().mid(1), calls);
    QCOMPARE(service.process().state(), QProcess::Running);
}

void tst_KorbServiceControl::partialLineIsKeptUntilItsEnd()
{
    SvcServiceProcess service(QStringLiteral("svcpart"));
    QVERIFY(service.start());
    Client client;
    QVERIFY(client.connectTo(service.socketPath()));
    client.socket.write("num:12");
    client.socket.flush();
    QVERIFY(!client.socket.waitForReadyRead(200));
    client.socket.write("3\r");
    client.socket.flush();
    QVERIFY(!client.socket.waitForReadyRead(200));
    QCOMPARE(client.exchange("\npau", 4), QByteArray("true"));
    QCOMPARE(client.exchange("se\r\n", 4), QByteArray("true"));
    QTRY_COMPARE(service.log().mid(1), (QStringList{"command 123", "pause"}));
}

void tst_KorbServiceControl::oversizedLineClosesTheConnection()
{
    SvcServiceProcess service(QStringLiteral("svcbig"));
    QVERIFY(service.start());

    // A line of exactly the limit is still a command (an unknown one).
    Client fits;
    QVERIFY(fits.connectTo(service.socketPath()));
    QCOMPARE(fits.exchange(QByteArray(KorbServiceSysPrivate::MaxPendingCommandBytes, 'a') + "\r\n", 5),
             QByteArray("false"));
    QCOMPARE(fits.socket.state(), QLocalSocket::ConnectedState);

    // One byte more without a line end, and the connection is closed.
    Client flood;
    QVERIFY(flood.connectTo(service.socketPath()));
    QSignalSpy closed(&flood.socket, &QLocalSocket::disconnected);
    flood.socket.write(QByteArray(KorbServiceSysPrivate::MaxPendingCommandBytes + 1, 'b'));
    flood.socket.flush();
    QTRY_COMPARE(closed.count(), 1);

    // A flood far beyond it, in one write, also ends in a close.
    Client bigger;
    QVERIFY(bigger.connectTo(service.socketPath()));
    QSignalSpy closedBigger(&bigger.socket, &QLocalSocket::disconnected);
    bigger.socket.write(QByteArray(1 << 20, 'c'));
    QTRY_COMPARE(closedBigger.count(), 1);

    // The service goes on answering others.
    Client after;
    QVERIFY(after.connectTo(service.socketPath()));
    QCOMPARE(after.exchange("alive\r\n", 4), QByteArray("true"));
    QCOMPARE(service.process().state(), QProcess::Running);
}

void tst_KorbServiceControl::terminateAnswersThenStops()
{
    SvcServiceProcess service(QStringLiteral("svcterm"));
    QVERIFY(service.start());
    Client client;
    QVERIFY(client.connectTo(service.socketPath()));
    // The command after terminate is never looked at.
    QCOMPARE(client.exchange("terminate\r\npause\r\n", 8), QByteArray("true"));
    QVERIFY(service.process().waitForFinished(10000));
    QCOMPARE(service.process().exitCode(), 0);
    const QStringList log = service.log();
    QCOMPARE(log.mid(1), (QStringList{"stop", "exit 0"}));
    // Closing the channel removes its socket file.
    QVERIFY(!QFileInfo::exists(service.socketPath()));
}

void tst_KorbServiceControl::terminateRefusedWhenNotStoppable()
{
    SvcServiceProcess service(QStringLiteral("svcnostop"), KorbServiceBase::CannotBeStopped);
    QVERIFY(service.start());
    Client client;
    QVERIFY(client.connectTo(service.socketPath()));
    QCOMPARE(client.exchange("terminate\r\nalive\r\n", 9), QByteArray("falsetrue"));
    QCOMPARE(service.process().state(), QProcess::Running);
    QCOMPARE(service.log().size(), 1);
}

void tst_KorbServiceControl::managementCommands_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("call");

    // %N stands for the instance name.
    QTest::newRow("-p") << QStringList{"-p", "-n", "%N"} << "pause";
    QTest::newRow("-P upper case") << QStringList{"-P", "-n", "%N"} << "pause";
    QTest::newRow("-r") << QStringList{"-r", "-n", "%N"} << "resume";
    QTest::newRow("-c 7") << QStringList{"-c", "7", "-n", "%N"} << "command 7";
    QTest::newRow("-c abc sends 0") << QStringList{"-c", "abc", "-n", "%N"} << "command 0";
    QTest::newRow("-c without a number sends 0") << QStringList{"-c", "-n", "%N"} << "command 0";
    QTest::newRow("-command prefix") << QStringList{"-command", "99", "-n", "%N"} << "command 99";
}

void tst_KorbServiceControl::managementCommands()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, call);
    SvcServiceProcess service(QStringLiteral("svcmgmt"));
    QVERIFY(service.start());
    arguments.replaceInStrings(QStringLiteral("%N"), service.name());
    const SvcRun run = SvcTest::runProgram(arguments);
    QVERIFY(run.finished);
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.out, QByteArray());
    QTRY_COMPARE(service.log().mid(1), QStringList{call});
}

void tst_KorbServiceControl::stopThroughManagementCommand()
{
    SvcServiceProcess service(QStringLiteral("svcstop"));
    QVERIFY(service.start());
    // "-n NAME -t" finds the command behind the name.
    const SvcRun run = SvcTest::runProgram({"-n", service.name(), "-t"});
    QVERIFY(run.finished);
    QCOMPARE(run.exitCode, 0);
    QVERIFY(service.process().waitForFinished(10000));
    QCOMPARE(service.log().mid(1), (QStringList{"stop", "exit 0"}));

    // Once it has gone, the same command reports it as not running.
    const SvcRun again = SvcTest::runProgram({"-t", "-n", service.name()});
    QCOMPARE(again.exitCode, -4);
    QCOMPARE(again.err, QStringLiteral("The service %1 is not Running\n").arg(service.name()).toLocal8Bit());
}

void tst_KorbServiceControl::serviceRunReturnsApplicationExitCode()
{
    const QString name = SvcTest::uniqueName(QStringLiteral("svcexit"));
    QTemporaryDir dir;
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("KORBSERVICE_RUN"), QStringLiteral("1"));
    environment.insert(QStringLiteral("KORB_TEST_SERVICE_EXIT"), QStringLiteral("3"));
    environment.insert(QStringLiteral("KORB_TEST_SERVICE_LOG"), dir.path() + QStringLiteral("/log"));
    process.setProcessEnvironment(environment);
    process.start(SvcTest::testServiceProgram(), {"-n", name});
    QVERIFY(process.waitForFinished(10000));
    QCOMPARE(process.exitCode(), 3);
    // The service process has no standard output.
    QCOMPARE(process.readAllStandardOutput(), QByteArray());
    const QStringList log = SvcTest::readLog(dir.path() + QStringLiteral("/log"));
    QCOMPARE(log.size(), 2);
    QVERIFY2(log.at(0).endsWith(QStringLiteral(" run=1 args=-n|%1").arg(name)), qPrintable(log.at(0)));
    QCOMPARE(log.at(1), QStringLiteral("exit 3"));
    QVERIFY(!QFileInfo::exists(SvcTest::socketPathFor(name)));
}

void tst_KorbServiceControl::staleSocketFileIsReplaced()
{
    SvcServiceProcess service(QStringLiteral("svcstale"));
    {
        QFile stale(service.socketPath());
        QVERIFY(stale.open(QIODevice::WriteOnly));
        stale.write("left over by a crashed instance");
    }
    QVERIFY(service.start());
    Client client;
    QVERIFY(client.connectTo(service.socketPath()));
    QCOMPARE(client.exchange("alive\r\n", 4), QByteArray("true"));
}

QTEST_GUILESS_MAIN(tst_KorbServiceControl)
#include "tst_korb_service_control.moc"
