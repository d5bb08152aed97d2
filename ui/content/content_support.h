#pragma once

// Small pieces shared by the main window's screens: the string table, symbols, colours, dots
// and the permission status texts.

#include <QColor>
#include <QIcon>
#include <QLabel>
#include <QString>
#include <QWidget>

class QAbstractButton;

namespace tellwyn {

struct PermissionState;

// Looks a user-visible text up in the application's string table; the English text is the key.
QString uiText(const char* key);

// The icon standing for a symbol name of the screens ("arrow.clockwise", "gear", ...): the
// desktop icon theme's counterpart, else a standard icon of the style, else none.
QIcon symbolIcon(const QString& symbol, const QWidget* widget);

namespace UiColor {
QColor green();
QColor orange();
QColor red();
QColor blue();
// The secondary (dimmed) text colour of the widget's palette.
QColor secondary(const QWidget* widget);
} // namespace UiColor

// A filled circle of a given diameter and colour: the running dot, a connection's dot and the
// logging indicator.
class StatusDot final : public QWidget {
    Q_OBJECT
public:
    StatusDot(int diameter, QColor colour, QWidget* parent = nullptr);
    void setColour(QColor colour);
    QColor colour() const { return m_colour; }
    QSize sizeHint() const override { return {m_diameter, m_diameter}; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    int m_diameter;
    QColor m_colour;
};

// A label with a colour and a relative font size and weight.
QLabel* makeLabel(const QString& text, QWidget* parent, double scale = 1.0,
                  QFont::Weight weight = QFont::Normal);
void setTextColour(QWidget* widget, const QColor& colour);
// A button's name for screen readers and tests through the accessibility bus.
void nameForAccessibility(QWidget* widget, const QString& name, const QString& description = {});

// A permission's status as the dashboard and the settings show it.
struct PermissionStatus {
    QString text;
    QColor colour;
};
PermissionStatus screenRecordingStatus(const PermissionState& permissions, bool requiresRelaunch);
PermissionStatus accessibilityStatus(const PermissionState& permissions);

} // namespace tellwyn
