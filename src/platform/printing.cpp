#include "platform/printing.h"

namespace corvane {

namespace {

class NoPrinters final : public PrinterPort {
public:
    bool printDialog(PrintSetup&) override { return false; }
    std::unique_ptr<PrinterSurface> createSurface(const PrinterChoice&) override { return {}; }
};

NoPrinters noPrinters;
PrinterPort* currentPort = &noPrinters;

} // namespace

void setPrinterPort(PrinterPort* port) { currentPort = port != nullptr ? port : &noPrinters; }

bool printDialog(PrintSetup& setup) { return currentPort->printDialog(setup); }

std::unique_ptr<PrinterSurface> createPrinterSurface(const PrinterChoice& devices) {
    return currentPort->createSurface(devices);
}

} // namespace corvane
