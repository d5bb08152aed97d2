#pragma once

#include "update_alerts.h"

#include <QUrl>
#include <QWidget>
#include <functional>
#include <memory>

class QGraphicsOpacityEffect;
class QLabel;
class QNetworkAccessManager;
class QPushButton;

namespace tellwyn {

// The vendor's pages linked from the About window, relative to the vendor's site.
struct AboutLink {
    QString title;
    QString path;
};
const QList<AboutLink>& aboutLinks();
// The page's address on the vendor's site (one origin for all, the build's vendor home page).
QUrl vendorPage(const QString& path);

// The About window: logo, name, version, "Check for Updates...", the maker and the link row.
// Made once and kept; closing it only hides it.
class AboutWindow final : public QWidget {
    Q_OBJECT
public:
    struct Services {
        UpdateSheetServices updates;
        UpdateCheckRequest request;
        std::function<void(const QUrl&)> openURL;
    };

    explicit AboutWindow(Services services, QWidget* parent = nullptr);

    void showWindow();
    void checkForUpdates();
    // Where the outcome of "Check for Updates..." is shown (its alerts and the update sheet).
    WidgetUpdatePresenter& updatePresenter() { return *m_presenter; }

protected:
    void showEvent(QShowEvent* event) override;

private:
    Services m_services;
    WidgetUpdatePresenter* m_presenter;
    void setLogoScale(double scale);

    QLabel* m_logo;
    QGraphicsOpacityEffect* m_logoEffect;
    bool m_logoShown = false;
};

} // namespace tellwyn
