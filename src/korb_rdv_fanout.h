#pragma once

#include "src/korb_rdv_histogram.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QObject>

class KorbRdvWsClient;
class QWebSocket;

// The broadcast of the relay's packets over its client table. The newest
// packet wins: it is framed once, and a pass hands it to every client in
// table order, in slices of bounded time. A packet that arrives during a
// pass goes, after the pass's own, to the clients not yet visited; the ones
// visited before it get it when the pass starts over from the first client.
// A client busy writing keeps only the newest one waiting.
class KorbRdvFanOut : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY(KorbRdvFanOut)

public:
    using Table = QMap<QWebSocket *, KorbRdvWsClient *>;

    // A pass gives the event loop back after this long, so that the device's
    // sockets are read between slices of a large fan-out.
    static constexpr qint64 SliceNs = 1000 * 1000;
    // Bytes waiting in the relay for all clients together; past it the
    // clients furthest behind are cut off first.
    static constexpr qint64 DefaultMaxQueuedBytes = 256 * 1024 * 1024;

    // `table` is the server's client table, read at every step of a pass.
    explicit KorbRdvFanOut(QObject *parent, const Table &table);

    // `ingestNs`: when the read that completed its frames happened
    // (KorbRdvHistogram::clockNs), -1 for a packet not made from a read.
    void send(const QByteArray &packet, qint64 ingestNs = -1);
    // Packets sent between the two wait; `release` broadcasts them in order,
    // or with `newestOnly` the last one alone.
    void hold() { m_holding = true; }
    void release(bool newestOnly);
    // The client's socket has drained while a packet waited for it.
    void ready(QWebSocket *socket);
    // Number of the newest packet: a newcomer starts after it.
    quint64 newest() const { return m_packetSeq; }
    qint64 replacedPackets() const { return m_replacedPackets; }
    bool passActive() const { return m_passActive; }
    // From the ingest of a packet to its first write to a client.
    const KorbRdvHistogram &ingestToSend() const { return m_ingestToSend; }
    void setMaxQueuedBytes(qint64 bytes) { m_maxQueuedBytes = bytes; }
    qint64 maxQueuedBytes() const { return m_maxQueuedBytes; }

signals:
    // Every packet handed to the broadcast, as the clients get it.
    void sent(const QByteArray &packet);
    // The queues are past their bound and this client is furthest behind.
    void overQueued(KorbRdvWsClient *client);

private:
    void queueSlice();
    void runSlice();
    void handOut(KorbRdvWsClient *client);
    // Hands a packet to the client; false when none was replaced.
    bool give(KorbRdvWsClient *client, const QByteArray &frame, quint64 seq);
    // Packet `seq` has been written to a client: the first write is measured.
    void noteWritten(quint64 seq);
    void endPass();
    void enforceQueuedBound();

    const Table &m_table;
    qint64 m_maxQueuedBytes = DefaultMaxQueuedBytes;
    QByteArray m_packetFrame;
    quint64 m_packetSeq = 0;
    // The packet the pass hands out: the newest when it last began at the first client.
    QByteArray m_passFrame;
    quint64 m_passSeq = 0;
    bool m_passActive = false;
    QWebSocket *m_passLast = nullptr; // last client visited; null: none yet
    bool m_sliceQueued = false;
    // Clients whose queue emptied while a packet waited for them.
    QList<QWebSocket *> m_ready;
    qint64 m_replacedPackets = 0;
    bool m_holding = false;
    QList<QPair<QByteArray, qint64>> m_held; // with their ingest moments
    // The ingest moments of the newest packets by number, until their first
    // write: a client may first write a packet after newer ones were made.
    struct Stamp
    {
        quint64 seq = 0;
        qint64 ingestNs = -1;
    };
    static constexpr int StampedPackets = 16;
    Stamp m_stamps[StampedPackets];
    KorbRdvHistogram m_ingestToSend;
};
