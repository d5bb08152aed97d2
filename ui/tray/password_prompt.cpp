#include "password_prompt.h"

#include <QHBoxLayout>
#include <QKeySequence>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QShortcut>
#include <QVBoxLayout>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

constexpr int padding = 20;

QLabel* titleLabel(const QString& text, QWidget* parent) {
    auto* label = new QLabel(text, parent);
    QFont font = label->font();
    font.setBold(true);
    font.setPointSizeF(font.pointSizeF() * 1.6);
    label->setFont(font);
    return label;
}

} // namespace

PasswordPromptView::PasswordPromptView(Kind kind, Actions actions, QWidget* parent)
    : QWidget(parent), m_actions(std::move(actions)) {
    const bool quit = kind == Kind::quit;
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(padding, padding, padding, padding);
    layout->addWidget(titleLabel(quit ? tr("Confirm Quit") : tr("Enter Password"), this));
    if (quit) {
        auto* explanation = new QLabel(tr("Enter password to quit TellwynAgent"), this);
        explanation->setForegroundRole(QPalette::PlaceholderText);
        layout->addWidget(explanation);
    }

    m_field = new QLineEdit(this);
    m_field->setEchoMode(QLineEdit::Password);
    m_field->setPlaceholderText(tr("Password"));
    layout->addWidget(m_field);

    m_recover = new QPushButton(tr("Forgot Password…"), this);
    m_recover->setFlat(true);
    m_recover->setCursor(Qt::PointingHandCursor);
    m_recover->setStyleSheet(u"QPushButton { color: palette(link); border: none; text-align: left; }"_s);
    m_recover->setAutoDefault(false);
    layout->addWidget(m_recover, 0, Qt::AlignLeft);

    m_error = new QLabel(tr("Invalid password"), this);
    QFont small = m_error->font();
    small.setPointSizeF(small.pointSizeF() * 0.85);
    m_error->setFont(small);
    m_error->setStyleSheet(u"color: #d70015;"_s);
    m_error->setVisible(false);
    layout->addWidget(m_error);
    layout->addStretch(1);

    auto* buttons = new QHBoxLayout;
    buttons->addStretch(1);
    m_cancel = new QPushButton(tr("Cancel"), this);
    m_cancel->setAutoDefault(false);
    m_submit = new QPushButton(quit ? tr("Quit") : tr("OK"), this);
    m_submit->setAutoDefault(false);
    if (quit) {
        m_submit->setStyleSheet(u"QPushButton:enabled { color: #d70015; }"_s);
    }
    m_submit->setEnabled(false);
    buttons->addWidget(m_cancel);
    buttons->addWidget(m_submit);
    layout->addLayout(buttons);

    connect(m_field, &QLineEdit::textChanged, this,
            [this](const QString& text) { m_submit->setEnabled(!text.isEmpty()); });
    connect(m_field, &QLineEdit::returnPressed, this, &PasswordPromptView::submit);
    connect(m_submit, &QPushButton::clicked, this, &PasswordPromptView::submit);
    connect(m_recover, &QPushButton::clicked, this, [this] {
        if (m_actions.onRecover) {
            m_actions.onRecover();
        }
    });
    connect(m_cancel, &QPushButton::clicked, this, [this] {
        if (m_actions.onCancel) {
            m_actions.onCancel();
        }
    });
    // Ctrl stands where the Command key would be.
    auto* submitShortcut = new QShortcut(QKeySequence(Qt::CTRL | Qt::Key_Return), this);
    connect(submitShortcut, &QShortcut::activated, this, &PasswordPromptView::submit);
    auto* cancelShortcut = new QShortcut(QKeySequence(Qt::CTRL | Qt::Key_Escape), this);
    connect(cancelShortcut, &QShortcut::activated, m_cancel, &QPushButton::click);
}

QString PasswordPromptView::password() const {
    return m_field->text();
}

void PasswordPromptView::submit() {
    if (password().isEmpty()) {
        m_showingError = true;
        m_error->setVisible(true);
        return;
    }
    if (m_actions.onPasswordEntered) {
        m_actions.onPasswordEntered(password());
    }
}

PasswordPromptWindow::PasswordPromptWindow(PasswordPromptView::Kind kind, PasswordPromptView::Actions actions,
                                           QWidget* parent)
    : QDialog(parent) {
    const bool quit = kind == PasswordPromptView::Kind::quit;
    setWindowTitle(quit ? tr("Confirm Quit") : tr("Enter Password"));
    setWindowFlags(Qt::Dialog | Qt::WindowTitleHint | Qt::WindowCloseButtonHint);
    resize(400, quit ? 280 : 230);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    m_view = new PasswordPromptView(kind, std::move(actions), this);
    layout->addWidget(m_view);
}

} // namespace tellwyn
