#pragma once

#include <QString>

class QSslConfiguration;

// The TLS port's certificate and key: where they are, and the server side
// of TLS made from them.
namespace Korb {

// Absolute paths (the relay's options settle them).
struct TlsFiles
{
    QString certificate;
    QString key;
};

// TLS 1.2 or later with Qt's default ciphers, the certificate (a chain: the
// server's own first) and its private key, no client certificates asked.
// False with `error` set to one line naming the file and the reason when a
// file is missing or unreadable, holds no PEM certificate or unencrypted
// key, when the key may be read by others, or does not belong to the
// certificate.
bool tlsServerConfiguration(const TlsFiles &files, QSslConfiguration *configuration, QString *error);

} // namespace Korb
