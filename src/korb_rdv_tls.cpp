#include "src/korb_rdv_tls.h"

#include <QFile>
#include <QFileInfo>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QSslKey>
#include <QSslSocket>

#include <sys/socket.h>
#include <unistd.h>

namespace {

// Both files are a few kilobytes; a larger one is not what was meant.
constexpr qint64 MaxTlsFileSize = 1024 * 1024;

QString fileError(const QString &path, const QString &reason)
{
    return QStringLiteral("%1: %2").arg(path, reason);
}

bool readPem(const QString &path, QByteArray *bytes, QString *error)
{
    QFile file(path);
    if (!file.exists()) {
        *error = fileError(path, QObject::tr("файл не найден"));
        return false;
    }
    if (file.size() > MaxTlsFileSize) {
        *error = fileError(path, QObject::tr("файл больше %1 байт").arg(MaxTlsFileSize));
        return false;
    }
    if (!file.open(QIODevice::ReadOnly)) {
        *error = fileError(path, QObject::tr("файл не читается: %1").arg(file.errorString()));
        return false;
    }
    *bytes = file.readAll();
    return true;
}

QSslKey privateKey(const QByteArray &pem)
{
    for (const QSsl::KeyAlgorithm algorithm : {QSsl::Rsa, QSsl::Ec}) {
        const QSslKey key(pem, algorithm, QSsl::Pem, QSsl::PrivateKey);
        if (!key.isNull())
            return key;
    }
    return QSslKey();
}

// Qt checks that the key belongs to the certificate only when a connection
// starts encrypting; one start over a socket pair finds a wrong pair now,
// with OpenSSL's reason, instead of at every client.
QString pairError(const QSslConfiguration &configuration)
{
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0)
        return QString();
    QString reason;
    {
        QSslSocket probe;
        QObject::connect(&probe, &QAbstractSocket::errorOccurred, [&] {
            if (reason.isEmpty())
                reason = probe.errorString();
        });
        if (probe.setSocketDescriptor(fds[0])) {
            probe.setSslConfiguration(configuration);
            probe.startServerEncryption();
            probe.abort();
        } else {
            ::close(fds[0]);
        }
    }
    ::close(fds[1]);
    return reason;
}

} // namespace

namespace Korb {

bool tlsServerConfiguration(const TlsFiles &files, QSslConfiguration *configuration, QString *error)
{
    if (!QSslSocket::supportsSsl()) {
        *error = QObject::tr("библиотека TLS недоступна (Qt собран для %1)")
                     .arg(QSslSocket::sslLibraryBuildVersionString());
        return false;
    }
    QByteArray pem;
    if (!readPem(files.certificate, &pem, error))
        return false;
    const QList<QSslCertificate> chain = QSslCertificate::fromData(pem, QSsl::Pem);
    if (chain.isEmpty() || chain.first().isNull()) {
        *error = fileError(files.certificate, QObject::tr("нет сертификата в формате PEM"));
        return false;
    }
    // The key is the secret of the whole port: no one but its owner and group may read it.
    if (QFileInfo::exists(files.key) && (QFile::permissions(files.key) & QFileDevice::ReadOther)) {
        *error = fileError(files.key, QObject::tr("ключ доступен для чтения всем, нужно chmod o-r"));
        return false;
    }
    if (!readPem(files.key, &pem, error))
        return false;
    const QSslKey key = privateKey(pem);
    if (key.isNull()) {
        *error = fileError(files.key, QObject::tr("нет закрытого ключа RSA или EC в формате PEM без пароля"));
        return false;
    }
    QSslConfiguration c = QSslConfiguration::defaultConfiguration();
    c.setProtocol(QSsl::TlsV1_2OrLater);
    c.setPeerVerifyMode(QSslSocket::VerifyNone);
    c.setLocalCertificateChain(chain);
    c.setPrivateKey(key);
    const QString mismatch = pairError(c);
    if (!mismatch.isEmpty()) {
        *error =
            fileError(files.key,
                      QObject::tr("ключ не подходит к сертификату %1 (%2)").arg(files.certificate, mismatch));
        return false;
    }
    *configuration = c;
    return true;
}

} // namespace Korb
