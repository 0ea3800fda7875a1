// What the run cycle's tests share: a copper dimer's input file in a scratch folder, a fresh
// document and run state, stand-in engines, and a record of the run's progress.
#pragma once

#include <cstdlib>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <vector>

#include "fit/engine_run.h"
#include "fit/fit_document.h"
#include "fit/run_state.h"
#include "support/fixtures.h"
#include "support/stand_in_engine.h"

namespace corvane::testing {

struct Recorder final : EngineProgress {
    void status(const std::string& text) override { statuses.push_back(text); }
    void line(const std::string& text) override { lines.push_back(text); }
    std::vector<std::string> statuses, lines;
};

class RunTest : public ::testing::Test {
protected:
    void SetUp() override {
        resetFitDocument();
        runState.reset();
        runState.inputPath = dir.write("cu2.qpi", testing::dimerInput);
    }
    void TearDown() override { unsetenv("CORVANE_ENGINE"); }

    // An engine script: body runs with $out set to the output file beside the input file.
    void useEngine(const std::string& body) { testing::useScriptEngine(dir, body); }
    void useGoodEngine() {
        useEngine(std::string("echo 'iteration 1 deviation 0.5'\necho 'iteration 2 deviation "
                              "0.0125'\nprintf '") +
                  testing::dimerOutput + "' > \"$out\"");
    }

    testing::ScratchDir dir;
    testing::RecordingPort port;
    Recorder progress;
};

// As an event loop drives a run: waits until the runner's descriptor is ready, then pumps.
inline bool waitAndPump(EngineRunner& runner) {
    if (!runner.running()) return false;
    pollfd ready{runner.descriptor(), POLLIN, 0};
    EXPECT_EQ(::poll(&ready, 1, 60000), 1) << "the descriptor never became ready";
    return runner.pump();
}

} // namespace corvane::testing
