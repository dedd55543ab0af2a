#pragma once

#include "src/korb_rdv_sink.h"
#include "src/korb_rdv_wire.h"

#include <QElapsedTimer>
#include <QFile>
#include <QMap>
#include <QVariant>
#include <QWebSocket>
#include <QWebSocketServer>

#include <cstdlib>
#include <memory>

class QTimerEvent;

// The daemon's only outward data interface: a plain WebSocket server that
// keeps a table of its clients, broadcasts the binary Rdv packets built from
// the device frames, answers the clients' text commands and, when a recorded
// file is loaded, replays it to the clients at the pace of its own time stamps.
class WebSocketServer : public QWebSocketServer, public KorbRdvSink
{
    Q_OBJECT
    Q_DISABLE_COPY(WebSocketServer)

public:
    // A client that stops reading would otherwise make its socket's write
    // buffer grow with every packet; above this many queued bytes it is left
    // out of binary broadcasts until it has drained. Text replies still go.
    static constexpr qint64 MaxClientBacklog = 8 * 1024 * 1024;
    // Commands are a few bytes; a larger message from a client is refused by
    // its socket before it is buffered.
    static constexpr quint64 MaxClientMessageSize = 64 * 1024;
    // The file is read in pieces of this size.
    static constexpr int PlaybackChunkSize = 4095;

    explicit WebSocketServer(QObject *parent,
                             quint16 port = 0); // server name "rdv", NonSecureMode; 0 -> 3005
    ~WebSocketServer() override;

    bool start(quint16 port = 0);
    void stop();
    quint16 port() const;

    bool sendClient(quint64 descriptor, const QVariant &data);
    void sendAllClients(const QVariant &data);
    bool removeClient(quint64 descriptor);
    int clientCount() const override;

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
    // Binary sends left out because the client's backlog was over the limit.
    qint64 backlogSkips() const { return m_backlogSkips; }

signals:
    void connected(QWebSocket *socket);
    void disconnected(QWebSocket *socket);
    void readyRead(const QVariant &message, QWebSocket *socket);
    void runCmd(const QString &cmd);
    void runCmd(quint16 intervalMs);

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

    void restartPlayback();
    void stopPlaybackTimer();
    void resetPass();
    void sendBinary(QWebSocket *socket, const QByteArray &data);
    void broadcastBinary(const QByteArray &packet);
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
    qint64 m_backlogSkips = 0;

    QMap<QWebSocket *, QWebSocket *> m_clients;
};
