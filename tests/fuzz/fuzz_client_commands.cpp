// A client's text and binary messages, through the parser and through the
// server's own slots on a connected client's socket: every message gets the
// reply the parse promised, and an accepted interval takes effect.
#include "fuzz_support.h"

#include "src/korb_rdv_command.h"
#include "src/korb_rdv_settings.h"

#include <QWebSocket>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Fuzz::Relay &relay = Fuzz::relay();
    Fuzz::Input in(data, size);
    const bool binary = in.byte() & 1;
    const QByteArray bytes = in.rest();
    const int texts = relay.texts.size();

    if (binary) {
        emit relay.peer->binaryMessageReceived(bytes);
        relay.drain(0, texts + 1);
        FUZZ_CHECK(relay.texts.last() == QLatin1String("@Err: binary command no supported"));
        return 0;
    }

    const QString message = QString::fromUtf8(bytes);
    const RdvClientCommand command = RdvClientCommand::parse(message);
    switch (command.action) {
    case RdvClientCommand::Forward:
        FUZZ_CHECK(command.word == QLatin1String("csv") || command.word == QLatin1String("buf"));
        FUZZ_CHECK(command.reply.isEmpty());
        break;
    case RdvClientCommand::SetInterval:
        FUZZ_CHECK(command.word == QLatin1String("ims") && command.intervalMs > 1);
        FUZZ_CHECK(command.reply == message + QLatin1String(" OK"));
        break;
    case RdvClientCommand::Refuse:
        FUZZ_CHECK(command.reply.startsWith(QLatin1String("Err: ")));
        break;
    }

    emit relay.peer->textMessageReceived(message);
    if (command.action == RdvClientCommand::Forward)
        return 0;
    relay.drain(0, texts + 1);
    FUZZ_CHECK(relay.texts.last() == command.reply);
    if (command.action == RdvClientCommand::SetInterval)
        FUZZ_CHECK(Korb::sendIntervalMs == command.intervalMs);
    relay.texts.clear();
    return 0;
}
