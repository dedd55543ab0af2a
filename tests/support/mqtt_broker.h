#pragma once

// A private mosquitto on 127.0.0.1 for one test, and a client of it that
// records what it hears (the relay's own broker link underneath).

#include <QHash>
#include <QObject>
#include <QProcess>
#include <QTemporaryDir>

class KorbRdvMqttLink;

class MqttBroker
{
public:
    ~MqttBroker() { stop(); }
    // The broker's executable; empty where mosquitto is not installed.
    static QString executable();
    // Starts it on its port (a free one the first time), with a throwaway
    // configuration, and waits until the port takes connections.
    bool start();
    void stop();
    // SIGSTOP or SIGCONT: a broker that takes nothing, or again.
    void freeze(bool frozen);
    quint16 port() const { return m_port; }
    // "127.0.0.1:PORT", as -mqtt= and -mqtt-sub= take it.
    QString address() const { return QStringLiteral("127.0.0.1:%1").arg(m_port); }

private:
    QTemporaryDir m_dir;
    QProcess m_process;
    quint16 m_port = 0;
};

struct MqttRecorder : QObject
{
    // Subscribed to `filter` (none: only publishing) after every connection.
    MqttRecorder(quint16 port, const QByteArray &filter = QByteArray());
    QByteArray last(const QByteArray &topic) const { return messages.value(topic).value(count(topic) - 1); }
    int count(const QByteArray &topic) const { return messages.value(topic).size(); }
    KorbRdvMqttLink *link;
    QHash<QByteArray, QByteArrayList> messages;
};
