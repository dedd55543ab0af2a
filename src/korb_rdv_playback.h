#pragma once

#include "src/korb_rdv_player.h"
#include "src/korb_rdv_source.h"

#include <QElapsedTimer>
#include <QFile>

#include <cstdlib>
#include <limits>
#include <memory>

// A recorded frame file as a data source: loaded whole into memory, then
// stepped by its timer while the WebSocket server has it play (as its player). Every step hands the
// frames whose time has come, in file order, to the scanner's accept step,
// which sends those at least one send interval apart and thins the rest.
// The end of the file wraps to its start. A folder plays its ".rdv" files
// one after another in name order, one loaded at a time, and wraps to the
// first; a window of time stamps restricts either to the frames within it.
class KorbRdvPlayback : public KorbRdvSource, public KorbRdvPlayer
{
    Q_OBJECT
    Q_DISABLE_COPY(KorbRdvPlayback)

public:
    // The file is read in pieces of this size.
    static constexpr int ChunkSize = 4095;
    // A time stamp further ahead of the previous frame's than this is a jump
    // in the recording, not a pause: pacing starts again at that frame rather
    // than waiting for it.
    static constexpr quint64 MaxFrameGapMs = 10000;

    explicit KorbRdvPlayback(QObject *parent, KorbRdvSink *sink);
    ~KorbRdvPlayback() override;

    // Loads the file, or the first ".rdv" file of the folder: false, without
    // a message, when it does not exist; a console line "file no open ro
    // mode" when it cannot be read, "file size >" when it is larger than the
    // maximum playback file size, "no .rdv files in" for a folder without
    // any. The buffer is that maximum, zero-filled. Playback then stands at
    // the first frame.
    bool load(const QString &name) override;
    // Only frames stamped in [fromMs, toMs) (ms since 1970, UTC) are played.
    void setWindow(qint64 fromMs, qint64 toMs);
    bool isLoaded() const { return m_played.isOpen(); }
    // Pacing starts again from the next frame with the current send
    // interval; with `rewind` the next frame is the file's first.
    void restart(bool rewind);
    // One tick: hands on every frame that is due. False when a whole pass
    // over the file found no frame: no tick will ever find one.
    bool step();
    // Steps once a send interval (Korb::sendIntervalMs, at least 1 ms), from
    // a restart(rewind), while a file is loaded; a file without frames, or
    // loading another, stops it.
    void play(bool rewind) override;
    void pause() override;
    bool isPlaying() const override { return m_timerId != 0; }
    int tickMs() const override { return m_tickMs; }
    void follow(int consumers, bool first) override;

protected:
    void timerEvent(QTimerEvent *event) override;
    // The recording commands dump what a live source received; a replay has
    // nothing of that kind.
    bool receiving() const override { return false; }

private:
    enum Report { Thinned = 1, Jumped = 2 };
    // Reads one file into the image, after unload().
    bool open(const QString &file);
    // The image goes, and the scan state that refers into it.
    void unload();
    // The folder's ".rdv" file after `current` in name order ("" for the
    // first); empty past the last.
    QString nextInFolder(const QString &current) const;
    // Offset of the next whole frame at or after `from`, -1 at the end.
    int nextFrame(int from) const;
    // At the end of the file: the folder's next file, if any, true.
    bool nextFile();
    // At the end of the file or folder: back to its start. False when the pass found no frame.
    bool endOfPass();
    void reportOnce(Report which, const QString &text);

    struct FreeDeleter
    {
        void operator()(char *p) const { std::free(p); }
    };
    QFile m_played;
    QString m_folder; // absolute; empty when a single file plays
    qint64 m_fromMs = 0;
    qint64 m_toMs = std::numeric_limits<qint64>::max();
    std::unique_ptr<char, FreeDeleter> m_image;
    int m_loaded = 0;
    int m_pos = 0;
    bool m_paced = false; // the pacing clock runs from m_anchorMs
    quint64 m_anchorMs = 0;
    quint64 m_prevMs = 0;
    QElapsedTimer m_clock;
    QElapsedTimer m_passClock;
    bool m_passHasFrames = false;
    qint64 m_passBytes = 0;
    int m_reported = 0;
    // Since the file was loaded, for the pass report: frames thinned, whole passes.
    qint64 m_thinned = 0;
    int m_passes = 0;
    int m_timerId = 0;
    int m_tickMs = 0;
};
