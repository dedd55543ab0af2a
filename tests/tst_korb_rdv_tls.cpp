// The TLS port (-ps). The real relay: wss:// and ws:// clients get the same
// packets and replies; bad and stalled handshakes are dropped with a folded
// line; bad certificate files cost one error line and the plain port
// serves. In process: a TLS client that stops reading holds at most about
// the packet being written, encrypted or not.
#include "src/korb_rdv_packet.h"
#include "src/korb_rdv_tls_listener.h"
#include "src/korb_rdv_tls_socket.h"
#include "src/korb_rdv_wsserver.h"
#include "support/rdv_test_encoder.h"
#include "support/streamer_process.h"
#include "support/ws_test_client.h"

#include <QSslSocket>
#include <QStandardPaths>
#include <QTcpServer>
#include <QWebSocket>
#include <QtTest>

namespace {
bool openClient(QWebSocket &ws, const QString &url)
{
    QSignalSpy connected(&ws, &QWebSocket::connected);
    ws.open(QUrl(url));
    return connected.wait(10000) || ws.state() == QAbstractSocket::ConnectedState;
}

// The client's command is answered: the relay has it in its table.
bool answered(QWebSocket &ws)
{
    QSignalSpy replies(&ws, &QWebSocket::textMessageReceived);
    ws.sendTextMessage(QStringLiteral("ims:20"));
    return replies.wait(10000) && replies.at(0).at(0).toString() == QStringLiteral("ims:20 OK");
}
} // namespace

class tst_KorbRdvTls : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void secureAndPlainClientsGetTheSame();
    void badHandshakesAreDropped();
    void badFilesLeaveThePlainPortServing_data();
    void badFilesLeaveThePlainPortServing();
    void stalledSecureClientGetsOnlyFreshPackets();

private:
    QString file(const QString &name) const { return m_dir.filePath(name); }
    // The relay on a free plain port and `tlsPort`, with the [tls] files given.
    bool start(StreamerProcess &relay, quint16 tlsPort, const QString &certificate, const QString &key,
               quint16 device = StreamerProcess::freeTcpPort());
    // Trusts the test certificate alone.
    QSslConfiguration trusting() const;
    bool openSecure(QWebSocket &ws) const;

    QTemporaryDir m_dir;
    QTcpServer m_device;
    StreamerProcess m_relay; // with the good files, the device above
    quint16 m_tlsPort = 0;
};

void tst_KorbRdvTls::initTestCase()
{
    const QString openssl = QStandardPaths::findExecutable(QStringLiteral("openssl"));
    if (openssl.isEmpty())
        QSKIP("openssl is not installed (apt-get install openssl): no test certificate");
    // Only the relay's own minimum then refuses TLS 1.0, not the system's policy.
    QFile cnf(file("openssl.cnf"));
    QVERIFY(cnf.open(QIODevice::WriteOnly));
    cnf.write("openssl_conf = c\n[c]\nssl_conf = s\n[s]\nsystem_default = d\n"
              "[d]\nMinProtocol = TLSv1\nCipherString = DEFAULT@SECLEVEL=0\n");
    cnf.close();
    qputenv("OPENSSL_CONF", cnf.fileName().toLocal8Bit());
    for (const QString &name : QStringList{"korb", "other"})
        QCOMPARE(QProcess::execute(openssl, {"req", "-x509", "-newkey", "ec", "-pkeyopt",
                                             "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2", "-subj",
                                             "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1",
                                             "-keyout", file(name + ".key"), "-out", file(name + ".crt")}),
                 0);
    QVERIFY(QFile::copy(file("korb.key"), file("open.key")));
    for (const QString &key : QStringList{"korb.key", "other.key"})
        QVERIFY(QFile::setPermissions(file(key), QFile::ReadOwner | QFile::WriteOwner));
    QVERIFY(QFile::setPermissions(file("open.key"), QFile::ReadOwner | QFile::ReadGroup | QFile::ReadOther));

    QVERIFY(m_device.listen(QHostAddress::LocalHost, 0));
    m_tlsPort = StreamerProcess::freeTcpPort();
    QVERIFY(start(m_relay, m_tlsPort, "korb.crt", "korb.key", m_device.serverPort()));
}

bool tst_KorbRdvTls::start(StreamerProcess &relay, quint16 tlsPort, const QString &certificate,
                           const QString &key, quint16 device)
{
    const QString config = file(certificate + '-' + key + ".ini");
    QFile f(config);
    if (!f.open(QIODevice::WriteOnly))
        return false;
    f.write(QStringLiteral("[tls]\ncertificate=%1\nkey=%2\n").arg(file(certificate), file(key)).toUtf8());
    f.close();
    QString why;
    const bool started = relay.start(
        {"-ps", QString::number(tlsPort), "-cfg", config, "-addr=127.0.0.1:" + QString::number(device)},
        &why);
    if (!started)
        qWarning("%s", qPrintable(why));
    return started;
}

QSslConfiguration tst_KorbRdvTls::trusting() const
{
    QSslConfiguration c = QSslConfiguration::defaultConfiguration();
    c.setCaCertificates(QSslCertificate::fromPath(file("korb.crt")));
    return c;
}

bool tst_KorbRdvTls::openSecure(QWebSocket &ws) const
{
    ws.setSslConfiguration(trusting());
    return openClient(ws, QStringLiteral("wss://127.0.0.1:%1").arg(m_tlsPort));
}

void tst_KorbRdvTls::secureAndPlainClientsGetTheSame()
{
    QVERIFY(m_device.waitForNewConnection(10000));
    QTcpSocket *link = m_device.nextPendingConnection();
    QWebSocket plain, secure;
    QVERIFY(openClient(plain, m_relay.url()));
    QVERIFY(openSecure(secure));
    QVERIFY(answered(plain));
    QVERIFY(answered(secure));

    QSignalSpy plainPackets(&plain, &QWebSocket::binaryMessageReceived);
    QSignalSpy securePackets(&secure, &QWebSocket::binaryMessageReceived);
    QList<RdvTest::FrameSpec> frames;
    for (int i = 0; i < 3; ++i)
        frames << RdvTest::singleFrame(1000, 1700000000, quint32(i) * 200000000u);
    link->write(RdvTest::encodeStream(frames));
    QTRY_COMPARE_WITH_TIMEOUT(plainPackets.count(), 2, 10000);
    QTRY_COMPARE_WITH_TIMEOUT(securePackets.count(), 2, 10000);
    for (int i = 0; i < 2; ++i) {
        QCOMPARE(plainPackets.at(i).at(0).toByteArray(), RdvTest::expectedSinglePacket(frames.at(i + 1)));
        QCOMPARE(securePackets.at(i).at(0).toByteArray(), plainPackets.at(i).at(0).toByteArray());
    }
}

// Plain HTTP five times (one folded line), TLS 1.0, a silent connection and
// a stalled upgrade: each is dropped, and both ports keep serving.
void tst_KorbRdvTls::badHandshakesAreDropped()
{
    for (int i = 0; i < 5; ++i) {
        QTcpSocket http;
        http.connectToHost(QHostAddress::LocalHost, m_tlsPort);
        http.write("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
        QVERIFY(http.waitForDisconnected(5000));
    }
    QTRY_COMPARE(m_relay.logText().count(QStringLiteral("рукопожатие TLS с")), 1);
    QSslSocket old;
    old.setProtocol(QSsl::TlsV1_0);
    old.setPeerVerifyMode(QSslSocket::VerifyNone);
    old.connectToHostEncrypted(QStringLiteral("127.0.0.1"), m_tlsPort);
    QTRY_COMPARE(old.state(), QAbstractSocket::UnconnectedState);
    QVERIFY(!old.isEncrypted());

    QTcpSocket silent;
    silent.connectToHost(QHostAddress::LocalHost, m_tlsPort);
    QSslSocket stalled;
    stalled.setSslConfiguration(trusting());
    stalled.connectToHostEncrypted(QStringLiteral("127.0.0.1"), m_tlsPort);
    QTRY_VERIFY(stalled.isEncrypted());
    stalled.write("GET / HTTP/1.1\r\n");
    QWebSocket plain, secure;
    QVERIFY(openClient(plain, m_relay.url()));
    QVERIFY(openSecure(secure));
    // Under QWebSocketServer's own 10 s for a stalled upgrade.
    const int dropMs = KorbRdvTlsListener::HandshakeTimeoutMs + 3000;
    QTRY_COMPARE_WITH_TIMEOUT(silent.state(), QAbstractSocket::UnconnectedState, dropMs);
    QTRY_COMPARE_WITH_TIMEOUT(stalled.state(), QAbstractSocket::UnconnectedState, dropMs);
    QVERIFY(answered(plain));
    QVERIFY(answered(secure));
    QVERIFY(m_relay.logText().contains(
        QStringLiteral("не состоялось: не завершено за %1 мс").arg(KorbRdvTlsListener::HandshakeTimeoutMs)));
}

void tst_KorbRdvTls::badFilesLeaveThePlainPortServing_data()
{
    QTest::addColumn<QString>("certificate");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("error");
    const auto row = [](const char *name, const char *certificate, const char *key, const char *error) {
        QTest::newRow(name) << certificate << key << QString::fromUtf8(error);
    };
    row("missing key", "korb.crt", "none.key", "none.key: файл не найден");
    row("mismatched pair", "korb.crt", "other.key", "other.key: ключ не подходит к сертификату");
    row("key readable by others", "korb.crt", "open.key", "open.key: ключ доступен для чтения всем");
    row("no certificate in the file", "other.key", "korb.key", "other.key: нет сертификата");
}

void tst_KorbRdvTls::badFilesLeaveThePlainPortServing()
{
    QFETCH(QString, certificate);
    QFETCH(QString, key);
    QFETCH(QString, error);
    StreamerProcess relay;
    const quint16 tlsPort = StreamerProcess::freeTcpPort();
    QVERIFY(start(relay, tlsPort, certificate, key));
    const QString line = QStringLiteral("порт WebSocket TLS %1 не открыт: ").arg(tlsPort);
    QTRY_VERIFY(relay.logText().contains(line + file(error)));
    QCOMPARE(relay.logText().count(line), 1);
    QWebSocket plain;
    QVERIFY(openClient(plain, relay.url()));
    QVERIFY(answered(plain));
    QTcpSocket probe;
    probe.connectToHost(QHostAddress::LocalHost, tlsPort);
    QVERIFY(!probe.waitForConnected(2000));
}

// In process, with the figures of the server's own TLS socket.
void tst_KorbRdvTls::stalledSecureClientGetsOnlyFreshPackets()
{
    WebSocketServer server(nullptr, 0);
    QVERIFY(RdvTest::startOnFreePort(server));
    const quint16 tlsPort = StreamerProcess::freeTcpPort();
    QVERIFY(KorbRdvTlsListener::open(&server, tlsPort, {file("korb.crt"), file("korb.key")}));
    QSslSocket client;
    client.setSslConfiguration(trusting());
    client.connectToHostEncrypted(QStringLiteral("127.0.0.1"), tlsPort);
    QTRY_VERIFY(client.isEncrypted());
    QVERIFY(RdvTest::rawUpgrade(client));
    QTRY_COMPARE(server.clientCount(), 1);
    client.setReadBufferSize(1); // from now on it takes nothing off the wire
    const auto *serverSide = server.findChild<KorbRdvTlsSocket *>();
    QVERIFY(serverSide);

    const auto packetAt = [](int i) { return RdvTest::singleFrame(13000, 1700000000 + quint32(i), 0); };
    const int packets = 300; // enough to fill generous loopback kernel buffers several times over
    qint64 maxBacklog = 0;
    for (int i = 1; i <= packets; ++i) {
        const QByteArray frame = RdvTest::encodeFrame(packetAt(i));
        server.sendRdv(reinterpret_cast<const RdvFrame *>(frame.constData()));
        QCoreApplication::processEvents();
        maxBacklog =
            qMax(maxBacklog, serverSide->QSslSocket::bytesToWrite() + serverSide->encryptedBytesToWrite());
    }
    const qint64 frameSize = Rdv::PacketHeaderSize + 8 * 13000 + Rdv::WsMaxHeaderSize;
    QVERIFY2(maxBacklog <= 2 * frameSize, qPrintable(QStringLiteral("backlog grew to %1").arg(maxBacklog)));
    QVERIFY(server.replacedPackets() > 0);

    // Reading again, it gets what waited and then the newest packet.
    client.setReadBufferSize(0);
    const QByteArray last = RdvTest::expectedSinglePacket(packetAt(packets));
    QByteArray stream;
    QList<RdvTest::WsFrame> frames;
    QTRY_VERIFY_WITH_TIMEOUT((stream += client.readAll(), frames += RdvTest::takeServerFrames(stream),
                              !frames.isEmpty() && frames.last().payload == last),
                             10000);
    QVERIFY(frames.size() < packets);
}

QTEST_GUILESS_MAIN(tst_KorbRdvTls)
#include "tst_korb_rdv_tls.moc"
