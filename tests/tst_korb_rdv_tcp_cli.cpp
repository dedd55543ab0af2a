// The TCP client against a QTcpServer on 127.0.0.1 that plays the device:
// connecting and reconnecting, reading and scanning the stream, the wait for
// a whole frame's worth of bytes, the buffer wrap, the watchdog and the
// recording commands.

#include "src/korb_env.h"
#include "src/korb_rdv_tcp_cli.h"
#include "support/acq_command_source.h"
#include "support/acq_recording_sink.h"
#include "support/rdv_test_encoder.h"

#include <QDir>
#include <QElapsedTimer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

using RdvTest::FrameSpec;

namespace {

constexpr quint32 BaseSec = 1700000000;
constexpr int Epoch2000 = 946684800;

FrameSpec single(int ms, quint16 count = 4)
{
    return RdvTest::singleFrame(count, BaseSec + quint32(ms / 1000), quint32(ms % 1000) * 1000000u);
}

// Frame bytes followed by the two bytes the device puts after every frame.
QByteArray onWire(const FrameSpec &s)
{
    return RdvTest::encodeFrame(s) + QByteArray(2, '\0');
}

QStringList s_messages;
void collect(QtMsgType, const QMessageLogContext &, const QString &msg)
{
    s_messages << msg;
}

// The device: listens on a free loopback port and keeps the latest
// connection; with a client of it built by start().
struct Device
{
    Device()
    {
        QObject::connect(&server, &QTcpServer::newConnection, [this] {
            while (QTcpSocket *s = server.nextPendingConnection()) {
                ++accepted;
                peer = s;
            }
        });
    }
    // A client to this device (with a buffer of `capacity`), connected.
    bool start(int capacity = 1 << 20, QObject *commands = nullptr)
    {
        if (!server.listen(QHostAddress(QHostAddress::LocalHost), 0))
            return false;
        client.reset(new KorbRdvStreamerTcp(nullptr, &sink, commands, "127.0.0.1", server.serverPort()));
        client->setBufferCapacity(capacity);
        return client->connectToServer() && QTest::qWaitFor([this] { return !peer.isNull(); });
    }
    void write(const QByteArray &bytes)
    {
        QCOMPARE(peer->write(bytes), qint64(bytes.size()));
        QVERIFY(peer->waitForBytesWritten(1000) || peer->bytesToWrite() == 0);
    }

    QTcpServer server;
    QPointer<QTcpSocket> peer;
    int accepted = 0;
    AcqTest::RecordingSink sink;
    QScopedPointer<KorbRdvStreamerTcp> client;
};

// A loopback port on which nobody listens.
quint16 closedPort()
{
    QTcpServer s;
    return s.listen(QHostAddress(QHostAddress::LocalHost), 0) ? s.serverPort() : 0;
}

} // namespace

class TestKorbRdvTcpCli : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void defaults();
    void streamIsScanned();
    void waitsForAFrameWorthOfBytes();
    void wrapsAtTheBufferEnd();
    void dumpCommands();
    void refusedConnectionReturnsQuickly();
    void reconnectsUntilStopped();
    void connectionWaitSurvivesDeletion();
    void testRemotePort_data();
    void testRemotePort();

private:
    QTemporaryDir m_dir;
};

void TestKorbRdvTcpCli::initTestCase()
{
    QVERIFY(m_dir.isValid());
    QVERIFY(QDir().mkpath(m_dir.path() + "/bin"));
    Korb::setAppDir(m_dir.path() + "/bin");
}

void TestKorbRdvTcpCli::defaults()
{
    KorbRdvStreamerTcp client(nullptr, nullptr, nullptr, QString(), 0);
    QCOMPARE(client.host(), QStringLiteral("127.0.0.1"));
    QCOMPARE(client.port(), quint16(3005));
    QCOMPARE(client.objectName(), QStringLiteral("rdv_tcp_cli_3005"));
    QCOMPARE(client.scanner().sendIntervalMs(), quint16(50));
    // Port 0 is refused before anything is tried.
    QVERIFY(!client.connectToServer("127.0.0.1", 0, 3000));
    QVERIFY(!client.reconnectPending());
}

void TestKorbRdvTcpCli::streamIsScanned()
{
    Device device;
    QVERIFY(device.start());
    s_messages.clear();
    QtMessageHandler previous = qInstallMessageHandler(collect);
    device.write(onWire(single(0)) + onWire(single(100)) + onWire(single(200, 9)));
    QTRY_COMPARE(device.sink.handoffs.size(), 2);
    qInstallMessageHandler(previous);
    QVERIFY(device.sink.handoffs[0].single && device.sink.handoffs[1].single);
    QCOMPARE(device.sink.handoffs[0].frame.bytes, RdvTest::encodeFrame(single(100)));
    QCOMPARE(device.sink.handoffs[1].frame.bytes, RdvTest::encodeFrame(single(200, 9)));
    // The first read into the fresh buffer describes its first frame, once.
    QCOMPARE(s_messages.filter("frameSize:").size(), 1);

    // 250 ms of silence release the buffer; the connection stays.
    QTRY_VERIFY_WITH_TIMEOUT(!device.client->scanner().charBuff(), 2000);
    QCOMPARE(device.client->state(), QAbstractSocket::ConnectedState);
    // A new burst starts with a fresh gate: its first frame is not sent.
    device.write(onWire(single(1000)) + onWire(single(1100)));
    QTRY_COMPARE(device.sink.handoffs.size(), 3);
    QCOMPARE(device.sink.handoffs.last().frame.bytes, RdvTest::encodeFrame(single(1100)));
}

void TestKorbRdvTcpCli::waitsForAFrameWorthOfBytes()
{
    Device device;
    QVERIFY(device.start());
    const QByteArray first = onWire(single(0, 1000)), second = onWire(single(100, 1000));
    device.write(first);
    QTRY_COMPARE(device.client->scanner().fillEnd(), first.size());

    // Less than the last frame's length stays in the socket.
    device.write(second.left(100));
    QTRY_COMPARE(device.client->pendingBytes(), qint64(100));
    QCOMPARE(device.client->scanner().fillEnd(), first.size());

    device.write(second.mid(100));
    QTRY_COMPARE(device.client->scanner().fillEnd(), first.size() + second.size());
    QCOMPARE(device.sink.handoffs.size(), 1);
    QCOMPARE(device.sink.handoffs[0].frame.bytes, second.left(second.size() - 2));
}

void TestKorbRdvTcpCli::wrapsAtTheBufferEnd()
{
    Device device;
    const int unit = onWire(single(0)).size();
    QVERIFY(device.start(3 * unit + 10));
    for (int i = 0; i < 6; ++i) {
        device.write(onWire(single(100 * i)));
        QTRY_COMPARE(device.client->scanner().fillEnd(), (i % 3 + 1) * unit);
    }
    // Every frame but the very first went out, across two wraps.
    QCOMPARE(device.sink.handoffs.size(), 5);
    QCOMPARE(device.sink.handoffs.last().frame.bytes, RdvTest::encodeFrame(single(500)));
    QCOMPARE(device.sink.handoffs.last().frame.where, device.client->scanner().charBuff() + 2 * unit);
}

void TestKorbRdvTcpCli::dumpCommands()
{
    QDir(KorbRdvSource::dumpDir()).removeRecursively();
    AcqTest::CommandSource commands;
    Device device;
    QVERIFY(device.start(4096, &commands));
    emit commands.runCmd(QStringLiteral("buf")); // no buffer yet: ignored
    const QByteArray stream = onWire(single(0)) + onWire(single(100));
    device.write(stream);
    QTRY_COMPARE(device.client->scanner().fillEnd(), stream.size());
    emit commands.runCmd(QStringLiteral("buf"));
    emit commands.runCmd(quint16(75));
    QCOMPARE(device.client->scanner().sendIntervalMs(), quint16(75));
    device.client->stop();
    emit commands.runCmd(QStringLiteral("buf")); // not connected: ignored

    const QString name = QStringLiteral("zz-vtp_%1_0000.rdv").arg(BaseSec - Epoch2000);
    QCOMPARE(QDir(KorbRdvSource::dumpDir()).entryList(QDir::Files), QStringList(name));
    QFile f(QDir(KorbRdvSource::dumpDir()).filePath(name));
    QVERIFY(f.open(QIODevice::ReadOnly));
    QCOMPARE(f.readAll(), stream);
}

void TestKorbRdvTcpCli::refusedConnectionReturnsQuickly()
{
    const quint16 port = closedPort();
    QVERIFY(port);
    KorbRdvStreamerTcp client(nullptr, nullptr, nullptr, "127.0.0.1", port);
    QElapsedTimer clock;
    clock.start();
    QVERIFY(!client.connectToServer("127.0.0.1", port, 3000));
    // A refusal ends the wait at once instead of after the 3 s timeout.
    QVERIFY2(clock.elapsed() < 1500, qPrintable(QString::number(clock.elapsed())));
    QVERIFY(client.reconnectPending());
    client.stop();
    QVERIFY(!client.reconnectPending());
}

void TestKorbRdvTcpCli::reconnectsUntilStopped()
{
    Device device;
    QVERIFY(device.start());
    device.peer->disconnectFromHost();
    // One pause later the client is back.
    QTRY_VERIFY(device.client->reconnectPending());
    QTRY_COMPARE_WITH_TIMEOUT(device.accepted, 2, 5000);
    QTRY_COMPARE(device.client->state(), QAbstractSocket::ConnectedState);

    // Stopped, it closes and stays closed; re-armed, it connects again.
    device.client->stop();
    QCOMPARE(device.client->state(), QAbstractSocket::UnconnectedState);
    QTRY_COMPARE(device.peer->state(), QAbstractSocket::UnconnectedState);
    QVERIFY(!device.client->reconnectPending());
    device.client->rearm();
    QCOMPARE(device.client->state(), QAbstractSocket::ConnectedState);
    QTRY_COMPARE(device.accepted, 3);

    // A device that went away entirely is retried, not spun on.
    device.server.close();
    device.peer->abort();
    QTRY_VERIFY_WITH_TIMEOUT(device.client->state() == QAbstractSocket::UnconnectedState &&
                                 device.client->reconnectPending(),
                             3000);
    device.client->stop();
}

void TestKorbRdvTcpCli::connectionWaitSurvivesDeletion()
{
    // The device's accept runs inside the client's connection wait; deleting
    // the client there must end the wait without touching it again.
    QTcpServer device;
    QVERIFY(device.listen(QHostAddress::LocalHost, 0));
    QPointer<KorbRdvStreamerTcp> client =
        new KorbRdvStreamerTcp(nullptr, nullptr, nullptr, "127.0.0.1", device.serverPort());
    connect(&device, &QTcpServer::newConnection, client, [&client] { delete client; });
    QVERIFY(!client->connectToServer("127.0.0.1", device.serverPort(), 3000));
    QVERIFY(client.isNull());
}

void TestKorbRdvTcpCli::testRemotePort_data()
{
    QTest::addColumn<QString>("hostPort");
    QTest::addColumn<bool>("reachable");
    QTest::newRow("listening port") << "127.0.0.1:%listen" << true;
    QTest::newRow("closed port") << "127.0.0.1:%closed" << false;
    QTest::newRow("no separator") << "127.0.0.1" << false;
    QTest::newRow("missing port") << "127.0.0.1:" << false;
}

void TestKorbRdvTcpCli::testRemotePort()
{
    QFETCH(QString, hostPort);
    QFETCH(bool, reachable);
    QTcpServer device;
    QVERIFY(device.listen(QHostAddress(QHostAddress::LocalHost), 0));
    hostPort.replace("%listen", QString::number(device.serverPort()));
    hostPort.replace("%closed", QString::number(closedPort()));
    KorbRdvStreamerTcp client(nullptr, nullptr, nullptr, "127.0.0.1", device.serverPort());
    QCOMPARE(client.testRemotePort(hostPort), reachable);
}

QTEST_GUILESS_MAIN(TestKorbRdvTcpCli)
#include "tst_korb_rdv_tcp_cli.moc"
