// A real mosquitto on loopback: a relay publishes its clients' packets byte
// for byte (with no client too), its state and its health; a broker that is
// gone or frozen costs the clients nothing; an edge relay serves a topic.
#include "src/korb_env.h"
#include "src/korb_rdv_assembly.h"
#include "src/korb_rdv_mqtt_edge.h"
#include "src/korb_rdv_mqtt_link.h"
#include "src/korb_rdv_mqtt_publisher.h"
#include "src/korb_rdv_server.h"
#include "src/korb_rdv_wsserver.h"
#include "support/mqtt_broker.h"
#include "support/rdv_test_encoder.h"
#include "support/ws_test_client.h"

#include <QTcpSocket>
#include <QtTest>

using namespace RdvTest;

class tst_KorbRdvMqtt : public QObject
{
    Q_OBJECT

private slots:
    void cleanup() { qDeleteAll(findChildren<KorbRdvStreamer *>()); }

    void initTestCase()
    {
        if (MqttBroker::executable().isEmpty())
            QSKIP("mosquitto is not installed (make deps installs it where it can)");
        QVERIFY(m_broker.start());
        Korb::setAppDir(m_dir.filePath("bin"));
    }

    void publishes_data()
    {
        QTest::addColumn<QString>("outage"); // of the broker, once packets flow
        QTest::addColumn<int>("samples");
        QTest::addColumn<int>("spacingMs"); // of the frames' stamps, a little over the relay's interval
        QTest::newRow("a recording replayed") << "" << 2 << 50;
        QTest::newRow("broker stopped 5 s") << "stopped" << 2 << 50;
        QTest::newRow("10 MB/s, broker frozen 5 s") << "frozen" << 13000 << 10;
    }

    void publishes()
    {
        QFETCH(QString, outage);
        QFETCH(int, samples);
        QFETCH(int, spacingMs);
        QList<FrameSpec> frames;
        while (frames.size() < 100)
            frames << single(frames.size() * spacingMs, quint16(samples));
        QVERIFY(writeFile(m_dir.filePath("rec.rdv"), stream(frames)));
        KorbRdvStreamer *s =
            relay({"-mqtt=" + m_broker.address(), "-interval_ms=" + QString::number(spacingMs - 5),
                   "-file=" + m_dir.filePath("rec.rdv")});
        QVERIFY(s);
        // No WebSocket client yet: the broker link alone is a consumer.
        MqttRecorder recorder(m_broker.port(), topic("#"));
        QTRY_COMPARE(recorder.last(topic("state")), QByteArray("online"));
        QTRY_VERIFY_WITH_TIMEOUT(recorder.count(topic("stats")) >= 3 && recorder.count(topic("rdv")) >= 5,
                                 10000);
        const QByteArrayList &reports = recorder.messages[topic("stats")];
        const QJsonObject first = QJsonDocument::fromJson(reports.first()).object(),
                          last = QJsonDocument::fromJson(reports.last()).object();
        QVERIFY(last.value("source").toString() == "file" && last.value("ws_clients") == 0);
        for (const char *moving : {"frames_accepted", "packets_built", "uptime_s"})
            QVERIFY2(last.value(moving).toDouble() > first.value(moving).toDouble(), moving);
        WsTestClient *client = connectClient(*s->server(), s);
        const QByteArrayList &published = recorder.messages[topic("rdv")];
        QTRY_VERIFY(client && client->binaries.size() >= 5 &&
                    published.indexOf(client->binaries.last()) >= 4);
        // A client's packets, as the broker has them: unchanged, in order, none missing (unless 10 MB/s
        // outrun the bound of publishes waiting for the broker).
        const int at = published.indexOf(client->binaries.last()) - 4;
        QVERIFY(samples > 2 || published.mid(at, 5) == client->binaries.mid(client->binaries.size() - 5));
        if (outage.isEmpty())
            return;
        outage == "frozen" ? m_broker.freeze(true) : m_broker.stop();
        // A link that is down is no consumer; a frozen one is still up.
        QTRY_COMPARE(s->server()->consumerCount(), outage == "frozen" ? 2 : 1);
        int got = 0;
        connect(&client->socket, &QWebSocket::binaryMessageReceived, client, [&] {
            ++got;
            client->binaries.clear();
        });
        // About five seconds of packets for the client meanwhile.
        QTRY_VERIFY_WITH_TIMEOUT(got >= 4500 / spacingMs, 15000);
        QVERIFY(outage == "frozen" ? (m_broker.freeze(false), true) : m_broker.start());
        MqttRecorder again(m_broker.port(), topic("rdv"));
        QTRY_VERIFY_WITH_TIMEOUT(again.count(topic("rdv")) > 0, 10000);
        QVERIFY(s->assembly()->mqttPublisher()->link()->droppedPublishes() > 0);
    }

    void edgeRelay_data()
    {
        QTest::addColumn<int>("interval");  // the edge's, by "ims"
        QTest::addColumn<int>("spacingMs"); // of the messages published for 3 s
        QTest::addColumn<int>("samples");   // large ones with a second client that never reads
        QTest::addColumn<int>("least");     // of them the reading client gets
        QTest::addColumn<int>("most");
        // clang-format off
        QTest::newRow("unchanged, every one") << 20 << 50 << 2 << 60 << 60;
        QTest::newRow("own interval 400 ms") << 400 << 50 << 2 << 7 << 9;
        QTest::newRow("latest-wins for a stalled client") << 2 << 10 << 13000 << 1 << 300;
        // clang-format on
    }

    void edgeRelay()
    {
        QFETCH(int, interval);
        QFETCH(int, spacingMs);
        QFETCH(int, samples);
        QFETCH(int, least);
        QFETCH(int, most);
        KorbRdvStreamer *s = relay({"-mqtt-sub=" + m_broker.address() + "/plant/line", "-addr=127.0.0.1:1"});
        WsTestClient *client = s ? connectClient(*s->server(), s) : nullptr;
        QTcpSocket idle;
        QVERIFY(client && (samples <= 2 || rawHandshake(idle, s->server()->serverPort())));
        idle.setReadBufferSize(1); // takes nothing off the wire from now on
        client->socket.sendTextMessage("ims:" + QString::number(interval));
        MqttRecorder publisher(m_broker.port());
        QTRY_VERIFY(client->texts.size() == 1 && s->assembly()->mqttEdge()->link()->isUp() &&
                    publisher.link->isUp());
        QByteArrayList sent;
        QTimer clock;
        connect(&clock, &QTimer::timeout, this, [&] {
            sent << singlePacket(frame(single(spacingMs * sent.size(), quint16(samples))));
            publisher.link->publish("plant/line", sent.last(), false);
            if (sent.size() == 3000 / spacingMs)
                clock.stop();
        });
        clock.start(spacingMs);
        QTRY_VERIFY_WITH_TIMEOUT(!clock.isActive() && client->binaries.endsWith(sent.last()), 15000);
        QVERIFY2(client->binaries.size() >= least && client->binaries.size() <= most,
                 qPrintable(QString::number(client->binaries.size())));
        for (const QByteArray &packet : qAsConst(client->binaries))
            QVERIFY(sent.contains(packet));
        QCOMPARE(s->server()->replacedPackets() > 0, samples > 2);
    }

private:
    // In process on a free port, under a name of its own: the topics' m_name.
    KorbRdvStreamer *relay(const QStringList &options)
    {
        m_name = QStringLiteral("r%1").arg(++m_started);
        auto *s = new KorbRdvStreamer(this, false, QStringList{"", "-p", freePort()} + options, m_name);
        return s->init() ? s : nullptr;
    }
    QByteArray topic(const char *leaf) const { return Rdv::mqttTopic(m_name, leaf); }

    QTemporaryDir m_dir;
    MqttBroker m_broker;
    QString m_name;
    int m_started = 0;
};

QTEST_GUILESS_MAIN(tst_KorbRdvMqtt)
#include "tst_korb_rdv_mqtt.moc"
