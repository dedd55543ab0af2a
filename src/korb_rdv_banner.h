#pragma once

#include <QString>
#include <QStringList>

namespace Korb {

// The lines the relay's log begins with at every start: program, version,
// build, Qt, compiler, locale, and one line for each processor feature the
// data path may use.
QStringList bannerLines(const QString &version);

} // namespace Korb
