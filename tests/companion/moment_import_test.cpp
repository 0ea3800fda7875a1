// A magnetometer's file in newQPI's form: what the two real files suggest, the sets converted to
// the form's texts, and the problems that keep them from being taken.
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "moment_import.h"

namespace newqpi {
namespace {

corvane::MomentFile readFile(const std::string& name) {
    corvane::MomentFile file;
    std::string error;
    EXPECT_TRUE(corvane::readMomentFile(CORVANE_SOURCE_DIR "/tests/data/mpms/" + name, file, error))
        << error;
    return file;
}

TEST(MomentImportTest, EachFileSuggestsItsSetAndTheHeadersMassesButNoDiamagneticCorrection) {
    const corvane::MomentFile fc5 = readFile("fc5.dat");
    MomentChoice choice = suggestedChoice(fc5);
    EXPECT_EQ(choice.mass, "10.2");
    EXPECT_EQ(choice.molarMass, "1229.56");
    EXPECT_EQ(choice.diamagnetic, ""); // SAMPLE_SIZE is offered, never filled in
    EXPECT_TRUE(choice.chiSet);
    EXPECT_NEAR(choice.field, 199.96, 0.01);
    EXPECT_FALSE(choice.magnetSet); // a temperature sweep has no field loop

    choice.diamagnetic = "-0.00056176";
    ConvertedMoments converted;
    ASSERT_EQ(convertMoments(fc5, choice, converted), std::vector<std::string>{});
    ASSERT_EQ(converted.pairs.size(), 151u);
    EXPECT_EQ(converted.pairs.back().temperature, "299.906");
    EXPECT_EQ(converted.pairs.back().value, "23.5435");
    EXPECT_EQ(converted.field, "0.0199962");
    EXPECT_TRUE(converted.points.empty());
    EXPECT_EQ(converted.summary,
              "151 chiT pairs at 199.96 Oe (0.0199962 T), 2 to 300 K, from fc5.dat: moment from "
              "\"DC Moment Fixed Ctr (emu)\", chi_dia -0.00056176 cm3 mol-1.");
    choice.kind = corvane::DataKind::Chi;
    ASSERT_EQ(convertMoments(fc5, choice, converted), std::vector<std::string>{});
    EXPECT_EQ(converted.pairs.back().value, "0.0785027");

    const corvane::MomentFile mvsh9 = readFile("mvsh9.dat");
    choice = suggestedChoice(mvsh9);
    EXPECT_EQ(choice.molarMass, "1046.664");
    EXPECT_FALSE(choice.chiSet); // the rows at any one field stand at 2 K only
    ASSERT_TRUE(choice.magnetSet);
    EXPECT_NEAR(choice.temperature, 2.0, 0.01);
    ASSERT_EQ(convertMoments(mvsh9, choice, converted), std::vector<std::string>{});
    ASSERT_EQ(converted.points.size(), 19u);
    EXPECT_EQ(converted.points.back().field, "7.00003");
    EXPECT_EQ(converted.points.back().value, "8.08811");
    EXPECT_EQ(converted.field, "");

    // What keeps the sets from being taken, each once; converted stays as it was.
    choice.mass = "";
    choice.molarMass = "1046,664";
    choice.diamagnetic = "-";
    choice.magnetSet = false;
    EXPECT_EQ(
        convertMoments(mvsh9, choice, converted),
        (std::vector<std::string>{"Give the sample mass (mg).",
                                  "The molar mass (g mol-1) \"1046,664\" is not a number.",
                                  "The diamagnetic correction (cm3 mol-1) \"-\" is not a number.",
                                  "Choose the chi set, the magnetization set or both."}));
    EXPECT_EQ(converted.points.size(), 19u);
    choice = suggestedChoice(mvsh9);
    choice.mass = "0";
    choice.temperature = 300;
    const std::vector<std::string> problems = convertMoments(mvsh9, choice, converted);
    ASSERT_EQ(problems.size(), 2u);
    EXPECT_EQ(problems[0], "The sample mass 0 mg is not above 0.");
    EXPECT_NE(problems[1].find("mvsh9.dat: no row was measured at 300 K"), std::string::npos);
}

} // namespace
} // namespace newqpi
