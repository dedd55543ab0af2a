#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QObject>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>

class KorbRdvMqttLink;

// A private mosquitto broker for one test: 127.0.0.1 on a free port, with a
// throwaway configuration (loopback listener, anonymous clients, nothing kept
// on disk). It can be stopped and started again on the same port; it is
// stopped on destruction.
class MqttBroker
{
public:
    MqttBroker();
    ~MqttBroker();

    // The broker's executable; empty where mosquitto is not installed.
    static QString executable();

    // Starts it and waits until the port accepts connections.
    bool start(QString *why);
    void stop();
    // Stops (SIGSTOP) or continues the process: a broker that takes nothing.
    void freeze(bool frozen);
    quint16 port() const { return m_port; }
    // "127.0.0.1:PORT", as -mqtt= and -mqtt-sub= take it.
    QString address() const;

private:
    Q_DISABLE_COPY(MqttBroker)
    QTemporaryDir m_dir;
    QProcess m_process;
    quint16 m_port = 0;
};

// A client of the broker that records every message of the topics it
// subscribed to (the relay's own link class underneath).
class MqttRecorder : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY(MqttRecorder)

public:
    MqttRecorder(quint16 port, const QByteArray &filter, QObject *parent = nullptr);

    bool isUp() const;
    KorbRdvMqttLink *link() const { return m_link; }
    QList<QByteArray> messages(const QByteArray &topic) const { return m_messages.value(topic); }
    int count(const QByteArray &topic) const { return m_messages.value(topic).size(); }
    QByteArray last(const QByteArray &topic) const;

private:
    KorbRdvMqttLink *m_link;
    QHash<QByteArray, QList<QByteArray>> m_messages;
};
