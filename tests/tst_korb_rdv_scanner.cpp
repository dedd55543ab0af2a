// The frame scanner: which frames it finds, which pass the rate gate to the
// sink, and the dump formats of the character buffer.

#include "src/korb_rdv_scanner.h"
#include "support/acq_recording_sink.h"
#include "support/rdv_test_encoder.h"

#include <QBuffer>
#include <QStringList>
#include <QtTest>

using RdvTest::FrameSpec;

namespace {

constexpr quint32 BaseSec = 1700000000;
constexpr int TestBufferSize = 1 << 20;

// Frames `ms` after the base time; multiples of 4 ms keep the time exact.
FrameSpec single(int ms, quint16 count = 1)
{
    return RdvTest::singleFrame(count, BaseSec + quint32(ms / 1000), quint32(ms % 1000) * 1000000u);
}
FrameSpec channel(qint8 group, int ms, quint16 count = 1)
{
    return RdvTest::channelFrame(group, count, BaseSec + quint32(ms / 1000), quint32(ms % 1000) * 1000000u);
}

// Frames laid out one after another, remembering where each starts.
struct Stream
{
    QByteArray bytes;
    QList<int> at;
    Stream() = default;
    Stream(std::initializer_list<FrameSpec> frames)
    {
        for (const FrameSpec &s : frames)
            frame(s);
    }
    Stream &frame(const FrameSpec &s, int gapAfter = 2)
    {
        at << bytes.size();
        bytes += RdvTest::encodeFrame(s) + QByteArray(gapAfter, '\0');
        return *this;
    }
    Stream &raw(const QByteArray &b)
    {
        bytes += b;
        return *this;
    }
    // The sink's hand-offs with frames named by their index in the stream:
    // "F<i>" for a single frame, "M<group>:<i>,..." for a map.
    QString sent(const AcqTest::RecordingSink &sink, const char *base) const
    {
        QStringList out;
        for (const AcqTest::Handoff &h : sink.handoffs) {
            QStringList map;
            for (auto it = h.map.cbegin(); it != h.map.cend(); ++it)
                map << QStringLiteral("%1:%2")
                           .arg(int(it.key()))
                           .arg(at.indexOf(int(it.value().where - base)));
            out << (h.single ? QStringLiteral("F%1").arg(at.indexOf(int(h.frame.where - base)))
                             : QLatin1Char('M') + map.join(','));
        }
        return out.join(' ');
    }
};

// A header only, of any kind, count and magic.
FrameSpec broken(quint8 kind, quint16 count = 1, quint32 magic = RdvTest::Magic)
{
    FrameSpec s = single(0, count);
    s.kind = kind;
    s.magic = magic;
    s.payloadSamples = 0;
    return s;
}

void load(KorbRdvScanner &scanner, const QByteArray &bytes, int size = TestBufferSize)
{
    QVERIFY(scanner.resetBuffer(size));
    memcpy(scanner.charBuff(), bytes.constData(), size_t(bytes.size()));
    scanner.setFillEnd(bytes.size());
}

QStringList s_messages;
void collect(QtMsgType, const QMessageLogContext &, const QString &msg)
{
    s_messages << msg;
}

} // namespace

Q_DECLARE_METATYPE(Stream)

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
    void writeBuf();
};

void TestKorbRdvScanner::scan_data()
{
    QTest::addColumn<Stream>("stream");
    QTest::addColumn<int>("clients");
    QTest::addColumn<int>("interval");
    QTest::addColumn<QString>("sends");
    QTest::addColumn<int>("frameSize");
    QTest::addColumn<int>("lastSentAt"); // ms after the base time
    QTest::addColumn<QString>("mapKeys");
    const int len = 56 + 8;
    FrameSpec cut = single(100, 100);
    cut.payloadSamples = 2;
    using S = Stream;
    // clang-format off
    QTest::newRow("exactly the interval does not open the gate")
        << S{single(0), single(100), single(104)} << 1 << 100 << "F2" << len << 104 << "";
    QTest::newRow("first frame never sent; an older one passes the unsigned gate")
        << S{single(5000), single(5100), single(0)} << 1 << 50 << "F1 F2" << len << 0 << "";
    QTest::newRow("frame one byte after the previous is missed")
        << S().frame(single(0), 1).frame(single(100)) << 1 << 50 << "" << len << 0 << "";
    QTest::newRow("back-to-back frame missed, later frame found")
        << S().frame(single(0), 0).frame(single(100)).frame(single(200)) << 1 << 50 << "F2" << len << 200
        << "";
    QTest::newRow("count 13001 is no frame")
        << S{broken(2, 13001), single(0), single(100)} << 1 << 50 << "F2" << len << 100 << "";
    QTest::newRow("count 13000 is a frame; the bound then needs 104056 bytes")
        << S{single(0, 13000), single(100)} << 1 << 50 << "" << 104056 << 0 << "";
    QTest::newRow("kind 0, kind 3 and a wrong magic are skipped")
        << S{broken(0), broken(3), broken(2, 1, 0x12345679), single(0), single(100)}
        << 1 << 50 << "F4" << len << 100 << "";
    QTest::newRow("truncated candidate accepted when the last frame's size remains")
        << S{single(0), cut} << 1 << 50 << "F1" << 856 << 100 << "";
    QTest::newRow("no client: accepted, nothing sent, map untouched")
        << S{channel(1, 0), channel(2, 100), single(200)} << 0 << 50 << "" << len << 0 << "";
    QTest::newRow("kind 1: map of the latest frame per signed group")
        << S{channel(1, 0), channel(-3, 100), channel(1, 200)} << 1 << 50 << "M-3:1,1:0 M-3:1,1:2" << 60 << 200
        << "-3,1";
    QTest::newRow("kind 2 after kind 1: kind-1 frame refiled under -1, kind 2 not sent")
        << S{channel(3, 0), channel(3, 100), single(200)} << 1 << 50 << "M3:1" << len << 100 << "-1,3";
    QTest::newRow("garbage with magic bytes between frames")
        << S().raw(QByteArray(300, '\x78')).frame(single(0)).raw("\x78\x56\x34\x12").frame(single(100))
        << 1 << 50 << "F1" << len << 100 << "";
    // clang-format on
}

void TestKorbRdvScanner::scan()
{
    QFETCH(Stream, stream);
    QFETCH(int, clients);
    QFETCH(int, interval);
    QFETCH(QString, sends);
    QFETCH(int, frameSize);
    QFETCH(int, lastSentAt);
    QFETCH(QString, mapKeys);

    // The faster searches must give exactly what the byte-by-byte one gives.
    for (auto how :
         {KorbRdvScanner::Search::Bytewise, KorbRdvScanner::Search::Memchr, KorbRdvScanner::Search::Simd}) {
        AcqTest::RecordingSink sink;
        sink.clients = clients;
        KorbRdvScanner scanner(&sink);
        scanner.setSearch(how);
        scanner.setSendIntervalMs(quint16(interval));
        load(scanner, stream.bytes);
        scanner.calcBuff(false);

        QCOMPARE(stream.sent(sink, scanner.charBuff()), sends);
        QCOMPARE(scanner.frameSize(), frameSize);
        QCOMPARE(scanner.lastSentMs(), qint64(RdvTest::frameTimeMs(BaseSec + lastSentAt / 1000,
                                                                   quint32(lastSentAt % 1000) * 1000000u)));
        QStringList keys;
        for (qint8 k : scanner.map().keys())
            keys << QString::number(k);
        QCOMPARE(keys.join(','), mapKeys);
    }
}

void TestKorbRdvScanner::rescanStartsAtLastAcceptedFrame()
{
    AcqTest::RecordingSink sink;
    KorbRdvScanner scanner(&sink);
    Stream s{single(0), single(100)};
    load(scanner, s.bytes);
    scanner.calcBuff(false);
    // Nothing new: the last frame is accepted again but not sent twice.
    scanner.calcBuff(false);
    QCOMPARE(scanner.scanPos(), s.at[1]);
    QCOMPARE(sink.handoffs.size(), 1);

    const QByteArray more = RdvTest::encodeFrame(single(200));
    memcpy(scanner.charBuff() + s.bytes.size(), more.constData(), size_t(more.size()));
    scanner.setFillEnd(s.bytes.size() + more.size());
    scanner.calcBuff(false);
    s.at << s.bytes.size();
    QCOMPARE(s.sent(sink, scanner.charBuff()), QStringLiteral("F1 F2"));
    QCOMPARE(sink.handoffs.last().frame.bytes, more); // handed on in place, whole
}

void TestKorbRdvScanner::verboseDescribesFirstFrameOnly()
{
    KorbRdvScanner scanner;
    load(scanner, Stream{channel(7, 0, 3), single(100), single(200)}.bytes);
    s_messages.clear();
    QtMessageHandler previous = qInstallMessageHandler(collect);
    scanner.calcBuff(true);
    scanner.setScanPos(0);
    scanner.calcBuff(false);
    qInstallMessageHandler(previous);

    const QStringList described = s_messages.filter("frameSize:");
    QCOMPARE(described.size(), 1);
    const QString line = described.first();
    QVERIFY2(line.contains("~~~~") && line.contains("calcBuff()") && line.contains("frameSize: 68"),
             qPrintable(line));
    QVERIFY2(line.contains("charBuffSize: 1Mb") && line.contains("1048576"), qPrintable(line));
    QVERIFY2(line.trimmed().endsWith("7 3"), qPrintable(line)); // group and count
}

void TestKorbRdvScanner::resetBuffer_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<bool>("allocated");
    QTest::newRow("0 releases") << 0 << false;
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
    load(scanner, Stream{channel(1, 0), channel(2, 100)}.bytes);
    scanner.calcBuff(false);
    QVERIFY(scanner.lastSentMs() != 0 && scanner.map().size() == 2);

    QCOMPARE(scanner.resetBuffer(size), allocated);
    QCOMPARE(scanner.charBuffSize(), allocated ? size : 0);
    // A reset starts afresh: its next first frame is not sent again.
    QCOMPARE(scanner.fillEnd() + scanner.scanPos() + scanner.frameSize(), 0);
    QCOMPARE(scanner.lastSentMs(), qint64(0));
    QVERIFY(scanner.map().isEmpty());
    if (allocated)
        QCOMPARE(QByteArray(scanner.charBuff(), qMin(size, 4096)), QByteArray(qMin(size, 4096), '\0'));
    else
        QVERIFY(!scanner.charBuff());
}

void TestKorbRdvScanner::appendRestartsAtTheEnd()
{
    KorbRdvScanner scanner;
    QVERIFY(scanner.resetBuffer(200));
    const QByteArray a(90, 'a'), b(90, 'b'), c(90, 'c');
    QCOMPARE(scanner.append(a.constData(), a.size()), 0);
    QCOMPARE(scanner.append(b.constData(), b.size()), 90);
    scanner.setScanPos(150);
    QCOMPARE(scanner.append(c.constData(), c.size()), 0); // would pass 200: restart at 0
    QCOMPARE(scanner.fillEnd(), 90);
    QCOMPARE(scanner.scanPos(), 0);
    // Fill end marked with a zero byte; older data behind it stays.
    QCOMPARE(QByteArray(scanner.charBuff(), 180), c + '\0' + QByteArray(89, 'b'));
    QCOMPARE(scanner.append(a.constData(), 201), -1);
}

void TestKorbRdvScanner::writeCsv_data()
{
    QTest::addColumn<QByteArray>("buffer");
    QTest::addColumn<int>("fillEnd");
    QTest::addColumn<int>("frameSize");
    QTest::addColumn<QByteArray>("expected");

    FrameSpec k1 = channel(2, 0, 2), k2 = single(0, 2);
    k1.payload = QByteArray::fromHex("fbff07000080ff7f");                 // -5, 7, -32768, 32767
    k2.payload = QByteArray::fromHex("ffffffffffffff7f000000802a000000"); // -1, max, min, 42
    const QByteArray f1 = RdvTest::encodeFrame(k1), f2 = RdvTest::encodeFrame(k2);
    const QByteArray csv1("x;y\r\n0;5\r\n1;7\r\n2;32768\r\n3;32767\r\n");
    const QByteArray csv2("x;y\r\n0;-1\r\n1;2147483647\r\n2;-2147483648\r\n3;42\r\n");

    QByteArray buf(1000, '\0');
    QTest::newRow("kind 1 at the fill end: absolute 16-bit values")
        << QByteArray(buf).replace(400, f1.size(), f1) << 400 << 64 << csv1;
    QTest::newRow("kind 2 at the fill end: signed 32-bit values")
        << QByteArray(buf).replace(400, f2.size(), f2) << 400 << 72 << csv2;
    buf.replace(0, f2.size(), f2).replace(950, 50, f1.left(50));
    QTest::newRow("frame would not fit behind the fill end: the one at 0") << buf << 950 << 72 << csv2;
    QTest::newRow("no header at the fill end: title only")
        << QByteArray(1000, 'z') << 400 << 72 << QByteArray("x;y\r\n");
}

void TestKorbRdvScanner::writeCsv()
{
    QFETCH(QByteArray, buffer);
    QFETCH(int, fillEnd);
    QFETCH(int, frameSize);
    QFETCH(QByteArray, expected);
    KorbRdvScanner scanner;
    load(scanner, buffer, buffer.size());
    scanner.setFillEnd(fillEnd);
    scanner.setFrameSize(frameSize);
    QBuffer out;
    out.open(QIODevice::WriteOnly);
    scanner.writeCsv(&out);
    QCOMPARE(out.data(), expected);
}

void TestKorbRdvScanner::writeBuf()
{
    // Ring order: from the first header behind the fill end (garbage before
    // it skipped) to the buffer's end, then the start up to the fill end.
    const QByteArray newer = RdvTest::encodeStream({single(500), single(600)});
    const QByteArray older = RdvTest::encodeFrame(single(100, 3));
    QByteArray ring(2048, '\x55');
    ring.replace(0, newer.size(), newer).replace(1500, older.size(), older);
    KorbRdvScanner scanner;
    load(scanner, ring, ring.size());
    scanner.setFillEnd(newer.size());
    QBuffer out;
    out.open(QIODevice::WriteOnly);
    scanner.writeBuf(&out);
    QCOMPARE(out.data(), ring.mid(1500) + newer);
}

QTEST_GUILESS_MAIN(TestKorbRdvScanner)
#include "tst_korb_rdv_scanner.moc"
