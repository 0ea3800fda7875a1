// The progress dialog of an engine run (DL_SPIN): it starts the engine when it opens and follows
// it from the event loop. Interrupt asks the engine to stop with its best fit (a second time, at
// once), Log File shows the engine's log. It closes by itself when the fit gave results and
// otherwise stays with the reason and Close; the document and the report are kept as they were.
#pragma once

#include <functional>

#include "fit/run_cycle.h"

namespace corvane {

// What Log File does: shows the engine's log (the window opens a view of it).
using ShowLog = std::function<void()>;

// Runs the engine in the progress dialog, modal, once the first half of the run has been done
// (beginInputCycle or beginRecalculation); its results go to calculation number calculation
// (from 1; 0 the newest). The outcome of the run.
RunOutcome runProgressDialog(int calculation, const ShowLog& showLog);

// How many cells of the row are filled after iteration (from 1): one per iteration, starting
// again after a full row.
int filledCells(int iteration);

} // namespace corvane
