#include <filesystem>
#include <gtest/gtest.h>
#include <string>

#include "fit/exchange_files.h"
#include "fit/fit_document.h"
#include "fit/run_cycle.h"
#include "platform/files.h"
#include "support/fixtures.h"

namespace corvane {
namespace {

class ExchangeFilesTest : public ::testing::Test {
protected:
    void SetUp() override { resetFitDocument(); }
    void TearDown() override { failNthFileWrite(0); }

    testing::ScratchDir dir;
    testing::RecordingPort port;
};

const char* const dimer = "KEYWD DATA_FILE=XTT ENERGY_UNIT=CM-1 PRECISION=0.0001\n"
                          "KEYWD G_START=2.0 G_STEP=0.01\nJ_VALUE1 -100 1\n"
                          "SPIN_ON_SITE1 1\nSPIN_ON_SITE2 1\n"
                          "INTERACTION sites 1 and 2 coupled by J1\nT_CHI 2 -0.5\n";

TEST_F(ExchangeFilesTest, PreparingWritesExactFormatsOverItsOwnFilesOnly) {
    // The user's own files of other names, and an exchange file of an earlier run, stay or are
    // replaced; nothing is deleted, and a failed read changes nothing.
    dir.write("chi.txt", "the user's raw data");
    dir.write("output.txt", "the user's notes");
    dir.write("chit.txt", "3, 1, 3\n1 1\n2 2\n3 3\n");
    ASSERT_TRUE(prepareRun(dir.write("cu2.qpi", dimer)));
    EXPECT_EQ(dir.read("input.txt"), "0, 0, 0\n2\n1\n1\n5, 0.000100\n"
                                     "2.000000, 0.010000\n0.000000, 0.000000\n"
                                     "0.000000, 0.000000\n0.000000, 0.000000\n"
                                     "-100.000000, 1.000000\n1, 2, 5\n");
    EXPECT_EQ(dir.read("chit.txt"), "1, 1, 1\n2.000000  -0.500000\n");
    EXPECT_EQ(dir.read("chi.txt"), "the user's raw data");
    EXPECT_EQ(dir.read("output.txt"), "the user's notes");

    EXPECT_FALSE(prepareRun(dir.write("bad.qpi", "SPIN_ON_SITE21 1\n")));
    EXPECT_EQ(dir.listing(), "bad.qpi chi.txt chit.txt cu2.qpi input.txt output.txt");

    // A file of the user's under an exchange file's name is not replaced, nor is an input file
    // named like one.
    dir.write("input.txt", "notes");
    EXPECT_FALSE(prepareRun(dir.file("cu2.qpi")));
    EXPECT_NE(port.messages.back().text.find("input.txt is not an exchange file"),
              std::string::npos);
    EXPECT_EQ(dir.read("input.txt"), "notes");
    const std::string named = dir.file("chit.txt");
    std::filesystem::copy_file(dir.file("cu2.qpi"), named,
                               std::filesystem::copy_options::overwrite_existing);
    std::filesystem::remove(dir.file("input.txt"));
    EXPECT_FALSE(prepareRun(named));
    EXPECT_EQ(dir.read("chit.txt"), dimer);
}

TEST_F(ExchangeFilesTest, TheEngineGetsTheUsersNumbersExactly) {
    // Six decimals where they hold the value, as many more as it takes elsewhere.
    ASSERT_TRUE(prepareRun(
        dir.write("afm.qpi", "KEYWD DATA_FILE=XT PRECISION=0.0000001 G_START=2.1 G_STEP=0.0000004\n"
                             "KEYWD C_START=0.1234567890123\nJ_VALUE1 -300 0.5\nSPIN_ON_SITE1 1\n"
                             "SPIN_ON_SITE2 1\nINTERACTION sites 1 and 2 coupled by J1\n"
                             "T_CHI 2.5 0.00012345678\nT_CHI 300 1.5e-3\n")));
    EXPECT_EQ(dir.read("input.txt"), "0, 0, 1\n2\n1\n1\n5, 0.0000001\n"
                                     "2.100000, 0.0000004\n0.1234567890123, 0.000000\n"
                                     "0.000000, 0.000000\n0.000000, 0.000000\n"
                                     "-300.000000, 0.500000\n1, 2, 5\n");
    EXPECT_EQ(dir.read("chi.txt"), "2, 1, 2\n2.500000  0.00012345678\n300.000000  0.001500\n");
}

TEST_F(ExchangeFilesTest, ExchangeFilesGoBesideTheInputFile) {
    EXPECT_EQ(directoryOf("/data/cu2.qpi"), "/data");
    EXPECT_EQ(directoryOf("/cu2.qpi"), "");
    EXPECT_EQ(directoryOf("cu2.qpi"), ".");
    EXPECT_EQ(directoryOf("runs/a.b/cu2"), "runs/a.b");

    // Blanks and dots in directory names, and a path far longer than 256 characters.
    std::string nested = "my fits/set 1.2";
    for (int level = 0; level < 12; ++level) nested += "/a directory of measurements";
    std::filesystem::create_directories(dir.file(nested));
    ASSERT_TRUE(prepareRun(dir.write(nested + "/cu2.qpi", dimer)));
    EXPECT_TRUE(dir.has(nested + "/input.txt") && dir.has(nested + "/chit.txt"));
}

TEST_F(ExchangeFilesTest, AFileThatCannotBeWrittenIsNamedAndNothingIsHalfWritten) {
    std::filesystem::create_directory(dir.file("input.txt"));
    EXPECT_FALSE(prepareRun(dir.write("cu2.qpi", dimer)));
    ASSERT_EQ(port.messages.size(), 1u);
    EXPECT_EQ(port.messages[0].text.rfind("Cannot write " + dir.file("input.txt") + ": ", 0), 0u);
    EXPECT_EQ(dir.listing(), "cu2.qpi input.txt");
    std::filesystem::remove(dir.file("input.txt"));

    // The disk fills while the data file is written: no file of the run stays behind.
    failNthFileWrite(2);
    EXPECT_FALSE(prepareRun(dir.file("cu2.qpi")));
    EXPECT_EQ(dir.listing(), "cu2.qpi");

    // The disk fills while the data file is rewritten: both earlier files stay whole.
    ASSERT_TRUE(prepareRun(dir.file("cu2.qpi")));
    const std::string before = dir.read("chit.txt"), input = dir.read("input.txt");
    fitDocument.pairs[0].observed = 99.0;
    fitDocument.calculations[0].g.start = 2.5;
    failNthFileWrite(2);
    EXPECT_FALSE(writeExchangeFiles(dir.file("input.txt"), dir.file("chit.txt")));
    EXPECT_EQ(port.messages.back().text,
              "Cannot write " + dir.file("chit.txt") + ": No space left on device");
    EXPECT_EQ(dir.read("chit.txt"), before);
    EXPECT_EQ(dir.read("input.txt"), input);
    EXPECT_EQ(dir.listing(), "chit.txt cu2.qpi input.txt");
}

TEST_F(ExchangeFilesTest, TheDialogWritesItsCalculationWhereTheEngineReadsIt) {
    ASSERT_TRUE(prepareRun(dir.write("cu2.qpi", dimer)));
    fitDocument.calculationCount = 2;
    fitDocument.calculations[1] = fitDocument.calculations[0];
    fitDocument.calculations[1].g.start = 2.25;
    ASSERT_TRUE(writeDialogEngineInput(1)); // in a run folder of its own
    std::string input, reason;
    ASSERT_TRUE(readWholeFile(inWorkDir(engineInputName), input, reason)) << reason;
    EXPECT_NE(input.find("\n2.250000, 0.010000\n"), std::string::npos);
    EXPECT_TRUE(fileExists(inWorkDir(chitDataName))); // the data go with it, as the document holds them
    EXPECT_EQ(std::filesystem::status(runState.workDir).permissions(),
              std::filesystem::perms::owner_all);
    closeRunDirectory(false);
    EXPECT_FALSE(std::filesystem::exists(runState.workDir));

    for (int calculation : {-1, 2})
        EXPECT_FALSE(writeDialogEngineInput(calculation)) << calculation;
}

} // namespace
} // namespace corvane
