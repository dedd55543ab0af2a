#include "src/korb_rdv_recorder.h"

#include "logger/korb_log.h"
#include "logger/korb_logger_light.h"
#include "src/korb_rdv_disk_writer.h"
#include "src/korb_rdv_wire.h"

#include <QDateTime>
#include <QFileInfo>
#include <QRegularExpression>

namespace {
constexpr qint64 MsPerHour = 3600000;
constexpr qint64 SecondsPerDay = 86400;
} // namespace

KorbRdvRecorder::KorbRdvRecorder(QObject *parent, KorbRdvDiskWriter *writer, const QString &instance,
                                 const KorbRdvOptions::Recording &settings)
    : QObject(parent), m_writer(writer), m_settings(settings),
      m_prefix(KorbLoggerLight::sanitizeName(instance)), m_dir(settings.dir),
      m_fileLimit(qMin<qint64>(settings.fileMb, settings.totalMb) * Korb::BytesPerMiB)
{
    setObjectName(QStringLiteral("recorder"));
    connect(writer, &KorbRdvDiskWriter::streamFailed, this, &KorbRdvRecorder::onStreamFailed);
    m_trimTimer.setInterval(TrimIntervalMs);
    connect(&m_trimTimer, &QTimer::timeout, this, [this] {
        if (m_writer)
            m_writer->trim(bound());
    });
    m_trimTimer.start();
    KLOG(this, 2,
         tr("запись в папку %1%2: файлы до %3 МиБ, всего до %4 МиБ, не старше %5 дн.")
             .arg(m_dir.absolutePath(), m_settings.gated ? tr(" (только отправленные кадры)") : QString())
             .arg(m_fileLimit / Korb::BytesPerMiB)
             .arg(m_settings.totalMb)
             .arg(m_settings.keepDays));
}

QString KorbRdvRecorder::fileName(const QString &prefix, qint64 utcMs, int serial)
{
    const QString stamp =
        QDateTime::fromMSecsSinceEpoch(utcMs, Qt::UTC).toString(QStringLiteral("yyyyMMdd'T'HHmmss'Z'"));
    const QString tail =
        serial > 0 ? QStringLiteral("_%1").arg(serial, SerialDigits, 10, QLatin1Char('0')) : QString();
    return QStringLiteral("%1_%2%3.rdv").arg(prefix, stamp, tail);
}

Korb::FileBound KorbRdvRecorder::bound() const
{
    // Names of this instance's files only: another instance's, or anything
    // else in the folder, is never touched.
    static const QString digits = QStringLiteral("\\d{%1,}").arg(SerialDigits);
    const QRegularExpression own(
        QStringLiteral("^%1_\\d{8}T\\d{6}Z(_%2)?\\.rdv$").arg(QRegularExpression::escape(m_prefix), digits));
    // Room for the current file at its largest within the total.
    return {m_dir.absolutePath(), own, m_settings.totalMb * Korb::BytesPerMiB - m_fileLimit,
            m_settings.keepDays * SecondsPerDay};
}

void KorbRdvRecorder::take(const char *frame, bool sent)
{
    if (!m_writer || (m_settings.gated && !sent))
        return;
    if (m_resting.isValid()) {
        if (m_resting.elapsed() < RetryMs)
            return;
        m_resting.invalidate();
        m_fileOpen = false;
    }
    const int length = Rdv::frameLength(frame);
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    if (!m_fileOpen || m_fileBytes + length > m_fileLimit || now >= m_hourEndMs)
        startFile(now);
    if (!m_writer->append(frame, length)) {
        dropped();
        return;
    }
    m_fileBytes += length;
}

void KorbRdvRecorder::startFile(qint64 nowMs)
{
    const QString stamp = fileName(m_prefix, nowMs, 0);
    m_serial = stamp == m_stamp ? m_serial + 1 : 0;
    m_stamp = stamp;
    // A file of the same second left by an earlier run is not overwritten.
    QString path;
    while (QFileInfo::exists(path = m_dir.filePath(fileName(m_prefix, nowMs, m_serial))))
        ++m_serial;
    m_writer->startStream(path, bound());
    m_fileOpen = true;
    m_fileBytes = 0;
    m_hourEndMs = (nowMs / MsPerHour + 1) * MsPerHour;
}

void KorbRdvRecorder::dropped()
{
    ++m_dropped;
    if (m_dropReport.isValid() && m_dropReport.elapsed() < DropReportMs)
        return;
    m_dropReport.start();
    KLOG(this, 1,
         tr("запись не успевает за устройством: кадров не записано %1 (всего %2)")
             .arg(m_dropped - m_droppedReported)
             .arg(m_dropped));
    m_droppedReported = m_dropped;
}

void KorbRdvRecorder::onStreamFailed(const QString &reason)
{
    // Folded: a disk that stays full fails every retry the same way.
    KLOGF(this, 0,
          tr("запись в папку %1 остановлена: %2; новая попытка через %3 с")
              .arg(m_dir.absolutePath(), reason)
              .arg(RetryMs / 1000));
    m_resting.start();
}
