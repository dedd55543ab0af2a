// File playback with real clients: size limit, when the timer runs, what is
// sent in which order, garbage between frames, pacing and looping.

#include "src/korb_rdv_settings.h"
#include "src/korb_rdv_wsserver.h"
#include "support/rdv_test_encoder.h"
#include "support/ws_test_client.h"

#include <QTemporaryDir>
#include <QtTest>

#include <memory>
#include <unistd.h>

using RdvTest::FrameSpec;
using RdvTest::socketArg;
using RdvTest::WsTestClient;

namespace {

FrameSpec singleAt(int ms, quint16 samples = 16)
{
    return RdvTest::singleFrame(samples, 1700000000u + quint32(ms / 1000), quint32(ms % 1000) * 1000000u);
}

FrameSpec channelAt(qint8 group, int ms, quint16 samples = 8)
{
    return RdvTest::channelFrame(group, samples, 1700000000u + quint32(ms / 1000),
                                 quint32(ms % 1000) * 1000000u);
}

// Bytes that hold no valid header: no 0x78, the first byte of the magic.
QByteArray garbage(int n, quint32 seed)
{
    QByteArray g(n, Qt::Uninitialized);
    for (int i = 0; i < n; ++i) {
        seed = seed * 1664525u + 1013904223u;
        g[i] = char(seed >> 24) == 0x78 ? char(0x79) : char(seed >> 24);
    }
    return g;
}

} // namespace

class TestRdvPlayback : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void fileSizeLimit_data();
    void fileSizeLimit();
    void missingAndUnreadableFiles();
    void firstClientStartsTimer();
    void removeClientStopsAtOneDisconnectAtNone();
    void imsRestartsTimer();
    void playsFramesSkippingGarbageAndLoops();
    void channelGroupsGoOutAsMaps();
    void mixedStepsTakeTurns();
    void fileWithoutFramesStopsPlayback();

private:
    // Writes the file and loads it into the server.
    bool load(const QByteArray &bytes);
    WsTestClient *connectClient() { return RdvTest::connectClient(*m_server, this); }

    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<WebSocketServer> m_server;
    int m_files = 0;
};

void TestRdvPlayback::init()
{
    Korb::sendIntervalMs = 10;
    Korb::maxPlaybackFileSize = Korb::DefaultMaxFileSize;
    m_dir.reset(new QTemporaryDir);
    QVERIFY(m_dir->isValid());
    m_server.reset(new WebSocketServer(nullptr, 0));
    QVERIFY(RdvTest::startOnFreePort(*m_server));
}

void TestRdvPlayback::cleanup()
{
    m_server.reset();
    m_dir.reset();
    Korb::sendIntervalMs = Korb::DefaultSendIntervalMs;
}

bool TestRdvPlayback::load(const QByteArray &bytes)
{
    QFile f(m_dir->filePath(QString::number(++m_files)));
    if (!f.open(QIODevice::WriteOnly) || f.write(bytes) != bytes.size())
        return false;
    f.close();
    return m_server->setFileNm(f.fileName());
}

void TestRdvPlayback::fileSizeLimit_data()
{
    QTest::addColumn<qint64>("size");
    QTest::addColumn<bool>("accepted");
    QTest::newRow("exactly 67108864 bytes") << qint64(67108864) << true;
    QTest::newRow("67108865 bytes") << qint64(67108865) << false;
}

void TestRdvPlayback::fileSizeLimit()
{
    QFETCH(qint64, size);
    QFETCH(bool, accepted);
    QCOMPARE(Korb::maxPlaybackFileSize, 67108864);

    // A frame at the very end shows the whole file was read; the rest is a hole.
    const QString path = m_dir->filePath(QStringLiteral("big.bin"));
    const QByteArray last = RdvTest::encodeFrame(singleAt(0, 0));
    {
        QFile f(path);
        QVERIFY(f.open(QIODevice::WriteOnly) && f.resize(size) && f.seek(size - last.size()));
        QCOMPARE(f.write(last), qint64(last.size()));
    }
    QCOMPARE(m_server->setFileNm(path), accepted);
    if (!accepted)
        return;
    WsTestClient *c = connectClient();
    QVERIFY(c);
    QTRY_VERIFY_WITH_TIMEOUT(!c->binaries.isEmpty(), 10000);
    QCOMPARE(c->binaries.first(), RdvTest::expectedSinglePacket(singleAt(0, 0)));
}

void TestRdvPlayback::missingAndUnreadableFiles()
{
    QVERIFY(!m_server->setFileNm(m_dir->filePath(QStringLiteral("nothing-here.bin"))));
    QVERIFY(!m_server->setFileNm(m_dir->path())); // a directory cannot be opened as a file
    QVERIFY(connectClient());
    QVERIFY(!m_server->playbackActive());

    if (::geteuid() == 0)
        QSKIP("running as root: a file without read permission is still readable");
    const QString path = m_dir->filePath(QStringLiteral("locked.bin"));
    QFile f(path);
    QVERIFY(f.open(QIODevice::WriteOnly) && f.write(RdvTest::encodeFrame(singleAt(0))) > 0);
    f.close();
    QVERIFY(QFile::setPermissions(path, QFileDevice::WriteOwner));
    QVERIFY(!m_server->setFileNm(path));
    QVERIFY(!m_server->playbackActive());
}

void TestRdvPlayback::firstClientStartsTimer()
{
    Korb::sendIntervalMs = 40;
    QVERIFY(load(RdvTest::encodeStream({singleAt(0), singleAt(100)})));
    QVERIFY(!m_server->playbackActive());
    QTest::qWait(100);
    QCOMPARE(m_server->playbackPackets(), qint64(0));

    WsTestClient *c = connectClient();
    QVERIFY(c);
    QVERIFY(m_server->playbackActive());
    QCOMPARE(m_server->playbackTimerInterval(), 40);
    QTRY_VERIFY(!c->binaries.isEmpty());

    // Loading a file while a client listens starts at once.
    QVERIFY(load(RdvTest::encodeStream({singleAt(0)})));
    QVERIFY(m_server->playbackActive());
}

void TestRdvPlayback::removeClientStopsAtOneDisconnectAtNone()
{
    QVERIFY(load(RdvTest::encodeStream({singleAt(0), singleAt(50)})));
    QSignalSpy connectedSpy(m_server.get(), &WebSocketServer::connected);
    WsTestClient *a = connectClient();
    WsTestClient *b = connectClient();
    QVERIFY(a && b);

    // A plain disconnect of one of two keeps playback going; the last one leaving stops it.
    a->socket().close();
    QTRY_COMPARE(m_server->clientCount(), 1);
    QVERIFY(m_server->playbackActive());
    b->socket().close();
    QTRY_COMPARE(m_server->clientCount(), 0);
    QVERIFY(!m_server->playbackActive());

    // A new first client starts it again; removing one of two stops it.
    WsTestClient *c = connectClient();
    WsTestClient *d = connectClient();
    QVERIFY(c && d);
    QVERIFY(m_server->playbackActive());
    QVERIFY(m_server->removeClient(quint64(quintptr(socketArg(connectedSpy.at(2))))));
    QVERIFY(!m_server->playbackActive());
    const int got = d->binaryCount;
    QTest::qWait(80);
    QCOMPARE(d->binaryCount, got);
}

void TestRdvPlayback::imsRestartsTimer()
{
    Korb::sendIntervalMs = 50;
    WsTestClient *c = connectClient();
    QVERIFY(c);
    // Without a file, "ims" only sets the interval.
    c->socket().sendTextMessage(QStringLiteral("ims:30"));
    QTRY_COMPARE(c->texts, QStringList{QStringLiteral("ims:30 OK")});
    QVERIFY(!m_server->playbackActive());

    QVERIFY(load(RdvTest::encodeStream({singleAt(0), singleAt(20)})));
    QCOMPARE(m_server->playbackTimerInterval(), 30);
    c->socket().sendTextMessage(QStringLiteral("ims:15"));
    QTRY_COMPARE(c->texts.size(), 2);
    QCOMPARE(m_server->playbackTimerInterval(), 15);

    // A refused value leaves the timer alone.
    c->socket().sendTextMessage(QStringLiteral("ims:1"));
    QTRY_COMPARE(c->texts.size(), 3);
    QCOMPARE(m_server->playbackTimerInterval(), 15);
    const qint64 before = m_server->playbackPackets();
    QTRY_VERIFY(m_server->playbackPackets() > before);
}

void TestRdvPlayback::playsFramesSkippingGarbageAndLoops()
{
    const FrameSpec f0 = singleAt(0, 3), f1 = singleAt(100, 40), f2 = singleAt(200, 0);
    FrameSpec wrongKind = singleAt(150), tooMany = singleAt(150), badMagic = singleAt(150);
    wrongKind.kind = 3;
    tooMany.sampleCount = 13001;
    tooMany.payloadSamples = 4;
    badMagic.magic = 0x12345677;

    QByteArray file = garbage(37, 1);
    file += RdvTest::encodeFrame(f0) + garbage(2, 2) + RdvTest::encodeFrame(wrongKind) + garbage(5, 3);
    file += RdvTest::encodeFrame(f1) + RdvTest::encodeFrame(tooMany) + RdvTest::encodeFrame(badMagic);
    file += QByteArray("\x78\x56\x34\x12\x02", 5) + garbage(3, 4); // a magic too close to a header
    file += RdvTest::encodeFrame(f2) + garbage(11, 5);
    file += RdvTest::encodeFrame(singleAt(250, 1000)).left(200); // runs past the end of the file
    QVERIFY(load(file));
    WsTestClient *c = connectClient();
    QVERIFY(c);

    // Frames 100 ms apart with a 10 ms timer: each goes out on its own, the
    // pass ends at the cut-off frame and starts again from the beginning.
    const QList<QByteArray> pass{RdvTest::expectedSinglePacket(f0), RdvTest::expectedSinglePacket(f1),
                                 RdvTest::expectedSinglePacket(f2)};
    QTRY_VERIFY_WITH_TIMEOUT(c->binaries.size() >= 7, 10000);
    for (int i = 0; i < 7; ++i)
        QCOMPARE(c->binaries.at(i), pass.at(i % 3));
    QCOMPARE(m_server->playbackSkipped(), qint64(0));
}

void TestRdvPlayback::channelGroupsGoOutAsMaps()
{
    // Two groups at t=0 (file order 1, 0), a single frame at 60, both groups again at 120.
    const QList<FrameSpec> step0{channelAt(0, 0), channelAt(1, 0)};
    const FrameSpec single = singleAt(60);
    const QList<FrameSpec> step1{channelAt(0, 120, 12), channelAt(1, 120, 4)};
    QVERIFY(load(RdvTest::encodeStream({step0.at(1), step0.at(0), single, step1.at(0), step1.at(1)})));
    WsTestClient *c = connectClient();
    QVERIFY(c);
    QTRY_VERIFY_WITH_TIMEOUT(c->binaries.size() >= 3, 10000);
    QCOMPARE(c->binaries.at(0), RdvTest::expectedChannelPacket(step0));
    QCOMPARE(c->binaries.at(1), RdvTest::expectedSinglePacket(single));
    QCOMPARE(c->binaries.at(2), RdvTest::expectedChannelPacket(step1));
}

void TestRdvPlayback::mixedStepsTakeTurns()
{
    // Every 10 ms two groups and a single frame against a 25 ms timer: each
    // step finds both kinds due, and neither may starve the other.
    Korb::sendIntervalMs = 25;
    QList<FrameSpec> frames;
    for (int i = 0; i < 60; ++i)
        frames << channelAt(0, 10 * i) << channelAt(1, 10 * i) << singleAt(10 * i);
    QVERIFY(load(RdvTest::encodeStream(frames)));
    WsTestClient *c = connectClient();
    QVERIFY(c);
    QTRY_VERIFY_WITH_TIMEOUT(c->binaries.size() >= 8, 10000);
    // The third layout word tells them apart: 4 single frame, 3 channel map.
    auto isChannel = [](const QByteArray &p) { return qFromLittleEndian<qint16>(p.constData() + 4) == 3; };
    for (int i = 1; i < 8; ++i)
        QVERIFY2(isChannel(c->binaries.at(i)) != isChannel(c->binaries.at(i - 1)),
                 qPrintable(QString::number(i)));
}

void TestRdvPlayback::fileWithoutFramesStopsPlayback()
{
    QVERIFY(load(garbage(100000, 9)));
    WsTestClient *c = connectClient();
    QVERIFY(c);
    QVERIFY(m_server->playbackActive());
    QTRY_VERIFY(!m_server->playbackActive());
    QCOMPARE(c->binaryCount, 0);
}

QTEST_GUILESS_MAIN(TestRdvPlayback)
#include "tst_korb_rdv_playback.moc"
