#include "about_window.h"

#include "status_icon.h"
#include "update_check.h"

#include <QGraphicsDropShadowEffect>
#include <QGraphicsOpacityEffect>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QPropertyAnimation>
#include <QPushButton>
#include <QScreen>
#include <QSvgRenderer>
#include <QVBoxLayout>
#include <QVariantAnimation>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

QPixmap renderSvg(const QString& path, QSize size, qreal ratio) {
    QSvgRenderer renderer(path);
    QPixmap pixmap(size * ratio);
    pixmap.setDevicePixelRatio(ratio);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    renderer.render(&painter, QRectF(QPointF(0, 0), QSizeF(size)));
    return pixmap;
}

QLabel* textLabel(const QString& text, qreal pointSize, bool bold, QWidget* parent) {
    auto* label = new QLabel(text, parent);
    QFont font = label->font();
    font.setPointSizeF(pointSize);
    font.setBold(bold);
    label->setFont(font);
    label->setAlignment(Qt::AlignCenter);
    return label;
}

} // namespace

const QList<AboutLink>& aboutLinks() {
    static const QList<AboutLink> links{
        {QObject::tr("Website"), QString()},
        {QObject::tr("Community"), u"/tickets"_s},
        {QObject::tr("FAQs"), u"/faqs"_s},
        {QObject::tr("Feature Request"), u"/submit_ticket"_s},
        {QObject::tr("Bug report"), u"/submit_ticket"_s},
    };
    return links;
}

QUrl vendorPage(const QString& path) {
    QString home = vendorHomePageURL();
    if (path.isEmpty()) {
        return QUrl(home);
    }
    while (home.endsWith(u'/')) {
        home.chop(1);
    }
    return QUrl(home + path);
}

AboutWindow::AboutWindow(Services services, QWidget* parent)
    : QWidget(parent,
              Qt::Window | Qt::WindowTitleHint | Qt::WindowCloseButtonHint | Qt::WindowMinimizeButtonHint),
      m_services(std::move(services)) {
    loadDesktopArtwork();
    setObjectName(u"aboutWindow"_s);
    setWindowTitle(QString());
    resize(580, 400);
    m_presenter = new WidgetUpdatePresenter(m_services.updates, this, this);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(24, 24, 24, 20);
    layout->setSpacing(10);

    m_logo = new QLabel(this);
    m_logo->setAlignment(Qt::AlignCenter);
    m_logo->setMinimumHeight(112); // the logo grows into this space as it appears
    setLogoScale(0.94);
    m_logoEffect = new QGraphicsOpacityEffect(m_logo);
    m_logoEffect->setOpacity(0.0);
    m_logo->setGraphicsEffect(m_logoEffect);
    layout->addWidget(m_logo);

    layout->addWidget(textLabel(tr("TellwynAgent"), 20, true, this));
    layout->addWidget(textLabel(currentAgentVersion(), 14, false, this));

    auto* check = new QPushButton(tr("Check for Updates..."), this);
    connect(check, &QPushButton::clicked, this, &AboutWindow::checkForUpdates);
    layout->addWidget(check, 0, Qt::AlignHCenter);
    layout->addStretch(1);

    auto* maker = new QHBoxLayout;
    maker->addStretch(1);
    maker->addWidget(new QLabel(tr("Made by"), this));
    auto* makerLogo = new QLabel(this);
    makerLogo->setPixmap(renderSvg(u":/tellwyn/brevane-logo.svg"_s, QSize(108, 24), devicePixelRatioF()));
    maker->addWidget(makerLogo);
    maker->addStretch(1);
    layout->addLayout(maker);

    auto* links = new QHBoxLayout;
    links->addStretch(1);
    for (const AboutLink& link : aboutLinks()) {
        auto* button = new QPushButton(link.title, this);
        button->setFlat(true);
        button->setCursor(Qt::PointingHandCursor);
        button->setStyleSheet(u"QPushButton { color: palette(link); padding: 2px 8px; border: none; }"
                              u"QPushButton:hover { text-decoration: underline; }"_s);
        const QUrl page = vendorPage(link.path);
        connect(button, &QPushButton::clicked, this, [this, page] {
            if (m_services.openURL) {
                m_services.openURL(page);
            }
        });
        links->addWidget(button);
    }
    links->addStretch(1);
    layout->addLayout(links);

    if (const QScreen* screen = QGuiApplication::primaryScreen()) {
        QRect frame(QPoint(0, 0), size());
        frame.moveCenter(screen->availableGeometry().center());
        move(frame.topLeft());
    }
}

void AboutWindow::showWindow() {
    showNormal();
    raise();
    activateWindow();
}

void AboutWindow::checkForUpdates() {
    if (m_services.updates.network) {
        tellwyn::checkForUpdates(*m_services.updates.network, m_services.request, this, *m_presenter);
    }
}

void AboutWindow::setLogoScale(double scale) {
    const int side = qRound(112 * scale);
    m_logo->setPixmap(renderSvg(u":/tellwyn/logo.svg"_s, QSize(side, side), devicePixelRatioF()));
}

void AboutWindow::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    if (m_logoShown) {
        return;
    }
    // The logo fades in the first time the window appears.
    m_logoShown = true;
    auto* fade = new QPropertyAnimation(m_logoEffect, "opacity", this);
    fade->setDuration(450);
    fade->setStartValue(0.0);
    fade->setEndValue(1.0);
    fade->setEasingCurve(QEasingCurve::OutQuad);
    // It grows from 0.94 to its full size on the same curve.
    auto* grow = new QVariantAnimation(this);
    grow->setDuration(450);
    grow->setStartValue(0.94);
    grow->setEndValue(1.0);
    grow->setEasingCurve(QEasingCurve::OutQuad);
    connect(grow, &QVariantAnimation::valueChanged, m_logo,
            [this](const QVariant& value) { setLogoScale(value.toDouble()); });
    grow->start(QAbstractAnimation::DeleteWhenStopped);
    // Once shown, the logo casts a faint shadow (a widget takes one effect at a time).
    connect(fade, &QPropertyAnimation::finished, m_logo, [this] {
        auto* shadow = new QGraphicsDropShadowEffect(m_logo);
        shadow->setBlurRadius(6);
        shadow->setOffset(0, 1);
        shadow->setColor(QColor(0, 0, 0, 41));
        m_logo->setGraphicsEffect(shadow); // replaces (and deletes) the opacity effect
        m_logoEffect = nullptr;
    });
    fade->start(QAbstractAnimation::DeleteWhenStopped);
}

} // namespace tellwyn
