#include "src/korb_rdv_playback.h"

#include "logger/korb_log.h"
#include "src/korb_rdv_settings.h"

#include <QDir>
#include <QFileInfo>
#include <QTimerEvent>

namespace {
constexpr double BytesPerMb = 1024.0 * 1024.0;
} // namespace

KorbRdvPlayback::KorbRdvPlayback(QObject *parent, KorbRdvSink *sink)
    : KorbRdvSource(parent, sink, nullptr, 0, KorbRdvScanner::Pacing::Playback)
{
    setObjectName(QStringLiteral("rdv_playback"));
}

KorbRdvPlayback::~KorbRdvPlayback() = default;

bool KorbRdvPlayback::load(const QString &name)
{
    const QFileInfo info(name);
    if (!info.exists())
        return false;
    pause();
    m_folder = info.isDir() ? info.absoluteFilePath() : QString();
    const QString first = m_folder.isEmpty() ? name : nextInFolder(QString());
    if (first.isEmpty()) {
        KTRACE << "no .rdv files in" << name;
        unload();
        return false;
    }
    if (!open(first))
        return false;
    m_thinned = 0;
    m_passes = 0;
    restart(true);
    return true;
}

void KorbRdvPlayback::setWindow(qint64 fromMs, qint64 toMs)
{
    m_fromMs = fromMs;
    m_toMs = toMs;
}

void KorbRdvPlayback::unload()
{
    m_played.close();
    m_scan.resetBuffer(0); // the map refers into the image that goes now
    m_image.reset();
    m_loaded = 0;
    m_pos = 0;
}

bool KorbRdvPlayback::open(const QString &file)
{
    unload();
    m_played.setFileName(file);
    if (!m_played.open(QIODevice::ReadOnly)) {
        KTRACE << "file no open ro mode" << file;
        return false;
    }
    const qint64 size = m_played.size();
    const int limit = Korb::maxPlaybackFileSize;
    if (size > limit || limit <= 0) {
        KTRACE << "file size >" << limit << file;
        m_played.close();
        return false;
    }
    // calloc: the zero pages beyond the file are never touched.
    m_image.reset(static_cast<char *>(std::calloc(size_t(limit), 1)));
    if (!m_image) {
        KTRACE << "no memory for playback buffer of" << limit << "bytes";
        m_played.close();
        return false;
    }
    qint64 pos = 0;
    m_played.seek(0);
    while (!m_played.atEnd()) {
        const qint64 room = qMin<qint64>(ChunkSize, limit - pos);
        const qint64 got = room > 0 ? m_played.read(m_image.get() + pos, room) : 0;
        if (got <= 0)
            break;
        pos += got;
    }
    m_loaded = int(qMin(size, pos));
    KTRACE << "playback file" << file << m_loaded << "bytes";
    return true;
}

QString KorbRdvPlayback::nextInFolder(const QString &current) const
{
    // Listed anew each time: a recorder may be adding files, its quota removing them.
    const QDir dir(m_folder);
    const QString after = QFileInfo(current).fileName();
    for (const QString &name : dir.entryList({QStringLiteral("*.rdv")}, QDir::Files, QDir::Name))
        if (current.isEmpty() || name > after)
            return dir.filePath(name);
    return QString();
}

void KorbRdvPlayback::restart(bool rewind)
{
    m_scan.setSendIntervalMs(Korb::sendIntervalMs);
    m_paced = false;
    if (!rewind)
        return;
    const QString first = m_folder.isEmpty() ? QString() : nextInFolder(QString());
    if (!first.isEmpty() && first != m_played.fileName())
        open(first);
    m_pos = 0;
    // A fresh gate and map: the first frame goes out first.
    m_scan.resetBuffer(0);
    m_passHasFrames = false;
    m_passBytes = 0;
    m_reported = 0;
    m_passClock.start();
}

void KorbRdvPlayback::play(bool rewind)
{
    if (!isLoaded())
        return;
    restart(rewind);
    pause();
    m_tickMs = qMax<int>(1, Korb::sendIntervalMs);
    m_timerId = startTimer(m_tickMs, Qt::PreciseTimer);
}

void KorbRdvPlayback::pause()
{
    if (m_timerId)
        killTimer(m_timerId);
    m_timerId = 0;
}

void KorbRdvPlayback::follow(int consumers, bool first)
{
    if (consumers == 0)
        pause();
    else if (first)
        play(true);
}

void KorbRdvPlayback::timerEvent(QTimerEvent *event)
{
    if (event->timerId() != m_timerId || m_timerId == 0)
        KorbRdvSource::timerEvent(event);
    else if (!step())
        pause(); // a file without frames: no tick will find one
}

int KorbRdvPlayback::nextFrame(int from) const
{
    const int last = m_loaded - Rdv::HeaderSize;
    const char *const image = m_image.get();
    const int at =
        from <= last ? KorbRdvScanner::findHeader(image, from, last, KorbRdvScanner::Search::Simd) : -1;
    // A frame cut off by the end of the file is not played.
    if (at < 0 || qint64(at) + Rdv::frameLength(image + at) > m_loaded)
        return -1;
    return at;
}

bool KorbRdvPlayback::step()
{
    if (!m_image)
        return false;
    markIngest(); // the frames that fall due now are read now
    for (;;) {
        const int at = nextFrame(m_pos);
        if (at < 0)
            return nextFile() || endOfPass();
        const char *const f = m_image.get() + at;
        const quint64 ms = Rdv::timeMs(f);
        const int length = Rdv::frameLength(f);
        if (qint64(ms) < m_fromMs || qint64(ms) >= m_toMs) {
            m_pos = at + length; // outside the window, as if not recorded
            continue;
        }
        // Frames are due by their time stamps, counted from the frame the
        // pacing clock started at. A stamp behind the previous one, or far
        // ahead of it, starts the clock again at that frame.
        const bool jump = ms < m_prevMs || ms - m_prevMs > MaxFrameGapMs;
        if (!m_paced || jump) {
            if (m_paced)
                reportOnce(Jumped,
                           tr("воспроизведение: скачок метки времени кадра (назад или вперёд более чем на "
                              "%1 мс), отсчёт начат с этого кадра")
                               .arg(MaxFrameGapMs));
            m_paced = true;
            m_anchorMs = ms;
            m_clock.start();
        }
        if (ms - m_anchorMs > quint64(m_clock.elapsed()))
            return true; // not due yet
        m_prevMs = ms;
        m_pos = at + length;
        m_passHasFrames = true;
        const bool sent = m_scan.accept(f);
        noteDelivered(m_scan.framesAccepted());
        if (sent) {
            m_passBytes += length;
        } else {
            ++m_thinned;
            reportOnce(Thinned,
                       tr("воспроизведение: кадры ближе %1 мс к последнему отправленному пропускаются")
                           .arg(m_scan.sendIntervalMs()));
        }
    }
}

bool KorbRdvPlayback::nextFile()
{
    if (m_folder.isEmpty())
        return false;
    // The pacing goes on into the next file; a tick loads at most one.
    for (QString next = nextInFolder(m_played.fileName()); !next.isEmpty(); next = nextInFolder(next))
        if (open(next))
            return true;
    return false;
}

bool KorbRdvPlayback::endOfPass()
{
    const bool hadFrames = m_passHasFrames;
    if (hadFrames) {
        ++m_passes;
        const double mb = m_passBytes / BytesPerMb;
        const double secs = m_passClock.elapsed() / 1000.0;
        KTRACE << "pass" << m_passes << QString::number(mb, 'f', 3) << "Mb"
               << QString::number(secs > 0 ? mb / secs : 0.0, 'f', 3) << "Mb/sec"
               << "skip" << m_thinned;
    } else {
        // Rescanning a file without frames on every tick would only burn the processor.
        KTRACE << "##################### warn"
               << "no frames in" << (m_folder.isEmpty() ? m_played.fileName() : m_folder);
    }
    const QString first = m_folder.isEmpty() ? QString() : nextInFolder(QString());
    if (!m_folder.isEmpty() && (first.isEmpty() || !open(first)))
        return false;
    // The next pass starts the clock at its first frame, which is not a jump.
    m_pos = 0;
    m_paced = false;
    m_passHasFrames = false;
    m_passBytes = 0;
    m_reported = 0;
    m_passClock.start();
    return hadFrames;
}

void KorbRdvPlayback::reportOnce(Report which, const QString &text)
{
    // Once a pass; the log folds the repeats of a looping file.
    if (m_reported & which)
        return;
    m_reported |= which;
    KLOGF(this, 2, text);
}
