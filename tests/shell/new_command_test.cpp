// File > New with stand-in companions: scripts that CORVANE_NEWQPI names, which store a name
// through qpname_helper (as newQPI stores the file it saved) or store none.
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>

#include "fit/fit_document.h"
#include "fit/run_state.h"
#include "platform/resources.h"
#include "plot/plot_settings.h"
#include "qpname/qpname.h"
#include "shell/commands.h"
#include "shell_fixture.h"

namespace corvane {
namespace {

class NewCommandTest : public testing::ShellTest {
protected:
    void SetUp() override {
        ShellTest::SetUp();
        if (const char* runtime = std::getenv("XDG_RUNTIME_DIR")) savedRuntime_ = runtime;
        setenv("XDG_RUNTIME_DIR", dir.path().c_str(), 1); // the store of this test alone
    }
    void TearDown() override {
        unsetenv("CORVANE_NEWQPI");
        if (savedRuntime_.empty())
            unsetenv("XDG_RUNTIME_DIR");
        else
            setenv("XDG_RUNTIME_DIR", savedRuntime_.c_str(), 1);
        ShellTest::TearDown();
    }
    // The stand-in companion newqpi.sh runs body.
    void useCompanion(const std::string& body) {
        const std::string path = dir.write("newqpi.sh", "#!/bin/sh\n" + body + "\n");
        std::filesystem::permissions(path, std::filesystem::perms::owner_all);
        setenv("CORVANE_NEWQPI", path.c_str(), 1);
    }
    static std::string helper() { return std::string(CORVANE_BIN_DIR) + "/qpname_helper"; }

private:
    std::string savedRuntime_;
};

TEST_F(NewCommandTest, TheFileTheCompanionStoresIsFittedAsOpenFitsIt) {
    const std::string input = dir.write("new dimer.qpi", testing::dimerInput);
    useCompanion("\"" + helper() + "\" set \"" + input + "\"");
    useEngine(std::string("printf '") + testing::dimerOutput + "' > \"$out\"");
    expectProgress();
    runCommand(idmNew);
    EXPECT_FALSE(host.coverOpen);
    EXPECT_TRUE(messages.messages.empty());
    EXPECT_EQ(runState.inputPath, input);
    EXPECT_EQ(runState.reportPath, dir.file("new dimer.qpo"));
    EXPECT_TRUE(dir.has("new dimer.qpo"));
    EXPECT_EQ(fitDocument.calculationCount, 1);
    EXPECT_EQ(plotSettings.plotLoaded, 1);
    EXPECT_EQ(get_qpname(), ""); // taken once
}

TEST_F(NewCommandTest, NoNameStoredOrNoCompanionLeavesThePlotAsItWas) {
    // Cancelled in the companion: silent, and a name left from before is not taken.
    runState.inputPath = dir.file("earlier.qpi");
    std::string error;
    ASSERT_TRUE(set_qpname(dir.write("stale.qpi", testing::dimerInput), error)) << error;
    useCompanion("exit 0");
    runCommand(idmNew);
    EXPECT_FALSE(host.coverOpen);
    EXPECT_TRUE(messages.messages.empty());
    EXPECT_EQ(runState.inputPath, "");
    EXPECT_EQ(fitDocument.calculationCount, 0);

    // A companion that is missing or cannot be run: the error box, nothing else.
    for (const std::string& program : {dir.file("missing"), dir.write("not-executable", "")}) {
        setenv("CORVANE_NEWQPI", program.c_str(), 1);
        messages.messages.clear();
        runCommand(idmNew);
        ASSERT_EQ(messages.messages.size(), 1u) << program;
        EXPECT_EQ(messages.messages[0].text, "Unable to create input file for fitting!");
        EXPECT_EQ(plotSettings.plotLoaded, 0);
    }
}

} // namespace
} // namespace corvane
