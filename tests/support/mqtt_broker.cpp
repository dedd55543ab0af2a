#include "support/mqtt_broker.h"

#include "src/korb_rdv_mqtt_link.h"
#include "support/ws_test_client.h"

#include <QStandardPaths>
#include <QTcpSocket>
#include <QTest>

#include <csignal>

QString MqttBroker::executable()
{
    // Debian installs it in sbin, which a user's PATH may lack.
    const QString name = QStringLiteral("mosquitto");
    const QString inPath = QStandardPaths::findExecutable(name);
    return inPath.isEmpty() ? QStandardPaths::findExecutable(name, {QStringLiteral("/usr/sbin")}) : inPath;
}

bool MqttBroker::start()
{
    m_port = m_port ? m_port : RdvTest::freePort().toUShort();
    QFile conf(m_dir.filePath(QStringLiteral("broker.conf")));
    if (!m_port || !conf.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    conf.write(QStringLiteral("listener %1 127.0.0.1\nallow_anonymous true\npersistence false\n")
                   .arg(m_port)
                   .toLatin1());
    conf.close();
    m_process.start(executable(), {QStringLiteral("-c"), conf.fileName()});
    return QTest::qWaitFor(
        [this] {
            QTcpSocket socket;
            socket.connectToHost(QHostAddress::LocalHost, m_port);
            return m_process.state() == QProcess::Running && socket.waitForConnected(100);
        },
        10000);
}

void MqttBroker::stop()
{
    m_process.terminate();
    if (!m_process.waitForFinished(5000))
        m_process.kill();
    m_process.waitForFinished(2000);
}

void MqttBroker::freeze(bool frozen)
{
    ::kill(pid_t(m_process.processId()), frozen ? SIGSTOP : SIGCONT);
}

MqttRecorder::MqttRecorder(quint16 port, const QByteArray &filter)
    : link(new KorbRdvMqttLink(this, QStringLiteral("recorder-%1").arg(quintptr(this))))
{
    if (!filter.isEmpty())
        link->setSubscription(filter);
    connect(link, &KorbRdvMqttLink::message, this,
            [this](const QByteArray &topic, const QByteArray &payload) { messages[topic] << payload; });
    link->open(QStringLiteral("127.0.0.1"), port);
}
