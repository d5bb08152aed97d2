#pragma once

// Fakes of the platform services, for unit tests.

#include "display_probe.h"
#include "pasteboard.h"
#include "preferences.h"
#include "system_events.h"
#include "system_identity.h"

#include <QVariantMap>

namespace tellwyn::testing {

class FakePreferences final : public Preferences {
public:
    std::optional<QVariant> object(const QString& key) const override {
        const auto it = values.constFind(key);
        return it == values.cend() ? std::nullopt : std::optional<QVariant>(*it);
    }
    void set(const QString& key, const QVariant& value) override { values.insert(key, value); }
    void remove(const QString& key) override { values.remove(key); }

    QVariantMap values;
};

class FakePasteboard final : public Pasteboard {
public:
    qint64 changeCount() const override { return count; }
    std::optional<QString> string() const override {
        ++reads;
        return text;
    }
    void setString(const QString& value) override {
        text = value;
        ++count;
    }

    qint64 count = 0;
    std::optional<QString> text;
    mutable int reads = 0; // how often the contents were read
};

class FakeSystemIdentity final : public SystemIdentity {
public:
    QString loginName() const override { return login; }
    std::optional<QString> localizedComputerName() const override { return computerName; }

    QString login = QStringLiteral("alice");
    std::optional<QString> computerName = QStringLiteral("Alice's Workstation");
};

class FakeDisplayProbe final : public DisplayProbe {
public:
    int displayCount() const override { return count; }
    int count = 0;
};

class FakeSystemEvents final : public SystemEvents {
    Q_OBJECT
public:
    using SystemEvents::SystemEvents;
};

} // namespace tellwyn::testing
