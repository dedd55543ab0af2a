#pragma once

#include "src/korb_disk.h"
#include "src/korb_rdv_options.h"

#include <QDir>
#include <QElapsedTimer>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTimer>

class KorbRdvDiskWriter;

// Continuous recording: every frame the accept step takes (or, gated, only
// those whose packets went out), byte for byte, into files that playback
// replays, "<instance>_<YYYYMMDD>T<HHMMSS>Z.rdv" in the recording folder
// (UTC, when the file's first frame came). A new file starts when the
// current one is full or the hour turns; the instance's own oldest files go
// when the folder's share or their age is passed. The event loop only copies
// each frame into the disk writer's queue, or drops it whole when the disk
// falls behind; a failed write (a full disk) rests the recording a while.
class KorbRdvRecorder : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY(KorbRdvRecorder)

public:
    // After a failed write (a full disk among the reasons) the recording
    // rests this long, then tries a new file.
    static constexpr int RetryMs = 60000;
    // Frames dropped for a disk that falls behind are logged at most this often.
    static constexpr int DropReportMs = 60000;
    // The files' age is checked this often, also while no frame comes.
    static constexpr int TrimIntervalMs = 3600000;
    // Serial numbers of files begun within one second: past the first, "_001" and on.
    static constexpr int SerialDigits = 3;

    explicit KorbRdvRecorder(QObject *parent, KorbRdvDiskWriter *writer, const QString &instance,
                             const KorbRdvOptions::Recording &settings);

    // A frame the accept step took, and whether its packet went out.
    void take(const char *frame, bool sent);

    bool gated() const { return m_settings.gated; }
    qint64 framesDropped() const { return m_dropped; }

private:
    // "<prefix>_<YYYYMMDD>T<HHMMSS>Z.rdv", with "_<serial>" before ".rdv" past the first.
    static QString fileName(const QString &prefix, qint64 utcMs, int serial);
    void startFile(qint64 nowMs);
    void dropped();
    void onStreamFailed(const QString &reason);
    // The instance's files, and what they may take beside the current one.
    Korb::FileBound bound() const;

    QPointer<KorbRdvDiskWriter> m_writer;
    const KorbRdvOptions::Recording m_settings;
    const QString m_prefix; // the instance name as it may stand in a file name
    const QDir m_dir;
    const qint64 m_fileLimit; // bytes
    bool m_fileOpen = false;
    qint64 m_fileBytes = 0;
    qint64 m_hourEndMs = 0;
    QString m_stamp; // of the last file begun
    int m_serial = 0;
    QElapsedTimer m_resting; // valid while the recording rests after a failure
    qint64 m_dropped = 0;
    qint64 m_droppedReported = 0;
    QElapsedTimer m_dropReport;
    QTimer m_trimTimer;
};
