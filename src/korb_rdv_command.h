#pragma once

#include <QString>
#include <QtGlobal>

// A client's text command, parsed: "word:argument", the word one of "csv",
// "buf" or "ims". Parsing is pure; the WebSocket server acts on the result
// (forwards the word, sets the interval) and sends the reply.
struct RdvClientCommand
{
    enum Action {
        Refuse,     // answer `reply`, change nothing
        Forward,    // hand `word` to the sources, no reply
        SetInterval // take `intervalMs` as the send interval, answer `reply`
    };

    Action action = Refuse;
    QString word;
    QString reply;
    quint16 intervalMs = 0;

    static RdvClientCommand parse(const QString &message);
    // What a client that may not steer the relay is answered instead.
    static RdvClientCommand denied(const QString &message);
};
