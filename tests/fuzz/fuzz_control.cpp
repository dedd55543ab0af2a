// Control-channel input in pieces of random size: every complete line is
// answered "true" or "false", and nothing after an accepted "terminate".
#include "fuzz_support.h"

#include "service/korb_service_base.h"
#include "service/korb_service_sys_private.h"

namespace {
struct FuzzService : KorbServiceBase
{
    FuzzService() : KorbServiceBase(0, nullptr, QStringLiteral("korbfuzz")) {}
    void start() override {}
    void stop() override {}
    void pause() override {}
    void resume() override {}
    void processCommand(int) override {}
    void createApplication(int &, char **) override {}
    int executeApplication() override { return 0; }
};
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Fuzz::setUp();
    static FuzzService service;
    static KorbServiceSysPrivate channel(&service);
    Fuzz::Input in{data, size};
    service.setServiceFlags(in.byte() & 3);
    uint32_t pieces = in.byte() * 2654435761u + 1u;
    QByteArray buffer;
    bool terminate = false;
    while (!terminate && in.pos < in.size &&
           buffer.size() <= KorbServiceSysPrivate::MaxPendingCommandBytes + 2) {
        buffer += in.take(size_t(Fuzz::nextSize(pieces, 64))); // past the bound the channel cuts the peer off
        const int lines = buffer.count("\r\n");
        const QByteArray answers = channel.takeCommands(&buffer, &terminate);
        const int yes = answers.count("true"), no = answers.count("false");
        FUZZ_CHECK(answers.size() == 4 * yes + 5 * no);
        FUZZ_CHECK(terminate ? yes + no <= lines : yes + no == lines && !buffer.contains("\r\n"));
    }
    return 0;
}
