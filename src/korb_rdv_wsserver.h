#pragma once

#include "src/korb_rdv_sink.h"
#include "src/korb_rdv_wire.h"

#include <QElapsedTimer>
#include <QFile>
#include <QList>
#include <QMap>
#include <QPointer>
#include <QVariant>
#include <QWebSocket>
#include <QWebSocketServer>

#include <cstdlib>
#include <memory>

class KorbRdvClientLink;
class KorbRdvWsListener;
class QTcpSocket;
class QTimerEvent;

// The daemon's only outward data interface: a WebSocket server (plain, and
// TLS through a listener added to it) that keeps a table of its clients,
// broadcasts the binary Rdv packets built from the device frames, answers the
// clients' text commands and, when a recorded file is loaded, replays it to
// the clients at the pace of its own time stamps.
class WebSocketServer : public QWebSocketServer, public KorbRdvSink
{
    Q_OBJECT
    Q_DISABLE_COPY(WebSocketServer)

public:
    // Commands are a few bytes; a larger message from a client is refused by
    // its socket before it is buffered.
    static constexpr quint64 MaxClientMessageSize = 64 * 1024;
    // A client's input taken per event-loop turn: one capped message with its
    // frame header fits, and a flooding client cannot hold the loop longer.
    static constexpr qint64 ClientReadBufferSize = qint64(MaxClientMessageSize) + 1024;
    // Replies and other writes that are no packets, waiting for one client at
    // once; a client that sends commands without reading the answers is
    // disconnected (1008) past it instead of growing the relay's memory.
    static constexpr qint64 MaxClientReplyBacklog = 64 * 1024;
    // Clients served at once (the -max_clients= default); more are refused
    // with 1013. Connections still in the handshake are held to it as well.
    static constexpr int DefaultMaxClients = 1024;
    // "Try Again Later" of the WebSocket close code registry; Qt 5 has no name for it.
    static constexpr auto CloseCodeTryAgainLater = QWebSocketProtocol::CloseCode(1013);
    // Bytes waiting in the relay for all clients together; past it the
    // clients furthest behind are cut off first.
    static constexpr qint64 DefaultMaxQueuedBytes = 256 * 1024 * 1024;
    // A broadcast gives the event loop back after this long, so that the
    // device's sockets are read between slices of a large fan-out.
    static constexpr qint64 FanOutSliceNs = 1000 * 1000;
    // A client told why it is closed gets this long to read it before its
    // connection is cut.
    static constexpr int CloseGraceMs = 2000;
    // Console lines caused by one client's messages: about one per interval.
    static constexpr qint64 ClientLineIntervalMs = 1000;
    // Characters of a client's message shown in its console line.
    static constexpr int TracedMessageChars = 200;
    // The file is read in pieces of this size.
    static constexpr int PlaybackChunkSize = 4095;

    explicit WebSocketServer(QObject *parent,
                             quint16 port = 0); // server name "rdv", NonSecureMode; 0 -> 3005
    ~WebSocketServer() override;

    bool start(quint16 port = 0);
    void stop();
    quint16 port() const;
    // The listener's state: the relay listens through its own TCP server,
    // not through the one QWebSocketServer keeps, whose clients would bypass
    // the relay's client policy; so listen() is the relay's own too.
    bool listen(const QHostAddress &address = QHostAddress::Any, quint16 port = 0);
    bool isListening() const;
    quint16 serverPort() const;
    void close();
    QString errorString() const;

    int maxClients() const { return m_maxClients; }
    void setMaxClients(int clients) { m_maxClients = qMax(1, clients); }
    void setMaxQueuedBytes(qint64 bytes) { m_maxQueuedBytes = bytes; }

    bool sendClient(quint64 descriptor, const QVariant &data);
    void sendAllClients(const QVariant &data);
    bool removeClient(quint64 descriptor);
    int clientCount() const override;
    // Clients plus the consumers outside the table (a broker link that
    // publishes the packets): packets are built, and playback runs, while
    // there is any.
    int consumerCount() const override;
    void setExternalConsumers(int count);

    // Another listener of the relay (the TLS port's): its connections join
    // the same handshake and client table as the plain port's. The server
    // takes it as a child, closes it with the plain one and deletes it after
    // the clients, whose sockets it may own.
    void addListener(KorbRdvWsListener *listener);

    void sendRdv(const RdvFrame *frame) override;
    void sendRdv(const RdvChannelMap &channels) override;

    bool setFileNm(const QString &name);
    // One playback step over the loaded file (what each tick of the playback
    // timer runs).
    void playbackStep();

    // Binary messages handed to the broadcast since the process started.
    static int broadcastCount();

    // Whether the playback timer runs, and its period; for the streamer's
    // status and for tests.
    bool playbackActive() const { return m_timerId != 0; }
    int playbackTimerInterval() const { return m_timerInterval; }
    // Packets sent and frames passed over by playback since the file was loaded.
    qint64 playbackPackets() const { return m_playPackets; }
    qint64 playbackSkipped() const { return m_playSkipped; }
    // Completed passes over the loaded file.
    int playbackPasses() const { return m_playPasses; }
    // Whether a pass is still handing the newest packet out.
    bool broadcastInProgress() const { return m_passActive; }
    // Packets that waited for a slow client and gave way to a newer one.
    qint64 replacedPackets() const { return m_replacedPackets; }

signals:
    void connected(QWebSocket *socket);
    void disconnected(QWebSocket *socket);
    void readyRead(const QVariant &message, QWebSocket *socket);
    void runCmd(const QString &cmd);
    void runCmd(quint16 intervalMs);
    // Every binary message handed to the broadcast, as the clients get it.
    void binaryBroadcast(const QByteArray &packet);

public slots:
    void onReadyReadT(const QString &message);
    void onReadyReadB(const QByteArray &message);
    void onNewConnection();
    void onDisconnected();

protected:
    void timerEvent(QTimerEvent *event) override;

private:
    struct FreeDeleter
    {
        void operator()(char *p) const { std::free(p); }
    };

    // Console lines caused by one client's messages: about one an interval;
    // the ones held back in between are counted and reported with the next.
    struct LineFold
    {
        QElapsedTimer last;
        int held = 0;
        // -1: hold this line back; else the number held back before it.
        int admit();
    };

    // A client's share of the broadcast: at most the packet being written
    // (in its socket) plus the newest one waiting here.
    struct Client
    {
        KorbRdvClientLink *tcp = nullptr;
        QByteArray waiting;
        quint64 seq = 0; // newest packet handed over, written or waiting
        qint64 replaced = 0;
        bool behind = false; // a packet was replaced since it last caught up
        LineFold lines;
    };

    void restartPlayback();
    void stopPlaybackTimer();
    void resetPass();
    void onAccepted(KorbRdvClientLink *link);
    KorbRdvClientLink *takeHandshake(const QWebSocket *socket);
    void dismiss(QWebSocket *socket, QWebSocketProtocol::CloseCode code, const QString &reason);
    void dropFromTable(QWebSocket *socket);
    void onReplyBoundExceeded(QWebSocket *socket);
    void cutOff(QWebSocket *socket);

    void broadcastBinary(const QByteArray &packet);
    void queueSlice();
    void runSlice();
    void handOut(const QWebSocket *socket, Client &client);
    void give(const QWebSocket *socket, Client &client, const QByteArray &frame, quint64 seq);
    void writeWaiting(Client &client);
    void onClientDrained(QWebSocket *socket);
    void endPass();
    void enforceQueuedBound();
    void playbackEndOfPass();

    quint16 m_port = 0;
    int m_timerId = 0;
    int m_timerInterval = 0;
    QFile m_file;
    QElapsedTimer m_playClock;

    // Playback buffer: the whole file, zero-filled up to the maximum size.
    std::unique_ptr<char, FreeDeleter> m_playBuf;
    int m_playBufSize = 0;
    int m_loadedSize = 0;
    int m_scanPos = 0;
    int m_lastFrameLen = 0;
    bool m_haveFirstFrame = false;
    bool m_passHasFrames = false;
    quint64 m_firstFrameMs = 0;
    qint64 m_lastFrameSec2000 = 0;
    RdvChannelMap m_playMap;
    qint64 m_playPackets = 0;
    qint64 m_playSkipped = 0;
    qint64 m_passBytes = 0;
    qint64 m_passSkipped = 0;
    int m_playPasses = 0;

    bool m_lastSentWasChannel = false;
    int m_lastPacketSize = 0;

    KorbRdvWsListener *m_listener;
    QList<QPointer<QTcpSocket>> m_handshakes;
    int m_maxClients = DefaultMaxClients;
    int m_externalConsumers = 0;
    qint64 m_maxQueuedBytes = DefaultMaxQueuedBytes;
    // The client table, ordered by socket pointer: broadcasts visit it in that order.
    QMap<QWebSocket *, Client> m_clients;

    // Broadcast: the newest packet, framed once for every client, and the
    // pass that hands it out slice by slice.
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
};
