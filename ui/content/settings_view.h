#pragma once

#include <QDialog>
#include <QFrame>
#include <QMessageBox>
#include <QPointer>

class QBoxLayout;
class QCheckBox;
class QLabel;
class QLineEdit;
class QPushButton;

namespace tellwyn {

class ServerManager;

// One titled group of the settings with its symbol.
class SettingsSection final : public QFrame {
    Q_OBJECT
public:
    SettingsSection(const QString& title, const QString& icon, QWidget* parent = nullptr);
    QBoxLayout* content() const { return m_content; }
    QString title() const { return m_title; }

private:
    QString m_title;
    QBoxLayout* m_content;
};

// The settings sheet: service port, the two permissions, the menu-lock password, the features
// and the start-up switches. The port is applied on "Done"; everything else at once.
class SettingsView final : public QDialog {
    Q_OBJECT
public:
    explicit SettingsView(ServerManager& serverManager, QWidget* parent = nullptr);

    qint64 pendingServerPort() const { return m_pendingServerPort; }
    bool passwordSaved() const { return m_passwordSaved; }
    bool passwordSaveFailed() const { return m_passwordSaveFailed; }
    // The "Password Not Saved" alert while it shows.
    QMessageBox* passwordAlert() const;

    // "Done": applies a changed port (1 … 65535) and closes the sheet.
    void finish();

private:
    void redraw();
    void savePassword();
    void showPasswordSaveResult(bool stored, const QString& password);
    void setPasswordSaved(bool saved);
    QCheckBox* addToggle(QBoxLayout* layout, const char* title, const QString& objectName);

    ServerManager& m_serverManager;
    qint64 m_pendingServerPort = 5905;
    bool m_passwordSaveFailed = false;
    bool m_passwordSaved = false;
    bool m_passwordSaving = false;

    QLineEdit* m_portField = nullptr;
    QLabel* m_serviceStatus = nullptr;
    QLabel* m_screenRecordingStatus = nullptr;
    QPushButton* m_screenRecordingButton = nullptr;
    QLabel* m_accessibilityStatus = nullptr;
    QPushButton* m_accessibilityButton = nullptr;
    QCheckBox* m_passwordProtection = nullptr;
    QWidget* m_passwordRows = nullptr;
    QLineEdit* m_passwordField = nullptr;
    QPushButton* m_saveButton = nullptr;
    QWidget* m_savedRow = nullptr;
    QCheckBox* m_fileTransfers = nullptr;
    QCheckBox* m_clipboardSharing = nullptr;
    QCheckBox* m_loginItems = nullptr;
    QCheckBox* m_autoStart = nullptr;
    QPointer<QMessageBox> m_passwordAlert;
};

} // namespace tellwyn
