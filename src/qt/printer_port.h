// Printing on Qt: the print dialog on a QPrinter, which stays chosen from Print Setup until the
// next Print, and a printer surface painting on it through QPainter.
#pragma once

#include <functional>

#include "platform/printing.h"

class QPrinter;
class QWidget;

namespace corvane {

class QtPrinterPort final : public PrinterPort {
public:
    // Shows the print dialog for printer (the set-up dialog when setUp); true when the user
    // accepts it, with printer set as chosen.
    using PrintDialog = std::function<bool(QPrinter& printer, bool setUp)>;

    // Without a dialog of its own, Qt's print dialog, owned by owner.
    explicit QtPrinterPort(QWidget* owner = nullptr, PrintDialog dialog = {});
    bool printDialog(PrintSetup& setup) override;
    std::unique_ptr<PrinterSurface> createSurface(const PrinterChoice& devices) override;

private:
    QWidget* owner_;
    PrintDialog dialog_;
};

} // namespace corvane
