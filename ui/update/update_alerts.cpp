#include "update_alerts.h"

#include "update_command.h"
#include "update_texts.h"

#include <QApplication>
#include <QDesktopServices>
#include <QMessageBox>
#include <QNetworkAccessManager>
#include <QPushButton>

namespace tellwyn {

namespace {

QMessageBox* showAlert(QMessageBox::Icon icon, const QString& text, const QString& informative,
                       QWidget* parent) {
    auto* box = new QMessageBox(icon, localizedText("TellwynAgent"), text, QMessageBox::NoButton, parent);
    box->setInformativeText(informative);
    box->addButton(localizedText("OK"), QMessageBox::AcceptRole);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setWindowModality(Qt::ApplicationModal);
    box->show();
    return box;
}

} // namespace

QMessageBox* showUpToDateAlert(QWidget* parent) {
    return showAlert(QMessageBox::Information, localizedText("No Updates Available"),
                     localizedText("You are using the latest version of TellwynAgent."), parent);
}

QMessageBox* showCheckFailedAlert(const QString& message, QWidget* parent) {
    return showAlert(QMessageBox::Warning, localizedText("Couldn't Check for Updates"), message, parent);
}

WidgetUpdatePresenter::WidgetUpdatePresenter(UpdateSheetServices services, QWidget* parentWindow,
                                             QObject* parent)
    : QObject(parent), m_services(std::move(services)), m_parentWindow(parentWindow) {
}

void WidgetUpdatePresenter::showUpToDateAlert() {
    QMessageBox* box = tellwyn::showUpToDateAlert(m_parentWindow);
    connect(box, &QMessageBox::finished, this,
            [this] { Q_EMIT alertClosed(UpdateCheckOutcome::Kind::upToDate); });
}

void WidgetUpdatePresenter::showCheckFailedAlert(const QString& message) {
    QMessageBox* box = tellwyn::showCheckFailedAlert(message, m_parentWindow);
    connect(box, &QMessageBox::finished, this,
            [this] { Q_EMIT alertClosed(UpdateCheckOutcome::Kind::checkFailed); });
}

void WidgetUpdatePresenter::presentUpdateDownload(const UpdateDownloadPresentation& presentation) {
    if (m_sheet) {
        m_sheet->close(); // a newer presentation replaces the one on screen
        m_sheet->deleteLater();
    }
    auto* sheet =
        new UpdateDownloadSheet(presentation.info, presentation.fileURL, m_services, {}, m_parentWindow);
    sheet->setWindowModality(m_parentWindow ? Qt::WindowModal : Qt::ApplicationModal);
    connect(sheet, &QDialog::finished, this, [this, sheet] {
        Q_EMIT sheetDismissed(sheet->session().phase(), sheet->userStartedInAppDownload());
        sheet->deleteLater();
    });
    m_sheet = sheet;
    sheet->show();
}

int runWidgetUpdateCheck(const UpdateCheckRequest& request, Scheduler& scheduler, FileRevealer& revealer) {
    QApplication::setQuitOnLastWindowClosed(false); // the exit code says how it ended
    QNetworkAccessManager network;
    WidgetUpdatePresenter presenter(UpdateSheetServices{
        scheduler, &network, revealer, [](const QUrl& url) { QDesktopServices::openUrl(url); }, {}});
    QObject::connect(&presenter, &WidgetUpdatePresenter::alertClosed, &presenter,
                     [](UpdateCheckOutcome::Kind kind) {
                         QCoreApplication::exit(static_cast<int>(kind == UpdateCheckOutcome::Kind::upToDate
                                                                     ? UpdateCommandExit::upToDate
                                                                     : UpdateCommandExit::checkFailed));
                     });
    QObject::connect(&presenter, &WidgetUpdatePresenter::sheetDismissed, &presenter,
                     [](const BrevaneInstallerDownloadSession::Phase& phase, bool started) {
                         QCoreApplication::exit(static_cast<int>(exitForDownload(phase, started)));
                     });
    QObject context;
    checkForUpdates(network, request, &context, presenter);
    return QCoreApplication::exec();
}

} // namespace tellwyn
