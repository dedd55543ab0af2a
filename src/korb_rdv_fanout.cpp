#include "src/korb_rdv_fanout.h"

#include "src/korb_rdv_wire.h"
#include "src/korb_rdv_ws_client.h"

#include <QElapsedTimer>
#include <QPointer>
#include <QVector>

#include <algorithm>

KorbRdvFanOut::KorbRdvFanOut(QObject *parent, const Table &table) : QObject(parent), m_table(table) {}

void KorbRdvFanOut::send(const QByteArray &packet, qint64 ingestNs)
{
    if (m_holding) {
        m_held.append({packet, ingestNs});
        return;
    }
    emit sent(packet);
    m_packetFrame = Rdv::wsBinaryFrame(packet);
    ++m_packetSeq;
    m_stamps[m_packetSeq % StampedPackets] = {m_packetSeq, ingestNs};
    if (!m_passActive) {
        m_passActive = true;
        m_passFrame = m_packetFrame;
        m_passSeq = m_packetSeq;
        m_passLast = nullptr;
    }
    // The first slice goes at once; a queued slice carries on by itself.
    if (!m_sliceQueued)
        runSlice();
}

void KorbRdvFanOut::release(bool newestOnly)
{
    m_holding = false;
    QList<QPair<QByteArray, qint64>> held;
    held.swap(m_held);
    if (newestOnly && held.size() > 1)
        held.erase(held.begin(), held.end() - 1);
    for (const auto &packet : qAsConst(held))
        send(packet.first, packet.second);
}

void KorbRdvFanOut::ready(QWebSocket *socket)
{
    m_ready.append(socket);
    queueSlice();
}

void KorbRdvFanOut::queueSlice()
{
    if (m_sliceQueued)
        return;
    m_sliceQueued = true;
    QMetaObject::invokeMethod(this, &KorbRdvFanOut::runSlice, Qt::QueuedConnection);
}

void KorbRdvFanOut::runSlice()
{
    m_sliceQueued = false;
    QElapsedTimer clock;
    clock.start();
    const auto sliceOver = [&] {
        if (clock.nsecsElapsed() < SliceNs)
            return false;
        queueSlice();
        return true;
    };
    // Clients that have caught up take their waiting packet first.
    while (!m_ready.isEmpty()) {
        if (KorbRdvWsClient *client = m_table.value(m_ready.takeFirst())) {
            // It writes the packet waiting for it, its newest, if it can.
            if (client->queuedBytes() == 0 && client->isConnected())
                noteWritten(client->seq());
            client->writeWaiting();
        }
        if (sliceOver())
            return;
    }
    while (m_passActive) {
        // Looked up by key each time: the table may change between slices.
        const auto it = m_table.upperBound(m_passLast);
        if (it == m_table.end()) {
            endPass();
            continue;
        }
        m_passLast = it.key();
        handOut(*it);
        if (sliceOver())
            return;
    }
}

void KorbRdvFanOut::endPass()
{
    if (m_passSeq != m_packetSeq) {
        // A newer packet came during the pass: from the first client again,
        // passing over the ones that have it already.
        m_passFrame = m_packetFrame;
        m_passSeq = m_packetSeq;
        m_passLast = nullptr;
        return;
    }
    m_passActive = false;
    enforceQueuedBound();
}

void KorbRdvFanOut::handOut(KorbRdvWsClient *client)
{
    if (!client->isConnected()) {
        client->skipTo(m_packetSeq);
        return;
    }
    // A write that finds the connection broken drops the client from the
    // table on the spot (a TLS write reaches the kernel at once).
    const QPointer<KorbRdvWsClient> alive(client);
    // The packet of the pass first, so that no client misses it for coming
    // late in the table; then a newer one that came during the pass.
    if (client->seq() < m_passSeq)
        m_replacedPackets += give(client, m_passFrame, m_passSeq);
    if (alive && client->seq() < m_packetSeq)
        m_replacedPackets += give(client, m_packetFrame, m_packetSeq);
}

bool KorbRdvFanOut::give(KorbRdvWsClient *client, const QByteArray &frame, quint64 seq)
{
    // A client with nothing queued writes at once.
    if (client->queuedBytes() == 0)
        noteWritten(seq);
    return client->give(frame, seq);
}

void KorbRdvFanOut::noteWritten(quint64 seq)
{
    Stamp &stamp = m_stamps[seq % StampedPackets];
    if (stamp.seq != seq || stamp.ingestNs < 0)
        return;
    m_ingestToSend.observe(KorbRdvHistogram::clockNs() - stamp.ingestNs);
    stamp.ingestNs = -1; // later writes are not the first
}

// Furthest behind is the client whose queue started to fill the earliest and
// has not emptied since: it has gone longest without taking anything.
void KorbRdvFanOut::enforceQueuedBound()
{
    qint64 total = 0;
    QVector<QPair<qint64, KorbRdvWsClient *>> behind;
    for (KorbRdvWsClient *client : m_table) {
        total += client->queuedBytes();
        if (client->queuedBytes() > 0)
            behind.append({client->behindSince(), client});
    }
    std::sort(behind.begin(), behind.end());
    for (const auto &b : qAsConst(behind)) {
        if (total <= m_maxQueuedBytes)
            break;
        total -= b.second->queuedBytes();
        emit overQueued(b.second); // the table loses it
    }
}
