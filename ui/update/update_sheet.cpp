#include "update_sheet.h"

#include "file_revealer.h"
#include "update_texts.h"

#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QScrollArea>
#include <QStyle>
#include <QVBoxLayout>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

constexpr int progressSteps = 1000;

QLabel* secondaryLabel(QWidget* parent, bool small) {
    auto* label = new QLabel(parent);
    label->setWordWrap(true);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    QPalette palette = label->palette();
    palette.setColor(QPalette::WindowText, palette.color(QPalette::PlaceholderText));
    label->setPalette(palette);
    if (small) {
        QFont font = label->font();
        font.setPointSizeF(font.pointSizeF() * 0.85);
        label->setFont(font);
    }
    return label;
}

QPixmap phaseIcon(QWidget* widget, const QString& themeName, QStyle::StandardPixmap fallback) {
    const int size = widget->style()->pixelMetric(QStyle::PM_SmallIconSize);
    return QIcon::fromTheme(themeName, widget->style()->standardIcon(fallback)).pixmap(size, size);
}

} // namespace

BrevaneDownloadProgressView::BrevaneDownloadProgressView(BrevaneInstallerDownloadSession& session,
                                                         std::function<void(const QUrl&)> onShowInFolder,
                                                         std::function<void()> onClose, QWidget* parent)
    : QWidget(parent), m_session(session), m_onShowInFolder(std::move(onShowInFolder)),
      m_onClose(std::move(onClose)), m_bar(new QProgressBar(this)), m_icon(new QLabel(this)),
      m_status(new QLabel(this)), m_detail(secondaryLabel(this, true)),
      m_showButton(new QPushButton(localizedText("Show in Folder"), this)),
      m_retryButton(new QPushButton(localizedText("Retry"), this)),
      m_closeButton(new QPushButton(localizedText("Close"), this)) {
    m_bar->setTextVisible(false);
    auto* statusRow = new QHBoxLayout;
    statusRow->addWidget(m_icon);
    statusRow->addWidget(m_status, 1);
    auto* buttons = new QHBoxLayout;
    buttons->addStretch(1);
    buttons->addWidget(m_showButton);
    buttons->addWidget(m_retryButton);
    buttons->addWidget(m_closeButton);
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->addWidget(m_bar);
    column->addLayout(statusRow);
    column->addWidget(m_detail);
    column->addLayout(buttons);

    connect(m_showButton, &QPushButton::clicked, this, [this] {
        if (m_onShowInFolder &&
            m_session.phase().kind == BrevaneInstallerDownloadSession::Phase::Kind::finished) {
            m_onShowInFolder(m_session.phase().fileURL);
        }
    });
    connect(m_retryButton, &QPushButton::clicked, this, [this] {
        if (const std::optional<QUrl>& url = m_session.lastRequestedURL()) {
            m_session.startDownload(*url);
        }
    });
    connect(m_closeButton, &QPushButton::clicked, this, [this] {
        if (m_onClose) {
            m_onClose();
        }
    });
    connect(&m_session, &BrevaneInstallerDownloadSession::phaseChanged, this,
            &BrevaneDownloadProgressView::refresh);
    connect(&m_session, &BrevaneInstallerDownloadSession::progressChanged, this,
            &BrevaneDownloadProgressView::refresh);
    refresh();
}

void BrevaneDownloadProgressView::refresh() {
    using Kind = BrevaneInstallerDownloadSession::Phase::Kind;
    const BrevaneInstallerDownloadSession::Phase& phase = m_session.phase();
    const bool running =
        phase.kind == Kind::idle || phase.kind == Kind::preparing || phase.kind == Kind::downloading;
    m_bar->setVisible(running);
    m_icon->setVisible(phase.kind == Kind::finished || phase.kind == Kind::failed);
    m_detail->setVisible(phase.kind == Kind::finished || phase.kind == Kind::failed);
    m_showButton->setVisible(phase.kind == Kind::finished && m_onShowInFolder);
    m_retryButton->setVisible(phase.kind == Kind::failed);
    m_closeButton->setVisible(phase.isEnd());
    QPalette palette = m_status->palette();
    palette.setColor(QPalette::WindowText,
                     this->palette().color(phase.kind == Kind::idle || phase.kind == Kind::preparing
                                               ? QPalette::PlaceholderText
                                               : QPalette::WindowText));
    m_status->setPalette(palette);

    switch (phase.kind) {
    case Kind::idle:
    case Kind::preparing:
        m_bar->setRange(0, 0); // indeterminate
        m_status->setText(localizedText("Preparing download…"));
        return;
    case Kind::downloading:
        m_bar->setRange(0, progressSteps);
        m_bar->setValue(static_cast<int>(m_session.progress() * progressSteps));
        m_status->setText(downloadingProgressText(m_session.progress()));
        return;
    case Kind::finished:
        m_icon->setPixmap(phaseIcon(this, u"emblem-ok-symbolic"_s, QStyle::SP_DialogApplyButton));
        m_status->setText(localizedText("Download complete"));
        m_detail->setText(QFileInfo(phase.fileURL.toLocalFile()).fileName());
        m_closeButton->setDefault(true);
        return;
    case Kind::failed:
        m_icon->setPixmap(phaseIcon(this, u"dialog-warning"_s, QStyle::SP_MessageBoxWarning));
        m_status->setText(localizedText("Download failed"));
        m_detail->setText(phase.message);
        return;
    case Kind::cancelled:
        m_status->setText(localizedText("Download cancelled."));
        m_closeButton->setDefault(true);
        return;
    }
}

QString UpdateDownloadSheet::vendorSiteButtonTitle() {
    QString host = QUrl(vendorHomePageURL()).host();
    if (host.startsWith(u"www."_s)) {
        host = host.mid(4);
    }
    return localizedText("Visit %1").arg(host);
}

UpdateDownloadSheet::UpdateDownloadSheet(UpdateInfo info, QUrl downloadURL, UpdateSheetServices services,
                                         std::function<void()> onDismiss, QWidget* parent)
    : QDialog(parent), m_info(std::move(info)), m_downloadURL(std::move(downloadURL)),
      m_services(std::move(services)), m_onDismiss(std::move(onDismiss)), m_session(m_services.scheduler),
      m_choices(new QWidget(this)), m_progress(nullptr),
      m_cancelDownloadButton(new QPushButton(localizedText("Cancel Download"), this)) {
    setWindowTitle(localizedText("Update Available"));
    setMinimumWidth(440);
    m_session.setNetworkAccessManager(m_services.network);
    if (m_services.downloadsFolders) {
        m_session.setDownloadsFolders(m_services.downloadsFolders);
    }

    auto* column = new QVBoxLayout(this);
    column->setSpacing(18);
    column->setContentsMargins(24, 24, 24, 24);

    auto* title = new QLabel(localizedText("Update Available"), this);
    QFont titleFont = title->font();
    titleFont.setBold(true);
    titleFont.setPointSizeF(titleFont.pointSizeF() * 1.4);
    title->setFont(titleFont);
    auto* header = new QVBoxLayout;
    header->setSpacing(4);
    header->addWidget(title);
    header->addWidget(
        new QLabel(localizedText("Version %1 is ready to download.").arg(m_info.version), this));
    column->addLayout(header);

    if (m_info.releaseNotes && !m_info.releaseNotes->isEmpty()) {
        auto* notesBlock = new QVBoxLayout;
        notesBlock->setSpacing(6);
        auto* notesTitle = new QLabel(localizedText("Release Notes"), this);
        QFont bold = notesTitle->font();
        bold.setBold(true);
        notesTitle->setFont(bold);
        auto* notes = new QLabel(*m_info.releaseNotes);
        notes->setObjectName(u"releaseNotes"_s);
        notes->setWordWrap(true);
        notes->setTextFormat(Qt::PlainText);
        notes->setAlignment(Qt::AlignLeft | Qt::AlignTop);
        notes->setTextInteractionFlags(Qt::TextSelectableByMouse);
        auto* scroll = new QScrollArea(this);
        scroll->setObjectName(u"releaseNotesArea"_s);
        scroll->setWidget(notes);
        scroll->setWidgetResizable(true);
        scroll->setFrameShape(QFrame::StyledPanel);
        scroll->setMaximumHeight(releaseNotesMaximumHeight);
        notesBlock->addWidget(notesTitle);
        notesBlock->addWidget(scroll);
        column->addLayout(notesBlock);
    }

    // Before the user chooses: how to get the installer.
    auto* choices = new QVBoxLayout(m_choices);
    choices->setContentsMargins(0, 0, 0, 0);
    choices->setSpacing(10);
    choices->addWidget(new QLabel(localizedText("Choose how to get the installer."), m_choices));
    auto* downloadButton = new QPushButton(localizedText("Download directly in the app"), m_choices);
    downloadButton->setDefault(true);
    auto* siteButton = new QPushButton(vendorSiteButtonTitle(), m_choices);
    auto* cancelButton = new QPushButton(localizedText("Cancel"), m_choices);
    auto* choiceRow = new QHBoxLayout;
    choiceRow->addWidget(downloadButton);
    choiceRow->addWidget(siteButton);
    choiceRow->addStretch(1);
    choiceRow->addWidget(cancelButton);
    choices->addLayout(choiceRow);
    column->addWidget(m_choices);
    connect(downloadButton, &QPushButton::clicked, this, &UpdateDownloadSheet::startInAppDownload);
    connect(siteButton, &QPushButton::clicked, this, [this] {
        if (m_services.openExternalURL) {
            m_services.openExternalURL(QUrl(vendorHomePageURL()));
        }
    });
    connect(cancelButton, &QPushButton::clicked, this, &UpdateDownloadSheet::dismiss);

    // After: the download's progress and outcome.
    m_progress = new BrevaneDownloadProgressView(
        m_session, [this](const QUrl& file) { m_services.revealer.reveal(file.toLocalFile()); },
        [this] { dismiss(); }, this);
    column->addWidget(m_progress);
    auto* cancelRow = new QHBoxLayout;
    cancelRow->addStretch(1);
    cancelRow->addWidget(m_cancelDownloadButton);
    column->addLayout(cancelRow);
    connect(m_cancelDownloadButton, &QPushButton::clicked, &m_session,
            &BrevaneInstallerDownloadSession::cancelDownload);
    connect(&m_session, &BrevaneInstallerDownloadSession::phaseChanged, this,
            &UpdateDownloadSheet::refreshCancelButton);
    connect(this, &QDialog::finished, this, [this] {
        if (!m_dismissed) {
            m_dismissed = true;
            if (m_onDismiss) {
                m_onDismiss();
            }
        }
    });

    m_progress->setVisible(false);
    m_cancelDownloadButton->setVisible(false);
}

void UpdateDownloadSheet::startInAppDownload() {
    m_userStartedInAppDownload = true;
    m_choices->setVisible(false);
    m_progress->setVisible(true);
    refreshCancelButton();
    m_session.startDownload(m_downloadURL);
}

void UpdateDownloadSheet::refreshCancelButton() {
    m_cancelDownloadButton->setVisible(m_userStartedInAppDownload && !m_session.phase().isEnd());
}

void UpdateDownloadSheet::dismiss() {
    // The sheet goes first; then whoever opened it hears of it (through finished).
    reject();
}

} // namespace tellwyn
