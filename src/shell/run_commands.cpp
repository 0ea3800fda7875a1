// The run cycle of the window: New, Open, Plot and Re-calculate, the progress dialog that runs
// the engine, and the refresh of menus and display after every load.
#include <cstdio>
#include <memory>
#include <optional>

#include "dialogs/info.h"
#include "fit/engine_run.h"
#include "fit/exchange_files.h"
#include "fit/fit_document.h"
#include "fit/run_cycle.h"
#include "fit/run_state.h"
#include "platform/choosers.h"
#include "platform/messages.h"
#include "platform/resources.h"
#include "plot/plot_settings.h"
#include "shell/commands.h"
#include "shell/main_window.h"
#include "text/text.h"

namespace corvane {

namespace {

// [SECTION] The progress dialog

enum SpinControl : int {
    statusLine = 100,
    logButton = 999,
    interruptButton = 998,
    closeButton = 1000,
    firstCell = 1, // cells 1..24
    cellCount = 24,
};
constexpr int feedMilliseconds = 50;

// One run of the engine inside DL_SPIN: the dialog shows the engine's latest progress line and
// fills a cell per iteration; it closes by itself when the fit gave results, and otherwise stays
// with the reason and Close.
class SpinRun final : public EngineProgress {
public:
    SpinRun(Dialog& dialog, int calculation)
        : dialog_(dialog), runner_(this), calculation_(calculation) {}

    void status(const std::string& text) override { dialog_.setText(statusLine, text); }
    void line(const std::string& text) override {
        int iteration = 0;
        double deviation = 0;
        if (std::sscanf(text.c_str(), "iteration %d deviation %lf", &iteration, &deviation) == 2) {
            dialog_.setText(statusLine,
                            formatC("Iteration %d: squared deviation %g", iteration, deviation));
            const int filled = (iteration - 1) % cellCount + 1;
            for (int cell = 0; cell < cellCount; ++cell)
                dialog_.setChecked(firstCell + cell, cell < filled);
        }
    }

    void start() {
        for (int id : {interruptButton, logButton, closeButton}) dialog_.disable(id);
        for (int cell = 0; cell < cellCount; ++cell) dialog_.setChecked(firstCell + cell, false);
        if (!runner_.start()) {
            runner_.finish();
            ended(); // the start failure, with the beep the runner gave
            return;
        }
        dialog_.enable(interruptButton);
        dialog_.enable(logButton);
        dialog_.setTimer(feedMilliseconds);
    }

    void feed() {
        if (runner_.pump()) return;
        dialog_.setTimer(0);
        runner_.finish();
        ended();
    }

    void interrupt() {
        if (!runner_.running()) return;
        if (!interrupted_) {
            interrupted_ = true;
            runner_.requestInterrupt();
            dialog_.setText(statusLine, "Interrupting: the engine stops at its next iteration "
                                        "and keeps its best fit so far...");
        } else {
            runner_.requestKill();
        }
    }

    bool running() const { return runner_.running(); }

private:
    // The engine has ended (or never started): the report from its results, or the reason.
    void ended() {
        dialog_.disable(interruptButton);
        dialog_.disable(logButton);
        std::string problem;
        outcome_ = completeRun(&problem, calculation_);
        if (outcome_ == RunOutcome::Fitted) {
            dialog_.end(1);
            return;
        }
        dialog_.setText(statusLine,
                        runState.lastEngineRun.started ? problem : engineStartFailedText);
        dialog_.enable(closeButton);
        dialog_.setFocus(closeButton);
    }

    Dialog& dialog_;
    EngineRunner runner_;
    int calculation_; // the calculation (from 1) that takes the results; 0 the newest
    bool interrupted_ = false;
    RunOutcome outcome_ = RunOutcome::NoResults;

public:
    RunOutcome outcome() const { return outcome_; }
};

// The run of the dialog now open; the dialog is modal, so there is one at a time.
std::unique_ptr<SpinRun> spinRun;
// The calculation (from 1) the next run's results go to; 0 the newest.
int spinTarget = 0;
// How the latest run ended.
RunOutcome lastOutcome = RunOutcome::NoResults;

// The log file view, as the desktop shows it.
void showLog() {
    if (shell.host != nullptr) shell.host->showLogFile(pathIn(runState.workDir, engineLogName));
}

} // namespace

std::intptr_t spinBar(Dialog& dialog, DialogMessage message, int control, Notification) {
    switch (message) {
    case DialogMessage::Initialise:
        spinRun = std::make_unique<SpinRun>(dialog, spinTarget);
        spinRun->start();
        return 1;
    case DialogMessage::Timer:
        if (spinRun) spinRun->feed();
        return 1;
    case DialogMessage::Command:
        if (control == interruptButton && spinRun) spinRun->interrupt();
        if (control == logButton) showLog();
        if (control == closeButton && !(spinRun && spinRun->running())) dialog.end(1);
        return 1;
    case DialogMessage::Close: // the close box asks the engine to stop first
        if (spinRun && spinRun->running())
            spinRun->interrupt();
        else
            dialog.end(1);
        return 1;
    }
    return 0;
}

namespace {

// Runs the engine in DL_SPIN, its results going to calculation number calculation (from 1; 0
// the newest); the outcome of the run.
RunOutcome runEngineDialog(int calculation = 0) {
    lastOutcome = RunOutcome::EngineNotStarted;
    const DialogTemplate* dialog = findDialogTemplate("DL_SPIN");
    if (dialog == nullptr) return lastOutcome;
    spinTarget = calculation;
    dialogBox(*dialog, spinBar);
    spinTarget = 0;
    lastOutcome = spinRun ? spinRun->outcome() : RunOutcome::NoResults;
    spinRun.reset();
    return lastOutcome;
}

void closeCover() {
    if (shell.host != nullptr) shell.host->closeCover();
}

const std::vector<FileFilter> inputFilters = {{"Fitting input files (*.qpi)", "*.qpi"},
                                              {"ALL Files (*.*)", "*.*"}};
const std::vector<FileFilter> reportFilters = {{"Fitting output files (*.qpo)", "*.qpo"},
                                               {"ALL Files (*.*)", "*.*"}};

// The input cycle of New and Open on runState.inputPath.
void fitInputFile() {
    closeInfoDialogs(); // their calculations belong to the problem being left
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
    closeInfoDialogs();
    if (plotReport(path)) refreshAfterLoad(false);
}

void plotCommand() {
    closeCover();
    OpenFileRequest request{reportFilters, 1, "QPO", runState.reportPath};
    const std::optional<std::string> chosen = chooseOpenFile(request);
    if (!chosen) return;
    plotFile(*chosen);
}

void recalculateCommand() {
    // The current calculation is the one the engine input was written from; without one, the
    // newest.
    const FitDocument& doc = fitDocument;
    const int k = doc.currentCalculation;
    const int target = k >= 0 && k < doc.calculationCount ? k + 1 : 0;
    beginRecalculation();
    if (runEngineDialog(target) == RunOutcome::Fitted) refreshAfterLoad(true);
}

bool lastRunGaveResults() { return lastOutcome == RunOutcome::Fitted; }

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
    showLoadedPlot(doc.currentCalculation); // shown flags, chiT, scalePlot()
    if (shell.host != nullptr) shell.host->invalidate(true);
}

} // namespace corvane
