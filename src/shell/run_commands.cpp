// The run cycle of the window: New, Open, Plot and Re-calculate, each running the engine in the
// progress dialog, and the refresh of menus and display after every load.
#include <optional>

#include "dialogs/info.h"
#include "dialogs/progress.h"
#include "fit/exchange_files.h"
#include "fit/fit_document.h"
#include "fit/run_cycle.h"
#include "fit/run_state.h"
#include "platform/choosers.h"
#include "platform/ports.h"
#include "plot/plot_settings.h"
#include "resources/resources.h"
#include "shell/commands.h"
#include "shell/main_window.h"

namespace corvane {

namespace {

// Runs the engine in the progress dialog, its results going to calculation number calculation
// (from 1; 0 the newest); Log File opens the window's view of the run's log.
RunOutcome runEngineDialog(int calculation = 0) {
    return runProgressDialog(calculation,
                             [] { window().showLogFile(pathIn(runState.workDir, engineLogName)); });
}

void closeCover() { window().closeCover(); }

const std::vector<FileFilter> inputFilters = {{"Fitting input files (*.qpi)", "*.qpi"},
                                              {"ALL Files (*.*)", "*.*"}};
const std::vector<FileFilter> reportFilters = {{"Fitting output files (*.qpo)", "*.qpo"},
                                               {"ALL Files (*.*)", "*.*"}};

// The input cycle of New and Open on runState.inputPath.
void fitInputFile() {
    closeInfoDialogs(shell.infoDialogs); // their calculations belong to the problem being left
    if (!beginInputCycle()) return;
    if (runEngineDialog() == RunOutcome::Fitted) refreshAfterLoad(false);
}

} // namespace

void openInputFile(const std::string& path) {
    closeCover();
    runState.inputPath = path;
    fitInputFile();
}

void openCommand() {
    closeCover();
    OpenFileRequest request{inputFilters, 1, "QPI", runState.inputPath};
    const std::optional<std::string> chosen = chooseOpenFile(request);
    if (!chosen) return;
    runState.inputPath = *chosen;
    fitInputFile();
}

void plotFile(const std::string& path) {
    closeCover();
    closeInfoDialogs(shell.infoDialogs);
    if (plotReport(path)) refreshAfterLoad(false);
}

void plotCommand() {
    closeCover();
    OpenFileRequest request{reportFilters, 1, "QPO", runState.reportPath};
    const std::optional<std::string> chosen = chooseOpenFile(request);
    if (!chosen) return;
    plotFile(*chosen);
}

RunOutcome recalculate(int calculation) {
    FitDocument& doc = fitDocument;
    const bool known = calculation >= 0 && calculation < doc.calculationCount;
    if (known) doc.currentCalculation = calculation;
    beginRecalculation();
    const RunOutcome outcome = runEngineDialog(known ? calculation + 1 : 0);
    if (outcome == RunOutcome::Fitted) refreshAfterLoad(true);
    return outcome;
}

// The current calculation is the one the engine input was written from; without one, the
// newest takes the results.
void recalculateCommand() { recalculate(fitDocument.currentCalculation); }

void refreshAfterLoad(bool keepCurrent) {
    FitDocument& doc = fitDocument;
    const int n = doc.calculationCount;
    closeCover();
    plotSettings.plotLoaded = 1;
    for (int position = 1; position <= 5; ++position) shell.menu.enable(AtPosition{position});
    for (int k = 1; k <= maxCalculations; ++k) {
        if (k <= n)
            shell.menu.enable(idmFitted1 + k - 1);
        else
            shell.menu.grey(idmFitted1 + k - 1);
    }
    if (!keepCurrent || doc.currentCalculation < 0 || doc.currentCalculation >= n)
        doc.currentCalculation = n - 1;
    shell.menu.check(idmExperimental);
    for (int k = 1; k <= n; ++k) shell.menu.uncheck(idmFitted1 + k - 1);
    shell.menu.check(idmFitted1 + doc.currentCalculation);
    // A calculation fitted again keeps the M view it was picked in.
    const bool magnet = keepCurrent && plotSettings.magnetView == 1 && doc.magnetCount > 0;
    showLoadedPlot(doc.currentCalculation); // shown flags, the chi view with chiT, scalePlot()
    showMagnetView(magnet);
    markViewItems();
    window().setTitle(windowTitle());
    window().invalidate(true);
}

} // namespace corvane
