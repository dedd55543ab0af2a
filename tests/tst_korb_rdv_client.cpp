// The packet decoder against an independent encoder, and the command-line
// client against a scripted stand-in relay and against the real relay in
// playback mode.

#include "src/korb_rdv_decoder.h"
#include "support/view_fake_relay.h"
#include "support/view_rdv_encoder.h"
#include "support/view_relay.h"

#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <cmath>

using Blocks = QVector<ViewBlockSpec>;
Q_DECLARE_METATYPE(Blocks)

namespace {

const QString ClientBin = QStringLiteral(KORB_TOOLS_BIN_DIR "/korb_rdv_client");

struct ClientRun
{
    int exitCode = -1;
    QString out;
    QString err;
};

ClientRun runClient(const QStringList &args)
{
    QProcess p;
    p.start(ClientBin, args);
    ClientRun r;
    if (!p.waitForStarted(5000))
        return r;
    // The event loop must keep turning while the client runs: a stand-in
    // relay of this process serves it.
    QDeadlineTimer deadline(30000);
    while (p.state() != QProcess::NotRunning && !deadline.hasExpired())
        QTest::qWait(20);
    if (p.state() != QProcess::NotRunning) {
        p.kill();
        p.waitForFinished();
    }
    r.exitCode = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    r.out = QString::fromUtf8(p.readAllStandardOutput());
    r.err = QString::fromUtf8(p.readAllStandardError());
    return r;
}

QByteArray singlePacket(int samples)
{
    return ViewRdvEncoder::block(ViewRdvEncoder::single(samples));
}

} // namespace

class TestKorbRdvClient : public QObject
{
    Q_OBJECT
private slots:
    void decodeOutcome_data();
    void decodeOutcome();
    void decodeFields_data();
    void decodeFields();
    void clientAgainstStandIn_data();
    void clientAgainstStandIn();
    void clientWritesCsv();
    void clientAgainstRelay();
};

void TestKorbRdvClient::decodeOutcome_data()
{
    QTest::addColumn<QByteArray>("packet");
    QTest::addColumn<bool>("ok");
    QTest::addColumn<QVector<int>>("sampleCounts"); // per decoded block
    QTest::addColumn<QVector<int>>("valueCounts");  // decoded values per block
    QTest::addColumn<int>("errorOffset");
    QTest::addColumn<QString>("errorText");

    using V = QVector<int>;
    const QByteArray ch3 = ViewRdvEncoder::block(ViewRdvEncoder::channel(3, 5));
    const QByteArray chBare = ViewRdvEncoder::block(ViewRdvEncoder::channel(-2, 0));
    ViewBlockSpec bigCount = ViewRdvEncoder::single(0);
    bigCount.sampleCount = 13001; // the relay drops the payload but keeps the count
    ViewBlockSpec chBigCount = ViewRdvEncoder::channel(9, 0);
    chBigCount.sampleCount = 60000;
    ViewBlockSpec untrusted = ViewRdvEncoder::channel(4, 0);
    untrusted.sampleCount = 12; // bad magic upstream: count kept, no payload

    QTest::newRow("single frame, 3 samples") << singlePacket(3) << true << V{3} << V{6} << -1 << QString();
    QTest::newRow("single frame, header only") << singlePacket(0) << true << V{0} << V{0} << -1 << QString();
    QTest::newRow("single frame, count above limit, header only")
        << ViewRdvEncoder::block(bigCount) << true << V{13001} << V{0} << -1 << QString();
    QTest::newRow("single frame, 13000 samples, length word wraps")
        << singlePacket(13000) << true << V{13000} << V{26000} << -1 << QString();
    QTest::newRow("channel packet, one group") << ch3 << true << V{5} << V{10} << -1 << QString();
    QTest::newRow("channel packet, three sub-blocks, one bare")
        << ViewRdvEncoder::channelPacket({ViewRdvEncoder::channel(1, 2), ViewRdvEncoder::channel(-2, 0),
                                          ViewRdvEncoder::channel(7, 13000)})
        << true << V{2, 0, 13000} << V{4, 0, 26000} << -1 << QString();
    QTest::newRow("channel packet, header-only sub-blocks with counts")
        << ViewRdvEncoder::channelPacket({chBigCount, untrusted}) << true << V{60000, 12} << V{0, 0} << -1
        << QString();

    QTest::newRow("empty message") << QByteArray() << false << V{} << V{} << 0 << QStringLiteral("empty");
    QTest::newRow("five bytes") << singlePacket(0).left(5) << false << V{} << V{} << 0
                                << QStringLiteral("layout words");
    QTest::newRow("single frame cut inside the header")
        << singlePacket(2).left(70) << false << V{} << V{} << 0 << QStringLiteral("truncated header");
    QTest::newRow("single frame cut inside a sample") << singlePacket(4).left(71 + 8 * 2 + 3) << false << V{}
                                                      << V{} << 71 << QStringLiteral("truncated payload");
    QTest::newRow("single frame with trailing bytes") << singlePacket(2) + QByteArray(3, 'x') << false << V{}
                                                      << V{} << 71 + 16 << QStringLiteral("after the end");
    QTest::newRow("channel packet cut in the second header")
        << (ch3 + chBare).left(ch3.size() + 40) << false << V{5} << V{10} << ch3.size()
        << QStringLiteral("truncated header");
    QTest::newRow("channel packet cut in the second payload")
        << (ch3 + ch3).left(2 * ch3.size() - 1) << false << V{5} << V{10} << ch3.size() + 77
        << QStringLiteral("truncated payload");
    QTest::newRow("channel packet, four stray bytes at the end")
        << ch3 + QByteArray(4, '\0') << false << V{5} << V{10} << ch3.size()
        << QStringLiteral("layout words");
    QByteArray badWords = singlePacket(1);
    badWords[6] = 9;
    QTest::newRow("unknown layout words")
        << badWords << false << V{} << V{} << 2 << QStringLiteral("unknown layout");
    ViewBlockSpec badLen = ViewRdvEncoder::channel(5, 3);
    badLen.lengthOverride = 90;
    QTest::newRow("channel length word fits nothing")
        << ViewRdvEncoder::block(badLen) << false << V{} << V{} << 0 << QStringLiteral("length word 90");
    ViewBlockSpec badSingleLen = ViewRdvEncoder::single(1);
    badSingleLen.lengthOverride = 71;
    QTest::newRow("single length word disagrees with the size")
        << ViewRdvEncoder::block(badSingleLen) << false << V{} << V{} << 0
        << QStringLiteral("does not match");
    QTest::newRow("single frame after a channel sub-block")
        << ch3 + singlePacket(0) << false << V{5} << V{10} << ch3.size()
        << QStringLiteral("inside a channel");
}

void TestKorbRdvClient::decodeOutcome()
{
    QFETCH(QByteArray, packet);
    QFETCH(bool, ok);
    QFETCH(QVector<int>, sampleCounts);
    QFETCH(QVector<int>, valueCounts);
    QFETCH(int, errorOffset);
    QFETCH(QString, errorText);

    const RdvDecoded d = KorbRdvDecoder::decode(packet);
    QCOMPARE(d.ok, ok);
    QCOMPARE(d.blocks.size(), sampleCounts.size());
    int offset = 0;
    for (int i = 0; i < d.blocks.size(); ++i) {
        const RdvBlock &b = d.blocks.at(i);
        QCOMPARE(int(b.sampleCount), sampleCounts.at(i));
        QCOMPARE(b.values.size(), valueCounts.at(i));
        QCOMPARE(b.hasPayload, valueCounts.at(i) > 0);
        QCOMPARE(b.offset, offset);
        QCOMPARE(b.lengthWord, quint16(b.size));
        offset += b.size;
    }
    if (ok) {
        QCOMPARE(offset, packet.size());
        QCOMPARE(d.errorOffset, -1);
    } else {
        QCOMPARE(d.errorOffset, errorOffset);
        QVERIFY2(d.error.contains(errorText), qPrintable(d.error));
    }
}

void TestKorbRdvClient::decodeFields_data()
{
    QTest::addColumn<Blocks>("specs");

    ViewBlockSpec infRate = ViewRdvEncoder::single(2, 1700000000123.0);
    infRate.rate = INFINITY; // a zero sub-second divisor upstream
    QTest::newRow("single frame, every field") << Blocks{ViewRdvEncoder::single(5)};
    QTest::newRow("single frame, infinite rate, large time") << Blocks{infRate};
    QTest::newRow("channel sub-blocks, negative group and extreme samples") << Blocks{
        ViewRdvEncoder::channel(-128, 3), ViewRdvEncoder::channel(127, 1), ViewRdvEncoder::channel(0, 0)};
}

void TestKorbRdvClient::decodeFields()
{
    QFETCH(Blocks, specs);
    // Extreme sample values make sign and width mistakes visible.
    if (specs.first().channel) {
        specs[0].values[0] = -32768;
        specs[0].values[1] = 32767;
    } else {
        specs[0].values[0] = std::numeric_limits<qint32>::min();
        specs[0].values[3] = std::numeric_limits<qint32>::max();
    }
    const QByteArray packet =
        specs.first().channel ? ViewRdvEncoder::channelPacket(specs) : ViewRdvEncoder::block(specs.first());
    const RdvDecoded d = KorbRdvDecoder::decode(packet);
    QVERIFY2(d.ok, qPrintable(d.error));
    QCOMPARE(d.blocks.size(), specs.size());
    for (int i = 0; i < specs.size(); ++i) {
        const ViewBlockSpec &s = specs.at(i);
        const RdvBlock &b = d.blocks.at(i);
        QCOMPARE(b.layout, s.channel ? RdvBlock::Channel : RdvBlock::Single);
        QCOMPARE(b.frameType, s.frameType);
        if (s.channel) {
            QCOMPARE(b.nibbleLow, s.small[0]);
            QCOMPARE(b.nibbleHigh, s.small[1]);
            QCOMPARE(b.group, s.small[2]);
            QCOMPARE(b.byte7, s.small[3]);
            QCOMPARE(b.word20, s.wordA);
            QCOMPARE(b.floatB, s.floatB);
        } else {
            QCOMPARE(b.flagBit1, s.small[0]);
            QCOMPARE(b.flagBit2, s.small[1]);
            QCOMPARE(b.flagBit3, s.small[2]);
            QCOMPARE(b.flagBit0, s.small[3]);
            QCOMPARE(b.word44, s.wordA);
            QCOMPARE(b.word46, s.wordB);
        }
        QCOMPARE(b.sampleCount, s.sampleCount);
        QCOMPARE(b.word5, s.word5);
        QCOMPARE(b.intA, s.intA);
        QCOMPARE(b.intB, s.intB);
        QCOMPARE(b.timeMs, s.timeMs);
        QCOMPARE(b.rate, s.rate);
        QCOMPARE(b.counterA, s.counterA);
        QCOMPARE(b.counterB, s.counterB);
        QCOMPARE(b.floatA, s.floatA);
        QCOMPARE(b.values, s.values);
    }
}

void TestKorbRdvClient::clientAgainstStandIn_data()
{
    QTest::addColumn<QStringList>("args"); // "URL" is replaced by the stand-in's address
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QStringList>("outPatterns");
    QTest::addColumn<QStringList>("errPatterns");

    QTest::newRow("command and packet count")
        << QStringList{"URL", "--cmd", "ims:100", "--count", "8", "--timeout", "20"} << 0
        << QStringList{"^sent: ims:100$",
                       "^reply: ims:100 OK$",
                       R"(group +3 +\d+ pk/s +4 samples  t=2500 ms  min -3000 max 1  rate 333\.333)",
                       R"(group +-2 +\d+ pk/s +0 samples  t=2500 ms  no payload)",
                       R"(single +\d+ pk/s +3 samples  t=1500 ms  min -300000 max 1  rate 2e-06)",
                       "^8 packets, 4 malformed, 1 replies$"}
        << QStringList{R"(^malformed packet #3 \(80 bytes\) at offset 71: truncated payload)",
                       R"(^malformed packet #4 \(5 bytes\) at offset 0: truncated block)"};
    QTest::newRow("command only, exits once answered")
        << QStringList{"URL", "--cmd", "csv:", "--cmd", "ims:20"} << 0
        << QStringList{"^sent: csv:$", "^reply: ims:20 OK$", ", 1 replies$"} << QStringList{};
    QTest::newRow("time limit before the count") << QStringList{"URL", "--count", "100000", "--timeout", "1"}
                                                 << 2 << QStringList{} << QStringList{"^timed out after 1 s"};
    QTest::newRow("nobody listening") << QStringList{"ws://127.0.0.1:1", "--count", "1"} << 1 << QStringList{}
                                      << QStringList{"^connection to ws://127.0.0.1:1 failed"};
    QTest::newRow("not a WebSocket address")
        << QStringList{"http://127.0.0.1:1"} << 1 << QStringList{} << QStringList{"^not a WebSocket address"};
    QTest::newRow("count not a number") << QStringList{"URL", "--count", "x"} << 1 << QStringList{}
                                        << QStringList{"--count needs a positive number"};
}

void TestKorbRdvClient::clientAgainstStandIn()
{
    QFETCH(QStringList, args);
    QFETCH(int, exitCode);
    QFETCH(QStringList, outPatterns);
    QFETCH(QStringList, errPatterns);

    // Per loop: a single frame, a channel packet, a truncated frame, a stub.
    ViewFakeRelay relay({singlePacket(3),
                         ViewRdvEncoder::channelPacket(
                             {ViewRdvEncoder::channel(3, 4, 2500), ViewRdvEncoder::channel(-2, 0, 2500)}),
                         singlePacket(3).left(80), singlePacket(0).left(5)});
    QVERIFY(relay.listen());
    args.replaceInStrings(QRegularExpression("^URL$"), relay.url());

    const ClientRun r = runClient(args);
    QCOMPARE(r.exitCode, exitCode);
    for (const QString &p : outPatterns)
        QVERIFY2(r.out.contains(QRegularExpression(p, QRegularExpression::MultilineOption)),
                 qPrintable(QStringLiteral("no /%1/ in:\n%2").arg(p, r.out)));
    for (const QString &p : errPatterns)
        QVERIFY2(r.err.contains(QRegularExpression(p, QRegularExpression::MultilineOption)),
                 qPrintable(QStringLiteral("no /%1/ in:\n%2").arg(p, r.err)));
}

void TestKorbRdvClient::clientWritesCsv()
{
    const ViewBlockSpec single = ViewRdvEncoder::single(2, 1500);
    const ViewBlockSpec ch = ViewRdvEncoder::channel(6, 3, 2500);
    ViewFakeRelay relay({ViewRdvEncoder::block(single), ViewRdvEncoder::channelPacket({ch})});
    QVERIFY(relay.listen());
    QTemporaryDir dir;
    const QString csv = dir.filePath("samples.csv");

    const ClientRun r = runClient({relay.url(), "--count", "2", "--csv", csv, "--timeout", "20"});
    QCOMPARE(r.exitCode, 0);
    QFile f(csv);
    QVERIFY(f.open(QIODevice::ReadOnly));
    QStringList expected{"packet,block,layout,group,time_ms,sample,value0,value1"};
    for (int s = 0; s < 2; ++s)
        expected << QStringLiteral("1,0,single,,1500,%1,%2,%3")
                        .arg(s)
                        .arg(single.values[2 * s])
                        .arg(single.values[2 * s + 1]);
    for (int s = 0; s < 3; ++s)
        expected << QStringLiteral("2,0,channel,6,2500,%1,%2,%3")
                        .arg(s)
                        .arg(ch.values[2 * s])
                        .arg(ch.values[2 * s + 1]);
    QCOMPARE(QString::fromUtf8(f.readAll()).split('\n', Qt::SkipEmptyParts), expected);
}

void TestKorbRdvClient::clientAgainstRelay()
{
    ViewRelay relay;
    QString why;
    QVERIFY2(relay.start(&why), qPrintable(why));

    const ClientRun r = runClient({relay.url(), "--cmd", "ims:100", "--count", "40", "--timeout", "30"});
    QVERIFY2(r.exitCode == 0, qPrintable(r.out + r.err + QString::fromLocal8Bit(relay.output())));
    QVERIFY2(r.out.contains(QRegularExpression("^reply: ims:100 OK$", QRegularExpression::MultilineOption)),
             qPrintable(r.out));
    QVERIFY2(r.out.contains(QRegularExpression("^40 packets, 0 malformed, 1 replies$",
                                               QRegularExpression::MultilineOption)),
             qPrintable(r.out + r.err));
    QCOMPARE(r.err, QString());
    // Every group of the recording is summarised at least once.
    for (const int g : relay.recordingGroups())
        QVERIFY2(r.out.contains(QRegularExpression(
                     QStringLiteral(R"(group +%1 +\d+ pk/s +\d+ samples  t=\d+ ms)").arg(g))),
                 qPrintable(QStringLiteral("group %1 missing in:\n%2").arg(g).arg(r.out)));
    if (relay.recordingHasSingleFrames())
        QVERIFY2(r.out.contains(QRegularExpression(R"(single +\d+ pk/s)")), qPrintable(r.out));
}

QTEST_GUILESS_MAIN(TestKorbRdvClient)
#include "tst_korb_rdv_client.moc"
