#include "fit/run_cycle.h"

#include <memory>

#include "fit/exchange_files.h"
#include "fit/report.h"
#include "platform/files.h"
#include "platform/messages.h"
#include "text/text.h"

namespace corvane {

std::string inputPath;
std::string reportPath;

namespace {

// The last position of c in path at or after index 2; npos when there is none.
std::size_t lastFrom2(const std::string& path, char c) {
    const std::size_t at = path.rfind(c);
    return at != std::string::npos && at >= 2 ? at : std::string::npos;
}

// Runs the engine in workDir and stores its results; the stale output of an earlier run is
// deleted first, so that it is never read as this run's.
RunOutcome fitInWorkDir(EngineProgress* progress) {
    const std::string outputPath = inWorkDir(engineOutputName);
    if (fileExists(outputPath)) removeFile(outputPath);
    const bool started = runEngine(progress);
    if (writeReport(outputPath, reportPath)) return RunOutcome::Fitted;
    return started ? RunOutcome::NoResults : RunOutcome::EngineNotStarted;
}

} // namespace

std::string deriveReportPath(const std::string& path) {
    const std::size_t dot = lastFrom2(path, '.');
    return dot == std::string::npos ? ".qpo" : path.substr(0, dot) + ".qpo";
}

std::string deriveWorkDir(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "" : path.substr(0, slash);
}

RunOutcome runInputCycle(EngineProgress* progress) {
    if (!prepareRun(inputPath)) return RunOutcome::BadInput;
    reportPath = deriveReportPath(inputPath);
    workDir = deriveWorkDir(inputPath);
    return fitInWorkDir(progress);
}

RunOutcome runRecalculation(EngineProgress* progress) { return fitInWorkDir(progress); }

bool plotReport(const std::string& path) {
    auto updated = std::make_unique<FitDocument>(fitDocument);
    updated->calculationCount = 0;
    if (!readReportFile(path, *updated)) return false;
    if (updated->calculationCount == 0) {
        showError(formatC("The report %s holds no fit results (no \"Fitting Results\" section).",
                          path.c_str()));
        return false;
    }
    fitDocument = *updated;
    reportPath = path;
    workDir = deriveWorkDir(path);
    return true;
}

} // namespace corvane
