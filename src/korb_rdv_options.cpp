#include "src/korb_rdv_options.h"

#include "logger/korb_log.h"
#include "logger/korb_logger_light.h"
#include "src/korb_env.h"
#include "src/korb_host_port.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QSettings>
#include <QTextCodec>

#include <limits>

namespace {

using Options = KorbRdvOptions;
using Form = KorbRdvOptions::Form;

// "-p" and "-ps" values: "0x.." is hexadecimal, otherwise decimal, else hexadecimal.
bool parsePortValue(const QString &text, uint *value)
{
    bool ok = false;
    if (text.size() > 2 && text.startsWith(QLatin1String("0x"), Qt::CaseInsensitive)) {
        *value = text.mid(2).toUInt(&ok, 16);
        return ok;
    }
    *value = text.toUInt(&ok, 10);
    if (!ok)
        *value = text.toUInt(&ok, 16);
    return ok;
}

bool takeDevice(Options &o, const QString &v)
{
    // "HOST", "HOST:PORT", "[v6]:PORT" or a bare IPv6 address; the device's
    // default port where none (or no valid one) is given.
    const Korb::HostPort address = Korb::splitHostPort(v);
    o.deviceHost = address.host;
    if (!Korb::parsePort(address.port, &o.devicePort))
        o.devicePort = Korb::DefaultPort;
    return true;
}

bool takeReplayFile(Options &o, const QString &v)
{
    const QFileInfo file(Korb::getAbsPath(v));
    if (v.isEmpty() || !(file.isFile() || file.isDir()))
        return false;
    o.replayFile = file.absoluteFilePath();
    return true;
}

// ISO 8601 such as 2026-11-24T03:00:00Z; without a zone, UTC as well.
bool takeTime(std::optional<qint64> *at, const QString &v)
{
    QDateTime time = QDateTime::fromString(v, Qt::ISODateWithMs);
    if (!time.isValid())
        return false;
    if (time.timeSpec() == Qt::LocalTime)
        time.setTimeSpec(Qt::UTC);
    *at = time.toMSecsSinceEpoch();
    return true;
}

// A whole number in min..max; a refused one leaves the value as it was.
template <typename T> bool takeNumber(T *to, const QString &v, qint64 min, qint64 max)
{
    bool ok = false;
    const qint64 n = v.trimmed().toLongLong(&ok);
    if (!ok || n < min || n > max)
        return false;
    *to = T(n);
    return true;
}

bool takeFlag(bool *to, const QString &v)
{
    const QString word = v.trimmed().toLower();
    const bool yes = word == QLatin1String("true") || word == QLatin1String("1");
    if (!yes && word != QLatin1String("false") && word != QLatin1String("0"))
        return false;
    *to = yes;
    return true;
}

bool takeInterval(Options &o, const QString &v)
{
    bool ok = false;
    const uint ms = v.toUInt(&ok);
    if (ok && ms >= Korb::MinSendIntervalMs && ms <= 65535) {
        o.sendIntervalMs = quint16(ms);
        return true;
    }
    // A refused value is not ignored: it puts the default back.
    o.sendIntervalMs = Korb::DefaultSendIntervalMs;
    return false;
}

bool takeUdpPort(quint16 *port, const QString &v)
{
    bool ok = false;
    const uint p = v.toUInt(&ok);
    if (ok && p >= 1 && p <= 65534)
        *port = quint16(p);
    return ok && p >= 1 && p <= 65534;
}

bool takePositive(int *value, const QString &v)
{
    return takeNumber(value, v, 1, std::numeric_limits<int>::max());
}

bool takePort(Options &o, const QString &v)
{
    uint p = 0;
    if (parsePortValue(v, &p)) {
        o.port = p > 1 ? quint16(p & 0xFFFF) : 65535;
        return true;
    }
    if (o.port == 0)
        o.port = 65535;
    return false;
}

bool takeSecurePort(Options &o, const QString &v)
{
    uint p = 0;
    if (!parsePortValue(v, &p) || p < 1 || p > 65535)
        return false;
    o.securePort = quint16(p);
    return true;
}

bool takeConfigFile(Options &o, const QString &v)
{
    QString name = v;
    if (QFileInfo(name).isRelative()) {
        const QString etc = Korb::appDir() + QStringLiteral("/../etc");
        QDir().mkpath(etc);
        name = etc + QLatin1Char('/') + name;
    }
    o.configFile = QFileInfo(name).absoluteFilePath();
    return true;
}

bool takeLogDir(Options &o, const QString &v)
{
    o.logDir = Korb::getAbsPath(v);
    return !o.logDir.isEmpty();
}

bool takeCodec(Options &o, const QString &v)
{
    o.terminalCodec = v.toLatin1();
    return QTextCodec::codecForName(o.terminalCodec) != nullptr;
}

// The command line's own name of an option: "-addr=" reports as "addr".
QString bareName(const char *name)
{
    QString n = QString::fromLatin1(name);
    n.remove(0, 1);
    if (n.endsWith(QLatin1Char('=')))
        n.chop(1);
    return n;
}

bool nextIsValue(const QStringList &args, int i)
{
    return i + 1 < args.size() && !args.at(i + 1).startsWith(QLatin1Char('-'));
}

// Applies one option's value and reports a refusal on the console.
void take(Options &o, const Options::Row &row, const QString &value)
{
    o.given.insert(row.name ? QString::fromLatin1(row.name) : QString::fromLatin1(row.iniKey));
    if (row.apply(o, value))
        return;
    KTRACE << QStringLiteral("err arg %1: ").arg(bareName(row.name ? row.name : row.iniKey)) << value;
    if (!row.refusal.isEmpty())
        KTRACE << row.refusal;
}

} // namespace

const QVector<KorbRdvOptions::Row> &KorbRdvOptions::table()
{
    // clang-format off
    static const QVector<Row> rows = {
        {"-p", Form::Word, nullptr, "PORT", QString::number(Korb::DefaultPort), "WebSocket port (0x.. hexadecimal)",
         takePort},
        {"-ps", Form::Word, nullptr, "PORT", "none",
         "a second WebSocket port over TLS (`wss://`), beside the plain one; needs a certificate and key",
         takeSecurePort},
        {"-addr=", Form::Attached, nullptr, "HOST[:PORT]",
         QStringLiteral("%1:%2").arg(QLatin1String(Korb::DefaultDeviceAddress)).arg(Korb::DefaultPort),
         "the device to connect to over TCP (not where that is the relay's own WebSocket port)",
         takeDevice},
        {"-udp1=", Form::Attached, nullptr, "P1", "none",
         "receive the device's datagrams on two UDP ports (both needed)",
         [](Options &o, const QString &v) { return takeUdpPort(&o.udpPorts[0], v); },
         QStringLiteral("arg udp port 1 default: 0")},
        {"-udp2=", Form::Attached, nullptr, "P2", "none", "the second UDP port; its groups arrive numbered 8 higher",
         [](Options &o, const QString &v) { return takeUdpPort(&o.udpPorts[1], v); },
         QStringLiteral("arg udp port 2 default: disable")},
        {"-file=", Form::Attached, nullptr, "RECORDING", "none",
         "replay a recorded file (up to 64 MiB), or every `.rdv` file of a folder in name order, instead of a "
         "live device", takeReplayFile},
        {"-from=", Form::Attached, nullptr, "TIME", "none",
         "replay only frames stamped at or after TIME (ISO 8601 UTC, `2026-11-24T03:00:00Z`)",
         [](Options &o, const QString &v) { return takeTime(&o.replayFromMs, v); }},
        {"-to=", Form::Attached, nullptr, "TIME", "none", "replay only frames stamped before TIME",
         [](Options &o, const QString &v) { return takeTime(&o.replayToMs, v); }},
        {"-record=", Form::Attached, "record/dir", "DIR", "none",
         "record every frame the source accepts into files in DIR, see \"Recording and replay\"",
         [](Options &o, const QString &v) {
             o.recording.dir = v.isEmpty() ? QString() : Korb::getAbsPath(v);
             return !v.isEmpty();
         }},
        {nullptr, Form::File, "record/file_mb", "MB", QString::number(Options::Recording::MaxFileMb),
         "a new recording file once the current one holds this many MiB (1 to 64), or at the top of the hour",
         [](Options &o, const QString &v) {
             return takeNumber(&o.recording.fileMb, v, Options::Recording::MinFileMb,
                               Options::Recording::MaxFileMb);
         }},
        {nullptr, Form::File, "record/total_mb", "MB", QString::number(Options().recording.totalMb),
         "the relay's recordings in DIR take at most this many MiB; the oldest go first",
         [](Options &o, const QString &v) {
             return takeNumber(&o.recording.totalMb, v, 1, Options::Recording::MaxTotalMb);
         }},
        {nullptr, Form::File, "record/keep_days", "DAYS", QString::number(Options().recording.keepDays),
         "recordings older than this many days are removed",
         [](Options &o, const QString &v) {
             return takeNumber(&o.recording.keepDays, v, 1, Options::Recording::MaxKeepDays);
         }},
        {nullptr, Form::File, "record/gated", "true|false", "false",
         "record only the frames whose packets went out (the send interval's rate gate)",
         [](Options &o, const QString &v) { return takeFlag(&o.recording.gated, v); }},
        {"-mqtt=", Form::Attached, nullptr, "HOST[:PORT]", "none",
         "also publish every packet on an MQTT broker (default port 1883)",
         [](Options &o, const QString &v) { o.mqttTarget = v; return true; }},
        {"-mqtt-sub=", Form::Attached, nullptr, "HOST[:PORT]/TOPIC", "none",
         "edge relay: take the packets from a broker topic instead of a device",
         [](Options &o, const QString &v) { o.mqttSource = v; return true; }},
        {"-interval_ms=", Form::Attached, nullptr, "MS", QString::number(Korb::DefaultSendIntervalMs),
         "send interval (at least 2); clients change it with `ims:MS`", takeInterval,
         QStringLiteral("arg interval_ms default: %1").arg(Korb::DefaultSendIntervalMs)},
        {"-max_clients=", Form::Attached, nullptr, "N", QString::number(Korb::DefaultMaxClients),
         "WebSocket clients served at once; more are refused with close code 1013",
         [](Options &o, const QString &v) { return takePositive(&o.maxClients, v); }},
        {"-lt", Form::Word, nullptr, "LEVEL", QString::number(Korb::DefaultLogThreshold),
         "log threshold: 0 errors, 1 warnings, 2 information, 3 debug (not a number: 0)",
         [](Options &o, const QString &v) { o.logThreshold = v.toInt(&o.logThresholdValid); return true; }},
        {"-ld", Form::Word, nullptr, "DIR", "../logs", "log directory", takeLogDir},
        {"-tc", Form::Word, nullptr, "CODEC", "UTF-8", "codec of the console and the log files", takeCodec},
        {"-cfg", Form::Word, nullptr, "FILE", QStringLiteral("../etc/%1.ini").arg(QLatin1String(Korb::ProgramName)),
         "configuration file; a relative name is taken in ../etc", takeConfigFile},
        {"-nofile", Form::Flag, nullptr, "", "", "read no configuration file",
         [](Options &o, const QString &) { o.noFile = true; return true; }},
        {"-origins=", Form::Attached, "access/origins", "LIST", "none",
         "web pages (origins such as `https://portal.plant.lan`, comma-separated, or `*`) allowed to connect "
         "besides the relay's own and pages opened from disk",
         [](Options &o, const QString &v) { o.origins = v; return true; }},
        {"-dump_quota_mb=", Form::Attached, "access/dump_quota_mb", "N", QString::number(Options::DefaultDumpQuotaMb),
         "the dump files (`zz-…` in ../tmp) take at most N MiB together; the oldest go first",
         [](Options &o, const QString &v) { return takeNumber(&o.dumpQuotaMb, v, 1, Options::MaxDumpQuotaMb); }},
        {nullptr, Form::File, "access/tokens", "FILE", QLatin1String(Korb::DefaultTokenFile),
         "the operators' tokens, one a line; when the file exists, only their holders may send commands",
         [](Options &o, const QString &v) { o.tokenFile = v; return true; }},
        {nullptr, Form::File, "tls/certificate", "FILE", QLatin1String(Korb::DefaultTlsCertificate),
         "the TLS port's certificate chain (PEM)",
         [](Options &o, const QString &v) { o.tlsCertificate = v; return true; }},
        {nullptr, Form::File, "tls/key", "FILE", QLatin1String(Korb::DefaultTlsKey),
         "the TLS port's private key (PEM, not readable by others)",
         [](Options &o, const QString &v) { o.tlsKey = v; return true; }},
        {nullptr, Form::File, "http/health_silence_s", "S", QString::number(Options::DefaultHealthSilenceS),
         "seconds without a frame after which `/healthz` calls a live source stale (at least 1)",
         [](Options &o, const QString &v) { return takePositive(&o.healthSilenceS, v); }},
    };
    // clang-format on
    return rows;
}

KorbRdvOptions KorbRdvOptions::parse(const QStringList &args)
{
    Options o;
    for (int i = 1; i < args.size(); ++i) {
        const QString &a = args.at(i);
        for (const Row &row : table()) {
            const QLatin1String name(row.name ? row.name : "");
            if (row.form == Form::Attached && a.startsWith(name)) {
                take(o, row, a.mid(a.indexOf(QLatin1Char('=')) + 1));
            } else if (row.form == Form::Flag && a.compare(name, Qt::CaseInsensitive) == 0) {
                take(o, row, QString());
            } else if (row.form == Form::Word && a.compare(name, Qt::CaseInsensitive) == 0) {
                if (nextIsValue(args, i))
                    take(o, row, args.at(++i));
            } else {
                continue;
            }
            break;
        }
    }
    // -p values of 0, 1 and the refused ones end here as 65535.
    if (o.port == 0 || o.port > 65533)
        o.port = Korb::DefaultPort;
    if (o.deviceHost.isEmpty()) {
        o.deviceHost = QString::fromLatin1(Korb::DefaultDeviceAddress);
        o.devicePort = Korb::DefaultPort;
    }
    if (o.configFile.isEmpty())
        o.configFile = QFileInfo(Korb::appDir() + QStringLiteral("/../etc/") +
                                 QLatin1String(Korb::ProgramName) + QStringLiteral(".ini"))
                           .absoluteFilePath();
    if (!o.noFile)
        o.readConfigFile();
    o.tlsCertificate = Korb::getAbsPath(
        o.tlsCertificate.isEmpty() ? QLatin1String(Korb::DefaultTlsCertificate) : o.tlsCertificate);
    o.tlsKey = Korb::getAbsPath(o.tlsKey.isEmpty() ? QLatin1String(Korb::DefaultTlsKey) : o.tlsKey);
    o.tokenFile =
        Korb::getAbsPath(o.tokenFile.isEmpty() ? QLatin1String(Korb::DefaultTokenFile) : o.tokenFile);
    return o;
}

void KorbRdvOptions::readConfigFile()
{
    QSettings settings(configFile, QSettings::IniFormat);
    settings.setIniCodec(QTextCodec::codecForName("System"));
    for (const Row &row : table()) {
        const QString key = QString::fromLatin1(row.iniKey ? row.iniKey : "");
        if (key.isEmpty() || given.contains(row.name ? QString::fromLatin1(row.name) : key) ||
            !settings.contains(key))
            continue;
        if (!row.apply(*this, settings.value(key).toString()))
            KLOG(nullptr, 1,
                 QObject::tr("%1: значение %2=%3 не принято")
                     .arg(configFile, key, settings.value(key).toString()));
    }
}

void KorbRdvOptions::applyProcessWide() const
{
    if (sendIntervalMs)
        Korb::sendIntervalMs = *sendIntervalMs;
    if (logThreshold)
        Korb::logThreshold = *logThreshold;
    KorbLoggerLight *logger = KorbLoggerLight::instance();
    if (!logDir.isEmpty())
        logger->setLogDir(logDir);
    if (QTextCodec *codec = terminalCodec.isEmpty() ? nullptr : QTextCodec::codecForName(terminalCodec))
        logger->setCodec(codec);
}
