// corvane-fit as a user runs it: exit codes, what it prints, what it leaves on disk.
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>

#include "support/scratch_dir.h"

namespace corvane {
namespace {

struct Outcome {
    int exitCode;
    std::string out;
    std::string err;
};

class CorvaneFitTest : public ::testing::Test {
protected:
    // Runs corvane-fit with the given arguments (each quoted as one argument).
    Outcome run(std::initializer_list<std::string> arguments) {
        std::string command = "'" CORVANE_BIN_DIR "/corvane-fit'";
        for (const std::string& argument : arguments) command += " '" + argument + "'";
        command += " >'" + dir.file(".out") + "' 2>'" + dir.file(".err") + "'";
        const int status = std::system(command.c_str());
        Outcome result{WIFEXITED(status) ? WEXITSTATUS(status) : -1, dir.read(".out"), dir.read(".err")};
        std::filesystem::remove(dir.file(".out"));
        std::filesystem::remove(dir.file(".err"));
        return result;
    }

    testing::ScratchDir dir;
};

TEST_F(CorvaneFitTest, PrepareWritesTheExchangeFilesAndSaysWhere) {
    std::filesystem::create_directory(dir.file("my data"));
    const std::string input = dir.file("my data/cu2-dimer.qpi");
    std::filesystem::copy_file(CORVANE_SOURCE_DIR "/examples/cu2-dimer.qpi", input);
    const Outcome result = run({"prepare", input});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.err, "");
    EXPECT_NE(result.out.find("2 sites, 1 interaction, 1 J value, 50 chiT pairs, energies in cm-1"),
              std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("Wrote " + dir.file("my data/input.txt") + "\n"), std::string::npos);
    EXPECT_NE(result.out.find("Wrote " + dir.file("my data/chit.txt") + "\n"), std::string::npos);
    EXPECT_TRUE(dir.has("my data/input.txt"));
    EXPECT_TRUE(dir.has("my data/chit.txt"));
}

TEST_F(CorvaneFitTest, FailuresGoToTheErrorStreamWithANonZeroExit) {
    const Outcome limit = run({"prepare", dir.write("big.qpi", "J_VALUE11 1 1\n")});
    EXPECT_EQ(limit.exitCode, 1);
    EXPECT_EQ(limit.err, "Error: Maximum J values are 10 !\n");
    EXPECT_EQ(limit.out, "");
    EXPECT_FALSE(dir.has("input.txt"));

    const Outcome missing = run({"prepare", dir.file("none.qpi")});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_NE(missing.err.find(dir.file("none.qpi") + ": No such file or directory"),
              std::string::npos);

    EXPECT_NE(run({}).exitCode, 0);
    EXPECT_NE(run({"prepare"}).exitCode, 0);
    EXPECT_NE(run({"frobnicate", "x.qpi"}).exitCode, 0);
    EXPECT_EQ(run({"--help"}).exitCode, 0);
}

} // namespace
} // namespace corvane
