#include "src/korb_rdv_disk_writer.h"

#include "logger/korb_log.h"

#include <QDir>
#include <QFileInfo>
#include <QThread>

KorbRdvDiskWriter::KorbRdvDiskWriter(QObject *parent, qint64 streamQueueBytes)
    : QObject(parent), m_streamQueueBytes(streamQueueBytes)
{
    setObjectName(QStringLiteral("disk_writer"));
    m_thread = QThread::create([this] { run(); });
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
}

void KorbRdvDiskWriter::enqueue(Job job)
{
    QMutexLocker lock(&m_mutex);
    m_jobs.enqueue(std::move(job));
    m_wake.wakeOne();
}

void KorbRdvDiskWriter::startStream(const QString &path, const Korb::FileBound &bound)
{
    enqueue({Job::Stream, path, QByteArray(), bound});
}

void KorbRdvDiskWriter::trim(const Korb::FileBound &bound)
{
    enqueue({Job::Trim, QString(), QByteArray(), bound});
}

bool KorbRdvDiskWriter::append(const char *data, int size)
{
    QMutexLocker lock(&m_mutex);
    if (m_queuedStream + size > m_streamQueueBytes)
        return false;
    m_queuedStream += size;
    // Into the last block while the thread has not taken it and it has room.
    if (m_jobs.isEmpty() || m_jobs.last().kind != Job::Bytes ||
        m_jobs.last().bytes.size() + size > BlockSize) {
        // A full block is worth a write at once; the rest waits for the flush.
        if (!m_jobs.isEmpty() && m_jobs.last().kind == Job::Bytes)
            m_wake.wakeOne();
        m_jobs.enqueue({Job::Bytes, QString(), QByteArray(), Korb::FileBound()});
        m_jobs.last().bytes.reserve(qMax(BlockSize, size));
    }
    m_jobs.last().bytes.append(data, size);
    return true;
}

bool KorbRdvDiskWriter::writeFile(const QString &path, const QByteArray &bytes, const Korb::FileBound &bound)
{
    QMutexLocker lock(&m_mutex);
    if (m_queuedFiles + bytes.size() > MaxQueuedFileBytes)
        return false;
    m_queuedFiles += bytes.size();
    m_jobs.enqueue({Job::File, path, bytes, bound});
    m_wake.wakeOne();
    return true;
}

void KorbRdvDiskWriter::run()
{
    QMutexLocker lock(&m_mutex);
    for (;;) {
        if (m_jobs.isEmpty()) {
            if (m_stopping)
                break;
            m_wake.wait(&m_mutex, FlushIntervalMs);
        }
        QQueue<Job> jobs;
        jobs.swap(m_jobs);
        lock.unlock();
        for (Job &job : jobs)
            execute(job);
        lock.relock();
        for (const Job &job : qAsConst(jobs)) {
            if (job.kind == Job::Bytes)
                m_queuedStream -= job.bytes.size();
            else if (job.kind == Job::File)
                m_queuedFiles -= job.bytes.size();
        }
    }
    lock.unlock();
    m_stream.close();
}

void KorbRdvDiskWriter::execute(Job &job)
{
    switch (job.kind) {
    case Job::Stream:
        openStream(job);
        break;
    case Job::Bytes:
        writeStream(job.bytes);
        break;
    case Job::Trim:
        Korb::trimOldest(job.bound, m_stream.fileName());
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
    if (!m_stream.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Unbuffered)) {
        failStream(m_stream.errorString());
        return;
    }
    ++m_streamFiles;
    KLOG(this, 2, tr("запись в файл %1").arg(job.path));
}

void KorbRdvDiskWriter::writeStream(const QByteArray &bytes)
{
    if (!m_stream.isOpen())
        return; // dropped since a failure, until the next file
    const qint64 before = m_stream.pos();
    if (Korb::writeFully(m_stream, bytes.constData(), bytes.size())) {
        m_streamBytes += bytes.size();
        return;
    }
    const QString reason = m_stream.errorString();
    // What reached the disk before ends on a whole frame: the file stays playable.
    m_stream.resize(before);
    failStream(reason);
}

void KorbRdvDiskWriter::failStream(const QString &reason)
{
    m_stream.close();
    emit streamFailed(reason);
}

void KorbRdvDiskWriter::writeWholeFile(const Job &job)
{
    const qint64 room = job.bound.maxBytes - job.bytes.size();
    if (job.bound.maxBytes >= 0 && (room < 0 || Korb::trimOldest({job.bound.dir, job.bound.pattern, room,
                                                                  job.bound.maxAgeSecs}) > room)) {
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
