#pragma once

#include <QString>

// What the WebSocket server asks of a recording it replays, and no more:
// loading it (setFileNm), and its timer, which follows the server's
// consumers and the send interval. The replaying source implements it, and
// the relay's assembly hands it to the server, so that the sink never
// depends on a source.
class KorbRdvPlayer
{
public:
    virtual ~KorbRdvPlayer() = default;

    // False, without a message, when the file does not exist; a file that
    // cannot be played is reported by the player.
    virtual bool load(const QString &name) = 0;
    // Plays from the start for a first consumer of the packets, goes on
    // while there are `consumers`, and pauses without any.
    virtual void follow(int consumers, bool first) = 0;
    // Steps once a send interval from now on (a new interval takes effect
    // at once); with `rewind` from the recording's first frame.
    virtual void play(bool rewind) = 0;
    virtual void pause() = 0;
    virtual bool isPlaying() const = 0;
    // The timer's period while it runs.
    virtual int tickMs() const = 0;
};
