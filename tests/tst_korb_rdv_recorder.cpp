// Continuous recording: a live device's frames into files, byte for byte and each once, rotated and kept
// within the folder's bounds; and the files replayed, a folder in name order within a window of time stamps.
#include "logger/korb_logger_light.h"
#include "src/korb_env.h"
#include "src/korb_rdv_assembly.h"
#include "src/korb_rdv_disk_writer.h"
#include "src/korb_rdv_playback.h"
#include "src/korb_rdv_recorder.h"
#include "src/korb_rdv_server.h"
#include "src/korb_rdv_settings.h"
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
// Full-size channel frames of group 1, `stepMs` apart: 20 fill a file of 1 MiB.
L frames(int n, int stepMs)
{
    L out;
    for (int i = 0; i < n; ++i)
        out << frame(channel(1, stepMs * i, 13000));
    return out;
}

// The recordings in `dir` (the instance's own, in name order), each file's bytes.
L recordings(const QString &dir, const QString &instance)
{
    L out;
    const QDir d(dir);
    for (const QString &name : d.entryList({instance + "_*.rdv"}, QDir::Files, QDir::Name))
        out << readFile(d.filePath(name));
    return out;
}

// Records `sent` through a writer of its own, written out when this returns.
void record(const KorbRdvOptions::Recording &settings, const L &sent)
{
    KorbRdvDiskWriter writer(nullptr);
    KorbRdvRecorder recorder(nullptr, &writer, QStringLiteral("rec"), settings);
    for (const QByteArray &f : sent)
        recorder.take(f.constData(), false);
}
} // namespace

class tst_KorbRdvRecorder : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        Korb::setAppDir(m_tmp.filePath("bin"));
        KorbLoggerLight::instance()->setLogDir(m_tmp.filePath("logs"));
    }

    void cleanup() { Korb::sendIntervalMs = Korb::DefaultSendIntervalMs; }

    // The relay as its options make it: each device frame recorded once, as the accept step took it; gated,
    // only those whose packets went out, though nobody listens.
    void recordsTheDevicesFrames_data()
    {
        QTest::addColumn<bool>("udp"); // frames to both ports in turn, else over TCP
        QTest::addColumn<bool>("gated");
        QTest::addColumn<QList<int>>("recorded"); // of 12 frames 30 ms apart, sent one at a time
        // UDP: a frame completes when the next one opens at its port, so the last two stay open.
        // The rate gate of 50 ms passes every second frame after the first.
        // clang-format off
        QTest::newRow("UDP, the second port's groups 8 higher") << true << false << QList<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
        QTest::newRow("TCP, each frame once though scanned twice") << false << false << QList<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
        QTest::newRow("UDP gated, no client") << true << true << QList<int>{2, 4, 6, 8};
        QTest::newRow("TCP gated, no client") << false << true << QList<int>{2, 4, 6, 8, 10};
        // clang-format on
    }

    void recordsTheDevicesFrames()
    {
        QFETCH(bool, udp);
        QFETCH(bool, gated);
        QFETCH(QList<int>, recorded);
        QTemporaryDir dir;
        const QString ini = dir.filePath("relay.ini");
        QVERIFY(writeFile(ini, gated ? "[record]\ngated=true\n" : "\n"));
        QTcpServer device;
        QUdpSocket datagrams;
        QVERIFY(device.listen(QHostAddress::LocalHost) && datagrams.bind(QHostAddress::LocalHost));
        const quint16 ports[2] = {freePort(true).toUShort(), freePort(true).toUShort()};
        const QString rec = dir.filePath("rec"),
                      addr = "-addr=127.0.0.1:" + QString::number(device.serverPort());
        QStringList options = {"KorbRdv_streamer", "-p", freePort(), "-cfg", ini, "-record=" + rec, addr};
        if (udp)
            options << QStringLiteral("-udp1=%1").arg(ports[0]) << QStringLiteral("-udp2=%1").arg(ports[1]);
        QScopedPointer<KorbRdvStreamer> relay(new KorbRdvStreamer(nullptr, false, options));
        QTRY_VERIFY(udp ? relay->assembly()->udpReceiver() != nullptr : device.hasPendingConnections());
        QTcpSocket *const peer = device.nextPendingConnection();
        L expected;
        for (int i = 0; i < 12; ++i) {
            const int port = udp ? i % 2 : 0;
            FrameSpec s = channel(1, 30 * i);
            const QByteArray sent = frame(s);
            if (udp)
                datagrams.writeDatagram(datagram(quint32(i / 2 + 1), sent), QHostAddress::LocalHost,
                                        ports[port]);
            else
                peer->write(sent + QByteArray(2, '\0'));
            s.byte16 += quint8(8 * port);
            if (recorded.contains(i))
                expected << frame(s);
            QTRY_COMPARE(relay->assembly()->healthFigures().framesAccepted,
                         qint64(udp ? qMax(0, i - 1) : i + 1));
        }
        // Written out without more frames coming.
        QTRY_COMPARE(relay->assembly()->healthFigures().recordBytesWritten, qint64(expected.join().size()));
        const KorbRdvHealth::Figures f = relay->assembly()->healthFigures();
        QVERIFY(f.recordFiles == 1 && f.recordFramesDropped == 0);
        QCOMPARE(recordings(rec, "Korb-RDV2"), L{expected.join()});
    }

    // 100 frames of 52 KB, a file of 1 MiB holds 20: five files. The instance's own files go, oldest first,
    // past total_mb or keep_days; nothing else in the folder is touched.
    void rotationAndBounds_data()
    {
        QTest::addColumn<qint64>("totalMb");
        QTest::addColumn<QList<int>>("kept"); // of the five files
        QTest::newRow("file_mb=1, total_mb=3: the newest three stay") << qint64(3) << QList<int>{2, 3, 4};
        QTest::newRow("keep_days=7: the older file goes") << qint64(10240) << QList<int>{0, 1, 2, 3, 4};
    }

    void rotationAndBounds()
    {
        QFETCH(qint64, totalMb);
        QFETCH(QList<int>, kept);
        QTemporaryDir dir;
        const QStringList others = {"recx_20000101T000000Z.rdv", "other_20000101T000000Z.rdv",
                                    "rec_notes.txt", "rec_20000101T000000Z.rdv.part"};
        for (const QString &name : others + QStringList{"rec_20000101T000000Z.rdv"}) {
            QFile f(dir.filePath(name));
            QVERIFY(
                f.open(QIODevice::WriteOnly) && f.write("x") && f.flush() &&
                f.setFileTime(QDateTime::currentDateTime().addDays(-8), QFileDevice::FileModificationTime));
        }
        const L sent = frames(100, 20);
        record({dir.path(), 1, totalMb, 7, false}, sent);
        L expected;
        for (int file : kept)
            expected << sent.mid(20 * file, 20).join();
        QCOMPARE(recordings(dir.path(), "rec"), expected);
        for (const QString &name : others)
            QVERIFY2(QFile::exists(dir.filePath(name)), qPrintable(name));
    }

    // The stream's queue is a ring: laps through it, frames and writes cut at its end, and the file holds
    // every frame the writer took, in order.
    void queueLapsKeepEveryByte_data()
    {
        QTest::addColumn<qint64>("queueBytes");
        QTest::newRow("two writes and an odd tail") << qint64(2 * KorbRdvDiskWriter::PieceSize + 4097);
        QTest::newRow("three writes less an odd tail") << qint64(3 * KorbRdvDiskWriter::PieceSize - 7919);
    }

    void queueLapsKeepEveryByte()
    {
        QFETCH(qint64, queueBytes);
        QTemporaryDir dir;
        const QString path = dir.filePath("rec_20260101T000000Z.rdv");
        QByteArray expected;
        {
            KorbRdvDiskWriter writer(nullptr, queueBytes);
            writer.startStream(path, Korb::FileBound{dir.path(), QRegularExpression("^rec_"), -1, -1});
            QDeadlineTimer deadline(20000);
            for (int i = 0; expected.size() < 6 * queueBytes && !deadline.hasExpired(); ++i) {
                const QByteArray piece(1 + (i * 7919) % 60000, char('a' + i % 26));
                while (!writer.append(piece.constData(), piece.size()) && !deadline.hasExpired())
                    QTest::qWait(1); // until the thread makes room
                expected += piece;
            }
            QVERIFY(!deadline.hasExpired());
        }
        QCOMPARE(readFile(path), expected);
    }

    // What was recorded, replayed to a client: the folder's files in name order, within a window of time
    // stamps across a file boundary, and from the window's start again at its end.
    void replayWithinAWindow()
    {
        QTemporaryDir dir;
        const L sent = frames(100, 20); // 20 a file
        record({dir.path(), 1, 10240, 7, false}, sent);
        Korb::sendIntervalMs = 8;
        WebSocketServer server(nullptr, 0);
        auto *playback = new KorbRdvPlayback(&server, &server);
        server.setPlayer(playback);
        playback->setWindow(qint64(Rdv::timeMs(sent[50].constData())),
                            qint64(Rdv::timeMs(sent[70].constData())));
        QVERIFY(server.listen(QHostAddress::LocalHost) && server.setFileNm(dir.path()));
        WsTestClient *client = connectClient(server, this);
        QVERIFY(client);
        QTRY_VERIFY_WITH_TIMEOUT(client->binaries.size() >= 25, 20000);
        for (int i = 0; i < 25; ++i)
            QVERIFY2(
                client->binaries[i] == channelPacket({sent[50 + i % 20]}),
                qPrintable(QStringLiteral("packet %1: %2").arg(i).arg(describePacket(client->binaries[i]))));
    }

private:
    QTemporaryDir m_tmp;
};

QTEST_GUILESS_MAIN(tst_KorbRdvRecorder)
#include "tst_korb_rdv_recorder.moc"
