// newQPI's form without its window: the data import, every problem the form shows, the path
// helpers, and the way from a form to a document and back.
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

#include "data_import.h"
#include "fit/input_file.h"
#include "fit/input_writer.h"
#include "problem_form.h"
#include "support/fixtures.h"

namespace newqpi {
namespace {

std::string joined(const std::vector<PairText>& pairs) {
    std::string text;
    for (const PairText& pair : pairs) text += pair.temperature + "|" + pair.value + " ";
    return text;
}

TEST(DataImportTest, ReadsTheFormatsOfRealExportsWithTheirHeadersAndBadLines) {
    const struct {
        const char* name;
        const char* text;
        int column;
        const char* pairs;
        int skipped;
    } files[] = {
        {"blanks, a header with units, comments and blank lines",
         "# D-NIT2\nT  chiT\n(K)  (cm3 K/mol)\n\n288.445 0.372\r\n  5.581   3e-3  \n\n", 2,
         "288.445|0.372 5.581|3e-3 ", 5},
        {"CSV with a quoted header and a trailing comma",
         "\"T (K)\",\"chiT\"\n2.0,0.51,\n300,1.2E-3,\n", 2, "2.0|0.51 300|1.2E-3 ", 1},
        {"semicolons with decimal commas and a trailing separator",
         "T [K];chi [emu/mol];chiT\n2,5;0,51;1,2;\n300;0,0012;0,36;\n", 3, "2.5|1.2 300|0.36 ", 1},
        {"a spreadsheet paste: tabs, decimal commas, an empty cell",
         "T\tM\tchi\n2,0\t\t0,51\n300\t7\t0,0012\n", 3, "2.0|0.51 300|0.0012 ", 1},
        {"a value that is not a number stays, to be shown", "1 0.5\n2 n/a\n3\n", 2,
         "1|0.5 2|n/a 3| ", 0},
    };
    for (const auto& file : files) {
        ImportedData data;
        std::string error;
        ASSERT_TRUE(importData(file.text, file.column, data, error)) << file.name << ": " << error;
        EXPECT_EQ(joined(data.pairs), file.pairs) << file.name;
        EXPECT_EQ(data.skippedLines, file.skipped) << file.name;
    }

    ImportedData kept;
    std::string error;
    ASSERT_TRUE(importData("1 2\n", 2, kept, error));
    EXPECT_FALSE(importData("T chi\nno data\n", 2, kept, error));
    EXPECT_EQ(error, "There is no data line: no line begins with a temperature.");
    EXPECT_FALSE(importData("1 2\n3 4\n", 3, kept, error));
    EXPECT_EQ(error, "The data lines have 2 columns; there is no value column 3.");
    std::string many;
    for (int n = 0; n <= maxImportedLines; ++n) many += "1 2\n";
    EXPECT_FALSE(importData(many, 2, kept, error));
    EXPECT_EQ(joined(kept.pairs), "1|2 "); // a failed import leaves the data as they were
}

// A complete dimer, which has no problem.
ProblemForm dimer() {
    ProblemForm form;
    form.title = "Cu2";
    form.spins = {1, 1};
    form.jValues = {{"-100", "1", true}};
    form.paths = {{"1", "2", "J1"}};
    form.pairs = {{"2", "0.5"}, {"300", "0.7"}};
    return form;
}

TEST(ProblemFormTest, EveryProblemIsNamedAndAFormWithoutOneReadsBackAsItWas) {
    ASSERT_EQ(formProblems(dimer()), std::vector<std::string>{});
    const struct {
        std::function<void(ProblemForm&)> spoil;
        const char* problem;
    } cases[] = {
        {[](ProblemForm& f) { f.precision = "1e-5x"; }, "Precision \"1e-5x\" is not a number."},
        {[](ProblemForm& f) { f.precision = "0"; }, "Precision must be above 0."},
        {[](ProblemForm& f) { f.g.start = ""; }, "g start is missing."},
        {[](ProblemForm& f) { f.g.start = "-2"; }, "g start must be above 0."},
        {[](ProblemForm& f) {
             f.c = {"0", "0", true};
         },
         "C is fitted with a step of 0; give it a step or clear its Fit box."},
        {[](ProblemForm& f) { f.zJ.start = "2e9"; },
         "zJ start: 2e+09 is too large; values up to 999999999 are accepted."},
        {[](ProblemForm& f) {
             f.spins.clear();
             f.paths.clear();
             f.jValues.clear();
         },
         "No spin site is given."},
        {[](ProblemForm& f) { f.spins[1] = 0; }, "Site 2 has no spin."},
        {[](ProblemForm& f) { f.spins.assign(21, 1); },
         "There are 21 spin sites; at most 20 are allowed."},
        {[](ProblemForm& f) { f.jValues[0].step = "x"; }, "J1 step \"x\" is not a number."},
        {[](ProblemForm& f) {
             f.jValues.push_back({"1", "1", false});
         },
         "J2 is not used by any path."},
        {[](ProblemForm& f) {
             f.paths.assign(101, {"1", "2", "1"});
         },
         "There are 101 exchange paths; at most 100 are allowed."},
        {[](ProblemForm& f) { f.paths[0].siteB = "3"; },
         "Path 1 names site 3, but the sites are 1 to 2."},
        {[](ProblemForm& f) { f.paths[0].siteA = "one"; }, "Path 1: \"one\" is not a site number."},
        {[](ProblemForm& f) { f.paths[0].siteB = ""; }, "Path 1 has no second site."},
        {[](ProblemForm& f) { f.paths[0].siteB = "1"; }, "Path 1 couples site 1 with itself."},
        {[](ProblemForm& f) {
             f.paths.push_back({"2", "1", "J3"});
         },
         "Path 2 names J3, but only J1 to J1 are given."},
        {[](ProblemForm& f) {
             f.paths.push_back({"2", "1", "K1"});
         },
         "Path 2: \"K1\" is not a J value (J1, J2, ...)."},
        {[](ProblemForm& f) { f.pairs.clear(); }, "No data pair is given."},
        {[](ProblemForm& f) {
             f.pairs.assign(1001, {"1", "1"});
         },
         "There are 1001 data pairs; at most 1000 are allowed."},
        {[](ProblemForm& f) { f.pairs[1].temperature = "-3"; },
         "Pair 2: the temperature -3 K is not above 0 K."},
        {[](ProblemForm& f) { f.pairs[0].value = "0,5x"; },
         "Pair 1: the chiT value \"0,5x\" is not a number."},
        {[](ProblemForm& f) {
             f.dataKind = corvane::DataKind::Chi;
             f.pairs[0].value = "";
         },
         "Pair 1 has no chi value."},
        {[](ProblemForm& f) { f.field = "1000"; },
         "The field of the data, 1000 T, is not within 0 to 100 T."},
        {[](ProblemForm& f) { f.field = ""; }, "The field of the data is missing."},
        {[](ProblemForm& f) {
             f.magnetPoints = {{"2", "7", "8.1"}, {"2", "0", "0"}};
         },
         "Magnetization point 2: the field 0 T is not above 0 and up to 100 T."},
        {[](ProblemForm& f) {
             f.magnetPoints = {{"0", "7", "8.1"}};
         },
         "Magnetization point 1: the temperature 0 K is not above 0 K."},
        {[](ProblemForm& f) {
             f.magnetPoints = {{"2", "7", "8,1"}};
         },
         "Magnetization point 1: the magnetization \"8,1\" is not a number."},
    };
    for (const auto& c : cases) {
        ProblemForm form = dimer();
        c.spoil(form);
        EXPECT_EQ(formProblems(form), std::vector<std::string>{c.problem});
    }

    // Saved and opened again, a form comes back as it was, fixed parameters with step 0.
    ProblemForm form = dimer();
    form.energyUnit = corvane::EnergyUnit::Kelvin;
    form.jValues[0] = {"-229.9", "2", true};
    form.c = {"0.003", "0.0001", false};
    form.field = "0.1";
    form.magnetPoints = {{"2", "1", "1.5"}, {"2", "7", "2.1"}};
    form.weighting = corvane::Weighting::Relative; // kept as an opened file gives it
    form.magnetWeight = 2.5;
    auto doc = std::make_unique<corvane::FitDocument>();
    fillDocument(form, *doc);
    auto read = std::make_unique<corvane::FitDocument>();
    corvane::testing::RecordingPort port;
    ASSERT_TRUE(corvane::readInputText(corvane::inputFileText(*doc), "d.qpi", *read));
    const ProblemForm back = formOf(*read);
    EXPECT_EQ(back.jValues[0].start, "-229.9");
    EXPECT_EQ(back.c.start, "0.003");
    EXPECT_EQ(back.c.step, "0");
    EXPECT_FALSE(back.c.fit);
    EXPECT_EQ(back.spins, form.spins);
    EXPECT_EQ(back.paths[0].j, "J1");
    EXPECT_EQ(back.pairs[1].temperature, "300");
    EXPECT_EQ(back.energyUnit, corvane::EnergyUnit::Kelvin);
    EXPECT_EQ(back.field, "0.1");
    ASSERT_EQ(back.magnetPoints.size(), 2u);
    EXPECT_EQ(back.magnetPoints[1].field, "7");
    EXPECT_EQ(back.magnetPoints[1].value, "2.1");
    EXPECT_EQ(back.weighting, corvane::Weighting::Relative);
    EXPECT_EQ(back.magnetWeight, 2.5);
}

TEST(ProblemFormTest, RingChainAndAllPairsJoinTheNamedSitesOnce) {
    std::vector<int> sites;
    std::string error;
    ASSERT_TRUE(parseSiteList("1-3, 6 5", 6, sites, error)) << error;
    EXPECT_EQ(sites, (std::vector<int>{1, 2, 3, 6, 5}));
    ASSERT_TRUE(parseSiteList("4-1", 4, sites, error));
    EXPECT_EQ(sites, (std::vector<int>{4, 3, 2, 1}));
    ASSERT_TRUE(parseSiteList("  ", 3, sites, error));
    EXPECT_EQ(sites, (std::vector<int>{1, 2, 3}));
    EXPECT_FALSE(parseSiteList("1 7", 4, sites, error));
    EXPECT_EQ(error, "There is no site 7; the sites are 1 to 4.");
    EXPECT_FALSE(parseSiteList("1-3 2", 4, sites, error));
    EXPECT_EQ(error, "Site 2 is named twice.");
    EXPECT_FALSE(parseSiteList("a-b", 4, sites, error));
    EXPECT_EQ(error, "\"a-b\" is not a site number or a range such as 1-4.");

    const auto paths = [](const ProblemForm& form) {
        std::string text;
        for (const PathText& p : form.paths) text += p.siteA + "-" + p.siteB + ":" + p.j + " ";
        return text;
    };
    ProblemForm form;
    EXPECT_EQ(addPaths(form, PathShape::Ring, {1, 2, 3, 4}, 1), 4);
    EXPECT_EQ(paths(form), "1-2:J1 2-3:J1 3-4:J1 4-1:J1 ");
    EXPECT_EQ(addPaths(form, PathShape::AllPairs, {1, 2, 3, 4}, 2), 2); // only the diagonals
    EXPECT_EQ(paths(form), "1-2:J1 2-3:J1 3-4:J1 4-1:J1 1-3:J2 2-4:J2 ");
    ProblemForm chain;
    EXPECT_EQ(addPaths(chain, PathShape::Chain, {3, 1, 2}, 1), 2);
    EXPECT_EQ(addPaths(chain, PathShape::Ring, {1, 2}, 1), 0); // a ring of two is one path
    EXPECT_EQ(paths(chain), "3-1:J1 1-2:J1 ");
}

} // namespace
} // namespace newqpi
