#pragma once

#include <QList>
#include <QPointer>
#include <QSet>
#include <QTcpServer>

struct KorbRdvHttpRequest;

class KorbRdvClientLink;
class QTcpSocket;
class QWebSocket;

// A TCP listener of the WebSocket server. Accepting here instead of in
// QWebSocketServer's own listener lets the relay create every client's
// socket itself, so that their write path is the relay's own. The head of a
// connection's first request is read here, bounded, before anything else
// happens to it; the server then hands an upgrade to the WebSocket
// handshake, and takes the socket back from here once the handshake has
// made a WebSocket of it, or answers a plain request. The plain port's; the
// TLS port's derives from it and encrypts first.
class KorbRdvWsListener : public QTcpServer
{
    Q_OBJECT
    Q_DISABLE_COPY(KorbRdvWsListener)

public:
    // The head of the first request must have come whole by then: a
    // connection that says nothing holds a socket and a handshake place.
    static constexpr int RequestTimeoutMs = 5000;
    // A response gets this long to leave before its connection is cut.
    static constexpr int ResponseGraceMs = 5000;

    // Why a connection was refused before it became a client: the client
    // limit, a handshake that failed or stalled (TLS, the request, the
    // upgrade), an origin the relay does not serve.
    enum Refusal { Limit, Handshake, Origin };
    static constexpr int Refusals = Origin + 1;
    // The reason as the figures name it.
    static const char *refusalName(Refusal reason);

    // `replyBound` is passed on to every client socket; a client's input is
    // taken `readBufferSize` bytes per event-loop turn.
    explicit KorbRdvWsListener(QObject *parent, qint64 replyBound, qint64 readBufferSize);

    // Connections still in the handshake, at most: more are refused.
    void setMaxHandshakes(int connections) { m_maxHandshakes = connections; }
    // The connection under a WebSocket whose handshake has completed, null
    // when it is not one of this listener's; from then on it closes
    // lingering after the WebSocket's close frame.
    KorbRdvClientLink *takeHandshake(const QWebSocket *socket);
    // Writes a whole response and closes the connection once it has left.
    static void respond(QTcpSocket *socket, const QByteArray &response);

signals:
    // A connection, in a new socket that is a child of the listener, has
    // sent the whole head of its first request; the bytes are still unread.
    void request(KorbRdvClientLink *link, const KorbRdvHttpRequest &request);
    void refused(KorbRdvWsListener::Refusal reason);

protected:
    void incomingConnection(qintptr descriptor) override;
    // A new socket of this port, a child of the listener.
    virtual KorbRdvClientLink *newLink(qint64 replyBound);
    // The connection holds a handshake place: the plain port reads its
    // request at once.
    virtual void admit(KorbRdvClientLink *link);
    // Reads the head of the connection's first request, then emits request().
    void awaitRequest(KorbRdvClientLink *link);
    // Closes at once a connection that has not become a client.
    void drop(QTcpSocket *socket);
    // The connection will not become a WebSocket: its request was refused,
    // or is answered by a response that ends it.
    virtual void endsWithoutUpgrade(QTcpSocket *socket) { Q_UNUSED(socket) }

private:
    void examine(KorbRdvClientLink *link);
    void refuse(QTcpSocket *socket, int status, const QString &why);

    const qint64 m_replyBound;
    const qint64 m_readBufferSize;
    int m_maxHandshakes = 1;
    QList<QPointer<QTcpSocket>> m_handshakes;
    QSet<QTcpSocket *> m_awaiting; // whose request head has not come whole
};
