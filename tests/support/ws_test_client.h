#pragma once

// A WebSocketServer on a free high port and real QWebSocket clients on
// 127.0.0.1 that record what they receive.

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QStringList>
#include <QWebSocket>

class QTcpSocket;
class WebSocketServer;

namespace RdvTest {

// Starts the server on a random free high port; false when none was found.
bool startOnFreePort(WebSocketServer &server);

class WsTestClient;
// A client of `server`, once the server has taken it into its table; null on failure.
WsTestClient *connectClient(WebSocketServer &server, QObject *parent);

// The socket pointer a signal of the server carried (QSignalSpy arguments),
// read without touching the object: it may already be deleted.
QWebSocket *socketArg(const QList<QVariant> &args);

// A plain TCP socket as a WebSocket client whose reading the test controls:
// connects to 127.0.0.1:port and completes the handshake by hand.
bool rawHandshake(QTcpSocket &socket, quint16 port);
// The handshake by hand on a socket already connected (and encrypted, for TLS).
bool rawUpgrade(QTcpSocket &socket);
// A client frame (FIN, masked with a zero key) of the given opcode.
QByteArray clientFrame(int opcode, const QByteArray &payload);
struct WsFrame
{
    int opcode = 0;
    QByteArray payload;
    // The code of a close frame, else -1.
    int closeCode() const;
};
// Takes the complete server frames off the front of `stream`.
QList<WsFrame> takeServerFrames(QByteArray &stream);

class WsTestClient : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY(WsTestClient)

public:
    explicit WsTestClient(QObject *parent = nullptr);

    // Connects to ws://127.0.0.1:port and waits up to timeoutMs for the handshake.
    bool open(quint16 port, int timeoutMs = 5000);
    bool isConnected() const;

    QWebSocket &socket() { return m_socket; }
    QStringList texts;
    QList<QByteArray> binaries; // filled while keepBinaries is set
    QByteArray lastBinary;
    bool keepBinaries = true;
    int binaryCount = 0;
    qint64 binaryBytes = 0;
    int closeCode = -1;
    bool disconnected = false;

private:
    QWebSocket m_socket;
};

} // namespace RdvTest
