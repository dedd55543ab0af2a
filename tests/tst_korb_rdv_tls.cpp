// The TLS port (-ps). The real relay: wss:// and ws:// clients get the same
// packets and replies; bad certificate files cost one error line and leave
// the plain port serving; bad and stalled handshakes are dropped with a
// folded line. In process: a TLS client that stops reading holds at most
// the packet being written, counted encrypted or not.
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
// A stall is dropped after the timeout; this bounds the wait for it, and
// stays below QWebSocketServer's own 10 s for the upgrade alone.
constexpr int DropWaitMs = KorbRdvTlsListener::HandshakeTimeoutMs + 3000;

bool run(const QString &program, const QStringList &arguments)
{
    QProcess p;
    p.start(program, arguments);
    return p.waitForFinished(30000) && p.exitStatus() == QProcess::NormalExit && p.exitCode() == 0;
}

bool openClient(QWebSocket &ws, const QString &url)
{
    QSignalSpy connected(&ws, &QWebSocket::connected);
    ws.open(QUrl(url));
    return connected.wait(10000) || ws.state() == QAbstractSocket::ConnectedState;
}

// The reply of a client to "ims:20", and the relay has it in its table.
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
    void badFilesLeaveThePlainPortServing_data();
    void badFilesLeaveThePlainPortServing();
    void badHandshakesAreDropped();
    void stalledSecureClientGetsOnlyFreshPackets();

private:
    QString file(const QString &name) const { return m_dir.filePath(name); }
    QString config(const QString &certificate, const QString &key) const;
    bool startRelay(StreamerProcess &relay, quint16 tlsPort, const QString &configFile,
                    quint16 devicePort = 0);
    QString wssUrl(quint16 port) const { return QStringLiteral("wss://127.0.0.1:%1").arg(port); }
    QSslConfiguration trusting() const;

    QTemporaryDir m_dir;
};

void tst_KorbRdvTls::initTestCase()
{
    const QString openssl = QStandardPaths::findExecutable(QStringLiteral("openssl"));
    if (openssl.isEmpty())
        QSKIP("openssl is not installed (apt-get install openssl): no test certificate");
    QVERIFY(QSslSocket::supportsSsl());
    // Only the relay's own minimum refuses TLS 1.0 then, not the system's policy.
    QFile cnf(file(QStringLiteral("openssl.cnf")));
    QVERIFY(cnf.open(QIODevice::WriteOnly));
    cnf.write("openssl_conf = c\n[c]\nssl_conf = s\n[s]\nsystem_default = d\n"
              "[d]\nMinProtocol = TLSv1\nCipherString = DEFAULT@SECLEVEL=0\n");
    cnf.close();
    qputenv("OPENSSL_CONF", cnf.fileName().toLocal8Bit());
    const QStringList ec{"-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2"};
    QVERIFY(run(openssl, QStringList{"req", "-x509", "-subj", "/CN=127.0.0.1", "-addext",
                                     "subjectAltName=IP:127.0.0.1", "-keyout", file("korb.key"), "-out",
                                     file("korb.crt")} +
                             ec));
    QVERIFY(run(openssl, QStringList{"req", "-x509", "-subj", "/CN=other", "-keyout", file("other.key"),
                                     "-out", file("other.crt")} +
                             ec));
    QVERIFY(QFile::copy(file("korb.key"), file("open.key")));
    QVERIFY(QFile::setPermissions(file("korb.key"), QFile::ReadOwner | QFile::WriteOwner));
    QVERIFY(QFile::setPermissions(file("other.key"), QFile::ReadOwner | QFile::WriteOwner));
    QVERIFY(QFile::setPermissions(file("open.key"), QFile::ReadOwner | QFile::ReadGroup | QFile::ReadOther));
}

QString tst_KorbRdvTls::config(const QString &certificate, const QString &key) const
{
    const QString path = file(certificate + QLatin1Char('-') + key + QStringLiteral(".ini"));
    QFile f(path);
    if (f.open(QIODevice::WriteOnly))
        f.write(QStringLiteral("[tls]\ncertificate=%1\nkey=%2\n").arg(file(certificate), file(key)).toUtf8());
    return path;
}

bool tst_KorbRdvTls::startRelay(StreamerProcess &relay, quint16 tlsPort, const QString &configFile,
                                quint16 devicePort)
{
    QString why;
    const quint16 device = devicePort ? devicePort : StreamerProcess::freeTcpPort();
    if (relay.start({"-ps", QString::number(tlsPort), "-cfg", configFile,
                     "-addr=127.0.0.1:" + QString::number(device)},
                    &why))
        return true;
    qWarning("%s", qPrintable(why));
    return false;
}

QSslConfiguration tst_KorbRdvTls::trusting() const
{
    QSslConfiguration c = QSslConfiguration::defaultConfiguration();
    c.setCaCertificates(QSslCertificate::fromPath(file("korb.crt")));
    return c;
}

void tst_KorbRdvTls::secureAndPlainClientsGetTheSame()
{
    QTcpServer device;
    QVERIFY(device.listen(QHostAddress::LocalHost, 0));
    StreamerProcess relay;
    const quint16 tlsPort = StreamerProcess::freeTcpPort();
    QVERIFY(startRelay(relay, tlsPort, config("korb.crt", "korb.key"), device.serverPort()));
    QVERIFY(device.waitForNewConnection(10000));
    QTcpSocket *link = device.nextPendingConnection();

    QWebSocket plain, secure;
    secure.setSslConfiguration(trusting());
    QVERIFY(openClient(plain, relay.url()));
    QVERIFY2(openClient(secure, wssUrl(tlsPort)), qPrintable(secure.errorString()));
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

void tst_KorbRdvTls::badFilesLeaveThePlainPortServing_data()
{
    QTest::addColumn<QString>("certificate");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("error");
    QTest::newRow("missing key") << "korb.crt"
                                 << "none.key"
                                 << "none.key: файл не найден";
    QTest::newRow("mismatched pair") << "korb.crt"
                                     << "other.key"
                                     << "other.key: ключ не подходит к сертификату";
    QTest::newRow("key readable by others") << "korb.crt"
                                            << "open.key"
                                            << "open.key: ключ доступен для чтения всем";
    QTest::newRow("no certificate in the file") << "other.key"
                                                << "korb.key"
                                                << "other.key: нет сертификата";
}

void tst_KorbRdvTls::badFilesLeaveThePlainPortServing()
{
    QFETCH(QString, certificate);
    QFETCH(QString, key);
    QFETCH(QString, error);
    StreamerProcess relay;
    const quint16 tlsPort = StreamerProcess::freeTcpPort();
    QVERIFY(startRelay(relay, tlsPort, config(certificate, key)));
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

// Plain HTTP, TLS 1.0, a silent connection and a stalled upgrade: each is
// dropped, identical failures fold into one line, and both ports serve.
void tst_KorbRdvTls::badHandshakesAreDropped()
{
    StreamerProcess relay;
    const quint16 tlsPort = StreamerProcess::freeTcpPort();
    QVERIFY(startRelay(relay, tlsPort, config("korb.crt", "korb.key")));

    for (int i = 0; i < 5; ++i) {
        QTcpSocket http;
        http.connectToHost(QHostAddress::LocalHost, tlsPort);
        QVERIFY(http.waitForConnected(5000));
        http.write("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
        QVERIFY(http.waitForDisconnected(5000));
    }
    QTRY_COMPARE(relay.logText().count(QStringLiteral("рукопожатие TLS с")), 1);
    QSslSocket old;
    old.setProtocol(QSsl::TlsV1_0);
    old.setPeerVerifyMode(QSslSocket::VerifyNone);
    old.connectToHostEncrypted(QStringLiteral("127.0.0.1"), tlsPort);
    QTRY_VERIFY(old.state() == QAbstractSocket::UnconnectedState);
    QVERIFY(!old.isEncrypted());

    QTcpSocket silent;
    silent.connectToHost(QHostAddress::LocalHost, tlsPort);
    QSslSocket stalled;
    stalled.setSslConfiguration(trusting());
    stalled.connectToHostEncrypted(QStringLiteral("127.0.0.1"), tlsPort);
    QTRY_VERIFY(stalled.isEncrypted());
    stalled.write("GET / HTTP/1.1\r\n");

    QWebSocket plain, secure;
    secure.setSslConfiguration(trusting());
    QVERIFY(openClient(plain, relay.url()));
    QVERIFY(openClient(secure, wssUrl(tlsPort)));
    QTRY_VERIFY_WITH_TIMEOUT(silent.state() == QAbstractSocket::UnconnectedState, DropWaitMs);
    QTRY_VERIFY_WITH_TIMEOUT(stalled.state() == QAbstractSocket::UnconnectedState, DropWaitMs);
    // Those that finished the handshake are no stalls.
    QVERIFY(answered(plain));
    QVERIFY(answered(secure));

    QVERIFY(relay.logText().contains(
        QStringLiteral("не состоялось: не завершено за %1 мс").arg(KorbRdvTlsListener::HandshakeTimeoutMs)));
}

// In process: a TLS client that takes nothing off the wire. Its socket
// holds at most about one packet, plain or encrypted, and what it gets on
// reading again ends with the newest packet.
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
    client.setReadBufferSize(1);
    const auto *serverSide = server.findChild<KorbRdvTlsSocket *>();
    QVERIFY(serverSide);

    const auto packetAt = [](int i) { return RdvTest::singleFrame(13000, 1700000000 + quint32(i), 0); };
    const qint64 frameSize = Rdv::PacketHeaderSize + 8 * 13000 + Rdv::WsMaxHeaderSize;
    const int packets = 300;
    qint64 maxBacklog = 0;
    for (int i = 1; i <= packets; ++i) {
        const QByteArray frame = RdvTest::encodeFrame(packetAt(i));
        server.sendRdv(reinterpret_cast<const RdvFrame *>(frame.constData()));
        QCoreApplication::processEvents();
        maxBacklog =
            qMax(maxBacklog, serverSide->QSslSocket::bytesToWrite() + serverSide->encryptedBytesToWrite());
    }
    QVERIFY2(maxBacklog <= 2 * frameSize, qPrintable(QStringLiteral("backlog grew to %1").arg(maxBacklog)));
    QVERIFY(server.replacedPackets() > 0);

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
