// The packet decoder's verdicts against an independent encoder, and the
// command-line client (whose output shows the decoded fields) against a
// scripted stand-in relay and against the real relay.

#include "src/korb_rdv_decoder.h"
#include "support/view_fake_relay.h"
#include "support/view_rdv_encoder.h"
#include "support/view_relay.h"

#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

namespace {

struct ClientRun
{
    int exitCode = -1;
    QString out;
    QString err;
};

ClientRun runClient(const QStringList &args)
{
    QProcess p;
    p.start(QStringLiteral(KORB_TOOLS_BIN_DIR "/korb_rdv_client"), args);
    ClientRun r;
    if (!p.waitForStarted(5000))
        return r;
    // Keep the event loop turning: a stand-in relay of this process serves the client.
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

// Fails unless every pattern matches some line of `text`.
bool matchesAll(const QString &text, const QStringList &patterns, QString *missing)
{
    for (const QString &p : patterns) {
        if (!text.contains(QRegularExpression(p, QRegularExpression::MultilineOption))) {
            *missing = QStringLiteral("no /%1/ in:\n%2").arg(p, text);
            return false;
        }
    }
    return true;
}

QByteArray singlePacket(int samples)
{
    return ViewRdvEncoder::block(ViewRdvEncoder::single(samples));
}

ViewBlockSpec with(ViewBlockSpec b, void (*change)(ViewBlockSpec &))
{
    change(b);
    return b;
}

} // namespace

class TestKorbRdvClient : public QObject
{
    Q_OBJECT
private slots:
    void decodeOutcome_data();
    void decodeOutcome();
    void clientAgainstStandIn_data();
    void clientAgainstStandIn();
    void clientWritesCsv();
    void clientAgainstRelay();
};

void TestKorbRdvClient::decodeOutcome_data()
{
    QTest::addColumn<QByteArray>("packet");
    QTest::addColumn<QVector<int>>("sampleCounts"); // per decoded block
    QTest::addColumn<QVector<int>>("valueCounts");  // decoded values per block
    QTest::addColumn<int>("errorOffset");           // -1: decodes without fault
    QTest::addColumn<QString>("errorText");

    using V = QVector<int>;
    using E = ViewRdvEncoder;
    const QByteArray ch3 = E::block(E::channel(3, 5));
    QByteArray badWords = singlePacket(1);
    badWords[6] = 9;

    // The relay drops the payload of an oversize or untrusted frame but keeps its count.
    QTest::newRow("single frame, count above limit, header only")
        << E::block(with(E::single(0), [](ViewBlockSpec &b) { b.sampleCount = 13001; })) << V{13001} << V{0}
        << -1 << QString();
    QTest::newRow("single frame, 13000 samples, length word wraps")
        << singlePacket(13000) << V{13000} << V{26000} << -1 << QString();
    QTest::newRow("channel packet, three sub-blocks, one bare")
        << E::channelPacket({E::channel(1, 2), E::channel(-2, 0), E::channel(7, 13000)}) << V{2, 0, 13000}
        << V{4, 0, 26000} << -1 << QString();
    QTest::newRow("channel packet, header-only sub-blocks with counts")
        << E::channelPacket({with(E::channel(9, 0), [](ViewBlockSpec &b) { b.sampleCount = 60000; }),
                             with(E::channel(4, 0), [](ViewBlockSpec &b) { b.sampleCount = 12; })})
        << V{60000, 12} << V{0, 0} << -1 << QString();

    QTest::newRow("empty message") << QByteArray() << V{} << V{} << 0 << "empty";
    QTest::newRow("single frame cut inside the header")
        << singlePacket(2).left(70) << V{} << V{} << 0 << "truncated header";
    QTest::newRow("single frame cut inside a sample")
        << singlePacket(4).left(71 + 8 * 2 + 3) << V{} << V{} << 71 << "truncated payload";
    QTest::newRow("single frame with trailing bytes")
        << singlePacket(2) + QByteArray(3, 'x') << V{} << V{} << 71 + 16 << "after the end";
    QTest::newRow("channel packet cut in the second header")
        << (ch3 + E::block(E::channel(-2, 0))).left(ch3.size() + 40) << V{5} << V{10} << ch3.size()
        << "truncated header";
    QTest::newRow("channel packet cut in the second payload")
        << (ch3 + ch3).left(2 * ch3.size() - 1) << V{5} << V{10} << ch3.size() + 77 << "truncated payload";
    QTest::newRow("channel packet, four stray bytes at the end")
        << ch3 + QByteArray(4, '\0') << V{5} << V{10} << ch3.size() << "layout words";
    QTest::newRow("unknown layout words") << badWords << V{} << V{} << 2 << "unknown layout";
    QTest::newRow("channel length word fits nothing")
        << E::block(with(E::channel(5, 3), [](ViewBlockSpec &b) { b.lengthOverride = 90; })) << V{} << V{}
        << 0 << "length word 90";
    QTest::newRow("single length word disagrees with the size")
        << E::block(with(E::single(1), [](ViewBlockSpec &b) { b.lengthOverride = 71; })) << V{} << V{} << 0
        << "does not match";
    QTest::newRow("single frame after a channel sub-block")
        << ch3 + singlePacket(0) << V{5} << V{10} << ch3.size() << "inside a channel";
}

void TestKorbRdvClient::decodeOutcome()
{
    QFETCH(QByteArray, packet);
    QFETCH(QVector<int>, sampleCounts);
    QFETCH(QVector<int>, valueCounts);
    QFETCH(int, errorOffset);
    QFETCH(QString, errorText);

    const RdvDecoded d = KorbRdvDecoder::decode(packet);
    QCOMPARE(d.ok, errorOffset < 0);
    QCOMPARE(d.errorOffset, errorOffset);
    QVERIFY2(d.error.contains(errorText), qPrintable(d.error));
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
    if (d.ok)
        QCOMPARE(offset, packet.size());
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
    QString missing;
    QVERIFY2(matchesAll(r.out, outPatterns, &missing), qPrintable(missing));
    QVERIFY2(matchesAll(r.err, errPatterns, &missing), qPrintable(missing));
}

void TestKorbRdvClient::clientWritesCsv()
{
    const ViewBlockSpec single = ViewRdvEncoder::single(2, 1500);
    const ViewBlockSpec ch = ViewRdvEncoder::channel(6, 3, 2500);
    ViewFakeRelay relay({ViewRdvEncoder::block(single), ViewRdvEncoder::block(ch)});
    QVERIFY(relay.listen());
    QTemporaryDir dir;
    const QString csv = dir.filePath("samples.csv");

    QCOMPARE(runClient({relay.url(), "--count", "2", "--csv", csv, "--timeout", "20"}).exitCode, 0);
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
    QCOMPARE(r.err, QString());
    // Every group of the recording is summarised at least once.
    QStringList patterns{"^reply: ims:100 OK$", "^40 packets, 0 malformed, 1 replies$"};
    for (const int g : relay.recordingGroups())
        patterns << QStringLiteral(R"(group +%1 +\d+ pk/s +\d+ samples  t=\d+ ms)").arg(g);
    if (relay.recordingHasSingleFrames())
        patterns << R"(single +\d+ pk/s)";
    QVERIFY2(matchesAll(r.out, patterns, &why), qPrintable(why));
}

QTEST_GUILESS_MAIN(TestKorbRdvClient)
#include "tst_korb_rdv_client.moc"
