#include "src/korb_rdv_ws_client.h"

#include "logger/korb_log.h"
#include "src/korb_rdv_client_link.h"

#include <QTcpSocket>

#include <QWebSocket>

#include <utility>

KorbRdvWsClient::KorbRdvWsClient(QObject *parent, QWebSocket *socket, KorbRdvClientLink *link, quint64 seq)
    : QObject(parent), m_socket(socket), m_link(link), m_seq(seq)
{
    link->watch(
        this, [this] { onDrained(); }, [this] { emit repliesUnread(); });
}

bool KorbRdvWsClient::isConnected() const
{
    return m_link->socket()->state() == QAbstractSocket::ConnectedState && !m_link->closing();
}

bool KorbRdvWsClient::mayCommand() const
{
    return m_link->mayCommand();
}

qint64 KorbRdvWsClient::queuedBytes() const
{
    return m_link->bytesToWrite();
}

qint64 KorbRdvWsClient::behindSince() const
{
    return m_link->behindSince();
}

bool KorbRdvWsClient::give(const QByteArray &frame, quint64 seq)
{
    m_seq = seq;
    const bool replacing = !m_waiting.isEmpty();
    if (replacing) {
        ++m_replaced;
        if (!m_behind) {
            m_behind = true;
            KLOGF(parent(), 1,
                  tr("клиент %1 не успевает читать: ожидающие пакеты заменяются более новыми")
                      .arg(descriptor()));
        }
    }
    if (m_link->idle()) {
        m_waiting.clear();
        m_link->writePacket(frame);
    } else {
        m_waiting = frame;
    }
    return replacing;
}

void KorbRdvWsClient::writeWaiting()
{
    if (m_waiting.isEmpty() || !m_link->idle() || !isConnected())
        return;
    // Taken before the write: a broken connection may drop this client
    // from the table, and delete it, during the write.
    m_link->writePacket(std::exchange(m_waiting, QByteArray()));
}

void KorbRdvWsClient::onDrained()
{
    if (m_waiting.isEmpty())
        m_behind = false;
    else
        emit ready(); // written from the server's next slice, not from inside the socket's signal
}

int KorbRdvWsClient::admitLine()
{
    if (m_lastLine.isValid() && m_lastLine.elapsed() < LineIntervalMs) {
        ++m_heldLines;
        return -1;
    }
    m_lastLine.start();
    const int before = m_heldLines;
    m_heldLines = 0;
    return before;
}

QByteArray KorbRdvWsClient::heldBackNote(int held)
{
    return held > 0 ? QByteArrayLiteral("held back: ") + QByteArray::number(held) : QByteArray();
}
