#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <memory>

namespace tellwyn {

// Incremental SHA-256 through OpenSSL, which uses the processor's SHA instructions where there
// are any: several times faster than a portable implementation on large files.
class Sha256 {
public:
    Sha256();
    ~Sha256();
    Sha256(const Sha256&) = delete;
    Sha256& operator=(const Sha256&) = delete;

    void addData(QByteArrayView data);
    // The 32-byte digest of everything added; the object is spent afterwards.
    QByteArray result();

private:
    struct Context;
    std::unique_ptr<Context> m_context;
};

} // namespace tellwyn
