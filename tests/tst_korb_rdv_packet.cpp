// Byte-exact Rdv packets against the test-local encoder, plus the length words,
// time stamp and rate read by hand where the encoder could share a mistake.

#include "src/korb_rdv_packet.h"
#include "support/rdv_test_encoder.h"

#include <QtEndian>
#include <QtTest>

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

int u16At(const QByteArray &b, int offset)
{
    return qFromLittleEndian<quint16>(b.constData() + offset);
}

FrameSpec with(FrameSpec f, void (*change)(FrameSpec &))
{
    change(f);
    return f;
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
    void channelMap_data();
    void channelMap();
    void newestStamp_data();
    void newestStamp();
};

void TestRdvPacket::singleFrame_data()
{
    QTest::addColumn<FrameSpec>("fs");
    QTest::addColumn<int>("expectedSize");
    QTest::addColumn<int>("expectedLengthWord");

    QTest::newRow("no samples: 71 bytes, length 0x0047") << RdvTest::singleFrame(0) << 71 << 71;
    QTest::newRow("13000 samples: length word 38535") << RdvTest::singleFrame(13000) << 104071 << 38535;
    // The daemon must not look behind the header of an oversize frame.
    QTest::newRow("13001 samples: header only")
        << with(RdvTest::singleFrame(13001), [](FrameSpec &f) { f.payloadSamples = 0; }) << 71 << 71;
    QTest::newRow("bad magic: header only")
        << with(RdvTest::singleFrame(100), [](FrameSpec &f) { f.magic = 0x12345679; }) << 71 << 71;
    QTest::newRow("frame type 1 in the single form: header only")
        << with(RdvTest::singleFrame(100),
                [](FrameSpec &f) {
                    f.kind = 1;
                    f.layout = RdvTest::Layout::Single;
                })
        << 71 << 71;
    QTest::newRow("frame type 3: header only, type copied")
        << with(RdvTest::singleFrame(10), [](FrameSpec &f) { f.kind = 3; }) << 71 << 71;
    // With the default 0x0A every flag bit is seen both set and clear; high bits are dropped.
    QTest::newRow("flag byte 0xF5") << with(RdvTest::singleFrame(2), [](FrameSpec &f) { f.byte16 = 0xF5; })
                                    << 87 << 87;
    QTest::newRow("extreme header values") << with(RdvTest::singleFrame(3), [](FrameSpec &f) {
        f.word5 = -32768;
        f.single.word44 = 32767;
        f.single.word46 = -1;
        f.single.intA = INT_MIN;
        f.single.intB = INT_MAX;
        f.single.counterB = ~quint64(0);
        f.single.floatA = -1.5e38f;
    }) << 95 << 95;
}

void TestRdvPacket::singleFrame()
{
    QFETCH(FrameSpec, fs);
    QFETCH(int, expectedSize);
    QFETCH(int, expectedLengthWord);

    const QByteArray frame = RdvTest::encodeFrame(fs);
    const QByteArray packet = Rdv::buildPacket(reinterpret_cast<const RdvFrame *>(frame.constData()));
    QCOMPARE(packet.size(), expectedSize);
    QCOMPARE(u16At(packet, 0), expectedLengthWord);
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
    QTest::newRow("timeSub 0: rate +inf")
        << 1700000000u << 0u << 1700000000000.0 << std::numeric_limits<double>::infinity();
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

    const QByteArray single = RdvTest::encodeFrame(RdvTest::singleFrame(1, sec, sub));
    const QByteArray packet = Rdv::buildPacket(reinterpret_cast<const RdvFrame *>(single.constData()));
    QCOMPARE(f64At(packet, 31), timeMs);
    QCOMPARE(f64At(packet, 39), rate);

    QByteArray channel = RdvTest::encodeFrame(RdvTest::channelFrame(2, 1, sec, sub));
    RdvChannelMap map;
    map.insert(2, reinterpret_cast<RdvChannelFrame *>(channel.data()));
    const QByteArray block = Rdv::buildPacket(map);
    QCOMPARE(f64At(block, 29), timeMs);
    QCOMPARE(f64At(block, 37), rate);
}

void TestRdvPacket::channelMap_data()
{
    QTest::addColumn<QList<FrameSpec>>("frames"); // listed in ascending group order
    QTest::addColumn<QList<int>>("blockLengths");

    QTest::newRow("empty map: empty packet") << QList<FrameSpec>() << QList<int>();
    QTest::newRow("two groups without samples: 77 each")
        << QList<FrameSpec>{RdvTest::channelFrame(1, 0), RdvTest::channelFrame(3, 0)} << QList<int>{77, 77};
    QTest::newRow("groups -128, -1, 5, 127 in signed order")
        << QList<FrameSpec>{RdvTest::channelFrame(-128, 1), RdvTest::channelFrame(-1, 3),
                            RdvTest::channelFrame(5, 250), RdvTest::channelFrame(127, 1)}
        << QList<int>{81, 89, 1077, 81};
    QTest::newRow("13000 samples: 52077 still fits the length word")
        << QList<FrameSpec>{RdvTest::channelFrame(0, 13000)} << QList<int>{52077};
    QTest::newRow("bad magic in one group: that block header only")
        << QList<FrameSpec>{RdvTest::channelFrame(2, 10),
                            with(RdvTest::channelFrame(4, 10), [](FrameSpec &f) { f.magic = 0; })}
        << QList<int>{117, 77};
    // 8-byte samples as the kind says; still not copied.
    QTest::newRow("frame type 2 in the channel form: header only")
        << QList<FrameSpec>{with(RdvTest::channelFrame(1, 10),
                                 [](FrameSpec &f) {
                                     f.kind = 2;
                                     f.layout = RdvTest::Layout::Channel;
                                     f.payloadSamples = 20;
                                 })}
        << QList<int>{77};
    QTest::newRow("13001 samples: header only")
        << QList<FrameSpec>{with(RdvTest::channelFrame(1, 13001), [](FrameSpec &f) { f.payloadSamples = 0; })}
        << QList<int>{77};
}

void TestRdvPacket::channelMap()
{
    QFETCH(QList<FrameSpec>, frames);
    QFETCH(QList<int>, blockLengths);

    QList<QByteArray> storage;
    RdvChannelMap map;
    // Inserted in reverse: the packet must follow the key order, not insertion.
    for (int i = frames.size() - 1; i >= 0; --i) {
        storage << RdvTest::encodeFrame(frames.at(i));
        map.insert(qint8(frames.at(i).byte16), reinterpret_cast<RdvChannelFrame *>(storage.last().data()));
    }
    bool oversize = true;
    const QByteArray packet = Rdv::buildPacket(map, &oversize);
    QVERIFY(!oversize);
    QCOMPARE(packet, RdvTest::expectedChannelPacket(frames));

    // Walk the sub-blocks by their own length words and layout words 5, 3, 2, 6.
    int pos = 0;
    for (int len : blockLengths) {
        QCOMPARE(u16At(packet, pos), len);
        QCOMPARE(packet.mid(pos + 2, 8), QByteArray::fromHex("0500030002000600"));
        pos += len;
    }
    QCOMPARE(pos, packet.size());
}

// What an edge relay reads from a packet it did not build.
void TestRdvPacket::newestStamp_data()
{
    QTest::addColumn<QByteArray>("packet");
    QTest::addColumn<bool>("ok");
    QTest::addColumn<quint64>("ms");

    const QByteArray channels = RdvTest::expectedChannelPacket({RdvTest::channelFrame(1, 3, 10, 0),
                                                                RdvTest::channelFrame(2, 300, 12, 5000000),
                                                                RdvTest::channelFrame(3, 3, 11, 0)});
    QTest::newRow("single frame") << RdvTest::expectedSinglePacket(RdvTest::singleFrame(10, 5, 250000000))
                                  << true << quint64(5250);
    QTest::newRow("13000 samples: the length word wrapped")
        << RdvTest::expectedSinglePacket(RdvTest::singleFrame(13000, 7, 0)) << true << quint64(7000);
    QTest::newRow("channel packet: the newest of its groups") << channels << true << quint64(12005);
    QTest::newRow("channel packet cut inside a sub-block") << channels.chopped(1) << false << quint64(0);
    QTest::newRow("single frame cut inside its header")
        << RdvTest::expectedSinglePacket(RdvTest::singleFrame(0)).left(40) << false << quint64(0);
    QTest::newRow("unknown layout words") << QByteArray(100, 'x') << false << quint64(0);
    QTest::newRow("empty") << QByteArray() << false << quint64(0);
}

void TestRdvPacket::newestStamp()
{
    QFETCH(QByteArray, packet);
    QFETCH(bool, ok);
    QFETCH(quint64, ms);
    quint64 stamp = 0;
    QCOMPARE(Rdv::packetTimeMs(packet, &stamp), ok);
    if (ok)
        QCOMPARE(stamp, ms);
}

QTEST_GUILESS_MAIN(TestRdvPacket)
#include "tst_korb_rdv_packet.moc"
