// The packet as clients read it: the relay builds packets from frames, and both readers, its own and the
// viewer page's (under node), must find every field the frame put there; on bytes that are no packet, both
// must stop at the same fault.
#include "src/korb_rdv_decoder.h"
#include "src/korb_rdv_packet.h"
#include "support/rdv_test_encoder.h"

#include <QtTest>

#include <cmath>

using namespace RdvTest;

namespace {
QJsonObject decodedByViewer(const QString &node, const QByteArray &packet)
{
    QProcess p;
    p.start(node, {KORB_SOURCE_DIR "/tests/support/decode_packet.js",
                   KORB_SOURCE_DIR "/tools/viewer/rdv_decoder.js"});
    p.write(packet.toBase64());
    p.closeWriteChannel();
    if (!p.waitForFinished(20000) || p.exitCode() != 0)
        return QJsonObject{{"failed", QString::fromUtf8(p.readAllStandardError())}};
    return QJsonDocument::fromJson(p.readAllStandardOutput()).object();
}

// A number as the driver prints it: JSON's own, or "Infinity", "-Infinity", "NaN".
double number(const QJsonValue &v)
{
    if (!v.isString())
        return v.toDouble();
    const QString s = v.toString();
    return s == "NaN" ? qQNaN() : s.startsWith('-') ? -qInf() : qInf();
}

bool same(double a, double b)
{
    return a == b || (std::isnan(a) && std::isnan(b));
}

// Bytes that are no longer quite the packet: "cut N" keeps the first N bytes (N < 0: all but the last -N),
// "add N" appends N zero bytes, "word O V" sets the 16-bit word at O, "then P" appends the packet P.
QByteArray altered(QByteArray packet, const QString &how, const QByteArray &then)
{
    const QStringList w = how.split(' ');
    if (w[0] == "cut")
        packet = w[1].toInt() < 0 ? packet.chopped(-w[1].toInt()) : packet.left(w[1].toInt());
    else if (w[0] == "add")
        packet += QByteArray(w[1].toInt(), '\0');
    else if (w[0] == "word")
        qToLittleEndian<quint16>(quint16(w[2].toInt()), packet.data() + w[1].toInt());
    else if (w[0] == "then")
        packet += then;
    return packet;
}
} // namespace

class tst_KorbRdvPacket : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        m_node = QStandardPaths::findExecutable("node");
        if (m_node.isEmpty())
            QSKIP("node is not installed (make deps installs it): the viewer's decoder cannot run");
    }

    void readersAgree_data()
    {
        QTest::addColumn<QList<FrameSpec>>("frames"); // one: a single-frame packet; more: a channel map
        QTest::addColumn<QString>("alteration");      // none: the packet as built
        QTest::addColumn<int>("faultAt");             // -1: a packet
        FrameSpec kind3 = single(0, 10), over = single(0, 13001), bad = channel(2, 0),
                  flags = single(1500, 3), kind2 = channel(3, 4, 6);
        bad.magic = 0, kind3.kind = 3, over.samples = 0, flags.byte16 = 0x0B, kind2.kind = 2;
        using L = QList<FrameSpec>;
        const L three{channel(-128, 0, 1), channel(0, 4, 0), channel(127, 8, 13000)};
        // clang-format off
        QTest::newRow("single frame, flag bits, every field") << L{flags} << "" << -1;
        QTest::newRow("single frame, no samples, infinite rate") << L{single(0, 0)} << "" << -1;
        QTest::newRow("single frame, 13000 samples: the length word wraps") << L{single(4, 13000)} << "" << -1;
        QTest::newRow("single frame, 13001 samples: header only, the count kept") << L{over} << "" << -1;
        QTest::newRow("single frame of kind 3: header only") << L{kind3} << "" << -1;
        QTest::newRow("channel map: signed groups, an empty group, 13000 samples") << three << "" << -1;
        QTest::newRow("channel map: a wrong magic or kind 2 gives a bare sub-block") << L{channel(1, 0, 5), bad, kind2} << "" << -1;
        QTest::newRow("single frame cut in its header") << L{single(0)} << "cut 70" << 0;
        QTest::newRow("single frame cut in a sample") << L{single(0, 4)} << "cut 90" << 71;
        QTest::newRow("single frame with bytes after it") << L{single(0, 2)} << "add 3" << 87;
        QTest::newRow("unknown layout words") << L{single(0, 1)} << "word 6 9" << 2;
        QTest::newRow("single length word disagrees") << L{single(0, 1)} << "word 0 71" << 0;
        QTest::newRow("channel length word fits nothing") << L{channel(5, 0, 3)} << "word 0 90" << 0;
        QTest::newRow("channel map cut in its second header") << L{channel(1, 0, 5), channel(2, 0, 0)} << "cut -37" << 97;
        QTest::newRow("channel map cut in its second payload") << L{channel(1, 0, 5), channel(2, 0, 5)} << "cut -1" << 174;
        QTest::newRow("channel map with four stray bytes") << L{channel(1, 0, 5)} << "add 4" << 97;
        QTest::newRow("single frame after a channel sub-block") << L{channel(1, 0, 5)} << "then single" << 97;
        // clang-format on
    }

    void readersAgree()
    {
        QFETCH(QList<FrameSpec>, frames);
        QFETCH(QString, alteration);
        QFETCH(int, faultAt);
        QByteArrayList bytes;
        RdvChannelMap map;
        for (const FrameSpec &s : frames)
            map.insert(qint8(s.byte16),
                       reinterpret_cast<RdvChannelFrame *>((bytes << frame(s)).last().data()));
        const bool inMap = frames.size() > 1 || frames[0].kind == 1;
        const QByteArray built =
            !inMap ? Rdv::buildPacket(reinterpret_cast<const RdvFrame *>(bytes[0].constData()))
                   : Rdv::buildPacket(map);
        const QByteArray packet =
            altered(built, alteration,
                    Rdv::buildPacket(reinterpret_cast<const RdvFrame *>(frame(single(0)).constData())));
        const RdvDecoded ours = KorbRdvDecoder::decode(packet);
        const QJsonObject theirs = decodedByViewer(m_node, packet);
        QVERIFY2(!theirs.contains("failed"), qPrintable(theirs.value("failed").toString()));
        const QJsonArray blocks = theirs.value("blocks").toArray();

        // The same verdict, at the same byte, for the same reason.
        QCOMPARE(ours.ok, faultAt < 0);
        QCOMPARE(theirs.value("ok").toBool(), ours.ok);
        QCOMPARE(ours.errorOffset, faultAt);
        QCOMPARE(theirs.value("error").toObject().value("offset").toInt(-1), faultAt);
        QCOMPARE(theirs.value("error").toObject().value("message").toString(), ours.error);
        QCOMPARE(blocks.size(), ours.blocks.size());

        for (int i = 0; i < ours.blocks.size(); ++i) {
            const RdvBlock &b = ours.blocks[i];
            const QJsonObject js = blocks[i].toObject();
            QCOMPARE(js.value("offset").toInt(), b.offset);
            QCOMPARE(js.value("size").toInt(), b.size);
            QCOMPARE(js.value("hasPayload").toBool(), b.hasPayload);
            QCOMPARE(number(js.value("lengthWord")), b[Rdv::Field::LengthWord]);
            // Every field of the frame, where both readers find it.
            for (const PacketFieldValue &v : packetFields(bytes[i], inMap)) {
                const Rdv::Field field = fieldOf(b, v.name);
                QVERIFY2(field != Rdv::Field::Tag, v.name);
                QVERIFY2(same(b[field], v.value) && same(number(js.value(v.name)), v.value),
                         qPrintable(QStringLiteral("%1: frame %2, ours %3, viewer's %4")
                                        .arg(v.name, QString::number(v.value), QString::number(b[field]),
                                             js.value(v.name).toVariant().toString())));
            }
            QList<qint32> values;
            for (const QJsonValue &v : js.value("values").toArray())
                values << v.toInt();
            QCOMPARE(values, sampleValues(bytes[i], inMap));
            QCOMPARE(QList<qint32>(b.values.begin(), b.values.end()), values);
        }
    }

private:
    static Rdv::Field fieldOf(const RdvBlock &b, const char *name)
    {
        for (int i = 0; i < b.layout->fieldCount; ++i)
            if (qstrcmp(Rdv::fieldName(b.layout->fields[i].field), name) == 0)
                return b.layout->fields[i].field;
        return Rdv::Field::Tag; // no such field
    }

    QString m_node;
};

QTEST_GUILESS_MAIN(tst_KorbRdvPacket)
#include "tst_korb_rdv_packet.moc"
