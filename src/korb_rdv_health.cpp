#include "src/korb_rdv_health.h"

#include "logger/korb_log.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocale>
#include <QMetaMethod>

#include <cmath>

#include <dirent.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {
// Columns of /proc/net/udp: sl, local, remote, st, queues, timer, retransmits,
// uid, timeout, inode, ref, pointer, drops.
constexpr int InodeColumn = 9;
constexpr int DropsColumn = 12;
// Of /proc/self/stat, counted after the command name: the start time in clock ticks since boot.
constexpr int StartTimeColumn = 19;

using Health = KorbRdvHealth;
using Samples = QVector<Health::Sample>;

Samples one(double value)
{
    return value < 0 ? Samples() : Samples{{QByteArray(), QByteArray(), value}};
}

Samples each(const char *label, const Health::Labelled &values)
{
    Samples samples;
    for (const auto &v : values)
        samples.append({QByteArray(), label + QByteArrayLiteral("=\"") + v.first + '"', double(v.second)});
    return samples;
}

QByteArray number(double value)
{
    if (value == std::floor(value) && std::fabs(value) < 1e15)
        return QByteArray::number(qint64(value));
    return QString::number(value, 'g', QLocale::FloatingPointShortest).toLatin1();
}

Samples buckets(const KorbRdvHistogram &h)
{
    Samples samples;
    const auto &bounds = KorbRdvHistogram::BoundsNs;
    for (int i = 0; i <= int(bounds.size()); ++i) {
        const QByteArray le = i < int(bounds.size()) ? number(double(bounds[size_t(i)]) / 1e9) : "+Inf";
        samples.append({"_bucket", "le=\"" + le + '"', double(h.countUpTo(i))});
    }
    samples.append({"_sum", QByteArray(), h.sumSeconds()});
    samples.append({"_count", QByteArray(), double(h.count())});
    return samples;
}

bool shown(Health::Scope scope, const Health::Figures &f)
{
    return scope == Health::Scope::Always || (scope == Health::Scope::UdpSource && f.source == "udp") ||
           (scope == Health::Scope::Publisher && f.publishing) ||
           (scope == Health::Scope::Recorder && f.recording);
}

// The sum of a figure's samples; null while it is not known.
QJsonValue total(const Health::Figure &figure, const Health::Figures &f)
{
    const Samples samples = figure.samples(f);
    if (samples.isEmpty())
        return QJsonValue();
    double sum = 0;
    for (const Health::Sample &s : samples)
        sum += s.value;
    return sum;
}

QJsonObject object(const Health::Figures &f)
{
    QJsonObject o{{QStringLiteral("source"), f.source}};
    for (const Health::Figure &figure : Health::table()) {
        if (figure.json)
            o.insert(QLatin1String(figure.json), total(figure, f));
    }
    return o;
}

// The process's start in seconds since 1970: its start in ticks after the boot, and the boot.
qint64 processStartTime()
{
    QFile stat(QStringLiteral("/proc/self/stat")), system(QStringLiteral("/proc/stat"));
    if (!stat.open(QIODevice::ReadOnly) || !system.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray self = stat.readAll();
    const QList<QByteArray> fields = self.mid(self.lastIndexOf(')') + 2).split(' ');
    for (const QByteArray &line : system.readAll().split('\n')) {
        if (line.startsWith("btime ") && fields.size() > StartTimeColumn)
            return line.mid(6).trimmed().toLongLong() +
                   fields.at(StartTimeColumn).toLongLong() / sysconf(_SC_CLK_TCK);
    }
    return -1;
}

void readProcess(Health::Figures &f)
{
    static const qint64 start = processStartTime();
    f.startTimeS = start;
    struct rusage usage;
    if (getrusage(RUSAGE_SELF, &usage) == 0)
        f.cpuSeconds = double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                       double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    QFile statm(QStringLiteral("/proc/self/statm"));
    if (statm.open(QIODevice::ReadOnly))
        f.residentBytes = statm.readAll().split(' ').value(1).toLongLong() * sysconf(_SC_PAGESIZE);
    if (DIR *fds = opendir("/proc/self/fd")) {
        f.openFds = 0;
        while (const dirent *entry = readdir(fds))
            f.openFds += entry->d_name[0] != '.';
        closedir(fds);
    }
}
} // namespace

const QVector<KorbRdvHealth::Figure> &KorbRdvHealth::table()
{
    using T = Type;
    using S = Scope;
    using F = Figures;
    // clang-format off
    static const QVector<Figure> rows = {
        {"uptime_s", "korbrdv_uptime_seconds", T::Clock, S::Always, "Seconds since the relay started.", [](const F &f) { return one(f.uptimeS); }},
        {"source_up", "korbrdv_source_up", T::Gauge, S::Always, "1 while the source delivers frames (what /healthz tells), else 0.", [](const F &f) { return one(f.sourceUp); }},
        {"last_frame_age_ms", "korbrdv_last_frame_age_seconds", T::Clock, S::Always, "Time since the source last delivered a frame.", [](const F &f) { return one(f.lastFrameAgeMs); }, 1000},
        {"frames_accepted", "korbrdv_frames_accepted_total", T::Counter, S::Always, "Device frames the source handed to the accept step (an edge: messages taken from the topic).", [](const F &f) { return one(f.framesAccepted); }},
        {"datagrams_accepted", "korbrdv_datagrams_accepted_total", T::Counter, S::UdpSource, "Datagrams that passed the sequence and length test.", [](const F &f) { return one(f.datagramsAccepted); }},
        {"datagrams_dropped", "korbrdv_datagrams_dropped_total", T::Counter, S::UdpSource, "Datagrams dropped: sequence gaps, bad lengths.", [](const F &f) { return one(f.datagramsDropped); }},
        {"kernel_drops", "korbrdv_kernel_drops_total", T::Counter, S::UdpSource, "Datagrams the kernel dropped for the receiver's sockets.", [](const F &f) { return one(f.kernelDrops); }},
        {"packets_built", "korbrdv_packets_built_total", T::Counter, S::Always, "Packets handed to the broadcast (an edge: packets it passed on).", [](const F &f) { return one(f.packetsBuilt); }},
        {"ws_clients", "korbrdv_ws_clients", T::Gauge, S::Always, "WebSocket clients connected.", [](const F &f) { return each("port", f.wsClients); }},
        {"packets_replaced", "korbrdv_packets_replaced_total", T::Counter, S::Always, "Packets that waited for a slow client and gave way to a newer one.", [](const F &f) { return one(f.packetsReplaced); }},
        {"broker_publishes_dropped", "korbrdv_broker_publishes_dropped_total", T::Counter, S::Publisher, "Packets that never reached the broker.", [](const F &f) { return one(f.brokerDropped); }},
        {"clients_refused", "korbrdv_clients_refused_total", T::Counter, S::Always, "Connections refused before they became clients.", [](const F &f) { return each("reason", f.clientsRefused); }},
        {"record_bytes_written", "korbrdv_record_bytes_written_total", T::Counter, S::Recorder, "Bytes of the recording that reached the disk.", [](const F &f) { return one(f.recordBytesWritten); }},
        {"record_files", "korbrdv_record_files_total", T::Counter, S::Recorder, "Recording files begun.", [](const F &f) { return one(f.recordFiles); }},
        {"record_frames_dropped", "korbrdv_record_frames_dropped_total", T::Counter, S::Recorder, "Frames left out of the recording because the disk fell behind.", [](const F &f) { return one(f.recordFramesDropped); }},
        {nullptr, "korbrdv_ingest_to_send_seconds", T::Histogram, S::Always, "From the read that completed a frame to the first client write of its packet.", [](const F &f) { return buckets(f.ingestToSend); }},
        {nullptr, "process_resident_memory_bytes", T::Gauge, S::Always, "Resident memory size in bytes.", [](const F &f) { return one(f.residentBytes); }},
        {nullptr, "process_cpu_seconds_total", T::Counter, S::Always, "Total user and system CPU time spent in seconds.", [](const F &f) { return one(f.cpuSeconds); }},
        {nullptr, "process_open_fds", T::Gauge, S::Always, "Number of open file descriptors.", [](const F &f) { return one(f.openFds); }},
        {nullptr, "process_start_time_seconds", T::Gauge, S::Always, "Start time of the process since unix epoch in seconds.", [](const F &f) { return one(f.startTimeS); }},
    };
    // clang-format on
    return rows;
}

KorbRdvHealth::KorbRdvHealth(QObject *parent, Sampler sampler)
    : QObject(parent), m_sampler(std::move(sampler))
{
    m_uptime.start();
    m_sinceLog.start();
    m_timer.setInterval(SampleIntervalMs);
    connect(&m_timer, &QTimer::timeout, this, &KorbRdvHealth::sample);
    m_timer.start();
}

KorbRdvHealth::Figures KorbRdvHealth::figures() const
{
    Figures f = m_sampler();
    f.uptimeS = m_uptime.elapsed() / 1000;
    readProcess(f);
    return f;
}

QByteArray KorbRdvHealth::json(const Figures &f)
{
    return QJsonDocument(object(f)).toJson(QJsonDocument::Compact);
}

QString KorbRdvHealth::logLine(const Figures &f)
{
    QStringList items(QStringLiteral("source=") + f.source);
    for (const Figure &figure : table()) {
        if (!figure.json || figure.type == Type::Clock)
            continue;
        const QJsonValue value = total(figure, f);
        items << QLatin1String(figure.json) + QLatin1Char('=') +
                     (value.isNull() ? QStringLiteral("-") : QString::fromLatin1(number(value.toDouble())));
    }
    return tr("состояние: %1").arg(items.join(QLatin1Char(' ')));
}

QByteArray KorbRdvHealth::metrics(const Figures &f)
{
    static const char *const types[] = {"counter", "gauge", "gauge", "histogram"};
    QByteArray out;
    for (const Figure &figure : table()) {
        const Samples samples = figure.metric && shown(figure.scope, f) ? figure.samples(f) : Samples();
        if (samples.isEmpty())
            continue;
        const QByteArray name(figure.metric);
        out +=
            "# HELP " + name + ' ' + figure.help + "\n# TYPE " + name + ' ' + types[int(figure.type)] + '\n';
        for (const Sample &s : samples) {
            out += name + s.suffix;
            if (!s.labels.isEmpty())
                out += '{' + s.labels + '}';
            out += ' ' + number(s.value / figure.statsPerMetricUnit) + '\n';
        }
    }
    return out;
}

QByteArray KorbRdvHealth::probe(const Figures &f)
{
    const QJsonObject all = object(f);
    QJsonObject o{{QStringLiteral("status"), f.sourceUp ? QStringLiteral("ok") : QStringLiteral("stale")}};
    for (const char *key : {"source", "last_frame_age_ms", "ws_clients"})
        o.insert(QLatin1String(key), all.value(QLatin1String(key)));
    return QJsonDocument(o).toJson(QJsonDocument::Compact);
}

void KorbRdvHealth::sample()
{
    // Read each second only where a broker link carries the figures.
    if (!isSignalConnected(QMetaMethod::fromSignal(&KorbRdvHealth::sampled)) &&
        m_sinceLog.elapsed() < LogIntervalMs)
        return;
    const Figures f = figures();
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
