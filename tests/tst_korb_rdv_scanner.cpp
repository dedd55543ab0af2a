// The frame scanner: which frames it finds in the character buffer, which of
// them pass the rate gate to the sink, the state it keeps between calls, and
// the dump formats of the buffer.

#include "src/korb_rdv_scanner.h"
#include "support/acq_recording_sink.h"
#include "support/rdv_test_encoder.h"

#include <QBuffer>
#include <QStringList>
#include <QtEndian>
#include <QtTest>

using RdvTest::FrameSpec;

namespace {

constexpr quint32 BaseSec = 1700000000;
constexpr int TestBufferSize = 1 << 20;

// A kind-2 frame `ms` milliseconds after the base time. Offsets that are
// multiples of 4 ms keep the frame time exact in double precision at this
// base, so a row can sit exactly on the gate's boundary.
FrameSpec single(int ms, quint16 count = 1)
{
    return RdvTest::singleFrame(count, BaseSec + quint32(ms / 1000), quint32(ms % 1000) * 1000000u);
}

FrameSpec channel(qint8 group, int ms, quint16 count = 1)
{
    return RdvTest::channelFrame(group, count, BaseSec + quint32(ms / 1000), quint32(ms % 1000) * 1000000u);
}

quint64 msOf(const FrameSpec &s)
{
    return RdvTest::frameTimeMs(s.timeSec, s.timeSub);
}

// Frames and raw bytes laid out one after another, remembering where each
// frame starts.
struct Stream
{
    QByteArray bytes;
    QList<int> at;

    Stream &frame(const FrameSpec &s, int gapAfter = 2)
    {
        at << bytes.size();
        bytes += RdvTest::encodeFrame(s);
        bytes += QByteArray(gapAfter, '\0');
        return *this;
    }
    Stream &raw(const QByteArray &b)
    {
        bytes += b;
        return *this;
    }
};

QString keysOf(const RdvChannelMap &map)
{
    QStringList keys;
    for (qint8 k : map.keys())
        keys << QString::number(int(k));
    return keys.join(QLatin1Char(','));
}

void load(KorbRdvScanner &scanner, const QByteArray &bytes, int size = TestBufferSize)
{
    QVERIFY(scanner.resetBuffer(size));
    QVERIFY(bytes.size() <= size);
    memcpy(scanner.charBuff(), bytes.constData(), size_t(bytes.size()));
    scanner.setFillEnd(bytes.size());
}

QStringList s_messages;
void collect(QtMsgType, const QMessageLogContext &, const QString &msg)
{
    s_messages << msg;
}

} // namespace

class TestKorbRdvScanner : public QObject
{
    Q_OBJECT

private slots:
    void scan_data();
    void scan();
    void rescanStartsAtLastAcceptedFrame();
    void verboseDescribesFirstFrameOnly();
    void resetBuffer_data();
    void resetBuffer();
    void appendRestartsAtTheEnd();
    void writeCsv_data();
    void writeCsv();
    void writeBuf_data();
    void writeBuf();
};

void TestKorbRdvScanner::scan_data()
{
    QTest::addColumn<QByteArray>("stream");
    QTest::addColumn<int>("clients");
    QTest::addColumn<int>("interval");
    QTest::addColumn<QString>("sends");
    QTest::addColumn<int>("scanPos");
    QTest::addColumn<int>("frameSize");
    QTest::addColumn<qint64>("lastSent");
    QTest::addColumn<QString>("mapKeys");

    const int len1 = 56 + 8;  // kind 2, one sample
    const int lenCh = 56 + 4; // kind 1, one sample
    {
        Stream s;
        s.frame(single(0));
        QTest::newRow("first frame is never sent")
            << s.bytes << 1 << 50 << "" << 0 << len1 << qint64(msOf(single(0))) << "";
    }
    {
        Stream s;
        s.frame(single(0)).frame(single(100));
        QTest::newRow("frame 100 ms later is sent") << s.bytes << 1 << 50 << QString("F%1").arg(s.at[1])
                                                    << s.at[1] << len1 << qint64(msOf(single(100))) << "";
    }
    {
        Stream s;
        s.frame(single(0)).frame(single(100)).frame(single(104));
        QTest::newRow("exactly the interval does not open the gate")
            << s.bytes << 1 << 100 << QString("F%1").arg(s.at[2]) << s.at[2] << len1
            << qint64(msOf(single(104))) << "";
    }
    {
        Stream s;
        s.frame(single(0)).frame(single(4)).frame(single(4));
        QTest::newRow("interval 0 passes later frames, not equal ones")
            << s.bytes << 1 << 0 << QString("F%1").arg(s.at[1]) << s.at[2] << len1 << qint64(msOf(single(4)))
            << "";
    }
    {
        Stream s;
        s.frame(single(5000)).frame(single(5100)).frame(single(0));
        QTest::newRow("older frame passes the unsigned gate")
            << s.bytes << 1 << 50 << QString("F%1 F%2").arg(s.at[1]).arg(s.at[2]) << s.at[2] << len1
            << qint64(msOf(single(0))) << "";
    }
    {
        Stream s;
        s.frame(single(0), 1).frame(single(100));
        QTest::newRow("frame one byte after the previous is missed")
            << s.bytes << 1 << 50 << "" << 0 << len1 << qint64(msOf(single(0))) << "";
    }
    {
        Stream s;
        s.frame(single(0), 0).frame(single(100));
        QTest::newRow("back-to-back frame is missed")
            << s.bytes << 1 << 50 << "" << 0 << len1 << qint64(msOf(single(0))) << "";
    }
    {
        Stream s;
        s.frame(single(0), 0).frame(single(100)).frame(single(200));
        QTest::newRow("back-to-back frame missed, later frame found")
            << s.bytes << 1 << 50 << QString("F%1").arg(s.at[2]) << s.at[2] << len1
            << qint64(msOf(single(200))) << "";
    }
    {
        Stream s;
        s.frame(single(0), 3).frame(single(100));
        QTest::newRow("three bytes after a frame: next found")
            << s.bytes << 1 << 50 << QString("F%1").arg(s.at[1]) << s.at[1] << len1
            << qint64(msOf(single(100))) << "";
    }
    {
        FrameSpec bad = single(0);
        bad.sampleCount = 13001;
        bad.payloadSamples = 0;
        Stream s;
        s.frame(bad).frame(single(0)).frame(single(100));
        QTest::newRow("count 13001 is no frame") << s.bytes << 1 << 50 << QString("F%1").arg(s.at[2])
                                                 << s.at[2] << len1 << qint64(msOf(single(100))) << "";
    }
    {
        Stream s;
        s.frame(single(0, 13000)).frame(single(100));
        QTest::newRow("count 13000 is a frame; the bound then needs 104056 bytes")
            << s.bytes << 1 << 50 << "" << 0 << 104056 << qint64(msOf(single(0))) << "";
    }
    {
        FrameSpec k0 = single(0), k3 = single(0), magic = single(0);
        k0.kind = 0;
        k3.kind = 3;
        magic.magic = 0x12345679;
        Stream s;
        s.frame(k0).frame(k3).frame(magic).frame(single(0)).frame(single(100));
        QTest::newRow("kind 0, kind 3 and a wrong magic are skipped")
            << s.bytes << 1 << 50 << QString("F%1").arg(s.at[4]) << s.at[4] << len1
            << qint64(msOf(single(100))) << "";
    }
    {
        FrameSpec cut = single(100, 100);
        cut.payloadSamples = 2;
        Stream s;
        s.frame(single(0)).frame(cut, 0);
        QTest::newRow("truncated candidate accepted when the last frame's size remains")
            << s.bytes << 1 << 50 << QString("F%1").arg(s.at[1]) << s.at[1] << 56 + 800 << qint64(msOf(cut))
            << "";
    }
    {
        Stream s;
        s.frame(channel(1, 0)).frame(channel(2, 100)).frame(single(200));
        QTest::newRow("no client: accepted, nothing sent, map untouched")
            << s.bytes << 0 << 50 << "" << s.at[2] << len1 << qint64(msOf(channel(1, 0))) << "";
    }
    {
        Stream s;
        s.frame(channel(1, 0)).frame(channel(2, 100)).frame(channel(1, 200));
        QTest::newRow("kind 1: map of the latest frame per group")
            << s.bytes << 1 << 50 << QString("M1:%1,2:%2 M1:%3,2:%2").arg(s.at[0]).arg(s.at[1]).arg(s.at[2])
            << s.at[2] << lenCh << qint64(msOf(channel(1, 200))) << "1,2";
    }
    {
        Stream s;
        s.frame(channel(-3, 0)).frame(channel(5, 100));
        QTest::newRow("kind 1: group byte is a signed key")
            << s.bytes << 1 << 50 << QString("M-3:%1,5:%2").arg(s.at[0]).arg(s.at[1]) << s.at[1] << lenCh
            << qint64(msOf(channel(5, 100))) << "-3,5";
    }
    {
        Stream s;
        s.frame(channel(3, 0)).frame(channel(3, 100)).frame(single(200));
        QTest::newRow("kind 2 after kind 1: kind-1 frame refiled under -1, kind 2 not sent")
            << s.bytes << 1 << 50 << QString("M3:%1").arg(s.at[1]) << s.at[2] << len1
            << qint64(msOf(channel(3, 100))) << "-1,3";
    }
    {
        Stream s;
        s.raw(QByteArray(300, '\x78'))
            .frame(single(0))
            .raw(QByteArray("\x78\x56\x34\x12", 4))
            .frame(single(100));
        QTest::newRow("garbage with magic bytes between frames")
            << s.bytes << 1 << 50 << QString("F%1").arg(s.at[1]) << s.at[1] << len1
            << qint64(msOf(single(100))) << "";
    }
}

void TestKorbRdvScanner::scan()
{
    QFETCH(QByteArray, stream);
    QFETCH(int, clients);
    QFETCH(int, interval);
    QFETCH(QString, sends);
    QFETCH(int, scanPos);
    QFETCH(int, frameSize);
    QFETCH(qint64, lastSent);
    QFETCH(QString, mapKeys);

    // The faster searches must give exactly what the byte-by-byte one gives.
    for (KorbRdvScanner::Search how :
         {KorbRdvScanner::Search::Bytewise, KorbRdvScanner::Search::Memchr, KorbRdvScanner::Search::Simd}) {
        AcqTest::RecordingSink sink;
        sink.clients = clients;
        KorbRdvScanner scanner(&sink);
        scanner.setSearch(how);
        scanner.setSendIntervalMs(quint16(interval));
        load(scanner, stream);
        scanner.calcBuff(false);

        QCOMPARE(sink.describe(scanner.charBuff()), sends);
        QCOMPARE(scanner.scanPos(), scanPos);
        QCOMPARE(scanner.frameSize(), frameSize);
        QCOMPARE(scanner.lastSentMs(), lastSent);
        QCOMPARE(keysOf(scanner.map()), mapKeys);
        // A sent frame is handed on in place with its own bytes.
        for (const AcqTest::Handoff &h : sink.handoffs) {
            if (h.single)
                QCOMPARE(h.frame.bytes, QByteArray(h.frame.where, h.frame.bytes.size()));
        }
    }
}

void TestKorbRdvScanner::rescanStartsAtLastAcceptedFrame()
{
    AcqTest::RecordingSink sink;
    KorbRdvScanner scanner(&sink);
    Stream s;
    s.frame(single(0)).frame(single(100));
    load(scanner, s.bytes);
    scanner.calcBuff(false);
    QCOMPARE(sink.handoffs.size(), 1);
    QCOMPARE(scanner.scanPos(), s.at[1]);

    // Nothing new: the last frame is accepted again but not sent twice.
    scanner.calcBuff(false);
    QCOMPARE(sink.handoffs.size(), 1);
    QCOMPARE(scanner.scanPos(), s.at[1]);

    // More data behind it: the scan goes on from there.
    const QByteArray more = RdvTest::encodeFrame(single(200));
    memcpy(scanner.charBuff() + s.bytes.size(), more.constData(), size_t(more.size()));
    scanner.setFillEnd(s.bytes.size() + more.size());
    scanner.calcBuff(false);
    QCOMPARE(sink.describe(scanner.charBuff()), QString("F%1 F%2").arg(s.at[1]).arg(s.bytes.size()));
    QCOMPARE(sink.handoffs.last().frame.bytes, more);
}

void TestKorbRdvScanner::verboseDescribesFirstFrameOnly()
{
    AcqTest::RecordingSink sink;
    KorbRdvScanner scanner(&sink);
    Stream s;
    s.frame(channel(7, 0, 3)).frame(single(100)).frame(single(200));
    load(scanner, s.bytes);

    s_messages.clear();
    QtMessageHandler previous = qInstallMessageHandler(collect);
    scanner.calcBuff(true);
    scanner.setScanPos(0);
    scanner.calcBuff(false);
    qInstallMessageHandler(previous);

    QStringList described;
    for (const QString &m : s_messages) {
        if (m.contains("frameSize:"))
            described << m;
    }
    QCOMPARE(described.size(), 1);
    const QString line = described.first();
    QVERIFY2(line.contains("~~~~") && line.contains("calcBuff()"), qPrintable(line));
    QVERIFY2(line.contains("frameSize: 68"), qPrintable(line));
    QVERIFY2(line.contains("charBuffSize: 1Mb") && line.contains("1048576"), qPrintable(line));
    QVERIFY2(line.trimmed().endsWith("7 3"), qPrintable(line)); // group and count
}

void TestKorbRdvScanner::resetBuffer_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<bool>("allocated");
    QTest::newRow("0 releases") << 0 << false;
    QTest::newRow("negative") << -1 << false;
    QTest::newRow("one byte") << 1 << true;
    QTest::newRow("64 MiB") << 67108864 << true;
    QTest::newRow("64 MiB + 1") << 67108865 << false;
}

void TestKorbRdvScanner::resetBuffer()
{
    QFETCH(int, size);
    QFETCH(bool, allocated);
    AcqTest::RecordingSink sink;
    KorbRdvScanner scanner(&sink);
    Stream s;
    s.frame(channel(1, 0)).frame(channel(2, 100));
    load(scanner, s.bytes);
    scanner.calcBuff(false);
    QVERIFY(scanner.lastSentMs() != 0);
    QCOMPARE(scanner.map().size(), 2);

    QCOMPARE(scanner.resetBuffer(size), allocated);
    QCOMPARE(scanner.charBuff() != nullptr, allocated);
    QCOMPARE(scanner.charBuffSize(), allocated ? size : 0);
    QCOMPARE(scanner.fillEnd(), 0);
    QCOMPARE(scanner.scanPos(), 0);
    QCOMPARE(scanner.frameSize(), 0);
    QCOMPARE(scanner.lastSentMs(), qint64(0));
    QVERIFY(scanner.map().isEmpty());
    if (allocated)
        QCOMPARE(QByteArray(scanner.charBuff(), qMin(size, 4096)), QByteArray(qMin(size, 4096), '\0'));
    scanner.calcBuff(false); // nothing to scan, with or without buffer
}

void TestKorbRdvScanner::appendRestartsAtTheEnd()
{
    KorbRdvScanner scanner;
    QVERIFY(scanner.resetBuffer(200));
    const QByteArray a(90, 'a'), b(90, 'b'), c(90, 'c');
    QCOMPARE(scanner.append(a.constData(), a.size()), 0);
    QCOMPARE(scanner.append(b.constData(), b.size()), 90);
    QCOMPARE(scanner.fillEnd(), 180);
    QCOMPARE(scanner.charBuff()[180], '\0');
    scanner.setScanPos(150);
    QCOMPARE(scanner.append(c.constData(), c.size()), 0); // would pass 200: restart at 0
    QCOMPARE(scanner.fillEnd(), 90);
    QCOMPARE(scanner.scanPos(), 0);
    QCOMPARE(QByteArray(scanner.charBuff(), 91), c + QByteArray(1, '\0'));
    QCOMPARE(QByteArray(scanner.charBuff() + 91, 89), QByteArray(89, 'b')); // older data stays
    QCOMPARE(scanner.append(a.constData(), 201), -1);
}

namespace {
// CSV text of a frame computed here: kind 1 as absolute 16-bit values, kind 2
// as signed 32-bit values, two per sample.
QByteArray csvOf(const FrameSpec &s)
{
    const QByteArray frame = RdvTest::encodeFrame(s);
    QByteArray out("x;y\r\n");
    const int values = 2 * s.sampleCount;
    for (int i = 0; i < values; ++i) {
        const uchar *p = reinterpret_cast<const uchar *>(frame.constData()) + 56;
        const qint64 v = s.kind == 1 ? qAbs(qint64(qFromLittleEndian<qint16>(p + 2 * i)))
                                     : qint64(qFromLittleEndian<qint32>(p + 4 * i));
        out += QByteArray::number(i) + ';' + QByteArray::number(v) + "\r\n";
    }
    return out;
}

QByteArray le16(std::initializer_list<int> values)
{
    QByteArray out;
    for (int v : values) {
        out.append(char(v & 0xFF));
        out.append(char((v >> 8) & 0xFF));
    }
    return out;
}

QByteArray le32(std::initializer_list<qint64> values)
{
    QByteArray out;
    for (qint64 v : values)
        for (int i = 0; i < 4; ++i)
            out.append(char((quint32(v) >> (8 * i)) & 0xFF));
    return out;
}
} // namespace

void TestKorbRdvScanner::writeCsv_data()
{
    QTest::addColumn<QByteArray>("buffer");
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("fillEnd");
    QTest::addColumn<int>("frameSize");
    QTest::addColumn<QByteArray>("expected");

    FrameSpec k1 = channel(2, 0, 2);
    k1.payload = le16({-5, 7, -32768, 32767});
    FrameSpec k2 = single(0, 2);
    k2.payload = le32({-1, 2147483647, -2147483647 - 1, 42});
    const QByteArray f1 = RdvTest::encodeFrame(k1), f2 = RdvTest::encodeFrame(k2);

    QByteArray withOld(1000, '\0');
    withOld.replace(400, f1.size(), f1);
    QTest::newRow("kind 1 at the fill end: absolute 16-bit values")
        << withOld << 1000 << 400 << 64 << csvOf(k1);

    withOld.fill('\0');
    withOld.replace(400, f2.size(), f2);
    QTest::newRow("kind 2 at the fill end: signed 32-bit values")
        << withOld << 1000 << 400 << 72 << csvOf(k2);

    QByteArray atZero(1000, '\0');
    atZero.replace(0, f2.size(), f2);
    atZero.replace(950, f1.size() - 20, f1.left(f1.size() - 20));
    QTest::newRow("frame would not fit behind the fill end: the one at 0")
        << atZero << 1000 << 950 << 72 << csvOf(k2);

    QByteArray none(1000, 'z');
    QTest::newRow("no header at the fill end: title only")
        << none << 1000 << 400 << 72 << QByteArray("x;y\r\n");
}

void TestKorbRdvScanner::writeCsv()
{
    QFETCH(QByteArray, buffer);
    QFETCH(int, size);
    QFETCH(int, fillEnd);
    QFETCH(int, frameSize);
    QFETCH(QByteArray, expected);
    KorbRdvScanner scanner;
    load(scanner, buffer, size);
    scanner.setFillEnd(fillEnd);
    scanner.setFrameSize(frameSize);
    QBuffer out;
    out.open(QIODevice::WriteOnly);
    scanner.writeCsv(&out);
    QCOMPARE(out.data(), expected);
}

void TestKorbRdvScanner::writeBuf_data()
{
    QTest::addColumn<QByteArray>("buffer");
    QTest::addColumn<int>("fillEnd");
    QTest::addColumn<QByteArray>("expected");

    const QByteArray newer = RdvTest::encodeStream({single(500), single(600)});
    const QByteArray older = RdvTest::encodeFrame(single(100, 3));

    QByteArray fresh(2048, '\0');
    fresh.replace(0, newer.size(), newer);
    QTest::newRow("nothing behind the fill end") << fresh << newer.size() << newer;

    QByteArray ring(2048, '\x55');
    ring.replace(0, newer.size(), newer);
    const int oldAt = 1500;
    ring.replace(oldAt, older.size(), older);
    QTest::newRow("older frame behind garbage: from it to the end, then the start")
        << ring << newer.size() << ring.mid(oldAt) + newer;
}

void TestKorbRdvScanner::writeBuf()
{
    QFETCH(QByteArray, buffer);
    QFETCH(int, fillEnd);
    QFETCH(QByteArray, expected);
    KorbRdvScanner scanner;
    load(scanner, buffer, buffer.size());
    scanner.setFillEnd(fillEnd);
    QBuffer out;
    out.open(QIODevice::WriteOnly);
    scanner.writeBuf(&out);
    QCOMPARE(out.data().size(), expected.size());
    QCOMPARE(out.data(), expected);
}

QTEST_GUILESS_MAIN(TestKorbRdvScanner)
#include "tst_korb_rdv_scanner.moc"
