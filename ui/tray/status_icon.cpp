#include "status_icon.h"

#include "server_state.h"

#include <QFile>
#include <QGuiApplication>
#include <QPainter>
#include <QPalette>
#include <QPixmap>
#include <QSvgRenderer>

using namespace Qt::StringLiterals;

// The resource's registration lives in a static library: nothing would pull it in otherwise.
static void initArtworkResource() {
    Q_INIT_RESOURCE(icons);
}

namespace tellwyn {

void loadDesktopArtwork() {
    static const bool loaded = [] {
        initArtworkResource();
        return true;
    }();
    Q_UNUSED(loaded);
}

bool statusIconTinted(const ServerState& state) {
    return state.isRunning && !state.authenticatedClients.isEmpty();
}

QColor statusIconColour(bool tinted, bool darkPanel) {
    if (tinted) {
        return QColor(0x0a, 0x84, 0xff);
    }
    return darkPanel ? QColor(0xee, 0xee, 0xec) : QColor(0x2e, 0x34, 0x36);
}

QIcon statusIcon(const QColor& colour) {
    static const QByteArray artwork = [] {
        loadDesktopArtwork();
        QFile file(u":/tellwyn/tellwyn-eye.svg"_s);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }();
    // The artwork is drawn in black; every black becomes the wanted colour.
    QByteArray recoloured = artwork;
    recoloured.replace("#000000", colour.name(QColor::HexRgb).toLatin1());
    QSvgRenderer renderer(recoloured);
    QIcon icon;
    for (const int side : {16, 22, 24, 32, 48, 64}) {
        QPixmap pixmap(side, side);
        pixmap.fill(Qt::transparent);
        QPainter painter(&pixmap);
        renderer.render(&painter);
        painter.end();
        icon.addPixmap(pixmap);
    }
    return icon;
}

bool desktopPanelIsDark() {
    return QGuiApplication::palette().color(QPalette::Window).lightness() < 128;
}

} // namespace tellwyn
