#pragma once

#include <QByteArray>
#include <QObject>
#include <QPointer>

#include <functional>

class QTcpSocket;

// A client's connection as the WebSocket server's broadcast and client
// policy see it, whichever port it came through: the plain port's socket
// writes straight to the kernel, the TLS port's encrypts for its client
// alone. Each counts every byte waiting in the relay, whatever its stage, so
// that latest-wins and the bounds treat both alike; the figures those need
// are kept here, once for both.
class KorbRdvClientLink
{
public:
    virtual ~KorbRdvClientLink() = default;

    // The connection the WebSocket layer reads and writes.
    virtual QTcpSocket *socket() = 0;
    // Bytes waiting in the relay for this client.
    virtual qint64 bytesToWrite() const = 0;
    bool idle() const { return bytesToWrite() == 0; }
    // Writes one whole framed broadcast packet; false when the socket refused it.
    bool writePacket(const QByteArray &frame);
    // When bytes last started to wait in an empty queue (monotonic ns,
    // QDeadlineTimer::current), -1 while none wait: the earlier, the further
    // the client is behind.
    qint64 behindSince() const { return m_behindSince; }

    // Whether the client may send commands, as its request settled it.
    bool mayCommand() const { return m_mayCommand; }
    void setMayCommand(bool on) { m_mayCommand = on; }

    // While `context` lives: `drained` each time the queue has emptied, and
    // `overBound`, queued (the bound is found in the middle of a write of the
    // WebSocket layer), once writes other than packets pass the reply bound.
    void watch(QObject *context, std::function<void()> drained, std::function<void()> overBound);

protected:
    // `replyBound`: bytes of writes other than packets that may wait at once.
    explicit KorbRdvClientLink(qint64 replyBound) : m_replyBound(replyBound) {}

    // Whether the write under way is a broadcast packet's.
    bool writingPacket() const { return m_writingPacket; }
    // Bytes have started to wait.
    void noteWaiting();
    // `bytes` of writes other than packets wait behind others; once per
    // connection, that passes the bound.
    void countReply(qint64 bytes);
    // The queue may have emptied since bytes started to wait: the figures
    // then start again.
    void noteEmptied();

private:
    const qint64 m_replyBound;
    // Writes other than packets counted since the queue was last empty.
    qint64 m_replyBacklog = 0;
    qint64 m_behindSince = -1;
    bool m_writingPacket = false;
    bool m_overBound = false;
    bool m_mayCommand = true;
    QPointer<QObject> m_context;
    std::function<void()> m_drained;
    std::function<void()> m_overBoundCall;
};
