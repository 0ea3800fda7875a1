#include <gtest/gtest.h>
#include <filesystem>
#include <string>

#include "fit/exchange_files.h"
#include "fit/fit_document.h"
#include "platform/files.h"
#include "support/recording_port.h"
#include "support/scratch_dir.h"

namespace corvane {
namespace {

class ExchangeFilesTest : public ::testing::Test {
protected:
    void SetUp() override {
        resetFitDocument();
        exchangeDirectory = std::string(".");
    }
    void TearDown() override { failNthFileWrite(0); }

    testing::ScratchDir dir;
    testing::RecordingPort port;
};

// Two sites of spin 1, one J value, cm-1, chiT, tolerance 0.0001, g from 2.0 in steps of 0.01,
// J1 from -100 in steps of 1.
const char* const dimerInput = "TITLE dimer\n"
                               "KEYWD DATA_FILE=XTT ENERGY_UNIT=CM-1 PRECISION=0.0001\n"
                               "KEYWD G_START=2.0 G_STEP=0.01\n"
                               "J_VALUE1 -100 1\n"
                               "SPIN_ON_SITE1 1\nSPIN_ON_SITE2 1\n"
                               "INTERACTION sites 1 and 2 coupled by J1\n"
                               "T_CHI 2 -0.5\nT_CHI 300 0.75\n";

TEST_F(ExchangeFilesTest, WritesTheEngineFilesInTheirExactFormat) {
    ASSERT_TRUE(prepareRun(dir.write("cu2.qpi", dimerInput)));
    EXPECT_EQ(dir.read("input.txt"), "0, 0, 0\n2\n1\n1\n5, 0.000100\n"
                                     "2.000000, 0.010000\n0.000000, 0.000000\n"
                                     "0.000000, 0.000000\n0.000000, 0.000000\n"
                                     "-100.000000, 1.000000\n1, 2, 5\n");
    EXPECT_EQ(dir.read("chit.txt"), "2, 1, 2\n2.000000  -0.500000\n300.000000  0.750000\n");
    EXPECT_EQ(dir.listing(), "chit.txt cu2.qpi input.txt");
    EXPECT_EQ(exchangeDirectory, dir.path());
}

TEST_F(ExchangeFilesTest, WithoutJValuesOrInteractionsTheFileEndsEarlier) {
    ASSERT_TRUE(prepareRun(dir.write("one.qpi", "KEYWD DATA_FILE=XT ENERGY_UNIT=K\n"
                                                "SPIN_ON_SITE1 5\nT_CHI 10 0.4\n")));
    EXPECT_EQ(dir.read("input.txt"), "0, 2, 1\n1\n5\n4, 0.000000\n"
                                     "0.000000, 0.000000\n0.000000, 0.000000\n"
                                     "0.000000, 0.000000\n0.000000, 0.000000\n");
    EXPECT_EQ(dir.read("chi.txt"), "1, 1, 1\n10.000000  0.400000\n");
}

TEST_F(ExchangeFilesTest, PreparingRemovesTheExchangeFilesOfEarlierRuns) {
    dir.write("chi.txt", "stale");
    dir.write("output.txt", "kept for the run cycle");
    ASSERT_TRUE(prepareRun(dir.write("cu2.qpi", dimerInput)));
    EXPECT_EQ(dir.listing(), "chit.txt cu2.qpi input.txt output.txt");

    // A failed read leaves all three deleted and writes none.
    EXPECT_FALSE(prepareRun(dir.write("bad.qpi", "SPIN_ON_SITE21 1\n")));
    EXPECT_EQ(dir.listing(), "bad.qpi cu2.qpi output.txt");
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
    const std::string input = dir.write(nested + "/cu2.qpi", dimerInput);
    ASSERT_GT(input.size(), 300u);
    ASSERT_TRUE(prepareRun(input));
    EXPECT_TRUE(dir.has(nested + "/input.txt"));
    EXPECT_TRUE(dir.has(nested + "/chit.txt"));
    EXPECT_EQ(exchangeDirectory, dir.file(nested));
}

TEST_F(ExchangeFilesTest, AFileThatCannotBeWrittenIsNamedAndNothingIsHalfWritten) {
    std::filesystem::create_directory(dir.file("input.txt"));
    EXPECT_FALSE(prepareRun(dir.write("cu2.qpi", dimerInput)));
    ASSERT_EQ(port.messages.size(), 1u);
    EXPECT_EQ(port.messages[0].text.rfind("Cannot write " + dir.file("input.txt") + ": ", 0), 0u);
    EXPECT_EQ(dir.listing(), "cu2.qpi input.txt");
    std::filesystem::remove(dir.file("input.txt"));

    // The disk fills while the data file is written: the earlier one stays whole.
    ASSERT_TRUE(prepareRun(dir.file("cu2.qpi")));
    const std::string before = dir.read("chit.txt");
    fitDocument.pairs[0].observed = 99.0;
    failNthFileWrite(1);
    EXPECT_FALSE(writeEngineData(dir.file("chit.txt")));
    EXPECT_EQ(port.messages.back().text,
              "Cannot write " + dir.file("chit.txt") + ": No space left on device");
    EXPECT_EQ(dir.read("chit.txt"), before);
    EXPECT_EQ(dir.listing(), "chit.txt cu2.qpi input.txt");
}

TEST_F(ExchangeFilesTest, TheDialogWritesItsCalculationWhereTheEngineReadsIt) {
    ASSERT_TRUE(prepareRun(dir.write("cu2.qpi", dimerInput)));
    fitDocument.calculationCount = 2;
    fitDocument.calculations[1] = fitDocument.calculations[0];
    fitDocument.calculations[1].g.start = 2.25;
    fitDocument.currentCalculation = 1;
    ASSERT_TRUE(writeDialogEngineInput());
    EXPECT_NE(dir.read("input.txt").find("\n2.250000, 0.010000\n"), std::string::npos);
    EXPECT_EQ(dir.read("input.txt"), engineInputText(fitDocument, 2));

    fitDocument.currentCalculation = -1;
    EXPECT_FALSE(writeDialogEngineInput());
    fitDocument.currentCalculation = 2; // beyond the calculations held
    EXPECT_FALSE(writeDialogEngineInput());
    EXPECT_EQ(port.messages.size(), 2u);
}

} // namespace
} // namespace corvane
