// Playback of an arbitrary file: loaded with setFileNm, then played for a
// few steps to a connected WebSocket client, every packet of which must
// decode.
#include "fuzz_support.h"

#include "src/korb_rdv_settings.h"
#include "src/korb_rdv_wsserver.h"

#include <QFile>
#include <QTemporaryDir>

namespace {
// Files of the fuzzer's size; the playback buffer is this large, not 64 MiB.
constexpr int PlaybackLimit = 1024 * 1024;
constexpr int MaxSteps = 16;
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Fuzz::Relay &relay = Fuzz::relay();
    static QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("playback.rdv"));
    Korb::maxPlaybackFileSize = PlaybackLimit;

    Fuzz::Input in(data, size);
    const int steps = 1 + in.byte() % MaxSteps;
    {
        QFile file(path);
        FUZZ_CHECK(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(in.rest());
    }
    const int before = WebSocketServer::broadcastCount();
    if (relay.server->setFileNm(path)) {
        for (int i = 0; i < steps; ++i)
            relay.server->playbackStep();
    }
    // The playback timer may add packets while the client reads.
    relay.drain(relay.binaryMessages + WebSocketServer::broadcastCount() - before, 0);
    return 0;
}
