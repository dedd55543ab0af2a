#pragma once

#include "src/korb_rdv_scanner.h"

#include <QElapsedTimer>
#include <QObject>
#include <QPointer>
#include <QQueue>
#include <QString>

class KorbRdvDiskWriter;
class KorbRdvSink;
class QTimerEvent;

// What the UDP receiver and the TCP client have in common: the frame
// scanner with its character buffer, the recording commands that dump that
// buffer to files, and the silence watchdog that ends a burst of data.
class KorbRdvSource : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY(KorbRdvSource)

public:
    // Kernel receive buffer asked for on the device's sockets: a burst of
    // full-size frames must fit while the event loop is busy elsewhere.
    static constexpr int SocketReceiveBufferSize = 8 * 1024 * 1024;
    // A dump copies up to the whole 64 MiB buffer in the event loop (into
    // memory the disk writer's thread made ready, and writes): a few back to
    // back (a csv beside a buf) are served, but no more than DumpBurst per DumpWindowMs and
    // source, so that a client repeating the command cannot hold the relay
    // at the rate it types.
    static constexpr int DumpBurst = 4;
    static constexpr int DumpWindowMs = 20000;
    // Names of the dump files; all of them in dumpDir() share the dump quota.
    static constexpr const char *DumpPrefix = "zz-";
    // A silence that comes while a dump waits for its memory ends this much
    // later, or later still: the dump takes the buffer the silence releases.
    static constexpr int DumpWaitMs = 50;

    ~KorbRdvSource() override;

    KorbRdvScanner &scanner() { return m_scan; }
    const KorbRdvScanner &scanner() const { return m_scan; }

    // Size of the character buffer allocated when data arrives and none
    // exists (default: the largest, 64 MiB).
    void setBufferCapacity(int bytes) { m_bufferCapacity = bytes; }

    // Milliseconds since the source last delivered a frame (an edge: a
    // message); -1 before the first.
    qint64 lastFrameAgeMs() const { return m_lastFrame.isValid() ? m_lastFrame.elapsed() : -1; }

    // Serial number the next dump file name will carry.
    int fileCounter() const { return m_fileCounter; }
    // Where the dumps are written, and what all dump files may take
    // together; without a writer, dumps are refused.
    void setDumpWriter(KorbRdvDiskWriter *writer, qint64 quotaBytes);

    // Directory of the dump files: "../tmp" beside the application.
    static QString dumpDir();
    // "zz-<uzk|vtp>_<seconds since 2000>_<counter>.<ext>" as an absolute
    // path in dumpDir() (created when missing); advances the counter.
    QString makeDumpFileName(const QString &ext);

public slots:
    // New send interval of the rate gate.
    void runCmd(quint16 ms);
    // "buf": the whole buffer in ring order to a ".rdv" file; "csv": the
    // oldest frame in the ring as a table. Ignored without a buffer, while
    // the source is not receiving, and past DumpBurst dumps in DumpWindowMs.
    void runCmd(const QString &cmd);

protected:
    // The command source's runCmd signals are connected by name when it is
    // given, so that anything declaring them (the WebSocket server, a test
    // double) can drive the source. A watchdog of 0 ms is none.
    KorbRdvSource(QObject *parent, KorbRdvSink *sink, QObject *commandSource, int watchdogMs,
                  KorbRdvScanner::Pacing pacing);

    // Whether the source's sockets are up, so a recording makes sense.
    virtual bool receiving() const = 0;
    // After the common part of the watchdog expiry (recording closed,
    // buffer released, file counter reset).
    virtual void silenceEnded() {}

    // Allocates the buffer (bufferCapacity()) when there is none; true when
    // it was allocated by this call.
    bool ensureBuffer();
    // Asks the kernel for SocketReceiveBufferSize on a socket and returns the
    // size granted; the first shortfall of the source is logged as a warning
    // that names the net.core.rmem_max needed.
    int requestReceiveBuffer(qintptr descriptor);
    // A read has brought bytes that may complete frames (KorbRdvSink::markIngest).
    void markIngest();
    // `delivered` is the source's running count of frames: the clock of
    // lastFrameAgeMs() starts again when it has grown.
    void noteDelivered(qint64 delivered);
    // Data has arrived: the silence watchdog counts from now. One timer
    // serves a whole burst; it is armed again only when it fires early.
    void noteData();
    void stopWatchdog();
    void timerEvent(QTimerEvent *event) override;

    KorbRdvSink *const m_sink;
    KorbRdvScanner m_scan;

private:
    // Whether a dump may be written now; counts it when it may.
    bool takeDumpSlot();

    int m_watchdogMs;
    int m_watchdogId = 0;
    QElapsedTimer m_lastData;
    QElapsedTimer m_lastFrame;
    qint64 m_delivered = 0;
    QElapsedTimer m_dumpClock;
    QQueue<qint64> m_dumpTimes; // of the dumps within the last DumpWindowMs
    int m_fileCounter = 0;
    QPointer<KorbRdvDiskWriter> m_dumpWriter;
    int m_dumpsWaiting = 0; // handed to the writer, their bytes not yet taken
    qint64 m_dumpQuota = 0;
    int m_bufferCapacity = KorbRdvScanner::MaxBufferSize;
    bool m_receiveBufferWarned = false;
};
