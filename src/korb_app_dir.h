#pragma once

#include <QString>

// The application directory, against which every relative path of the
// program is taken. Kept apart from the path helpers so that the logger,
// which the helpers report through, can use it without a cycle.
namespace Korb {

// The directory set by setAppDir, else the running program's own directory
// (known even before QCoreApplication exists).
QString appDir();
void setAppDir(const QString &dir);

} // namespace Korb
