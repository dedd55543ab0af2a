#pragma once

#include "src/korb_rdv_client_link.h"

#include <QByteArray>
#include <QTcpSocket>

// One WebSocket client's TCP connection, created by the relay itself so that
// its write path is the relay's: a broadcast packet goes straight to the
// kernel while nothing is queued; the WebSocket layer's own small writes
// (replies, pongs, a frame's header and its payload apart) gather until the
// end of the event-loop turn and go to the kernel together. Only what the
// kernel does not take waits in the socket's buffer, sent later on the
// event loop's write notification. Every write passes here, so frames stay
// whole and in order. It also keeps the figures the server's client policy
// needs.
class KorbRdvClientSocket : public QTcpSocket, public KorbRdvClientLink
{
    Q_OBJECT
    Q_DISABLE_COPY(KorbRdvClientSocket)

public:
    // `replyBound`: bytes of writes other than packets that may wait at once.
    explicit KorbRdvClientSocket(QObject *parent, qint64 replyBound);

    QTcpSocket *socket() override { return this; }
    // Bytes waiting in the relay: gathered for the end of the turn and queued.
    qint64 bytesToWrite() const override;

    // Sends what has gathered first, so that nothing is lost or reordered.
    void disconnectFromHost() override;
    // After a close frame: lingers (see KorbRdvClientLink).
    void close() override;

protected:
    qint64 writeData(const char *data, qint64 size) override;

private:
    void gather(const char *data, qint64 size);
    void sendGathered();
    void sendGatheredAtTurnEnd();
    qint64 writeThrough(const char *data, qint64 size, bool packet);
    qint64 sendToKernel(const char *data, qint64 size);

    QByteArray m_gathered;
    bool m_sendQueued = false;
};
