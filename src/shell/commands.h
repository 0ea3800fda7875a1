// The commands of the main window, each a row of one table.
#pragma once

#include <memory>
#include <string>

#include "fit/run_cycle.h"
#include "platform/printing.h"

namespace corvane {

// The run cycle's commands: File > New, Open and Plot, and Re-calculate (command 123), which
// fits the current calculation again from the engine input written for it and stores the
// results into it (into the newest when there is no current one).
void newCommand();
void openCommand();
void plotCommand();
void recalculateCommand();

// Fits calculation (0-based) again from the engine input written for it (writeDialogEngineInput)
// in the progress dialog, stores the results into it and, when there are results, shows the
// document with that calculation current. The outcome of the run. The parameter dialog asks for
// its fits this way.
RunOutcome recalculate(int calculation);

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

// Open and Plot of a named file, without the chooser.
void openInputFile(const std::string& path);
void plotFile(const std::string& path);

// After every load: menus and display for the document now held (1 to 10 calculations); the
// current calculation becomes the newest unless keepCurrent (Re-calculate).
void refreshAfterLoad(bool keepCurrent);

// The items of the two views: "&Magnetization" usable while a document with a magnetisation
// set is plotted and checked while the M view is shown; "Chi - ChiT &Switch" greyed then.
void markViewItems();

// Handles command id; false when no row of the table has it.
bool runCommand(int id);

} // namespace corvane
