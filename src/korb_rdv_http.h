#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>

// The HTTP/1.1 a client of the relay's ports speaks first: the head of its
// request (the WebSocket upgrade, or a plain request for a page or a
// figure), read with every part bounded before anything is kept; and the
// short responses the relay gives.
struct KorbRdvHttpRequest
{
    // A browser's longest request line is a few kilobytes; longer is refused (414).
    static constexpr int MaxRequestLine = 8 * 1024;
    // Browsers send well under this in header fields; more is refused (431).
    static constexpr int MaxHeaderBytes = 8 * 1024;
    static constexpr int MaxHeaders = 100;
    // Bytes of a head at most: its line, its fields and the blank line.
    static constexpr int MaxHeadSize = MaxRequestLine + MaxHeaderBytes + 4;

    enum Verdict {
        Incomplete = 0, // the blank line that ends the head has not come yet
        Complete = 200,
        BadRequest = 400,
        UriTooLong = 414,
        HeadersTooLarge = 431,
    };
    // Reads the head at the start of `bytes` (more may follow it) into
    // `request`; `headSize` (if given) gets its length with the blank line.
    static Verdict parse(const QByteArray &bytes, KorbRdvHttpRequest *request, int *headSize = nullptr);

    QByteArray method;
    QByteArray target; // as sent: path and query
    QByteArray path;   // the target up to "?"
    QByteArray query;  // after "?", without it
    // Header fields in order, names in lower case, values without the
    // blanks around them.
    QList<QPair<QByteArray, QByteArray>> headers;

    // The first value of the field `name` (lower case); empty when absent.
    QByteArray header(const QByteArray &name) const;
    bool hasHeader(const QByteArray &name) const;
    // The decoded value of a query item; empty when absent.
    QString queryItem(const QString &name) const;
    // A request to become a WebSocket ("Upgrade: websocket").
    bool isWebSocketUpgrade() const;
    // The target as the log may show it: the value of every "token" query
    // item replaced, since a token is a secret.
    QString loggedTarget() const;
};

namespace Korb {

// Reason phrase of the status codes the relay answers with.
QByteArray httpReason(int status);
// A whole response that ends the connection: status line, the fields given
// (each "Name: value", without line ends), Content-Length, Connection:
// close, and the body.
QByteArray httpResponse(int status, const QList<QByteArray> &fields = {},
                        const QByteArray &body = QByteArray());

} // namespace Korb
