#include "src/korb_rdv_http_service.h"

#include "src/korb_rdv_health.h"
#include "src/korb_rdv_http.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>

// The viewer's files, compiled in from tools/viewer (korb_viewer.qrc).
static void registerViewer()
{
    Q_INIT_RESOURCE(korb_viewer);
}

namespace {
constexpr char ViewerDir[] = ":/viewer/";
const QByteArray MetricsPath = QByteArrayLiteral("/metrics");
const QByteArray ProbePath = QByteArrayLiteral("/healthz");

QByteArray typeOf(const QString &file)
{
    if (file.endsWith(QLatin1String(".html")))
        return QByteArrayLiteral("text/html; charset=utf-8");
    if (file.endsWith(QLatin1String(".js")))
        return QByteArrayLiteral("text/javascript; charset=utf-8");
    if (file.endsWith(QLatin1String(".css")))
        return QByteArrayLiteral("text/css; charset=utf-8");
    return QByteArrayLiteral("application/octet-stream");
}

// "Host" as the client wrote it, if it is a host name or address and a port, nothing else.
QByteArray hostOf(const KorbRdvHttpRequest &request)
{
    static const QRegularExpression plain(
        QStringLiteral("^[A-Za-z0-9.\\-]+(:[0-9]+)?$|^\\[[0-9A-Fa-f:.]+\\](:[0-9]+)?$"));
    const QByteArray host = request.header("host");
    return plain.match(QString::fromLatin1(host)).hasMatch() ? host : QByteArray();
}

// The page's own files and its own socket: what it loads cannot come from elsewhere.
QList<QByteArray> pageFields(const QByteArray &type, const KorbRdvHttpRequest &request, bool tls)
{
    QByteArray connect = QByteArrayLiteral("'self'");
    const QByteArray host = hostOf(request);
    if (!host.isEmpty())
        connect += (tls ? " wss://" : " ws://") + host;
    return {"Content-Type: " + type, "Content-Security-Policy: default-src 'self'; connect-src " + connect +
                                         "; base-uri 'none'; object-src 'none'"};
}
} // namespace

KorbRdvHttpService::KorbRdvHttpService(QObject *parent, const KorbRdvHealth *health)
    : QObject(parent), m_health(health)
{
    static const bool registered = (registerViewer(), true);
    Q_UNUSED(registered)
    for (const QString &name : QDir(QLatin1String(ViewerDir)).entryList(QDir::Files)) {
        QFile file(QLatin1String(ViewerDir) + name);
        if (file.open(QIODevice::ReadOnly))
            m_pages.insert('/' + name.toUtf8(), {typeOf(name), file.readAll()});
    }
    m_pages.insert(QByteArrayLiteral("/"), m_pages.value(QByteArrayLiteral("/index.html")));
}

QByteArray KorbRdvHttpService::answer(const KorbRdvHttpRequest &request, bool tls) const
{
    const auto page = m_pages.constFind(request.path);
    if (page == m_pages.constEnd() && request.path != MetricsPath && request.path != ProbePath)
        return Korb::httpResponse(404);
    if (request.method != "GET" && request.method != "HEAD")
        return Korb::httpResponse(405, {QByteArrayLiteral("Allow: GET, HEAD")});
    QList<QByteArray> fields{QByteArrayLiteral("Cache-Control: no-cache"),
                             QByteArrayLiteral("X-Content-Type-Options: nosniff")};
    int status = 200;
    QByteArray body;
    if (page != m_pages.constEnd()) {
        fields << pageFields(page->type, request, tls);
        body = page->body;
    } else {
        const KorbRdvHealth::Figures figures = m_health->figures();
        if (request.path == MetricsPath) {
            fields << QByteArrayLiteral("Content-Type: text/plain; version=0.0.4; charset=utf-8");
            body = KorbRdvHealth::metrics(figures);
        } else {
            fields << QByteArrayLiteral("Content-Type: application/json");
            status = figures.sourceUp ? 200 : 503;
            body = KorbRdvHealth::probe(figures);
        }
    }
    QByteArray response = Korb::httpResponse(status, fields, body);
    if (request.method == "HEAD")
        response.chop(body.size());
    return response;
}
