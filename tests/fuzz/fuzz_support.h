#pragma once

// What the fuzz targets share: the application, a check that keeps the input,
// the input read from the front, and a sink whose every packet must decode.

#include "logger/korb_log.h"
#include "logger/korb_logger_light.h"
#include "src/korb_rdv_decoder.h"
#include "src/korb_rdv_packet.h"
#include "src/korb_rdv_sink.h"

#include <QCoreApplication>
#include <QHash>
#include <QTemporaryDir>

#include <cstdio>

namespace Fuzz {

inline void setUp()
{
    static int argc = 1;
    static char name[] = "korb_fuzz", *argv[] = {name, nullptr};
    static QTemporaryDir *logs = nullptr;
    if (logs)
        return;
    new QCoreApplication(argc, argv);
    KorbLoggerLight::instance()->setLogDir((logs = new QTemporaryDir)->path());
    Korb::logThreshold = 0;
    qInstallMessageHandler(
        [](QtMsgType, const QMessageLogContext &, const QString &) {}); // traces slow the run
}

// Ends the run: libFuzzer keeps the input.
#define FUZZ_CHECK(condition)                                                                                \
    ((condition) ? void()                                                                                    \
                 : (std::fprintf(stderr, "fuzz check failed: %s (%s:%d)\n", #condition, __FILE__, __LINE__), \
                    std::abort()))

// Control bytes first, the rest as data; zero bytes past the end.
struct Input
{
    const uint8_t *data;
    size_t size;
    size_t pos = 0;
    uint8_t byte() { return pos < size ? data[pos++] : 0; }
    QByteArray take(size_t n)
    {
        const QByteArray bytes(reinterpret_cast<const char *>(data + pos), int(qMin(n, size - pos)));
        pos += size_t(bytes.size());
        return bytes;
    }
};

// 1 to `max`, following from `state`: the same input always cuts the same way.
inline int nextSize(uint32_t &state, int max)
{
    state ^= state << 13, state ^= state >> 17, state ^= state << 5;
    return 1 + int(state % uint32_t(max));
}

struct PacketSink : KorbRdvSink
{
    QVector<uint> packets; // hashes, in order
    int clientCount() const override { return 1; }
    void sendRdv(const RdvFrame *frame) override { take(Rdv::buildPacket(frame)); }
    void sendRdv(const RdvChannelMap &channels) override { take(Rdv::buildPacket(channels)); }
    void sendPacket(const QByteArray &packet) override { take(packet); }
    void take(const QByteArray &packet)
    {
        FUZZ_CHECK(packet.isEmpty() || KorbRdvDecoder::decode(packet).ok);
        packets << qHash(packet);
    }
};

} // namespace Fuzz
