#include "src/korb_rdv_tls_listener.h"

#include "logger/korb_log.h"
#include "src/korb_rdv_tls_socket.h"
#include "src/korb_rdv_wsserver.h"

#include <QTimer>

KorbRdvTlsListener *KorbRdvTlsListener::open(WebSocketServer *server, quint16 port,
                                             const Korb::TlsFiles &files)
{
    const auto refused = [server, port](const QString &why) {
        KLOG(server, 0, tr("порт WebSocket TLS %1 не открыт: %2").arg(port).arg(why));
        return nullptr;
    };
    QSslConfiguration configuration;
    QString error;
    if (!Korb::tlsServerConfiguration(files, &configuration, &error))
        return refused(error);
    auto *listener = new KorbRdvTlsListener(server, WebSocketServer::MaxClientReplyBacklog,
                                            WebSocketServer::ClientReadBufferSize, configuration);
    if (!listener->listen(QHostAddress::Any, port)) {
        error = listener->errorString();
        delete listener;
        return refused(error);
    }
    server->addListener(listener);
    KLOG(server, 1,
         tr("порт WebSocket TLS %1 открыт, сертификат %2 действителен до %3")
             .arg(port)
             .arg(files.certificate, configuration.localCertificate().expiryDate().toString(Qt::ISODate)));
    return listener;
}

KorbRdvTlsListener::KorbRdvTlsListener(QObject *parent, qint64 replyBound, qint64 readBufferSize,
                                       const QSslConfiguration &configuration)
    : KorbRdvWsListener(parent, replyBound, readBufferSize), m_configuration(configuration)
{
}

bool KorbRdvTlsListener::inHandshake(KorbRdvTlsSocket *socket) const
{
    return !socket->upgraded() && !m_noUpgrade.contains(socket);
}

KorbRdvClientLink *KorbRdvTlsListener::newLink(qint64 replyBound)
{
    return new KorbRdvTlsSocket(this, replyBound);
}

void KorbRdvTlsListener::admit(KorbRdvClientLink *link)
{
    auto *socket = static_cast<KorbRdvTlsSocket *>(link);
    socket->setSslConfiguration(m_configuration);
    // At once: the client's upgrade request may follow in the same read.
    connect(socket, &QSslSocket::encrypted, this, [this, socket] { awaitRequest(socket); });
    connect(socket, &QObject::destroyed, this, [this, socket] { m_noUpgrade.remove(socket); });
    connect(socket, &QAbstractSocket::errorOccurred, this, [this, socket] {
        if (inHandshake(socket))
            fail(socket, socket->errorString());
    });
    QTimer::singleShot(HandshakeTimeoutMs, socket, [this, socket] {
        if (inHandshake(socket))
            fail(socket, tr("не завершено за %1 мс").arg(HandshakeTimeoutMs));
    });
    socket->startServerEncryption();
}

void KorbRdvTlsListener::fail(KorbRdvTlsSocket *socket, const QString &reason)
{
    // The peer's port is left out, so that one client's retries fold into one line.
    KLOGF(this, 1,
          tr("рукопожатие TLS с %1 не состоялось: %2").arg(socket->peerAddress().toString(), reason));
    emit refused(Handshake);
    socket->disconnect(this);
    drop(socket);
}
