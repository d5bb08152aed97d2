#include "settings_view.h"

#include "content_support.h"
#include "server_manager.h"

#include <QCheckBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRegularExpressionValidator>
#include <QScrollArea>
#include <QVBoxLayout>
#include <algorithm>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

// The longer texts, each on one line so that it reads (and is searched for) whole.
// clang-format off
constexpr const char* accountText = "Remote clients authenticate with the currently logged-in account on this computer.";
constexpr const char* passwordNoteText = "This password only protects opening the TellwynAgent window and quitting from the menu bar. It does not control remote access — remote clients still authenticate with the currently logged-in account on this computer.";
constexpr const char* clipboardNoteText = "While enabled, clipboard text is synchronized with connected viewers during their remote control sessions.";
constexpr const char* passwordNotSavedText = "TellwynAgent could not store the password in the keyring. Please try again while this computer is unlocked.";
// clang-format on

constexpr int sectionIconSize = 18;

QLabel* note(const QString& text, QWidget* parent) {
    auto* label = makeLabel(text, parent, 0.9);
    label->setWordWrap(true);
    setTextColour(label, UiColor::secondary(parent));
    return label;
}

} // namespace

SettingsSection::SettingsSection(const QString& title, const QString& icon, QWidget* parent)
    : QFrame(parent), m_title(title), m_content(new QVBoxLayout) {
    setFrameShape(QFrame::StyledPanel);
    auto* column = new QVBoxLayout(this);
    auto* header = new QHBoxLayout;
    auto* symbol = new QLabel(this);
    symbol->setPixmap(symbolIcon(icon, this).pixmap(sectionIconSize, sectionIconSize));
    header->addWidget(symbol);
    header->addWidget(makeLabel(title, this, 1.05, QFont::DemiBold), 1);
    column->addLayout(header);
    column->addLayout(m_content);
}

SettingsView::SettingsView(ServerManager& serverManager, QWidget* parent)
    : QDialog(parent), m_serverManager(serverManager) {
    setObjectName(u"settingsSheet"_s);
    setWindowTitle(uiText("Settings"));
    setFixedSize(500, 600);

    // The sheet opens on the current port and the stored lock password.
    const SettingsState& settings = m_serverManager.settingsState();
    m_pendingServerPort = settings.serverPort;

    auto* content = new QWidget;
    auto* sections = new QVBoxLayout(content);
    sections->setSpacing(12);

    // Service.
    auto* service = new SettingsSection(uiText("Service"), u"server.rack"_s, content);
    auto* portRow = new QHBoxLayout;
    portRow->addWidget(makeLabel(uiText("Port:"), content));
    m_portField = new QLineEdit(QString::number(m_pendingServerPort), content);
    m_portField->setObjectName(u"portField"_s);
    m_portField->setFixedWidth(80);
    m_portField->setValidator(
        new QRegularExpressionValidator(QRegularExpression(u"-?[0-9]{0,9}"_s), m_portField));
    nameForAccessibility(m_portField, uiText("Port:"));
    portRow->addWidget(m_portField);
    portRow->addStretch(1);
    service->content()->addLayout(portRow);
    auto* restart = makeLabel(uiText("⚠️ Restart required to apply port changes"), content, 0.85);
    setTextColour(restart, UiColor::orange());
    service->content()->addWidget(restart);
    service->content()->addWidget(note(uiText(accountText), content));
    m_serviceStatus = makeLabel({}, content);
    m_serviceStatus->setObjectName(u"serviceStatus"_s);
    service->content()->addWidget(m_serviceStatus);
    sections->addWidget(service);

    // Screen Recording and Accessibility.
    const auto permissionSection = [&](const char* title, const QString& icon, const char* explanation,
                                       QLabel*& status, QPushButton*& button, const QString& buttonIcon,
                                       const QString& name) {
        auto* section = new SettingsSection(uiText(title), icon, content);
        section->content()->addWidget(note(uiText(explanation), content));
        auto* row = new QHBoxLayout;
        status = makeLabel({}, content);
        status->setObjectName(name + u"Status"_s);
        button = new QPushButton(symbolIcon(buttonIcon, content), {}, content);
        button->setObjectName(name + u"Request"_s);
        row->addWidget(status);
        row->addStretch(1);
        row->addWidget(button);
        section->content()->addLayout(row);
        sections->addWidget(section);
    };
    permissionSection("Screen Recording", u"display"_s,
                      "Required for remote screen viewing (only recorded during remote sessions)",
                      m_screenRecordingStatus, m_screenRecordingButton, u"desktopcomputer"_s,
                      u"screenRecording"_s);
    permissionSection("Accessibility", u"hand.raised"_s,
                      "Required for remote control, mouse movements and clicks", m_accessibilityStatus,
                      m_accessibilityButton, u"hand.raised"_s, u"accessibility"_s);

    // Password Protection.
    auto* password = new SettingsSection(uiText("Password Protection"), u"key"_s, content);
    m_passwordProtection =
        addToggle(password->content(), "Enable password protection for menu access", u"passwordProtection"_s);
    m_passwordRows = new QWidget(content);
    auto* passwordColumn = new QVBoxLayout(m_passwordRows);
    passwordColumn->setContentsMargins(0, 0, 0, 0);
    auto* fieldRow = new QHBoxLayout;
    fieldRow->addWidget(makeLabel(uiText("Password:"), m_passwordRows));
    m_passwordField = new QLineEdit(settings.serverPassword, m_passwordRows);
    m_passwordField->setObjectName(u"passwordField"_s);
    m_passwordField->setEchoMode(QLineEdit::Password);
    m_passwordField->setPlaceholderText(uiText("Enter password"));
    nameForAccessibility(m_passwordField, uiText("Password:"));
    fieldRow->addWidget(m_passwordField, 1);
    m_saveButton = new QPushButton(uiText("Save"), m_passwordRows);
    m_saveButton->setObjectName(u"savePassword"_s);
    m_saveButton->setAutoDefault(false);
    nameForAccessibility(m_saveButton, uiText("Save"));
    fieldRow->addWidget(m_saveButton);
    passwordColumn->addLayout(fieldRow);
    m_savedRow = new QWidget(m_passwordRows);
    m_savedRow->setObjectName(u"passwordSavedRow"_s);
    auto* savedLayout = new QHBoxLayout(m_savedRow);
    savedLayout->setContentsMargins(0, 0, 0, 0);
    auto* check = new QLabel(m_savedRow);
    check->setPixmap(
        symbolIcon(u"checkmark.circle.fill"_s, m_savedRow).pixmap(sectionIconSize, sectionIconSize));
    savedLayout->addWidget(check);
    auto* savedText = makeLabel(uiText("Password saved securely"), m_savedRow, 0.9);
    setTextColour(savedText, UiColor::green());
    savedLayout->addWidget(savedText, 1);
    passwordColumn->addWidget(m_savedRow);
    passwordColumn->addWidget(note(uiText(passwordNoteText), m_passwordRows));
    password->content()->addWidget(m_passwordRows);
    sections->addWidget(password);

    // Features.
    auto* features = new SettingsSection(uiText("Features"), u"switch.2"_s, content);
    m_fileTransfers =
        addToggle(features->content(), "Allow file transfers from remote clients", u"fileTransfers"_s);
    features->content()->addWidget(
        note(uiText("When disabled, remote clients cannot upload files to this computer."), content));
    m_clipboardSharing = addToggle(features->content(), "Allow clipboard sharing", u"clipboardSharing"_s);
    features->content()->addWidget(note(uiText(clipboardNoteText), content));
    sections->addWidget(features);

    // Startup.
    auto* startup = new SettingsSection(uiText("Startup"), u"power.circle"_s, content);
    m_loginItems = addToggle(startup->content(), "Automatically launch the background agent when you log in",
                             u"launchAtLogin"_s);
    m_autoStart = addToggle(startup->content(), "Start remote service automatically", u"autoStart"_s);
    sections->addWidget(startup);
    sections->addStretch(1);

    auto* scroll = new QScrollArea(this);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setWidget(content);

    auto* titleRow = new QHBoxLayout;
    titleRow->addWidget(makeLabel(uiText("Settings"), this, 1.4, QFont::Bold), 1);
    auto* done = new QPushButton(uiText("Done"), this);
    done->setObjectName(u"done"_s);
    done->setAutoDefault(false);
    nameForAccessibility(done, uiText("Done"));
    titleRow->addWidget(done);
    auto* column = new QVBoxLayout(this);
    column->addLayout(titleRow);
    column->addWidget(scroll, 1);

    connect(done, &QPushButton::clicked, this, &SettingsView::finish);
    connect(m_portField, &QLineEdit::textEdited, this, [this](const QString& text) {
        bool ok = false;
        const qint64 value = text.toLongLong(&ok);
        if (ok) {
            m_pendingServerPort = value;
        }
    });
    connect(m_screenRecordingButton, &QPushButton::clicked, this,
            [this] { m_serverManager.requestScreenCapturePermission(); });
    connect(m_accessibilityButton, &QPushButton::clicked, this,
            [this] { m_serverManager.requestAccessibilityPermission(); });
    connect(m_passwordProtection, &QCheckBox::toggled, this,
            [this](bool on) { m_serverManager.setPasswordProtection(on); });
    connect(m_passwordField, &QLineEdit::textEdited, this, [this] { setPasswordSaved(false); });
    connect(m_passwordField, &QLineEdit::returnPressed, this, &SettingsView::savePassword);
    connect(m_saveButton, &QPushButton::clicked, this, &SettingsView::savePassword);
    connect(m_fileTransfers, &QCheckBox::toggled, this, [this](bool on) {
        const SettingsState& current = m_serverManager.settingsState();
        m_serverManager.setFeatureSwitches(on, current.enableClipboardSharing, current.enableLoginItems);
    });
    connect(m_clipboardSharing, &QCheckBox::toggled, this, [this](bool on) {
        const SettingsState& current = m_serverManager.settingsState();
        m_serverManager.setFeatureSwitches(current.enableFileTransfers, on, current.enableLoginItems);
    });
    connect(m_loginItems, &QCheckBox::toggled, this, [this](bool on) {
        // Registering reads nothing of the settings, so it may come first; the switch is then
        // written and persisted with the others, whether registering worked or not.
        if (on) {
            m_serverManager.registerLoginItem();
        } else {
            m_serverManager.unregisterLoginItem();
        }
        const SettingsState& current = m_serverManager.settingsState();
        m_serverManager.setFeatureSwitches(current.enableFileTransfers, current.enableClipboardSharing, on);
    });
    connect(m_autoStart, &QCheckBox::toggled, this,
            [this](bool on) { m_serverManager.setAutoStartServer(on); });
    connect(&m_serverManager, &ServerManager::changed, this, &SettingsView::redraw);
    setPasswordSaved(false);
    redraw();
}

QCheckBox* SettingsView::addToggle(QBoxLayout* layout, const char* title, const QString& objectName) {
    auto* toggle = new QCheckBox(uiText(title), this);
    toggle->setObjectName(objectName);
    nameForAccessibility(toggle, toggle->text());
    layout->addWidget(toggle);
    return toggle;
}

QMessageBox* SettingsView::passwordAlert() const {
    return m_passwordAlert;
}

void SettingsView::redraw() {
    const SettingsState& settings = m_serverManager.settingsState();
    m_serviceStatus->setText(m_serverManager.serverState().isRunning
                                 ? uiText("Remote service running on port %1").arg(settings.serverPort)
                                 : uiText("Remote service stopped"));

    const PermissionState& permissions = m_serverManager.permissionState();
    const bool relaunch = m_serverManager.screenCaptureRequiresRelaunch();
    const PermissionStatus screen = screenRecordingStatus(permissions, relaunch);
    m_screenRecordingStatus->setText(screen.text);
    setTextColour(m_screenRecordingStatus, screen.colour);
    m_screenRecordingButton->setVisible(!permissions.screenCaptureAuthorized);
    m_screenRecordingButton->setText(relaunch ? uiText("Open Desktop Settings")
                                              : uiText("Request Permission"));
    nameForAccessibility(m_screenRecordingButton, m_screenRecordingButton->text(),
                         uiText("Screen Recording"));
    const PermissionStatus input = accessibilityStatus(permissions);
    m_accessibilityStatus->setText(input.text);
    setTextColour(m_accessibilityStatus, input.colour);
    m_accessibilityButton->setVisible(!permissions.accessibilityAuthorized);
    m_accessibilityButton->setText(uiText("Request Permission"));
    nameForAccessibility(m_accessibilityButton, m_accessibilityButton->text(), uiText("Accessibility"));

    const auto reflect = [](QCheckBox* toggle, bool value) {
        const QSignalBlocker quiet(toggle);
        toggle->setChecked(value);
    };
    reflect(m_passwordProtection, settings.passwordProtectionEnabled);
    reflect(m_fileTransfers, settings.enableFileTransfers);
    reflect(m_clipboardSharing, settings.enableClipboardSharing);
    reflect(m_loginItems, settings.enableLoginItems);
    reflect(m_autoStart, settings.autoStartServer);
    m_passwordRows->setVisible(settings.passwordProtectionEnabled);
    // The keyring's copy may arrive after the sheet opened; what the user typed is left alone.
    if (!m_passwordField->isModified() && m_passwordField->text() != settings.serverPassword) {
        m_passwordField->setText(settings.serverPassword);
    }
}

void SettingsView::savePassword() {
    if (m_passwordSaving) {
        return; // one save at a time: its answer says what the keyring holds
    }
    m_passwordSaving = true;
    m_saveButton->setEnabled(false);
    setPasswordSaved(false);
    const QString password = m_passwordField->text();
    m_serverManager.updateLockPassword(password, [self = QPointer(this), password](bool stored) {
        if (self) {
            self->showPasswordSaveResult(stored, password);
        }
    });
}

void SettingsView::showPasswordSaveResult(bool stored, const QString& password) {
    m_passwordSaving = false;
    m_saveButton->setEnabled(true);
    // Typing after "Save" makes the text unsaved again; the mark is for the text that was saved.
    setPasswordSaved(stored && m_passwordField->text() == password);
    m_passwordSaveFailed = !stored;
    if (m_passwordSaveFailed) {
        m_passwordAlert = new QMessageBox(QMessageBox::Warning, uiText("Password Not Saved"),
                                          uiText("Password Not Saved"), QMessageBox::NoButton, this);
        m_passwordAlert->setObjectName(u"passwordAlert"_s);
        m_passwordAlert->setInformativeText(uiText(passwordNotSavedText));
        m_passwordAlert->addButton(uiText("OK"), QMessageBox::RejectRole);
        m_passwordAlert->setAttribute(Qt::WA_DeleteOnClose);
        connect(m_passwordAlert, &QMessageBox::finished, this, [this] { m_passwordSaveFailed = false; });
        m_passwordAlert->open();
    }
}

void SettingsView::setPasswordSaved(bool saved) {
    m_passwordSaved = saved;
    m_savedRow->setVisible(saved);
}

void SettingsView::finish() {
    const auto port = static_cast<quint16>(std::clamp<qint64>(m_pendingServerPort, 1, 65535));
    if (port != m_serverManager.settingsState().serverPort) {
        m_serverManager.updateServerPort(port);
    }
    accept();
}

} // namespace tellwyn
