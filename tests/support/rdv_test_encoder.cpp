#include "support/rdv_test_encoder.h"

#include "src/korb_rdv_packet.h"

#include <QDataStream>
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

// A packet's fixed part as the format has it: QDataStream, little-endian, doubles.
template <typename Fields> QByteArray packed(Fields fields)
{
    QByteArray out;
    QDataStream s(&out, QIODevice::WriteOnly);
    s.setByteOrder(QDataStream::LittleEndian);
    s.setFloatingPointPrecision(QDataStream::DoublePrecision);
    fields(s);
    return out;
}

// The samples a packet carries: all when the magic, the kind and the count allow.
QByteArray payload(const QByteArray &f, int kind, int sampleSize)
{
    const int count = at<quint16>(f.constData(), 17);
    const bool ok = at<quint32>(f.constData(), 0) == Magic && f.at(4) == kind && count <= 13000;
    return ok ? f.mid(56, count * sampleSize) : QByteArray();
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

QByteArray singlePacket(const QByteArray &f)
{
    const char *p = f.constData();
    const quint8 flags = quint8(p[16]);
    QByteArray out = packed([&](QDataStream &s) {
        s << quint16(0) << qint16(5) << qint16(4) << qint16(2) << qint16(5) << qint8(p[4])
          << qint8(flags >> 1 & 1) << qint8(flags >> 2 & 1) << qint8(flags >> 3 & 1) << qint8(flags & 1)
          << at<quint16>(p, 17) << at<qint16>(p, 5) << at<qint16>(p, 44) << at<qint16>(p, 46)
          << at<qint32>(p, 36) << at<qint32>(p, 52) << timeMs(p) << 1000.0 / double(at<quint32>(p, 12))
          << double(at<quint64>(p, 20)) << double(at<quint64>(p, 28)) << double(at<float>(p, 40));
    });
    out += payload(f, 2, 8);
    qToLittleEndian<quint16>(quint16(out.size()), out.data());
    return out;
}

QByteArray channelPacket(const QByteArrayList &frames)
{
    QByteArray out;
    for (const QByteArray &f : frames) {
        const char *p = f.constData();
        const quint8 nibbles = quint8(p[22]);
        QByteArray block = packed([&](QDataStream &s) {
            s << quint16(0) << qint16(5) << qint16(3) << qint16(2) << qint16(6) << qint8(p[4])
              << qint8(nibbles & 15) << qint8(nibbles >> 4) << qint8(p[16]) << qint8(p[7])
              << at<quint16>(p, 17) << at<qint16>(p, 5) << at<qint16>(p, 20) << at<qint32>(p, 40)
              << at<qint32>(p, 52) << timeMs(p) << 1000.0 / double(at<quint32>(p, 12))
              << double(at<quint64>(p, 24)) << double(at<quint64>(p, 32)) << double(at<float>(p, 44))
              << double(at<float>(p, 48));
        });
        block += payload(f, 1, 4);
        qToLittleEndian<quint16>(quint16(block.size()), block.data());
        out += block;
    }
    return out;
}

QString describePacket(const QByteArray &packet)
{
    const char *p = packet.constData();
    const double base = double(BaseSec) * 1000;
    if (packet.size() >= 71 && at<qint16>(p, 4) == 4)
        return QStringLiteral("s%1").arg(qint64(at<double>(p, 31) - base));
    QStringList entries;
    for (int pos = 0; pos + 77 <= packet.size();
         pos += qMax(77, int(at<quint16>(p, pos)))) // lengths <= 65535
        entries << QStringLiteral("%1@%2")
                       .arg(int(qint8(p[pos + 13])))
                       .arg(qint64(at<double>(p, pos + 29) - base));
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
        entries << QStringLiteral("%1@%2")
                       .arg(int(it.key()))
                       .arg(qint64(timeMs(reinterpret_cast<const char *>(*it)) - BaseSec * 1000.0));
    seen << 'm' + entries.join(',');
    packets << Rdv::buildPacket(channels);
}

} // namespace RdvTest
