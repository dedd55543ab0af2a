#pragma once

#include "src/korb_rdv_source.h"

#include <QAbstractSocket>
#include <QTimer>

class QSslSocket;

// The TCP data source: a client connection to the measuring device whose
// byte stream is appended to the character buffer and scanned for frames.
// A lost or refused connection is retried after a pause until stop().
class KorbRdvStreamerTcp : public KorbRdvSource
{
    Q_OBJECT
    Q_DISABLE_COPY(KorbRdvStreamerTcp)

public:
    // Wait for a connection to come up; the start-up and reconnect paths use
    // it. A refused connection ends the wait at once.
    static constexpr int ConnectTimeoutMs = 3000;
    // Pause before the next attempt after a failure or a disconnect, so a
    // missing device costs one attempt per second and not a busy loop.
    static constexpr int ReconnectDelayMs = 1000;
    // Silence that ends a burst; shorter than the UDP receiver's on purpose.
    static constexpr int WatchdogMs = 250;
    // Bytes taken from the socket per read: the rest stays queued for the
    // next round, so one read never exceeds the character buffer.
    static constexpr qint64 MaxReadChunk = 8 * 1024 * 1024;
    // Wait of testRemotePort for a probe connection.
    static constexpr int ProbeTimeoutMs = 1000;

    explicit KorbRdvStreamerTcp(QObject *parent, KorbRdvSink *sink, QObject *commandSource,
                                const QString &host, quint16 port);
    ~KorbRdvStreamerTcp() override;

    QString host() const { return m_host; }
    quint16 port() const { return m_port; }
    QAbstractSocket::SocketState state() const;
    bool reconnectPending() const { return m_reconnect.isActive(); }
    // Bytes received but not yet taken into the character buffer.
    qint64 pendingBytes() const;

public slots:
    // Connect, or reconnect, to the stored host and port and keep retrying.
    void rearm();
    // Close the connection and stay closed until rearm().
    void stop();
    // Connect to the stored host and port (the target of the reconnect path).
    bool connectToServer();
    bool connectToServer(const QString &host, quint16 port, int timeoutMs);
    bool waitForConnection(int timeoutMs);
    void closeConnection();
    // Reports, and enlarges, the socket's receive buffer.
    void ReceiveBuffer();
    // Whether "host:port" accepts a TCP connection.
    bool testRemotePort(const QString &hostPort);
    void disconnected();
    void error(QAbstractSocket::SocketError err);
    void readyRead();

protected:
    bool receiving() const override;

private:
    void scheduleReconnect(const QString &why);
    void ensureSocket();

    QSslSocket *m_socket = nullptr;
    quint16 m_port;
    QString m_host;
    int m_abort = 0; // 1 while an existing connection is torn down
    bool m_stopped = false;
    int m_inConnect = 0; // depth of connectToServer calls (they wait in nested loops)
    int m_failures = 0;  // consecutive failed attempts
    QTimer m_reconnect;
};
