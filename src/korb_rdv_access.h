#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

struct KorbRdvHttpRequest;

// Who may connect, and who may steer. A browser page of any site may try to
// open the relay's port: a handshake that names the page's origin is let in
// only from a page opened from disk, from the relay's own page, or from an
// origin on the allow-list. With a token file, a client that presents one
// of its tokens is an operator and may send commands; every other client is
// a viewer and receives the packets only. Without one, everyone may steer.
class KorbRdvAccess
{
public:
    enum Role { Viewer, Operator };

    // A token file holds a few lines; a larger one is not what was meant.
    static constexpr qint64 MaxTokenFileSize = 64 * 1024;
    // A token is a few dozen characters; one longer than this is no token.
    static constexpr int MaxTokenSize = 256;

    KorbRdvAccess() = default;
    // `origins`: the allow-list, comma-separated ("*": any). `tokenFile`: an
    // absolute path; when the file exists, access control is on. A file
    // others may read, or one that cannot be read, is refused with one
    // error line: then every client is a viewer.
    static KorbRdvAccess fromSettings(const QString &origins, const QString &tokenFile);

    // Whether a WebSocket handshake may proceed: one without an Origin, or
    // whose origin is "null", a file, the relay's own host and port (the
    // Host it was sent to), or on the allow-list.
    bool originAllowed(const KorbRdvHttpRequest &request) const;
    // The role of a client, from "?token=T" or "Authorization: Bearer T".
    Role roleOf(const KorbRdvHttpRequest &request) const;
    bool controlled() const { return m_controlled; }

    // Compares without leaking where two tokens first differ.
    static bool sameToken(const QByteArray &presented, const QByteArray &listed);

private:
    void readTokens(const QString &file);

    QStringList m_origins; // lower case, without a trailing "/"
    bool m_anyOrigin = false;
    bool m_controlled = false;
    QList<QByteArray> m_tokens;
};
