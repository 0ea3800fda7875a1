// The fitting run cycle without a window: the order of calls that turns an input file into a
// fitted document and a report, fits a document again, or loads a saved report. The desktop
// program's commands and corvane-fit both go through these.
//
// A fit comes in two halves around the engine run, so that a window can run the engine from its
// event loop: begin (beginInputCycle or beginRecalculation), an EngineRunner started, fed until
// it ends and finished, then completeRun. runInputCycle does the same for an input file in one
// call and waits for the engine.
#pragma once

#include <string>

#include "fit/engine_run.h"
#include "fit/run_state.h"

namespace corvane {

// The report path for an input file, always beside it: the path up to the last '.' of the file
// name, followed by ".qpo"; a file name without a dot (or with only a leading one) gets ".qpo"
// appended. A dot in a directory name never counts: /set1.2/run gives /set1.2/run.qpo.
std::string deriveReportPath(const std::string& path);

// The directory of the input file, where the engine works: directoryOf(path).
std::string deriveWorkDir(const std::string& path);

// Deletes input.txt, chi.txt and chit.txt in the directory of inputPath, then reads the input
// file and writes fresh exchange files there (readInputFile). Returns false when the read or a
// write failed, after its message; the engine must not be started then.
bool prepareRun(const std::string& inputPath);

enum class RunOutcome {
    Fitted,           // the report has been written and the document holds the new results
    BadInput,         // the input file could not be read or its exchange files written
    EngineNotStarted, // the engine could not be started
    NoResults,        // the engine left no usable results, or the report could not be written
};

// New and Open, first half: reads runState.inputPath and writes the exchange files beside it,
// derives runState.reportPath and runState.workDir from it and deletes a stale
// workDir/output.txt. False after a message when the read or a write failed (BadInput): the
// engine must not be started then, so that it never fits files of an earlier problem.
bool beginInputCycle();

// Re-calculate and Add New, first half, after writeDialogEngineInput: deletes a stale
// workDir/output.txt. The engine then runs in workDir, on the files the dialog wrote there.
void beginRecalculation();

// Second half of both, once the EngineRunner of the run has finished (runState.lastEngineRun
// holds how it ended): reads the engine output from workDir/output.txt, where the engine ran,
// into calculation number calculation (from 1; 0 for the newest) of the document, writes the
// report with every calculation to runState.reportPath, and tells the user why when there are
// no usable results (or, with problem, leaves the sentence there for a window that shows it
// itself).
RunOutcome completeRun(std::string* problem = nullptr, int calculation = 0);

// New and Open in one call: beginInputCycle, runEngine(progress), completeRun.
RunOutcome runInputCycle(EngineProgress* progress);

// Plot: replaces the document by the report at path (its calculations cleared first, so the
// report is shown whole), sets reportPath to it and workDir to its directory, so that the fit
// can be continued there. A report that cannot be read or holds no calculation leaves
// everything as it was, after a message.
bool plotReport(const std::string& path);

} // namespace corvane
