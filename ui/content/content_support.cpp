#include "content_support.h"

#include "server_state.h"

#include <QAbstractButton>
#include <QCoreApplication>
#include <QHash>
#include <QPainter>
#include <QStyle>
#include <optional>

using namespace Qt::StringLiterals;

namespace tellwyn {

QString uiText(const char* key) {
    return QCoreApplication::translate("TellwynAgent", key);
}

QIcon symbolIcon(const QString& symbol, const QWidget* widget) {
    struct Counterpart {
        QString themeName;
        std::optional<QStyle::StandardPixmap> fallback;
    };
    // The desktop icon theme's standard names; the style's icons where a theme
    // lacks them (a bare X server has no theme at all).
    static const QHash<QString, Counterpart> counterparts{
        {u"arrow.clockwise"_s, {u"view-refresh"_s, QStyle::SP_BrowserReload}},
        {u"arrow.clockwise.circle.fill"_s, {u"view-refresh"_s, QStyle::SP_BrowserReload}},
        {u"stop.fill"_s, {u"media-playback-stop"_s, QStyle::SP_MediaStop}},
        {u"play.fill"_s, {u"media-playback-start"_s, QStyle::SP_MediaPlay}},
        {u"gear"_s, {u"preferences-system"_s, QStyle::SP_FileDialogDetailedView}},
        {u"xmark.circle.fill"_s, {u"window-close"_s, QStyle::SP_DialogCloseButton}},
        {u"doc.on.doc"_s, {u"edit-copy"_s, QStyle::SP_FileDialogNewFolder}},
        {u"trash"_s, {u"user-trash"_s, QStyle::SP_TrashIcon}},
        {u"network"_s, {u"network-wired"_s, QStyle::SP_DriveNetIcon}},
        {u"lock.shield"_s, {u"security-high"_s, QStyle::SP_MessageBoxInformation}},
        {u"person.crop.circle.badge.checkmark"_s, {u"avatar-default"_s, QStyle::SP_DialogYesButton}},
        {u"minus.circle.fill"_s, {u"list-remove"_s, std::nullopt}},
        {u"plus.circle.fill"_s, {u"list-add"_s, std::nullopt}},
        {u"checkmark.circle.fill"_s, {u"emblem-ok-symbolic"_s, QStyle::SP_DialogApplyButton}},
        {u"desktopcomputer"_s, {u"computer"_s, QStyle::SP_ComputerIcon}},
        {u"hand.raised"_s, {u"input-mouse"_s, std::nullopt}},
        {u"server.rack"_s, {u"network-server"_s, QStyle::SP_DriveNetIcon}},
        {u"display"_s, {u"video-display"_s, QStyle::SP_DesktopIcon}},
        {u"key"_s, {u"dialog-password"_s, std::nullopt}},
        {u"switch.2"_s, {u"preferences-other"_s, QStyle::SP_FileDialogListView}},
        {u"power.circle"_s, {u"system-shutdown"_s, std::nullopt}},
    };
    const auto it = counterparts.constFind(symbol);
    if (it == counterparts.cend()) {
        return {};
    }
    QIcon fallback;
    if (it->fallback && widget != nullptr) {
        fallback = widget->style()->standardIcon(*it->fallback, nullptr, widget);
    }
    return QIcon::fromTheme(it->themeName, fallback);
}

namespace UiColor {
QColor green() {
    return {0x2e, 0xa0, 0x43};
}
QColor orange() {
    return {0xe0, 0x8a, 0x00};
}
QColor red() {
    return {0xd9, 0x30, 0x25};
}
QColor blue() {
    return {0x1a, 0x73, 0xe8};
}
QColor secondary(const QWidget* widget) {
    return widget->palette().color(QPalette::PlaceholderText);
}
} // namespace UiColor

StatusDot::StatusDot(int diameter, QColor colour, QWidget* parent)
    : QWidget(parent), m_diameter(diameter), m_colour(colour) {
    setFixedSize(diameter, diameter);
}

void StatusDot::setColour(QColor colour) {
    if (colour != m_colour) {
        m_colour = colour;
        update();
    }
}

void StatusDot::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(m_colour);
    painter.drawEllipse(rect());
}

QLabel* makeLabel(const QString& text, QWidget* parent, double scale, QFont::Weight weight) {
    auto* label = new QLabel(text, parent);
    if (scale != 1.0 || weight != QFont::Normal) {
        QFont font = label->font();
        font.setPointSizeF(font.pointSizeF() * scale);
        font.setWeight(weight);
        label->setFont(font);
    }
    return label;
}

void setTextColour(QWidget* widget, const QColor& colour) {
    QPalette palette = widget->palette();
    palette.setColor(QPalette::WindowText, colour);
    palette.setColor(QPalette::Text, colour);
    widget->setPalette(palette);
}

void nameForAccessibility(QWidget* widget, const QString& name, const QString& description) {
    widget->setAccessibleName(name);
    if (!description.isEmpty()) {
        widget->setAccessibleDescription(description);
    }
}

PermissionStatus screenRecordingStatus(const PermissionState& permissions, bool requiresRelaunch) {
    if (permissions.screenCaptureAuthorized) {
        return {uiText("Permission granted"), UiColor::green()};
    }
    if (requiresRelaunch) {
        return {uiText("Relaunch required"), UiColor::orange()};
    }
    return {uiText("Permission required"), UiColor::red()};
}

PermissionStatus accessibilityStatus(const PermissionState& permissions) {
    if (permissions.accessibilityAuthorized) {
        return {uiText("Permission granted"), UiColor::green()};
    }
    return {uiText("Permission required"), UiColor::red()};
}

} // namespace tellwyn
