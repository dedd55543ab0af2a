// The TLS port beside the plain one: the same packets (a burst in one turn included) and replies over wss://
// as over ws://; bad files refused with one line naming the file and why, bad and stalled handshakes dropped
// and counted with a folded line, and both ports serve on; a client that has reset leaves the table as a
// packet's write finds it.
#include "logger/korb_logger_light.h"
#include "src/korb_env.h"
#include "src/korb_rdv_options.h"
#include "src/korb_rdv_tls_listener.h"
#include "src/korb_rdv_tls_socket.h"
#include "src/korb_rdv_wsserver.h"
#include "support/rdv_test_encoder.h"
#include "support/ws_test_client.h"

#include <QtTest>
#include <sys/socket.h>

using namespace RdvTest;

class tst_KorbRdvTls : public QObject
{
    Q_OBJECT

private slots:

    void initTestCase()
    {
        const QString openssl = QStandardPaths::findExecutable("openssl");
        if (openssl.isEmpty())
            QSKIP("openssl is not installed (apt-get install openssl): no test certificate");
        // Only the relay's own minimum then refuses TLS 1.0, not the system's policy.
        QVERIFY(writeFile(file("openssl.cnf"), "openssl_conf=c\n[c]\nssl_conf=s\n[s]\nsystem_default=d\n"
                                               "[d]\nMinProtocol=TLSv1\nCipherString=DEFAULT@SECLEVEL=0\n"));
        qputenv("OPENSSL_CONF", file("openssl.cnf").toLocal8Bit());
        Korb::setAppDir(file("bin"));
        KorbLoggerLight::instance()->setLogDir(file("logs"));
        for (const QString &name : QStringList{"korb", "other"})
            QCOMPARE(QProcess::execute(openssl,
                                       {"req", "-x509", "-newkey", "ec", "-pkeyopt",
                                        "ec_paramgen_curve:prime256v1", "-nodes", "-subj", "/CN=127.0.0.1",
                                        "-keyout", file(name + ".key"), "-out", file(name + ".crt")}),
                     0);
        QVERIFY(QFile::copy(file("korb.key"), file("open.key")) &&
                QFile::setPermissions(file("open.key"), QFile::ReadOwner | QFile::ReadOther) &&
                QFile::setPermissions(file("korb.key"), QFile::ReadOwner));
        const KorbRdvTlsListener *tls =
            KorbRdvTlsListener::open(&m_server, 0, {file("korb.crt"), file("korb.key")});
        QVERIFY(m_server.listen(QHostAddress::LocalHost) && tls);
        m_tlsPort = tls->serverPort();
    }

    void badFilesAreRefused_data()
    {
        // The [tls] group of the configuration file; none: no file, the defaults.
        QTest::addColumn<QString>("group");
        QTest::addColumn<QString>("error");
        // clang-format off
        QTest::newRow("defaults, none there") << "" << "etc/korb.crt: файл не найден";
        QTest::newRow("mismatched pair") << "certificate=%1/korb.crt\nkey=%1/other.key" << "other.key: ключ не подходит к сертификату";
        QTest::newRow("key readable by others") << "certificate=%1/korb.crt\nkey=%1/open.key" << "open.key: ключ доступен для чтения всем";
        // clang-format on
    }

    void badFilesAreRefused()
    {
        QFETCH(QString, group);
        QFETCH(QString, error);
        QVERIFY(writeFile(file("korb.ini"), "[tls]\n" + group.arg(m_dir.path()).toUtf8()));
        const KorbRdvOptions o = KorbRdvOptions::parse(
            QStringList{"relay"} +
            (group.isEmpty() ? QStringList{"-nofile"} : QStringList{"-cfg", file("korb.ini")}));
        QVERIFY(!KorbRdvTlsListener::open(&m_server, 0, {o.tlsCertificate, o.tlsKey}));
        QCOMPARE(logged("порт WebSocket TLS 0 не открыт: " + file(error)), 1);
    }

    void badHandshakesAreDropped_data()
    {
        QTest::addColumn<QByteArray>("sent"); // null: TLS 1.0 is offered instead
        QTest::addColumn<bool>("encrypted");  // sent over TLS
        QTest::addColumn<int>("lines");       // new in the log: a repeated line folds into the first
        QTest::newRow("plain HTTP") << QByteArray("GET / HTTP/1.1\r\n\r\n") << false << 1;
        QTest::newRow("TLS 1.0") << QByteArray() << false << 1;
        QTest::newRow("upgrade stalled") << QByteArray("GET / HTTP/1.1\r\n") << true << 1;
        QTest::newRow("silent: as stalled") << QByteArray("") << false << 0;
    }

    void badHandshakesAreDropped()
    {
        QFETCH(QByteArray, sent);
        QFETCH(bool, encrypted);
        QFETCH(int, lines);
        const int before = logged("127.0.0.1 не состоялось");
        const qint64 refused = m_server.refusals(KorbRdvWsListener::Handshake);
        QSslSocket client;
        QSignalSpy up(&client, &QSslSocket::encrypted);
        client.setPeerVerifyMode(QSslSocket::VerifyNone);
        client.setProtocol(sent.isNull() ? QSsl::TlsV1_0 : QSsl::SecureProtocols);
        encrypted || sent.isNull() ? client.connectToHostEncrypted("127.0.0.1", m_tlsPort)
                                   : client.connectToHost("127.0.0.1", m_tlsPort);
        client.write(sent);
        // Within the relay's own limit, not QWebSocketServer's 10 s for the upgrade.
        QTRY_COMPARE_WITH_TIMEOUT(client.state(), QAbstractSocket::UnconnectedState,
                                  KorbRdvTlsListener::HandshakeTimeoutMs + 3000);
        QCOMPARE(up.size(), int(encrypted));
        QTRY_COMPARE(m_server.refusals(KorbRdvWsListener::Handshake), refused + 1);
        QTRY_COMPARE(logged("127.0.0.1 не состоялось"), before + lines);
    }

    // After the refusals above, too.
    void secureAndPlainClientsGetTheSame()
    {
        QObject scope;
        QSslConfiguration trusting = QSslConfiguration::defaultConfiguration();
        trusting.setCaCertificates(QSslCertificate::fromPath(file("korb.crt")));
        WsTestClient *plain = connectClient(m_server, &scope);
        const int tlsBefore = m_server.tlsClientCount();
        const QList<WsTestClient *> both = {
            plain,
            connectClient(m_server, &scope, QStringLiteral("wss://127.0.0.1:%1").arg(m_tlsPort), trusting)};
        QVERIFY(both.at(0) && both.at(1) && tlsBefore == 0 && m_server.tlsClientCount() == 1);
        for (WsTestClient *c : both) {
            c->socket.sendTextMessage("ims:20");
            QTRY_COMPARE(c->texts, QStringList{"ims:20 OK"});
        }
        // A burst in one turn, as a device's frames that came in one read:
        // clients that keep up get the same packets, whichever port they use.
        QByteArray device;
        for (int ms = 1000; ms <= 1750; ms += 150) {
            device = frame(single(ms, 1000));
            m_server.sendRdv(reinterpret_cast<const RdvFrame *>(device.constData()));
        }
        for (WsTestClient *c : both)
            QTRY_VERIFY(!c->binaries.isEmpty() && c->binaries.last() == singlePacket(device));
        QCOMPARE(both.at(1)->binaries, both.at(0)->binaries);
    }

    // A client gone with a reset the relay has not yet seen: the packet's
    // write finds it, and it leaves the table while the packet is handed out.
    void resetSecureClientLeavesDuringTheWrite()
    {
        QTRY_COMPARE(m_server.clientCount(), 0); // the clients of the tests before have gone
        QSslSocket client;
        client.setPeerVerifyMode(QSslSocket::VerifyNone);
        client.connectToHostEncrypted("127.0.0.1", m_tlsPort);
        QSignalSpy added(&m_server, &WebSocketServer::connected),
            gone(&m_server, &WebSocketServer::disconnected);
        QVERIFY(rawUpgrade(client) && (!added.isEmpty() || added.wait()));
        const linger reset = {1, 0};
        QVERIFY(::setsockopt(int(client.socketDescriptor()), SOL_SOCKET, SO_LINGER, &reset, sizeof reset) ==
                0);
        client.abort();
        const QByteArray device = frame(single(100));
        m_server.sendRdv(reinterpret_cast<const RdvFrame *>(device.constData()));
        QCOMPARE(gone.size(), 1);
        QCOMPARE(m_server.clientCount(), 0);
    }

private:
    QString file(const QString &name) const { return m_dir.filePath(name); }
    int logged(const QString &text) const
    {
        return QString::fromUtf8(readFile(KorbLoggerLight::instance()->currentFilePath())).count(text);
    }

    QTemporaryDir m_dir;
    WebSocketServer m_server{nullptr};
    quint16 m_tlsPort = 0;
};

QTEST_GUILESS_MAIN(tst_KorbRdvTls)
#include "tst_korb_rdv_tls.moc"
