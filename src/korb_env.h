#pragma once

#include "korb_version.h"
#include "src/korb_app_dir.h"

#include <QString>

// Environment and path helpers shared by the process entry and the streamer.
// Relative paths are taken against the application directory.
namespace Korb {

// The Qt plugins shipped beside the program.
constexpr const char *PluginDir = "../plugins/" KORB_QT_BUILD_TAG;

// Absolute form of `path`: "/x" and "C:..." as they are, others appended to
// the application directory. No check that it exists.
QString getAbsPath(const QString &path);
// Makes `dir` current, creating it when missing.
bool setCurrentDir(const QString &dir);
// Makes `dir` current, or the application directory when `dir` is empty.
bool changeWorkDir(const QString &dir);
// Sets a variable (reported in the log from threshold 6 on).
bool envSet(const QString &name, const QString &value);
// Puts `value` at the front of a list-valued variable, without duplicates,
// and stores and reports it as envSet does.
bool envAppend(const QString &name, const QString &value);
// Puts the program's helper directories first in PATH and LD_LIBRARY_PATH.
void setAppPath();

} // namespace Korb
