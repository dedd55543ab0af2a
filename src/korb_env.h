#pragma once

#include <QString>

// Environment and path helpers shared by the process entry, the streamer and
// the logger. Relative paths are taken against the application directory.
namespace Korb {

// The process-wide application directory: the one set by setAppDir, else the
// running program's own directory (known even before QCoreApplication exists).
QString appDir();
void setAppDir(const QString &dir);

// Absolute form of `path`: "/x" and "C:..." as they are, others appended to
// the application directory. No check that it exists.
QString getAbsPath(const QString &path);
// Makes `dir` current, creating it when missing.
bool setCurrentDir(const QString &dir);
// Makes `dir` current, or the application directory when `dir` is empty.
bool changeWorkDir(const QString &dir);
bool envSet(const QString &name, const QString &value);
// Puts `value` at the front of a list-valued variable, without duplicates.
bool envAppend(const QString &name, const QString &value);
// Puts the program's helper directories first in PATH and LD_LIBRARY_PATH.
void setAppPath();

} // namespace Korb
