#include "src/korb_rdv_ws_listener.h"

#include "logger/korb_log.h"
#include "src/korb_rdv_client_socket.h"
#include "src/korb_rdv_http.h"

#include <QTimer>
#include <QWebSocket>

#include <unistd.h>

KorbRdvWsListener::KorbRdvWsListener(QObject *parent, qint64 replyBound, qint64 readBufferSize)
    : QTcpServer(parent), m_replyBound(replyBound), m_readBufferSize(readBufferSize)
{
}

const char *KorbRdvWsListener::refusalName(Refusal reason)
{
    static const char *const names[Refusals] = {"limit", "handshake", "origin"};
    return names[reason];
}

KorbRdvClientLink *KorbRdvWsListener::newLink(qint64 replyBound)
{
    return new KorbRdvClientSocket(this, replyBound);
}

void KorbRdvWsListener::admit(KorbRdvClientLink *link)
{
    awaitRequest(link);
}

void KorbRdvWsListener::awaitRequest(KorbRdvClientLink *link)
{
    QTcpSocket *const socket = link->socket();
    m_awaiting.insert(socket);
    connect(socket, &QObject::destroyed, this, [this, socket] { m_awaiting.remove(socket); });
    connect(socket, &QIODevice::readyRead, this, [this, link] { examine(link); });
    QTimer::singleShot(RequestTimeoutMs, socket, [this, socket] {
        if (m_awaiting.contains(socket))
            refuse(socket, 0, tr("запрос не получен за %1 мс").arg(RequestTimeoutMs));
    });
    examine(link); // the bytes may be here already
}

void KorbRdvWsListener::examine(KorbRdvClientLink *link)
{
    QTcpSocket *const socket = link->socket();
    if (!m_awaiting.contains(socket))
        return;
    KorbRdvHttpRequest head;
    const auto verdict = KorbRdvHttpRequest::parse(socket->peek(KorbRdvHttpRequest::MaxHeadSize), &head);
    if (verdict == KorbRdvHttpRequest::Incomplete)
        return;
    m_awaiting.remove(socket);
    disconnect(socket, &QIODevice::readyRead, this, nullptr);
    if (verdict != KorbRdvHttpRequest::Complete) {
        refuse(socket, verdict, QString::fromLatin1(Korb::httpReason(verdict)));
        return;
    }
    if (!head.isWebSocketUpgrade())
        endsWithoutUpgrade(socket);
    emit request(link, head);
}

void KorbRdvWsListener::refuse(QTcpSocket *socket, int status, const QString &why)
{
    // The peer's port is left out, so that one client's retries fold into one line.
    KLOGF(parent(), 1, tr("запрос с %1 отклонён: %2").arg(socket->peerAddress().toString(), why));
    m_awaiting.remove(socket);
    endsWithoutUpgrade(socket);
    emit refused(Handshake);
    if (status)
        respond(socket, Korb::httpResponse(status));
    else
        drop(socket);
}

void KorbRdvWsListener::drop(QTcpSocket *socket)
{
    m_awaiting.remove(socket);
    socket->abort();
    socket->deleteLater();
}

void KorbRdvWsListener::respond(QTcpSocket *socket, const QByteArray &response)
{
    socket->write(response);
    connect(socket, &QAbstractSocket::disconnected, socket, &QObject::deleteLater);
    socket->disconnectFromHost();
    QTimer::singleShot(ResponseGraceMs, socket, [socket] {
        socket->abort();
        socket->deleteLater();
    });
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
        emit refused(Limit);
        drop(socket);
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
