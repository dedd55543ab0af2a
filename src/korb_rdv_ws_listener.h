#pragma once

#include <QList>
#include <QPointer>
#include <QTcpServer>

class KorbRdvClientLink;
class QTcpSocket;
class QWebSocket;

// A TCP listener of the WebSocket server. Accepting here instead of in
// QWebSocketServer's own listener lets the relay create every client's
// socket itself, so that their write path is the relay's own; the socket is
// then handed to the WebSocket handshake, and taken back from here once the
// handshake has made a WebSocket of it. The plain port's; the TLS port's
// derives from it and encrypts first.
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
    // The connection under a WebSocket whose handshake has completed, null
    // when it is not one of this listener's; from then on it closes
    // lingering after the WebSocket's close frame.
    KorbRdvClientLink *takeHandshake(const QWebSocket *socket);

signals:
    // A connection, in a new socket that is a child of the listener, is
    // ready for the WebSocket handshake.
    void accepted(KorbRdvClientLink *link);

protected:
    void incomingConnection(qintptr descriptor) override;
    // A new socket of this port, a child of the listener.
    virtual KorbRdvClientLink *newLink(qint64 replyBound);
    // The connection holds a handshake place: the plain port hands it to
    // the WebSocket handshake at once.
    virtual void admit(KorbRdvClientLink *link);

private:
    const qint64 m_replyBound;
    const qint64 m_readBufferSize;
    int m_maxHandshakes = 1;
    QList<QPointer<QTcpSocket>> m_handshakes;
};
