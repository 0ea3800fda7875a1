// A magnetometer's data files read and converted: the two MPMS3 files of tests/data/mpms against
// the values their README gives, damaged copies of them, plain columns, and the choice of the
// rows that form the chi and magnetization sets.
#include <gtest/gtest.h>
#include <string>

#include "import/moment_file.h"
#include "import/moment_sets.h"
#include "platform/files.h"

namespace corvane {
namespace {

const std::string dataDir = CORVANE_SOURCE_DIR "/tests/data/mpms/";

std::string contentsOf(const std::string& name) {
    std::string text, error;
    EXPECT_TRUE(readWholeFile(dataDir + name, text, error)) << error;
    return text;
}

// The file read, failing the test with the reader's message when it cannot be.
MomentFile readFile(const std::string& name) {
    MomentFile file;
    std::string error;
    EXPECT_TRUE(readMomentFile(dataDir + name, file, error)) << error;
    return file;
}

// The reader's message for text, "" when text is read.
std::string refusal(const std::string& text) {
    MomentFile file;
    std::string error;
    return readMomentText(text, "damaged.dat", file, error) ? "" : error;
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    const std::size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

TEST(MomentFile, FieldCooledChiTOfTheErbiumDimerIsAsTheReadmeSays) {
    const MomentFile file = readFile("fc5.dat");
    EXPECT_EQ(file.format, MomentFormat::Mpms3);
    EXPECT_EQ(file.rows.size(), 151u);
    EXPECT_EQ(file.skippedRows, 0);
    EXPECT_EQ(file.momentColumn, "DC Moment Fixed Ctr (emu)"); // "Moment (emu)" is empty
    EXPECT_EQ(file.rows.front().line, 42);
    ASSERT_TRUE(file.mass.given && file.molarMass.given && file.sampleSize.given);
    EXPECT_EQ(file.mass.value, 10.2);
    EXPECT_EQ(file.molarMass.value, 1229.56);
    EXPECT_EQ(file.sampleSize.value, -5.6176e-4);
    EXPECT_EQ(file.material, "[Er_TMSCOT_I_THF]2");

    MomentSet set;
    std::string error;
    ASSERT_TRUE(chiSet(file, std::nullopt, set, error)) << error;
    ASSERT_EQ(set.rows.size(), 151u);
    EXPECT_NEAR(set.level, 199.96, 0.01);
    const MomentRow& hot = set.rows.back();
    EXPECT_NEAR(hot.temperature, 300.0, 0.2);
    // With the lab's diamagnetic correction (SAMPLE_SIZE), chiT at 300 K is 23.5 cm3 K mol-1;
    // without it a little less.
    const Sample sample{file.mass.value, file.molarMass.value, file.sampleSize.value};
    EXPECT_NEAR(molarSusceptibility(hot, sample) * hot.temperature, 23.54, 0.01);
    EXPECT_NEAR(molarSusceptibility(hot, {10.2, 1229.56, 0.0}) * hot.temperature, 23.37, 0.01);
    EXPECT_NEAR(estimatedDiamagnetic(1229.56), -6.15e-4, 1e-6);

    // A temperature sweep at one field has no field loop.
    EXPECT_FALSE(magnetSet(file, std::nullopt, Branch::FirstRising, set, error));
    EXPECT_EQ(error, dataDir + "fc5.dat: no temperature has a field loop (a field that rises "
                               "through two or more values above 0 Oe); the fields measured "
                               "are 200 Oe (151 rows).");
    EXPECT_FALSE(chiSet(file, 1000.0, set, error));
    EXPECT_EQ(error, dataDir + "fc5.dat: no row was measured at 1000 Oe; the fields measured are "
                               "200 Oe (151 rows).");
}

TEST(MomentFile, TheVirginCurveAtTwoKelvinReachesEightBohrMagnetons) {
    const MomentFile file = readFile("mvsh9.dat");
    EXPECT_EQ(file.rows.size(), 425u);
    EXPECT_EQ(file.momentColumn, "DC Moment Fixed Ctr (emu)");
    const Sample sample{file.mass.value, file.molarMass.value, file.sampleSize.value};
    EXPECT_EQ(sample.mass, 9.3);
    EXPECT_EQ(sample.molarMass, 1046.664);

    const std::vector<Level> loops = loopTemperatures(file);
    ASSERT_EQ(loops.size(), 1u);
    EXPECT_NEAR(loops[0].value, 2.0, 0.01);
    EXPECT_EQ(loops[0].rows, 425);

    // By default the lowest temperature with a loop, its first rising branch: 0 to 70 kOe, the
    // row at 0 Oe left out and 70 kOe measured twice before the field turns.
    MomentSet set;
    std::string error;
    ASSERT_TRUE(magnetSet(file, std::nullopt, Branch::FirstRising, set, error)) << error;
    ASSERT_EQ(set.rows.size(), 19u);
    EXPECT_NEAR(set.level, 2.0, 0.01);
    EXPECT_NEAR(set.rows.front().field, 2000.0, 1.0);
    EXPECT_NEAR(set.rows.back().field, 70000.0, 1.0);
    EXPECT_EQ(set.rows.back().line, 41 + 20);
    for (std::size_t k = 1; k < set.rows.size(); ++k)
        EXPECT_GE(set.rows[k].field, set.rows[k - 1].field - 1.0);
    EXPECT_NEAR(magnetization(set.rows.back(), sample), 8.09, 0.01);
    EXPECT_NEAR(magnetization(set.rows.back(), {9.3, 1046.664, 0.0}), 8.09, 0.01);

    ASSERT_TRUE(magnetSet(file, 2.0, Branch::AllPositive, set, error)) << error;
    EXPECT_EQ(set.rows.size(), 221u);
    EXPECT_FALSE(magnetSet(file, 5.0, Branch::FirstRising, set, error));
    EXPECT_EQ(error, dataDir + "mvsh9.dat: no row was measured at 5 K; the temperatures measured "
                               "are 2 K (425 rows).");
}

TEST(MomentFile, DamagedCopiesAreRefusedWithTheFileAndLine) {
    const std::string fc5 = contentsOf("fc5.dat");
    EXPECT_EQ(refusal(replaced(fc5, ",Temperature (K),", ",Temp (K),")),
              "damaged.dat, line 41: the row of column names has no column \"Temperature "
              "(K)\".");
    EXPECT_EQ(refusal(fc5.substr(0, fc5.find("[Data]"))),
              "damaged.dat: the file has a [Header] but no [Data] section, so it holds no "
              "measured rows.");
    // The last row cut in the middle, as a copy that stopped short leaves it.
    const std::size_t lastRow = fc5.rfind("\r\n,", fc5.size() - 3);
    EXPECT_EQ(refusal(fc5.substr(0, lastRow + 60)),
              "damaged.dat, line 192: the row is cut short: it has 10 fields, the row of column "
              "names (line 41) 89.");
    EXPECT_EQ(refusal(replaced(replaced(fc5, "DC Moment Fixed Ctr (emu)", "Fixed"),
                               "DC Moment Free Ctr (emu)", "Free")),
              "damaged.dat: none of its 151 rows has a temperature, a field and a moment (Moment "
              "(emu)) that are numbers.");

    // A header without the mass offers none; the moments stay readable.
    MomentFile file;
    std::string error;
    ASSERT_TRUE(
        readMomentText(replaced(fc5, "INFO,10.2,SAMPLE_MASS\r\n", ""), "x.dat", file, error))
        << error;
    EXPECT_FALSE(file.mass.given);
    EXPECT_EQ(sampleProblem({0.0, 1229.56, 0.0}), "The sample mass 0 mg is not above 0.");
    EXPECT_EQ(sampleProblem({10.2, -1.0, 0.0}), "The molar mass -1 g mol-1 is not above 0.");

    // A moment left empty in one row: that row is skipped and counted, not read as 0.
    const std::string holed = replaced(fc5, ",0.0133979343660967,", ",,");
    ASSERT_TRUE(readMomentText(holed, "x.dat", file, error)) << error;
    EXPECT_EQ(file.rows.size(), 150u);
    EXPECT_EQ(file.skippedRows, 1);
    EXPECT_EQ(file.firstSkippedLine, 42);
}

TEST(MomentFile, PlainColumnsWithOrWithoutAHeaderRow) {
    MomentFile file;
    std::string error;
    // A header row names the columns in any order; a field in kOe becomes Oe.
    ASSERT_TRUE(readMomentText("# SQUID, sample 3\nMoment (emu)\tH (kOe)\tT (K)\n"
                               "0.0134\t0.2\t2.0\n0.0140\t0.2\t2.2\nnan\t0.2\t2.4\n",
                               "s3.txt", file, error))
        << error;
    EXPECT_EQ(file.format, MomentFormat::Columns);
    ASSERT_EQ(file.rows.size(), 2u);
    EXPECT_EQ(file.rows[1].temperature, 2.2);
    EXPECT_EQ(file.rows[1].field, 200.0);
    EXPECT_EQ(file.rows[1].moment, 0.0140);
    EXPECT_EQ(file.rows[1].line, 4);
    EXPECT_EQ(file.skippedRows, 1);
    EXPECT_EQ(file.momentColumn, "Moment (emu)");
    EXPECT_FALSE(file.mass.given);

    // Without one: T, H and the moment; commas with an empty field, or blanks.
    ASSERT_TRUE(readMomentText("2,1000,0.5\n3,1000,\n4,1000,0.25,extra\n", "c.csv", file, error));
    EXPECT_EQ(file.rows.size(), 2u);
    EXPECT_EQ(file.skippedRows, 1);
    EXPECT_EQ(file.firstSkippedLine, 2);
    ASSERT_TRUE(readMomentText("  2  1000  0.5\r\n\r\n  3  1000  0.3\r\n", "b.txt", file, error));
    EXPECT_EQ(file.rows.size(), 2u);
    // Blanks between the names too, the units in brackets after them.
    ASSERT_TRUE(readMomentText("Temperature (K)  Field [T]  Moment (emu)\n2 0.1 0.5\n", "u.txt",
                               file, error))
        << error;
    ASSERT_EQ(file.rows.size(), 1u);
    EXPECT_EQ(file.rows[0].field, 1000.0);
    EXPECT_EQ(file.momentColumn, "Moment (emu)");

    EXPECT_EQ(refusal("2 1000 0.5\n3 1000\n"),
              "damaged.dat, line 2: the row is cut short: it has 2 fields, the three of "
              "temperature, field and moment.");
    EXPECT_EQ(refusal("T,H\n2,1000\n"),
              "damaged.dat, line 1: the header row names no moment column (such as \"T\", "
              "\"Temperature (K)\", \"H\", \"Field (Oe)\", \"M\" or \"Moment (emu)\").");
    EXPECT_EQ(refusal("T (K),H (Oe),M (A m2)\n2,1000,0.5\n"),
              "damaged.dat, line 1: the moment column \"M (A m2)\" is in a m2; it must be in emu.");
    EXPECT_EQ(refusal("# nothing measured\n\n"),
              "damaged.dat: the file holds no rows of temperature, field and moment.");
}

// Rows of (T, H) with a moment of 1e-3 emu.
MomentFile rowsOf(std::initializer_list<std::pair<double, double>> readings) {
    MomentFile file;
    file.path = "f.dat";
    int line = 0;
    for (const auto& [t, h] : readings) file.rows.push_back({t, h, 1e-3, ++line});
    return file;
}

TEST(MomentSets, TheChiSetIsOneFieldAndTheMagnetSetOneRisingBranch) {
    // Two temperature sweeps: three rows at 1000 Oe (read 1000.4 and 999.8) and two at
    // 10000 Oe. The field of the most rows is taken, sorted by temperature.
    const MomentFile sweeps = rowsOf({{10, 1000.4}, {5, 999.8}, {2, 1000}, {2, 10000}, {5, 10050}});
    MomentSet set;
    std::string error;
    ASSERT_TRUE(chiSet(sweeps, std::nullopt, set, error));
    ASSERT_EQ(set.rows.size(), 3u);
    EXPECT_EQ(set.rows[0].temperature, 2);
    EXPECT_EQ(set.rows[2].temperature, 10);
    EXPECT_NEAR(set.level, 1000.07, 0.01);
    ASSERT_TRUE(chiSet(sweeps, 1e4, set, error));
    EXPECT_EQ(set.rows.size(), 2u);
    EXPECT_FALSE(chiSet(rowsOf({{2, 0.3}, {3, -0.2}}), std::nullopt, set, error));
    EXPECT_EQ(error, "f.dat: the rows at 0.05 Oe have no field to divide the moment by; choose "
                     "a field of 0.05 Oe (2 rows).");

    // A loop that starts at the top: down to -5 T, then up (the rising branch), then down.
    // The 2 K loop is chosen over the one at 5 K, and only its H > 0 rows are kept.
    const MomentFile loop = rowsOf({{5, 0},
                                    {5, 1e4},
                                    {5, 2e4},
                                    {2, 5e4},
                                    {2, 2e4},
                                    {2, 0},
                                    {2, -5e4},
                                    {2.01, -2e4},
                                    {2, 0.2},
                                    {2, 2e4},
                                    {1.99, 5e4},
                                    {2, 2e4}});
    ASSERT_TRUE(magnetSet(loop, std::nullopt, Branch::FirstRising, set, error)) << error;
    ASSERT_EQ(set.rows.size(), 3u);
    EXPECT_EQ(set.rows[0].field, 0.2);
    EXPECT_EQ(set.rows[2].field, 5e4);
    EXPECT_EQ(loopTemperatures(loop).size(), 2u);
    ASSERT_TRUE(magnetSet(loop, 5.0, Branch::FirstRising, set, error));
    EXPECT_EQ(set.rows.size(), 2u);
    EXPECT_FALSE(
        magnetSet(rowsOf({{2, 5e4}, {2, 2e4}, {2, 0}}), 2.0, Branch::FirstRising, set, error));
    EXPECT_EQ(error, "f.dat: the rows at 2 K have no field that rises above 0 Oe.");

    // A sweep in small steps is never one level: 2.0, 2.2, 2.4 K stay apart.
    EXPECT_EQ(temperatureLevels(rowsOf({{2.0, 1e3}, {2.2, 1e3}, {2.4, 1e3}}).rows).size(), 3u);
    EXPECT_EQ(measuredText(0.0785026997), "0.0785027");
    EXPECT_EQ(measuredText(23.5434514), "23.5435");
}

} // namespace
} // namespace corvane
