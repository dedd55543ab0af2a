#include "support/mqtt_broker.h"

#include "src/korb_rdv_mqtt_link.h"
#include "support/streamer_process.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QRandomGenerator>
#include <QStandardPaths>
#include <QTcpSocket>
#include <QThread>

#include <csignal>

MqttBroker::MqttBroker() = default;

MqttBroker::~MqttBroker()
{
    stop();
}

QString MqttBroker::executable()
{
    // Debian installs it in sbin, which a user's PATH may lack.
    const QString inPath = QStandardPaths::findExecutable(QStringLiteral("mosquitto"));
    return inPath.isEmpty() ? QStandardPaths::findExecutable(
                                  QStringLiteral("mosquitto"),
                                  {QStringLiteral("/usr/sbin"), QStringLiteral("/usr/local/sbin")})
                            : inPath;
}

QString MqttBroker::address() const
{
    return QStringLiteral("127.0.0.1:%1").arg(m_port);
}

bool MqttBroker::start(QString *why)
{
    if (!m_port)
        m_port = StreamerProcess::freeTcpPort();
    QFile conf(m_dir.filePath(QStringLiteral("broker.conf")));
    if (!m_dir.isValid() || !conf.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        *why = QStringLiteral("no configuration file for the broker");
        return false;
    }
    conf.write(QStringLiteral("listener %1 127.0.0.1\nallow_anonymous true\npersistence false\n")
                   .arg(m_port)
                   .toLatin1());
    conf.close();
    m_process.setProcessChannelMode(QProcess::MergedChannels);
    m_process.start(executable(), {QStringLiteral("-c"), conf.fileName()});
    const QDeadlineTimer deadline(10000);
    while (!deadline.hasExpired()) {
        if (m_process.state() == QProcess::NotRunning) {
            *why = QStringLiteral("mosquitto ended: ") + QString::fromLocal8Bit(m_process.readAll());
            return false;
        }
        QTcpSocket probe;
        probe.connectToHost(QStringLiteral("127.0.0.1"), m_port);
        if (probe.waitForConnected(200))
            return true;
        QThread::msleep(50);
    }
    *why = QStringLiteral("mosquitto did not listen on port %1").arg(m_port);
    return false;
}

void MqttBroker::stop()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.terminate();
    if (!m_process.waitForFinished(5000)) {
        m_process.kill();
        m_process.waitForFinished(2000);
    }
}

void MqttBroker::freeze(bool frozen)
{
    ::kill(pid_t(m_process.processId()), frozen ? SIGSTOP : SIGCONT);
}

MqttRecorder::MqttRecorder(quint16 port, const QByteArray &filter, QObject *parent)
    : QObject(parent), m_link(new KorbRdvMqttLink(
                           this, QStringLiteral("recorder-%1").arg(QRandomGenerator::global()->generate())))
{
    m_link->setSubscription(filter);
    connect(
        m_link, &KorbRdvMqttLink::message, this,
        [this](const QByteArray &topic, const QByteArray &payload) { m_messages[topic].append(payload); });
    m_link->open(QStringLiteral("127.0.0.1"), port);
}

bool MqttRecorder::isUp() const
{
    return m_link->isUp();
}

QByteArray MqttRecorder::last(const QByteArray &topic) const
{
    const QList<QByteArray> &list = m_messages.value(topic);
    return list.isEmpty() ? QByteArray() : list.constLast();
}
