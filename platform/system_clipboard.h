#pragma once

#include <QString>
#include <optional>

namespace tellwyn {

// The machine's clipboard, as plain text, with a counter that moves on every change so that a
// poller can tell whether anything happened since it last looked.
class SystemClipboard {
public:
    virtual ~SystemClipboard() = default;
    virtual qint64 changeCount() const = 0;
    virtual std::optional<QString> string() const = 0;
    // Replaces the whole contents with `text`.
    virtual void setString(const QString& text) = 0;
};

} // namespace tellwyn
