// The real executable with a real mosquitto on loopback: a relay publishes
// what its WebSocket clients get, byte for byte, and its state and health;
// it rides out a broker outage; an edge relay serves the published packets
// to its own clients, latest-wins and at its own interval.
#include "support/mqtt_broker.h"
#include "support/rdv_test_encoder.h"
#include "support/streamer_process.h"
#include "support/ws_test_client.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTimer>
#include <QUdpSocket>
#include <QtEndian>
#include <QtTest>

#include <csignal>

namespace {
// Frames of the test recordings, 50 ms apart unless a test says otherwise.
constexpr int FrameSpacingMs = 50;
constexpr int RecordingFrames = 40;

QByteArray topic(const StreamerProcess &relay, const char *leaf)
{
    return "korbrdv/" + relay.name().toUtf8() + '/' + leaf;
}

// A device address where nothing listens.
QString noDevice()
{
    return "127.0.0.1:" + QString::number(StreamerProcess::freeTcpPort());
}

QJsonObject json(const QByteArray &text)
{
    return QJsonDocument::fromJson(text).object();
}

// Whether `run` stands in `list` as one contiguous stretch.
bool containsRun(const QList<QByteArray> &list, const QList<QByteArray> &run)
{
    for (int i = 0; i + run.size() <= list.size(); ++i) {
        if (list.mid(i, run.size()) == run)
            return true;
    }
    return false;
}

// A device that sends one frame per tick: kind 2 over TCP, or kind 1 in a
// datagram to the first UDP port; `expected` collects the packets they make.
class Feeder : public QObject
{
public:
    QList<QByteArray> expected;
    QTcpSocket *tcp = nullptr;
    quint16 udpPort = 0;

    void start()
    {
        connect(&m_timer, &QTimer::timeout, this, [this] { tick(); });
        m_timer.start(30);
    }

private:
    void tick()
    {
        const quint32 sub = quint32(m_i % 10) * 100000000u;
        const quint32 sec = 1700000000u + quint32(m_i / 10);
        if (tcp) {
            const RdvTest::FrameSpec fs = RdvTest::singleFrame(200, sec, sub);
            expected << RdvTest::expectedSinglePacket(fs);
            tcp->write(RdvTest::encodeStream({fs}));
        } else {
            const RdvTest::FrameSpec fs = RdvTest::channelFrame(0, 200, sec, sub);
            expected << RdvTest::expectedChannelPacket({fs});
            QByteArray d(8, '\0');
            const QByteArray frame = RdvTest::encodeFrame(fs);
            qToLittleEndian<quint16>(quint16(8 + frame.size()), d.data());
            qToLittleEndian<quint32>(quint32(m_i + 1), d.data() + 4);
            m_udp.writeDatagram(d + frame, QHostAddress::LocalHost, udpPort);
        }
        ++m_i;
    }

    QTimer m_timer;
    QUdpSocket m_udp;
    int m_i = 0;
};
} // namespace

class tst_KorbRdvMqtt : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void announcesPacketsStateAndHealth_data();
    void announcesPacketsStateAndHealth();
    void brokerGetsWhatClientsGet();
    void publishingResumesAfterBrokerOutage();
    void stalledBrokerCostsOnlyItsOwnPackets();
    void edgeServesThePublishedPackets();
    void edgeGivesAStalledClientTheNewest();

private:
    // A publishing relay replaying a recording of `samples`-sample frames.
    bool startPublisher(StreamerProcess &relay, quint16 samples = 200, const QStringList &extra = {},
                        int spacingMs = FrameSpacingMs);

    MqttBroker m_broker;
    QTemporaryDir m_dir;
    QList<QByteArray> m_expected; // the packets of the last recording written
};

void tst_KorbRdvMqtt::initTestCase()
{
    if (MqttBroker::executable().isEmpty())
        QSKIP("mosquitto is not installed (make deps installs it where it can): the MQTT tests are skipped");
    QString why;
    QVERIFY2(m_broker.start(&why), qPrintable(why));
}

bool tst_KorbRdvMqtt::startPublisher(StreamerProcess &relay, quint16 samples, const QStringList &extra,
                                     int spacingMs)
{
    QList<RdvTest::FrameSpec> frames;
    m_expected.clear();
    for (int i = 0; i < RecordingFrames; ++i) {
        const qint64 ms = qint64(i) * spacingMs;
        RdvTest::FrameSpec fs =
            RdvTest::singleFrame(samples, 1700000000u + quint32(ms / 1000), quint32(ms % 1000) * 1000000u);
        fs.seed = quint32(i + 1);
        frames << fs;
        m_expected << RdvTest::expectedSinglePacket(fs);
    }
    QFile file(m_dir.filePath(QStringLiteral("rec%1.rdv").arg(samples)));
    if (!file.open(QIODevice::WriteOnly) || file.write(RdvTest::encodeStream(frames)) < 0)
        return false;
    file.close();
    QString why;
    const bool ok = relay.start(QStringList{"-nofile", "-file=" + file.fileName(),
                                            "-mqtt=" + m_broker.address(), "-addr=" + noDevice()} +
                                    extra,
                                &why);
    if (!ok)
        qWarning().noquote() << why;
    return ok;
}

void tst_KorbRdvMqtt::announcesPacketsStateAndHealth_data()
{
    QTest::addColumn<QString>("source");
    QTest::newRow("recording played back") << "file";
    QTest::newRow("TCP device") << "tcp";
    QTest::newRow("UDP device") << "udp";
}

// With no WebSocket client at all: the broker link alone makes the packets.
void tst_KorbRdvMqtt::announcesPacketsStateAndHealth()
{
    QFETCH(QString, source);
    StreamerProcess relay;
    Feeder device;
    QTcpServer tcpDevice;
    QVERIFY(tcpDevice.listen(QHostAddress::LocalHost, 0));
    if (source == QLatin1String("file")) {
        QVERIFY(startPublisher(relay));
        device.expected = m_expected;
    } else {
        QStringList args{"-nofile", "-mqtt=" + m_broker.address(),
                         "-addr=127.0.0.1:" + QString::number(tcpDevice.serverPort())};
        if (source == QLatin1String("udp")) {
            device.udpPort = StreamerProcess::freeUdpPort();
            args << "-udp1=" + QString::number(device.udpPort)
                 << "-udp2=" + QString::number(StreamerProcess::freeUdpPort());
        }
        QString why;
        QVERIFY2(relay.start(args, &why), qPrintable(why));
        if (source == QLatin1String("tcp")) {
            QVERIFY(tcpDevice.waitForNewConnection(10000));
            device.tcp = tcpDevice.nextPendingConnection();
        }
        device.start();
    }
    MqttRecorder recorder(m_broker.port(), "korbrdv/" + relay.name().toUtf8() + "/#");
    const QByteArray rdv = topic(relay, "rdv"), stats = topic(relay, "stats"), state = topic(relay, "state");
    QTRY_COMPARE(recorder.last(state), QByteArray("online"));
    QTRY_VERIFY_WITH_TIMEOUT(recorder.count(stats) >= 3 && recorder.count(rdv) >= 5, 10000);

    for (const QByteArray &packet : recorder.messages(rdv))
        QVERIFY2(device.expected.contains(packet), "a packet on the broker that no frame makes");
    const QJsonObject first = json(recorder.messages(stats).constFirst());
    const QJsonObject last = json(recorder.last(stats));
    QCOMPARE(last.value("source").toString(), source);
    QCOMPARE(last.value("ws_clients").toInt(), 0);
    QVERIFY(last.value("frames_accepted").toDouble() > first.value("frames_accepted").toDouble());
    QVERIFY(last.value("packets_built").toDouble() > first.value("packets_built").toDouble());
    QVERIFY(last.value("uptime_s").toDouble() >= 1);
    // The kernel's count stands for the sockets it lists: the UDP device's.
    QCOMPARE(last.value("kernel_drops").isDouble(), source == QLatin1String("udp"));
    if (source == QLatin1String("udp"))
        QVERIFY(last.value("datagrams_accepted").toDouble() > first.value("datagrams_accepted").toDouble());

    relay.stopWith(SIGKILL);
    QTRY_COMPARE(recorder.last(state), QByteArray("offline"));
}

void tst_KorbRdvMqtt::brokerGetsWhatClientsGet()
{
    StreamerProcess relay;
    QVERIFY(startPublisher(relay));
    MqttRecorder recorder(m_broker.port(), topic(relay, "rdv"));
    QTRY_VERIFY(recorder.isUp());
    RdvTest::WsTestClient client;
    QVERIFY(client.open(relay.port()));
    QTRY_VERIFY(client.binaryCount >= 10);
    const QList<QByteArray> seen = client.binaries.mid(2, 6);
    QTRY_VERIFY(containsRun(recorder.messages(topic(relay, "rdv")), seen));
}

void tst_KorbRdvMqtt::publishingResumesAfterBrokerOutage()
{
    StreamerProcess relay;
    QVERIFY(startPublisher(relay));
    RdvTest::WsTestClient client;
    client.keepBinaries = false;
    QVERIFY(client.open(relay.port()));
    QTRY_VERIFY(client.binaryCount > 0);

    m_broker.stop();
    QElapsedTimer gap;
    gap.start();
    qint64 longestGap = 0;
    int during = client.binaryCount;
    connect(&client.socket(), &QWebSocket::binaryMessageReceived, this,
            [&] { longestGap = qMax(longestGap, gap.restart()); });
    QTest::qWait(5000);
    during = client.binaryCount - during;
    QString why;
    QVERIFY2(m_broker.start(&why), qPrintable(why));
    QElapsedTimer back;
    back.start();

    // 50 ms apart: about 100 packets in the 5 s, none held up by the broker.
    QVERIFY2(during >= 80, qPrintable(QString::number(during)));
    QVERIFY2(longestGap < 500, qPrintable(QString::number(longestGap)));
    MqttRecorder recorder(m_broker.port(), topic(relay, "rdv"));
    QTRY_VERIFY_WITH_TIMEOUT(recorder.count(topic(relay, "rdv")) > 0, 10000);
    QVERIFY2(back.elapsed() <= 5000, qPrintable(QString::number(back.elapsed())));
}

// A broker that takes nothing for a while: the packets for it beyond a few
// are dropped and counted, and the WebSocket clients never wait for it.
void tst_KorbRdvMqtt::stalledBrokerCostsOnlyItsOwnPackets()
{
    StreamerProcess relay;
    QVERIFY(startPublisher(relay, RdvTest::MaxSamples, {"-interval_ms=5"}, 10)); // 10 MB/s
    RdvTest::WsTestClient client;
    client.keepBinaries = false;
    QVERIFY(client.open(relay.port()));
    QTRY_VERIFY(client.binaryCount > 0);
    QElapsedTimer gap;
    gap.start();
    qint64 longestGap = 0;
    connect(&client.socket(), &QWebSocket::binaryMessageReceived, &client,
            [&] { longestGap = qMax(longestGap, gap.restart()); });
    m_broker.freeze(true);
    QTest::qWait(4000);
    m_broker.freeze(false);
    QVERIFY2(longestGap < 500, qPrintable(QString::number(longestGap)));
    MqttRecorder recorder(m_broker.port(), topic(relay, "stats"));
    QTRY_VERIFY_WITH_TIMEOUT(
        json(recorder.last(topic(relay, "stats"))).value("broker_publishes_dropped").toDouble() > 0, 10000);
}

void tst_KorbRdvMqtt::edgeServesThePublishedPackets()
{
    StreamerProcess publisher, edge;
    QVERIFY(startPublisher(publisher));
    QString why;
    QVERIFY2(edge.start({"-nofile", "-addr=" + noDevice(),
                         "-mqtt-sub=" + m_broker.address() + '/' + topic(publisher, "rdv")},
                        &why),
             qPrintable(why));
    RdvTest::WsTestClient client;
    QVERIFY(client.open(edge.port()));
    QTRY_VERIFY(client.binaryCount >= 10);
    for (const QByteArray &packet : qAsConst(client.binaries))
        QVERIFY2(m_expected.contains(packet), "the edge changed a packet");

    // The edge's own interval: about one packet in 400 ms instead of 50.
    // Whatever comes after the reply left after the command took effect.
    client.socket().sendTextMessage(QStringLiteral("ims:400"));
    QTRY_COMPARE(client.texts, QStringList{"ims:400 OK"});
    const int before = client.binaryCount;
    QElapsedTimer clock;
    clock.start();
    QTRY_VERIFY_WITH_TIMEOUT(client.binaryCount >= before + 6, 10000);
    QVERIFY2(clock.elapsed() >= 5 * 400 * 8 / 10, qPrintable(QString::number(clock.elapsed())));
    QVERIFY(m_expected.contains(client.lastBinary));
}

void tst_KorbRdvMqtt::edgeGivesAStalledClientTheNewest()
{
    StreamerProcess publisher, edge;
    QVERIFY(startPublisher(publisher, RdvTest::MaxSamples, {"-interval_ms=20"}));
    QString why;
    QVERIFY2(edge.start({"-nofile", "-addr=" + noDevice(), "-interval_ms=2",
                         "-mqtt-sub=" + m_broker.address() + '/' + topic(publisher, "rdv")},
                        &why),
             qPrintable(why));
    MqttRecorder recorder(m_broker.port(), topic(edge, "stats"));
    QTcpSocket stalled;
    QVERIFY(RdvTest::rawHandshake(stalled, edge.port()));
    stalled.setReadBufferSize(1); // takes nothing off the wire from now on
    RdvTest::WsTestClient reader;
    reader.keepBinaries = false;
    QVERIFY(reader.open(edge.port()));
    QTRY_VERIFY_WITH_TIMEOUT(
        json(recorder.last(topic(edge, "stats"))).value("packets_replaced").toDouble() > 0, 20000);
    const int before = reader.binaryCount;
    QTRY_VERIFY(reader.binaryCount > before + 10);
    QVERIFY(m_expected.contains(reader.lastBinary));
}

QTEST_GUILESS_MAIN(tst_KorbRdvMqtt)
#include "tst_korb_rdv_mqtt.moc"
