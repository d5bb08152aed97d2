#include "preferences.h"

#include <cmath>

namespace tellwyn {

namespace {

bool isNumberType(const QVariant& value) {
    switch (value.metaType().id()) {
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Double:
    case QMetaType::Float:
        return true;
    default:
        return false;
    }
}

qint64 truncatedToInteger(double value) {
    if (!std::isfinite(value) || std::fabs(value) >= 9.2e18) {
        return 0;
    }
    return static_cast<qint64>(value);
}

} // namespace

bool Preferences::boolValue(const QString& key) const {
    const auto value = object(key);
    if (!value) {
        return false;
    }
    if (value->metaType().id() == QMetaType::Bool) {
        return value->toBool();
    }
    if (isNumberType(*value)) {
        return value->toDouble() != 0.0;
    }
    const QString text = value->toString().trimmed().toLower();
    if (text == QLatin1String("true") || text == QLatin1String("yes")) {
        return true;
    }
    bool ok = false;
    const qint64 number = text.toLongLong(&ok);
    return ok && number != 0;
}

qint64 Preferences::integerValue(const QString& key) const {
    const auto value = object(key);
    if (!value) {
        return 0;
    }
    if (value->metaType().id() == QMetaType::Bool) {
        return value->toBool() ? 1 : 0;
    }
    if (isNumberType(*value)) {
        return value->metaType().id() == QMetaType::Double || value->metaType().id() == QMetaType::Float
                   ? truncatedToInteger(value->toDouble())
                   : value->toLongLong();
    }
    const QString text = value->toString().trimmed();
    bool ok = false;
    const qint64 number = text.toLongLong(&ok);
    if (ok) {
        return number;
    }
    const double fraction = text.toDouble(&ok);
    return ok ? truncatedToInteger(fraction) : 0;
}

std::optional<bool> Preferences::storedBool(const QString& key) const {
    const auto value = object(key);
    if (!value) {
        return std::nullopt;
    }
    if (value->metaType().id() == QMetaType::Bool) {
        return value->toBool();
    }
    if (value->metaType().id() == QMetaType::QString) {
        const QString text = value->toString();
        if (text == QLatin1String("true")) {
            return true;
        }
        if (text == QLatin1String("false")) {
            return false;
        }
    }
    return std::nullopt;
}

} // namespace tellwyn
