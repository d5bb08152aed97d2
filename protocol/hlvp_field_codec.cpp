#include "hlvp_field_codec.h"

#include "account_verifier.h"

#include <cmath>
#include <limits>

using namespace Qt::StringLiterals;

namespace tellwyn::wire {

namespace {

QString quoted(const char* key) {
    return u"field \"%1\""_s.arg(QLatin1StringView(key));
}

} // namespace

void FieldWriter::operator()(const char* key, const QString& value, qsizetype) {
    m_map.insert(QLatin1StringView(key), value);
}

void FieldWriter::operator()(const char* key, const QByteArray& value, qsizetype) {
    m_map.insert(QLatin1StringView(key), value);
}

void FieldWriter::operator()(const char* key, const QByteArray& value, ExactBytes) {
    m_map.insert(QLatin1StringView(key), value);
}

void FieldWriter::operator()(const char* key, quint32 value) {
    m_map.insert(QLatin1StringView(key), qint64(value));
}

void FieldWriter::operator()(const char* key, quint64 value) {
    // CBOR integers are read back as signed 64-bit values; larger counts are written as the largest.
    m_map.insert(QLatin1StringView(key),
                 qint64(std::min<quint64>(value, quint64(std::numeric_limits<qint64>::max()))));
}

void FieldWriter::operator()(const char* key, double value) {
    m_map.insert(QLatin1StringView(key), value);
}

void FieldWriter::operator()(const char* key, bool value) {
    m_map.insert(QLatin1StringView(key), value);
}

void FieldWriter::operator()(const char* key, const QDateTime& value) {
    // Written as tag 0, an RFC 3339 text in UTC.
    m_map.insert(QLatin1StringView(key), QCborValue(value.toUTC()));
}

void FieldWriter::operator()(const char* key, const QMap<QString, QString>& value, TextMapLimits) {
    QCborMap map;
    for (auto it = value.cbegin(); it != value.cend(); ++it) {
        map.insert(it.key(), it.value());
    }
    m_map.insert(QLatin1StringView(key), map);
}

void FieldWriter::operator()(const char* key, TextOrBytes<const QString> value, qsizetype) {
    m_map.insert(QLatin1StringView(key), value.text);
}

void FieldWriter::operator()(const char* key,
                             MethodByName<const HLVP::AuthenticationMethod, const QString> value, qsizetype) {
    m_map.insert(QLatin1StringView(key), value.method == HLVP::AuthenticationMethod::unknown
                                             ? value.name
                                             : HLVP::toString(value.method));
}

void FieldReader::fail(const QString& reason) {
    if (m_error.isEmpty()) {
        m_error = reason;
    }
}

std::optional<QCborValue> FieldReader::take(const char* key) {
    if (!ok()) {
        return std::nullopt;
    }
    const QLatin1StringView name(key);
    if (!m_map.contains(name)) {
        fail(u"missing field \"%1\""_s.arg(name));
        return std::nullopt;
    }
    return m_map.value(name);
}

std::optional<QString> FieldReader::text(const char* key, const QCborValue& value, qsizetype maxBytes) {
    if (!value.isString()) {
        fail(quoted(key) + u" is not text"_s);
        return std::nullopt;
    }
    QString text = value.toString();
    if (text.toUtf8().size() > maxBytes) {
        fail(quoted(key) + u" is longer than %1 bytes"_s.arg(maxBytes));
        return std::nullopt;
    }
    return text;
}

std::optional<QByteArray> FieldReader::bytes(const char* key, const QCborValue& value, qsizetype maxBytes) {
    if (!value.isByteArray()) {
        fail(quoted(key) + u" is not a byte string"_s);
        return std::nullopt;
    }
    const auto taken = m_takenBytes.constFind(QString::fromLatin1(key));
    QByteArray bytes = taken != m_takenBytes.cend() ? *taken : value.toByteArray();
    if (bytes.size() > maxBytes) {
        fail(quoted(key) + u" is longer than %1 bytes"_s.arg(maxBytes));
        return std::nullopt;
    }
    return bytes;
}

std::optional<quint64> FieldReader::unsignedInteger(const char* key, const QCborValue& value) {
    if (!value.isInteger() || value.toInteger() < 0) {
        fail(quoted(key) + u" is not an unsigned integer"_s);
        return std::nullopt;
    }
    return quint64(value.toInteger());
}

void FieldReader::operator()(const char* key, QString& value, qsizetype maxBytes) {
    if (const auto field = take(key)) {
        value = text(key, *field, maxBytes).value_or(QString());
    }
}

void FieldReader::operator()(const char* key, QByteArray& value, qsizetype maxBytes) {
    if (const auto field = take(key)) {
        value = bytes(key, *field, maxBytes).value_or(QByteArray());
    }
}

void FieldReader::operator()(const char* key, QByteArray& value, ExactBytes size) {
    if (const auto field = take(key)) {
        value = bytes(key, *field, size.bytes).value_or(QByteArray());
        if (ok() && value.size() != size.bytes) {
            fail(quoted(key) + u" is not %1 bytes"_s.arg(size.bytes));
        }
    }
}

void FieldReader::operator()(const char* key, quint32& value) {
    quint64 wide = 0;
    (*this)(key, wide);
    if (wide > std::numeric_limits<quint32>::max()) {
        fail(quoted(key) + u" does not fit in 32 bits"_s);
        return;
    }
    value = quint32(wide);
}

void FieldReader::operator()(const char* key, quint64& value) {
    if (const auto field = take(key)) {
        value = unsignedInteger(key, *field).value_or(0);
    }
}

void FieldReader::operator()(const char* key, double& value) {
    const auto field = take(key);
    if (!field) {
        return;
    }
    if (!field->isDouble() && !field->isInteger()) {
        fail(quoted(key) + u" is not a number"_s);
        return;
    }
    value = field->toDouble();
    if (!std::isfinite(value)) {
        fail(quoted(key) + u" is not a finite number"_s);
    }
}

void FieldReader::operator()(const char* key, bool& value) {
    const auto field = take(key);
    if (field && !field->isBool()) {
        fail(quoted(key) + u" is not a Boolean"_s);
    } else if (field) {
        value = field->toBool();
    }
}

void FieldReader::operator()(const char* key, QDateTime& value) {
    const auto field = take(key);
    if (!field) {
        return;
    }
    // The CBOR reader turns both tag 0 (text) and tag 1 (seconds) into a date; anything else under
    // those tags is invalid.
    if (!field->isDateTime() || !field->toDateTime().isValid()) {
        fail(quoted(key) + u" is not a date (tag 0 or tag 1)"_s);
        return;
    }
    value = field->toDateTime().toUTC();
}

void FieldReader::operator()(const char* key, QMap<QString, QString>& value, TextMapLimits limits) {
    const auto field = take(key);
    if (!field) {
        return;
    }
    if (!field->isMap()) {
        fail(quoted(key) + u" is not a map"_s);
        return;
    }
    const QCborMap map = field->toMap();
    if (map.size() > limits.entries) {
        fail(quoted(key) + u" has more than %1 entries"_s.arg(limits.entries));
        return;
    }
    for (auto it = map.constBegin(); it != map.constEnd(); ++it) {
        if (!it.key().isString() || !it.value().isString() ||
            it.key().toString().toUtf8().size() > limits.keyBytes) {
            fail(quoted(key) + u" holds an entry that is not short text to short text"_s);
            return;
        }
        // The values may be a password: the one copy made here is the one the message keeps (and
        // its reader wipes); the measuring copy is wiped at once.
        QString text = it.value().toString();
        QByteArray measured = text.toUtf8();
        const bool tooLong = measured.size() > limits.valueBytes;
        wipeSecret(measured);
        if (tooLong) {
            wipeSecret(text);
            fail(quoted(key) + u" holds an entry that is not short text to short text"_s);
            return;
        }
        value.insert(it.key().toString(), text);
    }
}

void FieldReader::operator()(const char* key, TextOrBytes<QString> value, qsizetype maxBytes) {
    const auto field = take(key);
    if (field && field->isByteArray()) {
        value.text = QString::fromUtf8(bytes(key, *field, maxBytes).value_or(QByteArray()));
    } else if (field) {
        value.text = text(key, *field, maxBytes).value_or(QString());
    }
}

void FieldReader::operator()(const char* key, MethodByName<HLVP::AuthenticationMethod, QString> value,
                             qsizetype maxBytes) {
    (*this)(key, value.name, maxBytes);
    value.method = HLVP::authenticationMethodFromString(value.name);
}

QCborArray FieldReader::takeListOfMaps(const char* key, qsizetype maxEntries) {
    const auto field = take(key);
    if (!field) {
        return {};
    }
    if (!field->isArray() || field->toArray().size() > maxEntries) {
        fail(quoted(key) + u" is not a list of at most %1 entries"_s.arg(maxEntries));
        return {};
    }
    const QCborArray list = field->toArray();
    for (const QCborValue& entry : list) {
        if (!entry.isMap()) {
            fail(u"an entry of %1 is not a map"_s.arg(quoted(key)));
            return {};
        }
    }
    return list;
}

void FieldReader::failInEntry(const char* key, const QString& entryError) {
    fail(u"an entry of %1: %2"_s.arg(quoted(key), entryError));
}

} // namespace tellwyn::wire
