// The WebSocket server with real clients on 127.0.0.1: client table, text
// commands and their replies, broadcasting of Rdv packets, and the rule that
// a client which stops reading neither grows the daemon's memory nor holds up
// the others.

#include "src/korb_rdv_settings.h"
#include "src/korb_rdv_wsserver.h"
#include "support/rdv_test_encoder.h"
#include "support/ws_test_client.h"

#include <QTcpSocket>
#include <QtTest>

#include <memory>

using RdvTest::socketArg;
using RdvTest::WsTestClient;

class TestRdvWsServer : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void constructionAndStart();
    void commands_data();
    void commands();
    void binaryMessageRefused();
    void broadcastsOnePacketToEveryClient();
    void nothingBuiltWithoutClients();
    void sendClientAndSendAllClients();
    void removeClient();
    void disconnectLeavesTable();
    void stopClosesClients();
    void stalledClientIsBoundedAndDoesNotDelayOthers();

private:
    std::unique_ptr<WebSocketServer> m_server;
    WsTestClient *connectClient();
};

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

WsTestClient *TestRdvWsServer::connectClient()
{
    auto *c = new WsTestClient(this);
    const int before = m_server->clientCount();
    if (!c->open(m_server->serverPort()))
        return nullptr;
    // The handshake completes on the client before the server has taken it up.
    if (!QTest::qWaitFor([&] { return m_server->clientCount() == before + 1; }, 5000))
        return nullptr;
    return c;
}

void TestRdvWsServer::constructionAndStart()
{
    WebSocketServer defaulted(nullptr, 0);
    QCOMPARE(defaulted.port(), quint16(3005));
    QCOMPARE(defaulted.serverName(), QStringLiteral("rdv"));
    QCOMPARE(defaulted.secureMode(), QWebSocketServer::NonSecureMode);
    QVERIFY(!defaulted.isListening());

    WebSocketServer explicitPort(nullptr, 41234);
    QCOMPARE(explicitPort.port(), quint16(41234));

    // Already listening: true, and neither the port nor the socket changes.
    const quint16 listening = m_server->serverPort();
    QVERIFY(m_server->isListening());
    QVERIFY(m_server->start(quint16(listening == 65000 ? 65001 : 65000)));
    QCOMPARE(m_server->serverPort(), listening);
    QCOMPARE(m_server->port(), listening);

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

    const QString noColon = QStringLiteral("Err: symbol ':' no found");
    const QString multi = QStringLiteral("Err: multiple symbol ':' not support");
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
    QTest::newRow("ims:65536 low bits 0 refused") << "ims:65536" << badIms << QString() << -1;
    QTest::newRow("ims:1 refused") << "ims:1" << badIms << QString() << -1;
    QTest::newRow("ims:0 refused") << "ims:0" << badIms << QString() << -1;
    QTest::newRow("ims:abc refused") << "ims:abc" << badIms << QString() << -1;
    QTest::newRow("ims:-5 refused") << "ims:-5" << badIms << QString() << -1;
    QTest::newRow("ims: empty argument refused") << "ims:" << badIms << QString() << -1;
    QTest::newRow("ims:4294967296 overflows uint, refused") << "ims:4294967296" << badIms << QString() << -1;
    QTest::newRow("ims without colon") << "ims" << noColon << QString() << -1;
    QTest::newRow("two colons") << "ims:1:2" << multi << QString() << -1;
    QTest::newRow("only colons") << "::" << multi << QString() << -1;
    QTest::newRow("IMS is case-sensitive") << "IMS:20" << unknown << QString() << -1;
    QTest::newRow("empty word") << ":" << unknown << QString() << -1;
    QTest::newRow("unknown word") << "foo:bar" << unknown << QString() << -1;
    QTest::newRow("csv with empty argument") << "csv:" << QString() << "csv" << -1;
    QTest::newRow("csv argument ignored") << "csv:x" << QString() << "csv" << -1;
    QTest::newRow("buf trimmed") << "  buf : 7" << QString() << "buf" << -1;
    QTest::newRow("Csv is case-sensitive") << "Csv:" << unknown << QString() << -1;
}

void TestRdvWsServer::commands()
{
    QFETCH(QString, message);
    QFETCH(QString, reply);
    QFETCH(QString, stringCmd);
    QFETCH(int, interval);

    Korb::sendIntervalMs = 77;
    WsTestClient *c = connectClient();
    QVERIFY(c);
    WsTestClient *other = connectClient();
    QVERIFY(other);

    QSignalSpy strSpy(m_server.get(), QOverload<const QString &>::of(&WebSocketServer::runCmd));
    QSignalSpy intSpy(m_server.get(), QOverload<quint16>::of(&WebSocketServer::runCmd));
    QSignalSpy readySpy(m_server.get(), &WebSocketServer::readyRead);

    c->socket().sendTextMessage(message);
    // A marker command whose reply is known: everything before it has been
    // answered once it arrives, so "no reply" can be asserted.
    c->socket().sendTextMessage(QStringLiteral("marker:"));
    QStringList expected;
    if (!reply.isEmpty())
        expected << reply;
    expected << QStringLiteral("Err: cmd not recognized");
    QTRY_VERIFY_WITH_TIMEOUT(c->texts.size() >= expected.size() && c->texts.last() == expected.last(), 5000);
    QCOMPARE(c->texts, expected);
    QVERIFY(other->texts.isEmpty()); // replies go to the sender only

    if (stringCmd.isEmpty()) {
        QCOMPARE(strSpy.count(), 0);
    } else {
        QCOMPARE(strSpy.count(), 1);
        QCOMPARE(strSpy.at(0).at(0).toString(), stringCmd);
    }
    if (interval < 0) {
        QCOMPARE(intSpy.count(), 0);
        QCOMPARE(Korb::sendIntervalMs, quint16(77));
    } else {
        QCOMPARE(intSpy.count(), 1);
        QCOMPARE(intSpy.at(0).at(0).value<quint16>(), quint16(interval));
        QCOMPARE(Korb::sendIntervalMs, quint16(interval));
    }
    // readyRead carries every non-empty text and its sender.
    const int texts = message.isEmpty() ? 1 : 2;
    QCOMPARE(readySpy.count(), texts);
    QCOMPARE(readySpy.last().at(0).value<QVariant>().toString(), QStringLiteral("marker:"));
    if (!message.isEmpty())
        QCOMPARE(readySpy.first().at(0).value<QVariant>().toString(), message);
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
    const QByteArray singleBytes = RdvTest::encodeFrame(single);
    const int before = WebSocketServer::broadcastCount();
    m_server->sendRdv(reinterpret_cast<const RdvFrame *>(singleBytes.constData()));
    QCOMPARE(WebSocketServer::broadcastCount(), before + 1);

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
    QTRY_COMPARE(a->binaries.size(), 2);
    QTRY_COMPARE(b->binaries.size(), 2);
    QCOMPARE(a->binaries, expected);
    QCOMPARE(b->binaries, expected);
    QVERIFY(a->texts.isEmpty());
}

void TestRdvWsServer::nothingBuiltWithoutClients()
{
    const RdvTest::FrameSpec single = RdvTest::singleFrame(5);
    QByteArray bytes = RdvTest::encodeFrame(single);
    RdvChannelMap map;
    map.insert(0, reinterpret_cast<RdvChannelFrame *>(bytes.data()));
    const int before = WebSocketServer::broadcastCount();
    m_server->sendRdv(reinterpret_cast<const RdvFrame *>(bytes.constData()));
    m_server->sendRdv(map);
    QCOMPARE(WebSocketServer::broadcastCount(), before);

    // With a client, a null frame is still nothing.
    WsTestClient *c = connectClient();
    QVERIFY(c);
    m_server->sendRdv(static_cast<const RdvFrame *>(nullptr));
    QCOMPARE(WebSocketServer::broadcastCount(), before);
}

void TestRdvWsServer::sendClientAndSendAllClients()
{
    QSignalSpy connectedSpy(m_server.get(), &WebSocketServer::connected);
    WsTestClient *a = connectClient();
    WsTestClient *b = connectClient();
    QVERIFY(a && b);
    QCOMPARE(connectedSpy.count(), 2);
    auto *serverSideA = socketArg(connectedSpy.at(0));
    const quint64 descA = quint64(quintptr(serverSideA));

    QVERIFY(m_server->sendClient(descA, QStringLiteral("hello a")));
    QVERIFY(m_server->sendClient(descA, QByteArrayLiteral("\x01\x02")));
    QVERIFY(!m_server->sendClient(descA + 8, QStringLiteral("nobody")));
    QVERIFY(!m_server->sendClient(descA, QVariant(42)));
    m_server->sendAllClients(QStringLiteral("to all"));
    m_server->sendAllClients(QVariant(3.5)); // unsupported: nothing goes out
    m_server->sendAllClients(QByteArrayLiteral("bin"));

    QTRY_COMPARE(a->texts, (QStringList{QStringLiteral("hello a"), QStringLiteral("to all")}));
    QTRY_COMPARE(a->binaries, (QList<QByteArray>{QByteArrayLiteral("\x01\x02"), QByteArrayLiteral("bin")}));
    QTRY_COMPARE(b->texts, QStringList{QStringLiteral("to all")});
    QTRY_COMPARE(b->binaries, QList<QByteArray>{QByteArrayLiteral("bin")});
}

void TestRdvWsServer::removeClient()
{
    QSignalSpy connectedSpy(m_server.get(), &WebSocketServer::connected);
    WsTestClient *a = connectClient();
    WsTestClient *b = connectClient();
    QVERIFY(a && b);
    const quint64 descA = quint64(quintptr(socketArg(connectedSpy.at(0))));

    QVERIFY(!m_server->removeClient(descA ^ 0x10));
    QCOMPARE(m_server->clientCount(), 2);
    QVERIFY(m_server->removeClient(descA));
    QCOMPARE(m_server->clientCount(), 1);
    QTRY_VERIFY(a->disconnected);
    QCOMPARE(a->closeCode, int(QWebSocketProtocol::CloseCodeNormal));
    QVERIFY(!m_server->removeClient(descA));
    QVERIFY(b->isConnected());
    m_server->sendAllClients(QStringLiteral("still here"));
    QTRY_COMPARE(b->texts, QStringList{QStringLiteral("still here")});
}

void TestRdvWsServer::disconnectLeavesTable()
{
    QSignalSpy connectedSpy(m_server.get(), &WebSocketServer::connected);
    QSignalSpy disconnectedSpy(m_server.get(), &WebSocketServer::disconnected);
    WsTestClient *a = connectClient();
    WsTestClient *b = connectClient();
    QVERIFY(a && b);
    a->socket().close();
    QTRY_COMPARE(m_server->clientCount(), 1);
    QTRY_COMPARE(disconnectedSpy.count(), 1);
    QCOMPARE(socketArg(disconnectedSpy.at(0)), socketArg(connectedSpy.at(0)));
    b->socket().abort(); // without a closing handshake
    QTRY_COMPARE(m_server->clientCount(), 0);
    QCOMPARE(disconnectedSpy.count(), 2);
}

void TestRdvWsServer::stopClosesClients()
{
    WsTestClient *a = connectClient();
    QVERIFY(a);
    m_server->stop();
    QVERIFY(!m_server->isListening());
    QTRY_VERIFY(a->disconnected);
    QTRY_COMPARE(m_server->clientCount(), 0);
    // Listening again works after a stop.
    QVERIFY(RdvTest::startOnFreePort(*m_server));
    QVERIFY(connectClient());
}

// A client that completes the handshake and then never reads again. Its
// kernel buffers fill, then the server's socket buffer; the server must stop
// queueing for it at the limit while the reading client keeps up.
void TestRdvWsServer::stalledClientIsBoundedAndDoesNotDelayOthers()
{
    QSignalSpy connectedSpy(m_server.get(), &WebSocketServer::connected);
    QTcpSocket stalled;
    stalled.setProxy(QNetworkProxy::NoProxy);
    stalled.connectToHost(QHostAddress::LocalHost, m_server->serverPort());
    QVERIFY(stalled.waitForConnected(5000));
    stalled.write("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                  "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n");
    QTRY_VERIFY(stalled.bytesAvailable() > 0 && stalled.peek(4096).contains("\r\n\r\n"));
    QVERIFY(stalled.readAll().startsWith("HTTP/1.1 101"));
    stalled.setReadBufferSize(1); // from now on it takes nothing off the wire
    QTRY_COMPARE(m_server->clientCount(), 1);
    auto *serverSide = socketArg(connectedSpy.at(0));

    WsTestClient *reader = connectClient();
    QVERIFY(reader);
    reader->keepBinaries = false; // count them, do not hold 40 MB
    QSignalSpy received(&reader->socket(), &QWebSocket::binaryMessageReceived);

    const QByteArray frame = RdvTest::encodeFrame(RdvTest::singleFrame(13000));
    const auto *f = reinterpret_cast<const RdvFrame *>(frame.constData());
    const int packetSize = RdvTest::expectedSinglePacket(RdvTest::singleFrame(13000)).size();
    // Enough to fill generous loopback kernel buffers and then the limit twice over.
    const int packets = int((3 * WebSocketServer::MaxClientBacklog + 16 * 1024 * 1024) / packetSize);
    qint64 maxBacklog = 0;
    for (int i = 1; i <= packets; ++i) {
        m_server->sendRdv(f);
        maxBacklog = qMax(maxBacklog, serverSide->bytesToWrite());
        // Every packet reaches the reading client before the next is sent.
        while (reader->binaryCount < i && received.wait(5000)) {
        }
        QCOMPARE(reader->binaryCount, i);
    }
    QVERIFY2(maxBacklog <= WebSocketServer::MaxClientBacklog + packetSize + 64,
             qPrintable(QStringLiteral("backlog grew to %1").arg(maxBacklog)));
    QVERIFY2(m_server->backlogSkips() > 0, "the stalled client was never skipped");
    QCOMPARE(reader->binaryBytes, qint64(packets) * packetSize);

    // Once it drains it receives packets again.
    stalled.setReadBufferSize(0);
    qint64 drained = 0;
    QTRY_VERIFY_WITH_TIMEOUT((drained += stalled.readAll().size(), serverSide->bytesToWrite() == 0), 10000);
    QTest::qWait(50);
    drained += stalled.readAll().size();
    const qint64 skipsBefore = m_server->backlogSkips();
    const QByteArray last = RdvTest::encodeFrame(RdvTest::singleFrame(1, 1234, 5678));
    m_server->sendRdv(reinterpret_cast<const RdvFrame *>(last.constData()));
    QCOMPARE(m_server->backlogSkips(), skipsBefore);
    const QByteArray expectedLast = RdvTest::expectedSinglePacket(RdvTest::singleFrame(1, 1234, 5678));
    QByteArray tail;
    QTRY_VERIFY((tail += stalled.readAll(), tail.endsWith(expectedLast)));
    Q_UNUSED(drained);
}

QTEST_GUILESS_MAIN(TestRdvWsServer)
#include "tst_korb_rdv_wsserver.moc"
