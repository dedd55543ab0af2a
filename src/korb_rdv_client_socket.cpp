#include "src/korb_rdv_client_socket.h"

#include <sys/socket.h>

KorbRdvClientSocket::KorbRdvClientSocket(QObject *parent, qint64 replyBound)
    : QTcpSocket(parent), KorbRdvClientLink(replyBound)
{
    connect(this, &QIODevice::bytesWritten, this, [this] { noteEmptied(); });
}

qint64 KorbRdvClientSocket::bytesToWrite() const
{
    return QTcpSocket::bytesToWrite() + m_gathered.size();
}

void KorbRdvClientSocket::disconnectFromHost()
{
    sendGathered();
    QTcpSocket::disconnectFromHost();
}

void KorbRdvClientSocket::close()
{
    sendGathered();
    if (!lingerInsteadOfClosing())
        QTcpSocket::close();
}

qint64 KorbRdvClientSocket::writeData(const char *data, qint64 size)
{
    if (closing())
        return size; // nothing follows the close frame
    // Gathering is only for bytes that would go to the kernel at once; once
    // something is queued, everything queues behind it.
    if (!writingPacket() && QTcpSocket::bytesToWrite() == 0 && state() == ConnectedState) {
        gather(data, size);
        return size;
    }
    sendGathered();
    return writeThrough(data, size, writingPacket());
}

void KorbRdvClientSocket::gather(const char *data, qint64 size)
{
    noteWaiting();
    m_gathered.append(data, int(size));
    if (!m_sendQueued) {
        m_sendQueued = true;
        QMetaObject::invokeMethod(this, &KorbRdvClientSocket::sendGatheredAtTurnEnd, Qt::QueuedConnection);
    }
}

void KorbRdvClientSocket::sendGatheredAtTurnEnd()
{
    m_sendQueued = false;
    sendGathered();
    noteEmptied();
}

void KorbRdvClientSocket::sendGathered()
{
    if (m_gathered.isEmpty())
        return;
    const QByteArray gathered = m_gathered;
    m_gathered.clear();
    writeThrough(gathered.constData(), gathered.size(), false);
}

qint64 KorbRdvClientSocket::writeThrough(const char *data, qint64 size, bool packet)
{
    qint64 sent = 0;
    if (QTcpSocket::bytesToWrite() == 0 && state() == ConnectedState) {
        sent = sendToKernel(data, size);
        if (sent > 0)
            emit bytesWritten(sent);
        if (sent == size)
            return size;
    }
    // The rest queues behind whatever waits already, copied once into the
    // socket's buffer; the write notification sends it.
    noteWaiting();
    // Only what the kernel refused counts against the reply bound.
    if (!packet)
        countReply(size - sent);
    const qint64 queued = QTcpSocket::writeData(data + sent, size - sent);
    if (queued < 0)
        return sent > 0 ? sent : queued;
    return sent + queued;
}

qint64 KorbRdvClientSocket::sendToKernel(const char *data, qint64 size)
{
    // Never blocks, never raises SIGPIPE; a real error is left for the
    // socket's own write, which reports it through the usual signals.
    const ssize_t n = ::send(int(socketDescriptor()), data, size_t(size), MSG_DONTWAIT | MSG_NOSIGNAL);
    return n > 0 ? qint64(n) : 0;
}
