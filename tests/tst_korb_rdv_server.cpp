// The relay in this process. Plain HTTP on its WebSocket port: the embedded viewer page, /metrics and
// /healthz by path and method, the requests the relay refuses, the source's liveness, and the metrics as
// promtool and a Prometheus read them (skipped where the prometheus package is missing); its UDP receiver
// opened once, and its pause.
#include "logger/korb_logger_light.h"
#include "src/korb_env.h"
#include "src/korb_rdv_assembly.h"
#include "src/korb_rdv_server.h"
#include "src/korb_rdv_wsserver.h"
#include "support/rdv_test_encoder.h"
#include "support/ws_test_client.h"

#include <QTcpServer>
#include <QtTest>

using namespace RdvTest;

namespace {
// What a server at 127.0.0.1:port sends for `request` until it closes the
// connection; empty when it answers nothing.
QByteArray fetch(quint16 port, const QByteArray &request)
{
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, port);
    socket.write(request);
    QByteArray response;
    (void)QTest::qWaitFor(
        [&] { return (response += socket.readAll(), socket.state() == QAbstractSocket::UnconnectedState); },
        10000);
    return response;
}

QByteArray get(const QByteArray &target)
{
    return "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n";
}

QByteArray field(const QByteArray &response, const QByteArray &name)
{
    const QByteArray head = response.left(response.indexOf("\r\n\r\n") + 2);
    const int at = head.indexOf("\r\n" + name + ": ");
    return at < 0 ? QByteArray()
                  : head.mid(at + name.size() + 4, head.indexOf("\r\n", at + 2) - at - name.size() - 4);
}

QByteArray body(const QByteArray &response)
{
    return response.mid(response.indexOf("\r\n\r\n") + 4);
}

// A device on 127.0.0.1 that sends a frame every 20 ms to whoever connects, `frames` in all.
struct Device : QTcpServer
{
    explicit Device(int frames)
    {
        listen(QHostAddress::LocalHost);
        connect(this, &QTcpServer::newConnection, this, [this] { socket = nextPendingConnection(); });
        connect(&clock, &QTimer::timeout, this, [this, frames] {
            if (socket && sent < frames)
                socket->write(stream({single(20 * sent++)}));
        });
        clock.start(20);
    }
    QTcpSocket *socket = nullptr;
    QTimer clock;
    int sent = 0;
};
} // namespace

class tst_KorbRdvServer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        Korb::setAppDir(m_dir.filePath("bin"));
        KorbLoggerLight::instance()->setLogDir(m_dir.filePath("logs"));
        QVERIFY(writeFile(m_dir.filePath("rec.rdv"), stream({single(0), single(60)})) &&
                writeFile(m_dir.filePath("silence.ini"), "[http]\nhealth_silence_s=1\n"));
    }

    void cleanup() { qDeleteAll(findChildren<KorbRdvStreamer *>()); }

    void requests_data()
    {
        QTest::addColumn<QByteArray>("request");
        QTest::addColumn<int>("status"); // 0: closed without a response
        QTest::addColumn<QByteArray>("type");
        QTest::addColumn<QString>("page");       // the body is this file of tools/viewer
        QTest::addColumn<QByteArray>("content"); // else the body holds this
        const QByteArray html = "text/html; charset=utf-8", js = "text/javascript; charset=utf-8";
        const QByteArray metrics = "text/plain; version=0.0.4; charset=utf-8";
        // clang-format off
        QTest::newRow("GET /: the viewer page") << get("/") << 200 << html << "index.html" << QByteArray();
        QTest::newRow("GET /index.html") << get("/index.html") << 200 << html << "index.html" << QByteArray();
        QTest::newRow("GET /viewer.js") << get("/viewer.js") << 200 << js << "viewer.js" << QByteArray();
        QTest::newRow("GET /rdv_decoder.js") << get("/rdv_decoder.js") << 200 << js << "rdv_decoder.js" << QByteArray();
        QTest::newRow("GET /viewer.css, HTTP/1.0") << QByteArray("GET /viewer.css HTTP/1.0\r\n\r\n") << 200 << QByteArray("text/css; charset=utf-8") << "viewer.css" << QByteArray();
        QTest::newRow("GET /metrics") << get("/metrics") << 200 << metrics << "" << QByteArray("\nkorbrdv_frames_accepted_total ");
        QTest::newRow("HEAD /: no body") << QByteArray("HEAD / HTTP/1.1\r\n\r\n") << 200 << html << "index.html" << QByteArray();
        QTest::newRow("HEAD /metrics") << QByteArray("HEAD /metrics HTTP/1.1\r\n\r\n") << 200 << metrics << "" << QByteArray();
        QTest::newRow("POST /") << QByteArray("POST / HTTP/1.1\r\nContent-Length: 0\r\n\r\n") << 405 << QByteArray() << "" << QByteArray();
        QTest::newRow("GET of another path") << get("/viewer") << 404 << QByteArray() << "" << QByteArray();
        QTest::newRow("GET of a file beside the page") << get("/../README.md") << 404 << QByteArray() << "" << QByteArray();
        QTest::newRow("POST to another path") << QByteArray("POST /x HTTP/1.1\r\n\r\n") << 404 << QByteArray() << "" << QByteArray();
        QTest::newRow("no path") << QByteArray("GET index.html HTTP/1.1\r\n\r\n") << 400 << QByteArray() << "" << QByteArray();
        QTest::newRow("HTTP/2.0") << QByteArray("GET / HTTP/2.0\r\n\r\n") << 400 << QByteArray() << "" << QByteArray();
        QTest::newRow("a field without a colon") << QByteArray("GET / HTTP/1.1\r\nHost\r\n\r\n") << 400 << QByteArray() << "" << QByteArray();
        QTest::newRow("request line past 8 KiB") << get("/" + QByteArray(8200, 'a')) << 414 << QByteArray() << "" << QByteArray();
        QTest::newRow("fields past 8 KiB") << "GET / HTTP/1.1\r\nX-A: " + QByteArray(8200, 'a') + "\r\n\r\n" << 431 << QByteArray() << "" << QByteArray();
        QTest::newRow("a request that never ends") << QByteArray("GET / HTTP/1.1\r\n") << 0 << QByteArray() << "" << QByteArray();
        // clang-format on
    }

    void requests()
    {
        QFETCH(QByteArray, request);
        QFETCH(int, status);
        QFETCH(QByteArray, type);
        QFETCH(QString, page);
        QFETCH(QByteArray, content);
        KorbRdvStreamer *s = relay({"-file=" + m_dir.filePath("rec.rdv")});
        QVERIFY(s);
        const QByteArray response = fetch(s->server()->serverPort(), request);
        QCOMPARE(response.left(12), status ? "HTTP/1.1 " + QByteArray::number(status) : QByteArray());
        QCOMPARE(field(response, "Content-Type"), type);
        const bool head = request.startsWith("HEAD");
        const int length = field(response, "Content-Length").toInt();
        QVERIFY(head ? body(response).isEmpty() && length > 0 : length == body(response).size());
        if (!page.isEmpty()) {
            const QByteArray bytes = readFile(QStringLiteral(KORB_SOURCE_DIR "/tools/viewer/") + page);
            QVERIFY(!bytes.isEmpty());
            QCOMPARE(body(response), head ? QByteArray() : bytes);
            QCOMPARE(length, bytes.size());
            QCOMPARE(field(response, "Cache-Control"), QByteArray("no-cache"));
            QVERIFY(field(response, "Content-Security-Policy").contains("connect-src 'self'"));
        }
        QVERIFY(body(response).contains(content));
        QCOMPARE(s->server()->refusals(KorbRdvWsListener::Handshake),
                 qint64(status == 0 || status == 400 || status == 414 || status == 431));
    }

    void probe_data()
    {
        QTest::addColumn<QString>("source");
        QTest::addColumn<int>("status");
        QTest::addColumn<bool>("framesSeen"); // last_frame_age_ms is a number
        // clang-format off
        QTest::newRow("a recording: live") << "file" << 200 << false;
        QTest::newRow("a TCP device sending frames: live") << "tcp" << 200 << true;
        QTest::newRow("a TCP device silent for health_silence_s: stale") << "tcp silent" << 503 << true;
        QTest::newRow("no TCP device: stale") << "tcp dead" << 503 << false;
        // clang-format on
    }

    void probe()
    {
        QFETCH(QString, source);
        QFETCH(int, status);
        QFETCH(bool, framesSeen);
        Device device(source == "tcp silent" ? 5 : 1000);
        const QString address =
            "-addr=127.0.0.1:" + (source == "tcp dead" ? freePort() : QString::number(device.serverPort()));
        QStringList options{address, "-cfg", m_dir.filePath("silence.ini")};
        if (source == "file")
            options << "-file=" + m_dir.filePath("rec.rdv");
        KorbRdvStreamer *s = relay(options);
        QVERIFY(s);
        QJsonObject answer;
        const auto asked = [&] {
            const QByteArray response = fetch(s->server()->serverPort(), get("/healthz"));
            answer = QJsonDocument::fromJson(body(response)).object();
            return response.startsWith("HTTP/1.1 " + QByteArray::number(status)) &&
                   answer.value("last_frame_age_ms").isDouble() == framesSeen;
        };
        QTRY_VERIFY_WITH_TIMEOUT(asked(), 10000);
        QCOMPARE(answer.value("status").toString(), status == 200 ? "ok" : "stale");
        QCOMPARE(answer.value("source").toString(), source.left(source.indexOf(' ')));
        QCOMPARE(answer.value("ws_clients").toInt(-1), 0);
    }

    // The exposition as Prometheus' own checker reads it, the client's packets measured; then a throwaway
    // Prometheus on loopback (its storage in the test's folder) scrapes the relay.
    void prometheusReadsTheMetrics()
    {
        const QString prometheus = QStandardPaths::findExecutable("prometheus");
        const QString promtool = QStandardPaths::findExecutable("promtool");
        if (prometheus.isEmpty() || promtool.isEmpty())
            QSKIP("prometheus is not installed (make deps installs it where it can)");
        Device device(1000);
        KorbRdvStreamer *s = relay({"-addr=127.0.0.1:" + QString::number(device.serverPort()), "-nofile"});
        WsTestClient *client = s ? connectClient(*s->server(), s) : nullptr;
        QTRY_VERIFY(client && !client->binaries.isEmpty());
        const QByteArray metrics = body(fetch(s->server()->serverPort(), get("/metrics")));
        QVERIFY(QString::fromLatin1(metrics).contains(
            QRegularExpression("\nkorbrdv_ingest_to_send_seconds_count [1-9]")));
        QProcess check;
        check.start(promtool, {"check", "metrics"});
        check.write(metrics);
        check.closeWriteChannel();
        QVERIFY(check.waitForFinished(30000));
        QVERIFY2(check.exitCode() == 0, check.readAll().constData());
        const QString config = m_dir.filePath("prometheus.yml"), web = freePort();
        QVERIFY(writeFile(config, "global: {scrape_interval: 1s}\nscrape_configs:\n  - job_name: korbrdv\n"
                                  "    static_configs: [{targets: ['127.0.0.1:" +
                                      QByteArray::number(s->server()->serverPort()) + "']}]\n"));
        QProcess server;
        server.start(prometheus, {"--config.file=" + config, "--storage.tsdb.path=" + m_dir.filePath("tsdb"),
                                  "--web.listen-address=127.0.0.1:" + web});
        // Its query API lists the series only while the relay's count is above 0.
        const QByteArray query = get("/api/v1/query?query=korbrdv_frames_accepted_total%3E0");
        QTRY_VERIFY_WITH_TIMEOUT(body(fetch(web.toUShort(), query)).contains("\"result\":[{\"metric\""),
                                 60000);
        server.terminate();
        QVERIFY(server.waitForFinished(20000));
    }

    // One UDP port alone opens no receiver; both do, once. Paused, the relay's pid file goes.
    void udpReceiverAndPause()
    {
        KorbRdvStreamer *one = relay({"-udp1=" + freePort(true), "-addr=127.0.0.1:1"});
        KorbRdvStreamer *s =
            relay({"-udp1=" + freePort(true), "-udp2=" + freePort(true), "-addr=127.0.0.1:1"});
        QVERIFY(one && !one->assembly()->udpReceiver() && s);
        const auto *udp = s->assembly()->udpReceiver();
        QVERIFY(udp && s->createConnect()); // a second call opens no second receiver
        QCOMPARE(s->assembly()->udpReceiver(), udp);
        QFile pid(s->pidFilePath());
        QVERIFY(pid.open(QIODevice::ReadOnly) &&
                pid.readAll().trimmed().toLongLong() == QCoreApplication::applicationPid());
        s->pause();
        QVERIFY(!pid.exists());
    }

private:
    // In this process on a free port, its own instance name.
    KorbRdvStreamer *relay(const QStringList &options)
    {
        auto *s = new KorbRdvStreamer(this, false, QStringList{"", "-p", freePort()} + options,
                                      QStringLiteral("http%1").arg(++m_started));
        return s->init() ? s : nullptr;
    }

    QTemporaryDir m_dir;
    int m_started = 0;
};

QTEST_GUILESS_MAIN(tst_KorbRdvServer)
#include "tst_korb_rdv_server.moc"
