// The UDP receiver, fed by real UDP sockets on 127.0.0.1: sequence and length
// checks, reassembly, the second port's group offset, the recording
// commands, the silence watchdog and the raw-capture mode.

#include "src/korb_env.h"
#include "src/korb_rdv_udp_cli.h"
#include "src/korb_rdv_wsserver.h"
#include "support/acq_command_source.h"
#include "support/acq_recording_sink.h"
#include "support/rdv_test_encoder.h"
#include "support/ws_test_client.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QTemporaryDir>
#include <QUdpSocket>
#include <QtEndian>
#include <QtTest>

using RdvTest::FrameSpec;

namespace {

constexpr quint32 BaseSec = 1700000000;
constexpr int Epoch2000 = 946684800;

// Kind-1 frame of `group`, `ms` after the base time.
FrameSpec ch(qint8 group, int ms, quint16 count = 2)
{
    return RdvTest::channelFrame(group, count, BaseSec + quint32(ms / 1000), quint32(ms % 1000) * 1000000u);
}

// Datagram: length (falsified by `lengthDelta`), 2 unused bytes, sequence
// number, `lead` filler bytes, then `body`.
QByteArray datagram(quint32 seq, const QByteArray &body, int lead = 0, int lengthDelta = 0)
{
    QByteArray head(8, '\0');
    qToLittleEndian<quint16>(quint16(8 + lead + body.size() + lengthDelta), head.data());
    qToLittleEndian<quint32>(seq, head.data() + 4);
    return head + QByteArray(lead, '\xEE') + body;
}

// What a row sends; its frames are named A, B, C... in order, as the sink
// should see them.
struct Plan
{
    QList<QByteArray> datagrams;
    QList<QByteArray> frames;
    quint32 seq = 1;
    int groupShift = 0;

    Plan &frame(const FrameSpec &s, int lead = 0, int lengthDelta = 0)
    {
        datagrams << datagram(seq++, remember(s), lead, lengthDelta);
        return *this;
    }
    // Sends `s` split after `cut` bytes over two datagrams.
    Plan &split(const FrameSpec &s, int cut)
    {
        const QByteArray bytes = remember(s);
        datagrams << datagram(seq, bytes.left(cut)) << datagram(seq + 1, bytes.mid(cut));
        seq += 2;
        return *this;
    }
    Plan &skipSeq(int n)
    {
        seq += quint32(n);
        return *this;
    }
    Plan &raw(const QByteArray &d)
    {
        datagrams << d;
        return *this;
    }
    QByteArray remember(const FrameSpec &s)
    {
        const QByteArray bytes = RdvTest::encodeFrame(s);
        frames << bytes;
        frames.last()[16] = char(quint8(bytes[16]) + groupShift);
        return bytes;
    }
    // The sink's hand-offs with frames named: "1:A,2:B 1:C,2:B".
    QString seen(const AcqTest::RecordingSink &sink) const
    {
        QStringList out;
        for (const AcqTest::Handoff &h : sink.handoffs) {
            QStringList entries(h.single ? QStringList{"single"} : QStringList());
            for (auto it = h.map.cbegin(); it != h.map.cend(); ++it)
                entries << QStringLiteral("%1:%2")
                               .arg(int(it.key()))
                               .arg(QChar('A' + frames.indexOf(it.value().bytes)));
            out << entries.join(',');
        }
        return out.join(' ');
    }
};

QString dumpPath(const QString &name)
{
    return QDir(KorbRdvSource::dumpDir()).filePath(name);
}

} // namespace

Q_DECLARE_METATYPE(Plan)

class TestKorbRdvUdpCli : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void bind();
    void receive_data();
    void receive();
    void dumpCommands();
    void watchdogEndsBurst();
    void rawCapture();
    void datagramsTakenDuringBroadcast();

private:
    // A receiver bound on two free loopback ports.
    KorbRdvStreamerUdp *makeReceiver(KorbRdvSink *sink, QObject *commands = nullptr);
    // Sends the plan's datagrams to a port and waits until the last one is taken.
    void send(KorbRdvStreamerUdp *rx, int port, const Plan &plan);

    QTemporaryDir m_dir;
    QUdpSocket m_sender;
};

void TestKorbRdvUdpCli::initTestCase()
{
    QVERIFY(m_dir.isValid());
    QVERIFY(QDir().mkpath(m_dir.path() + "/bin"));
    Korb::setAppDir(m_dir.path() + "/bin"); // dumps go to <dir>/tmp, logs to <dir>/logs
    QVERIFY(m_sender.bind(QHostAddress(QHostAddress::LocalHost), 0));
}

KorbRdvStreamerUdp *TestKorbRdvUdpCli::makeReceiver(KorbRdvSink *sink, QObject *commands)
{
    auto *rx = new KorbRdvStreamerUdp(this, sink, commands, 0, 0);
    rx->setLocalAddress(QHostAddress::LocalHost);
    rx->setBufferCapacity(1 << 20);
    if (!rx->bind()) {
        delete rx;
        return nullptr;
    }
    return rx;
}

void TestKorbRdvUdpCli::send(KorbRdvStreamerUdp *rx, int port, const Plan &plan)
{
    for (const QByteArray &d : plan.datagrams)
        QCOMPARE(m_sender.writeDatagram(d, QHostAddress::LocalHost, port == 0 ? rx->port1() : rx->port2()),
                 qint64(d.size()));
    QTRY_COMPARE(rx->lastSequence(port), plan.seq - 1);
}

void TestKorbRdvUdpCli::bind()
{
    KorbRdvStreamerUdp rx(nullptr, nullptr, nullptr, 0, 0);
    rx.setLocalAddress(QHostAddress::LocalHost);
    rx.setLogging(true);
    QVERIFY(rx.bind());
    const quint16 p1 = rx.port1(), p2 = rx.port2();
    QVERIFY(p1 != 0 && p2 != 0 && p1 != p2);
    QVERIFY(rx.bind()); // binding again closes and rebinds the same ports
    QCOMPARE(rx.port1(), p1);
    QCOMPARE(rx.port2(), p2);

    // The second port taken: false, and the first is released again.
    rx.closeConnection();
    QUdpSocket blocker, probe;
    QVERIFY(blocker.bind(QHostAddress(QHostAddress::LocalHost), p2, QUdpSocket::DontShareAddress));
    KorbRdvStreamerUdp taken(nullptr, nullptr, nullptr, p1, p2);
    taken.setLocalAddress(QHostAddress::LocalHost);
    QVERIFY(!taken.bind());
    QVERIFY(probe.bind(QHostAddress(QHostAddress::LocalHost), p1, QUdpSocket::DontShareAddress));
}

void TestKorbRdvUdpCli::receive_data()
{
    QTest::addColumn<int>("port");
    QTest::addColumn<int>("clients");
    QTest::addColumn<Plan>("plan");
    QTest::addColumn<QString>("handoffs");

    Plan p;
    p.frame(ch(1, 0)).frame(ch(1, 100)).frame(ch(1, 200));
    QTest::newRow("frame completes when the next opens; the first is never sent") << 0 << 1 << p << "1:B";
    QTest::newRow("no client: nothing sent") << 0 << 0 << p << "";
    p = Plan();
    p.frame(ch(1, 0)).frame(ch(2, 100)).frame(ch(1, 200)).frame(ch(2, 300));
    QTest::newRow("latest frame of every group") << 0 << 1 << p << "1:A,2:B 1:C,2:B";
    p = Plan();
    p.groupShift = 8;
    p.frame(ch(3, 0)).frame(ch(3, 100)).frame(ch(-7, 200)).frame(ch(3, 300));
    QTest::newRow("second port: groups 8 higher") << 1 << 1 << p << "11:B 1:C,11:B";
    p = Plan();
    p.frame(ch(1, 0)).frame(ch(1, 100)).skipSeq(1).frame(ch(1, 200)).frame(ch(1, 300)).frame(ch(1, 400));
    QTest::newRow("sequence gap drops the frame in progress and the datagram") << 0 << 1 << p << "1:D";
    p = Plan();
    p.frame(ch(1, 0)).frame(ch(1, 100), 0, -1).frame(ch(1, 200)).frame(ch(1, 300)).frame(ch(1, 400));
    QTest::newRow("length field one short drops the datagram and the frame in progress")
        << 0 << 1 << p << "1:D";
    p = Plan();
    p.frame(ch(1, 0)).raw({}).frame(ch(1, 100)).frame(ch(1, 200)).frame(ch(1, 300));
    QTest::newRow("empty datagram drops the frame in progress") << 0 << 1 << p << "1:C";
    p = Plan();
    p.frame(ch(1, 0), 3).frame(ch(1, 100), 6).frame(ch(1, 200));
    QTest::newRow("frames at offsets 11 and 14") << 0 << 1 << p << "1:B";
    p = Plan();
    p.frame(ch(1, 0), 7).frame(ch(1, 0)).frame(ch(1, 100)).frame(ch(1, 200));
    QTest::newRow("frame at offset 15 opens nothing") << 0 << 1 << p << "1:C";
    p = Plan();
    p.frame(RdvTest::singleFrame(2, BaseSec, 0)).frame(ch(1, 0)).frame(ch(1, 100)).frame(ch(1, 200));
    QTest::newRow("kind 2 opens nothing") << 0 << 1 << p << "1:C";
    p = Plan();
    p.frame(ch(1, 0)).split(ch(1, 100, 300), 500).split(ch(2, 200, 3000), 1300).frame(ch(1, 300));
    QTest::newRow("frames spread over two datagrams are joined") << 0 << 1 << p << "1:B 1:B,2:C";
}

void TestKorbRdvUdpCli::receive()
{
    QFETCH(int, port);
    QFETCH(int, clients);
    QFETCH(Plan, plan);
    QFETCH(QString, handoffs);

    AcqTest::RecordingSink sink;
    sink.clients = clients;
    QScopedPointer<KorbRdvStreamerUdp> rx(makeReceiver(&sink));
    QVERIFY(rx);
    send(rx.data(), port, plan);
    QCOMPARE(plan.seen(sink), handoffs);
}

void TestKorbRdvUdpCli::dumpCommands()
{
    QDir(KorbRdvSource::dumpDir()).removeRecursively();
    AcqTest::CommandSource commands;
    QScopedPointer<KorbRdvStreamerUdp> rx(makeReceiver(nullptr, &commands));
    QVERIFY(rx);
    emit commands.runCmd(QStringLiteral("buf")); // no buffer yet: ignored
    Plan p;
    p.frame(ch(4, 0)).frame(ch(4, 100)).frame(ch(4, 200));
    send(rx.data(), 0, p);

    for (const char *cmd : {"buf", " csv ", "xyz"})
        emit commands.runCmd(QString(cmd));
    // Named after the last accepted frame, B (kind 1); the counter advances.
    // "buf" holds the completed frames in ring order; the frame at the fill
    // end is only marked, so "csv" holds the title only.
    const QString stem = QStringLiteral("zz-uzk_%1_").arg(BaseSec - Epoch2000);
    QCOMPARE(QDir(KorbRdvSource::dumpDir()).entryList(QDir::Files),
             QStringList({stem + "0000.rdv", stem + "0001.csv"}));
    QFile buf(dumpPath(stem + "0000.rdv")), csv(dumpPath(stem + "0001.csv"));
    QVERIFY(buf.open(QIODevice::ReadOnly) && csv.open(QIODevice::ReadOnly));
    QCOMPARE(buf.readAll(), p.frames[0] + p.frames[1]);
    QCOMPARE(csv.readAll(), QByteArray("x;y\r\n"));

    rx->closeConnection(); // not receiving: ignored although the buffer holds data
    emit commands.runCmd(QStringLiteral("buf"));
    QCOMPARE(QDir(KorbRdvSource::dumpDir()).entryList(QDir::Files).size(), 2);
}

void TestKorbRdvUdpCli::watchdogEndsBurst()
{
    AcqTest::RecordingSink sink;
    AcqTest::CommandSource commands;
    QScopedPointer<KorbRdvStreamerUdp> rx(makeReceiver(&sink, &commands));
    QVERIFY(rx);
    Plan p;
    p.frame(ch(1, 0)).frame(ch(1, 100)).frame(ch(1, 200));
    send(rx.data(), 0, p);
    QCOMPARE(sink.handoffs.size(), 1);
    emit commands.runCmd(QStringLiteral("buf")); // file 0000 of this burst

    // 550 ms of silence release the buffer and drop the frame in progress.
    QTRY_VERIFY_WITH_TIMEOUT(!rx->scanner().charBuff(), 3000);

    // The next burst continues the sequence but starts a fresh gate (its
    // first frame is not sent) and a fresh file counter.
    sink.handoffs.clear();
    p.datagrams.clear();
    p.frame(ch(1, 5000)).frame(ch(1, 5004)).frame(ch(1, 5100)).frame(ch(1, 5200));
    send(rx.data(), 0, p);
    QCOMPARE(p.seen(sink), QStringLiteral("1:F"));
    emit commands.runCmd(QStringLiteral("buf"));
    QVERIFY(QFile::exists(dumpPath(QStringLiteral("zz-uzk_%1_0000.rdv").arg(BaseSec + 5 - Epoch2000))));
}

void TestKorbRdvUdpCli::rawCapture()
{
    QTemporaryDir work;
    QVERIFY(work.isValid());
    QVERIFY(QDir(work.path()).mkdir("Z:"));
    const QString cwd = QDir::currentPath();
    QVERIFY(QDir::setCurrent(work.path()));

    AcqTest::RecordingSink sink;
    QScopedPointer<KorbRdvStreamerUdp> rx(makeReceiver(&sink));
    QVERIFY(rx);
    Plan p;
    p.frame(ch(1, 0)).frame(ch(1, 100)).skipSeq(3).frame(ch(1, 200)).frame(ch(1, 300));
    for (const QByteArray &d : p.datagrams)
        m_sender.writeDatagram(d, QHostAddress::LocalHost, rx->port1());
    // The first port's datagrams only go to the capture file.
    QTRY_VERIFY(!KorbRdvStreamerUdp::captureFileName().isEmpty());
    const QFileInfo capture(KorbRdvStreamerUdp::captureFileName());
    QTRY_COMPARE(QFileInfo(capture.filePath()).size(), qint64(p.datagrams.join().size()));

    // The second port is processed as usual meanwhile.
    Plan q;
    q.groupShift = 8;
    q.frame(ch(2, 0)).frame(ch(2, 100)).frame(ch(2, 200));
    send(rx.data(), 1, q);
    QCOMPARE(rx->lastSequence(0), quint32(0));
    QCOMPARE(q.seen(sink), QStringLiteral("10:B"));

    // The silence writes the parse file: the frames the capture carried.
    QFile parsed(capture.absolutePath() + "/" + capture.baseName() + "_parse.bin");
    QTRY_VERIFY_WITH_TIMEOUT(parsed.exists(), 3000);
    QVERIFY(parsed.open(QIODevice::ReadOnly));
    QCOMPARE(parsed.readAll(), p.frames.join());
    QFile raw(capture.filePath());
    QVERIFY(raw.open(QIODevice::ReadOnly));
    QCOMPARE(raw.readAll(), p.datagrams.join());

    rx.reset();
    KorbRdvStreamerUdp::closeCaptureFile();
    QVERIFY(QDir::setCurrent(cwd));
}

// A broadcast of large packets to many clients goes on in slices while
// datagrams keep coming: every datagram is taken, and every client ends with
// the newest packet.
void TestKorbRdvUdpCli::datagramsTakenDuringBroadcast()
{
    WebSocketServer server(nullptr, 0);
    QVERIFY(RdvTest::startOnFreePort(server));
    QObject clients;
    for (int i = 0; i < 32; ++i) {
        RdvTest::WsTestClient *c = RdvTest::connectClient(server, &clients);
        QVERIFY(c);
        c->keepBinaries = false;
    }
    QScopedPointer<KorbRdvStreamerUdp> rx(makeReceiver(&server));
    QVERIFY(rx);
    // Full-size frames of 16 groups, 100 ms apart: from the third datagram on,
    // each completes a frame and the map goes out.
    Plan p;
    for (int i = 0; i < 40; ++i)
        p.frame(ch(qint8(i % 16), 100 * i, 13000));
    const auto take = [&](int from, int to) {
        for (int i = from; i < to; ++i)
            m_sender.writeDatagram(p.datagrams.at(i), QHostAddress::LocalHost, rx->port1());
        QDeadlineTimer deadline(10000);
        while (rx->lastSequence(0) != quint32(to) && !deadline.hasExpired())
            QCoreApplication::processEvents();
    };
    const KorbRdvStreamerUdp::Counters before = KorbRdvStreamerUdp::counters();
    take(0, 20);
    QVERIFY(server.broadcastInProgress());
    take(20, 40);
    QCOMPARE(KorbRdvStreamerUdp::counters().udpOk - before.udpOk, 40);
    QCOMPARE(KorbRdvStreamerUdp::counters().udpEr, before.udpEr);

    // Frame 39 only opens; the latest completed frame of each group is sent.
    QList<FrameSpec> latest;
    for (int g = 0; g < 16; ++g)
        latest << ch(qint8(g), 100 * (g + 16 * ((38 - g) / 16)), 13000);
    const QByteArray expected = RdvTest::expectedChannelPacket(latest);
    for (const auto *c : clients.findChildren<RdvTest::WsTestClient *>())
        QTRY_COMPARE_WITH_TIMEOUT(c->lastBinary, expected, 10000);
}

QTEST_GUILESS_MAIN(TestKorbRdvUdpCli)
#include "tst_korb_rdv_udp_cli.moc"
