// The TCP client against a QTcpServer on 127.0.0.1 that plays the device:
// connecting and reconnecting, reading the stream into the character buffer
// and scanning it, the wait for a whole frame's worth of bytes, the buffer
// wrap, the watchdog and the recording commands.

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

// The device: accepts connections on a free loopback port and keeps the
// latest one.
class Device : public QObject
{
public:
    Device()
    {
        QObject::connect(&server, &QTcpServer::newConnection, [this] {
            while (QTcpSocket *s = server.nextPendingConnection()) {
                ++accepted;
                peer = s;
            }
        });
    }
    bool listen() { return server.listen(QHostAddress(QHostAddress::LocalHost), 0); }
    quint16 port() const { return server.serverPort(); }
    void write(const QByteArray &bytes)
    {
        QVERIFY(peer);
        QCOMPARE(peer->write(bytes), qint64(bytes.size()));
        QVERIFY(peer->waitForBytesWritten(1000) || peer->bytesToWrite() == 0);
    }

    QTcpServer server;
    QPointer<QTcpSocket> peer;
    int accepted = 0;
};

// A loopback port on which nobody listens.
quint16 closedPort()
{
    QTcpServer s;
    if (!s.listen(QHostAddress(QHostAddress::LocalHost), 0))
        return 0;
    const quint16 port = s.serverPort();
    s.close();
    return port;
}

} // namespace

class TestKorbRdvTcpCli : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void construction_data();
    void construction();
    void streamIsScanned();
    void waitsForAFrameWorthOfBytes();
    void wrapsAtTheBufferEnd();
    void watchdogReleasesBuffer();
    void dumpCommands();
    void refusedConnectionReturnsQuickly();
    void reconnectsAfterDeviceCloses();
    void stopClosesAndStaysClosed();
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

void TestKorbRdvTcpCli::construction_data()
{
    QTest::addColumn<QString>("host");
    QTest::addColumn<int>("port");
    QTest::addColumn<QString>("wantHost");
    QTest::addColumn<int>("wantPort");
    QTest::newRow("empty host, port 0: the device defaults") << "" << 0 << "127.0.0.1" << 3005;
    QTest::newRow("given host and port kept") << "localhost" << 4711 << "localhost" << 4711;
}

void TestKorbRdvTcpCli::construction()
{
    QFETCH(QString, host);
    QFETCH(int, port);
    QFETCH(QString, wantHost);
    QFETCH(int, wantPort);
    KorbRdvStreamerTcp client(nullptr, nullptr, nullptr, host, quint16(port));
    QCOMPARE(client.host(), wantHost);
    QCOMPARE(int(client.port()), wantPort);
    QCOMPARE(client.objectName(), QStringLiteral("rdv_tcp_cli_%1").arg(wantPort));
    QCOMPARE(client.scanner().sendIntervalMs(), quint16(50));
    QVERIFY(!client.scanner().charBuff());
    QCOMPARE(client.state(), QAbstractSocket::UnconnectedState);
    // Port 0 is refused before anything is tried.
    QVERIFY(!client.connectToServer(wantHost, 0, 3000));
    QVERIFY(!client.reconnectPending());
}

void TestKorbRdvTcpCli::streamIsScanned()
{
    Device device;
    QVERIFY(device.listen());
    AcqTest::RecordingSink sink;
    KorbRdvStreamerTcp client(nullptr, &sink, nullptr, "127.0.0.1", device.port());
    client.setBufferCapacity(1 << 20);
    QVERIFY(client.connectToServer());
    QTRY_VERIFY(device.peer);

    const QByteArray b = RdvTest::encodeFrame(single(100)), c = RdvTest::encodeFrame(single(200, 9));
    s_messages.clear();
    QtMessageHandler previous = qInstallMessageHandler(collect);
    device.write(onWire(single(0)) + onWire(single(100)) + onWire(single(200, 9)));
    QTRY_COMPARE(sink.handoffs.size(), 2);
    qInstallMessageHandler(previous);

    QVERIFY(sink.handoffs[0].single && sink.handoffs[1].single);
    QCOMPARE(sink.handoffs[0].frame.bytes, b);
    QCOMPARE(sink.handoffs[1].frame.bytes, c);
    QCOMPARE(client.scanner().frameSize(), c.size());
    // The first read into the fresh buffer describes its first frame, once.
    int described = 0;
    for (const QString &m : s_messages)
        described += m.contains("frameSize:") ? 1 : 0;
    QCOMPARE(described, 1);
}

void TestKorbRdvTcpCli::waitsForAFrameWorthOfBytes()
{
    Device device;
    QVERIFY(device.listen());
    AcqTest::RecordingSink sink;
    KorbRdvStreamerTcp client(nullptr, &sink, nullptr, "127.0.0.1", device.port());
    client.setBufferCapacity(1 << 20);
    QVERIFY(client.connectToServer());
    QTRY_VERIFY(device.peer);

    const QByteArray first = onWire(single(0, 1000));
    device.write(first);
    QTRY_COMPARE(client.scanner().fillEnd(), first.size());
    QCOMPARE(client.scanner().frameSize(), 56 + 8 * 1000);

    // Less than the last frame's length stays in the socket.
    const QByteArray second = onWire(single(100, 1000));
    device.write(second.left(100));
    QTRY_COMPARE(client.pendingBytes(), qint64(100));
    QCOMPARE(client.scanner().fillEnd(), first.size());
    QVERIFY(sink.handoffs.isEmpty());

    device.write(second.mid(100));
    QTRY_COMPARE(client.scanner().fillEnd(), first.size() + second.size());
    QCOMPARE(client.pendingBytes(), qint64(0));
    QCOMPARE(client.prevFillEnd(), first.size());
    QCOMPARE(sink.handoffs.size(), 1);
    QCOMPARE(sink.handoffs[0].frame.bytes, second.left(second.size() - 2));
}

void TestKorbRdvTcpCli::wrapsAtTheBufferEnd()
{
    Device device;
    QVERIFY(device.listen());
    AcqTest::RecordingSink sink;
    KorbRdvStreamerTcp client(nullptr, &sink, nullptr, "127.0.0.1", device.port());
    const int unit = onWire(single(0)).size();
    client.setBufferCapacity(3 * unit + 10);
    QVERIFY(client.connectToServer());
    QTRY_VERIFY(device.peer);

    for (int i = 0; i < 6; ++i) {
        device.write(onWire(single(100 * i)));
        QTRY_COMPARE(client.scanner().fillEnd(), (i % 3 + 1) * unit);
    }
    // Every frame but the very first went out, across two wraps.
    QCOMPARE(sink.handoffs.size(), 5);
    QCOMPARE(sink.handoffs.last().frame.bytes, RdvTest::encodeFrame(single(500)));
    QCOMPARE(sink.handoffs.last().frame.where, client.scanner().charBuff() + 2 * unit);
}

void TestKorbRdvTcpCli::watchdogReleasesBuffer()
{
    Device device;
    QVERIFY(device.listen());
    AcqTest::RecordingSink sink;
    KorbRdvStreamerTcp client(nullptr, &sink, nullptr, "127.0.0.1", device.port());
    client.setBufferCapacity(1 << 20);
    QVERIFY(client.connectToServer());
    QTRY_VERIFY(device.peer);

    device.write(onWire(single(0)) + onWire(single(100)));
    QTRY_COMPARE(sink.handoffs.size(), 1);
    QVERIFY(client.watchdogActive());
    // 250 ms of silence release the buffer; the connection stays.
    QTRY_VERIFY_WITH_TIMEOUT(!client.scanner().charBuff(), 2000);
    QCOMPARE(client.scanner().frameSize(), 0);
    QCOMPARE(client.state(), QAbstractSocket::ConnectedState);

    // A new burst starts with a fresh gate: its first frame is not sent.
    device.write(onWire(single(1000)) + onWire(single(1100)));
    QTRY_COMPARE(sink.handoffs.size(), 2);
    QCOMPARE(sink.handoffs.last().frame.bytes, RdvTest::encodeFrame(single(1100)));
}

void TestKorbRdvTcpCli::dumpCommands()
{
    QDir(KorbRdvSource::dumpDir()).removeRecursively();
    Device device;
    QVERIFY(device.listen());
    AcqTest::CommandSource commands;
    KorbRdvStreamerTcp client(nullptr, nullptr, &commands, "127.0.0.1", device.port());
    client.setBufferCapacity(4096);

    emit commands.runCmd(QStringLiteral("buf")); // not connected, no buffer: ignored
    QVERIFY(QDir(KorbRdvSource::dumpDir()).entryList(QDir::Files).isEmpty());

    QVERIFY(client.connectToServer());
    QTRY_VERIFY(device.peer);
    const QByteArray stream = onWire(single(0)) + onWire(single(100));
    device.write(stream);
    QTRY_COMPARE(client.scanner().fillEnd(), stream.size());
    emit commands.runCmd(QStringLiteral("buf"));
    emit commands.runCmd(quint16(75));
    QCOMPARE(client.scanner().sendIntervalMs(), quint16(75));

    QFile f(QDir(KorbRdvSource::dumpDir())
                .filePath(QStringLiteral("zz-vtp_%1_0000.rdv").arg(BaseSec - Epoch2000)));
    QVERIFY2(f.open(QIODevice::ReadOnly), qPrintable(f.fileName()));
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
    QVERIFY(client.isStopped());
}

void TestKorbRdvTcpCli::reconnectsAfterDeviceCloses()
{
    Device device;
    QVERIFY(device.listen());
    KorbRdvStreamerTcp client(nullptr, nullptr, nullptr, "127.0.0.1", device.port());
    client.rearm();
    QCOMPARE(client.state(), QAbstractSocket::ConnectedState);
    QTRY_COMPARE(device.accepted, 1);

    device.peer->disconnectFromHost();
    QTRY_VERIFY(client.reconnectPending());
    // One pause later the client is back.
    QTRY_COMPARE_WITH_TIMEOUT(device.accepted, 2, 5000);
    QTRY_COMPARE(client.state(), QAbstractSocket::ConnectedState);
    QVERIFY(!client.reconnectPending());

    // A device that went away entirely is retried, not spun on.
    device.server.close();
    device.peer->abort();
    QTRY_VERIFY(client.reconnectPending());
    QTRY_VERIFY_WITH_TIMEOUT(client.state() == QAbstractSocket::UnconnectedState && client.reconnectPending(),
                             3000);
    client.stop();
}

void TestKorbRdvTcpCli::stopClosesAndStaysClosed()
{
    Device device;
    QVERIFY(device.listen());
    KorbRdvStreamerTcp client(nullptr, nullptr, nullptr, "127.0.0.1", device.port());
    client.rearm();
    QTRY_VERIFY(device.peer);
    client.stop();
    QCOMPARE(client.state(), QAbstractSocket::UnconnectedState);
    QVERIFY(!client.reconnectPending());
    QTRY_COMPARE(device.peer->state(), QAbstractSocket::UnconnectedState);
    QVERIFY(!client.reconnectPending());

    // Re-armed, it connects again.
    client.rearm();
    QCOMPARE(client.state(), QAbstractSocket::ConnectedState);
    QTRY_COMPARE(device.accepted, 2);
}

void TestKorbRdvTcpCli::testRemotePort_data()
{
    QTest::addColumn<QString>("hostPort");
    QTest::addColumn<bool>("reachable");
    QTest::newRow("listening port") << "127.0.0.1:%listen" << true;
    QTest::newRow("closed port") << "127.0.0.1:%closed" << false;
    QTest::newRow("no separator") << "127.0.0.1" << false;
    QTest::newRow("missing port") << "127.0.0.1:" << false;
    QTest::newRow("port not a number") << "127.0.0.1:abc" << false;
    QTest::newRow("port out of range") << "127.0.0.1:70000" << false;
}

void TestKorbRdvTcpCli::testRemotePort()
{
    QFETCH(QString, hostPort);
    QFETCH(bool, reachable);
    Device device;
    QVERIFY(device.listen());
    hostPort.replace("%listen", QString::number(device.port()));
    hostPort.replace("%closed", QString::number(closedPort()));
    KorbRdvStreamerTcp client(nullptr, nullptr, nullptr, "127.0.0.1", device.port());
    QCOMPARE(client.testRemotePort(hostPort), reachable);
}

QTEST_GUILESS_MAIN(TestKorbRdvTcpCli)
#include "tst_korb_rdv_tcp_cli.moc"
