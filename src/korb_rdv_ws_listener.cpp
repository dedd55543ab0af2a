#include "src/korb_rdv_ws_listener.h"

#include "src/korb_rdv_client_socket.h"

#include <unistd.h>

KorbRdvWsListener::KorbRdvWsListener(QObject *parent, qint64 replyBound)
    : QTcpServer(parent), m_replyBound(replyBound)
{
}

void KorbRdvWsListener::incomingConnection(qintptr descriptor)
{
    auto *socket = new KorbRdvClientSocket(this, m_replyBound);
    if (!socket->setSocketDescriptor(descriptor)) {
        delete socket;
        ::close(int(descriptor)); // the socket never took it over
        return;
    }
    emit accepted(socket);
}
