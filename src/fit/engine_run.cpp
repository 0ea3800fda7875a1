#include "fit/engine_run.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>
#include <sys/stat.h>

#include "fit/exchange_files.h"
#include "platform/files.h"
#include "platform/messages.h"
#include "platform/process.h"
#include "text/text.h"

namespace corvane {

namespace {

constexpr int pollMilliseconds = 50;

// The exit codes with which corefit leaves results (docs/corefit.md).
constexpr int engineIterationLimit = 1;
constexpr int engineInterrupted = 3;
constexpr int enginePlateau = 6;

bool leftResults(const EngineRun& run) {
    return run.exited && (run.exitCode == engineIterationLimit ||
                          run.exitCode == engineInterrupted || run.exitCode == enginePlateau);
}

// The last line of text that holds more than blanks; "" when there is none.
std::string lastLine(std::string_view text) {
    while (!text.empty()) {
        const std::size_t end = text.find_last_not_of(" \t\r\n");
        if (end == std::string_view::npos) return "";
        text = text.substr(0, end + 1);
        const std::size_t start = text.find_last_of('\n');
        std::string_view line = text.substr(start == std::string_view::npos ? 0 : start + 1);
        line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
        if (!line.empty()) return std::string(line);
        text = text.substr(0, start == std::string_view::npos ? 0 : start);
    }
    return "";
}

// The reason the engine gave at the end of its log, when the log was written by this run: its
// last line, or the line before a closing "exit code ..." line.
std::string logMessage(const std::string& logPath, std::time_t started) {
    struct stat info {};
    if (::stat(logPath.c_str(), &info) != 0 || info.st_mtime + 1 < started) return "";
    std::string log, ignored;
    if (!readWholeFile(logPath, log, ignored)) return "";
    std::string last = lastLine(log);
    if (last.rfind("exit code", 0) == 0) {
        log.resize(log.rfind(last));
        last = lastLine(log);
    }
    return last;
}

} // namespace

std::string engineProgram() {
    const char* named = std::getenv("CORVANE_ENGINE");
    if (named != nullptr && *named != '\0') return findProgram(named);
    return findProgram(engineProgramName);
}

EngineRunner::EngineRunner(EngineProgress* progress)
    : progress_(progress != nullptr ? progress : &silent_) {}

bool EngineRunner::start() {
    runState.lastEngineRun = EngineRun{};
    run_ = EngineRun{};
    run_.program = engineProgram();
    if (run_.program.empty()) {
        const char* named = std::getenv("CORVANE_ENGINE");
        run_.startFailure = named != nullptr && *named != '\0'
                                ? formatC("%s (CORVANE_ENGINE) was not found", named)
                                : formatC("%s was found neither beside this program nor on the "
                                          "search path",
                                          engineProgramName);
    } else if (std::string reason;
               !engine_.start(run_.program, {inWorkDir(engineInputName)}, reason)) {
        run_.startFailure = run_.program + ": " + reason;
    } else {
        run_.started = true;
    }
    if (!run_.started) {
        runState.lastEngineRun = run_;
        messageBeep(0);
        progress_->status(engineStartFailedText);
        return false;
    }
    started_ = std::time(nullptr);
    running_ = true;
    progress_->status(engineRunningText);
    return true;
}

bool EngineRunner::feed(int timeoutMs) {
    if (!running_) return false;
    EngineProgress& report = *progress_;
    running_ = engine_.poll(timeoutMs, [&](const std::string& text) { report.line(text); });
    return running_;
}

void EngineRunner::requestInterrupt() {
    if (!running_ || run_.interrupted) return;
    run_.interrupted = true;
    engine_.interrupt();
}

void EngineRunner::requestKill() {
    if (!running_ || run_.killed) return;
    run_.interrupted = true;
    run_.killed = true;
    engine_.kill();
}

const EngineRun& EngineRunner::finish() {
    if (finished_ || !run_.started) {
        finished_ = true;
        runState.lastEngineRun = run_;
        return run_;
    }
    if (running_) requestKill();
    while (feed(pollMilliseconds)) {
    }
    finished_ = true;
    run_.exited = engine_.exitedNormally();
    run_.exitCode = engine_.exitCode();
    run_.signal = engine_.signalNumber();
    run_.message = lastLine(engine_.errorOutput());
    if (run_.message.empty() && run_.exited && run_.exitCode != 0 && !leftResults(run_))
        run_.message = logMessage(inWorkDir(engineLogName), started_);
    runState.lastEngineRun = run_;
    messageBeep(0);
    return run_;
}

bool runEngine(EngineProgress* progress) {
    EngineProgress silent;
    EngineProgress& report = progress != nullptr ? *progress : silent;
    EngineRunner runner(&report);
    if (runner.start()) {
        while (runner.feed(pollMilliseconds)) {
            if (!runner.run().interrupted && report.interruptRequested()) runner.requestInterrupt();
            if (runner.run().interrupted && !runner.run().killed && report.killRequested())
                runner.requestKill();
        }
    }
    return runner.finish().started;
}

std::string engineFailureText(const EngineRun& run) {
    if (!run.started) {
        return "the fitting engine could not be started (" + run.startFailure + ")";
    }
    if (run.killed && !run.exited)
        return "the fitting engine was stopped at once at the second interrupt";
    std::string text;
    if (run.interrupted && run.exited && run.exitCode == engineInterrupted) {
        text = "the fit was interrupted before it had any result";
    } else if (run.exited && run.exitCode == 0) {
        text = "the fitting engine ended without leaving results";
    } else if (run.exited) {
        text = formatC("the fitting engine stopped with exit code %d", run.exitCode);
    } else {
        const char* name = strsignal(run.signal);
        text = formatC("the fitting engine was killed by signal %d (%s)", run.signal,
                       name != nullptr ? name : "unknown");
    }
    if (!run.message.empty()) text += ": " + run.message;
    return text;
}

std::string engineNoteText(const EngineRun& run) {
    if (!run.started || run.interrupted || (run.exited && run.exitCode == 0)) return "";
    if (run.exited && run.exitCode == engineIterationLimit)
        return "the fit stopped at its iteration limit before converging; the report holds the "
               "last values";
    if (run.exited && run.exitCode == enginePlateau)
        return "the fit stopped on a plateau, where the deviation no longer fell although it was "
               "not at a minimum; the report holds the last values";
    if (run.exited && run.exitCode == engineInterrupted)
        return "the fitting engine was interrupted before converging; the report holds the best "
               "values found";
    return engineFailureText(run);
}

} // namespace corvane
