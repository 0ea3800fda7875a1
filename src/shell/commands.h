// The commands of the main window, each a row of one table, and the procedures of the dialogs
// the shell opens itself.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/dialog.h"
#include "platform/printing.h"

namespace corvane {

// The About box (DL_ABOUT): OK or the close box end it with 1.
std::intptr_t About(Dialog& dialog, DialogMessage message, int control, Notification notification);

// The run cycle's commands: File > New, Open and Plot, and Re-calculate (command 123), which
// fits the current calculation again from the engine input written for it and stores the
// results into it (into the newest when there is no current one).
void newCommand();
void openCommand();
void plotCommand();
void recalculateCommand();
// Whether the latest run of the engine from the window gave results that were stored.
bool lastRunGaveResults();

// File > Print (command 103): the print dialog, then one page of the plot as the window shows
// it, laid out on the printer's page, under the report's name; "Cannot print!" when the dialog
// is cancelled or no printer surface can be made. A printer chosen in Print Setup (104) is
// where the next Print's dialog starts; each Print after that starts on the default printer.
void printCommand();
void printSetupCommand();
// The printer surface that the print dialog gives; nullptr when cancelled or none can be made.
std::unique_ptr<PrinterSurface> choosePrinter();
// File > Export Plot (105): the plot at the window's size as a PNG, PDF or SVG file.
void exportPlotCommand();

// The progress dialog (DL_SPIN): runs the engine while it is shown and follows it from the
// event loop; Interrupt asks the engine to stop with its best fit (a second time, at once), Log
// File shows the engine's log. It closes by itself when the fit gave results and otherwise
// stays with the reason and Close; the document and the report are kept as they were.
std::intptr_t spinBar(Dialog& dialog, DialogMessage message, int control,
                      Notification notification);

// Open and Plot of a named file, without the chooser.
void openInputFile(const std::string& path);
void plotFile(const std::string& path);

// After every load: menus and display for the document now held (1 to 10 calculations); the
// current calculation becomes the newest unless keepCurrent (Re-calculate).
void refreshAfterLoad(bool keepCurrent);

// Handles command id; false when no row of the table has it.
bool runCommand(int id);

} // namespace corvane
