// Running the fitting engine on the exchange files in workDir, and waiting for it.
//
// The engine is `corefit`: the program named by the environment variable CORVANE_ENGINE when
// that is set, else the one beside the running executable, else the one on the search path.
// It reads workDir/input.txt and the data exchange file and leaves its results in
// workDir/output.txt; whether it produced results is known only from that file.
#pragma once

#include <string>

#include "fit/run_state.h"

namespace corvane {

inline constexpr const char* engineProgramName = "corefit";
inline constexpr const char* engineLogName = "corefit.log"; // the engine's log, beside input.txt

// Status texts of a run, as the progress dialog shows them.
inline constexpr const char* engineRunningText = "Fitting is being processed. Please wait...";
inline constexpr const char* engineStartFailedText = "Unable to fit magnetic susceptibility !";

// What the window or terminal around a run does while the engine works. Every call comes on
// the thread that called runEngine.
class EngineProgress {
public:
    virtual ~EngineProgress() = default;
    // The run's status changed: engineRunningText once started, engineStartFailedText when the
    // engine could not be started.
    virtual void status(const std::string& text) { (void)text; }
    // A progress line of the engine ("iteration 3 deviation 0.0012 g=2.01 ..."), as it comes.
    virtual void line(const std::string& text) { (void)text; }
    // Asked every few milliseconds while the engine runs, until it returns true: true stops
    // the engine at its next iteration; it then writes the best result found so far.
    virtual bool interruptRequested() { return false; }
    // Asked every few milliseconds once the engine has been asked to stop (the user asked a
    // second time): true ends the engine at once; it leaves no results then.
    virtual bool killRequested() { return false; }
};

// The engine to run: CORVANE_ENGINE when set, else corefit beside this program or on the
// search path; "" when there is none.
std::string engineProgram();

// Starts the engine on workDir + "/input.txt" (one argument) and waits until it has ended,
// passing its progress to progress (which may be null). Beeps when the engine has ended and
// when it could not be started. Returns false when it could not be started.
bool runEngine(EngineProgress* progress);

// One sentence on why a run left no results, for a message: "the fitting engine could not be
// started (...)", "the fitting engine stopped: <its message>", "... was killed (signal 9)",
// "... was stopped at once at the second interrupt".
std::string engineFailureText(const EngineRun& run);

// What to add, in one sentence, to the results of a run that left them: "" after a converged
// fit and after an interrupt the user asked for; "the fit stopped at its iteration limit before
// converging; the report holds the last values" after corefit's exit code 1; else
// engineFailureText.
std::string engineNoteText(const EngineRun& run);

} // namespace corvane
