// Printers: the print dialog, its record that carries a chosen printer from Print Setup to the
// next Print, and a printer surface to paint a page on.
//
// The dialog and the surfaces are reached through the printer port in use. Until a front end
// installs its own, there is no printer: every dialog is cancelled.
#pragma once

#include <memory>
#include <string>

#include "platform/surface.h"

namespace corvane {

// Flags of the print dialog.
enum PrintFlag : unsigned {
    pdNoSelection = 0x0004, // no "selection" range
    pdNoPageNums = 0x0008,  // no page range
    pdPrintSetup = 0x0040,  // the set-up dialog: choose a printer and its settings, print nothing
    pdReturnDc = 0x0100,    // the dialog returns a surface for the printer chosen
};

// A printer with its settings, as the print dialog leaves it; what it holds is the port's.
class PrinterChoice {
public:
    virtual ~PrinterChoice() = default;
};

// A surface on a printer: one document of pages. The surface is there for painting between
// startPage and endPage. Each call returns whether it succeeded.
class PrinterSurface {
public:
    virtual ~PrinterSurface() = default;
    virtual bool startDoc(const std::string& documentName) = 0;
    virtual bool startPage() = 0;
    virtual Surface& surface() = 0;
    virtual bool endPage() = 0;
    virtual bool endDoc() = 0;
};

struct PrintSetup {
    unsigned flags = 0; // PrintFlag
    // The printer chosen last; none: the dialog starts on the default printer.
    std::shared_ptr<PrinterChoice> devices;
    // With pdReturnDc, the surface for the printer the dialog accepted.
    std::unique_ptr<PrinterSurface> surface;
};

class PrinterPort {
public:
    virtual ~PrinterPort() = default;
    // The print dialog (the set-up dialog with pdPrintSetup) starting on setup.devices, which
    // it replaces with the printer chosen; false when cancelled or failed.
    virtual bool printDialog(PrintSetup& setup) = 0;
    // A surface on the printer devices; nullptr when none can be made.
    virtual std::unique_ptr<PrinterSurface> createSurface(const PrinterChoice& devices) = 0;
};

bool printDialog(PrintSetup& setup);
std::unique_ptr<PrinterSurface> createPrinterSurface(const PrinterChoice& devices);

} // namespace corvane
