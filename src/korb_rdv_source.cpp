#include "src/korb_rdv_source.h"

#include "logger/korb_log.h"
#include "src/korb_env.h"
#include "src/korb_rdv_disk_writer.h"
#include "src/korb_rdv_sink.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTimerEvent>

#include <sys/socket.h>

KorbRdvSource::KorbRdvSource(QObject *parent, KorbRdvSink *sink, QObject *commandSource, int watchdogMs,
                             KorbRdvScanner::Pacing pacing)
    : QObject(parent), m_sink(sink), m_scan(sink, pacing), m_watchdogMs(watchdogMs)
{
    if (commandSource) {
        connect(commandSource, SIGNAL(runCmd(quint16)), this, SLOT(runCmd(quint16)));
        connect(commandSource, SIGNAL(runCmd(const QString &)), this, SLOT(runCmd(const QString &)));
    }
}

KorbRdvSource::~KorbRdvSource() = default;

QString KorbRdvSource::dumpDir()
{
    return QDir::cleanPath(QFileInfo(Korb::appDir() + QStringLiteral("/../tmp")).absoluteFilePath());
}

QString KorbRdvSource::makeDumpFileName(const QString &ext)
{
    const QString dir = dumpDir();
    QDir().mkpath(dir);
    const QString suffix = ext.trimmed().left(4);
    const QString name = QLatin1String(DumpPrefix) +
                         QStringLiteral("%1_%2_%3.%4")
                             .arg(m_scan.lastKind() == 1 ? QStringLiteral("uzk") : QStringLiteral("vtp"))
                             .arg(m_scan.lastFrameTime())
                             .arg(m_fileCounter++, 4, 10, QLatin1Char('0'))
                             .arg(suffix.isEmpty() ? QStringLiteral("rdv") : suffix);
    return QDir(dir).absoluteFilePath(name);
}

void KorbRdvSource::runCmd(quint16 ms)
{
    // Folded: a client may send the same command over and over.
    KLOGF(this, 2, tr("runCmd: интервал отправки %1 мс").arg(ms));
    m_scan.setSendIntervalMs(ms);
}

bool KorbRdvSource::takeDumpSlot()
{
    if (!m_dumpClock.isValid())
        m_dumpClock.start();
    const qint64 now = m_dumpClock.elapsed();
    while (!m_dumpTimes.isEmpty() && now - m_dumpTimes.head() >= DumpWindowMs)
        m_dumpTimes.dequeue();
    if (m_dumpTimes.size() >= DumpBurst)
        return false;
    m_dumpTimes.enqueue(now);
    return true;
}

void KorbRdvSource::runCmd(const QString &cmd)
{
    KLOGF(this, 2, QStringLiteral("runCmd %1").arg(cmd));
    if (!receiving() || !m_scan.hasBuffer())
        return;
    const QString c = cmd.trimmed();
    const bool buf = c == QLatin1String("buf");
    if (!buf && c != QLatin1String("csv"))
        return;
    if (!takeDumpSlot()) {
        KLOGF(this, 1,
              tr("дамп \"%1\" не записан: не более %2 за %3 мс").arg(c).arg(DumpBurst).arg(DumpWindowMs));
        return;
    }
    const QString name = makeDumpFileName(buf ? QString() : QStringLiteral("csv"));
    const Korb::FileBound dumps{dumpDir(), QRegularExpression(QLatin1Char('^') + QLatin1String(DumpPrefix)),
                                m_dumpQuota};
    // Taken when the writer has the memory ready, a moment after the command.
    KorbRdvDiskWriter::Fill fill = [this, buf](QByteArray &bytes) {
        --m_dumpsWaiting;
        if (buf)
            m_scan.bufDump(bytes);
        else
            bytes = m_scan.csvDump();
    };
    const int size = buf ? m_scan.charBuffSize() : 0;
    if (!m_dumpWriter || !m_dumpWriter->writeFile(name, size, dumps, this, std::move(fill))) {
        KLOGF(this, 1, tr("дамп \"%1\" не записан: запись на диск занята").arg(c));
        return;
    }
    ++m_dumpsWaiting;
    KLOG(this, 2, QStringLiteral("m_file.open %1").arg(name));
}

void KorbRdvSource::setDumpWriter(KorbRdvDiskWriter *writer, qint64 quotaBytes)
{
    m_dumpWriter = writer;
    m_dumpQuota = quotaBytes;
}

int KorbRdvSource::requestReceiveBuffer(qintptr descriptor)
{
    const int fd = int(descriptor);
    const int want = SocketReceiveBufferSize;
    // SO_RCVBUFFORCE passes net.core.rmem_max where the process may (root,
    // CAP_NET_ADMIN); SO_RCVBUF is capped by it.
    if (::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &want, sizeof want) != 0)
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &want, sizeof want);
    int reported = 0;
    socklen_t length = sizeof reported;
    ::getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &reported, &length);
    // The kernel reports twice the size set: the other half is its bookkeeping.
    const int granted = reported / 2;
    if (granted < SocketReceiveBufferSize && !m_receiveBufferWarned) {
        m_receiveBufferWarned = true;
        KLOG(this, 1,
             tr("буфер приёма сокета: %1 kB вместо %2 kB; требуется net.core.rmem_max = %3")
                 .arg(granted / 1024)
                 .arg(SocketReceiveBufferSize / 1024)
                 .arg(SocketReceiveBufferSize));
    }
    return granted;
}

bool KorbRdvSource::ensureBuffer()
{
    if (m_scan.hasBuffer())
        return false;
    return m_scan.resetBuffer(m_bufferCapacity);
}

void KorbRdvSource::markIngest()
{
    if (m_sink)
        m_sink->markIngest();
}

void KorbRdvSource::noteDelivered(qint64 delivered)
{
    if (delivered == m_delivered)
        return;
    m_delivered = delivered;
    m_lastFrame.start();
}

void KorbRdvSource::noteData()
{
    m_lastData.start();
    if (!m_watchdogId && m_watchdogMs > 0)
        m_watchdogId = startTimer(m_watchdogMs);
}

void KorbRdvSource::stopWatchdog()
{
    if (m_watchdogId)
        killTimer(m_watchdogId);
    m_watchdogId = 0;
}

void KorbRdvSource::timerEvent(QTimerEvent *event)
{
    if (m_watchdogId == 0 || event->timerId() != m_watchdogId) {
        QObject::timerEvent(event);
        return;
    }
    const qint64 quiet = m_lastData.elapsed();
    if (quiet < m_watchdogMs || m_dumpsWaiting > 0) {
        // Data came after the timer was armed: wait for the rest of the
        // silence. A dump asked for before it still takes the buffer first.
        killTimer(m_watchdogId);
        m_watchdogId = startTimer(quiet < m_watchdogMs ? int(m_watchdogMs - quiet) : DumpWaitMs);
        return;
    }
    stopWatchdog();
    // A silence ends the burst: the next data starts with a fresh buffer,
    // a fresh gate (its first frame is not sent) and file counter 0000.
    m_fileCounter = 0;
    m_scan.resetBuffer(0);
    KTRACE << "off";
    silenceEnded();
}
