#pragma once

#include <QDebug>
#include <QString>

class QObject;

namespace Korb {

// Process-wide log threshold: 0 errors, 1 warnings, 2 information, 3 debug,
// 4 and above extra detail. Set from -lt; read without a lock.
constexpr int DefaultLogThreshold = 2;
extern int logThreshold;

// A record of `level` passes the threshold; negative levels always pass.
inline bool logAdmits(int level)
{
    return level < 0 || logThreshold >= level;
}

// The one log call every unit reports through. Never throws; drops filtered
// levels and empty messages, names the source and hands the record on to the
// light logger.
void log(const QObject *sender, const char *file, unsigned line, const char *function, const QString &message,
         int level, bool fold);

// The source name of a record: the sender's object name, its class name when
// that is empty, else the application's object name, else "Korb".
QString sourceName(const QObject *sender);

// The current local time as log and trace lines begin with it.
QString logTimestamp();

// "void Cls::fn(int)" -> "fn()"; a plain name is left as it is.
QString reduceFunctionName(const QString &signature);

// Opens a console trace line on the critical stream: time, file:line, "~~~~",
// the reduced function name and a tab; the caller streams the message items.
QDebug trace(const char *file, int line, const char *function);

} // namespace Korb

// Call-site forms. The message expression is evaluated only when the level
// passes the threshold, so a dropped record costs no string formatting.
#define KLOG(sender, level, message)                                                                         \
    do {                                                                                                     \
        if (Korb::logAdmits(level))                                                                          \
            Korb::log((sender), __FILE__, __LINE__, __func__, (message), (level), false);                    \
    } while (0)

// Same, with identical repeats folded into one series line.
#define KLOGF(sender, level, message)                                                                        \
    do {                                                                                                     \
        if (Korb::logAdmits(level))                                                                          \
            Korb::log((sender), __FILE__, __LINE__, __func__, (message), (level), true);                     \
    } while (0)

// Console trace line: KTRACE << "items" << 42;
#define KTRACE Korb::trace(__FILE__, __LINE__, Q_FUNC_INFO)
