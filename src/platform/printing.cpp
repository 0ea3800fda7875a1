#include "platform/printing.h"

#include "platform/ports.h"

namespace corvane {

bool printDialog(PrintSetup& setup) { return ports().printers->printDialog(setup); }

std::unique_ptr<PrinterSurface> createPrinterSurface(const PrinterChoice& devices) {
    return ports().printers->createSurface(devices);
}

} // namespace corvane
