#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QObject>
#include <QPointer>

#include <functional>

class QTcpSocket;
class QWebSocket;

// A client's connection as the WebSocket server's broadcast and client
// policy see it, whichever port it came through: the plain port's socket
// writes straight to the kernel, the TLS port's encrypts for its client
// alone. Each counts every byte waiting in the relay, whatever its stage, so
// that latest-wins and the bounds treat both alike; the figures those need
// are kept here, once for both.
//
// The close after a close frame lingers: the client keeps sending while the
// frame waits behind what it has not read, and a socket closed with unread
// input makes the kernel reset the connection, which throws away what the
// relay has not sent yet. So, closing, the relay sends nothing more, reads
// and drops the client's input, shuts its own side once everything has gone
// to the kernel, and closes when the client does, or when a grace period has
// passed without the client taking anything more.
class KorbRdvClientLink
{
public:
    // A client being closed gets this long, again as long as it reads, to
    // take what waits for it and to close.
    static constexpr int CloseGraceMs = 2000;
    // And this long at most, however slowly it reads: a dropped client's
    // socket and the bytes it did not take are held no longer.
    static constexpr int MaxCloseLingerMs = 20000;

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
    // Once `webSocket`, the WebSocket over this connection, has sent its
    // close frame, closing the connection lingers.
    void lingerAfterCloseFrame(const QWebSocket *webSocket);
    // The connection is being closed: it takes no more writes.
    bool closing() const { return m_linger == Lingering; }

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
    // For the socket's close(): true when the close lingers instead; false
    // when the socket is to close at once: no close frame was sent, or it
    // lingers already and is now aborted.
    bool lingerInsteadOfClosing();

private:
    enum Linger { NotYet, Lingering, Over };

    void dropInput();
    void checkLinger();
    // Bytes the client has not taken yet: in the relay and in the kernel.
    qint64 untaken();

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
    bool m_closeFrameSent = false;
    Linger m_linger = NotYet;
    bool m_writesShut = false;
    QElapsedTimer m_lingerClock;
    qint64 m_untakenAtCheck = 0;
};
