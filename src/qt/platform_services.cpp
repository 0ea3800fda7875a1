#include "qt/platform_services.h"

#include <QApplication>
#include <QFileDialog>
#include <QFileInfo>
#include <QMessageBox>
#include <QWidget>

namespace corvane {

int QtMessagePort::messageBox(const std::string& text, const std::string& caption, unsigned style) {
    QMessageBox::StandardButtons buttons = QMessageBox::Ok;
    if ((style & 0x0F) == mbOkCancel) buttons = QMessageBox::Ok | QMessageBox::Cancel;
    if ((style & 0x0F) == mbYesNo) buttons = QMessageBox::Yes | QMessageBox::No;
    QMessageBox::Icon icon = QMessageBox::NoIcon;
    switch (style & 0xF0) {
    case mbIconHand:
        icon = QMessageBox::Critical;
        break;
    case mbIconQuestion:
        icon = QMessageBox::Question;
        break;
    case mbIconExclamation:
        icon = QMessageBox::Warning;
        break;
    case mbIconAsterisk:
        icon = QMessageBox::Information;
        break;
    default:
        break;
    }
    QWidget* owner = QApplication::activeModalWidget();
    if (owner == nullptr) owner = QApplication::activeWindow();
    QMessageBox box(icon, QString::fromStdString(caption), QString::fromStdString(text), buttons,
                    owner);
    switch (box.exec()) {
    case QMessageBox::Cancel:
        return idCancel;
    case QMessageBox::Yes:
        return idYes;
    case QMessageBox::No:
        return idNo;
    default:
        return (style & 0x0F) == mbOkCancel ? idCancel : idOk; // closed otherwise
    }
}

void QtMessagePort::beep(unsigned) { QApplication::beep(); }

std::optional<std::string> QtChooserPort::chooseOpenFile(const OpenFileRequest& request) {
    QFileDialog dialog(owner_);
    dialog.setAcceptMode(QFileDialog::AcceptOpen);
    dialog.setFileMode(QFileDialog::AnyFile);
    QStringList filters;
    for (const FileFilter& filter : request.filters) {
        QString description = QString::fromStdString(filter.description);
        QString pattern = QString::fromStdString(filter.pattern);
        filters << (description.endsWith("(" + pattern + ")") ? description
                                                              : description + " (" + pattern + ")");
    }
    dialog.setNameFilters(filters);
    if (request.filterIndex >= 1 && request.filterIndex <= filters.size())
        dialog.selectNameFilter(filters[request.filterIndex - 1]);
    if (!request.initialPath.empty()) {
        QFileInfo initial(QString::fromStdString(request.initialPath));
        dialog.setDirectory(initial.absolutePath());
        dialog.selectFile(initial.fileName());
    }
    if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty()) return {};
    return withDefaultExtension(dialog.selectedFiles().first().toStdString(),
                                request.defaultExtension);
}

void WidgetWindow::setCursor(CursorShape shape) {
    switch (shape) {
    case CursorShape::Arrow:
        widget_.setCursor(Qt::ArrowCursor);
        break;
    case CursorShape::Cross:
        widget_.setCursor(Qt::CrossCursor);
        break;
    case CursorShape::Wait:
        widget_.setCursor(Qt::WaitCursor);
        break;
    }
}

void WidgetWindow::captureMouse() { widget_.grabMouse(); }

void WidgetWindow::releaseMouse() { widget_.releaseMouse(); }

// Qt paints the whole widget on its background anyway: erasing is always done.
void WidgetWindow::invalidate(bool) { widget_.update(); }

void WidgetWindow::update() { widget_.repaint(); }

} // namespace corvane
