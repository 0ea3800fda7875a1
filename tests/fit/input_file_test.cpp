#include <algorithm>
#include <gtest/gtest.h>
#include <string>

#include "fit/fit_document.h"
#include "fit/run_cycle.h"
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

// The smallest problem the engine accepts: one site, one pair and a g to start from.
const std::string oneSite = "SPIN_ON_SITE1 1\nT_CHI 2 0.4\nKEYWD G_START=2\n";

TEST_F(InputFileTest, ReadsAWholeProblemWrittenInAnyCaseWithBlanksOrTabs) {
    const std::string problem = "! a copper dimer\r\n"
                                "title Cu2 Dimer in MeOH\r\n"
                                "keywd data_file=xt energy_unit=mev precision=1e-4\r\n"
                                "Keywd g_start=2.05 g_step=0.01 c_start=.002 c_step=0.0001\r\n"
                                "KEYWD ZJ_START=-0.5 ZJ_STEP=0.1 XTIP_START=1.2E-4 XTIP_STEP=0\r\n"
                                "\r\n"
                                "j_value1 -120.5 2\nJ_VALUE2 15 0.5\n"
                                "spin_on_site1 1\nSPIN_ON_SITE2 2\n"
                                "interaction sites 1 and 2 coupled by J2\n"
                                "INTERACTION sites 2 and 1 coupled by J1\n"
                                "t_chi 2.0 0.0123\nT_CHI   300   1.5e-3  ";
    const std::string input = "0, 1, 1\n2\n1\n2\n6, 0.000100\n"
                              "2.050000, 0.010000\n0.002000, 0.000100\n"
                              "-0.500000, 0.100000\n0.000120, 0.000000\n"
                              "-120.500000, 2.000000\n15.000000, 0.500000\n"
                              "1, 2, 6\n2, 1, 5\n";
    const std::string data = "2, 1, 2\n2.000000  0.012300\n300.000000  0.001500\n";
    ASSERT_TRUE(read(problem));
    EXPECT_TRUE(port.messages.empty());
    EXPECT_EQ(fitDocument.title, "Cu2 Dimer in MeOH");
    EXPECT_EQ(fitDocument.calculationCount, 1);
    EXPECT_EQ(first().lastPair, 2);
    EXPECT_EQ(dir.read("input.txt"), input);
    EXPECT_EQ(dir.read("chi.txt"), data);

    // Saved by an editor that starts with a byte-order mark and separates with tabs.
    std::string tabbed = "\xEF\xBB\xBF" + problem;
    for (std::size_t at = 0; (at = tabbed.find("  ", at)) != std::string::npos;) tabbed[at] = '\t';
    for (const char* spaced : {"j_value1 -120.5 2", "J_VALUE2 15 0.5", "spin_on_site1 1"}) {
        std::string withTabs = spaced;
        std::replace(withTabs.begin(), withTabs.end(), ' ', '\t');
        tabbed.replace(tabbed.find(spaced), withTabs.size(), withTabs);
    }
    ASSERT_TRUE(read(tabbed)) << port.messages.at(0).text;
    EXPECT_EQ(fitDocument.title, "Cu2 Dimer in MeOH");
    EXPECT_EQ(dir.read("input.txt"), input);
    EXPECT_EQ(dir.read("chi.txt"), data);
}

TEST_F(InputFileTest, ACommentLineIsNeverReadNotEvenAmongStatementsOfItsKind) {
    ASSERT_TRUE(read("KEYWD G_START=3 ! not read\nKEYWD G_START=2\n"
                     "J_VALUE1 1 0\n! J_VALUE2 9 9\nJ_VALUE2 2 0\nJ_VALUE3 3 0 ! a note\n"
                     "SPIN_ON_SITE1 1\nSPIN_ON_SITE2 2\n! SPIN_ON_SITE2 5\n"
                     "INTERACTION sites 1 and 2 coupled by J1\n"
                     "! INTERACTION sites 2 and 1 coupled by J2\n"
                     "INTERACTION sites 1 and 2 coupled by J2\n"
                     "T_CHI 1 1\n! T_CHI 3 3\nT_CHI 2 2\nT_CHI 4 4 !\n"));
    EXPECT_EQ(first().g.start, 2.0);
    EXPECT_EQ(fitDocument.jCount, 2);
    EXPECT_EQ(first().j[1].start, 2.0);
    EXPECT_EQ(fitDocument.sites[1].spin, 2);
    EXPECT_EQ(fitDocument.interactionCount, 2);
    EXPECT_EQ(fitDocument.pairCount, 2);
    EXPECT_EQ(fitDocument.pairs[1].temperature, 2.0);
}

TEST_F(InputFileTest, SettingsFollowTheirOwnMatchingRules) {
    const std::pair<const char*, DataKind> kinds[] = {
        {"DATA_FILE=XTT", DataKind::ChiT},
        {"DATA_FILE=XT", DataKind::Chi},
        {"ENERGY_UNIT=K", DataKind::Chi}}; // no DATA_FILE: left as it was
    for (const auto& [setting, kind] : kinds) {
        ASSERT_TRUE(read(std::string("KEYWD ") + setting + "\n" + oneSite));
        EXPECT_EQ(fitDocument.dataKind, kind) << setting;
    }
    const std::pair<const char*, EnergyUnit> units[] = {
        {"ENERGY_UNIT=MEV", EnergyUnit::MeV},
        {"energy_unit=cm-1", EnergyUnit::Cm1},
        {"ENERGY_UNIT = K", EnergyUnit::Kelvin},
        {"ENERGY_UNIT=K ENERGY_UNIT=MEV", EnergyUnit::MeV}};
    for (const auto& [setting, unit] : units) {
        ASSERT_TRUE(read(std::string("KEYWD ") + setting + "\n" + oneSite));
        EXPECT_EQ(fitDocument.energyUnit, unit) << setting;
    }
    // Blanks or tabs around "=" belong to no word; a value ends at the next blank or tab.
    ASSERT_TRUE(read("KEYWD G_START =5 C_START = 1.5 PRECISION= 3\tZJ_START=\t4\n"
                     "SPIN_ON_SITE1 1\nT_CHI 2 0.4\n"));
    EXPECT_EQ(first().g.start, 5.0);
    EXPECT_EQ(first().c.start, 1.5);
    EXPECT_EQ(first().tolerance, 3.0);
    EXPECT_EQ(first().zJ.start, 4.0);
}

TEST_F(InputFileTest, TheFieldWeightingAndMagnetizationSetReachTheEngineOnlyWhenGiven) {
    const std::string problem = "SPIN_ON_SITE1 1\nT_CHI 2 0.4\n"
                                "keywd g_start=2 field=0.1 weight=relative m_weight=2.5\n"
                                "t_h_m 2 0.5 0.45\nT_H_M 2.0 7 0.998\n";
    ASSERT_TRUE(read(problem));
    EXPECT_EQ(fitDocument.field, 0.1);
    EXPECT_EQ(fitDocument.weighting, Weighting::Relative);
    EXPECT_EQ(fitDocument.magnetCount, 2);
    EXPECT_EQ(fitDocument.magnetPoints[1].observed, 0.998);
    EXPECT_EQ(dir.read("chit.txt"), "1, 1, 1\n2.000000  0.400000\nfield 0.100000\n"
                                    "weight relative\nmagnetisation 2, 1, 2, 2.500000\n"
                                    "2.000000  0.500000  0.450000\n"
                                    "2.000000  7.000000  0.998000\n");
    // A problem read after it has none of them: no setting outlives its file.
    ASSERT_TRUE(read(oneSite));
    EXPECT_EQ(fitDocument.field, 0.0);
    EXPECT_EQ(fitDocument.weighting, Weighting::Uniform);
    EXPECT_EQ(fitDocument.magnetWeight, 1.0);
    EXPECT_EQ(fitDocument.magnetCount, 0);
    EXPECT_EQ(dir.read("chit.txt"), "1, 1, 1\n2.000000  0.400000\n");
}

TEST_F(InputFileTest, ATitleLineIsATitleAndNothingElse) {
    ASSERT_TRUE(read("TITLE Cu2, antiferromagnetic interaction J_VALUE1 keywd g_start=9\n"
                     "SPIN_ON_SITE1 1\nSPIN_ON_SITE2 1\nJ_VALUE1 -100 1\n"
                     "INTERACTION sites 1 and 2 coupled by J1\nT_CHI 2 0.4\nKEYWD G_START=2\n"));
    EXPECT_EQ(fitDocument.title, "Cu2, antiferromagnetic interaction J_VALUE1 keywd g_start=9");
    EXPECT_EQ(fitDocument.interactionCount, 1);
    EXPECT_EQ(first().j[0].start, -100.0);
    EXPECT_EQ(first().g.start, 2.0);

    ASSERT_TRUE(read("  title x \n" + oneSite));
    EXPECT_EQ(fitDocument.title, "e x ");
    // A line is read whole however long it is; the title keeps its first 119 bytes, without a
    // character cut in two. What stands far out in a comment stays in the comment.
    const std::string far(140, '-');
    ASSERT_TRUE(read("TITLE " + std::string(118, 'b') + "\xC3\xA9 T_CHI 5 6\n" + oneSite + "! " +
                     far + "T_CHI 1.0 9.0\n! " + far + " title Not this\n"));
    EXPECT_EQ(fitDocument.title, std::string(118, 'b'));
    EXPECT_EQ(fitDocument.pairCount, 1);
}

TEST_F(InputFileTest, AFaultyProblemIsRefusedWithFileAndLineAndChangesNothing) {
    const std::string previous = "TITLE Previous\nJ_VALUE1 -5 1\nSPIN_ON_SITE1 1\n"
                                 "SPIN_ON_SITE2 1\nT_CHI 1 2\nKEYWD G_START=2\n";
    const std::string dimer = "SPIN_ON_SITE1 1\nSPIN_ON_SITE2 1\nJ_VALUE1 -100 1\n";
    const std::pair<std::string, std::string> cases[] = {
        // The limits, with their own messages, the whole number after the keyword read.
        {"J_VALUE1 1 1\nJ_VALUE11 1 1\n", "problem.qpi, line 3: Maximum J values are 10 !"},
        {"J_VALUE105 1 1\n", "problem.qpi, line 2: Maximum J values are 10 !"},
        {"J_VALUE99999999999 1 1\n", "problem.qpi, line 2: Maximum J values are 10 !"},
        {"SPIN_ON_SITE21 1\n", "problem.qpi, line 2: Maximum spin sites are 20 !"},
        {"SPIN_ON_SITE123 1\n", "problem.qpi, line 2: Maximum spin sites are 20 !"},
        {dimer + repeated("INTERACTION a 1 b 2 c d J1\n", 101),
         "problem.qpi, line 105: Maximum interractions are 100 !"},
        {oneSite + repeated("T_CHI 1 1\n", 1000),
         "problem.qpi, line 1004: Maximum Chi-T pairs are 1000 !"},
        // Settings: every word a known setting with a value, a unit of the three.
        {"KEYWD ENERGY_UNIT=KJ/MOL\n", "line 2: ENERGY_UNIT=KJ/MOL is not a unit"},
        {"KEYWD ENERGY_UNIT=EV\n", "line 2: ENERGY_UNIT=EV is not a unit"},
        {"KEYWD ENERGY_UNIT=WAVENUMBER\n", "line 2: ENERGY_UNIT=WAVENUMBER is not a unit"},
        {"KEYWD GSTART=2.0\n", "line 2: \"GSTART=2.0\" is not a setting"},
        {"KEYWD DATA_FILE=XT NOTE=XTT\n", "line 2: \"NOTE=XTT\" is not a setting"},
        {"KEYWD G_START 2\n", "line 2: \"G_START\" is not a setting"},
        {"KEYWD G_STEP=\n" + oneSite, "line 2: The value of G_STEP= is missing."},
        {"KEYWD G_START=0\n", "line 2: G_START=0: the starting value of g must be above 0."},
        {"KEYWD G_START=-2.1\n", "line 2: G_START=-2.1: the starting value of g must be"},
        {"KEYWD PRECISION=-1e-5\n", "line 2: PRECISION=-1E-5: the convergence tolerance"},
        // Text that would drive a terminal is neither taken nor echoed.
        {"TITLE Cu2\x1B[2J\n", "line 2: The title holds the control character 0x1B;"},
        {std::string("TITLE a\0b\n", 10), "line 2: The title holds the control character 0x00;"},
        {"SPIN_ON_SITE1 1\nT_CHI 2 0.4\x07\n",
         "line 3: The observed value \"0.4\\x07\" is not a number."},
        {"SPIN_ON_SITE1 1\nT_CHI 2 " + std::string(5000, 'x') + "\n",
         "line 3: The observed value \"" + std::string(60, 'X') + "...\" is not a number."},
        // Numbers that are not numbers, or missing.
        {"J_VALUE1\t-120.0\t\n" + oneSite, "line 2: The step is missing."},
        {"J_VALUE1 -120 1,5\n" + oneSite, "line 2: The step \"1,5\" is not a number."},
        {"KEYWD G_START=nan\n" + oneSite, "line 2: The value of G_START= \"NAN\" is not a number."},
        {"KEYWD C_START=1.5mol\n" + oneSite, "\"1.5MOL\" is not a number."},
        {"SPIN_ON_SITE1 1\nT_CHI 2 inf\n", "line 3: The observed value \"INF\" is not a number."},
        {"SPIN_ON_SITE1 1\nT_CHI 2 1e999\n", "\"1E999\" is not a number."},
        {"SPIN_ON_SITE1 1\nT_CHI 2\n", "line 3: The observed value is missing."},
        {"SPIN_ON_SITE1 1\nT_CHI 2 1e10\n", "line 3: The observed value 1E10 is too large"},
        {dimer + "INTERACTION sites 1 and 2 coupled by J99999999999\nT_CHI 2 1\n",
         "line 5: The J number (after the letter J) \"99999999999\" is not a whole number"},
        {"J_VALUEX 1 1\n" + oneSite, "line 2: J_VALUE must be followed directly by its number"},
        {"\nJ_VALUE0 1 1\n" + oneSite, "line 3: J_VALUE0: numbers start at 1."},
        {"SPIN_ON_SITE-1 1\n", "line 2: SPIN_ON_SITE-1: numbers start at 1."},
        // A problem the engine would refuse.
        {"SPIN_ON_SITE1 0\nT_CHI 2 1\n", "line 2: site 1 has spin 0; a spin is given as 2S"},
        {"SPIN_ON_SITE1 21\nT_CHI 2 1\n", "line 2: site 1 has spin 21"},
        {"SPIN_ON_SITE1 1\nSPIN_ON_SITE3 1\nT_CHI 2 1\n", ": site 2 has no spin"},
        {"SPIN_ON_SITE2 1\nSPIN_ON_SITE1 1\nT_CHI 2 1\n",
         "line 2: SPIN_ON_SITE2 is given before SPIN_ON_SITE1, the last such line"},
        {"J_VALUE1 1 1\nJ_VALUE3 1 1\n" + oneSite, ": J2 has no starting value"},
        {"J_VALUE1 1 1\nJ_VALUE3 1 1\nJ_VALUE2 1 1\n" + oneSite,
         "line 3: J_VALUE3 is given before J_VALUE2, the last such line"},
        {dimer + "INTERACTION sites 1 and 3 coupled by J1\nT_CHI 2 1\n",
         "line 5: site 3 is not one of the sites 1 to 2."},
        {dimer + "INTERACTION sites 2 and 2 coupled by J1\nT_CHI 2 1\n",
         "line 5: site 2 is coupled with itself."},
        {dimer + "INTERACTION sites 1 and 2 coupled by J2\nT_CHI 2 1\n",
         "line 5: J2 is used, but only J1 to J1 are given."},
        {"SPIN_ON_SITE1 1\nT_CHI 0 1\n", "line 3: temperatures must be above 0 K."},
        // The field, the weighting and the magnetization set.
        {"KEYWD FIELD=1000\n", "line 2: FIELD=1000: the field of the chi data is given in tesla"},
        {"KEYWD FIELD=-0.1\n", "line 2: FIELD=-0.1: the field"},
        {"KEYWD WEIGHT=LOG\n", "line 2: WEIGHT=LOG is not a weighting"},
        {"KEYWD M_WEIGHT=-1\n", "line 2: M_WEIGHT=-1: the weight of the magnetization data"},
        {oneSite + "T_H_M 2 5\n", "line 5: The magnetization is missing."},
        {oneSite + "T_H_M 2 50000 3.1\n", "line 5: the field 50000 is outside 0 to 100 T"},
        {oneSite + "T_H_M 2 0 0\n", "line 5: the field 0 is outside"},
        {oneSite + "T_H_M -2 1 0.5\n", "line 5: temperatures must be above 0 K."},
        {oneSite + repeated("T_H_M 2 1 1\n", 1001),
         "problem.qpi, line 1005: Maximum magnetization points are 1000 !"},
        {"", "problem.qpi: no spin site is given"},
        {"SPIN_ON_SITE1 1\n", "problem.qpi: no data pair is given"},
        // A file no input file comes near, refused before it is read.
        {std::string(2 << 20, ' '), "bytes, more than the 1048576 bytes it may hold"},
    };
    for (const auto& [text, message] : cases) {
        ASSERT_TRUE(read(previous)) << port.messages.at(0).text;
        const std::string before = dir.listing();
        port.messages.clear();
        port.beeps.clear();
        EXPECT_FALSE(read("TITLE New\n" + text)) << message;
        ASSERT_EQ(port.messages.size(), 1u) << message;
        EXPECT_EQ(port.beeps.size(), 1u);
        const std::string& shown = port.messages[0].text;
        EXPECT_NE(shown.find(message), std::string::npos) << shown;
        EXPECT_NE(shown.find("problem.qpi"), std::string::npos);
        EXPECT_TRUE(std::none_of(shown.begin(), shown.end(), [](unsigned char c) {
            return c < 0x20 || c == 0x7f;
        })) << shown;
        EXPECT_EQ(fitDocument.title, "Previous");
        EXPECT_EQ(fitDocument.jCount + fitDocument.siteCount + fitDocument.pairCount, 4);
        EXPECT_EQ(dir.listing(), before) << message;
    }
    EXPECT_TRUE(read(dimer + repeated("T_CHI 1 1\n", 1000) +
                     repeated("INTERACTION a 1 b 2 c d J1\n", 100) + "KEYWD G_START=2\n"));
    EXPECT_EQ(first().lastPair, 1000);

    // A file gives its own g to start from; the g of a file read before is not taken.
    port.messages.clear();
    EXPECT_FALSE(read("SPIN_ON_SITE1 1\nT_CHI 2 1\n"));
    ASSERT_EQ(port.messages.size(), 1u);
    EXPECT_NE(port.messages[0].text.find("problem.qpi: no G_START= is given"), std::string::npos);
}

} // namespace
} // namespace corvane
