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
            (job.kind == Job::File ? files : stream) += job.bytes.size(); // none in the others
        }
        QMutexLocker lock(&m_mutex);
        m_queuedStream -= stream;
        m_queuedFiles -= files;
    }
    m_stream.close();
}

void KorbRdvDiskWriter::execute(const Job &job)
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
