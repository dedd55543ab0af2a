#include "support/rdv_test_encoder.h"

#include "src/korb_rdv_packet.h"

#include <QStringList>
#include <QtEndian>

#include <cstring>

namespace RdvTest {

namespace {
template <typename T> T at(const char *p, int offset)
{
    T v;
    std::memcpy(&v, p + offset, sizeof v); // the test hosts are little-endian
    return v;
}

// Frame time in whole milliseconds, both steps truncated in double precision.
double timeMs(const char *f)
{
    const double ns = double(quint64(double(at<quint32>(f, 8)) * 1e9 + double(at<quint32>(f, 12))));
    return double(quint64(ns / 1e6));
}

// The samples a packet carries: all when the magic, the kind and the count allow.
QByteArray payload(const QByteArray &f, int kind, int sampleSize)
{
    const int count = at<quint16>(f.constData(), 17);
    const bool ok = at<quint32>(f.constData(), 0) == Magic && f.at(4) == kind && count <= 13000;
    return ok ? f.mid(56, count * sampleSize) : QByteArray();
}

// One block: the length word, the layout's fixed words, the fields (integers
// in their own widths, doubles as their bits, all little-endian), the samples.
QByteArray block(const QByteArray &f, bool channel)
{
    QByteArray out;
    const auto put = [&out](quint64 v, int size) {
        for (int i = 0; i < size; ++i)
            out += char(v >> 8 * i);
    };
    for (int word : {0, 5, channel ? 3 : 4, 2, channel ? 6 : 5})
        put(quint64(word), 2);
    constexpr int Width[] = {1, 2, 2, 4, 8}; // by PacketFieldValue::Type
    for (const PacketFieldValue &v : packetFields(f, channel))
        put(v.type == PacketFieldValue::F64 ? at<quint64>(reinterpret_cast<const char *>(&v.value), 0)
                                            : quint64(qint64(v.value)),
            Width[v.type]);
    out += payload(f, channel ? 1 : 2, channel ? 4 : 8);
    qToLittleEndian<quint16>(quint16(out.size()), out.data());
    return out;
}

// "group@ms" of a map entry, the time since BaseSec.
QString entry(int group, double ms)
{
    return QStringLiteral("%1@%2").arg(group).arg(qint64(ms - BaseSec * 1000.0));
}
} // namespace

FrameSpec single(int ms, quint16 count)
{
    return {2, 0x0A, count, BaseSec + quint32(ms / 1000), quint32(ms % 1000) * 1000000u};
}

FrameSpec channel(qint8 group, int ms, quint16 count)
{
    return {1, quint8(group), count, BaseSec + quint32(ms / 1000), quint32(ms % 1000) * 1000000u};
}

QByteArray frame(const FrameSpec &s)
{
    const int samples = s.samples < 0 ? s.count : s.samples;
    QByteArray f(56 + samples * (s.kind == 1 ? 4 : 8), Qt::Uninitialized);
    for (int i = 0; i < f.size(); ++i)
        f[i] = char(i < 56 ? i * 37 + 11
                           : (i * 131 + s.count) | (i % 4 == 1 ? 0x80 : 0)); // some samples negative
    qToLittleEndian<quint32>(s.magic, f.data());
    f[4] = char(s.kind);
    qToLittleEndian<quint32>(s.sec, f.data() + 8);
    qToLittleEndian<quint32>(s.sub, f.data() + 12);
    f[16] = char(s.byte16);
    qToLittleEndian<quint16>(s.count, f.data() + 17);
    return f;
}

QByteArray stream(const QList<FrameSpec> &frames, int gap)
{
    QByteArray out;
    for (const FrameSpec &s : frames)
        out += frame(s) + QByteArray(gap, '\0');
    return out;
}

QByteArray datagram(quint32 seq, const QByteArray &body, int lengthDelta)
{
    QByteArray d(8, '\0');
    qToLittleEndian<quint16>(quint16(8 + body.size() + lengthDelta), d.data());
    qToLittleEndian<quint32>(seq, d.data() + 4);
    return d + body;
}

QList<PacketFieldValue> packetFields(const QByteArray &f, bool channel)
{
    using V = PacketFieldValue;
    const char *p = f.constData();
    const quint8 b16 = quint8(p[16]), nibbles = quint8(p[22]);
    const double time = timeMs(p), rate = 1000.0 / double(at<quint32>(p, 12)), kind = qint8(p[4]);
    const auto i16 = [p](int o) { return double(at<qint16>(p, o)); };
    const auto i32 = [p](int o) { return double(at<qint32>(p, o)); };
    const auto u64 = [p](int o) { return double(at<quint64>(p, o)); };
    const auto f32 = [p](int o) { return double(at<float>(p, o)); };
    const double count = at<quint16>(p, 17);
    // clang-format off
    if (!channel)
        return {{"frameType", V::I8, kind}, {"flagBit1", V::I8, double(b16 >> 1 & 1)},
                {"flagBit2", V::I8, double(b16 >> 2 & 1)}, {"flagBit3", V::I8, double(b16 >> 3 & 1)},
                {"flagBit0", V::I8, double(b16 & 1)}, {"sampleCount", V::U16, count}, {"word5", V::I16, i16(5)},
                {"word44", V::I16, i16(44)}, {"word46", V::I16, i16(46)}, {"intA", V::I32, i32(36)},
                {"intB", V::I32, i32(52)}, {"timeMs", V::F64, time}, {"rate", V::F64, rate},
                {"counterA", V::F64, u64(20)}, {"counterB", V::F64, u64(28)}, {"floatA", V::F64, f32(40)}};
    return {{"frameType", V::I8, kind}, {"nibbleLow", V::I8, double(nibbles & 15)},
            {"nibbleHigh", V::I8, double(nibbles >> 4)}, {"group", V::I8, double(qint8(p[16]))},
            {"byte7", V::I8, double(qint8(p[7]))}, {"sampleCount", V::U16, count}, {"word5", V::I16, i16(5)},
            {"word20", V::I16, i16(20)}, {"intA", V::I32, i32(40)}, {"intB", V::I32, i32(52)},
            {"timeMs", V::F64, time}, {"rate", V::F64, rate}, {"counterA", V::F64, u64(24)},
            {"counterB", V::F64, u64(32)}, {"floatA", V::F64, f32(44)}, {"floatB", V::F64, f32(48)}};
    // clang-format on
}

QList<qint32> sampleValues(const QByteArray &f, bool channel)
{
    QList<qint32> values;
    const QByteArray samples = payload(f, channel ? 1 : 2, channel ? 4 : 8);
    for (int i = 0; i < samples.size(); i += channel ? 2 : 4)
        values << (channel ? at<qint16>(samples.constData(), i) : at<qint32>(samples.constData(), i));
    return values;
}

QByteArray singlePacket(const QByteArray &f)
{
    return block(f, false);
}

QByteArray channelPacket(const QByteArrayList &frames)
{
    QByteArray out;
    for (const QByteArray &f : frames)
        out += block(f, true);
    return out;
}

QString describePacket(const QByteArray &packet)
{
    const char *p = packet.constData();
    if (packet.size() >= 71 && at<qint16>(p, 4) == 4)
        return QStringLiteral("s%1").arg(qint64(at<double>(p, 31) - BaseSec * 1000.0));
    QStringList entries;
    for (int pos = 0; pos + 77 <= packet.size();
         pos += qMax(77, int(at<quint16>(p, pos)))) // lengths <= 65535
        entries << entry(qint8(p[pos + 13]), at<double>(p, pos + 29));
    return QLatin1Char('m') + entries.join(QLatin1Char(','));
}

void RecordingSink::sendRdv(const RdvFrame *frame)
{
    seen << QStringLiteral("s%1").arg(
        qint64(timeMs(reinterpret_cast<const char *>(frame)) - BaseSec * 1000.0));
}

void RecordingSink::sendRdv(const RdvChannelMap &channels)
{
    QStringList entries;
    for (auto it = channels.cbegin(); it != channels.cend(); ++it)
        entries << entry(it.key(), timeMs(reinterpret_cast<const char *>(*it)));
    seen << 'm' + entries.join(',');
    packets << Rdv::buildPacket(channels);
}

} // namespace RdvTest
