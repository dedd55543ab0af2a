// Who may connect and who may steer, with real clients on 127.0.0.1: pages
// of other sites are refused before the upgrade, holders of a listed token
// are operators, everyone else only watches; a token never reaches the log.
#include "logger/korb_logger_light.h"
#include "src/korb_env.h"
#include "src/korb_rdv_access.h"
#include "src/korb_rdv_wsserver.h"
#include "support/stderr_capture.h"
#include "support/ws_test_client.h"

#include <QNetworkRequest>
#include <QTcpSocket>
#include <QtTest>

using namespace RdvTest;

namespace {
constexpr char Token[] = "5f2a9c1d7e3b4a6f8c0d2e4f6a8b0c1d";
}

class tst_KorbRdvAccess : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        Korb::setAppDir(m_dir.filePath("bin"));
        KorbLoggerLight::instance()->setLogDir(m_dir.filePath("logs"));
        QVERIFY(m_server.listen(QHostAddress::LocalHost));
    }

    void origins_data()
    {
        QTest::addColumn<QString>("allowed");   // -origins=
        QTest::addColumn<QByteArray>("origin"); // none: no Origin field; %P: the relay's port
        QTest::addColumn<bool>("upgraded");
        // clang-format off
        QTest::newRow("no Origin: tools and scripts") << "" << QByteArray() << true;
        QTest::newRow("a page opened from disk: null") << "" << QByteArray("null") << true;
        QTest::newRow("a page opened from disk: a file URL") << "" << QByteArray("file://") << true;
        QTest::newRow("the relay's own page") << "" << QByteArray("http://127.0.0.1:%P") << true;
        QTest::newRow("another port of the same host") << "" << QByteArray("http://127.0.0.1:8080") << false;
        QTest::newRow("another site") << "https://portal.plant.lan" << QByteArray("https://evil.example") << false;
        QTest::newRow("a listed site, in other letters and with a slash") << "https://a.lan, https://portal.plant.lan" << QByteArray("HTTPS://Portal.Plant.Lan/") << true;
        QTest::newRow("a listed site by another scheme") << "https://portal.plant.lan" << QByteArray("http://portal.plant.lan") << false;
        QTest::newRow("any site: *") << "*" << QByteArray("https://evil.example") << true;
        // clang-format on
    }

    void origins()
    {
        QFETCH(QString, allowed);
        QFETCH(QByteArray, origin);
        QFETCH(bool, upgraded);
        m_server.setAccess(KorbRdvAccess::fromSettings(allowed, m_dir.filePath("none.tokens")));
        const QByteArray port = QByteArray::number(m_server.serverPort());
        QByteArrayList fields{"Host: 127.0.0.1:" + port};
        if (!origin.isNull())
            fields << "Origin: " + origin.replace("%P", port);
        const qint64 refused = m_server.refusals(KorbRdvWsListener::Origin);
        QTcpSocket socket;
        socket.connectToHost(QHostAddress::LocalHost, m_server.serverPort());
        const QByteArray head = rawRequest(socket, "/", fields, true);
        QVERIFY2(head.startsWith(upgraded ? "HTTP/1.1 101 " : "HTTP/1.1 403 "), head.constData());
        QCOMPARE(m_server.refusals(KorbRdvWsListener::Origin), refused + (upgraded ? 0 : 1));
    }

    void roles_data()
    {
        QTest::addColumn<QString>("file"); // of tokens: missing, listed, open (others may read), a directory
        QTest::addColumn<QString>("presented"); // ?token=..., Bearer ..., or nothing
        QTest::addColumn<QString>("command");
        QTest::addColumn<QString>("reply");
        const QString q = "?token=", b = "Bearer ", t = Token;
        // clang-format off
        QTest::newRow("no token file: everyone steers") << "missing" << "" << "ims:20" << "ims:20 OK";
        QTest::newRow("listed, none presented: viewer") << "listed" << "" << "ims:20" << "ims:20 DENIED";
        QTest::newRow("listed, a wrong one: viewer") << "listed" << q + "x" + t << "buf:" << "buf: DENIED";
        QTest::newRow("listed, its first half: viewer") << "listed" << q + t.left(16) << "csv:" << "csv: DENIED";
        QTest::newRow("listed, in the query: operator") << "listed" << q + t << "ims:20" << "ims:20 OK";
        QTest::newRow("listed, as a bearer: operator") << "listed" << b + t << "ims:20" << "ims:20 OK";
        QTest::newRow("listed, a viewer's wrong command is answered as ever") << "listed" << "" << "ims" << "Err: symbol ':' no found";
        QTest::newRow("readable by others: refused, all viewers") << "open" << q + t << "ims:20" << "ims:20 DENIED";
        QTest::newRow("unreadable: refused, all viewers") << "directory" << b + t << "ims:20" << "ims:20 DENIED";
        // clang-format on
    }

    void roles()
    {
        QFETCH(QString, file);
        QFETCH(QString, presented);
        QFETCH(QString, command);
        QFETCH(QString, reply);
        const QString path =
            m_dir.filePath(QString::fromLatin1(QTest::currentDataTag()).left(20) + ".tokens");
        if (file == "directory") {
            QVERIFY(QDir().mkpath(path));
        } else if (file != "missing") {
            QVERIFY(
                writeFile(path, QByteArray("# operators\nother-token\n") + Token + "  # the shift lead\n") &&
                QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner |
                                                (file == "open" ? QFile::ReadOther : QFile::Permissions())));
        }
        m_server.setAccess(KorbRdvAccess::fromSettings(QString(), path));
        StderrCapture console;
        QNetworkRequest request(QUrl(QStringLiteral("ws://127.0.0.1:%1/%2")
                                         .arg(m_server.serverPort())
                                         .arg(presented.startsWith('?') ? presented : QString())));
        if (presented.startsWith("Bearer"))
            request.setRawHeader("Authorization", presented.toUtf8());
        WsTestClient client(this);
        client.socket.open(request);
        QTRY_VERIFY(client.socket.isValid());
        client.socket.sendTextMessage(command);
        QTRY_COMPARE(client.texts, QStringList{reply});
        // The token is a secret: the log and the console show neither it nor the part of it sent.
        const QByteArray written = readFile(KorbLoggerLight::instance()->currentFilePath()) + console.text();
        QVERIFY(!written.isEmpty() && !written.contains(QByteArray(Token).left(16)));
    }

private:
    QTemporaryDir m_dir;
    WebSocketServer m_server{nullptr, 0};
};

QTEST_GUILESS_MAIN(tst_KorbRdvAccess)
#include "tst_korb_rdv_access.moc"
