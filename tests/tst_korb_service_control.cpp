// The control channel of a running service instance: the wire protocol as a
// client sees it, the socket path rule, and the management commands of the
// real executable that travel over it.
#include "support/svc_service_process.h"

#include "service/korb_service_controller.h"
#include "service/korb_service_sys_private.h"

#include <QFileInfo>
#include <QSignalSpy>
#include <QtTest>

class tst_KorbServiceControl : public QObject
{
    Q_OBJECT

private slots:
    void socketPath()
    {
        // Case and everything but ASCII letters and digits vanish from the name.
        QCOMPARE(KorbServiceController::socketPath("Korb.RDV2"), SvcTest::socketPathFor("korbrdv2"));
        QCOMPARE(KorbServiceController::socketPath(QString::fromUtf8("Korb-RDV 2_Ёx.y")),
                 SvcTest::socketPathFor("korbrdv2xy"));
    }

    void protocol_data()
    {
        QTest::addColumn<int>("flags");
        QTest::addColumn<QByteArray>("request");
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<QStringList>("calls");

        QTest::newRow("unknown: upper case, leading blank, bare num:")
            << 1 << QByteArray("ALIVE\r\n alive\r\nnum:\r\n") << QByteArray("falsefalsefalse")
            << QStringList();
        QTest::newRow("flag 2 refuses terminate, not flag 1")
            << 2 << QByteArray("terminate\r\nresume\r\nalive\r\n") << QByteArray("falsefalsetrue")
            << QStringList();
        QTest::newRow("num not a number, no flag needed")
            << 0 << QByteArray("num:x\r\n") << QByteArray("true") << QStringList{"command 0"};
        QTest::newRow("bare LF is no line end")
            << 1 << QByteArray("alive\nalive\r\n") << QByteArray("false") << QStringList();
        QTest::newRow("two commands in one write")
            << 1 << QByteArray("alive\r\npause\r\n") << QByteArray("truetrue") << QStringList{"pause"};
        QTest::newRow("two commands, second refused")
            << 0 << QByteArray("alive\r\npause\r\n") << QByteArray("truefalse") << QStringList();
        QTest::newRow("three commands in order")
            << 3 << QByteArray("num:1\r\nresume\r\nnum:-2\r\n") << QByteArray("truetruetrue")
            << QStringList{"command 1", "resume", "command -2"};
    }

    void protocol()
    {
        QFETCH(int, flags);
        QFETCH(QByteArray, request);
        QFETCH(QByteArray, answer);
        QFETCH(QStringList, calls);
        SvcServiceProcess service(QStringLiteral("svcproto"), flags);
        // A stale socket file, as a crashed instance leaves it, is replaced.
        QFile stale(service.socketPath());
        QVERIFY(stale.open(QIODevice::WriteOnly));
        stale.close();
        QVERIFY2(service.start(), "the test service did not open its control socket");
        SvcTest::ControlClient client;
        QVERIFY(client.connectTo(service.socketPath()));
        QCOMPARE(client.exchange(request, answer.size()), answer);
        // Bare words, nothing after them, and only the expected operations called.
        QVERIFY(!client.socket.waitForReadyRead(100));
        QTRY_COMPARE(service.log().mid(1), calls);
        QCOMPARE(service.process().state(), QProcess::Running);
    }

    void partialLineIsKeptUntilItsEnd()
    {
        SvcServiceProcess service(QStringLiteral("svcpart"));
        QVERIFY(service.start());
        SvcTest::ControlClient client;
        QVERIFY(client.connectTo(service.socketPath()));
        for (const QByteArray &part : {QByteArray("num:12"), QByteArray("3\r")}) {
            client.socket.write(part);
            client.socket.flush();
            QVERIFY(!client.socket.waitForReadyRead(200));
        }
        QCOMPARE(client.exchange("\npau", 4), QByteArray("true"));
        QCOMPARE(client.exchange("se\r\n", 4), QByteArray("true"));
        QTRY_COMPARE(service.log().mid(1), (QStringList{"command 123", "pause"}));
    }

    void oversizedLineClosesTheConnection()
    {
        SvcServiceProcess service(QStringLiteral("svcbig"));
        QVERIFY(service.start());
        // A line of exactly the limit is still a command (an unknown one).
        SvcTest::ControlClient fits;
        QVERIFY(fits.connectTo(service.socketPath()));
        QCOMPARE(fits.exchange(QByteArray(KorbServiceSysPrivate::MaxPendingCommandBytes, 'a') + "\r\n", 5),
                 QByteArray("false"));
        QCOMPARE(fits.socket.state(), QLocalSocket::ConnectedState);
        // One byte more without a line end, and the connection is closed.
        SvcTest::ControlClient flood;
        QVERIFY(flood.connectTo(service.socketPath()));
        QSignalSpy closed(&flood.socket, &QLocalSocket::disconnected);
        flood.socket.write(QByteArray(KorbServiceSysPrivate::MaxPendingCommandBytes + 1, 'b'));
        flood.socket.flush();
        QTRY_COMPARE(closed.count(), 1);
        // The service goes on answering others.
        SvcTest::ControlClient after;
        QVERIFY(after.connectTo(service.socketPath()));
        QCOMPARE(after.exchange("alive\r\n", 4), QByteArray("true"));
    }

    void terminateAnswersThenStops()
    {
        SvcServiceProcess service(QStringLiteral("svcterm"));
        QVERIFY(service.start());
        SvcTest::ControlClient client;
        QVERIFY(client.connectTo(service.socketPath()));
        // The command after terminate is never looked at.
        QCOMPARE(client.exchange("terminate\r\npause\r\n", 8), QByteArray("true"));
        QVERIFY(service.process().waitForFinished(10000));
        QCOMPARE(service.process().exitCode(), 0);
        QCOMPARE(service.log().mid(1), (QStringList{"stop", "exit 0"}));
        // Closing the channel removes its socket file.
        QVERIFY(!QFileInfo::exists(service.socketPath()));
    }

    void managementCommands_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("call");
        // %N stands for the instance name.
        QTest::newRow("-P upper case") << QStringList{"-P", "-n", "%N"} << "pause";
        QTest::newRow("-r") << QStringList{"-r", "-n", "%N"} << "resume";
        QTest::newRow("-command prefix") << QStringList{"-command", "99", "-n", "%N"} << "command 99";
        QTest::newRow("-c abc sends 0") << QStringList{"-c", "abc", "-n", "%N"} << "command 0";
        QTest::newRow("-c without a number sends 0") << QStringList{"-c", "-n", "%N"} << "command 0";
        QTest::newRow("-n NAME -t stops") << QStringList{"-n", "%N", "-t"} << "stop";
    }

    void managementCommands()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, call);
        SvcServiceProcess service(QStringLiteral("svcmgmt"));
        QVERIFY(service.start());
        const SvcRun run =
            SvcTest::runProgram(arguments.replaceInStrings(QStringLiteral("%N"), service.name()));
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.out, QByteArray());
        // A stop ends the service, which records its exit.
        QTRY_COMPARE(service.log().mid(1),
                     (call == "stop" ? QStringList{call, "exit 0"} : QStringList{call}));
    }

    void serviceRunReturnsApplicationExitCode()
    {
        const QString name = SvcTest::uniqueName(QStringLiteral("svcexit"));
        QTemporaryDir dir;
        const QString log = dir.path() + QStringLiteral("/log");
        QProcessEnvironment environment = SvcTest::managementEnvironment(log);
        environment.insert(QStringLiteral("KORBSERVICE_RUN"), QStringLiteral("1"));
        environment.insert(QStringLiteral("KORB_TEST_SERVICE_EXIT"), QStringLiteral("3"));
        const SvcRun run = SvcTest::runProgram({"-n", name}, environment);
        QCOMPARE(run.exitCode, 3);
        // The service process has no standard output and leaves no socket behind.
        QCOMPARE(run.out, QByteArray());
        const QString started =
            QStringLiteral("start pid=%1 run=1 args=-n|%2").arg(SvcTest::startedPid(log)).arg(name);
        QCOMPARE(SvcTest::readLog(log), (QStringList{started, "exit 3"}));
        QVERIFY(!QFileInfo::exists(SvcTest::socketPathFor(name)));
    }
};

QTEST_GUILESS_MAIN(tst_KorbServiceControl)
#include "tst_korb_service_control.moc"
