#pragma once

#include <QDialog>
#include <QWidget>
#include <functional>

class QLabel;
class QLineEdit;
class QPushButton;

namespace tellwyn {

// The password prompt of the menu lock, in its two forms: the unlock sheet over the main window
// and the quit dialog.
class PasswordPromptView final : public QWidget {
    Q_OBJECT
public:
    enum class Kind { unlock, quit };

    struct Actions {
        std::function<void(const QString&)> onPasswordEntered;
        std::function<void()> onRecover; // "Forgot Password…"
        std::function<void()> onCancel;
    };

    PasswordPromptView(Kind kind, Actions actions, QWidget* parent = nullptr);

    QString password() const;
    bool showingError() const { return m_showingError; }

    // An empty field only shows the error line; anything else is handed over for checking. The
    // error line stays once shown.
    void submit();

    QLineEdit* field() const { return m_field; }
    QPushButton* submitButton() const { return m_submit; }
    QPushButton* cancelButton() const { return m_cancel; }
    QPushButton* recoverButton() const { return m_recover; }

private:
    Actions m_actions;
    bool m_showingError = false;
    QLineEdit* m_field;
    QPushButton* m_recover;
    QLabel* m_error;
    QPushButton* m_cancel;
    QPushButton* m_submit;
};

// A prompt view in its own window: "Enter Password" (400 × 230) or "Confirm Quit" (400 × 280).
class PasswordPromptWindow final : public QDialog {
    Q_OBJECT
public:
    PasswordPromptWindow(PasswordPromptView::Kind kind, PasswordPromptView::Actions actions,
                         QWidget* parent = nullptr);

    PasswordPromptView* view() const { return m_view; }

private:
    PasswordPromptView* m_view;
};

} // namespace tellwyn
