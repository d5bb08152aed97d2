#include "tls_identity.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

constexpr long validityDays = 3650;

template <typename T, void (*Free)(T*)> struct Deleter {
    void operator()(T* p) const { Free(p); }
};
using PKeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
using X509Ptr = std::unique_ptr<X509, Deleter<X509, X509_free>>;
using BioPtr = std::unique_ptr<BIO, Deleter<BIO, BIO_free_all>>;

QString systemError(int code) {
    return QString::fromLocal8Bit(std::strerror(code));
}

QByteArray bioContents(BIO* bio) {
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    return QByteArray(data, static_cast<qsizetype>(length));
}

struct Pem {
    QByteArray key;
    QByteArray certificate;
};

std::optional<Pem> makeSelfSigned(const QString& commonName) {
    PKeyPtr key(EVP_EC_gen("P-256"));
    X509Ptr certificate(X509_new());
    if (!key || !certificate) {
        return std::nullopt;
    }
    unsigned char serial[16];
    if (RAND_bytes(serial, sizeof serial) != 1) {
        return std::nullopt;
    }
    serial[0] &= 0x7f; // a positive serial number
    std::unique_ptr<BIGNUM, Deleter<BIGNUM, BN_free>> serialNumber(BN_bin2bn(serial, sizeof serial, nullptr));
    const QByteArray name = commonName.toUtf8();
    X509_NAME* subject = X509_get_subject_name(certificate.get());
    const bool built =
        serialNumber && X509_set_version(certificate.get(), 2) == 1 &&
        BN_to_ASN1_INTEGER(serialNumber.get(), X509_get_serialNumber(certificate.get())) != nullptr &&
        X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -86400) != nullptr &&
        X509_gmtime_adj(X509_getm_notAfter(certificate.get()), validityDays * 86400) != nullptr &&
        X509_set_pubkey(certificate.get(), key.get()) == 1 &&
        X509_NAME_add_entry_by_txt(subject, "O", MBSTRING_UTF8,
                                   reinterpret_cast<const unsigned char*>("Tellwyn"), -1, -1, 0) == 1 &&
        X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8,
                                   reinterpret_cast<const unsigned char*>(name.constData()),
                                   static_cast<int>(name.size()), -1, 0) == 1 &&
        X509_set_issuer_name(certificate.get(), subject) == 1 &&
        X509_sign(certificate.get(), key.get(), EVP_sha256()) > 0;
    if (!built) {
        return std::nullopt;
    }
    BioPtr keyBio(BIO_new(BIO_s_mem()));
    BioPtr certificateBio(BIO_new(BIO_s_mem()));
    if (!keyBio || !certificateBio ||
        PEM_write_bio_PrivateKey(keyBio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1 ||
        PEM_write_bio_X509(certificateBio.get(), certificate.get()) != 1) {
        return std::nullopt;
    }
    return Pem{bioContents(keyBio.get()), bioContents(certificateBio.get())};
}

// Writes the whole file under a temporary name with mode 0600 and renames it into place, so that
// the file never exists with wider permissions or half written.
QString writePrivateFile(const QString& path, const QByteArray& contents) {
    const QByteArray target = QFile::encodeName(path);
    const QByteArray temporary = target + ".new";
    const int fd = ::open(temporary.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        return systemError(errno);
    }
    qsizetype written = 0;
    while (written < contents.size()) {
        const ssize_t n =
            ::write(fd, contents.constData() + written, static_cast<size_t>(contents.size() - written));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            const int error = errno;
            ::close(fd);
            ::unlink(temporary.constData());
            return systemError(error);
        }
        written += n;
    }
    if (::fsync(fd) != 0 || ::close(fd) != 0 || ::rename(temporary.constData(), target.constData()) != 0) {
        const int error = errno;
        ::unlink(temporary.constData());
        return systemError(error);
    }
    return {};
}

// Reads a file of the identity; on failure returns the reason.
std::optional<QByteArray> readFile(const QString& path, QString* reason) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *reason = file.errorString();
        return std::nullopt;
    }
    return file.readAll();
}

bool narrowPermissions(const QString& path) {
    struct stat info {};
    const QByteArray name = QFile::encodeName(path);
    if (::stat(name.constData(), &info) == 0 && (info.st_mode & 077) != 0) {
        ::chmod(name.constData(), 0600);
        return true;
    }
    return false;
}

} // namespace

QString TlsIdentity::fingerprintOf(const QSslCertificate& certificate) {
    const QByteArray digest = QCryptographicHash::hash(certificate.toDer(), QCryptographicHash::Sha256);
    return QString::fromLatin1(digest.toHex(':').toUpper());
}

QString tlsKeyPath(const QString& directory) {
    return QDir(directory).filePath(u"identity-key.pem"_s);
}

QString tlsCertificatePath(const QString& directory) {
    return QDir(directory).filePath(u"identity-cert.pem"_s);
}

TlsIdentityLoad loadOrCreateTlsIdentity(const QString& directory, const QString& commonName) {
    TlsIdentityLoad result;
    const QString keyPath = tlsKeyPath(directory);
    const QString certificatePath = tlsCertificatePath(directory);

    if (!QFileInfo::exists(keyPath)) {
        if (!QDir().mkpath(directory)) {
            result.error = u"Cannot create the data folder %1."_s.arg(directory);
            return result;
        }
        QFile::setPermissions(directory, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        const auto pem = makeSelfSigned(commonName);
        if (!pem) {
            result.error = u"Cannot make a TLS identity: the key or certificate could not be generated."_s;
            return result;
        }
        // The key goes first: a certificate without its key is never left behind.
        QString failure = writePrivateFile(keyPath, pem->key);
        if (failure.isEmpty()) {
            failure = writePrivateFile(certificatePath, pem->certificate);
        }
        if (!failure.isEmpty()) {
            result.error = u"Cannot write the TLS identity to %1: %2."_s.arg(directory, failure);
            return result;
        }
        result.created = true;
    }

    QString reason;
    const auto keyPem = readFile(keyPath, &reason);
    if (!keyPem) {
        result.error = u"Cannot read the TLS identity key %1: %2."_s.arg(keyPath, reason);
        return result;
    }
    const auto certificatePem = readFile(certificatePath, &reason);
    if (!certificatePem) {
        result.error = u"Cannot read the TLS identity certificate %1: %2."_s.arg(certificatePath, reason);
        return result;
    }
    TlsIdentity identity{QSslCertificate(*certificatePem, QSsl::Pem), QSslKey(*keyPem, QSsl::Ec, QSsl::Pem)};
    if (identity.privateKey.isNull() || identity.certificate.isNull()) {
        result.error = u"The TLS identity in %1 is damaged and cannot be used; move identity-key.pem and "
                       u"identity-cert.pem away to have a new one made."_s.arg(directory);
        return result;
    }
    result.permissionsRepaired = narrowPermissions(keyPath) | narrowPermissions(certificatePath);
    result.identity = std::move(identity);
    return result;
}

} // namespace tellwyn
