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

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
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
    const quint64 n = quint64(payload.size());
    const int extended = n < 126 ? 0 : n <= 0xFFFF ? 2 : 8; // bytes of the length after the second
    QByteArray head(2 + extended, '\0');
    head[0] = '\x81';
    head[1] = char(0x80 | (extended == 0 ? n : extended == 2 ? 126 : 127));
    for (int i = 0; i < extended; ++i)
        head[2 + i] = char(n >> 8 * (extended - 1 - i));
    return head + QByteArray(4, '\0') + payload;
}

namespace {
// The code of the close frame that ends `stream`, the server's frames
// (unmasked) whole from the start; -1 when another frame ends it or it is cut.
int closeCodeEnding(const QByteArray &stream)
{
    qint64 at = 0;
    int code = -1;
    while (at + 2 <= stream.size()) {
        const char *frame = stream.constData() + at;
        quint64 length = uchar(frame[1]) & 0x7F;
        int head = 2;
        if (length >= 126) {
            head = length == 126 ? 4 : 10;
            if (at + head > stream.size())
                return -1;
            length = head == 4 ? qFromBigEndian<quint16>(frame + 2) : qFromBigEndian<quint64>(frame + 2);
        }
        const bool close = (frame[0] & 0x0F) == 8 && length >= 2 && at + head + 2 <= stream.size();
        code = close ? qFromBigEndian<quint16>(frame + head) : -1;
        at += head + qint64(length);
    }
    return at == stream.size() ? code : -1;
}
} // namespace

int closeCodeReadBy(QTcpSocket &socket, const QByteArray &keepSending)
{
    socket.setReadBufferSize(0);
    QByteArray stream;
    const bool cut = QTest::qWaitFor(
        [&] {
            stream += socket.readAll();
            if (!keepSending.isEmpty() && socket.bytesToWrite() == 0 &&
                socket.state() == QAbstractSocket::ConnectedState)
                socket.write(keepSending);
            return socket.state() == QAbstractSocket::UnconnectedState;
        },
        10000);
    return cut ? closeCodeEnding(stream) : -1;
}

} // namespace RdvTest
