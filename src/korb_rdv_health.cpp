#include "src/korb_rdv_health.h"

#include "logger/korb_log.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMetaMethod>

#include <sys/stat.h>

namespace {
// Columns of /proc/net/udp: sl, local, remote, st, queues, timer, retransmits,
// uid, timeout, inode, ref, pointer, drops.
constexpr int InodeColumn = 9;
constexpr int DropsColumn = 12;
} // namespace

KorbRdvHealth::KorbRdvHealth(QObject *parent, Sampler sampler)
    : QObject(parent), m_sampler(std::move(sampler))
{
    m_uptime.start();
    m_sinceLog.start();
    m_timer.setInterval(SampleIntervalMs);
    connect(&m_timer, &QTimer::timeout, this, &KorbRdvHealth::sample);
    m_timer.start();
}

QByteArray KorbRdvHealth::json(const Figures &f) const
{
    QJsonObject o;
    o.insert(QStringLiteral("uptime_s"), m_uptime.elapsed() / 1000);
    o.insert(QStringLiteral("source"), f.source);
    o.insert(QStringLiteral("frames_accepted"), f.framesAccepted);
    o.insert(QStringLiteral("datagrams_accepted"), f.datagramsAccepted);
    o.insert(QStringLiteral("datagrams_dropped"), f.datagramsDropped);
    o.insert(QStringLiteral("kernel_drops"), f.kernelDrops < 0 ? QJsonValue() : QJsonValue(f.kernelDrops));
    o.insert(QStringLiteral("packets_built"), f.packetsBuilt);
    o.insert(QStringLiteral("ws_clients"), f.wsClients);
    o.insert(QStringLiteral("packets_replaced"), f.packetsReplaced);
    o.insert(QStringLiteral("broker_publishes_dropped"), f.brokerDropped);
    o.insert(QStringLiteral("record_bytes_written"), f.recordBytesWritten);
    o.insert(QStringLiteral("record_files"), f.recordFiles);
    o.insert(QStringLiteral("record_frames_dropped"), f.recordFramesDropped);
    return QJsonDocument(o).toJson(QJsonDocument::Compact);
}

QString KorbRdvHealth::logLine(const Figures &f) const
{
    return tr("состояние: источник %1; кадров принято %2; датаграмм принято %3, отброшено %4, "
              "отброшено ядром %5; пакетов собрано %6; клиентов WebSocket %7; пакетов заменено %8; "
              "публикаций брокеру не отправлено %9; записано байт %10, файлов %11, кадров не записано %12")
        .arg(f.source)
        .arg(f.framesAccepted)
        .arg(f.datagramsAccepted)
        .arg(f.datagramsDropped)
        .arg(f.kernelDrops < 0 ? QStringLiteral("-") : QString::number(f.kernelDrops))
        .arg(f.packetsBuilt)
        .arg(f.wsClients)
        .arg(f.packetsReplaced)
        .arg(f.brokerDropped)
        .arg(f.recordBytesWritten)
        .arg(f.recordFiles)
        .arg(f.recordFramesDropped);
}

void KorbRdvHealth::sample()
{
    // Read each second only where a broker link carries the figures.
    if (!isSignalConnected(QMetaMethod::fromSignal(&KorbRdvHealth::sampled)) &&
        m_sinceLog.elapsed() < LogIntervalMs)
        return;
    const Figures f = m_sampler();
    emit sampled(json(f));
    if (m_sinceLog.elapsed() >= LogIntervalMs) {
        m_sinceLog.restart();
        // Folded: an idle relay repeats the same figures minute after minute.
        KLOGF(this, 2, logLine(f));
    }
}

qint64 KorbRdvHealth::kernelDrops(const QList<qintptr> &descriptors)
{
    QSet<quint64> inodes;
    for (qintptr fd : descriptors) {
        struct stat st;
        if (fd >= 0 && ::fstat(int(fd), &st) == 0)
            inodes.insert(quint64(st.st_ino));
    }
    if (inodes.isEmpty())
        return -1;
    qint64 drops = 0;
    bool any = false;
    for (const char *path : {"/proc/net/udp", "/proc/net/udp6"}) {
        QFile table(QString::fromLatin1(path));
        if (!table.open(QIODevice::ReadOnly))
            continue;
        bool found = false;
        drops += dropsIn(table.readAll(), inodes, &found);
        any = any || found;
    }
    return any ? drops : -1;
}

qint64 KorbRdvHealth::dropsIn(const QByteArray &table, const QSet<quint64> &inodes, bool *found)
{
    qint64 drops = 0;
    *found = false;
    const QList<QByteArray> rows = table.split('\n');
    for (const QByteArray &row : rows) {
        const QList<QByteArray> columns = row.simplified().split(' ');
        if (columns.size() <= DropsColumn)
            continue;
        bool ok = false;
        const quint64 inode = columns.at(InodeColumn).toULongLong(&ok);
        if (!ok || !inodes.contains(inode))
            continue;
        *found = true;
        drops += columns.at(DropsColumn).toLongLong();
    }
    return drops;
}
