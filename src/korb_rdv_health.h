#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QList>
#include <QObject>
#include <QSet>
#include <QString>
#include <QTimer>

#include <functional>

// The relay's answer to "is it healthy right now": once a second the figures
// of the road a frame takes (what the source accepted and dropped, what was
// built, who reads it) as one JSON object, and once a minute the same in one
// folded log line.
class KorbRdvHealth : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY(KorbRdvHealth)

public:
    static constexpr int SampleIntervalMs = 1000;
    static constexpr int LogIntervalMs = 60000;

    struct Figures
    {
        QString source; // "tcp", "udp", "file" or "mqtt"
        qint64 framesAccepted = 0;
        qint64 datagramsAccepted = 0;
        qint64 datagramsDropped = 0;
        qint64 kernelDrops = -1; // -1: the kernel lists none of the source's sockets
        qint64 packetsBuilt = 0;
        int wsClients = 0;
        qint64 packetsReplaced = 0;
        qint64 brokerDropped = 0;
        qint64 recordBytesWritten = 0;
        int recordFiles = 0;
        qint64 recordFramesDropped = 0;
    };
    using Sampler = std::function<Figures()>;

    // `sampler` reads the figures from the relay's parts each time.
    explicit KorbRdvHealth(QObject *parent, Sampler sampler);

    // The figures with the uptime, as the stats topic carries them.
    QByteArray json(const Figures &figures) const;
    QString logLine(const Figures &figures) const;

    // Datagrams the kernel dropped for these UDP sockets, from /proc/net/udp
    // and /proc/net/udp6; -1 where neither lists any of them.
    static qint64 kernelDrops(const QList<qintptr> &descriptors);
    // The drops column summed over the rows of one such table whose inode
    // is in `inodes`; `found` tells whether any row matched.
    static qint64 dropsIn(const QByteArray &table, const QSet<quint64> &inodes, bool *found);

signals:
    void sampled(const QByteArray &json);

private:
    void sample();

    Sampler m_sampler;
    QTimer m_timer;
    QElapsedTimer m_uptime;
    QElapsedTimer m_sinceLog;
};
