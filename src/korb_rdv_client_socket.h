#pragma once

#include <QTcpSocket>

// One WebSocket client's TCP connection, created by the relay itself so that
// its write path is the relay's: while nothing is queued, bytes go straight
// to the kernel; only what the kernel does not take waits in the socket's own
// buffer, sent later on the event loop's write notification. Every write
// passes here, the WebSocket layer's replies as well as the broadcast
// packets, so frames stay whole and in order. It also keeps the figures the
// server's client policy needs.
class KorbRdvClientSocket : public QTcpSocket
{
    Q_OBJECT
    Q_DISABLE_COPY(KorbRdvClientSocket)

public:
    // `replyBound`: bytes of writes other than packets that may wait at once.
    explicit KorbRdvClientSocket(QObject *parent, qint64 replyBound);

    // Writes one whole framed broadcast packet; false when the socket refused it.
    bool writePacket(const QByteArray &frame);
    bool idle() const { return bytesToWrite() == 0; }
    // Bytes written other than packets (replies, pongs, close frames) since
    // the queue was last empty.
    qint64 replyBacklog() const { return m_replyBacklog; }
    // When the queue last started to fill (monotonic ms, QDeadlineTimer::current),
    // -1 while it is empty: the earlier, the further the client is behind.
    qint64 behindSince() const { return m_behindSince; }

signals:
    // The queue has emptied: everything written so far is with the kernel.
    void drained();
    // The reply backlog passed the bound; emitted once per connection.
    void replyBoundExceeded();

protected:
    qint64 writeData(const char *data, qint64 size) override;

private:
    qint64 sendToKernel(const char *data, qint64 size);
    void onBytesWritten();

    const qint64 m_replyBound;
    qint64 m_replyBacklog = 0;
    qint64 m_behindSince = -1;
    bool m_writingPacket = false;
    bool m_overBound = false;
};
