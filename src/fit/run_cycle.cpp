#include "fit/run_cycle.h"

#include <memory>

#include <sys/stat.h>

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

namespace {

// Whether two paths name the same file: the same path, or the same file reached another way.
bool sameFile(const std::string& a, const std::string& b) {
    if (a == b) return true;
    struct stat first {}, second {};
    return ::stat(a.c_str(), &first) == 0 && ::stat(b.c_str(), &second) == 0 &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

// Reads the input file into the document with its exchange files in a new run folder. False
// after a message, with no run folder left.
bool readIntoRunDirectory(const std::string& path) {
    if (!openRunDirectory()) return false;
    if (readInputFile(path, inWorkDir(engineInputName), inWorkDir(chiDataName),
                      inWorkDir(chitDataName)))
        return true;
    closeRunDirectory(false);
    return false;
}

} // namespace

bool prepareRun(const std::string& path) {
    const std::string workDir = runState.workDir;
    if (!readIntoRunDirectory(path)) return false;
    closeRunDirectory(false);
    runState.workDir = workDir;
    // Beside the input, only over files this program wrote: a file of the user's of the same
    // name is left as it is.
    const std::string directory = directoryOf(path);
    const char* const names[] = {engineInputName, dataExchangeName(fitDocument)};
    for (const char* name : names) {
        const std::string target = pathIn(directory, name);
        if (sameFile(target, path) || (fileExists(target) && !isExchangeFile(target, name))) {
            showError(formatC("%s is not an exchange file of this program and is left as it is; "
                              "no exchange file was written.",
                              target.c_str()));
            return false;
        }
    }
    return writeExchangeFiles(pathIn(directory, names[0]), pathIn(directory, names[1]));
}

bool beginInputCycle() {
    const std::string reportPath = deriveReportPath(runState.inputPath);
    if (sameFile(reportPath, runState.inputPath)) {
        showError(formatC("%s cannot be fitted under its own name: its report would replace it. "
                          "Give the input file another name, such as one ending in .qpi.",
                          runState.inputPath.c_str()));
        return false;
    }
    if (!readIntoRunDirectory(runState.inputPath)) return false;
    runState.reportPath = reportPath;
    beginRecalculation();
    return true;
}

void beginRecalculation() {
    // The output of an earlier run is never read as this run's.
    const std::string outputPath = inWorkDir(engineOutputName);
    if (fileExists(outputPath)) removeFile(outputPath);
}

namespace {

// How the engine's fit ended, from how the engine ended.
FitEnd fitEnd(const EngineRun& run) {
    if (run.interrupted) return FitEnd::Interrupted;
    if (run.exited && run.exitCode == 1) return FitEnd::IterationLimit;
    if (run.exited && run.exitCode == 6) return FitEnd::Plateau;
    return FitEnd::Converged;
}

} // namespace

RunOutcome completeRun(std::string* problem, int calculation) {
    const std::string outputPath = inWorkDir(engineOutputName);
    const ReportWrite write =
        writeReport(outputPath, runState.reportPath, calculation, fitEnd(runState.lastEngineRun));
    // The run folder goes, unless the run failed or stopped short: then its log is the user's
    // to read.
    const EngineRun& run = runState.lastEngineRun;
    const bool clean = write.outcome == ReportWrite::Written &&
                       (run.interrupted || (run.exited && run.exitCode == 0));
    closeRunDirectory(run.started && !clean);
    if (write.outcome == ReportWrite::Written) {
        if (!write.backup.empty())
            showStatus(formatC("The earlier report, with %d calculation%s, is kept as %s.",
                               write.backupCalculations, write.backupCalculations == 1 ? "" : "s",
                               write.backup.c_str()));
        return RunOutcome::Fitted;
    }
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
