#pragma once

// A private mosquitto on 127.0.0.1 for one test, and a client of it (the
// relay's own broker link) that records what it hears.

#include <QHash>
#include <QProcess>
#include <QTemporaryDir>

class KorbRdvMqttLink;

class MqttBroker
{
public:
    ~MqttBroker() { stop(); }
    // The broker's executable; empty where mosquitto is not installed.
    static QString executable();
    // On its port (a free one the first time) until the port takes connections.
    bool start();
    void stop();
    // SIGSTOP or SIGCONT: a broker that takes nothing, or again.
    void freeze(bool frozen);
    quint16 port() const { return m_port; }
    QString address() const { return QStringLiteral("127.0.0.1:%1").arg(m_port); }

private:
    QTemporaryDir m_dir;
    QProcess m_process;
    quint16 m_port = 0;
};

struct MqttRecorder : QObject
{
    // Subscribed to `filter` after every connection; none: it only publishes.
    explicit MqttRecorder(quint16 port, const QByteArray &filter = QByteArray());
    QByteArray last(const QByteArray &topic) const { return messages.value(topic).value(count(topic) - 1); }
    int count(const QByteArray &topic) const { return messages.value(topic).size(); }
    KorbRdvMqttLink *link;
    QHash<QByteArray, QByteArrayList> messages;
};
