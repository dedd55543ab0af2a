#pragma once

#include <QMap>
#include <QString>
#include <QStringList>

class QProcess;

// A full disk without filling the machine's: a program started in a private mount namespace where some of its
// folders are tiny tmpfs mounts of their own. The mounts vanish with the program; what it left on them is
// seen through /proc/<pid>/root while it runs.
namespace TinyTmpfs {

// Empty when such namespaces and mounts work here, else why not.
QString unavailableReason();
// Starts `program` with each folder of `kib` (which must exist) a fresh
// tmpfs of that many KiB; a size of 0 is a tmpfs already full.
void start(QProcess &process, const QMap<QString, int> &kib, const QString &program,
           const QStringList &arguments);
// `path` as the program started by `process` sees it.
QString seenBy(const QProcess &process, const QString &path);

} // namespace TinyTmpfs
