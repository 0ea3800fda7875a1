#include "fit/run_cycle.h"

#include <memory>

#include "fit/exchange_files.h"
#include "fit/input_file.h"
#include "fit/report.h"
#include "platform/files.h"
#include "platform/messages.h"
#include "text/text.h"

namespace corvane {

namespace {

// Tells the user why a run left the report as it was, with what the engine said of it.
// Why a run left the report as it was, with what the engine said of it; "" when it did not.
std::string noResultsText(const ReportWrite& write, const std::string& outputPath) {
    const EngineRun& run = runState.lastEngineRun;
    const std::string unchanged = formatC(" %s was not changed.", runState.reportPath.c_str());
    switch (write.outcome) {
    case ReportWrite::Written:
        return "";
    case ReportWrite::NoOutput:
        return "The fit gave no results: " + engineFailureText(run) + "." + unchanged;
    case ReportWrite::UnusableOutput: {
        std::string text = formatC("The fit results in %s cannot be used: %s", outputPath.c_str(),
                                   write.detail.c_str());
        if (run.started && !(run.exited && run.exitCode == 0))
            text += " (" + engineFailureText(run) + ")";
        return text + "." + unchanged;
    }
    case ReportWrite::NotWritten:
        return formatC("Cannot write the report %s: %s. The fit results stay in %s.",
                       runState.reportPath.c_str(), write.detail.c_str(), outputPath.c_str());
    }
    return "";
}

} // namespace

std::string deriveReportPath(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    const std::size_t nameStart = slash == std::string::npos ? 0 : slash + 1;
    const std::size_t dot = path.rfind('.');
    // A dot of the file name counts, but not a leading one (".hidden" has no extension).
    if (dot == std::string::npos || dot <= nameStart) return path + reportExtension;
    return path.substr(0, dot) + reportExtension;
}

std::string deriveWorkDir(const std::string& path) { return directoryOf(path); }

bool prepareRun(const std::string& path) {
    const std::string directory = directoryOf(path);
    const std::string engineInputPath = pathIn(directory, engineInputName);
    const std::string chiPath = pathIn(directory, chiDataName);
    const std::string chitPath = pathIn(directory, chitDataName);
    for (const std::string* stale : {&engineInputPath, &chiPath, &chitPath}) {
        if (fileExists(*stale)) removeFile(*stale);
    }
    return readInputFile(path, engineInputPath, chiPath, chitPath);
}

bool beginInputCycle() {
    if (!prepareRun(runState.inputPath)) return false;
    runState.reportPath = deriveReportPath(runState.inputPath);
    runState.workDir = deriveWorkDir(runState.inputPath);
    beginRecalculation();
    return true;
}

void beginRecalculation() {
    // The output of an earlier run is never read as this run's.
    const std::string outputPath = inWorkDir(engineOutputName);
    if (fileExists(outputPath)) removeFile(outputPath);
}

RunOutcome completeRun(std::string* problem, int calculation) {
    const std::string outputPath = inWorkDir(engineOutputName);
    const ReportWrite write = writeReport(outputPath, runState.reportPath, calculation);
    if (write.outcome == ReportWrite::Written) return RunOutcome::Fitted;
    const std::string why = noResultsText(write, outputPath);
    if (problem != nullptr)
        *problem = why;
    else
        showError(why);
    return runState.lastEngineRun.started ? RunOutcome::NoResults : RunOutcome::EngineNotStarted;
}

RunOutcome runInputCycle(EngineProgress* progress) {
    if (!beginInputCycle()) return RunOutcome::BadInput;
    runEngine(progress);
    return completeRun();
}

RunOutcome runRecalculation(EngineProgress* progress) {
    beginRecalculation();
    runEngine(progress);
    return completeRun();
}

bool plotReport(const std::string& path) {
    auto updated = std::make_unique<FitDocument>(fitDocument);
    updated->calculationCount = 0;
    if (!readReportFile(path, *updated)) return false;
    fitDocument = *updated;
    runState.reportPath = path;
    runState.workDir = deriveWorkDir(path);
    return true;
}

} // namespace corvane
