// Control-channel input as it arrives on a connection, in pieces of random
// size: every complete line is answered "true" or "false", nothing after an
// accepted "terminate" is looked at, and only complete lines are taken.
#include "fuzz_support.h"

#include "service/korb_service_base.h"
#include "service/korb_service_sys_private.h"

namespace {
class FuzzService : public KorbServiceBase
{
public:
    FuzzService() : KorbServiceBase(0, nullptr, QStringLiteral("korbfuzz")) {}
    int calls = 0;

protected:
    void start() override {}
    void stop() override { ++calls; }
    void pause() override { ++calls; }
    void resume() override { ++calls; }
    void processCommand(int) override { ++calls; }
    void createApplication(int &, char **) override {}
    int executeApplication() override { return 0; }
};

// Pieces of at most this many bytes; the channel's own limit bounds a line.
constexpr int MaxPiece = 64;
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Fuzz::setUp();
    static FuzzService service;
    static KorbServiceSysPrivate channel(&service);
    Fuzz::Input in(data, size);
    service.setServiceFlags(in.byte() & 3);
    Fuzz::Sizes sizes(in.byte());
    QByteArray buffer;
    bool terminate = false;
    while (!terminate && in.remaining() > 0) {
        buffer += in.take(sizes.next(MaxPiece));
        if (buffer.size() > KorbServiceSysPrivate::MaxPendingCommandBytes + 2)
            break; // the channel cuts such a peer off
        const int lines = buffer.count("\r\n");
        QByteArray answers = channel.takeCommands(&buffer, &terminate);
        FUZZ_CHECK(terminate || !buffer.contains("\r\n"));
        int answered = 0;
        while (!answers.isEmpty()) {
            const bool yes = answers.startsWith("true");
            FUZZ_CHECK(yes || answers.startsWith("false"));
            answers.remove(0, yes ? 4 : 5);
            ++answered;
        }
        FUZZ_CHECK(terminate ? answered <= lines : answered == lines);
    }
    return 0;
}
