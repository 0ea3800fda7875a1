#include "qt/platform_services.h"

#include <QApplication>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QFileInfo>
#include <QFontDialog>
#include <QFormLayout>
#include <QMainWindow>
#include <QMessageBox>
#include <QPixmap>
#include <QScreen>
#include <QStatusBar>
#include <QVBoxLayout>
#include <QWidget>
#include <cmath>

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

void QtMessagePort::status(const std::string& text) {
    if (window_ == nullptr) return MessagePort::status(text);
    // The line shows for a while and then goes, giving the plot its whole area back.
    QStatusBar* bar = window_->statusBar();
    if (!bar->property("hidesWhenEmpty").toBool()) {
        bar->setProperty("hidesWhenEmpty", true);
        QObject::connect(bar, &QStatusBar::messageChanged, bar, [bar](const QString& message) {
            if (message.isEmpty()) bar->hide();
        });
    }
    bar->show();
    bar->showMessage(QString::fromStdString(text), statusSeconds * 1000);
}

namespace {

QStringList nameFilters(const std::vector<FileFilter>& filters) {
    QStringList names;
    for (const FileFilter& filter : filters) {
        QString description = QString::fromStdString(filter.description);
        QString pattern = QString::fromStdString(filter.pattern);
        names << (description.endsWith("(" + pattern + ")") ? description
                                                            : description + " (" + pattern + ")");
    }
    return names;
}

// "png" of "*.png"; "" for "*.*".
QString extensionOf(const FileFilter& filter) {
    const QString pattern = QString::fromStdString(filter.pattern);
    return pattern.startsWith("*.") && !pattern.mid(2).contains('*') ? pattern.mid(2) : QString();
}

// The colours a font's colour is chosen from, as desktop font choosers offer them.
struct NamedColour {
    const char* name;
    Colour colour;
};
constexpr NamedColour fontColours[] = {
    {"Black", 0x000000},  {"Maroon", 0x000080},  {"Green", 0x008000}, {"Olive", 0x008080},
    {"Navy", 0x800000},   {"Purple", 0x800080},  {"Teal", 0x808000},  {"Gray", 0x808080},
    {"Silver", 0xC0C0C0}, {"Red", 0x0000FF},     {"Lime", 0x00FF00},  {"Yellow", 0x00FFFF},
    {"Blue", 0xFF0000},   {"Fuchsia", 0xFF00FF}, {"Aqua", 0xFFFF00},  {"White", 0xFFFFFF},
};

QColor qColour(Colour c) { return QColor(int(redOf(c)), int(greenOf(c)), int(blueOf(c))); }

} // namespace

std::optional<SavedFile> QtChooserPort::chooseSaveFile(const SaveFileRequest& request) {
    QFileDialog dialog(owner_);
    dialog.setAcceptMode(QFileDialog::AcceptSave);
    const QStringList filters = nameFilters(request.filters);
    dialog.setNameFilters(filters);
    // A bare name gets the extension of the filter in force, before the dialog asks whether
    // to replace a file of that name.
    const auto follow = [&](const QString& chosen) {
        const qsizetype index = filters.indexOf(chosen);
        if (index >= 0) dialog.setDefaultSuffix(extensionOf(request.filters[std::size_t(index)]));
    };
    QObject::connect(&dialog, &QFileDialog::filterSelected, &dialog, follow);
    if (request.filterIndex >= 1 && request.filterIndex <= filters.size()) {
        dialog.selectNameFilter(filters[request.filterIndex - 1]);
        follow(filters[request.filterIndex - 1]);
    }
    if (!request.initialPath.empty()) {
        QFileInfo initial(QString::fromStdString(request.initialPath));
        dialog.setDirectory(initial.absolutePath());
        dialog.selectFile(initial.fileName());
    }
    if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty()) return {};
    const qsizetype index = filters.indexOf(dialog.selectedNameFilter());
    return SavedFile{dialog.selectedFiles().first().toStdString(), index >= 0 ? int(index) + 1 : 1};
}

std::optional<FontChoice> QtChooserPort::chooseFont(Colour initialColour) {
    QDialog dialog(owner_);
    dialog.setWindowTitle(QStringLiteral("Font"));
    auto* fonts = new QFontDialog(&dialog);
    fonts->setWindowFlags(Qt::Widget);
    fonts->setOptions(QFontDialog::NoButtons | QFontDialog::DontUseNativeDialog |
                      QFontDialog::ScalableFonts | QFontDialog::NonScalableFonts);
    // No font of the plot is preselected: the dialog starts on the desktop's own.
    QFont start = QApplication::font();
    start.setPointSize(12);
    fonts->setCurrentFont(start);
    auto* colours = new QComboBox(&dialog);
    int initialRow = -1;
    for (const NamedColour& c : fontColours) {
        QPixmap swatch(16, 16);
        swatch.fill(qColour(c.colour));
        colours->addItem(QIcon(swatch), QString::fromLatin1(c.name), QVariant(c.colour));
        if (c.colour == initialColour) initialRow = colours->count() - 1;
    }
    if (initialRow < 0) { // a colour of another origin stays choosable
        QPixmap swatch(16, 16);
        swatch.fill(qColour(initialColour));
        colours->addItem(QIcon(swatch), QStringLiteral("Custom"), QVariant(initialColour));
        initialRow = colours->count() - 1;
    }
    colours->setCurrentIndex(initialRow);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, &dialog);
    QObject::connect(buttons, &QDialogButtonBox::accepted, &dialog, &QDialog::accept);
    QObject::connect(buttons, &QDialogButtonBox::rejected, &dialog, &QDialog::reject);
    auto* colourRow = new QFormLayout;
    colourRow->addRow(QStringLiteral("&Colour:"), colours);
    auto* layout = new QVBoxLayout(&dialog);
    layout->addWidget(fonts);
    layout->addLayout(colourRow);
    layout->addWidget(buttons);
    if (dialog.exec() != QDialog::Accepted) return {};

    const QFont font = fonts->currentFont();
    FontChoice choice;
    // As a screen font's description gives it: the character height in pixels, negative.
    const QScreen* screen = owner_ != nullptr ? owner_->screen() : QGuiApplication::primaryScreen();
    const double dpi = screen != nullptr ? screen->logicalDotsPerInchY() : 96.0;
    const double points = font.pointSizeF() > 0 ? font.pointSizeF() : 12.0;
    choice.font.lfHeight = -static_cast<int>(std::lround(points * dpi / 72.0));
    choice.font.lfWeight = font.weight();
    choice.font.lfItalic = font.italic() ? 1 : 0;
    choice.font.lfUnderline = font.underline() ? 1 : 0;
    choice.font.lfStrikeOut = font.strikeOut() ? 1 : 0;
    setFaceName(choice.font, font.family().toLatin1().toStdString());
    choice.colour = colours->currentData().toUInt();
    return choice;
}

std::optional<std::string> QtChooserPort::chooseOpenFile(const OpenFileRequest& request) {
    QFileDialog dialog(owner_);
    dialog.setAcceptMode(QFileDialog::AcceptOpen);
    dialog.setFileMode(QFileDialog::AnyFile);
    const QStringList filters = nameFilters(request.filters);
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
