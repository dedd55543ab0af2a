#pragma once

#include <QString>
#include <QtGlobal>

// Process-wide values shared between the streamer, its sources and the
// WebSocket server.
namespace Korb {

constexpr quint16 DefaultPort = 3005;          // WebSocket port and device port
constexpr quint16 DefaultSendIntervalMs = 50;  // send interval when none is given
constexpr int DefaultMaxFileSize = 67108864;   // largest replay file and the character buffer size
extern const char *const DefaultDeviceAddress; // the device when -addr= is absent: 127.0.0.1

// Send interval in milliseconds: -interval_ms= and the client command "ims".
extern quint16 sendIntervalMs;
// Largest replay file accepted (bytes); also the playback buffer size.
extern int maxPlaybackFileSize;
// Number of the last signal handled by the process entry, 0 for none.
extern int lastHandledSignal;

} // namespace Korb
