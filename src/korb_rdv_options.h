#pragma once

#include "src/korb_disk.h"
#include "src/korb_rdv_settings.h"

#include <QByteArray>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QVector>

#include <optional>

// The relay's own options, as one plain value: what its command line says,
// and for what the command line leaves unsaid, the keys of the
// configuration file that stand for options. One table describes every
// option (its name, value, default and meaning); one parser reads them all.
// Nothing here opens a socket; reading an option only reads the file system.
struct KorbRdvOptions
{
    // How an option is written.
    enum class Form {
        Attached, // "-name=VALUE": recognised at the start of the argument, case-sensitive
        Word,     // "-name VALUE": the whole argument, any case; VALUE is the next argument
                  // unless that begins with "-"
        Flag,     // "-name": the whole argument, any case, no value
        File      // only a key of the configuration file
    };

    // One row of the table. `apply` takes the value into the options and
    // says whether it was accepted; the parser reports a refused value on
    // the console, followed by `refusal` when there is one.
    struct Row
    {
        const char *name; // as typed, with its "=" for the attached form
        Form form;
        const char *iniKey; // "group/key" of the configuration file, or null
        const char *value;  // what the value is, as the README writes it
        QString fallback;   // the default, as the README writes it
        const char *meaning;
        bool (*apply)(KorbRdvOptions &options, const QString &value);
        QString refusal; // what a refused value leaves
    };
    static const QVector<Row> &table();

    // Reads `arguments` (the program's own name first), then, unless -nofile
    // was given, the configuration file for the keys the command line left
    // unset, and settles the defaults.
    static KorbRdvOptions parse(const QStringList &arguments);
    // The configuration file's values for every key not in `given`.
    void readConfigFile();
    // What the options change for the whole process: the send interval, the
    // log threshold, the logger's directory and codec.
    void applyProcessWide() const;

    // Continuous recording: -record=DIR and the [record] group.
    struct Recording
    {
        // The largest file playback loads whole.
        static constexpr int MaxFileMb = int(Korb::DefaultMaxFileSize / Korb::BytesPerMiB);
        // A smaller file would rotate many times a second at the device's rate.
        static constexpr int MinFileMb = 1;
        // Beyond any disk, and far from overflowing a count of bytes.
        static constexpr qint64 MaxTotalMb = qint64(1) << 30;
        // A century: beyond any plan, and far from overflowing a count of milliseconds.
        static constexpr int MaxKeepDays = 36500;

        QString dir; // absolute; empty: no recording
        int fileMb = MaxFileMb;
        qint64 totalMb = 10240;
        int keepDays = 7;
        bool gated = false; // only the frames whose packets went out
    };
    // Dump files kept together (-dump_quota_mb=), default and largest (as MaxTotalMb).
    static constexpr qint64 DefaultDumpQuotaMb = 1024;
    static constexpr qint64 MaxDumpQuotaMb = Recording::MaxTotalMb;
    // Seconds without a frame after which /healthz calls a live source stale.
    static constexpr int DefaultHealthSilenceS = 10;

    bool replay() const { return !replayFile.isEmpty(); }
    bool udp() const { return udpPorts[0] && udpPorts[1]; }

    quint16 port = 0;       // 3005 unless -p gave 2..65533
    quint16 securePort = 0; // 0: no TLS port
    QString configFile;     // absolute
    bool noFile = false;    // read no configuration file
    QString deviceHost;     // the TCP device
    quint16 devicePort = 0;
    QString replayFile; // absolute, an existing file or folder; empty: a live source
    // The window of a replay, in ms since 1970 (UTC): frames stamped from..to (excluded).
    std::optional<qint64> replayFromMs;
    std::optional<qint64> replayToMs;
    quint16 udpPorts[2] = {0, 0}; // both or neither
    std::optional<quint16> sendIntervalMs;
    int maxClients = Korb::DefaultMaxClients;
    QString mqttTarget; // -mqtt=HOST[:PORT]
    QString mqttSource; // -mqtt-sub=HOST[:PORT]/TOPIC
    std::optional<int> logThreshold;
    bool logThresholdValid = false; // the -lt value was a number
    QString logDir;                 // absolute; empty: the default
    QByteArray terminalCodec;       // empty: the default
    QString tlsCertificate;         // absolute
    QString tlsKey;                 // absolute
    QString origins;                // pages allowed to connect besides the relay's own: a list, or "*"
    QString tokenFile;              // absolute; when it exists, only its tokens' holders may steer
    qint64 dumpQuotaMb = DefaultDumpQuotaMb;
    Recording recording;
    int healthSilenceS = DefaultHealthSilenceS;

    // Names (or INI keys) of the options the command line gave.
    QSet<QString> given;
};
