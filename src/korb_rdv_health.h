#pragma once

#include "src/korb_rdv_histogram.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QList>
#include <QObject>
#include <QPair>
#include <QSet>
#include <QString>
#include <QTimer>
#include <QVector>

#include <functional>

// The relay's answer to "is it healthy right now": the figures of the road a
// frame takes (what the source accepted and dropped, what was built, who
// reads it, how long a packet took) and of the process. One table names each
// figure once, for the stats object that a broker carries once a second, for
// the log line once a minute, and for the Prometheus text of /metrics.
class KorbRdvHealth : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY(KorbRdvHealth)

public:
    static constexpr int SampleIntervalMs = 1000;
    static constexpr int LogIntervalMs = 60000;

    // A figure counted apart for each value of its label (a port, a reason).
    using Labelled = QVector<QPair<QByteArray, qint64>>;

    struct Figures
    {
        QString source;             // "tcp", "udp", "file" or "mqtt"
        bool sourceUp = false;      // delivering now (see the assembly)
        qint64 lastFrameAgeMs = -1; // -1: no frame yet
        bool publishing = false;    // a broker link publishes the packets
        bool recording = false;     // a recorder writes the device's frames
        qint64 uptimeS = 0;
        qint64 framesAccepted = 0;
        qint64 datagramsAccepted = 0;
        qint64 datagramsDropped = 0;
        qint64 kernelDrops = -1; // -1: the kernel lists none of the source's sockets
        qint64 packetsBuilt = 0;
        Labelled wsClients; // by port
        qint64 packetsReplaced = 0;
        qint64 brokerDropped = 0;
        Labelled clientsRefused; // by reason
        qint64 recordBytesWritten = 0;
        qint64 recordFiles = 0;
        qint64 recordFramesDropped = 0;
        KorbRdvHistogram ingestToSend;
        // The process, as Prometheus client libraries report it.
        qint64 residentBytes = -1;
        double cpuSeconds = 0;
        qint64 openFds = -1;
        qint64 startTimeS = -1;
    };
    using Sampler = std::function<Figures()>;

    // A clock is a gauge that moves by itself: the log line leaves it out,
    // so that an idle relay's lines fold.
    enum class Type { Counter, Gauge, Clock, Histogram };
    // When /metrics shows a figure: some belong to one kind of source or link.
    enum class Scope { Always, UdpSource, Publisher, Recorder };
    // One line of a figure in /metrics: the suffix of its name, its labels, its value.
    struct Sample
    {
        QByteArray suffix;
        QByteArray labels;
        double value;
    };
    struct Figure
    {
        const char *json;   // key in the stats object and the log line; null: /metrics only
        const char *metric; // Prometheus name; null: the stats only
        Type type;
        Scope scope;
        const char *help;
        // None while the figure is not known; the stats carry the sum.
        QVector<Sample> (*samples)(const Figures &figures);
        double statsPerMetricUnit = 1; // the stats' units in one of the metric's (1000 ms in 1 s)
    };
    static const QVector<Figure> &table();

    // `sampler` reads the figures of the relay's parts each time.
    explicit KorbRdvHealth(QObject *parent, Sampler sampler);

    // The parts' figures with the uptime and the process's.
    Figures figures() const;

    // The stats object a broker carries.
    static QByteArray json(const Figures &figures);
    static QString logLine(const Figures &figures);
    // The Prometheus text exposition format, version 0.0.4.
    static QByteArray metrics(const Figures &figures);
    // What /healthz answers: whether the source is live, and the few figures that tell why.
    static QByteArray probe(const Figures &figures);

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
