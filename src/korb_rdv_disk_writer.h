#pragma once

#include "src/korb_disk.h"
#include "src/korb_large_buffer.h"
#include "src/korb_rdv_settings.h"

#include <QByteArray>
#include <QFile>
#include <QMutex>
#include <QObject>
#include <QPointer>
#include <QQueue>
#include <QString>
#include <QWaitCondition>

#include <atomic>
#include <functional>

class QThread;

// The relay's one thread for what it writes to disk, so that no write holds
// the event loop that reads the device: the stream of a recording, appended
// frame by frame through a bounded queue, and whole files (the dumps), each
// taken as one copy. The event loop only copies, and only into memory this
// thread has made ready (a page faulted in costs microseconds; 64 MiB of
// them stall the loop for longer than the sockets can hold the device's
// data): the stream into a ring that lives as long as the writer, a file
// into memory made for it here. The thread writes, makes room under the
// files' bounds first, and tells a full disk (ENOSPC, a short write) from a
// written file.
class KorbRdvDiskWriter : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY(KorbRdvDiskWriter)

public:
    // Stream bytes waiting for the disk: over half a second of the device's
    // densest stream (52 MB/s). Beyond it append() refuses, so a slow disk
    // costs frames of the recording, never the relay's memory.
    static constexpr qint64 DefaultStreamQueueBytes = 32 * Korb::BytesPerMiB;
    // Whole files waiting at once: two of the largest dumps (the 64 MiB
    // buffer), one written while the next waits; more are refused rather
    // than held in memory.
    static constexpr qint64 MaxQueuedFileBytes = 2 * qint64(Korb::DefaultMaxFileSize);
    // The stream reaches the kernel at least this often, so a relay killed
    // outright loses no more of a recording than this.
    static constexpr int FlushIntervalMs = 250;
    // A stream at the device's rate would fill the page cache with dirty
    // pages that the kernel's flusher writes out later at its own priority,
    // beside the event loop. This thread starts the write-back of every
    // PushOutBytes itself and waits for the piece before, so the disk sets
    // the pace here, at this thread's low priority, and written pages leave
    // the cache.
    static constexpr qint64 PushOutBytes = 8 * Korb::BytesPerMiB;
    // The thread's nice value: where it shares a core with the event loop,
    // the device's sockets are read first, yet a busy machine never starves
    // it, as it would an idle-class thread.
    static constexpr int Nice = 10;
    // Stream bytes are gathered into pieces of up to this size, one write each.
    static constexpr int PieceSize = 1024 * 1024;

    // Puts a file's bytes into `bytes`, which holds at least the size asked
    // for; resizing it is allowed.
    using Fill = std::function<void(QByteArray &bytes)>;

    explicit KorbRdvDiskWriter(QObject *parent, qint64 streamQueueBytes = DefaultStreamQueueBytes);
    // Writes out everything queued (files being prepared too), then ends the thread.
    ~KorbRdvDiskWriter() override;

    // From here on the stream goes to a new file at `path` (its folder made
    // when missing), once the other files of `bound` are trimmed to it.
    void startStream(const QString &path, const Korb::FileBound &bound);
    // Appends to the stream; false, taking nothing, when the queue is full.
    bool append(const char *data, int size);
    // Trims the files of `bound`, the stream's own file aside.
    void trim(const Korb::FileBound &bound);
    // Writes the file `path` once the other files of `bound` are trimmed to
    // leave room for it under maxBytes. Its bytes are taken by `fill`, later,
    // in the thread of `context`, into memory of about `size` bytes made
    // ready here; no file once context is gone or when fill leaves nothing.
    // A file that cannot be given room is not written, one a full disk cuts
    // short is removed; each with a log line. False, taking nothing, when
    // too many files wait.
    bool writeFile(const QString &path, int size, const Korb::FileBound &bound, QObject *context, Fill fill);

    // Stream bytes that reached the disk, and stream files started.
    qint64 streamBytesWritten() const { return m_streamBytes; }
    int streamFiles() const { return m_streamFiles; }

signals:
    // The stream's file could not be made or written (`reason`, such as a
    // full disk); stream bytes are dropped until the next startStream().
    // Emitted by the writer's thread.
    void streamFailed(const QString &reason);

private:
    struct Job
    {
        enum Kind { Stream, Bytes, Trim, Prepare, File } kind;
        QString path;
        QByteArray bytes; // of a file
        Korb::FileBound bound;
        // Of stream bytes, how many the ring holds for this job; of a file
        // being prepared, its size.
        int size = 0;
        QPointer<QObject> context = nullptr;
        Fill fill = nullptr;
    };

    void enqueue(Job job);
    void copyToRing(const char *data, int size);
    void run();
    void execute(Job &job);
    void openStream(const Job &job);
    void writeStream(int size);
    void pushOut();
    void failStream(const QString &reason);
    void prepareFile(Job job);
    void fillFile(Job job);
    void writeWholeFile(const Job &job);

    QThread *m_thread = nullptr;
    // Shared with the thread, under m_mutex.
    QMutex m_mutex;
    QWaitCondition m_wake;
    QQueue<Job> m_jobs;
    qint64 m_queuedStream = 0;
    qint64 m_queuedFiles = 0;
    bool m_stopping = false;
    // The stream's queue: bytes from m_ringIn back over m_queuedStream wait.
    Korb::LargeBuffer m_ring;
    qint64 m_ringIn = 0;
    // The thread's own.
    qint64 m_ringOut = 0;
    QFile m_stream;
    qint64 m_pushedTo = 0; // stream bytes whose write-back was started
    qint64 m_waitFrom = 0; // and the first of them not yet waited for
    std::atomic<qint64> m_streamBytes{0};
    std::atomic<int> m_streamFiles{0};
};
