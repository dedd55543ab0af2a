// Control-channel input in pieces of random size: every complete line is answered
// "true" or "false", nothing after an accepted "terminate", no operation without a "true".
#include "fuzz_support.h"

#include "../support/recording_service.h"
#include "service/korb_service_sys_private.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Fuzz::setUp();
    static RecordingService service;
    static KorbServiceSysPrivate channel(&service);
    Fuzz::Input in{data, size};
    service.setServiceFlags(in.byte() & 3);
    service.calls.clear();
    uint32_t pieces = in.byte() * 2654435761u + 1u;
    QByteArray buffer;
    bool terminate = false;
    int accepted = 0;
    while (!terminate && in.pos < in.size &&
           buffer.size() <= KorbServiceSysPrivate::MaxPendingCommandBytes + 2) {
        buffer += in.take(size_t(Fuzz::nextSize(pieces, 64))); // past the bound the channel cuts the peer off
        const int lines = buffer.count("\r\n");
        const QByteArray answers = channel.takeCommands(&buffer, &terminate);
        const int yes = answers.count("true"), no = answers.count("false");
        FUZZ_CHECK(answers.size() == 4 * yes + 5 * no);
        FUZZ_CHECK(service.calls.size() <= (accepted += yes)); // operations only for accepted commands
        FUZZ_CHECK(terminate ? yes + no <= lines : yes + no == lines && !buffer.contains("\r\n"));
    }
    return 0;
}
