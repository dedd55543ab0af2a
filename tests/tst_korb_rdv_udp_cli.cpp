// The UDP receiver, fed by real UDP sockets on 127.0.0.1: sequence and length
// checks, reassembly of frames from datagrams, the second port's group
// offset, the rate gate, the recording commands, the silence watchdog and
// the raw-capture mode.

#include "src/korb_env.h"
#include "src/korb_rdv_udp_cli.h"
#include "support/acq_command_source.h"
#include "support/acq_recording_sink.h"
#include "support/rdv_test_encoder.h"

#include <QDir>
#include <QTemporaryDir>
#include <QUdpSocket>
#include <QtEndian>
#include <QtTest>

using RdvTest::FrameSpec;

namespace {

constexpr quint32 BaseSec = 1700000000;
constexpr int Epoch2000 = 946684800;

// Kind-1 frame of `group`, `ms` after the base time (multiples of 4 ms keep
// the frame time exact in double precision).
FrameSpec ch(qint8 group, int ms, quint16 count = 2)
{
    return RdvTest::channelFrame(group, count, BaseSec + quint32(ms / 1000), quint32(ms % 1000) * 1000000u);
}

QByteArray le(quint64 v, int bytes)
{
    QByteArray out;
    for (int i = 0; i < bytes; ++i)
        out.append(char((v >> (8 * i)) & 0xFF));
    return out;
}

// Datagram: length, 2 unused bytes, sequence number, `lead` filler bytes,
// then `body`. `lengthDelta` falsifies the length field.
QByteArray datagram(quint32 seq, const QByteArray &body, int lead = 0, int lengthDelta = 0)
{
    const int size = 8 + lead + body.size();
    return le(quint16(size + lengthDelta), 2) + le(0, 2) + le(seq, 4) + QByteArray(lead, '\xEE') + body;
}

// What a row sends and which frames it may expect back.
struct Plan
{
    QList<QByteArray> datagrams;
    QStringList names;
    QList<QByteArray> frames; // as the sink should see them
    quint32 seq = 1;
    int groupShift = 0;

    // Sends `s` in one datagram and names it.
    Plan &frame(const QString &name, const FrameSpec &s, int lead = 0, int lengthDelta = 0)
    {
        const QByteArray bytes = RdvTest::encodeFrame(s);
        remember(name, bytes);
        datagrams << datagram(seq++, bytes, lead, lengthDelta);
        return *this;
    }
    // Sends `s` split after `cut` bytes over two datagrams.
    Plan &split(const QString &name, const FrameSpec &s, int cut)
    {
        const QByteArray bytes = RdvTest::encodeFrame(s);
        remember(name, bytes);
        datagrams << datagram(seq, bytes.left(cut));
        datagrams << datagram(seq + 1, bytes.mid(cut));
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
    void remember(const QString &name, QByteArray bytes)
    {
        bytes[16] = char(quint8(bytes[16]) + groupShift);
        names << name;
        frames << bytes;
    }
};

// The sink's hand-offs with frames named by the plan: "1:A,2:B 1:C,2:B".
QString describe(const AcqTest::RecordingSink &sink, const Plan &plan)
{
    QStringList out;
    for (const AcqTest::Handoff &h : sink.handoffs) {
        QStringList entries;
        if (h.single) {
            entries << QStringLiteral("single");
        } else {
            for (auto it = h.map.cbegin(); it != h.map.cend(); ++it) {
                const int i = plan.frames.indexOf(it.value().bytes);
                entries << QStringLiteral("%1:%2")
                               .arg(int(it.key()))
                               .arg(i < 0 ? QStringLiteral("?") : plan.names[i]);
            }
        }
        out << entries.join(QLatin1Char(','));
    }
    return out.join(QLatin1Char(' '));
}

KorbRdvStreamerUdp::Counters operator-(const KorbRdvStreamerUdp::Counters &a,
                                       const KorbRdvStreamerUdp::Counters &b)
{
    KorbRdvStreamerUdp::Counters d;
    d.cntOk = a.cntOk - b.cntOk;
    d.cntEr = a.cntEr - b.cntEr;
    d.udpOk = a.udpOk - b.udpOk;
    d.udpEr = a.udpEr - b.udpEr;
    return d;
}

QString text(const KorbRdvStreamerUdp::Counters &c)
{
    return QStringLiteral("%1,%2,%3,%4").arg(c.cntOk).arg(c.cntEr).arg(c.udpOk).arg(c.udpEr);
}

} // namespace

Q_DECLARE_METATYPE(Plan)

class TestKorbRdvUdpCli : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void bind_data();
    void bind();
    void receive_data();
    void receive();
    void intervalCommand();
    void dumpCommands_data();
    void dumpCommands();
    void commandsIgnoredWithoutBuffer();
    void watchdogEndsBurst();
    void sendMessage();
    void rawCapture();

private:
    // A receiver bound on two free loopback ports.
    KorbRdvStreamerUdp *makeReceiver(AcqTest::RecordingSink *sink, QObject *commands = nullptr);
    void send(const KorbRdvStreamerUdp &rx, int port, const QList<QByteArray> &datagrams);

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

KorbRdvStreamerUdp *TestKorbRdvUdpCli::makeReceiver(AcqTest::RecordingSink *sink, QObject *commands)
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

void TestKorbRdvUdpCli::send(const KorbRdvStreamerUdp &rx, int port, const QList<QByteArray> &datagrams)
{
    for (const QByteArray &d : datagrams)
        QCOMPARE(m_sender.writeDatagram(d, QHostAddress::LocalHost, port == 0 ? rx.port1() : rx.port2()),
                 qint64(d.size()));
}

void TestKorbRdvUdpCli::bind_data()
{
    QTest::addColumn<int>("taken"); // -1 none, 0 first port, 1 second port
    QTest::newRow("both ports free") << -1;
    QTest::newRow("first port taken") << 0;
    QTest::newRow("second port taken") << 1;
}

void TestKorbRdvUdpCli::bind()
{
    QFETCH(int, taken);
    QUdpSocket blocker;
    QVERIFY(blocker.bind(QHostAddress(QHostAddress::LocalHost), 0, QUdpSocket::DontShareAddress));
    QUdpSocket spare;
    QVERIFY(spare.bind(QHostAddress(QHostAddress::LocalHost), 0));
    const quint16 free = spare.localPort();
    spare.close();

    const quint16 p1 = taken == 0 ? blocker.localPort() : (taken == 1 ? free : 0);
    const quint16 p2 = taken == 1 ? blocker.localPort() : 0;
    KorbRdvStreamerUdp rx(nullptr, nullptr, nullptr, p1, p2);
    rx.setLocalAddress(QHostAddress::LocalHost);
    rx.setLogging(true);
    const bool ok = rx.bind();
    QCOMPARE(ok, taken < 0);
    if (ok) {
        QVERIFY(rx.port1() != 0 && rx.port2() != 0 && rx.port1() != rx.port2());
        QCOMPARE(rx.localAddress(), QHostAddress(QHostAddress::LocalHost));
        // Binding again closes and rebinds the same ports.
        const quint16 p1Was = rx.port1(), p2Was = rx.port2();
        QVERIFY(rx.bind());
        QCOMPARE(rx.port1(), p1Was);
        QCOMPARE(rx.port2(), p2Was);
    } else {
        // Nothing stays bound: the ports are free again.
        QUdpSocket probe;
        if (taken == 1)
            QVERIFY(probe.bind(QHostAddress(QHostAddress::LocalHost), free));
    }
}

void TestKorbRdvUdpCli::receive_data()
{
    QTest::addColumn<int>("port");
    QTest::addColumn<int>("clients");
    QTest::addColumn<int>("interval");
    QTest::addColumn<Plan>("plan");
    QTest::addColumn<QString>("handoffs");
    QTest::addColumn<QString>("counters"); // cntOk,cntEr,udpOk,udpEr

    {
        Plan p;
        p.frame("A", ch(1, 0)).frame("B", ch(1, 100)).frame("C", ch(1, 200));
        QTest::newRow("frame completes when the next opens; the first is never sent")
            << 0 << 1 << 50 << p << "1:B"
            << "3,0,3,0";
    }
    {
        Plan p;
        p.frame("A", ch(1, 0)).frame("B", ch(1, 100)).frame("C", ch(1, 104)).frame("D", ch(1, 300));
        QTest::newRow("gate needs strictly more than the interval") << 0 << 1 << 100 << p << "1:C"
                                                                    << "4,0,4,0";
    }
    {
        Plan p;
        p.frame("A", ch(1, 0)).frame("B", ch(1, 100)).frame("C", ch(1, 200));
        QTest::newRow("no client: nothing sent") << 0 << 0 << 50 << p << ""
                                                 << "3,0,3,0";
    }
    {
        Plan p;
        p.frame("A", ch(1, 0)).frame("B", ch(2, 100)).frame("C", ch(1, 200)).frame("D", ch(2, 300));
        QTest::newRow("latest frame of every group") << 0 << 1 << 50 << p << "1:A,2:B 1:C,2:B"
                                                     << "4,0,4,0";
    }
    {
        Plan p;
        p.groupShift = 8;
        p.frame("A", ch(3, 0)).frame("B", ch(3, 100)).frame("C", ch(-7, 200)).frame("D", ch(3, 300));
        QTest::newRow("second port: groups 8 higher") << 1 << 1 << 50 << p << "11:B 1:C,11:B"
                                                      << "4,0,4,0";
    }
    {
        Plan p;
        p.frame("A", ch(1, 0)).frame("B", ch(1, 100)).skipSeq(1).frame("C", ch(1, 200));
        p.frame("D", ch(1, 300)).frame("E", ch(1, 400));
        QTest::newRow("sequence gap drops the frame in progress and the datagram")
            << 0 << 1 << 50 << p << "1:D"
            << "4,0,4,1";
    }
    {
        Plan p;
        p.frame("A", ch(1, 0)).frame("B", ch(1, 100), 0, -1).frame("C", ch(1, 200));
        p.frame("D", ch(1, 300)).frame("E", ch(1, 400));
        QTest::newRow("length field one short drops the datagram and the frame in progress")
            << 0 << 1 << 50 << p << "1:D"
            << "4,0,4,1";
    }
    {
        Plan p;
        p.frame("A", ch(1, 0)).raw(QByteArray()).frame("B", ch(1, 100)).frame("C", ch(1, 200));
        p.frame("D", ch(1, 300));
        QTest::newRow("empty datagram drops the frame in progress") << 0 << 1 << 50 << p << "1:C"
                                                                    << "4,0,4,1";
    }
    {
        Plan p;
        p.frame("A", ch(1, 0), 3).frame("B", ch(1, 100), 6).frame("C", ch(1, 200));
        QTest::newRow("frames at offsets 11 and 14") << 0 << 1 << 50 << p << "1:B"
                                                     << "3,0,3,0";
    }
    {
        Plan p;
        p.frame("X", ch(1, 0), 7).frame("A", ch(1, 0)).frame("B", ch(1, 100)).frame("C", ch(1, 200));
        QTest::newRow("frame at offset 15 opens nothing") << 0 << 1 << 50 << p << "1:B"
                                                          << "3,1,4,0";
    }
    {
        Plan p;
        p.frame("K", RdvTest::singleFrame(2, BaseSec, 0)).frame("A", ch(1, 0)).frame("B", ch(1, 100));
        p.frame("C", ch(1, 200));
        QTest::newRow("kind 2 opens nothing") << 0 << 1 << 50 << p << "1:B"
                                              << "3,1,4,0";
    }
    {
        Plan p;
        p.frame("A", ch(1, 0)).split("B", ch(1, 100, 300), 500).split("C", ch(2, 200, 3000), 1300);
        p.frame("D", ch(1, 300));
        QTest::newRow("frames spread over two datagrams are joined") << 0 << 1 << 50 << p << "1:B 1:B,2:C"
                                                                     << "4,0,6,0";
    }
}

void TestKorbRdvUdpCli::receive()
{
    QFETCH(int, port);
    QFETCH(int, clients);
    QFETCH(int, interval);
    QFETCH(Plan, plan);
    QFETCH(QString, handoffs);
    QFETCH(QString, counters);

    AcqTest::RecordingSink sink;
    sink.clients = clients;
    KorbRdvStreamerUdp *rx = makeReceiver(&sink);
    QVERIFY(rx);
    rx->scanner().setSendIntervalMs(quint16(interval));
    const KorbRdvStreamerUdp::Counters before = KorbRdvStreamerUdp::counters();
    send(*rx, port, plan.datagrams);
    QTRY_COMPARE_WITH_TIMEOUT((KorbRdvStreamerUdp::counters() - before).udpOk +
                                  (KorbRdvStreamerUdp::counters() - before).udpEr,
                              plan.datagrams.size(), 3000);
    QCOMPARE(describe(sink, plan), handoffs);
    QCOMPARE(text(KorbRdvStreamerUdp::counters() - before), counters);
    QCOMPARE(rx->lastSequence(port), plan.seq - 1);
    delete rx;
}

void TestKorbRdvUdpCli::intervalCommand()
{
    AcqTest::CommandSource commands;
    KorbRdvStreamerUdp rx(nullptr, nullptr, &commands, 0, 0);
    QCOMPARE(rx.scanner().sendIntervalMs(), quint16(50));
    emit commands.runCmd(quint16(250));
    QCOMPARE(rx.scanner().sendIntervalMs(), quint16(250));
}

void TestKorbRdvUdpCli::dumpCommands_data()
{
    QTest::addColumn<int>("capacity");
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("suffix");
    QTest::addColumn<QByteArray>("expected");

    const QByteArray a = RdvTest::encodeFrame(ch(4, 0)), b = RdvTest::encodeFrame(ch(4, 100));
    const int len = a.size();
    QTest::newRow("buf: completed frames in ring order") << (1 << 20) << "buf"
                                                         << "rdv" << a + b;
    QTest::newRow("csv: the fill end is marked, no frame there: title only")
        << (1 << 20) << " csv "
        << "csv" << QByteArray("x;y\r\n");

    QByteArray table("x;y\r\n");
    for (int i = 0; i < 4; ++i) {
        const qint16 v =
            qFromLittleEndian<qint16>(reinterpret_cast<const uchar *>(a.constData()) + 56 + 2 * i);
        table += QByteArray::number(i) + ';' + QByteArray::number(qAbs(int(v))) + "\r\n";
    }
    QTest::newRow("csv: next frame would not fit, the oldest at 0") << (2 * len + len / 2) << "csv"
                                                                    << "csv" << table;
}

void TestKorbRdvUdpCli::dumpCommands()
{
    QFETCH(int, capacity);
    QFETCH(QString, command);
    QFETCH(QString, suffix);
    QFETCH(QByteArray, expected);

    QDir(KorbRdvSource::dumpDir()).removeRecursively();
    AcqTest::RecordingSink sink;
    AcqTest::CommandSource commands;
    KorbRdvStreamerUdp *rx = makeReceiver(&sink, &commands);
    QVERIFY(rx);
    rx->setBufferCapacity(capacity);
    Plan p;
    p.frame("A", ch(4, 0)).frame("B", ch(4, 100)).frame("C", ch(4, 200));
    send(*rx, 0, p.datagrams);
    QTRY_COMPARE(rx->lastSequence(0), p.seq - 1);
    QCOMPARE(rx->scanner().fillEnd(), 2 * p.frames[0].size());

    emit commands.runCmd(command);
    emit commands.runCmd(command);
    // Last accepted frame: B, kind 1.
    const QString stem = QStringLiteral("zz-uzk_%1_").arg(BaseSec - Epoch2000);
    const QString first = QDir(KorbRdvSource::dumpDir()).filePath(stem + "0000." + suffix);
    const QString second = QDir(KorbRdvSource::dumpDir()).filePath(stem + "0001." + suffix);
    QFile f(first);
    QVERIFY2(f.open(QIODevice::ReadOnly), qPrintable(first));
    QCOMPARE(f.readAll(), expected);
    QVERIFY(QFile::exists(second));
    QCOMPARE(rx->fileCounter(), 2);
    delete rx;
}

void TestKorbRdvUdpCli::commandsIgnoredWithoutBuffer()
{
    QDir(KorbRdvSource::dumpDir()).removeRecursively();
    AcqTest::CommandSource commands;
    KorbRdvStreamerUdp unbound(nullptr, nullptr, &commands, 0, 0);
    KorbRdvStreamerUdp *rx = makeReceiver(nullptr, &commands);
    QVERIFY(rx);
    emit commands.runCmd(QStringLiteral("buf"));
    emit commands.runCmd(QStringLiteral("csv"));
    QVERIFY(QDir(KorbRdvSource::dumpDir()).entryList(QDir::Files).isEmpty());
    QCOMPARE(rx->fileCounter(), 0);
    delete rx;
}

void TestKorbRdvUdpCli::watchdogEndsBurst()
{
    AcqTest::RecordingSink sink;
    AcqTest::CommandSource commands;
    KorbRdvStreamerUdp *rx = makeReceiver(&sink, &commands);
    QVERIFY(rx);
    Plan p;
    p.frame("A", ch(1, 0)).frame("B", ch(1, 100)).frame("C", ch(1, 200));
    send(*rx, 0, p.datagrams);
    QTRY_COMPARE(rx->lastSequence(0), p.seq - 1);
    QVERIFY(rx->scanner().charBuff());
    QVERIFY(rx->watchdogActive());
    QCOMPARE(sink.handoffs.size(), 1);
    emit commands.runCmd(QStringLiteral("buf"));
    QCOMPARE(rx->fileCounter(), 1);

    // 550 ms of silence: buffer released, counters and file counter reset.
    QTRY_VERIFY_WITH_TIMEOUT(!rx->scanner().charBuff(), 3000);
    QVERIFY(!rx->watchdogActive());
    QCOMPARE(rx->fileCounter(), 0);
    QCOMPARE(rx->scanner().frameSize(), 0);
    QCOMPARE(text(KorbRdvStreamerUdp::counters()), QStringLiteral("0,0,0,0"));

    // The next burst continues the sequence; its first frame is not sent
    // again, the gate starts afresh.
    sink.handoffs.clear();
    p.datagrams.clear();
    p.frame("D", ch(1, 5000)).frame("E", ch(1, 5004)).frame("F", ch(1, 5100)).frame("G", ch(1, 5200));
    send(*rx, 0, p.datagrams);
    QTRY_COMPARE(rx->lastSequence(0), p.seq - 1);
    QCOMPARE(describe(sink, p), QStringLiteral("1:F"));
    emit commands.runCmd(QStringLiteral("buf"));
    QVERIFY(QFile::exists(QDir(KorbRdvSource::dumpDir())
                              .filePath(QStringLiteral("zz-uzk_%1_0000.rdv").arg(BaseSec + 5 - Epoch2000))));
    delete rx;
}

void TestKorbRdvUdpCli::sendMessage()
{
    KorbRdvStreamerUdp *rx = makeReceiver(nullptr);
    QVERIFY(rx);
    QUdpSocket peer;
    QVERIFY(peer.bind(QHostAddress(QHostAddress::LocalHost), 0));
    const QByteArray payload("hello device");
    QCOMPARE(rx->sendMessage0(payload, "127.0.0.1", peer.localPort()), qint64(payload.size()));
    QCOMPARE(rx->sendMessage1(payload + "!", "127.0.0.1", peer.localPort()), qint64(payload.size() + 1));
    QTRY_VERIFY(peer.hasPendingDatagrams());
    QByteArray got(64, '\0');
    QHostAddress from;
    quint16 fromPort = 0;
    got.resize(int(peer.readDatagram(got.data(), got.size(), &from, &fromPort)));
    QCOMPARE(got, payload);
    QCOMPARE(fromPort, rx->port1());
    QTRY_VERIFY(peer.hasPendingDatagrams());
    got.resize(64);
    got.resize(int(peer.readDatagram(got.data(), got.size(), &from, &fromPort)));
    QCOMPARE(got, payload + "!");
    QCOMPARE(fromPort, rx->port2());
    delete rx;
}

void TestKorbRdvUdpCli::rawCapture()
{
    QTemporaryDir work;
    QVERIFY(work.isValid());
    QVERIFY(QDir(work.path()).mkdir("Z:"));
    const QString cwd = QDir::currentPath();
    QVERIFY(QDir::setCurrent(work.path()));

    AcqTest::RecordingSink sink;
    KorbRdvStreamerUdp *rx = makeReceiver(&sink);
    QVERIFY(rx);
    Plan p;
    p.frame("A", ch(1, 0)).frame("B", ch(1, 100)).skipSeq(3).frame("C", ch(1, 200)).frame("D", ch(1, 300));
    const KorbRdvStreamerUdp::Counters before = KorbRdvStreamerUdp::counters();
    send(*rx, 0, p.datagrams);
    // The first port's datagrams only go to the capture file.
    QTRY_VERIFY(!KorbRdvStreamerUdp::captureFileName().isEmpty());
    const QString capture = KorbRdvStreamerUdp::captureFileName();
    QTRY_COMPARE(QFileInfo(capture).size(), qint64(p.datagrams.join().size()));

    // The second port is processed as usual meanwhile.
    Plan q;
    q.groupShift = 8;
    q.frame("E", ch(2, 0)).frame("F", ch(2, 100)).frame("G", ch(2, 200));
    send(*rx, 1, q.datagrams);
    QTRY_COMPARE(rx->lastSequence(1), q.seq - 1);
    QCOMPARE(rx->lastSequence(0), quint32(0));
    QCOMPARE(describe(sink, q), QStringLiteral("10:F"));
    QCOMPARE((KorbRdvStreamerUdp::counters() - before).udpOk, 3);

    // The silence writes the parse file: the frames the capture carried.
    QFile parsed(QFileInfo(capture).absolutePath() + "/" + QFileInfo(capture).baseName() + "_parse.bin");
    QTRY_VERIFY_WITH_TIMEOUT(parsed.exists(), 3000);
    QVERIFY(parsed.open(QIODevice::ReadOnly));
    QCOMPARE(parsed.readAll(), p.frames.join());
    QFile raw(capture);
    QVERIFY(raw.open(QIODevice::ReadOnly));
    QCOMPARE(raw.readAll(), p.datagrams.join());

    delete rx;
    KorbRdvStreamerUdp::closeCaptureFile();
    QVERIFY(QDir::setCurrent(cwd));
}

QTEST_GUILESS_MAIN(TestKorbRdvUdpCli)
#include "tst_korb_rdv_udp_cli.moc"
