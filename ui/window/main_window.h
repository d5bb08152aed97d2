#pragma once

#include <QDialog>
#include <QList>
#include <QPointer>
#include <QWidget>

namespace tellwyn {

// The agent's one main window: 800 × 600, titled "TellwynAgent". Closing it only hides it (a
// window without WA_DeleteOnClose is kept), so its content and state live as long as the
// process; accepting the close also lets the application's quit close it. Sheets (window-modal dialogs) can
// be attached to it; they hide and show with the window and stay attached until ended.
class MainWindow final : public QWidget {
    Q_OBJECT
public:
    static constexpr QSize defaultSize{800, 600};

    explicit MainWindow(QWidget* parent = nullptr);

    // The window's content, made by the application (the dashboard once it exists). Replaces
    // any earlier content.
    void setContent(QWidget* content);
    QWidget* content() const { return m_content; }

    // Attaches `sheet` over the window and shows it when the window is shown. Sheets stack: every
    // call attaches a further one. The window takes the sheet and deletes it when it ends.
    void beginSheet(QDialog* sheet);
    // Ends the first attached sheet with `result` (the default: accepted). Nothing without one.
    void endFirstSheet(int result = QDialog::Accepted);
    QList<QDialog*> attachedSheets() const;

    // Shows the window (with its sheets) and brings it to the front.
    void present();

Q_SIGNALS:
    // A sheet ended; `result` 0 is a cancel.
    void sheetEnded(QDialog* sheet, int result);

protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    void detach(QDialog* sheet, int result);

    QPointer<QWidget> m_content;
    QList<QPointer<QDialog>> m_sheets;
};

} // namespace tellwyn
