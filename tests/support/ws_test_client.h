#pragma once

// A WebSocketServer on a free high port and real QWebSocket clients on
// 127.0.0.1 that record what they receive.

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QStringList>
#include <QWebSocket>

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
    bool keepBinaries = true;
    int binaryCount = 0;
    qint64 binaryBytes = 0;
    int closeCode = -1;
    bool disconnected = false;

private:
    QWebSocket m_socket;
};

} // namespace RdvTest
