#pragma once

#include <QTcpServer>

class KorbRdvClientLink;

// The WebSocket server's TCP listener. Accepting here instead of in
// QWebSocketServer's own listener lets the relay create every client's
// socket itself, so that their write path is the relay's own; the socket is
// then handed to the WebSocket handshake. Other ports of the relay (TLS)
// derive from it.
class KorbRdvWsListener : public QTcpServer
{
    Q_OBJECT
    Q_DISABLE_COPY(KorbRdvWsListener)

public:
    // `replyBound` is passed on to every client socket.
    explicit KorbRdvWsListener(QObject *parent, qint64 replyBound);

signals:
    // A connection was accepted into a new socket, a child of the listener,
    // ready for the WebSocket handshake.
    void accepted(KorbRdvClientLink *socket);

protected:
    void incomingConnection(qintptr descriptor) override;
    qint64 replyBound() const { return m_replyBound; }

private:
    const qint64 m_replyBound;
};
