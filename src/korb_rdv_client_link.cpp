#include "src/korb_rdv_client_link.h"

#include <QDeadlineTimer>
#include <QTcpSocket>
#include <QTimer>
#include <QWebSocket>

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

bool KorbRdvClientLink::writePacket(const QByteArray &frame)
{
    m_writingPacket = true;
    const qint64 written = socket()->write(frame);
    m_writingPacket = false;
    return written == frame.size();
}

void KorbRdvClientLink::noteWaiting()
{
    if (m_behindSince < 0)
        m_behindSince = QDeadlineTimer::current().deadlineNSecs();
}

void KorbRdvClientLink::watch(QObject *context, std::function<void()> drained,
                              std::function<void()> overBound)
{
    m_context = context;
    m_drained = std::move(drained);
    m_overBoundCall = std::move(overBound);
}

void KorbRdvClientLink::lingerAfterCloseFrame(const QWebSocket *webSocket)
{
    // QWebSocket says so once its close frame is written, before it closes
    // the socket; a close without one (an abort) does not linger.
    QObject::connect(webSocket, &QWebSocket::aboutToClose, socket(), [this] { m_closeFrameSent = true; });
}

void KorbRdvClientLink::countReply(qint64 bytes)
{
    m_replyBacklog += bytes;
    if (m_replyBacklog <= m_replyBound || m_overBound)
        return;
    m_overBound = true;
    if (m_context)
        QMetaObject::invokeMethod(m_context, m_overBoundCall, Qt::QueuedConnection);
}

void KorbRdvClientLink::noteEmptied()
{
    if (m_linger == Lingering && !m_writesShut && bytesToWrite() == 0) {
        // The close frame, last of all, is with the kernel: the end of the
        // stream follows it, and a client that waits for it can close.
        m_writesShut = true;
        ::shutdown(int(socket()->socketDescriptor()), SHUT_WR);
    }
    if (m_behindSince < 0 || bytesToWrite() > 0)
        return;
    m_behindSince = -1;
    m_replyBacklog = 0;
    if (m_context)
        m_drained();
}

bool KorbRdvClientLink::lingerInsteadOfClosing()
{
    if (m_linger == Lingering) {
        // A close while lingering (an abort: the client is cut off) closes
        // at once; the grace timer still ends one that waits to send.
        m_linger = Over;
        return false;
    }
    QTcpSocket *const s = socket();
    if (m_linger == Over || !m_closeFrameSent || s->state() != QAbstractSocket::ConnectedState)
        return false;
    m_linger = Lingering;
    // The WebSocket layer reads no more: what the client sends is dropped here.
    QObject::disconnect(s, &QIODevice::readyRead, nullptr, nullptr);
    QObject::connect(s, &QIODevice::readyRead, s, [this] { dropInput(); });
    dropInput();
    m_lingerClock.start();
    m_untakenAtCheck = untaken();
    QTimer::singleShot(CloseGraceMs, s, [this] { checkLinger(); });
    noteEmptied();
    return true;
}

void KorbRdvClientLink::dropInput()
{
    socket()->skip(socket()->bytesAvailable());
}

void KorbRdvClientLink::checkLinger()
{
    if (socket()->state() == QAbstractSocket::UnconnectedState)
        return;
    const qint64 left = untaken();
    if (m_linger == Lingering && left > 0 && left < m_untakenAtCheck &&
        m_lingerClock.elapsed() < MaxCloseLingerMs) {
        m_untakenAtCheck = left;
        QTimer::singleShot(CloseGraceMs, socket(), [this] { checkLinger(); });
        return;
    }
    // The client has taken everything and has not closed, or takes nothing
    // more: either way it has had its time.
    m_linger = Over;
    socket()->abort();
}

qint64 KorbRdvClientLink::untaken()
{
    int inKernel = 0; // sent or not, not yet acknowledged by the client
    if (::ioctl(int(socket()->socketDescriptor()), SIOCOUTQ, &inKernel) != 0)
        inKernel = 0;
    return bytesToWrite() + inKernel;
}
