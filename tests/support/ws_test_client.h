#pragma once

// Clients on 127.0.0.1: a QWebSocket that records what it receives, and a raw
// TCP one; and what tests around them share: free ports, files written.

#include <QByteArrayList>
#include <QSslConfiguration>
#include <QStringList>
#include <QWebSocket>

class QTcpSocket;
class WebSocketServer;

namespace RdvTest {

struct WsTestClient : QObject
{
    explicit WsTestClient(QObject *parent);
    QWebSocket socket;
    QStringList texts;
    QByteArrayList binaries;
    int closeCode = -1; // once disconnected
};
// A client of `server` once both ends are done with the handshake; null on failure. At ws://127.0.0.1:<its
// plain port> unless `url` says otherwise, and with `tls` for a wss:// one.
WsTestClient *connectClient(WebSocketServer &server, QObject *parent, const QString &url = QString(),
                            const QSslConfiguration &tls = QSslConfiguration());

// A port of 127.0.0.1 free a moment ago (TCP, or UDP), as an option's text.
QString freePort(bool udp = false);
// `bytes` and nothing else in the file at `path`.
bool writeFile(const QString &path, const QByteArray &bytes);
// The bytes of the file at `path`; empty when it cannot be read.
QByteArray readFile(const QString &path);

// Connects to 127.0.0.1:port and completes the handshake by hand.
bool rawHandshake(QTcpSocket &socket, quint16 port);
// The handshake by hand on a socket that is connecting or connected
// (encrypting, for TLS).
bool rawUpgrade(QTcpSocket &socket);
// A request by hand: "GET `target`" with the header `fields` ("Name: value"),
// and the WebSocket handshake's own with `upgrade`. The response head up to
// its blank line, taken off the socket; empty when none came in 5 s.
QByteArray rawRequest(QTcpSocket &socket, const QByteArray &target, const QByteArrayList &fields,
                      bool upgrade);
// A masked text frame (a zero key: the payload stays as it is).
QByteArray clientTextFrame(const QByteArray &payload);
// Reads a raw client until the server has closed the connection: the code of the close frame that ends what
// the server sent, or -1 (none, or more after it). A `keepSending` message is written again whenever the one
// before has gone out.
int closeCodeReadBy(QTcpSocket &socket, const QByteArray &keepSending = QByteArray());

} // namespace RdvTest
