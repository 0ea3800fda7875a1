#include "dialogs/progress.h"

#include <cstdio>
#include <memory>

#include "fit/engine_run.h"
#include "fit/run_state.h"
#include "resources/dialog_ids.h"
#include "resources/resources.h"
#include "text/text.h"

namespace corvane {

namespace {

using C = SpinControl;
constexpr int feedMilliseconds = 50;
constexpr int waitingTicks = 5; // the running cell moves every 250 ms

// The engine's estimate of one fit from its setup line ("setup ...; a fit takes about 27.3 s");
// 0 when the line gives none.
double setupEstimate(const std::string& text) {
    if (text.rfind("setup ", 0) != 0) return 0;
    const std::size_t at = text.rfind("about ");
    double seconds = 0;
    if (at == std::string::npos || std::sscanf(text.c_str() + at, "about %lf s", &seconds) != 1)
        return 0;
    return seconds;
}

std::string waitingText(double seconds) {
    if (seconds < 1) return "Fitting: the first iteration comes in a moment...";
    if (seconds < 120)
        return formatC("Fitting: a fit takes about %.0f s; the first iteration comes soon...",
                       seconds);
    return formatC("Fitting: a fit takes about %.0f min; waiting for the first iteration...",
                   seconds / 60);
}

// One run of the engine inside the dialog: the dialog shows the engine's latest progress line
// and fills a cell per iteration.
class SpinRun final : public EngineProgress {
public:
    SpinRun(Dialog& dialog, int calculation)
        : dialog_(dialog), runner_(this), calculation_(calculation) {}

    void status(const std::string& text) override { dialog_.setText(C::statusLine, text); }
    void line(const std::string& text) override {
        int iteration = 0;
        double deviation = 0;
        const double estimate = setupEstimate(text);
        if (estimate > 0 && !iterated_) dialog_.setText(C::statusLine, waitingText(estimate));
        if (std::sscanf(text.c_str(), "iteration %d deviation %lf", &iteration, &deviation) == 2) {
            iterated_ = true;
            dialog_.setText(C::statusLine,
                            formatC("Iteration %d: squared deviation %g", iteration, deviation));
            const int filled = filledCells(iteration);
            for (int cell = 0; cell < C::cellCount; ++cell)
                dialog_.setChecked(C::firstCell + cell, cell < filled);
        }
    }

    void start() {
        for (int id : {C::interrupt, C::logFile, C::close}) dialog_.disable(id);
        for (int cell = 0; cell < C::cellCount; ++cell)
            dialog_.setChecked(C::firstCell + cell, false);
        if (!runner_.start()) {
            runner_.finish();
            ended(); // the start failure, with the beep the runner gave
            return;
        }
        dialog_.enable(C::interrupt);
        dialog_.enable(C::logFile);
        dialog_.setTimer(feedMilliseconds);
    }

    void feed() {
        // Until the first iteration, one cell runs along the row: the engine is at work.
        if (!iterated_ && ++ticks_ % waitingTicks == 0) {
            const int lit = (ticks_ / waitingTicks - 1) % C::cellCount;
            for (int cell = 0; cell < C::cellCount; ++cell)
                dialog_.setChecked(C::firstCell + cell, cell == lit);
        }
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
            dialog_.setText(C::statusLine, "Interrupting: the engine stops at its next iteration "
                                           "and keeps its best fit so far...");
        } else {
            runner_.requestKill();
        }
    }

    bool running() const { return runner_.running(); }
    RunOutcome outcome() const { return outcome_; }

private:
    // The engine has ended (or never started): the report from its results, or the reason.
    void ended() {
        dialog_.disable(C::interrupt);
        dialog_.disable(C::logFile);
        std::string problem;
        outcome_ = completeRun(&problem, calculation_);
        if (outcome_ == RunOutcome::Fitted) {
            dialog_.end(1);
            return;
        }
        dialog_.setText(C::statusLine,
                        runState.lastEngineRun.started ? problem : engineStartFailedText);
        dialog_.enable(C::close);
        dialog_.setFocus(C::close);
    }

    Dialog& dialog_;
    EngineRunner runner_;
    int calculation_; // the calculation (from 1) that takes the results; 0 the newest
    bool interrupted_ = false;
    bool iterated_ = false; // the first iteration has been reported
    int ticks_ = 0;
    RunOutcome outcome_ = RunOutcome::NoResults;
};

} // namespace

int filledCells(int iteration) { return (iteration - 1) % C::cellCount + 1; }

RunOutcome runProgressDialog(int calculation, const ShowLog& showLog) {
    const DialogTemplate* dialog = findDialogTemplate("DL_SPIN");
    if (dialog == nullptr) return RunOutcome::EngineNotStarted;
    std::unique_ptr<SpinRun> run;
    dialogBox(*dialog, [&](Dialog& d, DialogMessage message, int control, Notification) {
        switch (message) {
        case DialogMessage::Initialise:
            run = std::make_unique<SpinRun>(d, calculation);
            run->start();
            return std::intptr_t{1};
        case DialogMessage::Timer:
            if (run) run->feed();
            return std::intptr_t{1};
        case DialogMessage::Command:
            if (control == C::interrupt && run) run->interrupt();
            if (control == C::logFile && showLog) showLog();
            if (control == C::close && !(run && run->running())) d.end(1);
            return std::intptr_t{1};
        case DialogMessage::Close: // the close box asks the engine to stop first
            if (run && run->running())
                run->interrupt();
            else
                d.end(1);
            return std::intptr_t{1};
        }
        return std::intptr_t{0};
    });
    return run ? run->outcome() : RunOutcome::NoResults;
}

} // namespace corvane
