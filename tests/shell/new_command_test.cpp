// File > New with stand-in companions: scripts that CORVANE_NEWQPI names, which store a name
// through qpname_helper (as newQPI stores the file it saved, with the window's token) or store
// none, or plant files where the store is looked for.
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

#include "fit/fit_document.h"
#include "fit/run_state.h"
#include "plot/plot_settings.h"
#include "qpname/qpname.h"
#include "resources/resources.h"
#include "shell/commands.h"
#include "support/shell_fixture.h"

namespace corvane {
namespace {

class NewCommandTest : public testing::ShellTest {
protected:
    void SetUp() override {
        ShellTest::SetUp();
        for (const char* name : {"XDG_RUNTIME_DIR", "XDG_CACHE_HOME"})
            if (const char* value = std::getenv(name)) saved_.emplace_back(name, value);
        // The name store of this test alone.
        std::filesystem::create_directory(runtime);
        std::filesystem::permissions(runtime, std::filesystem::perms::owner_all);
        setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1);
        setenv("XDG_CACHE_HOME", dir.file("cache").c_str(), 1);
    }
    void TearDown() override {
        for (const char* name : {"CORVANE_NEWQPI", "XDG_RUNTIME_DIR", "XDG_CACHE_HOME"})
            unsetenv(name);
        for (const auto& [name, value] : saved_) setenv(name.c_str(), value.c_str(), 1);
        ShellTest::TearDown();
    }
    // The stand-in companion newqpi.sh runs body with the arguments the window gives it.
    void useCompanion(const std::string& body) {
        const std::string path = dir.write("newqpi.sh", "#!/bin/sh\n" + body + "\n");
        std::filesystem::permissions(path, std::filesystem::perms::owner_all);
        setenv("CORVANE_NEWQPI", path.c_str(), 1);
    }
    // The companion's body that saves input, as newQPI does with the window's token.
    static std::string saving(const std::string& input) {
        return "\"" + helper() + "\" \"$@\" set \"" + input + "\"";
    }
    static std::string helper() { return std::string(CORVANE_BIN_DIR) + "/qpname_helper"; }
    // Nothing was taken from the store: no message, no input file, no fit.
    void expectNothingFitted(const std::string& what) {
        EXPECT_TRUE(messages.messages.empty()) << what;
        EXPECT_EQ(runState.inputPath, "") << what;
        EXPECT_EQ(fitDocument.calculationCount, 0) << what;
        EXPECT_EQ(plotSettings.plotLoaded, 0) << what;
    }

    const std::string runtime = dir.file("run");

private:
    std::vector<std::pair<std::string, std::string>> saved_;
};

TEST_F(NewCommandTest, TheFileTheCompanionStoresIsFittedAsOpenFitsIt) {
    const std::string input = dir.write("new dimer.qpi", testing::dimerInput);
    useCompanion(saving(input));
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
    EXPECT_EQ(testing::ScratchDir::listingOf(runtime), ""); // taken once
}

TEST_F(NewCommandTest, NoNameStoredOrNoCompanionLeavesThePlotAsItWas) {
    // Cancelled in the companion while a newQPI started by hand and one that another window
    // started save their files: neither is this window's, and it stays silent.
    runState.inputPath = dir.file("earlier.qpi");
    const std::string other = dir.write("other.qpi", testing::dimerInput);
    useCompanion("\"" + helper() + "\" set \"" + other + "\"\n\"" + helper() +
                 "\" --qpname-token 0123456789abcdef0123456789abcdef set \"" + other + "\"\nexit 0");
    runCommand(idmNew);
    EXPECT_FALSE(host.coverOpen);
    expectNothingFitted("cancelled");

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

TEST_F(NewCommandTest, WhatAnotherUserPlantsInASharedRuntimeDirectoryIsNeverFitted) {
    // The runtime directory is a shared sticky folder. Another user plants the store's file, as
    // a file or a symbolic link, under the name it had and under the name with the token that
    // the companion's command line shows, while the user cancels.
    std::filesystem::permissions(
        runtime, std::filesystem::perms::all | std::filesystem::perms::sticky_bit);
    const std::string planted = dir.write("planted.qpi", testing::dimerInput);
    const std::string note = dir.write("note", planted);
    const std::string plants[] = {"printf %s \"" + planted + "\" >", "ln -s \"" + note + "\""};
    for (const std::string& plant : plants) {
        for (const auto& entry : std::filesystem::directory_iterator(runtime))
            std::filesystem::remove(entry.path());
        useCompanion(plant + " \"$XDG_RUNTIME_DIR/corvane-qpname\"\n" + plant +
                     " \"$XDG_RUNTIME_DIR/corvane-qpname-$2\"\nexit 0");
        runCommand(idmNew);
        expectNothingFitted(plant);
    }

    // The user's own newQPI still hands its file over, through a store of the user's own.
    const std::string input = dir.write("mine.qpi", testing::dimerInput);
    useCompanion(saving(input));
    useEngine(std::string("printf '") + testing::dimerOutput + "' > \"$out\"");
    expectProgress();
    runCommand(idmNew);
    EXPECT_EQ(runState.inputPath, input);
    EXPECT_EQ(fitDocument.calculationCount, 1);
    EXPECT_EQ(testing::ScratchDir::listingOf(dir.file("cache/corvane")), "");
}

} // namespace
} // namespace corvane
