#include "src/korb_rdv_disk_writer.h"

#include "logger/korb_log.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QThread>

#include <cstring>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

KorbRdvDiskWriter::KorbRdvDiskWriter(QObject *parent, qint64 streamQueueBytes)
    : QObject(parent), m_ring(streamQueueBytes)
{
    setObjectName(QStringLiteral("disk_writer"));
    m_thread = QThread::create([this] {
        ::setpriority(PRIO_PROCESS, ::gettid(), Nice); // this thread's alone
        run();
    });
    m_thread->setObjectName(QStringLiteral("disk_writer"));
    m_thread->start();
}

KorbRdvDiskWriter::~KorbRdvDiskWriter()
{
    {
        QMutexLocker lock(&m_mutex);
        m_stopping = true;
        m_wake.wakeOne();
    }
    m_thread->wait();
    delete m_thread;
    // Files the thread prepared wait here for their bytes: taken now, and
    // written by this thread, the last of the queue.
    QCoreApplication::sendPostedEvents(this, QEvent::MetaCall);
    run();
}

void KorbRdvDiskWriter::enqueue(Job job)
{
    QMutexLocker lock(&m_mutex);
    m_jobs.enqueue(std::move(job));
    m_wake.wakeOne();
}

void KorbRdvDiskWriter::startStream(const QString &path, const Korb::FileBound &bound)
{
    enqueue({Job::Stream, path, QByteArray(), bound, 0, nullptr, nullptr});
}

void KorbRdvDiskWriter::trim(const Korb::FileBound &bound)
{
    enqueue({Job::Trim, QString(), QByteArray(), bound, 0, nullptr, nullptr});
}

bool KorbRdvDiskWriter::append(const char *data, int size)
{
    QMutexLocker lock(&m_mutex);
    if (size <= 0 || m_queuedStream + size > m_ring.size())
        return false;
    m_queuedStream += size;
    copyToRing(data, size);
    // Onto the last piece while the thread has not taken it and it has room.
    if (m_jobs.isEmpty() || m_jobs.last().kind != Job::Bytes || m_jobs.last().size + size > PieceSize) {
        // A full piece is worth a write at once; the rest waits for the flush.
        if (!m_jobs.isEmpty() && m_jobs.last().kind == Job::Bytes)
            m_wake.wakeOne();
        m_jobs.enqueue({Job::Bytes, QString(), QByteArray(), Korb::FileBound(), 0, nullptr, nullptr});
    }
    m_jobs.last().size += size;
    return true;
}

void KorbRdvDiskWriter::copyToRing(const char *data, int size)
{
    const qint64 first = qMin(qint64(size), m_ring.size() - m_ringIn);
    std::memcpy(m_ring.data() + m_ringIn, data, size_t(first));
    std::memcpy(m_ring.data(), data + first, size_t(size - first));
    m_ringIn = (m_ringIn + size) % m_ring.size();
}

bool KorbRdvDiskWriter::writeFile(const QString &path, int size, const Korb::FileBound &bound,
                                  QObject *context, Fill fill)
{
    QMutexLocker lock(&m_mutex);
    if (m_queuedFiles + size > MaxQueuedFileBytes)
        return false;
    m_queuedFiles += size; // until written, or dropped unfilled
    m_jobs.enqueue({Job::Prepare, path, QByteArray(), bound, size, context, std::move(fill)});
    m_wake.wakeOne();
    return true;
}

void KorbRdvDiskWriter::prepareFile(Job job)
{
    job.bytes = QByteArray(job.size, '\0'); // every page touched here
    QMetaObject::invokeMethod(
        this, [this, job = std::move(job)]() mutable { fillFile(std::move(job)); }, Qt::QueuedConnection);
}

void KorbRdvDiskWriter::fillFile(Job job)
{
    const int reserved = job.size;
    if (job.context)
        job.fill(job.bytes);
    QMutexLocker lock(&m_mutex);
    if (!job.context || job.bytes.isEmpty()) { // gone, or nothing left to write
        m_queuedFiles -= reserved;
        return;
    }
    m_queuedFiles += job.bytes.size() - reserved;
    job.kind = Job::File;
    job.fill = nullptr;
    m_jobs.enqueue(std::move(job));
    m_wake.wakeOne();
}

void KorbRdvDiskWriter::run()
{
    for (;;) {
        QQueue<Job> jobs;
        {
            QMutexLocker lock(&m_mutex);
            if (m_jobs.isEmpty() && !m_stopping)
                m_wake.wait(&m_mutex, FlushIntervalMs);
            if (m_jobs.isEmpty() && m_stopping)
                break;
            jobs.swap(m_jobs);
        }
        // The queue counts bytes until they are written; the memory goes
        // with each job, outside the lock.
        qint64 stream = 0, files = 0;
        while (!jobs.isEmpty()) {
            Job job = jobs.dequeue();
            execute(job);
            // A file being prepared holds no bytes yet: counted when written.
            if (job.kind == Job::File)
                files += job.bytes.size();
            else if (job.kind == Job::Bytes)
                stream += job.size;
        }
        QMutexLocker lock(&m_mutex);
        m_queuedStream -= stream;
        m_queuedFiles -= files;
    }
    m_stream.close();
}

void KorbRdvDiskWriter::execute(Job &job)
{
    switch (job.kind) {
    case Job::Stream:
        openStream(job);
        break;
    case Job::Bytes:
        writeStream(job.size);
        break;
    case Job::Trim:
        Korb::trimOldest(job.bound, m_stream.fileName());
        break;
    case Job::Prepare:
        prepareFile(std::move(job));
        break;
    case Job::File:
        writeWholeFile(job);
        break;
    }
}

void KorbRdvDiskWriter::openStream(const Job &job)
{
    m_stream.close();
    Korb::trimOldest(job.bound, job.path);
    QDir().mkpath(QFileInfo(job.path).absolutePath());
    m_stream.setFileName(job.path);
    m_pushedTo = m_waitFrom = 0;
    if (!m_stream.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Unbuffered)) {
        failStream(m_stream.errorString());
        return;
    }
    ++m_streamFiles;
    m_ring.populate();
    KLOG(this, 2, tr("запись в файл %1").arg(job.path));
}

void KorbRdvDiskWriter::writeStream(int size)
{
    const qint64 at = m_ringOut;
    m_ringOut = (m_ringOut + size) % m_ring.size();
    if (!m_stream.isOpen())
        return; // dropped since a failure, until the next file
    const qint64 before = m_stream.pos();
    const qint64 first = qMin(qint64(size), m_ring.size() - at);
    if (Korb::writeFully(m_stream, m_ring.data() + at, first) &&
        (first == size || Korb::writeFully(m_stream, m_ring.data(), size - first))) {
        m_streamBytes += size;
        pushOut();
        return;
    }
    const QString reason = m_stream.errorString();
    // What reached the disk before ends on a whole frame: the file stays playable.
    m_stream.resize(before);
    failStream(reason);
}

void KorbRdvDiskWriter::pushOut()
{
    const qint64 end = m_stream.pos();
    if (end - m_pushedTo < PushOutBytes)
        return;
    const int fd = m_stream.handle();
    ::sync_file_range(fd, m_pushedTo, end - m_pushedTo, SYNC_FILE_RANGE_WRITE);
    if (m_waitFrom < m_pushedTo) {
        ::sync_file_range(fd, m_waitFrom, m_pushedTo - m_waitFrom,
                          SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER);
        ::posix_fadvise(fd, m_waitFrom, m_pushedTo - m_waitFrom, POSIX_FADV_DONTNEED);
    }
    m_waitFrom = m_pushedTo;
    m_pushedTo = end;
}

void KorbRdvDiskWriter::failStream(const QString &reason)
{
    m_stream.close();
    emit streamFailed(reason);
}

void KorbRdvDiskWriter::writeWholeFile(const Job &job)
{
    Korb::FileBound others = job.bound; // leave room for this one
    others.maxBytes = job.bound.maxBytes - job.bytes.size();
    if (job.bound.maxBytes >= 0 && (others.maxBytes < 0 || Korb::trimOldest(others) > others.maxBytes)) {
        KLOG(this, 1,
             tr("файл %1 не записан: %2 байт не помещаются в предел %3 байт")
                 .arg(job.path)
                 .arg(job.bytes.size())
                 .arg(job.bound.maxBytes));
        return;
    }
    QFile file(job.path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Unbuffered) &&
        Korb::writeFully(file, job.bytes.constData(), job.bytes.size()))
        return;
    const QString reason = file.errorString();
    file.close();
    file.remove();
    KLOG(this, 0, tr("файл %1 не записан: %2").arg(job.path, reason));
}
