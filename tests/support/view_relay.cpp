#include "support/view_relay.h"

#include "src/korb_rdv_wire.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QFile>
#include <QFileInfo>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

namespace {
constexpr int StartTimeoutMs = 15000; // the daemon under ASan starts slowly
constexpr int SimTimeoutMs = 30000;

quint16 freePort()
{
    QTcpServer probe;
    if (!probe.listen(QHostAddress::LocalHost, 0))
        return 0;
    return probe.serverPort();
}
} // namespace

ViewRelay::ViewRelay()
{
    m_relay.setProcessChannelMode(QProcess::MergedChannels);
}

ViewRelay::~ViewRelay()
{
    if (m_relay.state() != QProcess::NotRunning) {
        m_relay.terminate();
        if (!m_relay.waitForFinished(5000)) {
            m_relay.kill();
            m_relay.waitForFinished(2000);
        }
    }
}

QString ViewRelay::url() const
{
    return QStringLiteral("ws://127.0.0.1:%1").arg(m_port);
}

QString ViewRelay::recordingPath() const
{
    return m_dir.filePath(QStringLiteral("recording.bin"));
}

QByteArray ViewRelay::output()
{
    return m_relay.readAll();
}

bool ViewRelay::start(QString *why, int recordingSeconds)
{
    const QString sim = QStringLiteral(KORB_TOOLS_BIN_DIR "/korb_rdv_sim");
    if (!QFileInfo(sim).isExecutable()) {
        *why = QStringLiteral("simulator %1 is not built").arg(sim);
        return false;
    }
    QProcess simProc;
    simProc.setProcessChannelMode(QProcess::MergedChannels);
    simProc.start(sim, {QStringLiteral("--write"), recordingPath(), QStringLiteral("--seconds"),
                        QString::number(recordingSeconds)});
    if (!simProc.waitForFinished(SimTimeoutMs) || simProc.exitStatus() != QProcess::NormalExit ||
        simProc.exitCode() != 0) {
        *why = QStringLiteral("simulator failed: %1").arg(QString::fromLocal8Bit(simProc.readAll()));
        return false;
    }
    if (!scanRecording(why))
        return false;

    m_port = freePort();
    const quint16 devicePort = freePort();
    if (m_port == 0 || devicePort == 0) {
        *why = QStringLiteral("no free loopback port");
        return false;
    }
    const QString name = QStringLiteral("ViewTest%1x%2").arg(QCoreApplication::applicationPid()).arg(m_port);
    m_relay.start(QStringLiteral(KORB_STREAMER_BIN),
                  {QStringLiteral("-e"), QStringLiteral("-n"), name, QStringLiteral("-p"),
                   QString::number(m_port), QStringLiteral("-addr=127.0.0.1:%1").arg(devicePort),
                   QStringLiteral("-file=") + recordingPath(), QStringLiteral("-interval_ms=50"),
                   QStringLiteral("-nofile")});
    if (!m_relay.waitForStarted(5000)) {
        *why = QStringLiteral("relay did not start: %1").arg(m_relay.errorString());
        return false;
    }
    QDeadlineTimer deadline(StartTimeoutMs);
    while (!deadline.hasExpired()) {
        if (m_relay.state() == QProcess::NotRunning) {
            *why = QStringLiteral("relay exited with status %1 before listening: %2")
                       .arg(m_relay.exitCode())
                       .arg(QString::fromLocal8Bit(m_relay.readAll()));
            return false;
        }
        QTcpSocket probe;
        probe.connectToHost(QHostAddress::LocalHost, m_port);
        if (probe.waitForConnected(200))
            return true;
        QTest::qWait(50);
    }
    *why = QStringLiteral("relay did not listen on port %1 within %2 ms").arg(m_port).arg(StartTimeoutMs);
    return false;
}

bool ViewRelay::scanRecording(QString *why)
{
    QFile f(recordingPath());
    if (!f.open(QIODevice::ReadOnly)) {
        *why = QStringLiteral("no recording written: %1").arg(f.errorString());
        return false;
    }
    const QByteArray data = f.readAll();
    const auto *p = reinterpret_cast<const uchar *>(data.constData());
    int pos = 0;
    while (pos + Rdv::HeaderSize <= data.size()) {
        const int len = Rdv::frameLength(p + pos);
        if (len == 0 || pos + len > data.size()) {
            ++pos;
            continue;
        }
        if (Rdv::kind(p + pos) == 1)
            m_groups.insert(Rdv::group(p + pos));
        else
            m_hasSingle = true;
        pos += len;
    }
    if (m_groups.isEmpty() && !m_hasSingle) {
        *why = QStringLiteral("recording of %1 bytes holds no frame").arg(data.size());
        return false;
    }
    return true;
}
