// The road of the device's frames: the scanner fed through its write window,
// and the UDP and TCP sources against a device on 127.0.0.1.
#include "src/korb_env.h"
#include "src/korb_rdv_disk_writer.h"
#include "src/korb_rdv_tcp_cli.h"
#include "src/korb_rdv_udp_cli.h"
#include "src/korb_rdv_wsserver.h"
#include "support/rdv_test_encoder.h"
#include "support/ws_test_client.h"

#include <QTcpServer>
#include <QTcpSocket>
#include <QUdpSocket>
#include <QtTest>

using namespace RdvTest;
using L = QByteArrayList;

namespace {
// A 4 KiB buffer, each chunk written through the window and scanned.
bool feed(KorbRdvScanner &scanner, const L &chunks)
{
    bool ok = scanner.resetBuffer(4096);
    for (const QByteArray &c : chunks) {
        char *const window = scanner.reserve(c.size());
        ok = ok && window && memcpy(window, c.constData(), size_t(c.size()));
        scanner.commit(c.size(), false);
    }
    return ok;
}

QByteArray dg(quint32 seq, const FrameSpec &s, int lead = 0, int lengthDelta = 0)
{
    return datagram(seq, QByteArray(lead, '\xEE') + frame(s), lengthDelta);
}

// Kind-1 frames of `group` at the given times, a datagram each, numbered from `seq`.
L run(quint32 seq, qint8 group, std::initializer_list<int> times)
{
    L out;
    for (int ms : times)
        out << dg(seq++, channel(group, ms));
    return out;
}

// The sources under test with their devices on loopback; `commands` drives both.
struct Devices
{
    explicit Devices(int capacity = 1 << 20, qint64 dumpQuota = 1 << 30)
        : udp(new KorbRdvStreamerUdp(nullptr, &sink, &commands, 0, 0)), writer(new KorbRdvDiskWriter(nullptr))
    {
        udp->setLocalAddress(QHostAddress::LocalHost);
        udp->setBufferCapacity(capacity);
        udp->setDumpWriter(writer.data(), dumpQuota);
        QObject::connect(&server, &QTcpServer::newConnection,
                         [this] { peer = server.nextPendingConnection(); });
        server.listen(QHostAddress::LocalHost, 0);
        tcp.reset(new KorbRdvStreamerTcp(nullptr, &sink, &commands, "127.0.0.1", server.serverPort()));
        tcp->setBufferCapacity(capacity);
        tcp->setDumpWriter(writer.data(), dumpQuota);
        up = udp->bind() && datagrams.bind(QHostAddress(QHostAddress::LocalHost), 0) &&
             tcp->connectToServer() && QTest::qWaitFor([this] { return !peer.isNull(); });
    }
    // Sends to a port and waits until the receiver has taken the last datagram.
    bool send(int port, const L &list)
    {
        quint32 last = 0;
        for (const QByteArray &d : list) {
            datagrams.writeDatagram(d, QHostAddress::LocalHost, port ? udp->port2() : udp->port1());
            last = d.size() >= 8 ? qFromLittleEndian<quint32>(d.constData() + 4) : last;
        }
        return QTest::qWaitFor([&] { return udp->lastSequence(port) == last; }, 5000);
    }
    // Writes to the TCP client and waits until it has read: the fill end moves.
    bool write(const QByteArray &bytes)
    {
        const int before = tcp->scanner().fillEnd();
        peer->write(bytes);
        return QTest::qWaitFor([&] { return tcp->scanner().fillEnd() != before; }, 5000);
    }
    RecordingSink sink;
    WebSocketServer commands{nullptr}; // the sources' runCmd comes from here
    QScopedPointer<KorbRdvStreamerUdp> udp;
    QScopedPointer<KorbRdvDiskWriter> writer; // reset: the dumps are written
    QUdpSocket datagrams;
    QTcpServer server;
    QPointer<QTcpSocket> peer;
    QScopedPointer<KorbRdvStreamerTcp> tcp;
    bool up;
};
} // namespace

class TestKorbRdvSource : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Korb::setAppDir(m_dir.filePath("bin")); } // dumps go to <dir>/tmp

    void scan_data()
    {
        QTest::addColumn<L>("chunks"); // written into a 4 KiB buffer
        QTest::addColumn<int>("clients");
        QTest::addColumn<QString>("handoffs"); // at an interval of 50 ms
        FrameSpec k0 = single(0), k3 = single(0), bad = single(0), over = single(0, 13001);
        k0.kind = 0, k3.kind = 3, bad.magic = Magic + 1, over.samples = 0;
        // clang-format off
        QTest::newRow("50 ms after the last sent is not enough") << L{stream({single(100), single(150), single(152)})} << 1 << "s152";
        QTest::newRow("the first frame only sets the clock; older passes") << L{stream({single(5000), single(5100), single(0)})} << 1 << "s5100 s0";
        QTest::newRow("the two bytes after a frame are never looked at") << L{stream({single(0)}, 0) + stream({single(100), single(200)})} << 1 << "s200";
        QTest::newRow("kinds 0, 3, a wrong magic, 13001 samples: no frames") << L{stream({k0, k3, bad, over, single(0, 1), single(100, 1)})} << 1 << "s100";
        QTest::newRow("no client: nothing handed on") << L{stream({channel(1, 0), channel(2, 100), single(200)})} << 0 << "";
        QTest::newRow("kind 1: the latest frame of every group") << L{stream({channel(1, 0), channel(-3, 100), channel(1, 200)})} << 1 << "m-3@100,1@0 m-3@100,1@200";
        QTest::newRow("kind 2 behind kind 1: the kind-1 frame under -1") << L{stream({channel(3, 0), channel(3, 100), single(200), channel(3, 300), channel(3, 400)})} << 1 << "m3@100 m-1@100,3@300 m-1@100,3@400";
        QTest::newRow("a write goes on from the last frame, not sent twice") << L{stream({single(0), single(100)}), stream({single(200)})} << 1 << "s100 s200";
        QTest::newRow("a write past the end starts at 0") << L{QByteArray(4000, 'z'), stream({single(0), single(100)})} << 1 << "s100";
        // clang-format on
    }

    void scan()
    {
        QFETCH(L, chunks);
        QFETCH(int, clients);
        QFETCH(QString, handoffs);
        // The faster searches must give exactly what the byte-by-byte one gives.
        for (auto how : {KorbRdvScanner::Search::Bytewise, KorbRdvScanner::Search::Memchr,
                         KorbRdvScanner::Search::Simd}) {
            RecordingSink sink;
            sink.clients = clients;
            KorbRdvScanner scanner(&sink);
            scanner.setSearch(how);
            QVERIFY(feed(scanner, chunks));
            QCOMPARE(sink.text(), handoffs);
        }
    }

    // A buffer released at a silence comes back as a fresh one: nothing of the
    // last burst is found in it, whether it was kept for reuse or not.
    void bufferAfterSilence_data()
    {
        QTest::addColumn<int>("size");      // asked for after the release
        QTest::addColumn<bool>("appended"); // the last burst's frames, or a stream through the window
        QTest::newRow("the same size, a stream written before") << 4096 << false;
        QTest::newRow("the same size, frames appended before") << 4096 << true;
        QTest::newRow("the largest size") << KorbRdvScanner::MaxBufferSize << false;
    }

    void bufferAfterSilence()
    {
        QFETCH(int, size);
        QFETCH(bool, appended);
        RecordingSink sink;
        KorbRdvScanner scanner(&sink);
        const QByteArray last = stream({single(0), single(100), single(200)});
        QVERIFY(appended ? scanner.resetBuffer(4096) && scanner.append(last.constData(), last.size())
                         : feed(scanner, {last}));
        QVERIFY(!scanner.resetBuffer(0));
        const QByteArray next = frame(single(300));
        QVERIFY(scanner.resetBuffer(size) && scanner.append(next.constData(), next.size()));
        QByteArray dump;
        scanner.bufDump(dump);
        QCOMPARE(dump, next);
    }

    void udp_data()
    {
        QTest::addColumn<int>("port");
        QTest::addColumn<int>("clientsFrom"); // the sink has clients from this datagram on
        QTest::addColumn<L>("datagrams");
        QTest::addColumn<QString>("handoffs");
        const QByteArray split = frame(channel(2, 100, 3000));
        // clang-format off
        QTest::newRow("a frame completes when the next opens; the first sets the clock") << 0 << 0 << run(1, 1, {0, 100, 200}) << "m1@100";
        QTest::newRow("the latest frame of every group, entered with no client too") << 0 << 2 << L{dg(1, channel(1, 0)), dg(2, channel(2, 100)), dg(3, channel(1, 200)), dg(4, channel(2, 300))} << "m1@0,2@100 m1@200,2@100";
        QTest::newRow("second port: groups 8 higher") << 1 << 0 << L{dg(1, channel(3, 0)), dg(2, channel(3, 100)), dg(3, channel(-7, 200)), dg(4, channel(3, 300))} << "m11@100 m1@200,11@100";
        QTest::newRow("a sequence gap drops the datagram and the frame in progress") << 0 << 0 << run(1, 1, {0, 100}) + run(4, 1, {200, 300, 400}) << "m1@300";
        QTest::newRow("so does a length field one short") << 0 << 0 << run(1, 1, {0}) + L{dg(2, channel(1, 100), 0, -1)} + run(3, 1, {200, 300, 400}) << "m1@300";
        QTest::newRow("frames open at offsets 11 and 14, not at 15, and only kind 1") << 0 << 0 << L{dg(1, channel(1, 500), 7), dg(2, single(600)), dg(3, channel(1, 0), 3), dg(4, channel(1, 100), 6)} + run(5, 1, {200}) << "m1@100";
        QTest::newRow("a frame spread over two datagrams is joined") << 0 << 0 << run(1, 1, {0}) + L{datagram(2, split.left(1300)), datagram(3, split.mid(1300))} + run(4, 1, {300}) << "m1@0,2@100";
        // clang-format on
    }

    void udp()
    {
        QFETCH(int, port);
        QFETCH(int, clientsFrom);
        QFETCH(L, datagrams);
        QFETCH(QString, handoffs);
        Devices d;
        QVERIFY(d.up);
        d.sink.clients = 0;
        QVERIFY(d.send(port, datagrams.mid(0, clientsFrom)));
        d.sink.clients = 1;
        QVERIFY(d.send(port, datagrams.mid(clientsFrom)));
        QCOMPARE(d.sink.text(), handoffs);
    }

    // A group that falls quiet while another goes on: every packet carries its one frame whole, however often
    // the memory it came in has been reused. Each device frame is accepted once, though a TCP scan starts
    // again at the last frame each time: the frames are written one at a time.
    void quietGroup_data()
    {
        QTest::addColumn<bool>("udp");
        QTest::addColumn<int>("quietPort"); // UDP: the loud group comes on the first port
        QTest::addColumn<int>("capacity");  // of the character buffer; a loud frame takes 12 KB
        QTest::addColumn<int>("loud");      // frames of the loud group, 60 ms apart
        QTest::newRow("UDP, before the buffer is reused") << true << 0 << (1 << 20) << 8;
        QTest::newRow("UDP, the buffer reused once") << true << 0 << 65536 << 8;
        QTest::newRow("UDP, the buffer reused 50 times, the receive area once") << true << 0 << 32768 << 100;
        QTest::newRow("UDP, the quiet group on the second port") << true << 1 << 32768 << 8;
        QTest::newRow("UDP, a buffer smaller than the loud frames") << true << 0 << 8192 << 8;
        QTest::newRow("TCP, before the buffer is reused") << false << 0 << (1 << 20) << 8;
        QTest::newRow("TCP, the buffer reused once") << false << 0 << 65536 << 8;
        QTest::newRow("TCP, the buffer reused 50 times") << false << 0 << 32768 << 100;
    }

    void quietGroup()
    {
        QFETCH(bool, udp);
        QFETCH(int, quietPort);
        QFETCH(int, capacity);
        QFETCH(int, loud);
        L taken; // by the accept step, as new frames
        Devices d(capacity);
        QVERIFY(d.up);
        KorbRdvSource *source = udp ? static_cast<KorbRdvSource *>(d.udp.data()) : d.tcp.data();
        source->scanner().setNewFrameListener(
            [&](const char *f, bool) { taken << QByteArray(f, Rdv::frameLength(f)); });
        L frames = {frame(channel(2, 0))};
        for (int i = 1; i <= loud; ++i)
            frames << frame(channel(1, 60 * i, 3000));
        if (udp) {
            L quiet = {datagram(1, frames[0])};
            if (quietPort)
                quiet << dg(2, channel(2, 10)); // completes the quiet frame and stays open
            QVERIFY(d.send(quietPort, quiet));
            L datagrams;
            for (int i = 1; i <= loud; ++i)
                datagrams << datagram(quint32(i + 1 - quietPort), frames[i]);
            QVERIFY(d.send(0, datagrams));
        } else {
            for (const QByteArray &f : frames) // one at a time
                QVERIFY(d.write(f + QByteArray(2, '\0')));
        }
        // UDP: the last frame is still open. The first only starts the clock.
        const int accepted = udp ? loud : loud + 1;
        const QByteArray quiet = frame(channel(qint8(2 + 8 * quietPort), 0)); // as the relay numbers it
        QCOMPARE(taken, L{quiet} + frames.mid(1, accepted - 1));
        QCOMPARE(source->scanner().framesAccepted(), qint64(accepted));
        L packets;
        for (int i = 1; i < accepted; ++i)
            packets << channelPacket({frames[i], quiet});
        QCOMPARE(d.sink.packets, packets);
    }

    // Neither port waits while the other's queue is read: no map ever holds
    // one port's frame more than a turn of reads ahead of the other's.
    void portsTakeTurns()
    {
        Devices d;
        QVERIFY(d.up);
        const int n = 4 * KorbRdvStreamerUdp::DatagramsPerTurn;
        for (int i = 0; i < n; ++i)
            for (quint16 port : {d.udp->port1(), d.udp->port2()})
                d.datagrams.writeDatagram(dg(quint32(i + 1), channel(1, 100 * i)), QHostAddress::LocalHost,
                                          port);
        QTRY_VERIFY(d.udp->lastSequence(0) == quint32(n) && d.udp->lastSequence(1) == quint32(n));
        const QRegularExpression both(QStringLiteral("^m1@(\\d+),9@(\\d+)$"));
        int seen = 0;
        for (const QString &map : qAsConst(d.sink.seen)) {
            const QRegularExpressionMatch m = both.match(map);
            if (m.hasMatch() && ++seen)
                QVERIFY2(qAbs(m.captured(1).toInt() - m.captured(2).toInt()) <=
                             100 * KorbRdvStreamerUdp::DatagramsPerTurn,
                         qPrintable(map));
        }
        QVERIFY(seen > n);
    }

    void tcpWaitsForAFrameWorthAndReconnects()
    {
        Devices d;
        QSignalSpy accepted(&d.server, &QTcpServer::newConnection);
        QVERIFY(d.up);
        const QByteArray first = stream({single(0, 1000)}), second = stream({single(100, 1000)});
        QVERIFY(d.write(first));
        d.peer->write(second.left(100)); // less than the last frame's length stays in the socket
        QTRY_COMPARE(d.tcp->pendingBytes(), qint64(100));
        QCOMPARE(d.tcp->scanner().fillEnd(), first.size());
        QVERIFY(d.write(second.mid(100)));
        QCOMPARE(d.sink.text(), QStringLiteral("s100"));
        d.peer->disconnectFromHost();
        QVERIFY(accepted.wait(5000)); // one pause later it is back
        d.tcp->stop();                // stopped, it stays closed
        QTRY_COMPARE(d.peer->state(), QAbstractSocket::UnconnectedState);
        QVERIFY(!d.tcp->reconnectPending());
    }

    void dumpsAndSilence_data()
    {
        QTest::addColumn<bool>("udp");
        QTest::addColumn<qint64>("quota");         // bytes, of all dump files together
        QTest::addColumn<QString>("kept");         // serial numbers of the dumps that stay
        const qint64 any = 1 << 30, dump = 2 * 64; // two completed frames of 2 samples
        QTest::newRow("UDP, buf: the completed frames") << true << any << "0000 0001 0002 0003";
        QTest::newRow("UDP, a quota of three dumps: the oldest goes") << true << 3 * dump << "0001 0002 0003";
        QTest::newRow("TCP, csv: the oldest frame in the ring as absolute 16-bit values")
            << false << any << "0000 0001 0002 0003";
        QTest::newRow("TCP, a quota below any dump: none written") << false << qint64(20) << "";
    }

    void dumpsAndSilence()
    {
        QFETCH(bool, udp);
        QFETCH(qint64, quota);
        QFETCH(QString, kept);
        QDir dumps(KorbRdvSource::dumpDir());
        dumps.removeRecursively();
        QVERIFY(dumps.mkpath(".") && QFile(dumps.filePath("relay.pid")).open(QIODevice::WriteOnly));
        Devices d(udp ? 1 << 20 : 132, quota); // the TCP buffer holds two frames with their gaps
        QVERIFY(d.up);
        KorbRdvSource *source = udp ? static_cast<KorbRdvSource *>(d.udp.data()) : d.tcp.data();
        emit d.commands.runCmd(QStringLiteral("buf")); // no buffer yet: ignored
        for (int ms : {0, 100, 200})
            QVERIFY(udp ? d.send(0, {dg(quint32(ms / 100 + 1), channel(4, ms))})
                        : d.write(stream({channel(4, ms)})));
        emit d.commands.runCmd(QString(udp ? " buf " : "csv"));
        for (int i = 0; i < KorbRdvSource::DumpBurst; ++i)
            emit d.commands.runCmd(QStringLiteral("buf")); // the burst's last one is dropped
        d.writer.reset();
        const QStringList names = dumps.entryList({"zz-*"}, QDir::Files, QDir::Name);
        QStringList serials;
        for (const QString &name : names)
            serials << name.section('_', 2).left(4);
        QCOMPARE(serials.join(' '), kept);
        QVERIFY(dumps.exists("relay.pid")); // no dump file: never removed
        QByteArray csv = "x;y\r\n", oldest = frame(channel(4, 100));
        for (int i = 0; i < 4; ++i)
            csv += QByteArray::number(i) + ';' +
                   QByteArray::number(qAbs(qFromLittleEndian<qint16>(oldest.constData() + 56 + 2 * i))) +
                   "\r\n";
        if (!names.isEmpty()) // TCP: the csv: dump first
            QCOMPARE(readFile(dumps.filePath(names[0])), udp ? frame(channel(4, 0)) + oldest : csv);
        // The silence ends the burst: the buffer goes, the file counter and the gate start afresh.
        QTRY_VERIFY_WITH_TIMEOUT(!source->scanner().hasBuffer(), 3000);
        QCOMPARE(source->fileCounter(), 0);
        QVERIFY(udp ? d.send(0, run(4, 4, {5000, 5004, 5100, 5200}))
                    : d.write(stream({channel(4, 5000), channel(4, 5004), channel(4, 5100)})));
        QCOMPARE(d.sink.text(), QString(udp ? "m4@100 m4@5100" : "m4@100 m4@200 m4@5100"));
    }

    // The packets of one turn of reads leave when it ends: all of them when it
    // emptied the queue, only the newest when it left more queued.
    void backlogSendsTheNewest_data()
    {
        QTest::addColumn<int>("queued");         // datagrams, 100 ms apart, a frame each
        QTest::addColumn<QList<int>>("packets"); // the frames whose maps a client gets
        const int turn = KorbRdvStreamerUdp::DatagramsPerTurn;
        QList<int> later;
        for (int i = turn - 2; i <= turn + 6; ++i)
            later << i;
        // The first frame only sets the clock and the last is still open.
        QTest::newRow("one turn empties the queue: every packet") << 5 << QList<int>{1, 2, 3};
        QTest::newRow("a turn's share and 8 more: the first turn's newest, then every packet")
            << turn + 8 << later;
    }

    void backlogSendsTheNewest()
    {
        QFETCH(int, queued);
        QFETCH(QList<int>, packets);
        WebSocketServer server(nullptr, 0);
        QVERIFY(server.listen(QHostAddress::LocalHost));
        QObject owner;
        WsTestClient *client = connectClient(server, &owner);
        QVERIFY(client);
        KorbRdvStreamerUdp udp(nullptr, &server, &server, 0, 0);
        udp.setLocalAddress(QHostAddress::LocalHost);
        QUdpSocket device;
        QVERIFY(udp.bind() && device.bind(QHostAddress(QHostAddress::LocalHost), 0));
        for (int i = 0; i < queued; ++i)
            device.writeDatagram(dg(quint32(i + 1), channel(1, 100 * i)), QHostAddress::LocalHost,
                                 udp.port1());
        QByteArrayList expected;
        for (int i : packets)
            expected << channelPacket({frame(channel(1, 100 * i))});
        QTRY_COMPARE(client->binaries, expected);
    }

private:
    QTemporaryDir m_dir;
};

QTEST_GUILESS_MAIN(TestKorbRdvSource)
#include "tst_korb_rdv_source.moc"
