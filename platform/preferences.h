#pragma once

#include <QString>
#include <QVariant>
#include <optional>

namespace tellwyn {

// The user's preferences store. Implementations supply raw values; the typed reads below follow
// the store's lenient conversion rules so that every implementation reads alike.
class Preferences {
public:
    virtual ~Preferences() = default;

    // The stored value, or nothing when the key is absent.
    virtual std::optional<QVariant> object(const QString& key) const = 0;
    virtual void set(const QString& key, const QVariant& value) = 0;
    virtual void remove(const QString& key) = 0;

    // false when absent; numbers are true when not zero; text "true"/"yes"/"1" (any case) is true.
    bool boolValue(const QString& key) const;
    // 0 when absent or not a number; text holding a number is read as one; fractions are truncated.
    qint64 integerValue(const QString& key) const;
    // The value when it is stored as a Boolean. Text stores (INI) keep Booleans as "true"/"false".
    std::optional<bool> storedBool(const QString& key) const;
};

} // namespace tellwyn
