#include "src/korb_rdv_ws_listener.h"

#include "logger/korb_log.h"
#include "src/korb_rdv_client_socket.h"

#include <QWebSocket>

#include <unistd.h>

KorbRdvWsListener::KorbRdvWsListener(QObject *parent, qint64 replyBound, qint64 readBufferSize)
    : QTcpServer(parent), m_replyBound(replyBound), m_readBufferSize(readBufferSize)
{
}

KorbRdvClientLink *KorbRdvWsListener::newLink(qint64 replyBound)
{
    return new KorbRdvClientSocket(this, replyBound);
}

void KorbRdvWsListener::admit(KorbRdvClientLink *link)
{
    emit accepted(link);
}

void KorbRdvWsListener::incomingConnection(qintptr descriptor)
{
    KorbRdvClientLink *link = newLink(m_replyBound);
    QTcpSocket *socket = link->socket();
    if (!socket->setSocketDescriptor(descriptor)) {
        delete socket;
        ::close(int(descriptor)); // the socket never took it over
        return;
    }
    m_handshakes.removeAll(QPointer<QTcpSocket>());
    if (m_handshakes.size() >= m_maxHandshakes) {
        // Before the handshake there is no WebSocket to say why.
        KLOGF(parent(), 1,
              tr("соединение отклонено: %1 соединений ещё не установили WebSocket").arg(m_maxHandshakes));
        socket->abort();
        socket->deleteLater();
        return;
    }
    socket->setReadBufferSize(m_readBufferSize);
    m_handshakes.append(socket);
    admit(link);
}

KorbRdvClientLink *KorbRdvWsListener::takeHandshake(const QWebSocket *socket)
{
    // The WebSocket does not say which socket it took over; the two ends'
    // addresses and ports do.
    for (int i = 0; i < m_handshakes.size(); ++i) {
        QTcpSocket *tcp = m_handshakes.at(i);
        if (tcp && tcp->peerPort() == socket->peerPort() && tcp->localPort() == socket->localPort() &&
            tcp->peerAddress() == socket->peerAddress()) {
            m_handshakes.removeAt(i);
            KorbRdvClientLink *link = dynamic_cast<KorbRdvClientLink *>(tcp);
            link->lingerAfterCloseFrame(socket);
            return link;
        }
    }
    return nullptr;
}
