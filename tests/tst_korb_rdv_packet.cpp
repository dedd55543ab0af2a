// Byte-exact checks of the Rdv packets against the test-local encoder, plus a
// few fields decoded by hand where the encoder's own arithmetic could hide a
// shared mistake (time stamp truncations, the rate field, the length word).

#include "src/korb_rdv_packet.h"
#include "support/rdv_test_encoder.h"

#include <QtEndian>
#include <QtTest>

#include <cmath>
#include <cstring>

Q_DECLARE_METATYPE(RdvTest::FrameSpec)

using RdvTest::FrameSpec;

namespace {

double f64At(const QByteArray &b, int offset)
{
    const quint64 bits = qFromLittleEndian<quint64>(b.constData() + offset);
    double d;
    std::memcpy(&d, &bits, 8);
    return d;
}
quint16 u16At(const QByteArray &b, int offset)
{
    return qFromLittleEndian<quint16>(b.constData() + offset);
}

// Field offsets inside a packet / a sub-block.
constexpr int SingleCountOffset = 15;
constexpr int SingleTimeOffset = 31;
constexpr int SingleRateOffset = 39;
constexpr int ChannelTimeOffset = 29;
constexpr int ChannelRateOffset = 37;

const RdvFrame *asFrame(const QByteArray &bytes)
{
    return reinterpret_cast<const RdvFrame *>(bytes.constData());
}

} // namespace

class TestRdvPacket : public QObject
{
    Q_OBJECT

private slots:
    void singleFrame_data();
    void singleFrame();
    void timeStampAndRate_data();
    void timeStampAndRate();
    void nullFrame();
    void channelMap_data();
    void channelMap();
    void largestChannelBlockFitsLengthWord();
};

void TestRdvPacket::singleFrame_data()
{
    QTest::addColumn<FrameSpec>("fs");
    QTest::addColumn<int>("expectedSize");
    QTest::addColumn<int>("expectedLengthWord");

    QTest::newRow("no samples: 71 bytes, length 0x0047") << RdvTest::singleFrame(0) << 71 << 71;
    QTest::newRow("one sample") << RdvTest::singleFrame(1) << 79 << 79;
    QTest::newRow("8183 samples: largest with an exact length word")
        << RdvTest::singleFrame(8183) << 71 + 8 * 8183 << 71 + 8 * 8183;
    QTest::newRow("8184 samples: length word wraps") << RdvTest::singleFrame(8184) << 65543 << 7;
    QTest::newRow("13000 samples: length word 38535") << RdvTest::singleFrame(13000) << 104071 << 38535;

    FrameSpec tooMany = RdvTest::singleFrame(13001);
    tooMany.payloadSamples = 0; // the daemon must not look behind the header
    QTest::newRow("13001 samples: header only") << tooMany << 71 << 71;

    FrameSpec badMagic = RdvTest::singleFrame(100);
    badMagic.magic = 0x12345679;
    QTest::newRow("bad magic: header only") << badMagic << 71 << 71;

    FrameSpec kind1 = RdvTest::singleFrame(100);
    kind1.kind = 1;
    kind1.layout = RdvTest::Layout::Single;
    QTest::newRow("frame type 1 in the single form: header only") << kind1 << 71 << 71;

    FrameSpec kind3 = RdvTest::singleFrame(10);
    kind3.kind = 3;
    QTest::newRow("frame type 3: header only, type copied") << kind3 << 71 << 71;

    FrameSpec negType = RdvTest::singleFrame(10);
    negType.kind = 0xFE;
    QTest::newRow("frame type -2: header only") << negType << 71 << 71;

    for (int flags : {0x00, 0x01, 0x02, 0x04, 0x08, 0x0F, 0xF0}) {
        FrameSpec f = RdvTest::singleFrame(2);
        f.byte16 = quint8(flags);
        QTest::addRow("flag byte 0x%02x", flags) << f << 87 << 87;
    }

    FrameSpec extremes = RdvTest::singleFrame(3);
    extremes.word5 = -32768;
    extremes.single.word44 = 32767;
    extremes.single.word46 = -1;
    extremes.single.intA = INT_MIN;
    extremes.single.intB = INT_MAX;
    extremes.single.counterA = 0;
    extremes.single.counterB = ~quint64(0);
    extremes.single.floatA = -1.5e38f;
    QTest::newRow("extreme header values") << extremes << 95 << 95;
}

void TestRdvPacket::singleFrame()
{
    QFETCH(FrameSpec, fs);
    QFETCH(int, expectedSize);
    QFETCH(int, expectedLengthWord);

    const QByteArray frame = RdvTest::encodeFrame(fs);
    const QByteArray packet = Rdv::buildPacket(asFrame(frame));

    QCOMPARE(packet.size(), expectedSize);
    QCOMPARE(int(u16At(packet, 0)), expectedLengthWord);
    QCOMPARE(u16At(packet, SingleCountOffset), fs.sampleCount);
    QCOMPARE(packet, RdvTest::expectedSinglePacket(fs));
}

void TestRdvPacket::timeStampAndRate_data()
{
    QTest::addColumn<quint32>("sec");
    QTest::addColumn<quint32>("sub");
    QTest::addColumn<double>("timeMs");
    QTest::addColumn<double>("rate");

    QTest::newRow("1 s + 0.5 s") << 1u << 500000000u << 1500.0 << 0.000002;
    QTest::newRow("sub-millisecond part truncated") << 1u << 999999u << 1000.0 << 1000.0 / 999999.0;
    QTest::newRow("just under 2 ms") << 0u << 1999999u << 1.0 << 1000.0 / 1999999.0;
    QTest::newRow("timeSub 0: rate +inf")
        << 1700000000u << 0u << 1700000000000.0 << std::numeric_limits<double>::infinity();
    QTest::newRow("realistic stamp, nanoseconds lost in double")
        << 1700000000u << 123456789u << 1700000000123.0 << 1000.0 / 123456789.0;
    // 4294967295999999999 ns is not a double; it rounds up to 2^32 s first.
    QTest::newRow("largest stamp rounds up in double")
        << 0xFFFFFFFFu << 999999999u << 4294967296000.0 << 1000.0 / 999999999.0;
    QTest::newRow("sub-second part above one second")
        << 10u << 4000000000u << 14000.0 << 1000.0 / 4000000000.0;
}

void TestRdvPacket::timeStampAndRate()
{
    QFETCH(quint32, sec);
    QFETCH(quint32, sub);
    QFETCH(double, timeMs);
    QFETCH(double, rate);

    FrameSpec single = RdvTest::singleFrame(1, sec, sub);
    const QByteArray singleBytes = RdvTest::encodeFrame(single);
    const QByteArray packet = Rdv::buildPacket(asFrame(singleBytes));
    QCOMPARE(f64At(packet, SingleTimeOffset), timeMs);
    QCOMPARE(f64At(packet, SingleRateOffset), rate);
    QCOMPARE(packet, RdvTest::expectedSinglePacket(single));

    FrameSpec channel = RdvTest::channelFrame(2, 1, sec, sub);
    QByteArray channelBytes = RdvTest::encodeFrame(channel);
    RdvChannelMap map;
    map.insert(2, reinterpret_cast<RdvChannelFrame *>(channelBytes.data()));
    const QByteArray block = Rdv::buildPacket(map);
    QCOMPARE(f64At(block, ChannelTimeOffset), timeMs);
    QCOMPARE(f64At(block, ChannelRateOffset), rate);
    QCOMPARE(block, RdvTest::expectedChannelBlock(channel));
}

void TestRdvPacket::nullFrame()
{
    QVERIFY(Rdv::buildPacket(static_cast<const RdvFrame *>(nullptr)).isEmpty());
}

void TestRdvPacket::channelMap_data()
{
    QTest::addColumn<QList<FrameSpec>>("frames"); // listed in ascending group order
    QTest::addColumn<QList<int>>("blockLengths");

    QTest::newRow("empty map: empty packet") << QList<FrameSpec>() << QList<int>();
    QTest::newRow("one group, 0 samples: 77 bytes")
        << QList<FrameSpec>{RdvTest::channelFrame(0, 0)} << QList<int>{77};
    QTest::newRow("two groups without samples")
        << QList<FrameSpec>{RdvTest::channelFrame(1, 0), RdvTest::channelFrame(3, 0)} << QList<int>{77, 77};
    QTest::newRow("two groups with samples")
        << QList<FrameSpec>{RdvTest::channelFrame(1, 100), RdvTest::channelFrame(2, 250)}
        << QList<int>{77 + 400, 77 + 1000};
    QTest::newRow("group -1 sorts before group 5")
        << QList<FrameSpec>{RdvTest::channelFrame(-1, 3), RdvTest::channelFrame(5, 4)} << QList<int>{89, 93};
    QTest::newRow("extreme groups -128 and 127")
        << QList<FrameSpec>{RdvTest::channelFrame(-128, 1), RdvTest::channelFrame(127, 1)}
        << QList<int>{81, 81};

    FrameSpec badMagic = RdvTest::channelFrame(4, 10);
    badMagic.magic = 0;
    QTest::newRow("bad magic in one group: that block header only")
        << QList<FrameSpec>{RdvTest::channelFrame(2, 10), badMagic} << QList<int>{117, 77};

    FrameSpec kind2 = RdvTest::channelFrame(1, 10);
    kind2.kind = 2;
    kind2.layout = RdvTest::Layout::Channel;
    kind2.payloadSamples = 20; // 8-byte samples as the kind says; still not copied
    QTest::newRow("frame type 2 in the channel form: header only")
        << QList<FrameSpec>{kind2} << QList<int>{77};

    FrameSpec tooMany = RdvTest::channelFrame(1, 13001);
    tooMany.payloadSamples = 0;
    QTest::newRow("13001 samples: header only") << QList<FrameSpec>{tooMany} << QList<int>{77};

    FrameSpec zeroSub = RdvTest::channelFrame(6, 2, 5, 0);
    QTest::newRow("timeSub 0 in a block") << QList<FrameSpec>{zeroSub} << QList<int>{85};

    QList<FrameSpec> eight;
    QList<int> eightLengths;
    for (int g = 0; g < 8; ++g) {
        FrameSpec f = RdvTest::channelFrame(qint8(g), quint16(100 * (g + 1)));
        f.channel.nibbles = quint8(g * 0x21);
        eight << f;
        eightLengths << 77 + 400 * (g + 1);
    }
    QTest::newRow("eight groups, nibbles split") << eight << eightLengths;
}

void TestRdvPacket::channelMap()
{
    QFETCH(QList<FrameSpec>, frames);
    QFETCH(QList<int>, blockLengths);

    QList<QByteArray> storage;
    RdvChannelMap map;
    // Insert in reverse to show the packet follows the key order, not insertion.
    for (int i = frames.size() - 1; i >= 0; --i) {
        storage << RdvTest::encodeFrame(frames.at(i));
        map.insert(qint8(frames.at(i).byte16), reinterpret_cast<RdvChannelFrame *>(storage.last().data()));
    }

    bool oversize = true;
    const QByteArray packet = Rdv::buildPacket(map, &oversize);
    QVERIFY(!oversize);
    QCOMPARE(packet, RdvTest::expectedChannelPacket(frames));

    // Walk the sub-blocks by their own length words.
    int pos = 0;
    for (int len : blockLengths) {
        QVERIFY(pos + 2 <= packet.size());
        QCOMPARE(int(u16At(packet, pos)), len);
        QCOMPARE(u16At(packet, pos + 2), quint16(5));
        QCOMPARE(u16At(packet, pos + 4), quint16(3));
        QCOMPARE(u16At(packet, pos + 6), quint16(2));
        QCOMPARE(u16At(packet, pos + 8), quint16(6));
        pos += len;
    }
    QCOMPARE(pos, packet.size());
}

void TestRdvPacket::largestChannelBlockFitsLengthWord()
{
    // 77 + 4 x 13000 = 52077: with the count capped, a sub-block can never
    // outgrow its 16-bit length word, so the oversize report stays quiet.
    const FrameSpec f = RdvTest::channelFrame(0, 13000);
    QByteArray bytes = RdvTest::encodeFrame(f);
    RdvChannelMap map;
    map.insert(0, reinterpret_cast<RdvChannelFrame *>(bytes.data()));
    bool oversize = true;
    const QByteArray packet = Rdv::buildPacket(map, &oversize);
    QVERIFY(!oversize);
    QCOMPARE(packet.size(), 52077);
    QCOMPARE(int(u16At(packet, 0)), 52077);
    QCOMPARE(packet, RdvTest::expectedChannelBlock(f));
}

QTEST_GUILESS_MAIN(TestRdvPacket)
#include "tst_korb_rdv_packet.moc"
