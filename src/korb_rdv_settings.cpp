#include "src/korb_rdv_settings.h"

namespace Korb {

const char *const DefaultDeviceAddress = "127.0.0.1";
quint16 sendIntervalMs = DefaultSendIntervalMs;
int maxPlaybackFileSize = DefaultMaxFileSize;
int lastHandledSignal = 0;

} // namespace Korb
