#pragma once

#include <QString>
#include <QStringList>

// Talking to systemd through its command-line tool.
namespace KorbSystemd {

// The tool is always called by its absolute path, never through PATH.
inline const char *const SystemctlPath = "/usr/bin/systemctl";
// Directories searched for an instance's unit file, in this order.
inline const char *const EtcUnitDir = "/etc/systemd/system";
inline const char *const LibUnitDir = "/usr/lib/systemd/system";

// Waits of the detection run of "systemctl --version".
constexpr int VersionStartWaitMs = 3000;
constexpr int VersionFinishWaitMs = 3000;
// Waits of every other systemctl run.
constexpr int RunStartWaitMs = 30000;
constexpr int RunFinishWaitMs = 30000;

// Whether systemd is the init system: "/proc/1/comm" says "systemd", or
// "/run/systemd/system" exists and "systemctl --version" introduces itself as
// systemd. Computed on the first call and kept for the life of the process.
bool isSystemd();

// Runs systemctl with `arguments` and reports on standard output ("Run:",
// "Std:" and "Err:" lines); true when it ran and exited normally with code 0.
bool runSystemctl(const QStringList &arguments);

// Runs systemctl with `arguments` quietly; `output` receives its trimmed
// standard output. False when the tool could not be run to its end.
bool systemctlOutput(const QStringList &arguments, QString *output);

// The unit file name of an instance ("NAME.service").
QString unitName(const QString &instance);

// Whether a unit file for the instance exists in one of the unit directories.
bool unitFileExists(const QString &instance);

// Whether the instance's unit is active: only with systemd and a unit file;
// "active", "activating" and "reloading" count as running.
bool isActive(const QString &instance);

// Whether an is-active answer means running (letter case ignored).
bool activeAnswerMeansRunning(const QString &answer);

} // namespace KorbSystemd
