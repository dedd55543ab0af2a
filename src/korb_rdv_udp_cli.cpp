#include "src/korb_rdv_udp_cli.h"

#include "logger/korb_log.h"
#include "src/korb_rdv_sink.h"

#include <QDateTime>
#include <QFileInfo>
#include <QNetworkProxy>
#include <QUdpSocket>

#include <cstring>

KorbRdvStreamerUdp::Counters KorbRdvStreamerUdp::s_counters;
KorbRdvStreamerUdp::Totals KorbRdvStreamerUdp::s_endedBursts;

namespace {
constexpr int DatagramHeaderSize = int(sizeof(RdvDatagramHeader));

// One capture file for the whole process (one receiver is expected).
QFile &captureFile()
{
    static QFile file;
    return file;
}

bool isBound(const QUdpSocket *s)
{
    return s && (s->state() == QAbstractSocket::BoundState || s->state() == QAbstractSocket::ListeningState);
}

QString addressText(const QString &address)
{
    QString text = address;
    return text.replace(QLatin1Char('%'), QLatin1Char('_'));
}

// Offset of the kind-1 frame a datagram opens (8, or the first of 9..14), or
// -1. The header has to lie inside the datagram.
int openingOffset(const char *d, int size)
{
    for (int off = KorbRdvStreamerUdp::FirstFrameOffset; off <= KorbRdvStreamerUdp::LastFrameOffset; ++off) {
        if (off + Rdv::HeaderSize > size)
            return -1;
        if (Rdv::headerValid(d + off) && Rdv::kind(d + off) == 1)
            return off;
    }
    return -1;
}
} // namespace

QString KorbRdvStreamerUdp::captureFileName()
{
    return captureFile().isOpen() ? captureFile().fileName() : QString();
}

void KorbRdvStreamerUdp::closeCaptureFile()
{
    captureFile().close();
}

KorbRdvStreamerUdp::Totals KorbRdvStreamerUdp::totals()
{
    return {s_endedBursts.udpOk + s_counters.udpOk, s_endedBursts.udpEr + s_counters.udpEr};
}

QList<qintptr> KorbRdvStreamerUdp::socketDescriptors() const
{
    return {udpSocket1->socketDescriptor(), udpSocket2->socketDescriptor()};
}

KorbRdvStreamerUdp::KorbRdvStreamerUdp(QObject *parent, KorbRdvSink *sink, QObject *commandSource,
                                       quint16 port1, quint16 port2)
    : KorbRdvSource(parent, sink, commandSource, WatchdogMs, KorbRdvScanner::Pacing::Datagrams),
      udpSocket1(new QUdpSocket(this)), udpSocket2(new QUdpSocket(this)), m_port{port1, port2}
{
    qRegisterMetaType<QAbstractSocket::SocketError>("QAbstractSocket::SocketError");
    setObjectName(QStringLiteral("rdv_udp_cli_%1").arg(port1));
    udpSocket1->setProxy(QNetworkProxy::NoProxy);
    udpSocket2->setProxy(QNetworkProxy::NoProxy);
    connect(udpSocket1, SIGNAL(readyRead()), this, SLOT(ReadyRead1()));
    connect(udpSocket2, SIGNAL(readyRead()), this, SLOT(ReadyRead2()));
    connect(udpSocket1, SIGNAL(error(QAbstractSocket::SocketError)), this,
            SLOT(error(QAbstractSocket::SocketError)));
    connect(udpSocket2, SIGNAL(error(QAbstractSocket::SocketError)), this,
            SLOT(error(QAbstractSocket::SocketError)));
    m_scan.resetBuffer(0);
}

KorbRdvStreamerUdp::~KorbRdvStreamerUdp()
{
    stopWatchdog();
    udpSocket1->disconnect(this);
    udpSocket2->disconnect(this);
}

bool KorbRdvStreamerUdp::receiving() const
{
    return isBound(udpSocket1) && isBound(udpSocket2);
}

bool KorbRdvStreamerUdp::bind()
{
    if (receiving())
        closeConnection();
    const bool ok =
        udpSocket1->bind(m_localAddress, m_port[0]) && udpSocket2->bind(m_localAddress, m_port[1]);
    if (!ok) {
        for (QUdpSocket *s : {udpSocket1, udpSocket2}) {
            if (isBound(s)) {
                s->abort();
                s->close();
            }
        }
    } else {
        m_port[0] = udpSocket1->localPort();
        m_port[1] = udpSocket2->localPort();
        m_localAddress = udpSocket1->localAddress();
        for (QUdpSocket *s : {udpSocket1, udpSocket2}) {
            s->setSocketOption(QAbstractSocket::LowDelayOption, 1);
            s->setSocketOption(QAbstractSocket::MulticastTtlOption, 1);
            s->setSocketOption(QAbstractSocket::TypeOfServiceOption, 32);
            requestReceiveBuffer(s->socketDescriptor());
        }
    }
    return ok;
}

void KorbRdvStreamerUdp::closeConnection()
{
    udpSocket1->close();
    udpSocket2->close();
    KLOG(this, 2, QStringLiteral("closeConnection [%1,%2]").arg(m_port[0]).arg(m_port[1]));
}

qint64 KorbRdvStreamerUdp::sendMessage0(const QByteArray &data, const QString &host, quint16 port)
{
    return sendMessage_raw(udpSocket1, data, host, port);
}

qint64 KorbRdvStreamerUdp::sendMessage1(const QByteArray &data, const QString &host, quint16 port)
{
    return sendMessage_raw(udpSocket2, data, host, port);
}

qint64 KorbRdvStreamerUdp::sendMessage_raw(QUdpSocket *socket, const QByteArray &data, const QString &host,
                                           quint16 port)
{
    if (!socket)
        return 0;
    KLOG(this, 3,
         tr("отправить %1%2сообщение для %3:%4 %5 b")
             .arg(QString(), QString(), addressText(host))
             .arg(port)
             .arg(data.size()));
    const qint64 written = socket->writeDatagram(data, QHostAddress(host), port);
    if (written > 0)
        socket->waitForBytesWritten(SendWaitMs);
    return written;
}

void KorbRdvStreamerUdp::ReadyRead1()
{
    ReadyRead(udpSocket1, 0);
}

void KorbRdvStreamerUdp::ReadyRead2()
{
    ReadyRead(udpSocket2, 1);
}

void KorbRdvStreamerUdp::error(QAbstractSocket::SocketError err)
{
    auto *s = qobject_cast<QUdpSocket *>(sender());
    const QString text = s ? s->errorString() : QString::number(int(err));
    // A read that finds the queue empty ends every burst; it is no error.
    if (err == QAbstractSocket::TemporaryError)
        return;
    KLOG(this, 1, tr("ошибка сокета UDP (%1): %2").arg(int(err)).arg(text));
    emit error(text, addressText(m_localAddress.toString()), s ? s->localPort() : quint16(0));
}

void KorbRdvStreamerUdp::dropFrame(int udpNum)
{
    m_frame[udpNum] = nullptr;
    m_idxBefore[udpNum] = 0;
    m_frameLen[udpNum] = 0;
    m_buffIdx[udpNum] = 0;
}

void KorbRdvStreamerUdp::resetPorts()
{
    dropFrame(0);
    dropFrame(1);
}

void KorbRdvStreamerUdp::ReadyRead(QUdpSocket *udpSocket, int udpNum)
{
    if (!udpSocket)
        return;
    noteData();
    udpNum &= 1;

    // Raw capture: a directory "Z:" in the working directory switches it
    // on; looked for once per notification, not per datagram.
    QFile &capture = captureFile();
    if (!capture.isOpen()) {
        capture.setFileName(QStringLiteral("Z:/udpStream_%1.bin").arg(QDateTime::currentMSecsSinceEpoch()));
        capture.open(QIODevice::ReadWrite);
    }
    if (udpNum == 0 && capture.isOpen()) {
        QByteArray datagram(MaxDatagramSize, Qt::Uninitialized);
        qint64 got;
        while ((got = udpSocket->readDatagram(datagram.data(), datagram.size())) >= 0) {
            capture.write(datagram.constData(), got);
            KTRACE << "rcnt" << got;
        }
        capture.flush(); // a capture is for post-mortems: keep it on disk
        return;
    }

    // One system call per datagram: each read goes straight to the receive
    // area. A turn ends when the queue is empty or the turn's share is read;
    // a socket still readable is notified again on the next turn.
    m_scan.holdPackets();
    bool caughtUp = false;
    for (int n = 0; n < DatagramsPerTurn && !caughtUp; ++n)
        caughtUp = !readOne(udpSocket, udpNum);
    m_scan.releasePackets(!caughtUp);
}

bool KorbRdvStreamerUdp::readOne(QUdpSocket *udpSocket, int udpNum)
{
    char *const d = receiveSlot(udpNum);
    const qint64 got = udpSocket->readDatagram(d, MaxDatagramSize);
    if (got < 0)
        return false;
    markIngest();
    if (got == 0) {
        KTRACE << "rcnt" << got;
        dropFrame(udpNum);
        ++s_counters.udpEr;
    } else {
        acceptDatagram(udpNum, settle(udpNum, d, int(got)), int(got));
    }
    return true;
}

void KorbRdvStreamerUdp::takeDatagram(int udpNum, const QByteArray &datagram)
{
    udpNum &= 1;
    if (datagram.isEmpty() || datagram.size() > MaxDatagramSize) {
        dropFrame(udpNum);
        ++s_counters.udpEr;
        return;
    }
    markIngest();
    char *const d = receiveSlot(udpNum);
    std::memcpy(d, datagram.constData(), size_t(datagram.size()));
    acceptDatagram(udpNum, settle(udpNum, d, datagram.size()), datagram.size());
}

char *KorbRdvStreamerUdp::receiveSlot(int udpNum)
{
    if (ensureBuffer())
        resetPorts();
    return m_area[udpNum] + m_buffIdx[udpNum];
}

char *KorbRdvStreamerUdp::settle(int udpNum, char *d, int size)
{
    if (m_buffIdx[udpNum] + size <= ReceiveAreaSize)
        return d;
    KTRACE << "m_buffIdx 0";
    // A frame still being assembled moves to the start with the rest, so a
    // frame spread over several datagrams survives the restart.
    char *const area = m_area[udpNum];
    const int held = m_frame[udpNum] ? m_buffIdx[udpNum] - int(m_frame[udpNum] - area) : 0;
    if (m_frame[udpNum] && held + size <= ReceiveAreaSize) {
        std::memmove(area, m_frame[udpNum], size_t(held));
        m_frame[udpNum] = area;
        m_buffIdx[udpNum] = held;
    } else {
        dropFrame(udpNum);
    }
    std::memmove(area + m_buffIdx[udpNum], d, size_t(size));
    return area + m_buffIdx[udpNum];
}

void KorbRdvStreamerUdp::acceptDatagram(int udpNum, char *d, int size)
{
    // A datagram shorter than its own header carries no sequence number; it
    // is dropped like a length mismatch and the sequence stays.
    if (size < DatagramHeaderSize) {
        KTRACE << "size" << size;
        dropFrame(udpNum);
        ++s_counters.udpEr;
        return;
    }
    const quint32 prev = m_lastSeq[udpNum];
    const quint32 seq = Rdv::readLE<quint32>(d, offsetof(RdvDatagramHeader, sequence));
    const int length = Rdv::readLE<quint16>(d, offsetof(RdvDatagramHeader, length));
    m_lastSeq[udpNum] = seq;
    if (seq - prev != 1 || length != size) {
        KTRACE << "skip" << udpNum << prev << seq << length << size;
        dropFrame(udpNum);
        ++s_counters.udpEr;
        return;
    }
    ++s_counters.udpOk;

    m_idxBefore[udpNum] = m_buffIdx[udpNum];
    m_buffIdx[udpNum] += size;

    const int off = openingOffset(d, size);
    if (off < 0) {
        if (!m_frame[udpNum]) {
            ++s_counters.cntEr;
            return;
        }
        // Continuation of the frame being assembled: its body follows the
        // bytes already held, without the datagram header in between.
        std::memmove(d, d + DatagramHeaderSize, size_t(size - DatagramHeaderSize));
        m_buffIdx[udpNum] -= DatagramHeaderSize;
        return;
    }
    if (off != FirstFrameOffset)
        KTRACE << "offset" << off;

    char *const f = d + off;
    ++s_counters.cntOk;
    // The second port's groups are numbered 8 above the first port's.
    f[offsetof(RdvFrame, flags)] = char(quint8(f[offsetof(RdvFrame, flags)]) + 8 * udpNum);

    if (const char *const done = m_frame[udpNum]) {
        // Copied once into the character buffer, for the dumps and for the
        // map: the receive area starts again after 1 MiB, or at the next lost
        // datagram, and a quiet group's frame would be overwritten there,
        // where the scanner cannot see it coming.
        if (const char *const kept = m_scan.append(done, m_frameLen[udpNum]))
            m_scan.accept(kept);
        noteDelivered(m_scan.framesAccepted());
    }
    m_frame[udpNum] = f;
    m_frameLen[udpNum] = Rdv::frameLength(f);
}

void KorbRdvStreamerUdp::silenceEnded()
{
    KTRACE << "cntOk" << s_counters.cntOk << "  cntEr" << s_counters.cntEr << "  udpOk " << s_counters.udpOk
           << "  udpEr" << s_counters.udpEr << " number[" << m_lastSeq[0] << m_lastSeq[1]
           << "]\n----------------------";
    resetPorts();
    s_endedBursts = totals();
    s_counters = Counters();
    if (captureFile().isOpen())
        parseCapture();
}

void KorbRdvStreamerUdp::parseCapture()
{
    // The capture holds the first port's datagrams as they came, header
    // included. The parse file gets the device stream they carried: each
    // opened frame from its start, continuations without their headers, and
    // nothing across a sequence break until the next frame opens, so it can
    // be replayed like any recorded frame file.
    QFile &capture = captureFile();
    capture.flush();
    const QFileInfo info(capture.fileName());
    QFile out(QStringLiteral("%1/%2_parse.bin").arg(info.absolutePath(), info.baseName()));
    if (!out.open(QIODevice::ReadWrite | QIODevice::Truncate) || !capture.seek(0)) {
        capture.seek(capture.size());
        return;
    }
    int skips = 0;
    bool havePrev = false;
    bool inFrame = false;
    quint32 prev = 0;
    char record[65536];
    for (;;) {
        if (capture.read(record, DatagramHeaderSize) != DatagramHeaderSize)
            break;
        const int length = Rdv::readLE<quint16>(record, offsetof(RdvDatagramHeader, length));
        const quint32 seq = Rdv::readLE<quint32>(record, offsetof(RdvDatagramHeader, sequence));
        if (length < DatagramHeaderSize)
            break; // not a record boundary any more
        const int body = length - DatagramHeaderSize;
        if (capture.read(record + DatagramHeaderSize, body) != body)
            break;
        if (havePrev && seq - prev != 1) {
            ++skips;
            inFrame = false;
            KTRACE << "cntSkip" << skips;
        }
        havePrev = true;
        prev = seq;
        const int off = openingOffset(record, length);
        if (off >= 0) {
            out.write(record + off, length - off);
            inFrame = true;
        } else if (inFrame) {
            out.write(record + DatagramHeaderSize, body);
        }
    }
    out.close();
    capture.seek(capture.size());
}
