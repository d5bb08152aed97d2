#include "main_window.h"

#include <QGuiApplication>
#include <QScreen>
#include <QVBoxLayout>

using namespace Qt::StringLiterals;

namespace tellwyn {

MainWindow::MainWindow(QWidget* parent) : QWidget(parent, Qt::Window) {
    setWindowTitle(tr("TellwynAgent"));
    setObjectName(u"mainWindow"_s);
    resize(defaultSize);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    if (const QScreen* screen = QGuiApplication::primaryScreen()) {
        QRect frame(QPoint(0, 0), defaultSize);
        frame.moveCenter(screen->availableGeometry().center());
        move(frame.topLeft());
    }
}

void MainWindow::setContent(QWidget* content) {
    if (m_content) {
        m_content->deleteLater();
    }
    m_content = content;
    if (content) {
        content->setParent(this);
        layout()->addWidget(content);
    }
}

void MainWindow::beginSheet(QDialog* sheet) {
    sheet->setParent(this, sheet->windowFlags() | Qt::Dialog);
    sheet->setWindowModality(Qt::WindowModal);
    m_sheets.append(sheet);
    connect(sheet, &QDialog::finished, this, [this, sheet](int result) { detach(sheet, result); });
    if (isVisible()) {
        sheet->show();
        sheet->raise();
        sheet->activateWindow();
    }
}

void MainWindow::endFirstSheet(int result) {
    const QList<QDialog*> sheets = attachedSheets();
    if (!sheets.isEmpty()) {
        sheets.first()->done(result);
    }
}

QList<QDialog*> MainWindow::attachedSheets() const {
    QList<QDialog*> sheets;
    for (const QPointer<QDialog>& sheet : m_sheets) {
        if (sheet) {
            sheets.append(sheet.data());
        }
    }
    return sheets;
}

void MainWindow::detach(QDialog* sheet, int result) {
    if (!m_sheets.removeOne(sheet)) {
        return;
    }
    sheet->hide();
    sheet->deleteLater();
    Q_EMIT sheetEnded(sheet, result);
}

void MainWindow::present() {
    showNormal();
    raise();
    activateWindow();
}

void MainWindow::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    for (QDialog* sheet : attachedSheets()) {
        sheet->show();
        sheet->raise();
    }
    if (const QList<QDialog*> sheets = attachedSheets(); !sheets.isEmpty()) {
        sheets.last()->activateWindow();
    }
}

void MainWindow::hideEvent(QHideEvent* event) {
    QWidget::hideEvent(event);
    // A sheet stays attached to a hidden window and comes back with it.
    for (QDialog* sheet : attachedSheets()) {
        sheet->hide();
    }
}

} // namespace tellwyn
