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

void KorbRdvClientLink::watch(QObject *context, std::function<void()> drained,
                              std::function<void()> overBound)
{
    m_context = context;
    m_drained = std::move(drained);
    m_overBoundCall = std::move(overBound);
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
    if (m_behindSince < 0 || bytesToWrite() > 0)
        return;
    m_behindSince = -1;
    m_replyBacklog = 0;
    if (m_context)
        m_drained();
}
