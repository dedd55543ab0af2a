// Device simulator: produces synthetic device frames (channel groups of sine
// waves and single frames of a rotating phasor, ~20 ms apart) and delivers
// them according to the chosen mode. For now the one mode writes a recording
// file that the daemon can replay with -file=.
//
//   korb_rdv_sim --write FILE [--seconds N] [--groups G] [--samples S]
//                [--single-samples S] [--single-every K] [--period-ms P]
//                [--start-sec UNIX] [--trailer B]

#include "src/korb_rdv_settings.h"
#include "src/korb_rdv_synth.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>

#include <cstdio>

namespace {

enum class Mode { None, Write };

// A recording longer than this is surely a typing error.
constexpr int MaxSeconds = 24 * 3600;

struct Setup
{
    Mode mode = Mode::None;
    QString file;
    int seconds = 10;
    KorbRdvSynth::Options synth;
};

bool parseInt(const QCommandLineParser &p, const QCommandLineOption &o, int lo, int hi, int *out)
{
    if (!p.isSet(o))
        return true;
    bool ok = false;
    const qlonglong v = p.value(o).toLongLong(&ok);
    if (!ok || v < lo || v > hi) {
        std::fprintf(stderr, "--%s must be a number in [%d, %d]\n", qPrintable(o.names().first()), lo, hi);
        return false;
    }
    *out = int(v);
    return true;
}

int writeRecording(const Setup &s)
{
    QFile out(s.file);
    if (!out.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        std::fprintf(stderr, "cannot write %s: %s\n", qPrintable(s.file), qPrintable(out.errorString()));
        return 1;
    }
    KorbRdvSynth synth(s.synth);
    const quint64 steps = quint64(s.seconds) * 1000u / quint64(synth.options().periodMs);
    qint64 bytes = 0;
    for (quint64 i = 0; i < steps; ++i) {
        const QByteArray chunk = synth.nextStep();
        if (out.write(chunk) != chunk.size()) {
            std::fprintf(stderr, "write failed: %s\n", qPrintable(out.errorString()));
            return 1;
        }
        bytes += chunk.size();
    }
    out.close();
    std::printf("%s: %llu steps, %lld bytes\n", qPrintable(s.file), static_cast<unsigned long long>(steps),
                static_cast<long long>(bytes));
    if (bytes > Korb::DefaultMaxFileSize)
        std::fprintf(stderr, "warning: larger than %d bytes, the daemon will not replay it\n",
                     Korb::DefaultMaxFileSize);
    return 0;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("korb_rdv_sim"));

    QCommandLineParser p;
    p.setApplicationDescription(QStringLiteral("Synthetic device frames for KorbRdv_streamer."));
    p.addHelpOption();
    const QCommandLineOption write(QStringLiteral("write"), QStringLiteral("Write a recording to <file>."),
                                   QStringLiteral("file"));
    const QCommandLineOption seconds(QStringLiteral("seconds"), QStringLiteral("Length of the data (10)."),
                                     QStringLiteral("n"));
    const QCommandLineOption groups(QStringLiteral("groups"), QStringLiteral("Channel groups per step (4)."),
                                    QStringLiteral("n"));
    const QCommandLineOption samples(
        QStringLiteral("samples"), QStringLiteral("Samples per channel frame (1000)."), QStringLiteral("n"));
    const QCommandLineOption singleSamples(QStringLiteral("single-samples"),
                                           QStringLiteral("Samples per single frame (2000)."),
                                           QStringLiteral("n"));
    const QCommandLineOption singleEvery(QStringLiteral("single-every"),
                                         QStringLiteral("A single frame every n steps, 0 for none (5)."),
                                         QStringLiteral("n"));
    const QCommandLineOption period(QStringLiteral("period-ms"), QStringLiteral("Time between steps (20)."),
                                    QStringLiteral("ms"));
    const QCommandLineOption startSec(QStringLiteral("start-sec"),
                                      QStringLiteral("Unix time of the first step (2024-01-01)."),
                                      QStringLiteral("s"));
    const QCommandLineOption trailer(QStringLiteral("trailer"),
                                     QStringLiteral("Bytes after every frame, as the device sends (2)."),
                                     QStringLiteral("n"));
    p.addOptions({write, seconds, groups, samples, singleSamples, singleEvery, period, startSec, trailer});
    p.process(app);

    Setup s;
    if (p.isSet(write)) {
        s.mode = Mode::Write;
        s.file = p.value(write);
    }
    int start = int(s.synth.startSec);
    if (!parseInt(p, seconds, 1, MaxSeconds, &s.seconds) || !parseInt(p, groups, 0, 16, &s.synth.groups) ||
        !parseInt(p, samples, 0, 13000, &s.synth.channelSamples) ||
        !parseInt(p, singleSamples, 0, 13000, &s.synth.singleSamples) ||
        !parseInt(p, singleEvery, 0, 1000000, &s.synth.singleEvery) ||
        !parseInt(p, period, 1, 60000, &s.synth.periodMs) || !parseInt(p, startSec, 0, 0x7FFFFFFF, &start) ||
        !parseInt(p, trailer, 0, 16, &s.synth.trailerBytes))
        return 2;
    s.synth.startSec = quint32(start);

    switch (s.mode) {
    case Mode::Write:
        return writeRecording(s);
    case Mode::None:
        break;
    }
    std::fprintf(stderr, "no mode given (--write FILE)\n");
    p.showHelp(2);
}
