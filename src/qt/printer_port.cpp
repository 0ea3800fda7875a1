#include "qt/printer_port.h"

#include <QPageLayout>
#include <QPainter>
#include <QPrintDialog>
#include <QPrinter>
#include <memory>

#include "platform/recording_surface.h"
#include "qt/painter_surface.h"

namespace corvane {

namespace {

class QtPrinterChoice final : public PrinterChoice {
public:
    explicit QtPrinterChoice(std::shared_ptr<QPrinter> chosen) : printer(std::move(chosen)) {}
    std::shared_ptr<QPrinter> printer;
};

class QtPrinterSurface final : public PrinterSurface {
public:
    explicit QtPrinterSurface(std::shared_ptr<QPrinter> printer) : printer_(std::move(printer)) {}
    ~QtPrinterSurface() override { endDoc(); }
    QtPrinterSurface(const QtPrinterSurface&) = delete;
    QtPrinterSurface& operator=(const QtPrinterSurface&) = delete;

    bool startDoc(const std::string& documentName) override {
        printer_->setDocName(QString::fromStdString(documentName));
        return painter_.begin(printer_.get());
    }
    bool startPage() override {
        if (!painter_.isActive()) return false;
        if (pages_++ > 0 && !printer_->newPage()) return false;
        // The printable area of the page, in printer pixels.
        DeviceMetrics metrics{printer_->width(), printer_->height(),
                              static_cast<double>(printer_->widthMM()),
                              static_cast<double>(printer_->heightMM())};
        surface_ = std::make_unique<PainterSurface>(painter_, metrics, printer_->resolution());
        return true;
    }
    Surface& surface() override {
        if (surface_) return *surface_;
        return discarded_; // no page: what is painted goes nowhere
    }
    bool endPage() override {
        const bool painted = surface_ != nullptr;
        surface_.reset();
        return painted;
    }
    bool endDoc() override {
        surface_.reset();
        return painter_.isActive() && painter_.end();
    }

private:
    std::shared_ptr<QPrinter> printer_;
    QPainter painter_;
    std::unique_ptr<PainterSurface> surface_;
    RecordingSurface discarded_{1, 1};
    int pages_ = 0;
};

} // namespace

QtPrinterPort::QtPrinterPort(QWidget* owner, PrintDialog dialog)
    : owner_(owner), dialog_(std::move(dialog)) {
    if (!dialog_) {
        dialog_ = [this](QPrinter& printer, bool setUp) {
            QPrintDialog box(&printer, owner_);
            box.setOption(QAbstractPrintDialog::PrintSelection, false);
            box.setOption(QAbstractPrintDialog::PrintPageRange, false);
            box.setOption(QAbstractPrintDialog::PrintCurrentPage, false);
            if (setUp) box.setWindowTitle(QStringLiteral("Print Setup"));
            return box.exec() == QDialog::Accepted;
        };
    }
}

bool QtPrinterPort::printDialog(PrintSetup& setup) {
    std::shared_ptr<QPrinter> printer;
    if (const auto* chosen = dynamic_cast<const QtPrinterChoice*>(setup.devices.get()))
        printer = chosen->printer;
    else {
        printer = std::make_shared<QPrinter>(QPrinter::HighResolution);
        // The plot is half again as wide as it is high: the page starts across.
        printer->setPageOrientation(QPageLayout::Landscape);
    }
    const bool setUp = (setup.flags & pdPrintSetup) != 0;
    if (!dialog_(*printer, setUp)) return false;
    setup.devices = std::make_shared<QtPrinterChoice>(printer);
    if (!setUp && (setup.flags & pdReturnDc) != 0 && printer->isValid())
        setup.surface = std::make_unique<QtPrinterSurface>(printer);
    return true;
}

std::unique_ptr<PrinterSurface> QtPrinterPort::createSurface(const PrinterChoice& devices) {
    const auto* chosen = dynamic_cast<const QtPrinterChoice*>(&devices);
    if (chosen == nullptr || !chosen->printer->isValid()) return {};
    return std::make_unique<QtPrinterSurface>(chosen->printer);
}

} // namespace corvane
