#pragma once

#include "update_check.h"
#include "update_sheet.h"

#include <QObject>
#include <QPointer>

class QMessageBox;
class QWidget;

namespace tellwyn {

// The two alerts of the update check; each is application-modal with one "OK" button, shown
// without blocking and deleted when closed.
QMessageBox* showUpToDateAlert(QWidget* parent = nullptr);
QMessageBox* showCheckFailedAlert(const QString& message, QWidget* parent = nullptr);

// Presents a check's outcome with the desktop's alerts and the update sheet.
class WidgetUpdatePresenter final : public QObject, public UpdatePresenter {
    Q_OBJECT
public:
    WidgetUpdatePresenter(UpdateSheetServices services, QWidget* parentWindow = nullptr,
                          QObject* parent = nullptr);

    void showUpToDateAlert() override;
    void showCheckFailedAlert(const QString& message) override;
    void presentUpdateDownload(const UpdateDownloadPresentation& presentation) override;

    // The sheet on screen, if any; it goes when it is dismissed.
    UpdateDownloadSheet* sheet() const { return m_sheet; }

Q_SIGNALS:
    // An alert was closed; `kind` is the outcome it showed.
    void alertClosed(UpdateCheckOutcome::Kind kind);
    // The sheet was dismissed; `phase` is where its download stood.
    void sheetDismissed(const BrevaneInstallerDownloadSession::Phase& phase, bool downloadStarted);

private:
    UpdateSheetServices m_services;
    QPointer<QWidget> m_parentWindow;
    QPointer<UpdateDownloadSheet> m_sheet;
};

// `tellwyn-agent --check-for-updates` on a desktop: runs the check, shows its alert or the sheet
// and returns the exit code of the outcome once that is closed. Needs a running QApplication.
// `scheduler` times the download sheet; `revealer` shows the downloaded file.
int runWidgetUpdateCheck(const UpdateCheckRequest& request, Scheduler& scheduler, FileRevealer& revealer);

} // namespace tellwyn
