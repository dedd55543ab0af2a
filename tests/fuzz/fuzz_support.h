#pragma once

// What the fuzz targets share: the application, a check that keeps the input,
// the input read from the front, a sink whose every packet must decode, and
// what the blocks of a packet may be: the blocks of frames the input held.

#include "logger/korb_log.h"
#include "logger/korb_logger_light.h"
#include "src/korb_rdv_decoder.h"
#include "src/korb_rdv_packet.h"
#include "src/korb_rdv_sink.h"

#include <QCoreApplication>
#include <QHash>
#include <QTemporaryDir>

#include <cstdio>
#include <cstring>
#include <functional>

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
    // More to check of every packet that decodes, as the target knows it.
    std::function<void(const QByteArray &, const QVector<RdvBlock> &)> check;
    int clientCount() const override { return 1; }
    void sendRdv(const RdvFrame *frame) override { take(Rdv::buildPacket(frame)); }
    void sendRdv(const RdvChannelMap &channels) override { take(Rdv::buildPacket(channels)); }
    void sendPacket(const QByteArray &packet) override { take(packet); }
    void take(const QByteArray &packet)
    {
        const RdvDecoded decoded = KorbRdvDecoder::decode(packet);
        FUZZ_CHECK(packet.isEmpty() || decoded.ok);
        if (check && !packet.isEmpty())
            check(packet, decoded.blocks);
        packets << qHash(packet);
    }
};

// A frame of the input that a block may show: its bytes and where the input
// had it, in the target's own count. Only so many of its bytes are the
// input's when a packet is made (`known` of Origins::explain): a frame is
// accepted before its tail has arrived, and the relay may show other bytes
// beyond.
struct Origin
{
    QByteArray bytes;
    qint64 at = 0;
    QByteArray head; // the fixed part of its block, made when first needed
};

// The frames an input held, found by the fields a block copies whole.
class Origins
{
public:
    int add(const QByteArray &frame, qint64 at)
    {
        m_byKey.insert(key(quint8(frame[4]), quint8(frame[16]), Rdv::sampleCount(frame.constData())),
                       m_all.size());
        m_all.append({frame, at, QByteArray()});
        return m_all.size() - 1;
    }
    Origin &operator[](int i) { return m_all[i]; }

    // Whether the block is the one built from a frame of the input: its fixed
    // part whole, its samples as far as `known(origin)` bytes of the frame go.
    bool explain(const QByteArray &packet, const RdvBlock &b, const std::function<int(const Origin &)> &known)
    {
        using F = Rdv::Field;
        const bool channel = !b.single();
        const auto bit = [&b](F f, int shift) { return int(b[f]) << shift; };
        const quint8 flags = channel ? quint8(qint8(b[F::Group]))
                                     : quint8(bit(F::FlagBit0, 0) | bit(F::FlagBit1, 1) |
                                              bit(F::FlagBit2, 2) | bit(F::FlagBit3, 3));
        const char *const block = packet.constData() + b.offset;
        const int fixed = b.headerSize(), samples = b.size - fixed;
        const quint32 k = key(quint8(qint8(b[F::FrameType])), flags, quint16(b.sampleCount()));
        for (auto it = m_byKey.constFind(k); it != m_byKey.cend() && it.key() == k; ++it) {
            Origin &o = m_all[it.value()];
            if (known(o) < Rdv::HeaderSize)
                continue; // not yet come, or cut off before its header ended
            if (o.head.isEmpty())
                o.head = blockHead(o.bytes.constData(), channel);
            const int same = qBound(0, qMin(known(o), o.bytes.size()) - Rdv::HeaderSize, samples);
            if (samples == b.sampleCount() * b.layout->sampleSize &&
                o.head == QByteArray::fromRawData(block, fixed) &&
                std::memcmp(block + fixed, o.bytes.constData() + Rdv::HeaderSize, size_t(same)) == 0)
                return true;
        }
        return false;
    }

private:
    // Kind, the group byte (of a kind-2 frame the four flag bits a block
    // keeps) and the count.
    static quint32 key(quint8 kind, quint8 group, quint16 count)
    {
        return quint32(kind) << 24 | quint32(kind == 1 ? group : group & 0x0F) << 16 | count;
    }
    // The fixed part of a frame's block, from its header alone: without the
    // magic no samples are read; the length word is then the whole block's.
    static QByteArray blockHead(const char *frame, bool channel)
    {
        char header[Rdv::HeaderSize];
        std::memcpy(header, frame, sizeof header);
        std::memset(header, 0, sizeof(quint32));
        QByteArray head =
            channel ? Rdv::buildPacket(RdvChannelMap{{0, reinterpret_cast<RdvChannelFrame *>(header)}})
                    : Rdv::buildPacket(reinterpret_cast<const RdvFrame *>(header));
        qToLittleEndian<quint16>(quint16(head.size() + Rdv::frameLength(frame) - Rdv::HeaderSize),
                                 head.data());
        return head;
    }

    QVector<Origin> m_all;
    QMultiHash<quint32, int> m_byKey;
};

// Whether the channel blocks' groups rise strictly, as the map's keys do, so
// that a block cannot show another group's frame. With `minusOne` one block
// may stand for key -1 (a kind-1 frame filed there beside a kind-2 frame),
// whatever its group, between the groups below -1 and those from 0 on.
inline bool groupsInOrder(const QVector<RdvBlock> &blocks, bool minusOne)
{
    const auto group = [&blocks](int i) { return int(blocks[i][Rdv::Field::Group]); };
    const auto rising = [&](int from, int floor) {
        for (int i = from, last = floor - 1; i < blocks.size(); last = group(i++)) {
            if (group(i) <= last)
                return false;
        }
        return true;
    };
    if (blocks.isEmpty() || blocks[0].single())
        return true;
    if (!minusOne)
        return rising(0, -128);
    int i = 0;
    for (int last = -129; i < blocks.size() && group(i) < -1 && group(i) > last; ++i)
        last = group(i);
    return rising(i, -1) || rising(i + 1, 0);
}

} // namespace Fuzz
