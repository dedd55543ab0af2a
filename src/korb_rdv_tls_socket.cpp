#include "src/korb_rdv_tls_socket.h"

KorbRdvTlsSocket::KorbRdvTlsSocket(QObject *parent, qint64 replyBound)
    : QSslSocket(parent), KorbRdvClientLink(replyBound)
{
    // Only the kernel taking encrypted bytes empties the queue. QSslSocket
    // reports plain bytes as written once encrypted, before the encrypted
    // ones reach its own buffer: the queue looks empty for that moment.
    connect(this, &QSslSocket::encryptedBytesWritten, this, [this] { noteEmptied(); });
}

qint64 KorbRdvTlsSocket::bytesToWrite() const
{
    return QSslSocket::bytesToWrite() + encryptedBytesToWrite();
}

void KorbRdvTlsSocket::close()
{
    if (!lingerInsteadOfClosing())
        QSslSocket::close();
}

qint64 KorbRdvTlsSocket::writeData(const char *data, qint64 size)
{
    if (closing())
        return size; // nothing follows the close frame
    if (!m_upgraded)
        m_upgraded = QByteArray::fromRawData(data, int(qMin<qint64>(size, 16))).startsWith("HTTP/1.1 101 ");
    noteWaiting();
    // Replies gather with the turn's other writes, to be encrypted together,
    // as long as the kernel has taken every encrypted byte before them, as
    // on the plain port; behind bytes the kernel refused, they count against
    // the bound.
    if (!writingPacket()) {
        if (encryptedBytesToWrite() > 0)
            countReply(size);
        return QSslSocket::writeData(data, size);
    }
    // A packet is written only while nothing waits: what the kernel does not
    // take now makes the client busy, as on the plain port.
    const qint64 written = QSslSocket::writeData(data, size);
    flush();
    return written;
}
