#include "src/korb_rdv_client_link.h"

#include <QDeadlineTimer>
#include <QTcpSocket>

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

bool KorbRdvClientLink::countReply(qint64 bytes)
{
    m_replyBacklog += bytes;
    if (m_replyBacklog <= m_replyBound || m_overBound)
        return false;
    m_overBound = true;
    return true;
}

bool KorbRdvClientLink::noteEmptied()
{
    if (m_behindSince < 0 || bytesToWrite() > 0)
        return false;
    m_behindSince = -1;
    m_replyBacklog = 0;
    return true;
}
