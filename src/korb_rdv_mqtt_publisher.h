#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>

class KorbRdvMqttLink;
class WebSocketServer;

// Publishes every packet the WebSocket clients get, byte for byte, on
// korbrdv/<instance>/rdv of a broker (QoS 0, not retained), and keeps the
// instance's state retained on korbrdv/<instance>/state. While the broker
// link is up it counts as a consumer of the server, so packets are built
// even when no WebSocket client is connected.
class KorbRdvMqttPublisher : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY(KorbRdvMqttPublisher)

public:
    // The link is opened by the owner, once it has set what else it carries.
    explicit KorbRdvMqttPublisher(QObject *parent, WebSocketServer *server, const QString &instance);

    KorbRdvMqttLink *link() const { return m_link; }

private:
    void offer(const QByteArray &packet);

    WebSocketServer *m_server;
    KorbRdvMqttLink *m_link;
    QByteArray m_topic;
};
