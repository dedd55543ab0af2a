#pragma once

#include "src/korb_rdv_tls.h"
#include "src/korb_rdv_ws_listener.h"

#include <QSslConfiguration>

class KorbRdvTlsSocket;
class WebSocketServer;

// The TLS port of the WebSocket server: accepts, encrypts, and hands each
// connection to the server's own handshake and client table once TLS is up,
// so that its clients get the same packets, limits and commands as the
// plain port's. A handshake that fails or stalls costs one folded log line.
class KorbRdvTlsListener : public KorbRdvWsListener
{
    Q_OBJECT
    Q_DISABLE_COPY(KorbRdvTlsListener)

public:
    // TLS and the WebSocket upgrade together must be done within this: a
    // connection stalled in either holds a socket and a handshake place.
    static constexpr int HandshakeTimeoutMs = 5000;

    // Opens `port` on all addresses with the certificate and key `files`,
    // as a listener of `server`. Null, with one error line naming the file
    // or the port and the reason, when that fails; the server's plain port
    // is left as it is.
    static KorbRdvTlsListener *open(WebSocketServer *server, quint16 port, const Korb::TlsFiles &files);

    explicit KorbRdvTlsListener(QObject *parent, qint64 replyBound, qint64 readBufferSize,
                                const QSslConfiguration &configuration);

protected:
    KorbRdvClientLink *newLink(qint64 replyBound) override;
    void admit(KorbRdvClientLink *link) override;
    void endsWithoutUpgrade(QTcpSocket *socket) override { m_noUpgrade.insert(socket); }

private:
    void fail(KorbRdvTlsSocket *socket, const QString &reason);
    // TLS and the upgrade still to come, and no response or refusal instead.
    bool inHandshake(KorbRdvTlsSocket *socket) const;

    const QSslConfiguration m_configuration;
    // Whose request was refused or is answered: the response path ends them.
    QSet<QTcpSocket *> m_noUpgrade;
};
