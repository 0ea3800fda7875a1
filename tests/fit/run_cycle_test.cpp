// The run cycle with stand-in engines: each is a small script named by CORVANE_ENGINE.
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <vector>

#include "fit/exchange_files.h"
#include "fit/report.h"
#include "fit/run_cycle.h"
#include "support/fixtures.h"
#include "support/run_fixture.h"
#include "support/stand_in_engine.h"

namespace corvane {
namespace {

using testing::dimerInput;
using testing::dimerOutput;

// Re-calculate as the window does it, after writeDialogEngineInput: the results go to the newest
// calculation.
RunOutcome recalculate(EngineProgress* progress) {
    beginRecalculation();
    runEngine(progress);
    return completeRun();
}

using RunCycleTest = testing::RunTest;

TEST(RunCyclePaths, TheReportIsAlwaysBesideItsInputFile) {
    const std::pair<const char*, const char*> reports[] = {
        {"/fits/dimerInput.qpi", "/fits/dimerInput.qpo"},
        {"/my fits/a.b.qpi", "/my fits/a.b.qpo"},
        {"/dir/dot.dir/noext/fitfile", "/dir/dot.dir/noext/fitfile.qpo"},
        {"plain/fitfile", "plain/fitfile.qpo"},
        {"a.b", "a.qpo"},
        {"/fits/.hidden", "/fits/.hidden.qpo"},
    };
    for (const auto& [input, report] : reports) EXPECT_EQ(deriveReportPath(input), report);
}

TEST_F(RunCycleTest, AFailedRunLeavesReportAndDocumentAsTheyWereAndSaysWhy) {
    useGoodEngine();
    ASSERT_EQ(runInputCycle(nullptr), RunOutcome::Fitted);
    fitDocument.currentCalculation = 0;
    fitDocument.calculations[0].g.start = 2.2; // as the parameter dialog would edit it
    const std::string report = dir.read("cu2.qpo");
    const std::string document = reportText(fitDocument, "");

    const struct {
        const char* name;
        std::string engine; // script body; empty: no engine at all
        RunOutcome outcome;
        std::string message;
    } faults[] = {
        {"missing", "", RunOutcome::EngineNotStarted,
         "The fit gave no results: the fitting engine could not be started (" + dir.file("none") +
             ": No such file or directory)."},
        {"no output", "echo 'corefit: input.txt line 4: site 2 has spin 0' >&2; exit 2",
         RunOutcome::NoResults,
         "The fit gave no results: the fitting engine stopped with exit code 2: corefit: "
         "input.txt line 4: site 2 has spin 0."},
        {"silent", "exit 0", RunOutcome::NoResults,
         "The fit gave no results: the fitting engine ended without leaving results."},
        {"truncated", "head -n 7 > \"$out\" <<EOF\n" + std::string(dimerOutput) + "EOF",
         RunOutcome::NoResults,
         "/output.txt cannot be used: it ends after 1 of its 2 pair lines."},
        {"killed", "echo 'iteration 1'; printf '0.1 2' > \"$out\"; kill -9 $$",
         RunOutcome::NoResults, " (the fitting engine was killed by signal 9 (Killed))."},
    };
    for (const auto& fault : faults) {
        SCOPED_TRACE(fault.name);
        port.messages.clear();
        if (fault.engine.empty())
            setenv("CORVANE_ENGINE", dir.file("none").c_str(), 1);
        else
            useEngine(fault.engine);
        ASSERT_TRUE(writeDialogEngineInput(0));
        dir.write("output.txt", dimerOutput); // a file of that name beside is never taken
        EXPECT_EQ(recalculate(&progress), fault.outcome);
        EXPECT_EQ(dir.read("cu2.qpo"), report);
        EXPECT_EQ(reportText(fitDocument, ""), document);
        ASSERT_EQ(port.messages.size(), 1u);
        const std::string& text = port.messages[0].text;
        EXPECT_NE(text.find(fault.message), std::string::npos) << text;
        EXPECT_NE(text.find(dir.file("cu2.qpo") + " was not changed."), std::string::npos);
    }
    EXPECT_EQ(progress.statuses.front(), engineStartFailedText);
}

TEST_F(RunCycleTest, AnInterruptBeforeAnyResultIsSaidAsSuch) {
    EngineRun run;
    run.started = run.exited = run.interrupted = true;
    run.exitCode = 3;
    EXPECT_EQ(engineFailureText(run), "the fit was interrupted before it had any result");
    run.interrupted = false; // the engine stopped by someone else
    EXPECT_EQ(engineFailureText(run), "the fitting engine stopped with exit code 3");
}

TEST_F(RunCycleTest, AReportLoadedForPlottingCanBeFittedAgainWithTheRealEngine) {
    setenv("CORVANE_ENGINE", CORVANE_BIN_DIR "/corefit", 1);
    ASSERT_EQ(runInputCycle(nullptr), RunOutcome::Fitted) << port.messages.at(0).text;
    const std::string report = runState.reportPath;

    // Plot from elsewhere: the document is the report alone, and its directory the work place.
    resetFitDocument();
    fitDocument.calculationCount = 3;
    runState.workDir = "/nonexistent";
    for (const char* name : {"input.txt", "chit.txt", "cu2.qpi"})
        std::filesystem::remove(dir.file(name));
    ASSERT_TRUE(plotReport(report));
    EXPECT_EQ(fitDocument.calculationCount, 1);
    EXPECT_EQ(runState.workDir, dir.path());

    fitDocument.calculationCount = 2; // Add New
    fitDocument.calculations[1] = fitDocument.calculations[0];
    ASSERT_TRUE(writeDialogEngineInput(1));
    ASSERT_EQ(recalculate(nullptr), RunOutcome::Fitted) << port.messages.at(0).text;
    EXPECT_NE(dir.read("cu2.qpo").find("Calculation # 2 "), std::string::npos);
    EXPECT_NEAR(fitDocument.calculations[1].j[0].fitted, fitDocument.calculations[0].j[0].fitted,
                1e-3);

    // A report without a calculation is no plot, and leaves everything as it was.
    const std::string head = dir.read("cu2.qpo").substr(0, dir.read("cu2.qpo").find("\n\n***"));
    EXPECT_FALSE(plotReport(dir.write("empty.qpo", head)));
    EXPECT_EQ(fitDocument.calculationCount, 2);
    EXPECT_EQ(runState.reportPath, report);
    EXPECT_NE(port.messages.back().text.find("holds no fit results"), std::string::npos);
}

} // namespace
} // namespace corvane
