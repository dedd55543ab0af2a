// The WebSocket server with real clients on 127.0.0.1: start, client table,
// text commands and replies, Rdv broadcasts, and the clients that read
// slowly, not at all, or too many: they get fresh packets or none, and
// neither grow the daemon's memory nor hold up the others.

#include "src/korb_rdv_packet.h"
#include "src/korb_rdv_settings.h"
#include "src/korb_rdv_wsserver.h"
#include "support/rdv_test_encoder.h"
#include "support/ws_test_client.h"

#include <QTcpSocket>
#include <QtTest>

#include <algorithm>
#include <memory>

using RdvTest::socketArg;
using RdvTest::WsTestClient;

namespace {
const RdvFrame *asFrame(const QByteArray &bytes)
{
    return reinterpret_cast<const RdvFrame *>(bytes.constData());
}
} // namespace

class TestRdvWsServer : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void start();
    void commands_data();
    void commands();
    void binaryMessageRefused();
    void broadcastsOnePacketToEveryClient();
    void nothingBuiltWithoutClients();
    void clientTable();
    void incomingMessageCap_data();
    void incomingMessageCap();
    void stopClosesClients();
    void stalledClientGetsOnlyFreshPackets();
    void unreadRepliesCloseWith1008();
    void clientLimitRefusesWith1013();
    void totalBoundCutsOffFurthestBehind();

private:
    WsTestClient *connectClient() { return RdvTest::connectClient(*m_server, this); }
    // A raw client that has stopped taking anything off the wire.
    bool connectStalled(QTcpSocket &socket);
    // Reads a raw client until the relay's close frame; its code, or -1.
    static int closeCodeReadBy(QTcpSocket &socket);
    std::unique_ptr<WebSocketServer> m_server;
};

bool TestRdvWsServer::connectStalled(QTcpSocket &socket)
{
    const int before = m_server->clientCount();
    if (!RdvTest::rawHandshake(socket, m_server->serverPort()))
        return false;
    socket.setReadBufferSize(1); // from now on it takes nothing off the wire
    return QTest::qWaitFor([&] { return m_server->clientCount() == before + 1; }, 5000);
}

int TestRdvWsServer::closeCodeReadBy(QTcpSocket &socket)
{
    socket.setReadBufferSize(0);
    QByteArray stream;
    QList<RdvTest::WsFrame> frames;
    const bool closed = QTest::qWaitFor(
        [&] {
            stream += socket.readAll();
            frames += RdvTest::takeServerFrames(stream);
            return !frames.isEmpty() && frames.last().opcode == 0x8;
        },
        10000);
    return closed ? frames.last().closeCode() : -1;
}

void TestRdvWsServer::init()
{
    Korb::sendIntervalMs = Korb::DefaultSendIntervalMs;
    m_server.reset(new WebSocketServer(nullptr, 0));
    QVERIFY(RdvTest::startOnFreePort(*m_server));
}

void TestRdvWsServer::cleanup()
{
    m_server.reset();
    Korb::sendIntervalMs = Korb::DefaultSendIntervalMs;
}

void TestRdvWsServer::start()
{
    QCOMPARE(WebSocketServer(nullptr, 0).port(), quint16(3005));

    // Already listening: true, and neither the port nor the socket changes.
    const quint16 listening = m_server->serverPort();
    QVERIFY(m_server->start(quint16(listening == 65000 ? 65001 : 65000)));
    QCOMPARE(m_server->serverPort(), listening);

    // A port that is taken: false, not listening.
    WebSocketServer clash(nullptr, listening);
    QVERIFY(!clash.start());
    QVERIFY(!clash.isListening());
}

void TestRdvWsServer::commands_data()
{
    QTest::addColumn<QString>("message");
    QTest::addColumn<QString>("reply"); // empty: no reply expected
    QTest::addColumn<QString>("stringCmd");
    QTest::addColumn<int>("interval"); // -1: interval unchanged, no runCmd(quint16)

    const QString badIms = QStringLiteral("Err: ims vals [1...999] ms");
    const QString unknown = QStringLiteral("Err: cmd not recognized");

    QTest::newRow("empty message") << QString() << "Err: message.isEmpty()" << QString() << -1;
    QTest::newRow("ims with spaces, reply echoes the raw text") << "ims: 20 "
                                                                << "ims: 20  OK" << QString() << 20;
    QTest::newRow("ims:2 lowest accepted") << "ims:2"
                                           << "ims:2 OK" << QString() << 2;
    QTest::newRow("ims:5000 no upper bound") << "ims:5000"
                                             << "ims:5000 OK" << QString() << 5000;
    QTest::newRow("ims:65538 accepted as 2") << "ims:65538"
                                             << "ims:65538 OK" << QString() << 2;
    QTest::newRow("ims:65537 low bits 1 refused") << "ims:65537" << badIms << QString() << -1;
    QTest::newRow("ims:1 refused") << "ims:1" << badIms << QString() << -1;
    QTest::newRow("ims:abc refused") << "ims:abc" << badIms << QString() << -1;
    QTest::newRow("ims without colon") << "ims"
                                       << "Err: symbol ':' no found" << QString() << -1;
    QTest::newRow("two colons") << "ims:1:2"
                                << "Err: multiple symbol ':' not support" << QString() << -1;
    QTest::newRow("IMS is case-sensitive") << "IMS:20" << unknown << QString() << -1;
    QTest::newRow("csv with empty argument") << "csv:" << QString() << "csv" << -1;
    QTest::newRow("csv argument ignored") << "csv:x" << QString() << "csv" << -1;
    QTest::newRow("buf trimmed") << "  buf : 7" << QString() << "buf" << -1;
}

void TestRdvWsServer::commands()
{
    QFETCH(QString, message);
    QFETCH(QString, reply);
    QFETCH(QString, stringCmd);
    QFETCH(int, interval);

    Korb::sendIntervalMs = 77;
    WsTestClient *c = connectClient();
    WsTestClient *other = connectClient();
    QVERIFY(c && other);
    QSignalSpy strSpy(m_server.get(), QOverload<const QString &>::of(&WebSocketServer::runCmd));
    QSignalSpy intSpy(m_server.get(), QOverload<quint16>::of(&WebSocketServer::runCmd));

    c->socket().sendTextMessage(message);
    // A marker with a known reply: once it arrives, "no reply" can be asserted.
    c->socket().sendTextMessage(QStringLiteral("marker:"));
    QStringList expected;
    if (!reply.isEmpty())
        expected << reply;
    expected << QStringLiteral("Err: cmd not recognized");
    QTRY_VERIFY_WITH_TIMEOUT(c->texts.size() >= expected.size() && c->texts.last() == expected.last(), 5000);
    QCOMPARE(c->texts, expected);
    QVERIFY(other->texts.isEmpty()); // replies go to the sender only

    QCOMPARE(strSpy.count(), stringCmd.isEmpty() ? 0 : 1);
    if (!stringCmd.isEmpty())
        QCOMPARE(strSpy.at(0).at(0).toString(), stringCmd);
    QCOMPARE(intSpy.count(), interval < 0 ? 0 : 1);
    if (interval >= 0)
        QCOMPARE(intSpy.at(0).at(0).value<quint16>(), quint16(interval));
    QCOMPARE(Korb::sendIntervalMs, quint16(interval < 0 ? 77 : interval));
}

void TestRdvWsServer::binaryMessageRefused()
{
    WsTestClient *c = connectClient();
    QVERIFY(c);
    QSignalSpy strSpy(m_server.get(), QOverload<const QString &>::of(&WebSocketServer::runCmd));
    c->socket().sendBinaryMessage(QByteArrayLiteral("ims:20"));
    QTRY_COMPARE(c->texts, QStringList{QStringLiteral("@Err: binary command no supported")});
    QCOMPARE(strSpy.count(), 0);
    QCOMPARE(Korb::sendIntervalMs, Korb::DefaultSendIntervalMs);
}

void TestRdvWsServer::broadcastsOnePacketToEveryClient()
{
    WsTestClient *a = connectClient();
    WsTestClient *b = connectClient();
    QVERIFY(a && b);

    const RdvTest::FrameSpec single = RdvTest::singleFrame(500);
    const int before = WebSocketServer::broadcastCount();
    m_server->sendRdv(asFrame(RdvTest::encodeFrame(single)));

    const QList<RdvTest::FrameSpec> groups{RdvTest::channelFrame(-1, 10), RdvTest::channelFrame(0, 20),
                                           RdvTest::channelFrame(7, 30)};
    QList<QByteArray> storage;
    RdvChannelMap map;
    for (const auto &g : groups) {
        storage << RdvTest::encodeFrame(g);
        map.insert(qint8(g.byte16), reinterpret_cast<RdvChannelFrame *>(storage.last().data()));
    }
    m_server->sendRdv(map);
    QCOMPARE(WebSocketServer::broadcastCount(), before + 2);

    const QList<QByteArray> expected{RdvTest::expectedSinglePacket(single),
                                     RdvTest::expectedChannelPacket(groups)};
    QTRY_COMPARE(a->binaries, expected);
    QTRY_COMPARE(b->binaries, expected);
}

void TestRdvWsServer::nothingBuiltWithoutClients()
{
    QByteArray bytes = RdvTest::encodeFrame(RdvTest::singleFrame(5));
    RdvChannelMap map;
    map.insert(0, reinterpret_cast<RdvChannelFrame *>(bytes.data()));
    const int before = WebSocketServer::broadcastCount();
    m_server->sendRdv(asFrame(bytes));
    m_server->sendRdv(map);
    QCOMPARE(WebSocketServer::broadcastCount(), before);

    // With a client, a null frame is still nothing.
    WsTestClient *c = connectClient();
    QVERIFY(c);
    m_server->sendRdv(static_cast<const RdvFrame *>(nullptr));
    QCOMPARE(WebSocketServer::broadcastCount(), before);
}

// Descriptors are the server-side socket pointers: sends by type, removal
// with close code 1000, and the table shrinking on a plain disconnect.
void TestRdvWsServer::clientTable()
{
    QSignalSpy connectedSpy(m_server.get(), &WebSocketServer::connected);
    QSignalSpy disconnectedSpy(m_server.get(), &WebSocketServer::disconnected);
    WsTestClient *a = connectClient();
    WsTestClient *b = connectClient();
    WsTestClient *c = connectClient();
    QVERIFY(a && b && c);
    QCOMPARE(connectedSpy.count(), 3);
    const quint64 descA = quint64(quintptr(socketArg(connectedSpy.at(0))));

    QVERIFY(m_server->sendClient(descA, QStringLiteral("hello a")));
    QVERIFY(m_server->sendClient(descA, QByteArrayLiteral("\x01\x02")));
    QVERIFY(!m_server->sendClient(descA ^ 0x10, QStringLiteral("nobody")));
    QVERIFY(!m_server->sendClient(descA, QVariant(42)));
    m_server->sendAllClients(QStringLiteral("to all"));
    m_server->sendAllClients(QVariant(3.5)); // unsupported: nothing goes out
    m_server->sendAllClients(QByteArrayLiteral("bin"));
    QTRY_COMPARE(a->texts, (QStringList{QStringLiteral("hello a"), QStringLiteral("to all")}));
    QTRY_COMPARE(a->binaries, (QList<QByteArray>{QByteArrayLiteral("\x01\x02"), QByteArrayLiteral("bin")}));
    QTRY_COMPARE(b->texts, QStringList{QStringLiteral("to all")});
    QTRY_COMPARE(b->binaries, QList<QByteArray>{QByteArrayLiteral("bin")});

    QVERIFY(!m_server->removeClient(descA ^ 0x10));
    QVERIFY(m_server->removeClient(descA));
    QCOMPARE(m_server->clientCount(), 2);
    QTRY_VERIFY(a->disconnected);
    QCOMPARE(a->closeCode, int(QWebSocketProtocol::CloseCodeNormal));
    QVERIFY(!m_server->removeClient(descA));

    b->socket().close();
    QTRY_COMPARE(m_server->clientCount(), 1);
    QTRY_VERIFY(!disconnectedSpy.isEmpty());
    QCOMPARE(socketArg(disconnectedSpy.last()), socketArg(connectedSpy.at(1)));
    c->socket().abort(); // without a closing handshake
    QTRY_COMPARE(m_server->clientCount(), 0);
}

void TestRdvWsServer::stopClosesClients()
{
    WsTestClient *a = connectClient();
    QVERIFY(a);
    m_server->stop();
    QVERIFY(!m_server->isListening());
    QTRY_VERIFY(a->disconnected);
    QTRY_COMPARE(m_server->clientCount(), 0);
    QVERIFY(RdvTest::startOnFreePort(*m_server));
    QVERIFY(connectClient());
}

// A client that stops reading holds at most the packet being written in the
// relay; what it gets after reading again is the newest packet, not a queue.
void TestRdvWsServer::stalledClientGetsOnlyFreshPackets()
{
    QSignalSpy connectedSpy(m_server.get(), &WebSocketServer::connected);
    QTcpSocket stalled;
    QVERIFY(connectStalled(stalled));
    QWebSocket *serverSide = socketArg(connectedSpy.at(0));
    WsTestClient *reader = connectClient();
    QVERIFY(reader);
    reader->keepBinaries = false;
    QSignalSpy received(&reader->socket(), &QWebSocket::binaryMessageReceived);

    // Full-size packets, one second apart; enough to fill generous loopback
    // kernel buffers several times over.
    const auto packetAt = [](int i) { return RdvTest::singleFrame(13000, 1700000000 + quint32(i), 0); };
    const int frameSize = Rdv::PacketHeaderSize + 8 * 13000 + Rdv::WsMaxHeaderSize;
    const int packets = 300;
    qint64 maxBacklog = 0;
    for (int i = 1; i <= packets; ++i) {
        m_server->sendRdv(asFrame(RdvTest::encodeFrame(packetAt(i))));
        maxBacklog = qMax(maxBacklog, serverSide->bytesToWrite());
        // The reading client keeps up and gets every packet.
        while (reader->binaryCount < i && received.wait(5000)) {
        }
        QCOMPARE(reader->binaryCount, i);
    }
    QVERIFY2(maxBacklog <= frameSize, qPrintable(QStringLiteral("backlog grew to %1").arg(maxBacklog)));
    QVERIFY(m_server->replacedPackets() > 0);

    // Reading again, first only what the kernel holds, while the relay's
    // event loop stands: a reply then finds room in the kernel but the rest
    // of a packet still queued in the relay, and has to go behind it.
    stalled.setReadBufferSize(0);
    QByteArray stream;
    while (stalled.waitForReadyRead(50))
        stream += stalled.readAll();
    QVERIFY(serverSide->bytesToWrite() > 0);
    QVERIFY(m_server->sendClient(quint64(quintptr(serverSide)), QStringLiteral("between")));
    QTRY_VERIFY_WITH_TIMEOUT((stream += stalled.readAll(), serverSide->bytesToWrite() == 0), 10000);
    m_server->sendRdv(asFrame(RdvTest::encodeFrame(packetAt(packets + 1))));
    const QByteArray last = RdvTest::expectedSinglePacket(packetAt(packets + 1));
    QTRY_VERIFY_WITH_TIMEOUT((stream += stalled.readAll(), stream.endsWith(last)), 10000);

    // What the kernel held, in order; then the newest packet of the stall and the next one.
    QList<double> times;
    QStringList texts;
    for (const RdvTest::WsFrame &f : RdvTest::takeServerFrames(stream)) {
        if (f.opcode == 0x1)
            texts << QString::fromUtf8(f.payload);
        else
            times << RdvTest::singlePacketTimeMs(f.payload);
    }
    QCOMPARE(texts, QStringList{QStringLiteral("between")});
    QVERIFY(times.size() >= 3 && times.size() < packets);
    QCOMPARE(times.last(), RdvTest::singlePacketTimeMs(last));
    QCOMPARE(times.at(times.size() - 2),
             RdvTest::singlePacketTimeMs(RdvTest::expectedSinglePacket(packetAt(packets))));
    QVERIFY(std::is_sorted(times.cbegin(), times.cend()));
    QCOMPARE(std::adjacent_find(times.cbegin(), times.cend()), times.cend());
}

// A client that sends commands and never reads the answers is closed with
// 1008 once they pile up in the relay; another client keeps receiving.
void TestRdvWsServer::unreadRepliesCloseWith1008()
{
    QSignalSpy connectedSpy(m_server.get(), &WebSocketServer::connected);
    QSignalSpy commandSpy(m_server.get(), &WebSocketServer::readyRead);
    QTcpSocket flooder;
    QVERIFY(connectStalled(flooder));
    QWebSocket *serverSide = socketArg(connectedSpy.at(0));
    WsTestClient *reader = connectClient();
    QVERIFY(reader);
    // Each reply echoes the 60 KB command: the kernel's buffers fill, then the
    // bound. One command at a time, each taken by the relay before the next,
    // so that none is left unread when the relay closes.
    const QByteArray command = RdvTest::clientFrame(0x1, "ims:" + QByteArray(60000, ' ') + "20");
    for (int sent = 1; serverSide->bytesToWrite() <= WebSocketServer::MaxClientReplyBacklog; ++sent) {
        QVERIFY(sent < 1000);
        flooder.write(command);
        QTRY_COMPARE(commandSpy.count(), sent);
    }
    QTRY_COMPARE(m_server->clientCount(), 1);

    const RdvTest::FrameSpec single = RdvTest::singleFrame(100);
    m_server->sendRdv(asFrame(RdvTest::encodeFrame(single)));
    QTRY_COMPARE(reader->lastBinary, RdvTest::expectedSinglePacket(single));
    QCOMPARE(closeCodeReadBy(flooder), int(QWebSocketProtocol::CloseCodePolicyViolated));
}

void TestRdvWsServer::clientLimitRefusesWith1013()
{
    m_server->setMaxClients(2);
    WsTestClient *a = connectClient();
    WsTestClient *b = connectClient();
    QVERIFY(a && b);
    // Read raw: Qt 5's own client takes 1013 for a protocol error.
    QTcpSocket extra;
    QVERIFY(RdvTest::rawHandshake(extra, m_server->serverPort())); // completes, then the relay closes
    QCOMPARE(closeCodeReadBy(extra), int(WebSocketServer::CloseCodeTryAgainLater));
    QCOMPARE(m_server->clientCount(), 2);
    a->socket().close();
    QTRY_COMPARE(m_server->clientCount(), 1);
    QVERIFY(connectClient()); // a place freed is taken again
}

// Two clients stall one after the other; with the total bound below what
// both hold, the one that stalled first is cut off and the other stays.
void TestRdvWsServer::totalBoundCutsOffFurthestBehind()
{
    QSignalSpy connectedSpy(m_server.get(), &WebSocketServer::connected);
    QSignalSpy disconnectedSpy(m_server.get(), &WebSocketServer::disconnected);
    QTcpSocket first, second;
    QVERIFY(connectStalled(first));
    QVERIFY(RdvTest::rawHandshake(second, m_server->serverPort()));
    QTRY_COMPARE(m_server->clientCount(), 2);
    QWebSocket *firstSide = socketArg(connectedSpy.at(0));
    QWebSocket *secondSide = socketArg(connectedSpy.at(1));
    const QByteArray frame = RdvTest::encodeFrame(RdvTest::singleFrame(13000));
    const auto sendUntilQueued = [&](QWebSocket *side) {
        for (int i = 0; i < 1000 && side->bytesToWrite() == 0; ++i) {
            m_server->sendRdv(asFrame(frame));
            QCoreApplication::processEvents();
            second.readAll();
        }
        return side->bytesToWrite() > 0;
    };
    QVERIFY(sendUntilQueued(firstSide));
    second.setReadBufferSize(1);
    QVERIFY(sendUntilQueued(secondSide));

    m_server->setMaxQueuedBytes(firstSide->bytesToWrite() + secondSide->bytesToWrite() - 1);
    m_server->sendRdv(asFrame(frame));
    QTRY_COMPARE(m_server->clientCount(), 1);
    QTRY_COMPARE(disconnectedSpy.count(), 1);
    QCOMPARE(socketArg(disconnectedSpy.at(0)), firstSide);
}

void TestRdvWsServer::incomingMessageCap_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<bool>("answered");
    QTest::newRow("at the cap: an ordinary reply") << int(WebSocketServer::MaxClientMessageSize) << true;
    QTest::newRow("one byte over: the connection is closed")
        << int(WebSocketServer::MaxClientMessageSize) + 1 << false;
}

void TestRdvWsServer::incomingMessageCap()
{
    // A client cannot make the relay buffer an arbitrarily large message.
    QFETCH(int, size);
    QFETCH(bool, answered);
    WsTestClient *c = connectClient();
    QVERIFY(c);
    c->socket().sendTextMessage(QString(size, QLatin1Char('x')));
    if (answered) {
        QTRY_COMPARE(c->texts, QStringList{QStringLiteral("Err: symbol ':' no found")});
    } else {
        QTRY_VERIFY(c->disconnected);
        QCOMPARE(c->closeCode, int(QWebSocketProtocol::CloseCodeTooMuchData));
        QTRY_COMPARE(m_server->clientCount(), 0);
    }
}

QTEST_GUILESS_MAIN(TestRdvWsServer)
#include "tst_korb_rdv_wsserver.moc"
