#pragma once

#include <QSslCertificate>
#include <QSslKey>
#include <QString>
#include <optional>

namespace tellwyn {

// The agent's TLS identity: a P-256 key and a self-signed certificate that viewers pin by its
// SHA-256 fingerprint. Made once, kept in the data folder (mode 0600) and reused afterwards.
struct TlsIdentity {
    QSslCertificate certificate;
    QSslKey privateKey;

    QString fingerprint() const { return fingerprintOf(certificate); }
    // SHA-256 of the certificate's DER form as upper-case hex pairs joined by colons.
    static QString fingerprintOf(const QSslCertificate& certificate);
};

struct TlsIdentityLoad {
    std::optional<TlsIdentity> identity;
    bool created = false;
    // Set when the permissions of an existing file were too open and have been narrowed.
    bool permissionsRepaired = false;
    QString error; // a sentence for the user when `identity` is empty
};

// Reads the identity from `directory`, or makes one there when none exists. A damaged or
// unreadable identity is reported, never replaced: the user decides what happens to it.
TlsIdentityLoad loadOrCreateTlsIdentity(const QString& directory, const QString& commonName);

QString tlsKeyPath(const QString& directory);
QString tlsCertificatePath(const QString& directory);

} // namespace tellwyn
