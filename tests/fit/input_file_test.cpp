#include <gtest/gtest.h>
#include <string>

#include "fit/exchange_files.h"
#include "fit/fit_document.h"
#include "support/fixtures.h"

namespace corvane {
namespace {

class InputFileTest : public ::testing::Test {
protected:
    void SetUp() override { resetFitDocument(); }
    bool read(const std::string& text) { return prepareRun(dir.write("problem.qpi", text)); }
    const Calculation& first() const { return fitDocument.calculations[0]; }

    testing::ScratchDir dir;
    testing::RecordingPort port;
};

std::string repeated(const std::string& line, int times) {
    std::string text;
    while (times-- > 0) text += line;
    return text;
}

TEST_F(InputFileTest, ReadsAWholeProblemWrittenInAnyCase) {
    ASSERT_TRUE(read("! a copper dimer\r\n"
                     "title Cu2 Dimer in MeOH\r\n"
                     "keywd data_file=xt energy_unit=mev precision=1e-4\r\n"
                     "Keywd g_start=2.05 g_step=0.01 c_start=.002 c_step=0.0001\r\n"
                     "KEYWD ZJ_START=-0.5 ZJ_STEP=0.1 XTIP_START=1.2E-4 XTIP_STEP=0\r\n"
                     "\r\n"
                     "j_value1 -120.5 2\nJ_VALUE2 15 0.5\n"
                     "spin_on_site1 1\nSPIN_ON_SITE2 2\n"
                     "interaction sites 1 and 2 coupled by J2\n"
                     "INTERACTION sites 2 and 1 coupled by J1\n"
                     "t_chi 2.0 0.0123\nT_CHI   300   1.5e-3  "));
    EXPECT_TRUE(port.messages.empty());
    EXPECT_EQ(fitDocument.title, "Cu2 Dimer in MeOH");
    EXPECT_EQ(fitDocument.calculationCount, 1);
    EXPECT_EQ(first().lastPair, 2);
    EXPECT_EQ(dir.read("input.txt"), "0, 1, 1\n2\n1\n2\n6, 0.000100\n"
                                     "2.050000, 0.010000\n0.002000, 0.000100\n"
                                     "-0.500000, 0.100000\n0.000120, 0.000000\n"
                                     "-120.500000, 2.000000\n15.000000, 0.500000\n"
                                     "1, 2, 6\n2, 1, 5\n");
    EXPECT_EQ(dir.read("chi.txt"), "2, 1, 2\n2.000000  0.012300\n300.000000  0.001500\n");
}

TEST_F(InputFileTest, CommentsAreWholeLinesButRunsTestOnlyTheirKeyword) {
    ASSERT_TRUE(read("KEYWD G_START=3 ! not read\n"
                     "J_VALUE1 1 0\n"
                     "J_VALUE2 2 0 ! read: it follows a J_VALUE line\n"
                     "! J_VALUE3 3 0 read too\n"
                     "\n"
                     "! J_VALUE4 4 0 starts no run\n"
                     "T_CHI 1 1\nT_CHI 2 2 !\n! T_CHI 3 3\nSPIN_ON_SITE1 1\nT_CHI 4 4\n"));
    EXPECT_EQ(first().g.start, 0.0);
    EXPECT_EQ(fitDocument.jCount, 3);
    EXPECT_EQ(first().j[3].start, 0.0);
    EXPECT_EQ(fitDocument.pairCount, 4);
}

TEST_F(InputFileTest, SettingsFollowTheirOwnMatchingRules) {
    const std::pair<const char*, DataKind> kinds[] = {
        {"DATA_FILE=XTT", DataKind::ChiT},
        {"DATA_FILE=XT", DataKind::Chi},
        {"ENERGY_UNIT=K", DataKind::Chi}, // no DATA_FILE: left as it was
        {"DATA_FILE=CHI NOTE=XTT", DataKind::ChiT}};
    for (const auto& [setting, kind] : kinds) {
        ASSERT_TRUE(read(std::string("KEYWD ") + setting + "\n"));
        EXPECT_EQ(fitDocument.dataKind, kind) << setting;
    }
    const std::pair<const char*, EnergyUnit> units[] = {
        {"ENERGY_UNIT=MEV", EnergyUnit::MeV},
        {"ENERGY_UNIT=JOULE", EnergyUnit::Cm1},
        {"ENERGY_UNIT=CM-1 A=K", EnergyUnit::Kelvin}};
    for (const auto& [setting, unit] : units) {
        ASSERT_TRUE(read(std::string("KEYWD ") + setting + "\n"));
        EXPECT_EQ(fitDocument.energyUnit, unit) << setting;
    }
    // A name counts only after a blank; a value ends at the next blank.
    ASSERT_TRUE(read("KEYWD XG_START=5 G_STEP= 2 C_START=1.5mol PRECISION=3\tZJ_START=4\n"));
    EXPECT_EQ(first().g.start + first().g.step + first().zJ.start, 0.0);
    EXPECT_EQ(first().c.start, 1.5);
    EXPECT_EQ(first().tolerance, 3.0);
}

TEST_F(InputFileTest, CountsAndTokens) {
    ASSERT_TRUE(read("J_VALUE1 1 0\nJ_VALUE3 3 0\nJ_VALUE2 2 0\nSPIN_ON_SITE20 5\n"));
    EXPECT_EQ(fitDocument.jCount, 2);
    EXPECT_EQ(fitDocument.siteCount, 20);
    EXPECT_EQ(fitDocument.interactionCount + fitDocument.pairCount, 0);
    ASSERT_TRUE(read("J_VALUE10 7 1\n"
                     "T_CHI 5\n"
                     "T_CHI\t5 6\n" // tabs are not separators: the temperature is "6"
                     "INTERACTION sites 1 and 2\n"));
    EXPECT_EQ(first().j[9].start, 7.0);
    EXPECT_EQ(fitDocument.pairs[0].observed, 0.0);
    EXPECT_EQ(fitDocument.pairs[1].temperature, 6.0);
    EXPECT_EQ(fitDocument.interactions[0].parameterIndex, 4);
}

TEST_F(InputFileTest, TitleIsTakenAsWrittenFromItsSeventhCharacter) {
    ASSERT_TRUE(read("  title x \n"));
    EXPECT_EQ(fitDocument.title, "e x ");
    ASSERT_TRUE(read("TITLE"));
    EXPECT_EQ(fitDocument.title, "");
    // A line longer than 131 characters is read as pieces, each a line of its own.
    ASSERT_TRUE(read("TITLE " + std::string(125, 'b') + "T_CHI 5 6\n"));
    EXPECT_EQ(fitDocument.title, std::string(119, 'b'));
    EXPECT_EQ(fitDocument.pairCount, 1);
}

TEST_F(InputFileTest, AnEmptyFileKeepsTheSettingsAndStillWritesBothFiles) {
    ASSERT_TRUE(read("TITLE Kept\nKEYWD DATA_FILE=XT PRECISION=0.5\nJ_VALUE1 1 1\n"));
    fitDocument.calculationCount = 4;
    fitDocument.calculations[3].deviation = 9.0;
    ASSERT_TRUE(read(""));
    EXPECT_EQ(fitDocument.title, "Kept");
    EXPECT_EQ(fitDocument.jCount + fitDocument.siteCount + fitDocument.pairCount, 0);
    EXPECT_EQ(fitDocument.calculationCount, 1);
    EXPECT_EQ(fitDocument.calculations[3].deviation, 9.0); // kept, only not counted
    EXPECT_EQ(dir.read("input.txt").substr(0, 16), "0, 0, 1\n0\n4, 0.5");
    EXPECT_EQ(dir.read("chi.txt"), "0, 1, 0\n");
}

TEST_F(InputFileTest, LimitsStopTheReadWithTheirMessageAndChangeNothing) {
    const std::string previous = "TITLE Previous\nJ_VALUE1 -5 1\nSPIN_ON_SITE2 1\nT_CHI 1 2\n";
    const std::pair<std::string, std::string> cases[] = {
        {"J_VALUE1 1 1\nJ_VALUE11 1 1\n", "Maximum J values are 10 !"},
        {"SPIN_ON_SITE21 1\n", "Maximum spin sites are 20 !"},
        {repeated("INTERACTION a 1 b 2 c d J1\n", 101), "Maximum interractions are 100 !"},
        {repeated("T_CHI 1 1\n", 1001), "Maximum Chi-T pairs are 1000 !"},
        {"\nJ_VALUE0 1 1\n", "problem.qpi, line 3: J values are numbered from 1, but this "
                             "line gives 0."},
        {"SPIN_ON_SITE-1 1\n", "problem.qpi, line 2: spin sites are numbered from 1, but this "
                               "line gives -1."}};
    for (const auto& [text, message] : cases) {
        ASSERT_TRUE(read(previous));
        port.messages.clear();
        port.beeps.clear();
        EXPECT_FALSE(read("TITLE New\n" + text));
        ASSERT_EQ(port.messages.size(), 1u);
        EXPECT_EQ(port.beeps.size(), 1u);
        const std::string& shown = port.messages[0].text;
        EXPECT_EQ(shown.substr(shown.size() - std::min(shown.size(), message.size())), message);
        EXPECT_EQ(port.messages[0].caption, "Error");
        EXPECT_EQ(fitDocument.title, "Previous");
        EXPECT_EQ(fitDocument.jCount + fitDocument.siteCount + fitDocument.pairCount, 4);
        EXPECT_EQ(dir.listing(), "problem.qpi") << message;
    }
    EXPECT_TRUE(
        read(repeated("T_CHI 1 1\n", 1000) + repeated("INTERACTION a 1 b 2 c d J1\n", 100)));
    EXPECT_EQ(first().lastPair, 1000);
}

} // namespace
} // namespace corvane
