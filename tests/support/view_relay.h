#pragma once

// A real relay in playback mode for client tests: writes a recording with
// the simulator tool, starts the daemon on a free loopback port and waits
// until it accepts connections. The process is stopped on destruction.

#include <QProcess>
#include <QSet>
#include <QString>
#include <QTemporaryDir>

class ViewRelay
{
public:
    ViewRelay();
    ~ViewRelay();

    // False with the reason in `why` when any step fails.
    bool start(QString *why, int recordingSeconds = 2);
    quint16 port() const { return m_port; }
    QString url() const;
    QString recordingPath() const;
    // Groups of the channel frames in the recording, and whether it also
    // holds single frames; read by a scan of the file, not by the relay.
    QSet<int> recordingGroups() const { return m_groups; }
    bool recordingHasSingleFrames() const { return m_hasSingle; }
    QByteArray output();

private:
    Q_DISABLE_COPY(ViewRelay)
    bool scanRecording(QString *why);

    QTemporaryDir m_dir;
    QProcess m_relay;
    quint16 m_port = 0;
    QSet<int> m_groups;
    bool m_hasSingle = false;
};
