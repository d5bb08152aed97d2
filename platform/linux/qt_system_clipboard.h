#pragma once

#include "system_clipboard.h"

#include <QObject>

namespace tellwyn {

// The desktop clipboard through QClipboard when the agent has a display; a clipboard of the
// process's own otherwise, so that a headless agent behaves the same towards its callers.
class QtSystemClipboard final : public QObject, public SystemClipboard {
    Q_OBJECT
public:
    explicit QtSystemClipboard(QObject* parent = nullptr);

    qint64 changeCount() const override { return m_changeCount; }
    std::optional<QString> string() const override;
    void setString(const QString& text) override;

private:
    bool hasSystemClipboard() const;

    qint64 m_changeCount = 0;
    std::optional<QString> m_localText;
};

} // namespace tellwyn
