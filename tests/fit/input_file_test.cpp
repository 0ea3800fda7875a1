#include <gtest/gtest.h>
#include <string>

#include "fit/exchange_files.h"
#include "fit/fit_document.h"
#include "support/recording_port.h"
#include "support/scratch_dir.h"

namespace corvane {
namespace {

class InputFileTest : public ::testing::Test {
protected:
    void SetUp() override { resetFitDocument(); }

    // Writes text as problem.qpi and prepares a run of it.
    bool read(const std::string& text) { return prepareRun(dir.write("problem.qpi", text)); }

    const Calculation& first() const { return fitDocument.calculations[0]; }

    testing::ScratchDir dir;
    testing::RecordingPort port;
};

std::string repeated(const std::string& line, int times) {
    std::string text;
    for (int i = 0; i < times; ++i) text += line;
    return text;
}

TEST_F(InputFileTest, ReadsAWholeProblemWrittenInAnyCase) {
    ASSERT_TRUE(read("! a copper dimer\n"
                     "title Cu2 Dimer in MeOH\n"
                     "keywd data_file=xt energy_unit=mev precision=1e-4\n"
                     "Keywd g_start=2.05 g_step=0.01 c_start=.002 c_step=0.0001\n"
                     "KEYWD ZJ_START=-0.5 ZJ_STEP=0.1 XTIP_START=1.2E-4 XTIP_STEP=0\n"
                     "\n"
                     "j_value1 -120.5 2\n"
                     "J_VALUE2 15 0.5\n"
                     "spin_on_site1 1\n"
                     "SPIN_ON_SITE2 2\n"
                     "interaction sites 1 and 2 coupled by J2\n"
                     "INTERACTION sites 2 and 1 coupled by J1\n"
                     "t_chi 2.0 0.0123\n"
                     "T_CHI   300   1.5e-3  \n"));
    EXPECT_TRUE(port.messages.empty());
    const FitDocument& doc = fitDocument;
    EXPECT_EQ(doc.title, "Cu2 Dimer in MeOH");
    EXPECT_EQ(doc.dataKind, DataKind::Chi);
    EXPECT_EQ(doc.energyUnit, EnergyUnit::MeV);
    EXPECT_EQ(doc.calculationCount, 1);
    EXPECT_DOUBLE_EQ(first().tolerance, 1e-4);
    EXPECT_DOUBLE_EQ(first().g.start, 2.05);
    EXPECT_DOUBLE_EQ(first().c.start, 0.002);
    EXPECT_DOUBLE_EQ(first().c.step, 0.0001);
    EXPECT_DOUBLE_EQ(first().zJ.start, -0.5);
    EXPECT_DOUBLE_EQ(first().tip.start, 1.2e-4);
    ASSERT_EQ(doc.jCount, 2);
    EXPECT_DOUBLE_EQ(first().j[0].start, -120.5);
    EXPECT_DOUBLE_EQ(first().j[1].step, 0.5);
    ASSERT_EQ(doc.siteCount, 2);
    EXPECT_EQ(doc.sites[1].spin, 2);
    ASSERT_EQ(doc.interactionCount, 2);
    EXPECT_EQ(doc.interactions[0].siteA, 1);
    EXPECT_EQ(doc.interactions[0].siteB, 2);
    EXPECT_EQ(doc.interactions[0].parameterIndex, 6);
    EXPECT_EQ(doc.interactions[1].parameterIndex, 5);
    ASSERT_EQ(doc.pairCount, 2);
    EXPECT_DOUBLE_EQ(doc.pairs[1].temperature, 300);
    EXPECT_DOUBLE_EQ(doc.pairs[1].observed, 1.5e-3);
    EXPECT_EQ(first().firstPair, 1);
    EXPECT_EQ(first().lastPair, 2);
}

TEST_F(InputFileTest, CommentsAreWholeLinesButRunsTestOnlyTheirKeyword) {
    ASSERT_TRUE(read("KEYWD G_START=3 C_START=1 ! not read\n"
                     "J_VALUE1 1 0\n"
                     "J_VALUE2 2 0 ! read: it follows a J_VALUE line\n"
                     "  ! J_VALUE3 3 0 ends the run only if it lacks the keyword: read too\n"
                     "\n"
                     "! J_VALUE4 4 0 starts no run\n"
                     "T_CHI 1 1\n"
                     "T_CHI 2 2 ! in a run\n"
                     "! T_CHI 3 3 in a run as well\n"
                     "SPIN_ON_SITE1 1\n"
                     "T_CHI 4 4\n"));
    EXPECT_EQ(first().g.start, 0.0);
    EXPECT_EQ(fitDocument.jCount, 3);
    EXPECT_EQ(first().j[2].start, 3.0);
    EXPECT_EQ(first().j[3].start, 0.0);
    ASSERT_EQ(fitDocument.pairCount, 4);
    EXPECT_EQ(fitDocument.pairs[3].temperature, 4.0);
}

TEST_F(InputFileTest, SettingsFollowTheirOwnMatchingRules) {
    ASSERT_TRUE(read("KEYWD DATA_FILE=XTT\n"));
    EXPECT_EQ(fitDocument.dataKind, DataKind::ChiT);
    ASSERT_TRUE(read("KEYWD DATA_FILE=XT\n"));
    EXPECT_EQ(fitDocument.dataKind, DataKind::Chi);
    ASSERT_TRUE(read("KEYWD ENERGY_UNIT=K\n"));
    EXPECT_EQ(fitDocument.dataKind, DataKind::Chi); // no DATA_FILE: left as it was
    EXPECT_EQ(fitDocument.energyUnit, EnergyUnit::Kelvin);
    ASSERT_TRUE(read("KEYWD ENERGY_UNIT=JOULE\n"));
    EXPECT_EQ(fitDocument.energyUnit, EnergyUnit::Cm1);
    ASSERT_TRUE(read("KEYWD ENERGY_UNIT=CM-1 DATA_FILE=CHI NOTE=K\n"));
    EXPECT_EQ(fitDocument.energyUnit, EnergyUnit::Kelvin); // "=K" found last wins
    ASSERT_TRUE(read("KEYWD DATA_FILE=CHI COMMENT=XTT\n"));
    EXPECT_EQ(fitDocument.dataKind, DataKind::ChiT); // "XTT" anywhere in the line

    // A name counts only after a blank; a value ends at the next blank.
    ASSERT_TRUE(read("KEYWD XG_START=5 G_STEP= 2 C_START=1.5mol PRECISION=3\tZJ_START=4\n"));
    EXPECT_EQ(first().g.start, 0.0);
    EXPECT_EQ(first().g.step, 0.0);
    EXPECT_EQ(first().c.start, 1.5);
    EXPECT_EQ(first().tolerance, 3.0);
    EXPECT_EQ(first().zJ.start, 0.0);
}

TEST_F(InputFileTest, CountsComeFromTheLastNumberOrTheLines) {
    ASSERT_TRUE(read("J_VALUE1 1 0\nJ_VALUE3 3 0\nJ_VALUE2 2 0\n"
                     "SPIN_ON_SITE1 1\nSPIN_ON_SITE20 5\n"
                     "J_VALUE10 7 1\n"));
    EXPECT_EQ(fitDocument.jCount, 10);
    EXPECT_EQ(first().j[9].start, 7.0);
    EXPECT_EQ(fitDocument.siteCount, 20);
    EXPECT_EQ(fitDocument.sites[19].spin, 5);
    ASSERT_TRUE(read("J_VALUE1 1 0\nJ_VALUE3 3 0\nJ_VALUE2 2 0\n"));
    EXPECT_EQ(fitDocument.jCount, 2);
    EXPECT_EQ(fitDocument.siteCount, 0);
    EXPECT_EQ(fitDocument.interactionCount, 0);
    EXPECT_EQ(fitDocument.pairCount, 0);
}

TEST_F(InputFileTest, MissingOrMalformedTokensReadAsZero) {
    ASSERT_TRUE(read("T_CHI 5\n"
                     "T_CHI\t5 6\n" // tabs are not separators: the temperature is "6"
                     "T_CHI five 6\n"
                     "INTERACTION sites 1 and 2\n"
                     "J_VALUE1\n"
                     "SPIN_ON_SITE1"));
    ASSERT_EQ(fitDocument.pairCount, 3);
    EXPECT_EQ(fitDocument.pairs[0].observed, 0.0);
    EXPECT_EQ(fitDocument.pairs[1].temperature, 6.0);
    EXPECT_EQ(fitDocument.pairs[1].observed, 0.0);
    EXPECT_EQ(fitDocument.pairs[2].temperature, 0.0);
    EXPECT_EQ(fitDocument.interactions[0].parameterIndex, 4);
    EXPECT_EQ(fitDocument.jCount, 1);
    EXPECT_EQ(fitDocument.siteCount, 1);
    EXPECT_EQ(fitDocument.sites[0].spin, 0);
}

TEST_F(InputFileTest, TitleIsTakenAsWrittenFromItsSeventhCharacter) {
    ASSERT_TRUE(read("TITLE Fe3 Triangle \r\nT_CHI 1 2\r\nT_CHI 3 4\r\n"));
    EXPECT_EQ(fitDocument.title, "Fe3 Triangle ");
    EXPECT_EQ(fitDocument.pairCount, 2);
    EXPECT_EQ(fitDocument.pairs[1].observed, 4.0);

    ASSERT_TRUE(read("TITLE\n"));
    EXPECT_EQ(fitDocument.title, "");
    ASSERT_TRUE(read("  title x\n"));
    EXPECT_EQ(fitDocument.title, "e x");

    ASSERT_TRUE(read("TITLE " + std::string(125, 'a') + "\n"));
    EXPECT_EQ(fitDocument.title, std::string(119, 'a'));

    // A line longer than 131 characters is read as pieces, each a line of its own.
    ASSERT_TRUE(read("TITLE " + std::string(125, 'b') + "T_CHI 5 6\n"));
    EXPECT_EQ(fitDocument.title, std::string(119, 'b'));
    ASSERT_EQ(fitDocument.pairCount, 1);
    EXPECT_EQ(fitDocument.pairs[0].temperature, 5.0);
}

TEST_F(InputFileTest, AnEmptyFileKeepsTheSettingsAndStillWritesBothFiles) {
    ASSERT_TRUE(read("TITLE Kept\nKEYWD DATA_FILE=XT PRECISION=0.5\n"));
    fitDocument.calculationCount = 4;
    fitDocument.calculations[3].deviation = 9.0;
    ASSERT_TRUE(read(""));
    EXPECT_EQ(fitDocument.title, "Kept");
    EXPECT_EQ(fitDocument.dataKind, DataKind::Chi);
    EXPECT_EQ(first().tolerance, 0.5);
    EXPECT_EQ(fitDocument.jCount + fitDocument.siteCount + fitDocument.interactionCount, 0);
    EXPECT_EQ(fitDocument.pairCount, 0);
    EXPECT_EQ(fitDocument.calculationCount, 1);
    EXPECT_EQ(fitDocument.calculations[3].deviation, 9.0); // not cleared, only not counted
    EXPECT_EQ(dir.read("chi.txt"), "0, 1, 0\n");
    EXPECT_TRUE(dir.has("input.txt"));
}

TEST_F(InputFileTest, LimitsStopTheReadWithTheirMessageAndChangeNothing) {
    const std::string previous = "TITLE Previous\nJ_VALUE1 -5 1\nSPIN_ON_SITE1 1\n"
                                 "SPIN_ON_SITE2 1\nINTERACTION a 1 b 2 c d J1\nT_CHI 1 2\n";
    struct Case {
        std::string text;
        std::string message;
    };
    const Case cases[] = {
        {"J_VALUE1 1 1\nJ_VALUE11 1 1\n", "Maximum J values are 10 !"},
        {"SPIN_ON_SITE21 1\n", "Maximum spin sites are 20 !"},
        {repeated("INTERACTION a 1 b 2 c d J1\n", 101), "Maximum interractions are 100 !"},
        {repeated("T_CHI 1 1\n", 1001), "Maximum Chi-T pairs are 1000 !"},
    };
    for (const Case& c : cases) {
        ASSERT_TRUE(read(previous));
        port.messages.clear();
        port.beeps.clear();
        EXPECT_FALSE(read("TITLE New\n" + c.text));
        ASSERT_EQ(port.messages.size(), 1u);
        EXPECT_EQ(port.messages[0].text, c.message);
        EXPECT_EQ(port.messages[0].caption, "Error");
        EXPECT_EQ(port.beeps.size(), 1u);
        EXPECT_EQ(fitDocument.title, "Previous");
        EXPECT_EQ(fitDocument.jCount, 1);
        EXPECT_EQ(fitDocument.siteCount, 2);
        EXPECT_EQ(fitDocument.interactionCount, 1);
        EXPECT_EQ(fitDocument.pairCount, 1);
        EXPECT_EQ(dir.listing(), "problem.qpi") << c.message;
    }
    EXPECT_TRUE(read(repeated("T_CHI 1 1\n", 1000) + repeated("INTERACTION a 1 b 2 c d J1\n", 100)));
    EXPECT_EQ(fitDocument.pairCount, 1000);
    EXPECT_EQ(first().lastPair, 1000);
}

TEST_F(InputFileTest, NumbersBelowOneAreRefusedWithTheLine) {
    ASSERT_TRUE(read("J_VALUE1 7 1\n"));
    EXPECT_FALSE(read("TITLE x\n\nJ_VALUE0 1 1\n"));
    ASSERT_EQ(port.messages.size(), 1u);
    EXPECT_EQ(port.messages[0].text,
              dir.file("problem.qpi") +
                  ", line 3: J values are numbered from 1, but this line gives 0.");
    EXPECT_FALSE(read("SPIN_ON_SITE-1 1\n"));
    ASSERT_EQ(port.messages.size(), 2u);
    EXPECT_NE(port.messages[1].text.find("line 1: spin sites are numbered from 1"),
              std::string::npos);
    EXPECT_EQ(fitDocument.jCount, 1);
    EXPECT_EQ(first().j[0].start, 7.0);
}

TEST_F(InputFileTest, AFileThatCannotBeOpenedIsNamedWithTheReason) {
    EXPECT_FALSE(prepareRun(dir.file("missing.qpi")));
    ASSERT_EQ(port.messages.size(), 1u);
    EXPECT_EQ(port.messages[0].text,
              "Cannot open " + dir.file("missing.qpi") + ": No such file or directory");
    EXPECT_EQ(port.messages[0].caption, "Error");
    EXPECT_EQ(fitDocument.calculationCount, 0);
}

} // namespace
} // namespace corvane
