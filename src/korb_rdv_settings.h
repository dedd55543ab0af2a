#pragma once

#include <QString>
#include <QtGlobal>

// Process-wide values shared between the streamer, its sources and the
// WebSocket server.
namespace Korb {

constexpr const char *ProgramName = "KorbRdv_streamer"; // names the pid file, the lock, the configuration
constexpr quint16 DefaultPort = 3005;                   // WebSocket port and device port
constexpr quint16 DefaultSendIntervalMs = 50;           // send interval when none is given
constexpr quint16 MinSendIntervalMs = 2;                // the shortest one -interval_ms= accepts
// WebSocket clients served at once (the -max_clients= default); more are
// refused with 1013, and connections still in the handshake are held to it.
constexpr int DefaultMaxClients = 1024;
constexpr int DefaultMaxFileSize = 67108864; // largest replay file and the character buffer size
// The TLS port's certificate and key, beside the program like every relative path.
constexpr const char *DefaultTlsCertificate = "../etc/korb.crt";
constexpr const char *DefaultTlsKey = "../etc/korb.key";
// The operators' tokens; access control is on when the file exists.
constexpr const char *DefaultTokenFile = "../etc/korb.tokens";
extern const char *const DefaultDeviceAddress; // the device when -addr= is absent: 127.0.0.1

// Send interval in milliseconds: -interval_ms= and the client command "ims".
extern quint16 sendIntervalMs;
// Largest replay file accepted (bytes); also the playback buffer size.
extern int maxPlaybackFileSize;
// Number of the last signal handled by the process entry, 0 for none.
extern int lastHandledSignal;

} // namespace Korb
