// One run of the engine driven as a window drives it: lines handed over as they come, the
// user's interrupt and kill, a start that fails; stand-in engines named by CORVANE_ENGINE.
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "fit/engine_run.h"
#include "fit/exchange_files.h"
#include "fit/run_cycle.h"
#include "support/run_fixture.h"

namespace corvane {
namespace {

using testing::dimerOutput;
using EngineRunTest = testing::RunTest;
using testing::Recorder;
using testing::waitAndPump;

TEST_F(EngineRunTest, ARunnerHandsOverLinesAsTheyComeAndStopsTheEngineAsAsked) {
    const std::string waitForever = "echo 'iteration 1'\nwhile :; do sleep 0.02; done";
    const struct {
        const char* name;
        std::string engine; // script body; empty: no engine at all
        int stops;          // requests to stop, once the first line has come
        bool exited;
        int exitCode, signal;
        bool leftOutput;
    } runs[] = {
        {"to its end",
         std::string("echo 'iteration 1'; echo 'iteration 2'; printf '") + dimerOutput +
             "' > \"$out\"",
         0, true, 0, 0, true},
        // The first request: the engine writes its best result so far and exits with 3.
        {"interrupted",
         std::string("trap 'printf \"") + dimerOutput + "\" > \"$out\"; exit 3' TERM\n" +
             waitForever,
         1, true, 3, 0, true},
        // The second: an engine that goes on after the first is stopped at once.
        {"killed", "trap 'echo still running' TERM\n" + waitForever, 2, false, -1, 9, false},
    };
    runState.workDir = dir.path();
    ASSERT_TRUE(prepareRun(runState.inputPath));
    for (const auto& r : runs) {
        SCOPED_TRACE(r.name);
        useEngine(r.engine);
        progress = Recorder{};
        EngineRunner runner(&progress);
        ASSERT_TRUE(runner.start());
        EXPECT_EQ(progress.statuses, std::vector<std::string>{engineRunningText});
        // An engine that ends by itself may end in the pump that brings its first line.
        while (progress.lines.empty() && waitAndPump(runner)) {
        }
        ASSERT_FALSE(progress.lines.empty());
        EXPECT_EQ(progress.lines.front(), "iteration 1");
        if (r.stops >= 1) runner.requestInterrupt();
        if (r.stops >= 2) {
            while (progress.lines.back() != "still running" && waitAndPump(runner)) {
            }
            runner.requestKill();
        }
        while (waitAndPump(runner)) {
        }
        const EngineRun run = runner.finish();
        EXPECT_TRUE(run.started);
        EXPECT_EQ(run.exited, r.exited);
        EXPECT_EQ(run.exitCode, r.exitCode);
        EXPECT_EQ(run.signal, r.signal);
        EXPECT_EQ(run.interrupted, r.stops >= 1);
        EXPECT_EQ(run.killed, r.stops >= 2);
        EXPECT_EQ(runState.lastEngineRun.exitCode, r.exitCode);
        EXPECT_EQ(dir.has("output.txt"), r.leftOutput);
        if (r.stops == 0) {
            EXPECT_EQ(progress.lines, (std::vector<std::string>{"iteration 1", "iteration 2"}));
        }
        std::filesystem::remove(dir.file("output.txt"));
    }

    // An engine that cannot be started says so at start, and finish records why.
    setenv("CORVANE_ENGINE", dir.file("none").c_str(), 1);
    progress = Recorder{};
    EngineRunner runner(&progress);
    EXPECT_FALSE(runner.start());
    EXPECT_EQ(progress.statuses, std::vector<std::string>{engineStartFailedText});
    EXPECT_FALSE(runner.pump());
    const EngineRun run = runner.finish();
    EXPECT_FALSE(run.started);
    EXPECT_EQ(run.startFailure, dir.file("none") + ": No such file or directory");
    EXPECT_EQ(runState.lastEngineRun.startFailure, run.startFailure);
}

} // namespace
} // namespace corvane
