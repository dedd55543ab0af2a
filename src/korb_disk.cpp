#include "src/korb_disk.h"

#include "logger/korb_log.h"

#include <QDateTime>
#include <QDir>
#include <QFileDevice>
#include <QFileInfo>

#include <algorithm>
#include <limits>
#include <vector>

namespace Korb {

bool writeFully(QFileDevice &file, const char *data, qint64 size)
{
    return file.write(data, size) == size && file.flush();
}

qint64 trimOldest(const FileBound &bound, const QString &keep)
{
    struct File
    {
        qint64 writtenMs;
        QString name;
        qint64 size;
    };
    std::vector<File> files;
    qint64 total = 0;
    const QDir dir(bound.dir);
    const QString kept = QFileInfo(keep).fileName();
    for (const QFileInfo &info : dir.entryInfoList(QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot)) {
        const QString name = info.fileName();
        if (name == kept || !bound.pattern.match(name).hasMatch())
            continue;
        files.push_back({info.lastModified().toMSecsSinceEpoch(), name, info.size()});
        total += info.size();
    }
    std::sort(files.begin(), files.end(), [](const File &a, const File &b) {
        return a.writtenMs != b.writtenMs ? a.writtenMs < b.writtenMs : a.name < b.name;
    });
    const qint64 cutoffMs = bound.maxAgeSecs < 0
                                ? std::numeric_limits<qint64>::min()
                                : QDateTime::currentMSecsSinceEpoch() - bound.maxAgeSecs * 1000;
    for (const File &f : files) {
        const bool tooMuch = bound.maxBytes >= 0 && total > bound.maxBytes;
        // Sorted by age: once one file may stay for its age, all newer ones may.
        if (!tooMuch && f.writtenMs >= cutoffMs)
            break;
        if (!QFile::remove(dir.filePath(f.name)))
            continue;
        total -= f.size;
        KLOG(nullptr, 2, QObject::tr("удалён старый файл %1").arg(dir.filePath(f.name)));
    }
    return total;
}

} // namespace Korb
