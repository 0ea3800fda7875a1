// Print, Print Setup and Export Plot of the File menu.
#include <string>

#include "fit/run_state.h"
#include "platform/choosers.h"
#include "platform/messages.h"
#include "platform/ports.h"
#include "platform/printing.h"
#include "plot/paint.h"
#include "plot/plot_settings.h"
#include "shell/commands.h"
#include "shell/main_window.h"
#include "text/text.h"

namespace corvane {

namespace {

// The wait cursor with the mouse held by the window, for as long as it lives.
class Busy {
public:
    Busy() {
        window().setCursor(CursorShape::Wait);
        window().captureMouse();
    }
    ~Busy() {
        const bool details = shell.mouseMode == MouseMode::Details;
        window().setCursor(details ? CursorShape::Cross : CursorShape::Arrow);
        window().releaseMouse();
    }
    Busy(const Busy&) = delete;
    Busy& operator=(const Busy&) = delete;
};

// The export file beside the report (or the input file), named as it with the extension.
std::string exportPath(const std::string& extension) {
    const std::string& base =
        runState.reportPath.empty() ? runState.inputPath : runState.reportPath;
    if (base.empty()) return "plot." + extension;
    const std::size_t slash = base.rfind('/');
    const std::size_t dot = base.rfind('.');
    const bool hasDot = dot != std::string::npos && (slash == std::string::npos || dot > slash + 1);
    return (hasDot ? base.substr(0, dot) : base) + "." + extension;
}

} // namespace

std::unique_ptr<PrinterSurface> choosePrinter() {
    PrintSetup& setup = shell.printSetup;
    if (!printDialog(setup)) return {};
    std::unique_ptr<PrinterSurface> surface = std::move(setup.surface);
    if (!surface && setup.devices) surface = createPrinterSurface(*setup.devices);
    // Each Print starts on the default printer again, unless Print Setup came between.
    setup.devices.reset();
    return surface;
}

void printCommand() {
    // The wait cursor and the held mouse come after the dialog, which needs the mouse itself.
    std::unique_ptr<PrinterSurface> printer = choosePrinter();
    if (!printer) {
        messageBox("Cannot print!", "", mbOk | mbIconHand);
        return;
    }
    Busy busy;
    // A failure of the job is not reported; the calls that remain are made all the same.
    printer->startDoc(runState.reportPath);
    printer->startPage();
    plotLayout.printing = 1;
    paintPlot(printer->surface());
    plotLayout.printing = 0;
    printer->endPage();
    printer->endDoc();
}

void printSetupCommand() {
    PrintSetup& setup = shell.printSetup;
    const unsigned flags = setup.flags;
    setup.flags = flags | pdPrintSetup;
    printDialog(setup);
    setup.surface.reset();
    setup.flags = flags;
}

void exportPlotCommand() {
    const SaveFileRequest request{{{"PNG images (*.png)", "*.png"},
                                   {"PDF documents (*.pdf)", "*.pdf"},
                                   {"SVG drawings (*.svg)", "*.svg"}},
                                  1,
                                  exportPath("png")};
    const std::optional<SavedFile> chosen = chooseSaveFile(request);
    if (!chosen) return;
    std::string path = chosen->path;
    // A name without one of the three extensions gets the chosen filter's.
    const std::size_t dot = path.rfind('.');
    const std::string given = dot == std::string::npos ? "" : upperCopy(path.substr(dot));
    if (given != ".PNG" && given != ".PDF" && given != ".SVG") {
        static const char* const extensions[] = {".png", ".pdf", ".svg"};
        const int index =
            chosen->filterIndex >= 1 && chosen->filterIndex <= 3 ? chosen->filterIndex : 1;
        path += extensions[index - 1];
    }
    std::string error;
    bool saved = false;
    {
        Busy busy;
        saved = window().savePlot(path, error);
    }
    window().invalidate(true); // painted on another surface meanwhile
    if (!saved) showError("Cannot export the plot to " + path + ": " + error);
}

} // namespace corvane
