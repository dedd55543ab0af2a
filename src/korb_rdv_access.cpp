#include "src/korb_rdv_access.h"

#include "logger/korb_log.h"
#include "src/korb_rdv_http.h"

#include <QFile>
#include <QFileInfo>

namespace {

// "scheme://host[:port]" without a trailing "/", in lower case.
QString normalOrigin(const QString &origin)
{
    QString o = origin.trimmed().toLower();
    while (o.endsWith(QLatin1Char('/')))
        o.chop(1);
    return o;
}

// host[:port] with the scheme's default port left out.
QString authority(QString hostPort)
{
    hostPort = hostPort.toLower();
    for (const char *port : {":80", ":443"}) {
        if (hostPort.endsWith(QLatin1String(port)))
            hostPort.chop(int(qstrlen(port)));
    }
    return hostPort;
}

QByteArray presentedToken(const KorbRdvHttpRequest &request)
{
    const QByteArray auth = request.header("authorization");
    if (auth.size() > 7 && auth.left(7).toLower() == "bearer ")
        return auth.mid(7).trimmed();
    return request.queryItem(QStringLiteral("token")).toUtf8();
}

} // namespace

KorbRdvAccess KorbRdvAccess::fromSettings(const QString &origins, const QString &tokenFile)
{
    KorbRdvAccess access;
    for (const QString &o : origins.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        const QString origin = normalOrigin(o);
        access.m_anyOrigin = access.m_anyOrigin || origin == QLatin1String("*");
        if (!origin.isEmpty())
            access.m_origins << origin;
    }
    if (QFileInfo::exists(tokenFile))
        access.readTokens(tokenFile);
    return access;
}

void KorbRdvAccess::readTokens(const QString &path)
{
    m_controlled = true;
    QFile file(path);
    const auto refuse = [&path](const QString &why) {
        KLOG(nullptr, 0, QObject::tr("файл токенов %1 не принят: %2; все клиенты - зрители").arg(path, why));
    };
    // A token file is a secret like the TLS key: no one but its owner and group may read it.
    if (file.permissions() & QFileDevice::ReadOther)
        return refuse(QObject::tr("доступен для чтения всем, нужно chmod o-r"));
    if (!file.open(QIODevice::ReadOnly))
        return refuse(file.errorString());
    if (file.size() > MaxTokenFileSize)
        return refuse(QObject::tr("больше %1 байт").arg(MaxTokenFileSize));
    for (QByteArray line : file.readAll().split('\n')) {
        const int hash = line.indexOf('#');
        line = (hash < 0 ? line : line.left(hash)).trimmed();
        if (!line.isEmpty() && line.size() <= MaxTokenSize)
            m_tokens << line;
    }
}

bool KorbRdvAccess::originAllowed(const KorbRdvHttpRequest &request) const
{
    if (!request.hasHeader("origin") || m_anyOrigin)
        return true;
    const QString origin = normalOrigin(QString::fromLatin1(request.header("origin")));
    // A page opened from disk: browsers send "null" or a file URL.
    if (origin == QLatin1String("null") || origin.startsWith(QLatin1String("file:")))
        return true;
    const int scheme = origin.indexOf(QLatin1String("://"));
    if (scheme > 0 &&
        authority(origin.mid(scheme + 3)) == authority(QString::fromLatin1(request.header("host"))))
        return true;
    return m_origins.contains(origin);
}

KorbRdvAccess::Role KorbRdvAccess::roleOf(const KorbRdvHttpRequest &request) const
{
    if (!m_controlled)
        return Operator;
    const QByteArray token = presentedToken(request);
    bool listed = false;
    // Every listed token is compared, so that the time says nothing of which matched.
    for (const QByteArray &t : m_tokens)
        listed = sameToken(token, t) || listed;
    return listed && !token.isEmpty() ? Operator : Viewer;
}

bool KorbRdvAccess::sameToken(const QByteArray &presented, const QByteArray &listed)
{
    uint diff = uint(presented.size() ^ listed.size());
    for (int i = 0; i < listed.size(); ++i)
        diff |= uint(uchar(listed[i]) ^ uchar(i < presented.size() ? presented[i] : 0));
    return diff == 0;
}
