#pragma once

#include <QRegularExpression>
#include <QString>
#include <QtGlobal>

class QFileDevice;

// What every writer of the relay does alike, whatever it writes (log lines,
// recordings, dumps): a write is whole or it failed, a full disk (ENOSPC, a
// short write) among the reasons; and a folder of the relay's own files is
// kept under a size and an age by removing the oldest first.
namespace Korb {

// The unit of every size option (file_mb, total_mb, dump_quota_mb).
constexpr qint64 BytesPerMiB = 1024 * 1024;

// Writes `size` bytes and hands them to the kernel; false on an error or a
// short write, and the file's errorString() says why.
bool writeFully(QFileDevice &file, const char *data, qint64 size);

// One kind of file in a folder, and how much of it may stay.
struct FileBound
{
    QString dir;
    QRegularExpression pattern; // names of the kind's files; nothing else is touched
    qint64 maxBytes = -1;       // together; negative: no bound
    qint64 maxAgeSecs = -1;     // since last written; negative: no bound
};

// Removes the oldest files of `bound` (by the time they were last written,
// then by name) until those other than `keep` hold no more than maxBytes
// together and none of them is older than maxAgeSecs; each removal is
// logged. Returns the bytes they still hold, including any file that could
// not be removed.
qint64 trimOldest(const FileBound &bound, const QString &keep = QString());

} // namespace Korb
