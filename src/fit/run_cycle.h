// The fitting run cycle without a window: the order of calls that turns an input file into a
// fitted document and a report, fits a document again, or loads a saved report. The desktop
// program's commands and corvane-fit both go through these.
#pragma once

#include <string>

#include "fit/engine_run.h"

namespace corvane {

// The input file being fitted and the report of the document; empty until set. (The working
// directory, workDir, is declared with the exchange files.)
extern std::string inputPath;
extern std::string reportPath;

// The report path for an input file: the path up to its last '.' (the first two characters
// never count), followed by ".qpo"; ".qpo" when there is no such dot. A dot in a directory
// name counts when the file name has none: /set1.2/run gives /set1.qpo.
std::string deriveReportPath(const std::string& path);

// The directory of a path: everything before its last '/'; "" for a file in the root and for
// a path without '/'. Paths given here are absolute, as the file choosers return them.
std::string deriveWorkDir(const std::string& path);

enum class RunOutcome {
    Fitted,           // the report has been written and the document holds the new results
    BadInput,         // the input file could not be read or its exchange files written
    EngineNotStarted, // the engine could not be started
    NoResults,        // the engine left no usable results, or the report could not be written
};

// New and Open: reads inputPath and writes the exchange files beside it, derives reportPath
// and workDir, deletes a stale workDir/output.txt, runs the engine and writes the report.
// Stops after a failed read, so that the engine never fits files of an earlier problem.
RunOutcome runInputCycle(EngineProgress* progress);

// Re-calculate and Add New, after writeDialogEngineInput: runs the engine in workDir on the
// files written there and writes the results into the last calculation and the report.
RunOutcome runRecalculation(EngineProgress* progress);

// Plot: replaces the document by the report at path (its calculations cleared first, so the
// report is shown whole), sets reportPath to it and workDir to its directory, so that the fit
// can be continued there. A report that cannot be read or holds no calculation leaves
// everything as it was, after a message.
bool plotReport(const std::string& path);

} // namespace corvane
