#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QObject>

class KorbRdvClientLink;
class QWebSocket;

// One client in the relay's table: its WebSocket, the connection under it
// (plain or TLS) that broadcast packets are written to, its share of the broadcast (the
// packet being written plus at most the newest one waiting here), and the
// folding of the console lines its messages cause.
class KorbRdvWsClient : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY(KorbRdvWsClient)

public:
    // Console lines caused by one client's messages: about one per interval.
    static constexpr qint64 LineIntervalMs = 1000;

    // `seq`: the number of the newest packet so far, which a newcomer does not get.
    explicit KorbRdvWsClient(QObject *parent, QWebSocket *socket, KorbRdvClientLink *link, quint64 seq);

    QWebSocket *socket() const { return m_socket; }
    KorbRdvClientLink *link() const { return m_link; }
    // The descriptor in messages and in sendClient/removeClient: the socket pointer.
    quint64 descriptor() const { return quint64(quintptr(m_socket)); }
    // The newest packet handed over, written or waiting.
    quint64 seq() const { return m_seq; }
    // Connected and not being closed: it takes packets.
    bool isConnected() const;
    // Bytes waiting in the relay for this client, and since when (-1: none).
    qint64 queuedBytes() const;
    qint64 behindSince() const;
    // Packets that waited for this client and gave way to a newer one.
    qint64 replaced() const { return m_replaced; }
    // An operator may steer the relay; a viewer only receives.
    bool mayCommand() const;

    // Hands packet number `seq` over: written at once while the socket is
    // idle, else it waits, replacing the one waiting. True when it replaced one.
    // A write that finds the connection broken deletes this client (the
    // server drops it from the table): nothing of it is used after a write.
    bool give(const QByteArray &frame, quint64 seq);
    // The packets up to `seq` are not for this client (it is not connected).
    void skipTo(quint64 seq) { m_seq = seq; }
    // Writes the waiting packet if the socket has drained.
    void writeWaiting();
    // -1: hold this console line back; else the number held back before it.
    int admitLine();
    // Tail of an admitted console line: how many were held back before it.
    static QByteArray heldBackNote(int held);

signals:
    // The socket has drained while a packet waits: it can be written now.
    void ready();
    // Writes other than packets wait past the bound: the client does not read its replies.
    void repliesUnread();

private:
    void onDrained();

    QWebSocket *const m_socket;
    KorbRdvClientLink *const m_link;
    QByteArray m_waiting;
    quint64 m_seq;
    qint64 m_replaced = 0;
    bool m_behind = false; // a packet was replaced since the client last caught up
    QElapsedTimer m_lastLine;
    int m_heldLines = 0;
};
