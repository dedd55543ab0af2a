#pragma once

#include "src/korb_rdv_client_link.h"

#include <QSslSocket>

// One client's connection on the TLS port. Every client encrypts on its
// own. A broadcast packet is encrypted and offered to the kernel as it is
// written, as the plain port's goes straight to the kernel: left to
// QSslSocket, it would wait unencrypted for the end of the event-loop turn,
// the client would look busy for the rest of the turn, and of a burst of
// packets in one turn it would get the first and the last. What waits is
// counted in both stages: QSslSocket's own bytesToWrite() drops to zero once
// the bytes are encrypted, however many of them the kernel has not yet
// taken, and latest-wins and the bounds would never see a stalled client.
class KorbRdvTlsSocket : public QSslSocket, public KorbRdvClientLink
{
    Q_OBJECT
    Q_DISABLE_COPY(KorbRdvTlsSocket)

public:
    // `replyBound`: bytes of writes other than packets that may wait at once.
    explicit KorbRdvTlsSocket(QObject *parent, qint64 replyBound);

    QTcpSocket *socket() override { return this; }
    // Plain bytes not yet encrypted and encrypted ones not yet with the kernel.
    qint64 bytesToWrite() const override;

    // Whether the WebSocket layer has answered the upgrade: its first write
    // is that answer.
    bool upgraded() const { return m_upgraded; }

    // After a close frame: lingers (see KorbRdvClientLink).
    void close() override;

protected:
    qint64 writeData(const char *data, qint64 size) override;

private:
    bool m_upgraded = false;
};
