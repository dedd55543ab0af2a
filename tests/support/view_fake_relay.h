#pragma once

// A stand-in relay for packets the real one never sends (malformed, truncated):
// plays a scripted list of binary messages in a loop to every loopback client
// and answers "ims:" commands the way the relay does.

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

private slots:
    void onNewConnection();
    void onTick();

private:
    Q_DISABLE_COPY(ViewFakeRelay)

    QWebSocketServer *m_server;
    QTimer *m_timer;
    QList<QWebSocket *> m_clients;
    QList<QByteArray> m_script;
    int m_next = 0;
};
