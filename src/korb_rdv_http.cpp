#include "src/korb_rdv_http.h"

#include <QUrlQuery>

namespace {

// RFC 7230 token characters: the method and the field names.
bool isToken(const QByteArray &s)
{
    static const QByteArray extra = QByteArrayLiteral("!#$%&'*+-.^_`|~");
    for (const char c : s) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
              extra.contains(c)))
            return false;
    }
    return !s.isEmpty();
}

// Visible characters only: no blanks, no controls, nothing above ASCII.
bool isVisible(const QByteArray &s)
{
    for (const char c : s) {
        if (uchar(c) <= 0x20 || uchar(c) >= 0x7F)
            return false;
    }
    return !s.isEmpty();
}

bool parseRequestLine(const QByteArray &line, KorbRdvHttpRequest *r)
{
    const QList<QByteArray> parts = line.split(' ');
    if (parts.size() != 3 || !isToken(parts[0]) || !parts[1].startsWith('/') || !isVisible(parts[1]) ||
        (parts[2] != "HTTP/1.1" && parts[2] != "HTTP/1.0"))
        return false;
    r->method = parts[0];
    r->target = parts[1];
    const int mark = r->target.indexOf('?');
    r->path = mark < 0 ? r->target : r->target.left(mark);
    r->query = mark < 0 ? QByteArray() : r->target.mid(mark + 1);
    return true;
}

bool parseField(const QByteArray &line, KorbRdvHttpRequest *r)
{
    const int colon = line.indexOf(':');
    const QByteArray name = line.left(colon);
    // No folded lines, no blank before the colon.
    if (colon <= 0 || !isToken(name))
        return false;
    r->headers.append({name.toLower(), line.mid(colon + 1).trimmed()});
    return true;
}

// Bytes at the end that may be the start of the blank line's "\r\n\r\n".
int partialEnd(const QByteArray &bytes)
{
    static const QByteArray blank = QByteArrayLiteral("\r\n\r\n");
    for (int n = 3; n > 0; --n) {
        if (bytes.endsWith(blank.left(n)))
            return n;
    }
    return 0;
}

} // namespace

KorbRdvHttpRequest::Verdict KorbRdvHttpRequest::parse(const QByteArray &bytes, KorbRdvHttpRequest *r,
                                                      int *headSize)
{
    // A head that comes in pieces is judged as it will be whole: the bytes
    // that may begin its line end or its blank line do not count yet.
    const int settled = bytes.size() - partialEnd(bytes);
    const int lineEnd = bytes.indexOf("\r\n");
    if (lineEnd < 0 ? settled > MaxRequestLine : lineEnd > MaxRequestLine)
        return UriTooLong;
    if (lineEnd < 0)
        return Incomplete;
    const int end = bytes.indexOf("\r\n\r\n", lineEnd);
    const int fieldsEnd = end < 0 ? settled : end;
    if (fieldsEnd - lineEnd > MaxHeaderBytes)
        return HeadersTooLarge;
    if (end < 0)
        return Incomplete;
    *r = KorbRdvHttpRequest();
    if (!parseRequestLine(bytes.left(lineEnd), r))
        return BadRequest;
    if (end > lineEnd) {
        const QList<QByteArray> lines = bytes.mid(lineEnd + 2, end - lineEnd - 2).split('\n');
        if (lines.size() > MaxHeaders)
            return HeadersTooLarge;
        // Every line but the last ends with its carriage return.
        for (int i = 0; i < lines.size(); ++i) {
            const bool last = i == lines.size() - 1;
            if (last == lines[i].endsWith('\r') || !parseField(last ? lines[i] : lines[i].chopped(1), r))
                return BadRequest;
        }
    }
    if (headSize)
        *headSize = end + 4;
    return Complete;
}

QByteArray KorbRdvHttpRequest::header(const QByteArray &name) const
{
    for (const auto &h : headers) {
        if (h.first == name)
            return h.second;
    }
    return QByteArray();
}

bool KorbRdvHttpRequest::hasHeader(const QByteArray &name) const
{
    for (const auto &h : headers) {
        if (h.first == name)
            return true;
    }
    return false;
}

QString KorbRdvHttpRequest::queryItem(const QString &name) const
{
    return QUrlQuery(QString::fromUtf8(query)).queryItemValue(name, QUrl::FullyDecoded);
}

bool KorbRdvHttpRequest::isWebSocketUpgrade() const
{
    for (const QByteArray &token : header("upgrade").split(',')) {
        if (token.trimmed().toLower() == "websocket")
            return true;
    }
    return false;
}

QString KorbRdvHttpRequest::loggedTarget() const
{
    QString shown = QString::fromLatin1(path);
    if (query.isEmpty())
        return shown;
    QStringList items;
    for (const QByteArray &item : query.split('&')) {
        const int eq = item.indexOf('=');
        const QByteArray key = eq < 0 ? item : item.left(eq);
        items << (QUrl::fromPercentEncoding(key) == QLatin1String("token") ? QString::fromLatin1(key) + "=***"
                                                                           : QString::fromLatin1(item));
    }
    return shown + QLatin1Char('?') + items.join(QLatin1Char('&'));
}

namespace Korb {

QByteArray httpReason(int status)
{
    switch (status) {
    case 200:
        return "OK";
    case 400:
        return "Bad Request";
    case 403:
        return "Forbidden";
    case 404:
        return "Not Found";
    case 405:
        return "Method Not Allowed";
    case 408:
        return "Request Timeout";
    case 414:
        return "URI Too Long";
    case 431:
        return "Request Header Fields Too Large";
    case 503:
        return "Service Unavailable";
    default:
        return "Error";
    }
}

QByteArray httpResponse(int status, const QList<QByteArray> &fields, const QByteArray &body)
{
    QByteArray out = "HTTP/1.1 " + QByteArray::number(status) + ' ' + httpReason(status) + "\r\n";
    for (const QByteArray &f : fields)
        out += f + "\r\n";
    out += "Content-Length: " + QByteArray::number(body.size()) + "\r\nConnection: close\r\n\r\n";
    return out + body;
}

} // namespace Korb
