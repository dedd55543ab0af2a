#include "support/ws_test_client.h"

#include "src/korb_rdv_wsserver.h"

#include <QNetworkProxy>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <QUdpSocket>
#include <QtEndian>

namespace RdvTest {

WsTestClient::WsTestClient(QObject *parent) : QObject(parent)
{
    socket.setProxy(QNetworkProxy::NoProxy);
    connect(&socket, &QWebSocket::textMessageReceived, this, [this](const QString &t) { texts << t; });
    connect(&socket, &QWebSocket::binaryMessageReceived, this,
            [this](const QByteArray &b) { binaries << b; });
    connect(&socket, &QWebSocket::disconnected, this, [this] { closeCode = int(socket.closeCode()); });
}

WsTestClient *connectClient(WebSocketServer &server, QObject *parent, const QString &url,
                            const QSslConfiguration &tls)
{
    auto *c = new WsTestClient(parent);
    QSignalSpy added(&server, &WebSocketServer::connected);
    if (!tls.isNull())
        c->socket.setSslConfiguration(tls);
    c->socket.open(QUrl(url.isEmpty() ? QStringLiteral("ws://127.0.0.1:%1").arg(server.serverPort()) : url));
    if (QTest::qWaitFor([&] { return c->socket.isValid() && !added.isEmpty(); }, 5000))
        return c;
    delete c;
    return nullptr;
}

QString freePort(bool udp)
{
    QTcpServer tcp;
    QUdpSocket datagrams;
    const bool ok =
        udp ? datagrams.bind(QHostAddress(QHostAddress::LocalHost)) : tcp.listen(QHostAddress::LocalHost);
    return QString::number(ok ? (udp ? datagrams.localPort() : tcp.serverPort()) : 0);
}

bool rawHandshake(QTcpSocket &socket, quint16 port)
{
    socket.setProxy(QNetworkProxy::NoProxy);
    socket.connectToHost(QHostAddress::LocalHost, port);
    return rawUpgrade(socket);
}

bool rawUpgrade(QTcpSocket &socket)
{
    return rawRequest(socket, "/", {"Host: 127.0.0.1"}, true).startsWith("HTTP/1.1 101");
}

QByteArray rawRequest(QTcpSocket &socket, const QByteArray &target, const QByteArrayList &fields,
                      bool upgrade)
{
    QByteArrayList lines{"GET " + target + " HTTP/1.1"};
    lines += fields;
    if (upgrade)
        lines << "Upgrade: websocket"
              << "Connection: Upgrade"
              << "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ=="
              << "Sec-WebSocket-Version: 13";
    socket.write(lines.join("\r\n") + "\r\n\r\n");
    if (!QTest::qWaitFor([&] { return socket.peek(16384).contains("\r\n\r\n"); }, 5000))
        return QByteArray();
    const QByteArray head = socket.peek(16384);
    return socket.read(head.indexOf("\r\n\r\n") + 4);
}

QByteArray clientTextFrame(const QByteArray &payload)
{
    const int n = payload.size(); // below 64 KiB
    return QByteArray("\x81\xFE", 2) + char(n >> 8) + char(n & 0xFF) + QByteArray(4, '\0') + payload;
}

int closeCodeReadBy(QTcpSocket &socket)
{
    // The server cuts the connection after its close frame: opcode 8, the
    // length, the code and a reason in plain ASCII.
    socket.setReadBufferSize(0);
    QByteArray stream;
    const bool cut = QTest::qWaitFor(
        [&] { return (stream += socket.readAll(), socket.state() == QAbstractSocket::UnconnectedState); },
        10000);
    const int close = stream.lastIndexOf('\x88');
    return !cut || close < 0 ? -1 : qFromBigEndian<quint16>(stream.constData() + close + 2);
}

} // namespace RdvTest
