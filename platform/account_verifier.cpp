#include "account_verifier.h"

#include <QByteArray>
#include <cstring>

namespace tellwyn {

namespace {
// Written through a volatile pointer so that the compiler cannot drop the stores as dead.
void overwrite(void* data, size_t size) {
    volatile auto* bytes = static_cast<volatile unsigned char*>(data);
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = 0;
    }
}
} // namespace

void wipeSecret(QString& text) {
    if (!text.isEmpty()) {
        // Deliberately writes through the shared buffer: every copy holds the same secret.
        overwrite(const_cast<QChar*>(text.constData()), size_t(text.size()) * sizeof(QChar));
    }
    text = QString();
}

void wipeSecret(QByteArray& bytes) {
    if (!bytes.isEmpty()) {
        overwrite(const_cast<char*>(bytes.constData()), size_t(bytes.size()));
    }
    bytes = QByteArray();
}

} // namespace tellwyn
