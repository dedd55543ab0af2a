#pragma once

#include "src/korb_rdv_tls.h"
#include "src/korb_rdv_ws_listener.h"

#include <QList>
#include <QPointer>
#include <QSslConfiguration>

class KorbRdvTlsSocket;
class WebSocketServer;

// The TLS port of the WebSocket server: accepts, encrypts, and hands each
// connection to the server's own handshake and client table once TLS is up
// (accepted()), so that its clients get the same packets, limits and
// commands as the plain port's. A handshake that fails or stalls costs one
// folded log line.
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

    // At most `maxHandshakes` connections at once are still in the TLS
    // handshake; `replyBound` as for the plain port.
    explicit KorbRdvTlsListener(QObject *parent, qint64 replyBound, const QSslConfiguration &configuration,
                                int maxHandshakes);

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    void onEncrypted(KorbRdvTlsSocket *socket);
    void fail(KorbRdvTlsSocket *socket, const QString &reason);

    const QSslConfiguration m_configuration;
    const int m_maxHandshakes;
    QList<QPointer<KorbRdvTlsSocket>> m_handshakes;
};
