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
    return QStandardPaths::findExecutable("mosquitto", {"/usr/sbin", "/usr/local/sbin", "/usr/bin"});
}

bool MqttBroker::start()
{
    m_port = m_port ? m_port : RdvTest::freePort().toUShort();
    const QString conf = m_dir.filePath("broker.conf");
    if (!RdvTest::writeFile(
            conf, QStringLiteral("listener %1 127.0.0.1\nallow_anonymous true\n").arg(m_port).toLatin1()))
        return false;
    m_process.start(executable(), {"-c", conf});
    QTcpSocket probe;
    return QTest::qWaitFor(
        [&] { return probe.connectToHost("127.0.0.1", m_port), probe.waitForConnected(100); }, 10000);
}

void MqttBroker::stop()
{
    m_process.terminate();
    if (!m_process.waitForFinished(5000))
        m_process.kill();
    m_process.waitForFinished();
}

void MqttBroker::freeze(bool frozen)
{
    ::kill(pid_t(m_process.processId()), frozen ? SIGSTOP : SIGCONT);
}

MqttRecorder::MqttRecorder(quint16 port, const QByteArray &filter)
    : link(new KorbRdvMqttLink(this, QStringLiteral("recorder-%1").arg(quintptr(this))))
{
    link->setSubscription(filter);
    connect(link, &KorbRdvMqttLink::message, this,
            [this](const QByteArray &topic, const QByteArray &payload) { messages[topic] << payload; });
    link->open("127.0.0.1", port);
}
