#include "support/ws_test_client.h"

#include "src/korb_rdv_wsserver.h"

#include <QNetworkProxy>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTcpSocket>
#include <QTest>
#include <QUrl>
#include <QtEndian>

namespace RdvTest {

bool startOnFreePort(WebSocketServer &server)
{
    for (int attempt = 0; attempt < 50; ++attempt) {
        const quint16 port = quint16(QRandomGenerator::global()->bounded(20000, 60000));
        if (server.start(port))
            return true;
    }
    return false;
}

WsTestClient *connectClient(WebSocketServer &server, QObject *parent)
{
    auto *c = new WsTestClient(parent);
    const int before = server.clientCount();
    // The handshake completes on the client before the server has taken it up.
    if (c->open(server.serverPort()) &&
        QTest::qWaitFor([&] { return server.clientCount() == before + 1; }, 5000))
        return c;
    delete c;
    return nullptr;
}

WsTestClient::WsTestClient(QObject *parent) : QObject(parent)
{
    m_socket.setProxy(QNetworkProxy::NoProxy);
    connect(&m_socket, &QWebSocket::textMessageReceived, this, [this](const QString &t) { texts << t; });
    connect(&m_socket, &QWebSocket::binaryMessageReceived, this, [this](const QByteArray &b) {
        if (keepBinaries)
            binaries << b;
        lastBinary = b;
        ++binaryCount;
        binaryBytes += b.size();
    });
    connect(&m_socket, &QWebSocket::disconnected, this, [this] {
        disconnected = true;
        closeCode = int(m_socket.closeCode());
    });
}

bool WsTestClient::open(quint16 port, int timeoutMs)
{
    QSignalSpy spy(&m_socket, &QWebSocket::connected);
    m_socket.open(QUrl(QStringLiteral("ws://127.0.0.1:%1").arg(port)));
    return spy.count() > 0 || spy.wait(timeoutMs);
}

bool WsTestClient::isConnected() const
{
    return m_socket.state() == QAbstractSocket::ConnectedState;
}

QWebSocket *socketArg(const QList<QVariant> &args)
{
    const QVariant &v = args.at(0);
    return v.userType() == qMetaTypeId<QWebSocket *>() ? *static_cast<QWebSocket *const *>(v.constData())
                                                       : nullptr;
}

bool rawHandshake(QTcpSocket &socket, quint16 port)
{
    socket.setProxy(QNetworkProxy::NoProxy);
    socket.connectToHost(QHostAddress::LocalHost, port);
    return socket.waitForConnected(5000) && rawUpgrade(socket);
}

bool rawUpgrade(QTcpSocket &socket)
{
    socket.write("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                 "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n");
    if (!QTest::qWaitFor([&] { return socket.peek(4096).contains("\r\n\r\n"); }, 5000))
        return false;
    const QByteArray head = socket.peek(4096);
    socket.read(head.indexOf("\r\n\r\n") + 4);
    return head.startsWith("HTTP/1.1 101");
}

QByteArray clientFrame(int opcode, const QByteArray &payload)
{
    QByteArray frame(1, char(0x80 | opcode));
    const int n = payload.size();
    if (n < 126) {
        frame += char(0x80 | n);
    } else {
        Q_ASSERT(n <= 0xFFFF);
        frame += char(0x80 | 126);
        frame += char(n >> 8);
        frame += char(n & 0xFF);
    }
    return frame + QByteArray(4, '\0') + payload; // a zero key leaves the payload as it is
}

int WsFrame::closeCode() const
{
    return opcode == 0x8 && payload.size() >= 2 ? qFromBigEndian<quint16>(payload.constData()) : -1;
}

QList<WsFrame> takeServerFrames(QByteArray &stream)
{
    QList<WsFrame> frames;
    const uchar *data = reinterpret_cast<const uchar *>(stream.constData());
    const quint64 size = quint64(stream.size());
    quint64 pos = 0;
    while (pos + 2 <= size) {
        const uchar *p = data + pos;
        quint64 length = p[1] & 0x7F;
        quint64 head = 2;
        if (length >= 126) {
            head = length == 126 ? 4 : 10;
            if (pos + head > size)
                break;
            length = head == 4 ? qFromBigEndian<quint16>(p + 2) : qFromBigEndian<quint64>(p + 2);
        }
        if (pos + head + length > size)
            break;
        frames.append({p[0] & 0x0F, stream.mid(int(pos + head), int(length))});
        pos += head + length;
    }
    stream.remove(0, int(pos));
    return frames;
}

} // namespace RdvTest
