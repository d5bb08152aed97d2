#include "sha256.h"

#include <openssl/evp.h>

namespace tellwyn {

struct Sha256::Context {
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    ~Context() { EVP_MD_CTX_free(context); }
};

Sha256::Sha256() : m_context(std::make_unique<Context>()) {
    EVP_DigestInit_ex(m_context->context, EVP_sha256(), nullptr);
}

Sha256::~Sha256() = default;

void Sha256::addData(QByteArrayView data) {
    EVP_DigestUpdate(m_context->context, data.data(), size_t(data.size()));
}

QByteArray Sha256::result() {
    QByteArray digest(EVP_MAX_MD_SIZE, Qt::Uninitialized);
    unsigned int length = 0;
    EVP_DigestFinal_ex(m_context->context, reinterpret_cast<unsigned char*>(digest.data()), &length);
    digest.resize(qsizetype(length));
    return digest;
}

} // namespace tellwyn
