#pragma once

#include <QByteArray>
#include <QMetaObject>

#include <functional>

class QObject;
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

    // Runs `slot` in `context` each time the queue has emptied.
    virtual QMetaObject::Connection onDrained(QObject *context, std::function<void()> slot) = 0;
    // Runs `slot` in `context`, queued (the bound is found in the middle of
    // a write of the WebSocket layer), when writes other than packets pass
    // the reply bound; once per connection.
    virtual QMetaObject::Connection onReplyBoundExceeded(QObject *context, std::function<void()> slot) = 0;

protected:
    // `replyBound`: bytes of writes other than packets that may wait at once.
    explicit KorbRdvClientLink(qint64 replyBound) : m_replyBound(replyBound) {}

    // Whether the write under way is a broadcast packet's.
    bool writingPacket() const { return m_writingPacket; }
    // Bytes have started to wait.
    void noteWaiting();
    // `bytes` of writes other than packets wait behind others; true, once
    // per connection, when that passes the bound.
    bool countReply(qint64 bytes);
    // Whether the queue has emptied since bytes started to wait; the
    // figures then start again.
    bool noteEmptied();

private:
    const qint64 m_replyBound;
    // Writes other than packets counted since the queue was last empty.
    qint64 m_replyBacklog = 0;
    qint64 m_behindSince = -1;
    bool m_writingPacket = false;
    bool m_overBound = false;
};
