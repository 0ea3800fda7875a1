// corvane-fit as a user runs it: exit codes, what it prints, what it leaves on disk.
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>

#include "support/fixtures.h"

namespace corvane {
namespace {

struct Outcome {
    int exitCode;
    std::string out, err;
};

// Runs corvane-fit with the arguments, each passed as one argument.
Outcome run(const testing::ScratchDir& dir, std::initializer_list<std::string> arguments) {
    std::string command = "'" CORVANE_BIN_DIR "/corvane-fit'";
    for (const std::string& argument : arguments) command += " '" + argument + "'";
    command += " >'" + dir.file(".out") + "' 2>'" + dir.file(".err") + "'";
    const int status = std::system(command.c_str());
    Outcome outcome{WIFEXITED(status) ? WEXITSTATUS(status) : -1, dir.read(".out"),
                    dir.read(".err")};
    std::filesystem::remove(dir.file(".out"));
    std::filesystem::remove(dir.file(".err"));
    return outcome;
}

TEST(CorvaneFit, PrepareWritesTheExchangeFilesAndSaysWhere) {
    testing::ScratchDir dir;
    std::filesystem::create_directory(dir.file("my data"));
    const std::string input = dir.file("my data/cu2-dimer.qpi");
    std::filesystem::copy_file(CORVANE_SOURCE_DIR "/examples/cu2-dimer.qpi", input);
    const Outcome outcome = run(dir, {"prepare", input});
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    EXPECT_EQ(outcome.err, "");
    EXPECT_NE(
        outcome.out.find("2 sites, 1 interaction, 1 J value, 50 chiT pairs, energies in cm-1"),
        std::string::npos)
        << outcome.out;
    EXPECT_NE(outcome.out.find("Wrote " + dir.file("my data/chit.txt") + "\n"), std::string::npos);
    EXPECT_TRUE(dir.has("my data/input.txt") && dir.has("my data/chit.txt"));
}

TEST(CorvaneFit, EveryBundledExampleIsReadWithoutComplaint) {
    testing::ScratchDir dir;
    int examples = 0;
    for (const auto& entry : std::filesystem::directory_iterator(CORVANE_SOURCE_DIR "/examples")) {
        if (entry.path().extension() != ".qpi") continue;
        ++examples;
        std::filesystem::copy_file(entry.path(), dir.file("example.qpi"),
                                   std::filesystem::copy_options::overwrite_existing);
        const Outcome outcome = run(dir, {"prepare", dir.file("example.qpi")});
        EXPECT_EQ(outcome.exitCode, 0) << entry.path();
        EXPECT_EQ(outcome.err, "") << entry.path();
        EXPECT_EQ(outcome.out.find(" 0 "), std::string::npos) << outcome.out; // no count is 0
    }
    EXPECT_GE(examples, 3);
}

TEST(CorvaneFit, FailuresGoToTheErrorStreamWithANonZeroExit) {
    testing::ScratchDir dir;
    const Outcome limit = run(dir, {"prepare", dir.write("big.qpi", "J_VALUE11 1 1\n")});
    EXPECT_EQ(limit.exitCode, 1);
    EXPECT_EQ(limit.err, "Error: Maximum J values are 10 !\n");
    EXPECT_EQ(limit.out, "");
    EXPECT_FALSE(dir.has("input.txt"));

    const Outcome missing = run(dir, {"prepare", dir.file("none.qpi")});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_NE(missing.err.find(dir.file("none.qpi") + ": No such file or directory"),
              std::string::npos);

    for (auto arguments : {std::initializer_list<std::string>{}, {"prepare"}, {"fit", "x.qpi"}})
        EXPECT_NE(run(dir, arguments).exitCode, 0);
}

} // namespace
} // namespace corvane
