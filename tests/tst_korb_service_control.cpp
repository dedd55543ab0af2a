// The service end of the control channel: request bytes against answer
// bytes and the service operations they call.
#include "service/korb_service_controller.h"
#include "service/korb_service_sys_private.h"
#include "support/recording_service.h"

#include <QLocalSocket>
#include <QtTest>

class tst_KorbServiceControl : public QObject
{
    Q_OBJECT

private slots:
    void protocol_data()
    {
        QTest::addColumn<int>("flags");
        QTest::addColumn<QByteArrayList>("requests"); // written one after another
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<QStringList>("calls");
        QTest::addColumn<bool>("open"); // the connection stays open
        const QByteArray limit(KorbServiceSysPrivate::MaxPendingCommandBytes, 'a');
        auto add = [](const char *tag, int flags, const QByteArrayList &requests, const QByteArray &answer,
                      const QStringList &calls, bool open = true) {
            QTest::newRow(tag) << flags << requests << answer << calls << open;
        };
        // clang-format off
        add("unknown: upper case, leading blank, bare num:, bare LF", 1, {"ALIVE\r\n alive\r\nnum:\r\nalive\nx\r\n"}, "falsefalsefalsefalse", {});
        add("flag 2 refuses terminate, flag 1 clear refuses resume", 2, {"terminate\r\nresume\r\nalive\r\n"}, "falsefalsetrue", {});
        add("two commands in one write, in order", 3, {"num:1\r\npause\r\n"}, "truetrue", {"command 1", "pause"});
        add("flags clear: pause refused, num:x is 0", 0, {"pause\r\nnum:x\r\n"}, "falsetrue", {"command 0"});
        add("a command split over writes", 1, {"num:-1", "2\r", "\nresu", "me\r\n"}, "truetrue", {"command -12", "resume"});
        add("terminate answers, stops, ignores the rest", 1, {"terminate\r\npause\r\n"}, "true", {"stop"});
        add("a line of the limit is a command", 1, {limit + "\r\n"}, "false", {});
        add("one byte over the limit closes the connection", 1, {limit + "a", "alive\r\n"}, "", {}, false);
        // clang-format on
    }

    void protocol()
    {
        QFETCH(int, flags);
        QFETCH(QByteArrayList, requests);
        QFETCH(QByteArray, answer);
        QFETCH(QStringList, calls);
        QFETCH(bool, open);
        RecordingService service(flags);
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("channel"));
        // A stale socket file, as a crashed instance leaves it, is replaced.
        QVERIFY(QFile(path).open(QIODevice::WriteOnly));
        auto *channel = new KorbServiceSysPrivate(&service);
        QVERIFY(channel->listen(path));
        QLocalSocket client;
        client.connectToServer(path);
        QByteArray got;
        for (const QByteArray &request : requests) {
            client.write(request);
            QTest::qWait(20); // each part arrives on its own
        }
        QTRY_COMPARE(got += client.readAll(), answer);
        // Bare words, nothing after them, only the expected operations.
        QTest::qWait(50);
        QCOMPARE(got + client.readAll(), answer);
        QCOMPARE(service.calls, calls);
        QCOMPARE(client.state() == QLocalSocket::ConnectedState, open);
        delete channel;
        QVERIFY(!QFile::exists(path));
    }
};

QTEST_GUILESS_MAIN(tst_KorbServiceControl)
#include "tst_korb_service_control.moc"
