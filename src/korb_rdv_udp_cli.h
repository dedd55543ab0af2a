#pragma once

#include "src/korb_rdv_source.h"

#include <QAbstractSocket>
#include <QHostAddress>

class QUdpSocket;

// Receives the device's frames as UDP datagrams on two local ports. Each
// datagram carries an 8-byte header (length, sequence number); frames are
// reassembled per port in a receive area, copied once into the character
// buffer when complete, and the latest frame of every channel group (its copy
// there) goes to the sink at the send interval.
class KorbRdvStreamerUdp : public KorbRdvSource
{
    Q_OBJECT
    Q_DISABLE_COPY(KorbRdvStreamerUdp)

public:
    // Per-port reassembly area; 1 MiB holds many of the largest datagrams.
    static constexpr int ReceiveAreaSize = 1048576;
    // Silence that ends a burst.
    static constexpr int WatchdogMs = 550;
    // A frame opens at offset 8 of a datagram or at the first of 9..14.
    static constexpr int FirstFrameOffset = 8;
    static constexpr int LastFrameOffset = 14;
    // The datagram header's length field is 16 bits: nothing longer is a
    // datagram of the device.
    static constexpr int MaxDatagramSize = 65535;
    // Datagrams one port gives per turn of the event loop (about 1.6 MiB of
    // the largest frames): a port that never runs dry cannot hold the loop,
    // so the other port and the broadcast are served in between.
    static constexpr int DatagramsPerTurn = 32;
    // Waiting for a sent datagram to leave, at most.
    static constexpr int SendWaitMs = 10;

    // Process-wide receive counters of the current burst, reported and reset
    // when the burst ends.
    struct Counters
    {
        int cntOk = 0; // frames opened
        int cntEr = 0; // accepted datagrams that opened no frame and continued none
        int udpOk = 0; // datagrams that passed the sequence and length test
        int udpEr = 0; // datagrams dropped: sequence gap, length mismatch, short read, empty
    };
    // Datagrams accepted and dropped since the process started, the current
    // burst's included.
    struct Totals
    {
        qint64 udpOk = 0;
        qint64 udpEr = 0;
    };
    static Totals totals();
    // The raw-capture file ("Z:/udpStream_<ms>.bin" relative to the working
    // directory): open while capturing.
    static QString captureFileName();
    static void closeCaptureFile();

    explicit KorbRdvStreamerUdp(QObject *parent, KorbRdvSink *sink, QObject *commandSource, quint16 port1,
                                quint16 port2);
    ~KorbRdvStreamerUdp() override;

    quint16 port1() const { return m_port[0]; }
    quint16 port2() const { return m_port[1]; }
    QHostAddress localAddress() const { return m_localAddress; }
    void setLocalAddress(const QHostAddress &address) { m_localAddress = address; }
    quint32 lastSequence(int udpNum) const { return m_lastSeq[udpNum & 1]; }
    // The two sockets' descriptors (-1 while closed): the kernel counts the
    // datagrams it dropped for them.
    QList<qintptr> socketDescriptors() const;
    // Takes one datagram of port `udpNum` (0 or 1) as if it had just been
    // read from that port's socket.
    void takeDatagram(int udpNum, const QByteArray &datagram);

signals:
    void readyRead(const QByteArray &message, const QString &host, quint16 port);
    void error(const QString &message, const QString &host, quint16 port);
    void protoSelfChange(const QString &message, const QString &host, quint16 port);

public slots:
    // Binds both sockets (a port 0 becomes the system's choice and is
    // stored); false, with both sockets closed, when either fails.
    bool bind();
    void closeConnection();
    qint64 sendMessage0(const QByteArray &data, const QString &host, quint16 port);
    qint64 sendMessage1(const QByteArray &data, const QString &host, quint16 port);
    void ReadyRead1();
    void ReadyRead2();
    // Takes the datagrams waiting on the socket, up to a turn's share, each
    // read straight into the port's receive area.
    void ReadyRead(QUdpSocket *udpSocket, int udpNum);
    void error(QAbstractSocket::SocketError err);

protected:
    bool receiving() const override;
    void silenceEnded() override;

private:
    qint64 sendMessage_raw(QUdpSocket *socket, const QByteArray &data, const QString &host, quint16 port);
    // Reads one datagram into the port's area; false when none was queued.
    bool readOne(QUdpSocket *udpSocket, int udpNum);
    // Where the next datagram goes: behind the data of the port's receive
    // area, which always has room for the largest one.
    char *receiveSlot(int udpNum);
    // The datagram of `size` bytes just put at `d`, moved to the start of the
    // area (behind the frame in progress) when it ends past the area's end.
    char *settle(int udpNum, char *d, int size);
    // Sequence test and reassembly of the datagram of `size` bytes at `d`.
    void acceptDatagram(int udpNum, char *d, int size);
    void dropFrame(int udpNum);
    void resetPorts();
    void parseCapture();

    QUdpSocket *udpSocket1;
    QUdpSocket *udpSocket2;
    QHostAddress m_localAddress = QHostAddress::Any;
    quint16 m_port[2];
    quint32 m_lastSeq[2] = {0, 0};
    int m_idxBefore[2] = {0, 0};
    int m_buffIdx[2] = {0, 0};
    int m_frameLen[2] = {0, 0};
    char *m_frame[2] = {nullptr, nullptr}; // frame being assembled, in the port's area
    // Receive areas: room for one largest datagram past the area's end, so
    // that every read goes in place, and one largest frame of zeroed slack
    // behind that, so that a frame read by its count never leaves the allocation.
    char m_area[2][ReceiveAreaSize + MaxDatagramSize + Rdv::MaxFrameSize] = {};

    static Counters s_counters;
    static Totals s_endedBursts;
};
