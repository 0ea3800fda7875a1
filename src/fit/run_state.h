// The run state of the program: which files the current document is fitted from and into, where
// the engine works, and how its last run ended. One record, so that a window and corvane-fit
// see the same state and a test can start afresh with runState.reset().
#pragma once

#include <string>

namespace corvane {

// How a run of the engine went, for the messages that follow it.
struct EngineRun {
    bool started = false;
    std::string program;      // the engine that was run or looked for
    std::string startFailure; // why it could not be started
    bool exited = false;      // ended by itself, with exitCode
    int exitCode = -1;
    int signal = 0;           // the signal that ended it, when it did not exit
    bool interrupted = false; // the user asked it to stop
    bool killed = false;      // and then to stop at once, and it was killed
    // The engine's last message: the last line on its error stream or, when it failed without
    // one, the reason at the end of the log it wrote.
    std::string message;
};

struct RunState {
    // The input file being fitted; "" until New or Open sets it.
    std::string inputPath;
    // The report of the document; "" until a fit or Plot sets it.
    std::string reportPath;
    // The working directory of the document, without a trailing '/': where the engine reads
    // input.txt and the data exchange file and writes output.txt. The private folder made for
    // the latest run (see openRunDirectory), the report's directory after a report has been
    // loaded; "." (the current directory) until then.
    std::string workDir = ".";
    // The folder made for the latest run, which closeRunDirectory may remove; "" when none.
    std::string runDirectory;
    // How the last run of the engine ended.
    EngineRun lastEngineRun;

    void reset() { *this = RunState{}; }
};

// The run state of this process.
extern RunState runState;

} // namespace corvane
