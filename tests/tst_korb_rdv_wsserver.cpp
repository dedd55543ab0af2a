// The WebSocket server with real clients on 127.0.0.1: a recording played,
// commands and replies, and clients that stop reading or are too many.
#include "src/korb_rdv_client_link.h"
#include "src/korb_rdv_playback.h"
#include "src/korb_rdv_settings.h"
#include "src/korb_rdv_wsserver.h"
#include "support/rdv_test_encoder.h"
#include "support/ws_test_client.h"

#include <QTcpSocket>
#include <QtTest>

#include <memory>

using namespace RdvTest;

namespace {
const RdvFrame *asFrame(const QByteArray &bytes)
{
    return reinterpret_cast<const RdvFrame *>(bytes.constData());
}

struct Command
{
    QString message; // "bin:" first: sent as a binary message
    QString reply;   // empty: none
    QString forwarded;
    int interval; // -1: unchanged, no runCmd(quint16)
};

} // namespace
Q_DECLARE_METATYPE(Command)

class TestRdvWsServer : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        // Frame times are multiples of 4 ms: their milliseconds survive the double arithmetic exactly.
        Korb::sendIntervalMs = 8;
        m_server.reset(new WebSocketServer(nullptr, 0));
        m_server->setPlayer(new KorbRdvPlayback(m_server.get(), m_server.get()));
        QVERIFY(m_server->listen(QHostAddress::LocalHost));
    }

    void cleanup()
    {
        m_server.reset();
        Korb::sendIntervalMs = Korb::DefaultSendIntervalMs;
    }

    void playback_data()
    {
        QTest::addColumn<QByteArray>("recording");
        QTest::addColumn<QString>("received"); // the first packets a first client receives
        // clang-format off
        QTest::newRow("the first frame first; all at the interval; the end wraps") << stream({single(0), single(8), single(16), single(24)}) << "s0 s8 s16 s24 s0 s8 s16 s24";
        QTest::newRow("garbage, a false header and a frame cut off by the end") << QByteArray(37, 'z') + stream({single(0)}) + "\x78\x56\x34\x12\x02" + stream({single(100)}) + frame(single(148, 1000)).left(200) << "s0 s100 s0 s100";
        QTest::newRow("frames closer than the interval are thinned") << stream({single(0), single(4), single(8), single(12), single(16)}) << "s0 s8 s16 s0 s8 s16";
        QTest::newRow("a stamp behind or far ahead starts the pacing anew") << stream({single(200), single(208), single(0), single(8), single(60000)}) << "s200 s208 s0 s8 s60000 s200";
        QTest::newRow("single frames and maps are paced apart") << stream({channel(0, 0), single(0), channel(0, 8), single(8)}) << "m0@0 s0 m0@8 s8";
        QTest::newRow("channel frames go as the map of every group")
            << stream({channel(0, 0), channel(1, 0), channel(0, 16), channel(1, 16)}) << "m0@0 m0@16,1@0 m0@0,1@16 m0@16,1@0";
        // clang-format on
    }

    void playback()
    {
        QFETCH(QByteArray, recording);
        QFETCH(QString, received);
        QVERIFY(m_server->setFileNm(file(recording)));
        WsTestClient *c = client();
        QVERIFY(c);
        const int n = received.count(' ') + 1;
        QTRY_VERIFY_WITH_TIMEOUT(c->binaries.size() >= n, 10000);
        QStringList seen;
        for (const QByteArray &p : c->binaries.mid(0, n))
            seen << describePacket(p);
        QCOMPARE(seen.join(' '), received);
    }

    void playbackTimerFollowsClients()
    {
        Korb::sendIntervalMs = 40;
        QVERIFY(!m_server->setFileNm(m_dir.path())); // a folder without .rdv files has nothing to play
        QVERIFY(m_server->setFileNm(file(stream({single(0), single(52)}))) && !m_server->playbackActive());
        WsTestClient *a = client(), *b = client();
        QVERIFY(a && b && m_server->playbackActive() && m_server->playbackTimerInterval() == 40);
        a->socket.close(); // one of two leaving keeps it; the last one leaving stops it
        QTRY_COMPARE(m_server->clientCount(), 1);
        QVERIFY(m_server->playbackActive());
        b->socket.close();
        QTRY_VERIFY(!m_server->playbackActive());
        WsTestClient *c = client();
        QVERIFY(c);
        c->socket.sendTextMessage(QStringLiteral("ims:16"));
        QTRY_VERIFY(m_server->playbackActive() && m_server->playbackTimerInterval() == 16);
        QVERIFY(m_server->setFileNm(file(QByteArray(100000, 'z')))); // no frame in it: it stops by itself
        QTRY_VERIFY(!m_server->playbackActive());
    }

    void commands_data()
    {
        QTest::addColumn<Command>("row");
        const QString badIms = QStringLiteral("Err: ims vals [1...999] ms");
        // clang-format off
        QTest::newRow("empty message") << Command{"", "Err: message.isEmpty()", "", -1};
        QTest::newRow("ims with spaces: the raw text echoed") << Command{"ims: 20 ", "ims: 20  OK", "", 20};
        QTest::newRow("ims:2, the lowest accepted; no upper bound") << Command{"ims:2", "ims:2 OK", "", 2};
        QTest::newRow("ims:65538 taken as 2") << Command{"ims:65538", "ims:65538 OK", "", 2};
        QTest::newRow("ims:1") << Command{"ims:1", badIms, "", -1};
        QTest::newRow("no colon") << Command{"ims", "Err: symbol ':' no found", "", -1};
        QTest::newRow("two colons") << Command{"ims:1:2", "Err: multiple symbol ':' not support", "", -1};
        QTest::newRow("IMS: case matters") << Command{"IMS:20", "Err: cmd not recognized", "", -1};
        QTest::newRow("csv, argument ignored, no reply") << Command{"csv:x", "", "csv", -1};
        QTest::newRow("buf, trimmed") << Command{"  buf : 7", "", "buf", -1};
        QTest::newRow("a binary message") << Command{"bin:ims:20", "@Err: binary command no supported", "", -1};
        // clang-format on
    }

    void commands()
    {
        QFETCH(Command, row);
        Korb::sendIntervalMs = 77;
        WsTestClient *c = client(), *other = client();
        QVERIFY(c && other);
        QSignalSpy words(m_server.get(), QOverload<const QString &>::of(&WebSocketServer::runCmd));
        QSignalSpy intervals(m_server.get(), QOverload<quint16>::of(&WebSocketServer::runCmd));
        row.message.startsWith("bin:") ? c->socket.sendBinaryMessage(row.message.mid(4).toUtf8())
                                       : c->socket.sendTextMessage(row.message);
        // A marker with a known reply: once it is there, "no reply" holds.
        c->socket.sendTextMessage(QStringLiteral("marker:"));
        QStringList expected = QStringList(row.reply) << QStringLiteral("Err: cmd not recognized");
        expected.removeAll(QString());
        QTRY_COMPARE(c->texts, expected);
        QVERIFY(other->texts.isEmpty()); // replies go to the sender only
        QCOMPARE(words.count() ? words.at(0).at(0).toString() : QString(), row.forwarded);
        QCOMPARE(intervals.count() ? int(intervals.at(0).at(0).value<quint16>()) : -1, row.interval);
        QCOMPARE(int(Korb::sendIntervalMs), row.interval < 0 ? 77 : row.interval);
    }

    // A client the relay closes gets the code, though it keeps sending and reads nothing until then; the
    // others keep receiving. One that sends commands without reading the replies is held to the reply bound;
    // one that never reads again is cut off in the end.
    void closedClientGetsTheCode_data()
    {
        QTest::addColumn<QByteArray>("message"); // sent, each taken before the next, until closed; then on
        QTest::addColumn<int>("maxClients");
        QTest::addColumn<int>("code"); // -1: it reads nothing at all
        const QByteArray command = clientTextFrame("ims:" + QByteArray(60000, ' ') + "20");
        const QByteArray over = clientTextFrame(QByteArray(WebSocketServer::MaxClientMessageSize + 1, 'x'));
        // clang-format off
        QTest::newRow("replies not read: 1008") << command << 2 << int(QWebSocketProtocol::CloseCodePolicyViolated);
        QTest::newRow("a message over the cap: 1009") << over << 2 << int(QWebSocketProtocol::CloseCodeTooMuchData);
        QTest::newRow("past the client limit: 1013") << command << 1 << int(WebSocketServer::CloseCodeTryAgainLater);
        QTest::newRow("replies never read: cut off") << command << 2 << -1;
        // clang-format on
    }

    void closedClientGetsTheCode()
    {
        QFETCH(QByteArray, message);
        QFETCH(int, maxClients);
        QFETCH(int, code);
        m_server->setMaxClients(maxClients);
        WsTestClient *reader = client();
        QTcpSocket raw;
        QVERIFY(reader && rawHandshake(raw, m_server->serverPort()));
        raw.setReadBufferSize(1); // from now on it takes nothing off the wire
        QSignalSpy commands(m_server.get(), &WebSocketServer::readyRead);
        for (int sent = 1; sent < 1000; ++sent) {
            raw.write(message);
            QTRY_VERIFY(commands.count() == sent || m_server->clientCount() == 1);
            if (m_server->clientCount() == 1)
                break;
        }
        // What the kernel holds (the relay's send buffer at its largest, the
        // client's receive buffer) plus the relay's own bound, and not more.
        const QList<QByteArray> wmem = readFile("/proc/sys/net/ipv4/tcp_wmem").trimmed().split('\t');
        const QList<QByteArray> rmem = readFile("/proc/sys/net/ipv4/tcp_rmem").trimmed().split('\t');
        const qint64 held = wmem.value(2).toLongLong() + 4 * rmem.value(1).toLongLong() +
                            WebSocketServer::MaxClientReplyBacklog + 2 * message.size();
        QVERIFY2(commands.count() * message.size() <= held, qPrintable(QString::number(commands.count())));
        m_server->sendRdv(asFrame(frame(single(100))));
        QTRY_COMPARE(reader->binaries, QByteArrayList{singlePacket(frame(single(100)))});
        QSignalSpy gone(m_server.get(), &WebSocketServer::disconnected);
        if (code < 0)
            QTRY_VERIFY_WITH_TIMEOUT((raw.bytesToWrite() > 0 || raw.write(message) > 0) && gone.count() == 1,
                                     3 * KorbRdvClientLink::CloseGraceMs);
        else
            QCOMPARE(closeCodeReadBy(raw, message), code);
        QCOMPARE(m_server->clientCount(), 1);
        QCOMPARE(m_server->refusals(KorbRdvWsListener::Limit), maxClients == 1 ? 1 : 0);
    }

    // Two clients stall one after the other; with the total bound below what both
    // hold, the one that stalled first is cut off and the other stays.
    void totalBoundCutsOffFurthestBehind()
    {
        const QByteArray big = frame(single(0, 13000));
        QTcpSocket raw[2];
        QWebSocket *side[2] = {};
        for (int c = 0; c < 2; ++c) {
            QSignalSpy connected(m_server.get(), &WebSocketServer::connected);
            QVERIFY(rawHandshake(raw[c], m_server->serverPort()) &&
                    (connected.count() || connected.wait(5000)));
            raw[c].setReadBufferSize(1); // from now on it takes nothing off the wire
            side[c] = connected.at(0).at(0).value<QWebSocket *>();
            for (int i = 0; i < 1000 && side[c]->bytesToWrite() == 0; ++i)
                m_server->sendRdv(asFrame(big)), QCoreApplication::processEvents();
            QVERIFY(side[c]->bytesToWrite() > 0);
        }
        QSignalSpy gone(m_server.get(), &WebSocketServer::disconnected);
        m_server->setMaxQueuedBytes(side[0]->bytesToWrite() + side[1]->bytesToWrite() - 1);
        m_server->sendRdv(asFrame(big));
        QTRY_COMPARE(gone.count(), 1);
        QCOMPARE(gone.at(0).at(0).value<QWebSocket *>(), side[0]);
        QCOMPARE(m_server->clientCount(), 1);
    }

private:
    WsTestClient *client() { return connectClient(*m_server, this); }
    QString file(const QByteArray &bytes)
    {
        static int files = 0;
        const QString path = m_dir.filePath(QString::number(++files));
        return writeFile(path, bytes) ? path : QString();
    }
    std::unique_ptr<WebSocketServer> m_server;
    QTemporaryDir m_dir;
};

QTEST_GUILESS_MAIN(TestRdvWsServer)
#include "tst_korb_rdv_wsserver.moc"
