// Client messages through the parser: whatever the bytes, a message is
// forwarded, refused or taken as an interval, and only a forward goes unanswered.
#include "fuzz_support.h"

#include "src/korb_rdv_command.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QString message = QString::fromUtf8(reinterpret_cast<const char *>(data), int(size));
    const RdvClientCommand command = RdvClientCommand::parse(message);
    const bool forward = command.action == RdvClientCommand::Forward;
    FUZZ_CHECK(forward == (command.word == QLatin1String("csv") || command.word == QLatin1String("buf")));
    FUZZ_CHECK(forward == command.reply.isEmpty());
    if (command.action == RdvClientCommand::SetInterval)
        FUZZ_CHECK(command.intervalMs > 1 && command.reply == message + QLatin1String(" OK"));
    if (command.action == RdvClientCommand::Refuse)
        FUZZ_CHECK(command.reply.startsWith(QLatin1String("Err: ")));
    return 0;
}
