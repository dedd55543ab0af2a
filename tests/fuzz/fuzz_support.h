#pragma once

// What the fuzz targets share: a Qt application for the units that need one,
// quiet logging, a sink that builds every packet it is handed, a relay with
// one WebSocket client on loopback, and sizes drawn from the input.

#include "src/korb_rdv_sink.h"

#include <QByteArray>
#include <QVector>

#include <cstddef>
#include <cstdint>

class QWebSocket;
class WebSocketServer;

namespace Fuzz {

// Creates the application object once, sends log files to a temporary
// directory and drops console traces (they would only slow the run).
void setUp();

// Ends the run with a report of `what`: libFuzzer keeps the input.
[[noreturn]] void fail(const char *what, const char *file, int line);
#define FUZZ_CHECK(condition)                                                                                \
    do {                                                                                                     \
        if (!(condition))                                                                                    \
            Fuzz::fail(#condition, __FILE__, __LINE__);                                                      \
    } while (0)

// The input, read from the front: control bytes first, the rest as data.
class Input
{
public:
    Input(const uint8_t *data, size_t size) : m_data(data), m_size(size) {}
    // The next byte, 0 once the input is used up.
    uint8_t byte();
    // The next two bytes, little-endian.
    int word();
    // Up to `n` bytes (fewer at the end).
    QByteArray take(int n);
    QByteArray rest() { return take(int(remaining())); }
    size_t remaining() const { return m_size - m_pos; }

private:
    const uint8_t *m_data;
    size_t m_size;
    size_t m_pos = 0;
};

// Sizes that follow from a seed: the same input always cuts the same way.
class Sizes
{
public:
    explicit Sizes(uint32_t seed) : m_state(seed * 2654435761u + 1u) {}
    // 1 to `max`.
    int next(int max);

private:
    uint32_t m_state;
};

// Sink with one client: builds the packet of every hand-off from the frame
// bytes in place, as the relay does, and keeps a hash of each.
class PacketSink : public KorbRdvSink
{
public:
    QVector<uint> packets;

    int clientCount() const override { return 1; }
    void sendRdv(const RdvFrame *frame) override;
    void sendRdv(const RdvChannelMap &channels) override;
};

// A WebSocket server listening on 127.0.0.1 with one connected client; every
// binary message the client gets must decode.
struct Relay
{
    WebSocketServer *server = nullptr;
    QWebSocket *client = nullptr;
    QWebSocket *peer = nullptr; // the server's end of the client's connection
    int binaryMessages = 0;
    QVector<QString> texts;

    // Runs the event loop until the client has `binary` binary messages and
    // `text` text messages in all, or a time limit passes.
    void drain(int binary, int text);
};

// The one relay of the process, set up on first use.
Relay &relay();

} // namespace Fuzz
