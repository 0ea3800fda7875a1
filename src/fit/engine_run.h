// Running the fitting engine on the exchange files in workDir: step by step with an
// EngineRunner, which a window drives from its event loop, or to its end with runEngine.
//
// The engine is `corefit`: the program named by the environment variable CORVANE_ENGINE when
// that is set, else the one beside the running executable, else the one on the search path.
// It reads workDir/input.txt and the data exchange file and leaves its results in
// workDir/output.txt; whether it produced results is known only from that file.
#pragma once

#include <ctime>
#include <string>

#include "fit/run_state.h"
#include "platform/process.h"

namespace corvane {

inline constexpr const char* engineProgramName = "corefit";
inline constexpr const char* engineLogName = "corefit.log"; // the engine's log, beside input.txt

// Status texts of a run, as the progress dialog shows them.
inline constexpr const char* engineRunningText = "Fitting is being processed. Please wait...";
inline constexpr const char* engineStartFailedText = "Unable to fit magnetic susceptibility !";

// What the window or terminal around a run does while the engine works. Every call comes on
// the thread that drives the run, from within the EngineRunner call named; none may start
// another run or wait for this one.
class EngineProgress {
public:
    virtual ~EngineProgress() = default;
    // The run's status changed: engineRunningText once started, engineStartFailedText when the
    // engine could not be started (from EngineRunner::start).
    virtual void status(const std::string& text) { (void)text; }
    // A progress line of the engine ("iteration 3 deviation 0.0012 g=2.01 ..."), as it comes
    // (from EngineRunner::feed).
    virtual void line(const std::string& text) { (void)text; }
    // For runEngine: asked every few milliseconds while the engine runs, until it returns true:
    // true stops the engine at its next iteration; it then writes the best result found so far.
    virtual bool interruptRequested() { return false; }
    // For runEngine: asked every few milliseconds once the engine has been asked to stop (the user
    // asked a second time): true ends the engine at once; it leaves no results then.
    virtual bool killRequested() { return false; }
};

// The engine to run: CORVANE_ENGINE when set, else corefit beside this program or on the
// search path; "" when there is none.
std::string engineProgram();

// One run of the engine, driven by its caller: start, then feed (or pump) until it returns
// false, with requestInterrupt and requestKill in between as the user asks, then finish. A
// window watches descriptor() in its event loop and calls pump() when it is ready, so it never
// waits; corvane-fit waits in feed. Nothing here starts an event loop of its own.
class EngineRunner {
public:
    // progress (which may be null) gets the run's status and lines; it must outlive the runner.
    explicit EngineRunner(EngineProgress* progress = nullptr);
    EngineRunner(const EngineRunner&) = delete;
    EngineRunner& operator=(const EngineRunner&) = delete;
    // An engine still running is killed and reaped, and runState is left as it was.
    ~EngineRunner() = default;

    // Finds the engine and starts it on workDir + "/input.txt" (one argument); clears
    // runState.lastEngineRun. Reports engineRunningText, or engineStartFailedText after a beep
    // and returns false; finish then records why. Call once.
    bool start();

    // Ready for reading whenever pump has something to do, from start until the runner goes
    // away (for a QSocketNotifier); -1 when the engine was not started.
    int descriptor() const { return engine_.readyDescriptor(); }

    // Waits at most timeoutMs (0: not at all) for the engine to write or end, and hands every
    // line that arrived to progress->line. Returns whether the engine may still write; false
    // once it has ended and all its output has been handed over, or when it never started.
    bool feed(int timeoutMs);
    bool pump() { return feed(0); }
    bool running() const { return running_; }

    // The user's first request: the engine stops at its next iteration and writes the best
    // result found so far (SIGTERM). The second: it is stopped at once and leaves no results
    // (SIGKILL). Each has an effect once, and none before start or after the end; keep feeding
    // until feed returns false.
    void requestInterrupt();
    void requestKill();

    // Reaps the engine and records how the run ended, in run() and runState.lastEngineRun; beeps
    // when it had started. An engine still running is killed first (and waited for).
    const EngineRun& finish();
    const EngineRun& run() const { return run_; }

private:
    EngineProgress silent_; // progress when none is given
    EngineProgress* progress_;
    ChildProgram engine_;
    EngineRun run_;
    std::time_t started_ = 0;
    bool running_ = false;
    bool finished_ = false;
};

// Runs the engine with an EngineRunner until it has ended, passing its progress to progress
// (which may be null) and asking it every few milliseconds whether the user wants to interrupt
// or kill the engine. Returns false when the engine could not be started.
bool runEngine(EngineProgress* progress);

// One sentence on why a run left no results, for a message: "the fitting engine could not be
// started (...)", "the fitting engine stopped: <its message>", "... was killed (signal 9)",
// "... was stopped at once at the second interrupt".
std::string engineFailureText(const EngineRun& run);

// What to add, in one sentence, to the results of a run that left them: "" after a converged
// fit and after an interrupt the user asked for; "the fit stopped at its iteration limit before
// converging; the report holds the last values" after corefit's exit code 1, a sentence on the
// plateau after its exit code 6; else
// engineFailureText.
std::string engineNoteText(const EngineRun& run);

} // namespace corvane
