// Playback of an arbitrary file, loaded and stepped: every packet must decode.
#include "fuzz_support.h"

#include "src/korb_rdv_playback.h"
#include "src/korb_rdv_settings.h"

#include <QFile>
#include <QTemporaryDir>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Fuzz::setUp();
    static QTemporaryDir dir;
    Korb::maxPlaybackFileSize = 1024 * 1024; // files of the fuzzer's size, not a 64 MiB buffer
    Fuzz::Input in{data, size};
    int steps = 1 + in.byte() % 16;
    QFile file(dir.filePath(QStringLiteral("playback.rdv")));
    FUZZ_CHECK(file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(in.take(size)) >= 0);
    file.close();
    Fuzz::PacketSink sink;
    KorbRdvPlayback playback(nullptr, &sink);
    for (bool loaded = playback.load(file.fileName()); loaded && steps > 0; --steps)
        playback.step();
    return 0;
}
