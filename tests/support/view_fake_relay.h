#pragma once

// A stand-in relay for client tests that need packets the real one never
// sends (malformed, truncated): a loopback WebSocket server that plays a
// scripted list of binary messages in a loop to every client and answers
// "ims:" commands the way the relay does.

#include <QList>
#include <QObject>
#include <QWebSocketServer>

class QWebSocket;
class QTimer;

class ViewFakeRelay : public QObject
{
    Q_OBJECT
public:
    explicit ViewFakeRelay(const QList<QByteArray> &script, QObject *parent = nullptr);
    bool listen();
    QString url() const;
    QStringList received() const { return m_received; }

private slots:
    void onNewConnection();
    void onTick();

private:
    Q_DISABLE_COPY(ViewFakeRelay)

    QWebSocketServer *m_server;
    QTimer *m_timer;
    QList<QWebSocket *> m_clients;
    QList<QByteArray> m_script;
    QStringList m_received;
    int m_next = 0;
};
