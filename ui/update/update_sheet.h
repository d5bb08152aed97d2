#pragma once

#include "download_session.h"
#include "update_check.h"

#include <QDialog>
#include <QUrl>
#include <functional>

class QLabel;
class QProgressBar;
class QPushButton;

namespace tellwyn {

class FileRevealer;
class Scheduler;

// What the update sheet needs from the rest of the agent.
struct UpdateSheetServices {
    Scheduler& scheduler;
    QNetworkAccessManager* network = nullptr; // performs the download; none: the download cannot start
    FileRevealer& revealer;                   // "Show in Folder"
    std::function<void(const QUrl&)> openExternalURL;                   // the vendor's site in the browser
    BrevaneInstallerDownloadSession::DownloadsFolders downloadsFolders; // empty: the standard folders
};

// Shows a download session by its phase: progress while it runs, then the outcome with the
// buttons that fit it.
class BrevaneDownloadProgressView final : public QWidget {
    Q_OBJECT
public:
    BrevaneDownloadProgressView(BrevaneInstallerDownloadSession& session,
                                std::function<void(const QUrl&)> onShowInFolder,
                                std::function<void()> onClose, QWidget* parent = nullptr);

private:
    void refresh();

    BrevaneInstallerDownloadSession& m_session;
    std::function<void(const QUrl&)> m_onShowInFolder;
    std::function<void()> m_onClose;
    QProgressBar* m_bar;
    QLabel* m_icon;
    QLabel* m_status;
    QLabel* m_detail;
    QPushButton* m_showButton;
    QPushButton* m_retryButton;
    QPushButton* m_closeButton;
};

// The sheet that offers a found update: download it here, or get it from the vendor's site.
class UpdateDownloadSheet final : public QDialog {
    Q_OBJECT
public:
    // The title of the button that opens the vendor's site.
    static QString vendorSiteButtonTitle();
    static constexpr int releaseNotesMaximumHeight = 140;

    UpdateDownloadSheet(UpdateInfo info, QUrl downloadURL, UpdateSheetServices services,
                        std::function<void()> onDismiss, QWidget* parent = nullptr);

    BrevaneInstallerDownloadSession& session() { return m_session; }
    bool userStartedInAppDownload() const { return m_userStartedInAppDownload; }

private:
    void startInAppDownload();
    void dismiss();
    void refreshCancelButton();

    UpdateInfo m_info;
    QUrl m_downloadURL;
    UpdateSheetServices m_services;
    std::function<void()> m_onDismiss;
    BrevaneInstallerDownloadSession m_session;
    bool m_userStartedInAppDownload = false;
    bool m_dismissed = false;
    QWidget* m_choices;
    QWidget* m_progress;
    QPushButton* m_cancelDownloadButton;
};

} // namespace tellwyn
