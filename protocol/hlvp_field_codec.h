#pragma once

#include "hlvp_messages.h"

#include <QCborArray>
#include <QCborMap>
#include <QCborValue>
#include <QHash>

// The two visitors that `fields()` of each message is called with: one writes the members into a
// CBOR map, the other reads them back and checks their types and limits.
namespace tellwyn::wire {

// Writes fields into a message map; optional fields are left out when absent.
class FieldWriter {
public:
    explicit FieldWriter(QCborMap& map) : m_map(map) {}

    void operator()(const char* key, const QString& value, qsizetype = maxTextBytes);
    void operator()(const char* key, const QByteArray& value, qsizetype);
    void operator()(const char* key, const QByteArray& value, ExactBytes);
    void operator()(const char* key, quint32 value);
    void operator()(const char* key, quint64 value);
    void operator()(const char* key, double value);
    void operator()(const char* key, bool value);
    void operator()(const char* key, const QDateTime& value);
    void operator()(const char* key, const QMap<QString, QString>& value, TextMapLimits);
    void operator()(const char* key, TextOrBytes<const QString> value, qsizetype);
    void operator()(const char* key, MethodByName<const HLVP::AuthenticationMethod, const QString> value,
                    qsizetype);

    template <typename Value, typename... Limit>
    void operator()(const char* key, const std::optional<Value>& value, Limit... limit) {
        if (value) {
            (*this)(key, *value, limit...);
        }
    }
    template <typename Enum, std::size_t count> void operator()(const char* key, ByName<Enum, count> value) {
        for (const auto& [known, name] : value.names) {
            if (known == value.value) {
                m_map.insert(QLatin1StringView(key), QLatin1StringView(name));
            }
        }
    }
    template <typename Record> void operator()(InPlace, const std::optional<Record>& record) {
        if (record) {
            Record::fields(*record, *this);
        }
    }
    template <typename Record> void operator()(const char* key, const QList<Record>& records, qsizetype) {
        QCborArray list;
        for (const Record& record : records) {
            QCborMap entry;
            FieldWriter write(entry);
            Record::fields(record, write);
            list.append(entry);
        }
        m_map.insert(QLatin1StringView(key), list);
    }

private:
    QCborMap& m_map;
};

// Reads fields from a message map. The first problem is kept as the error; reads after it do
// nothing.
class FieldReader {
public:
    explicit FieldReader(const QCborMap& map) : m_map(map) {}
    // `takenBytes`: byte strings read beside the map, which holds an empty one under their keys.
    FieldReader(const QCborMap& map, QHash<QString, QByteArray> takenBytes)
        : m_map(map), m_takenBytes(std::move(takenBytes)) {}

    bool ok() const { return m_error.isEmpty(); }
    QString error() const { return m_error; }
    void fail(const QString& reason);

    void operator()(const char* key, QString& value, qsizetype maxBytes = maxTextBytes);
    void operator()(const char* key, QByteArray& value, qsizetype maxBytes);
    void operator()(const char* key, QByteArray& value, ExactBytes size);
    void operator()(const char* key, quint32& value);
    void operator()(const char* key, quint64& value);
    void operator()(const char* key, double& value);
    void operator()(const char* key, bool& value);
    void operator()(const char* key, QDateTime& value);
    void operator()(const char* key, QMap<QString, QString>& value, TextMapLimits limits);
    void operator()(const char* key, TextOrBytes<QString> value, qsizetype maxBytes);
    void operator()(const char* key, MethodByName<HLVP::AuthenticationMethod, QString> value,
                    qsizetype maxBytes);

    template <typename Value, typename... Limit>
    void operator()(const char* key, std::optional<Value>& value, Limit... limit) {
        if (ok() && m_map.contains(QLatin1StringView(key))) {
            (*this)(key, value.emplace(), limit...);
        }
    }
    template <typename Enum, std::size_t count> void operator()(const char* key, ByName<Enum, count> value) {
        QString name;
        (*this)(key, name, maxNameBytes);
        if (!ok()) {
            return;
        }
        for (const auto& [known, knownName] : value.names) {
            if (name == QLatin1StringView(knownName)) {
                value.value = known;
                return;
            }
        }
        fail(QStringLiteral("\"%1\" is not a known value of \"%2\"")
                 .arg(name.left(64), QLatin1StringView(key)));
    }
    template <typename Record> void operator()(InPlace where, std::optional<Record>& record) {
        if (ok() && m_map.contains(QLatin1StringView(where.presentWhen))) {
            Record::fields(record.emplace(), *this);
            checkProblem(*record);
        }
    }
    template <typename Record>
    void operator()(const char* key, QList<Record>& records, qsizetype maxEntries) {
        for (const QCborValue& entry : takeListOfMaps(key, maxEntries)) {
            const QCborMap entryMap = entry.toMap();
            FieldReader read(entryMap);
            Record::fields(records.emplace_back(), read);
            read.checkProblem(records.back());
            if (!read.ok()) {
                failInEntry(key, read.error());
                return;
            }
        }
    }

    // Fails with what the type's own `problem()` finds wrong in a value read without error.
    template <typename Value> void checkProblem(const Value& value) {
        if constexpr (requires { Value::problem(value); }) {
            if (ok()) {
                if (const std::optional<QString> problem = Value::problem(value)) {
                    fail(*problem);
                }
            }
        }
    }

private:
    // The field's value, or nothing after an error or when it is missing (which is an error).
    std::optional<QCborValue> take(const char* key);
    std::optional<QString> text(const char* key, const QCborValue& value, qsizetype maxBytes);
    std::optional<QByteArray> bytes(const char* key, const QCborValue& value, qsizetype maxBytes);
    std::optional<quint64> unsignedInteger(const char* key, const QCborValue& value);
    // The entries of a list field, each a map; none after an error.
    QCborArray takeListOfMaps(const char* key, qsizetype maxEntries);
    void failInEntry(const char* key, const QString& entryError);

    const QCborMap& m_map;
    QHash<QString, QByteArray> m_takenBytes;
    QString m_error;
};

} // namespace tellwyn::wire
