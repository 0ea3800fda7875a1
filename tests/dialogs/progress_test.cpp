// The progress dialog on its own: stand-in engines that print iterations, fail or never start,
// the dialog driven through the headless host.
#include <chrono>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "dialogs/progress.h"
#include "fit/fit_document.h"
#include "fit/run_cycle.h"
#include "fit/run_state.h"
#include "platform/headless_dialog.h"
#include "resources/dialog_ids.h"
#include "support/fixtures.h"
#include "support/run_fixture.h"
#include "support/stand_in_engine.h"

namespace corvane {
namespace {

using C = SpinControl;

class ProgressDialogTest : public testing::RunTest {
protected:
    // A run of the engine whose script prints iterations 1 to n and then body; the dialog is fed
    // until it ends or waits for Close, and what it shows then is kept.
    RunOutcome run(int iterations, const std::string& body) {
        testing::useScriptEngine(dir, "i=1; while [ $i -le " + std::to_string(iterations) +
                                          " ]; do echo \"iteration $i deviation 0.5\"; "
                                          "i=$((i+1)); done\n" +
                                          body);
        EXPECT_TRUE(beginInputCycle());
        dialogs.expect("DL_SPIN", [this](HeadlessDialog& d) {
            for (int round = 0; round < 2000 && !d.hasEnded() && d.tick(); ++round)
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            status = d.text(C::statusLine);
            cells.clear();
            for (int cell = 0; cell < C::cellCount; ++cell)
                cells.push_back(d.isChecked(C::firstCell + cell));
            closeOffered = d.isEnabled(C::close);
            if (!d.hasEnded()) d.click(C::close);
        });
        return runProgressDialog(0, [this] { ++logsShown; });
    }
    // The cells filled, from the first.
    int filled() const {
        int n = 0;
        while (n < static_cast<int>(cells.size()) && cells[static_cast<std::size_t>(n)]) ++n;
        for (std::size_t k = static_cast<std::size_t>(n); k < cells.size(); ++k)
            if (cells[k]) return -1; // a gap
        return n;
    }

    HeadlessDialogPort dialogs;
    std::string status;
    std::vector<bool> cells;
    bool closeOffered = false;
    int logsShown = 0;
};

TEST_F(ProgressDialogTest, EachIterationFillsACellAndAFullRowStartsAgain) {
    const std::string results = std::string("printf '") + testing::dimerOutput + "' > \"$out\"";
    EXPECT_EQ(run(3, results), RunOutcome::Fitted);
    EXPECT_EQ(filled(), 3);
    EXPECT_EQ(status, "Iteration 3: squared deviation 0.5");
    EXPECT_EQ(fitDocument.calculationCount, 1);

    EXPECT_EQ(run(C::cellCount, results), RunOutcome::Fitted);
    EXPECT_EQ(filled(), C::cellCount);
    EXPECT_EQ(run(C::cellCount + 2, results), RunOutcome::Fitted);
    EXPECT_EQ(filled(), 2);
    EXPECT_EQ(filledCells(1), 1);
    EXPECT_EQ(filledCells(2 * C::cellCount), C::cellCount);
}

TEST_F(ProgressDialogTest, BeforeTheFirstIterationItShowsTheEstimateAndACellRunsAlong) {
    testing::useScriptEngine(dir, "echo 'setup S blocks: dimension 4; a fit takes about 90 s'\n"
                                  "sleep 30");
    ASSERT_TRUE(beginInputCycle());
    std::vector<int> lit;
    dialogs.expect("DL_SPIN", [&](HeadlessDialog& d) {
        for (int round = 0; round < 2000 && d.text(C::statusLine).find("90 s") == std::string::npos;
             ++round) {
            d.tick();
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        status = d.text(C::statusLine);
        for (int step = 0; step < 2; ++step) {
            for (int tick = 0; tick < 5; ++tick) d.tick();
            for (int cell = 0; cell < C::cellCount; ++cell)
                if (d.isChecked(C::firstCell + cell)) lit.push_back(cell);
        }
        d.click(C::interrupt);
        d.click(C::interrupt); // at once
        for (int round = 0; round < 2000 && !d.hasEnded() && d.tick(); ++round)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        if (!d.hasEnded()) d.click(C::close);
    });
    runProgressDialog(0, nullptr);
    EXPECT_EQ(status, "Fitting: a fit takes about 90 s; the first iteration comes soon...");
    ASSERT_EQ(lit.size(), 2u); // one cell at a time, moving on
    EXPECT_NE(lit[0], lit[1]);
}

TEST_F(ProgressDialogTest, WithoutResultsItStaysWithTheReasonAndClose) {
    EXPECT_EQ(run(1, "exit 3"), RunOutcome::NoResults);
    EXPECT_TRUE(closeOffered);
    EXPECT_NE(status.find("exit code 3"), std::string::npos) << status;
    EXPECT_TRUE(port.messages.empty()); // the dialog says it, not a message box

    setenv("CORVANE_ENGINE", dir.file("none").c_str(), 1);
    EXPECT_TRUE(beginInputCycle());
    dialogs.expect("DL_SPIN", [this](HeadlessDialog& d) {
        status = d.text(C::statusLine);
        EXPECT_FALSE(d.isEnabled(C::interrupt) || d.isEnabled(C::logFile));
        d.click(C::logFile); // disabled: nothing
        d.click(C::close);
    });
    EXPECT_EQ(runProgressDialog(0, [this] { ++logsShown; }), RunOutcome::EngineNotStarted);
    EXPECT_EQ(status, engineStartFailedText);
    EXPECT_EQ(logsShown, 0);
}

} // namespace
} // namespace corvane
