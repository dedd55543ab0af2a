#pragma once

#include <QList>
#include <QPointer>
#include <QTcpServer>

class KorbRdvClientSocket;
class QWebSocket;

// The WebSocket server's TCP listener. Accepting here instead of in
// QWebSocketServer's own listener lets the relay create every client's
// socket itself, so that their write path is the relay's own; the socket is
// then handed to the WebSocket handshake, and taken back from here once the
// handshake has made a WebSocket of it.
class KorbRdvWsListener : public QTcpServer
{
    Q_OBJECT
    Q_DISABLE_COPY(KorbRdvWsListener)

public:
    // `replyBound` is passed on to every client socket; a client's input is
    // taken `readBufferSize` bytes per event-loop turn.
    explicit KorbRdvWsListener(QObject *parent, qint64 replyBound, qint64 readBufferSize);

    // Connections still in the handshake, at most: more are refused.
    void setMaxHandshakes(int connections) { m_maxHandshakes = connections; }
    // The socket under a WebSocket whose handshake has completed, null when
    // it is not one of ours.
    KorbRdvClientSocket *takeHandshake(const QWebSocket *socket);

signals:
    // A connection was accepted into a new socket, a child of the listener.
    void accepted(KorbRdvClientSocket *socket);

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    const qint64 m_replyBound;
    const qint64 m_readBufferSize;
    int m_maxHandshakes = 1;
    QList<QPointer<KorbRdvClientSocket>> m_handshakes;
};
