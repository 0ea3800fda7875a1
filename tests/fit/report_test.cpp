#include <cmath>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <string>

#include "fit/engine_run.h"
#include "fit/report.h"
#include "fit/run_cycle.h"
#include "platform/files.h"
#include "support/fixtures.h"
#include "text/text.h"

namespace corvane {
namespace {

class ReportTest : public ::testing::Test {
protected:
    void SetUp() override {
        resetFitDocument();
        runState.reset();
    }
    void TearDown() override { failNthFileWrite(0); }

    testing::ScratchDir dir;
    testing::RecordingPort port;
};

// A chi problem in K with one calculation; every value distinct so that a swap shows.
std::unique_ptr<FitDocument> smallDocument() {
    auto doc = std::make_unique<FitDocument>();
    doc->title = "Cu2 test";
    doc->dataKind = DataKind::Chi;
    doc->energyUnit = EnergyUnit::Kelvin;
    doc->siteCount = 2;
    doc->sites[0].spin = 1;
    doc->sites[1].spin = 1;
    doc->interactions[0] = {1, 2, 5};
    doc->jCount = 1;
    doc->pairCount = 2;
    doc->pairs[0] = {2.0, 0.5};
    doc->pairs[1] = {300.0, 0.00125};
    doc->calculationCount = 1;
    Calculation& calc = doc->calculations[0];
    calc.tolerance = 0.0001;
    calc.g = {2.0, 0.01, 2.05};
    calc.tip = {-0.0001, 0.0, -0.0001};
    calc.j[0] = {-100.0, 1.0, -98.5};
    calc.deviation = 0.25;
    calc.firstPair = 1;
    calc.lastPair = 2;
    calc.fittedValues[0] = 0.49;
    calc.fittedValues[1] = 0.00126;
    return doc;
}

TEST_F(ReportTest, TheReportHasItsExactLayout) {
    const std::string stars(78, '*');
    const std::string expected =
        "\n     ***** Magnetic Susceptibility Fitting By Corvane v.1.0*****\n\n"
        "  Date: 11/17/2026 04:22:28 PM\n\n"
        "  TITLE - Cu2 test\n\n"
        "  Spin Sites: 2\n  Spins On Sites:\n  Site #     Spin\n  ---------------\n"
        "    1         1\n    2         1\n"
        "\n  Interactions:\n  Between site #1 and site #2 is J1\n"
        "\n  Energy Unit: K\n"
        "\n\n" +
        stars +
        "\n"
        "  Fitting Results - Calculation # 1 with fiting squared diviation = 0.250000 "
        "(Convergence Tolerance = 0.000100)\n\n"
        "  Initial Parameters:\n"
        "  g    - starting = 2.000000     step= 0.010000\n"
        "  C    - starting = 0.000000     step= 0.000000\n"
        "  zJ   - starting = 0.000000     step= 0.000000\n"
        "  Xtip - starting = -0.000100     step= 0.000000\n\n"
        "  Initial J Values: 1\n    #    Starting Value   Step\n"
        "  ------------------------------------------\n"
        "    1   -100.000000        1.000000\n"
        "\n  Fitted Parameters:\n"
        "  g = 2.050000     C = 0.000000     zJ = 0.000000     Xtip = -0.000100\n\n"
        "  Fitted J Values: 1\n     #      Value\n  -----------------\n"
        "     1      -98.500000\n"
        "\n  Fitted Susceptibility:\n\n"
        "  Total data pairs: 2.   Fitting from pair #1 to pair #2\n\n"
        "  #    Tempreture (K)      Chi (Experimental)       Chi (Fitted)\n"
        "  ______________________________________________________________\n"
        "  1   2.000000                  0.500000                       0.490000\n"
        "  2   300.000000                  0.001250                       0.001260\n"
        "\n" +
        stars + "\n";
    EXPECT_EQ(reportText(*smallDocument(), "11/17/2026 04:22:28 PM"), expected);
}

TEST_F(ReportTest, AReportReadIntoAFreshDocumentGivesBackEveryPrintedValue) {
    auto doc = smallDocument();
    doc->dataKind = DataKind::ChiT;
    doc->energyUnit = EnergyUnit::MeV;
    doc->siteCount = 4;
    for (int s = 1; s <= 4; ++s) doc->sites[slot(s)].spin = s;
    doc->interactionCount = 3;
    doc->interactions[1] = {2, 3, 6};
    doc->interactions[2] = {3, 4, 7};
    doc->jCount = 3;
    doc->pairCount = 5;
    for (int i = 1; i <= 5; ++i) doc->pairs[slot(i)] = {1.5 * i, -0.001 * (i + 6)};
    doc->calculationCount = 3;
    for (int n = 0; n < 3; ++n) {
        Calculation& calc = doc->calculations[slot(n + 1)];
        calc.tolerance = 1e-5 * (n + 1);
        calc.g = {-2.0 - n, 0.01, 1.987654};
        calc.c = {-0.002, 0.0001, -0.003141};
        calc.zJ = {-0.5, 0.1, -0.25 - n};
        calc.tip = {-0.00012, 0.00001, -0.000123};
        for (int k = 1; k <= 3; ++k)
            calc.j[slot(k)] = {-100.0 * k, 1.0 + n, -123.456789 * (k - 1 + n)};
        calc.deviation = 0.001234 * (n + 1);
        calc.firstPair = 1 + n;
        calc.lastPair = 5 - n / 2;
        for (int i = 1; i <= 5; ++i) calc.fittedValues[slot(i)] = -0.0101 * i * (n + 1);
    }
    const std::string text = reportText(*doc, "11/17/2026 04:22:28 PM");

    auto back = std::make_unique<FitDocument>();
    back->calculationCount = 0;
    std::string problem;
    ASSERT_TRUE(readReportText(text, *back, problem)) << problem;
    // Everything the report prints, printed again from what was read, is the same report.
    EXPECT_EQ(reportText(*back, "11/17/2026 04:22:28 PM"), text);

    // Line ends written on another system read the same.
    std::string crlf;
    for (char c : text) crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
    auto again = std::make_unique<FitDocument>();
    again->calculationCount = 0;
    ASSERT_TRUE(readReportText(crlf, *again, problem)) << problem;
    EXPECT_EQ(reportText(*again, "x"), reportText(*back, "x"));
}

TEST_F(ReportTest, TheReaderAddsOnlyNewerSectionsAndKeepsWhatAReportDoesNotCarry) {
    const std::string text = reportText(*smallDocument(), "d");

    // A document that already holds calculation 1 takes the problem but not the section.
    auto held = smallDocument();
    held->title = "old";
    held->energyUnit = EnergyUnit::Cm1;
    held->calculations[0].g.fitted = 9.0;
    std::string problem;
    ASSERT_TRUE(readReportText(text, *held, problem));
    EXPECT_EQ(held->title, "Cu2 test");
    EXPECT_EQ(held->energyUnit, EnergyUnit::Kelvin);
    EXPECT_EQ(held->calculations[0].g.fitted, 9.0);

    // A title with "!" reads as a comment; a report without a unit line keeps the unit.
    auto doc = smallDocument();
    doc->title = "Cu2 ! not a comment";
    std::string edited = reportText(*doc, "d");
    edited.erase(edited.find("\n  Energy Unit: K\n"), 17);
    auto fresh = std::make_unique<FitDocument>();
    fresh->title = "kept";
    fresh->energyUnit = EnergyUnit::MeV;
    fresh->calculationCount = 0;
    ASSERT_TRUE(readReportText(edited, *fresh, problem));
    EXPECT_EQ(fresh->title, "kept");
    EXPECT_EQ(fresh->energyUnit, EnergyUnit::MeV);
    EXPECT_EQ(fresh->calculationCount, 1);
}

TEST_F(ReportTest, AReportBeyondTheDocumentsLimitsIsRejected) {
    const std::string good = reportText(*smallDocument(), "d");
    const auto edited = [&](const std::string& from, const std::string& to) {
        std::string text = good;
        text.replace(text.find(from), from.size(), to);
        return text;
    };
    std::string many;
    for (int n = 0; n < 101; ++n) many += "  Between site #1 and site #2 is J1\n";
    const struct {
        std::string text, problem;
    } cases[] = {
        {edited("Spin Sites: 2", "Spin Sites: 21"), "line 8: 21 spin sites"},
        {edited("Initial J Values: 1", "Initial J Values: 11"), "line 30: 11 J values"},
        {edited("Total data pairs: 2.", "Total data pairs: 1001."), "line 45: 1001 data pairs"},
        {edited("Calculation # 1 ", "Calculation # 11 "), "line 22: calculation # 11"},
        {edited("  Between site #1 and site #2 is J1\n", many), "line 116: more than 100"},
        {edited("to pair #2", "to pair #3"), "calculation # 1 fits pairs 1 to 3, outside"},
        {edited("Total data pairs: 2.", "Total data pairs: -1."), "line 45: -1 data pairs"},
    };
    for (const auto& c : cases) {
        auto doc = std::make_unique<FitDocument>();
        doc->calculationCount = 0;
        std::string problem;
        EXPECT_FALSE(readReportText(c.text, *doc, problem)) << c.problem;
        EXPECT_EQ(problem.rfind(c.problem, 0), 0u) << problem;
    }

    // Through the file: a message naming the file and line, and the document as it was.
    fitDocument.title = "before";
    EXPECT_FALSE(plotReport(dir.write("big.qpo", cases[0].text)));
    EXPECT_FALSE(plotReport(dir.file("none.qpo")));
    ASSERT_EQ(port.messages.size(), 2u);
    EXPECT_EQ(port.messages[0].text, "Cannot read the report " + dir.file("big.qpo") +
                                         ", line 8: 21 spin sites; the document holds 0 to 20.");
    EXPECT_NE(port.messages[1].text.find("none.qpo: No such file"), std::string::npos);
    EXPECT_EQ(fitDocument.title, "before");
}

// An engine output for the small problem: T, fitted, observed on each pair line.
const char* const engineOutput = "0.0125 2.1 0.003\n-0.2 0.00015\n# 0.01 0.001 0 0\n"
                                 "1 -97.25\n# 0.5\n2 1 2\n2 0.48 0.5\n300 0.0013 0.00125\n";

TEST_F(ReportTest, WhatTheRunKnewIsKeptInLinesThatTheValuesReaderPassesOver) {
    auto doc = smallDocument();
    doc->calculationCount = 2;
    std::string problem;
    const std::string plain = reportText(*doc, "date");
    ASSERT_TRUE(readEngineOutput(std::string(engineOutput) +
                                     "# correlation 2 1 5\n# 1 -0.25\n# -0.25 1\n"
                                     "# warning J1 is undetermined: the data do not fix its value\n"
                                     "# equivalent 0.0125 2.1 0.003 0 0.00015 -40.5\n",
                                 *doc, problem))
        << problem;
    Calculation& calc = doc->calculations[1];
    calc.g.step = calc.j[0].step = 0.01;
    calc.c.uncertainty = HUGE_VAL; // undetermined
    calc.end = FitEnd::Interrupted;
    const std::string text = reportText(*doc, "date");

    // Read back whole: every number, the undetermined one, the correlations, the warning, the
    // other minimum and the interruption.
    auto read = std::make_unique<FitDocument>();
    read->calculationCount = 0;
    ASSERT_TRUE(readReportText(text, *read, problem)) << problem;
    EXPECT_EQ(reportText(*read, "date"), text);
    const Calculation& back = read->calculations[1];
    EXPECT_EQ(back.j[0].uncertainty, 0.5);
    EXPECT_TRUE(std::isinf(back.c.uncertainty));
    EXPECT_EQ(back.zJ.uncertainty, 0.0);
    EXPECT_EQ(back.correlation[0][1], -0.25);
    EXPECT_EQ(back.end, FitEnd::Interrupted);
    EXPECT_TRUE(std::isnan(read->calculations[0].g.uncertainty)); // not known: written as before

    // The new lines stand between the fitted J values and the fitted susceptibility and hold
    // none of the labels a reader of the values looks for, so that it reads past them: without
    // them the report is the one written before the run knew anything.
    const std::size_t from = text.find("\n  Standard Uncertainties:");
    const std::size_t to = text.find("\n  Fitted Susceptibility:", from);
    ASSERT_NE(from, std::string::npos);
    const std::string block = text.substr(from, to - from);
    for (const char* label :
         {"TITLE", "Spin Sites: ", "Site #     Spin", "Interactions:", "Between site #",
          "Energy Unit: ", "Fitting Results - Calculation # ", "with fiting squared diviation = ",
          "Initial Parameters:", "Fitted Parameters:", "Initial J Values: ", "Fitted J Values: ",
          "Total data pairs: ", "Tempreture (K)", "****", "g = ", "C = ", "zJ = ", "Xtip = "})
        EXPECT_EQ(block.find(label), std::string::npos) << label;
    std::string without = text;
    without.erase(from, to - from);
    auto before = std::make_unique<FitDocument>(*read);
    for (Calculation& c : before->calculations) {
        for (FitParameter* f : {&c.g, &c.c, &c.zJ, &c.tip}) f->uncertainty = std::nan("");
        for (FitParameter& j : c.j) j.uncertainty = std::nan("");
        c.correlatedCount = 0;
        c.warnings.clear();
        c.alternatives.clear();
        c.end = FitEnd::Converged;
    }
    EXPECT_EQ(without, reportText(*before, "date"));
    EXPECT_NE(plain.find("Fitted J Values"), std::string::npos);
    for (std::size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
        EXPECT_LE(end - at + 1, static_cast<std::size_t>(reportLineLength)) << text.substr(at, end - at);
}

TEST_F(ReportTest, AMagnetizationSetGoesFromTheEngineOutputToTheReportAndBack) {
    auto doc = smallDocument();
    doc->calculationCount = 2;
    doc->field = 0.1;
    doc->weighting = Weighting::Relative;
    doc->magnetWeight = 0.5;
    doc->magnetCount = 2;
    doc->magnetPoints[0] = {2.0, 1.0, 0.75};
    doc->magnetPoints[1] = {2.0, 7.0, 1.98};
    const std::string sets = "# sets 0.004 0.0085\n# magnetisation 2 1 2\n"
                             "# 2 1 0.7612 0.75\n# 2 7 1.9764 1.98\n";
    std::string problem;
    ASSERT_TRUE(readEngineOutput(std::string(engineOutput) + sets +
                                     "# correlation 2 1 5\n# 1 -0.25\n# -0.25 1\n",
                                 *doc, problem))
        << problem;
    const Calculation& calc = doc->calculations[1];
    EXPECT_EQ(calc.fittedMagnet[1], 1.9764);
    EXPECT_EQ(calc.magnetDeviation, 0.0085);
    EXPECT_EQ(calc.correlatedCount, 2); // the correlations after the set are still read

    const std::string text = reportText(*doc, "date");
    auto read = std::make_unique<FitDocument>();
    read->calculationCount = 0;
    ASSERT_TRUE(readReportText(text, *read, problem)) << problem;
    EXPECT_EQ(reportText(*read, "date"), text);
    EXPECT_EQ(read->field, 0.1);
    EXPECT_EQ(read->weighting, Weighting::Relative);
    EXPECT_EQ(read->magnetWeight, 0.5);
    EXPECT_EQ(read->magnetPoints[1].field, 7.0);
    EXPECT_EQ(read->calculations[1].fittedMagnet[0], 0.7612);

    // Nothing of it holds a label the values are read by; a report read after it has no set.
    std::string added;
    for (const char* label : {"  Field Of The Susceptibility Data", "  Residuals Of The",
                              "  Weight Of The", "\n  Fitted Magnetization:"}) {
        const std::size_t at = text.find(label);
        ASSERT_NE(at, std::string::npos) << label;
        added += text.substr(at, text.find("\n*", at) - at);
    }
    for (const char* label : {"TITLE", "Spin Sites: ", "Interactions:", "Energy Unit: ",
                              "Fitting Results - Calculation # ", "Fitted Parameters:",
                              "Fitted J Values: ", "Total data pairs: ", "Tempreture (K)"})
        EXPECT_EQ(added.find(label), std::string::npos) << label;
    ASSERT_TRUE(readReportText(reportText(*smallDocument(), "date"), *read, problem)) << problem;
    EXPECT_EQ(read->magnetCount, 0);
    EXPECT_EQ(read->field, 0.0);

    // The engine's set must be the problem's.
    for (const std::string& wrong : {std::string(""), std::string("# magnetisation 1 1 1\n# 2 1 0.7 0.75\n"),
                                     std::string("# magnetisation 2 1 2\n# 2 1 0.7 0.75\n# 3 7 1.9 1.98\n")})
        EXPECT_FALSE(readEngineOutput(std::string(engineOutput) + wrong, *doc, problem)) << wrong;
}

TEST_F(ReportTest, TheEngineOutputFillsTheNewestCalculationOrIsRejectedWhole) {
    auto doc = smallDocument();
    doc->calculationCount = 2;
    std::string problem;
    ASSERT_TRUE(readEngineOutput(engineOutput, *doc, problem)) << problem;
    const Calculation& calc = doc->calculations[1];
    EXPECT_EQ(calc.deviation, 0.0125);
    EXPECT_EQ(calc.c.fitted, 0.003);
    EXPECT_EQ(calc.tip.fitted, 0.00015);
    EXPECT_EQ(calc.j[0].fitted, -97.25);
    EXPECT_EQ(doc->pairs[1].temperature, 300.0);
    EXPECT_EQ(doc->pairs[1].observed, 0.00125);
    EXPECT_EQ(calc.fittedValues[1], 0.0013);
    EXPECT_EQ(doc->calculations[0].g.fitted, 2.05); // the older calculation is untouched
    EXPECT_EQ(calc.g.uncertainty, 0.01);
    EXPECT_EQ(calc.zJ.uncertainty, 0.0);
    EXPECT_EQ(calc.j[0].uncertainty, 0.5);

    // The engine's warnings and other minima, after the pairs among its other comment lines: kept
    // with the calculation.
    auto searched = smallDocument();
    searched->calculationCount = 2;
    ASSERT_TRUE(readEngineOutput(std::string(engineOutput) +
                                     "# warning J1 is undetermined: the data do not fix its value\n"
                                     "# equivalent 0.0125 2.1 0.003 0 0.00015 -40.5\n"
                                     "# alternative 0.013 1.9 0 0 0 12\n"
                                     "# ftlm standard error of the calculated values: 1 %\n",
                                 *searched, problem))
        << problem;
    const Calculation& found = searched->calculations[1];
    EXPECT_EQ(found.warnings,
              std::vector<std::string>{"J1 is undetermined: the data do not fix its value"});
    ASSERT_EQ(found.alternatives.size(), 2u);
    EXPECT_TRUE(found.alternatives[0].equivalent);
    EXPECT_EQ(found.alternatives[0].values[4], -40.5);
    EXPECT_FALSE(found.alternatives[1].equivalent);
    EXPECT_EQ(found.alternatives[1].deviation, 0.013);
    EXPECT_FALSE(readEngineOutput(std::string(engineOutput) + "# alternative 0.013 1.9 0 0\n",
                                  *searched, problem));
    EXPECT_EQ(problem.rfind("line 9: the value of an alternative is missing", 0), 0u) << problem;

    const struct {
        const char* text;
        const char* problem;
    } faults[] = {
        {"", "it ends after line 0"},
        {"0.1 2 0\n0 0\n#\n11 1 2 3 4 5 6 7 8 9 10 11\n#\n2 1 2\n", "line 4: 11 J values"},
        {"0.1 2 0\n0 0\n#\n1 -97\n#\n1001 1 1001\n", "line 6: 1001 pairs"},
        {"0.1 2 0\n0 0\n#\n1 -97\n#\n2 1 3\n1 1 1\n2 2 2\n", "line 6: the fitted range"},
        {"0.1 2 0\n0 0\n#\n1 -97\n#\n2 1 2\n2 0.48 0.5", "it ends after 1 of its 2 pair"},
        {"\x7f"
         "ELF garbage\n\x01\x02\n\n\n\n\n\n",
         "line 1: the squared deviation"},
        {"0.1 2 0\n0 0\n#\n3 -97 1 2\n#\n2 1 2\n", "line 4: 3 J values, but the problem has 1"},
        {"0.1 2 inf\n0 0\n#\n1 -97\n#\n2 1 2\n", "line 1: the value of C \"inf\" is not"},
        {"0.1 2 0\n0 0\n#\n1 -97\n#\n2 1 2\n2 1e12 0.5\n300 0.0013 0.00125\n",
         "line 7: the fitted value 1e12 is too large for the report"},
        {"0.1 2 0\n0 0\n#\n1 -97\n#\n2 1 2\n2 0.48 0.5\n299 0.0013 0.00125\n",
         "line 8: pair 2 is not the problem's pair 2"},
    };
    for (const auto& fault : faults) {
        auto target = smallDocument();
        EXPECT_FALSE(readEngineOutput(fault.text, *target, problem)) << fault.problem;
        EXPECT_EQ(problem.rfind(fault.problem, 0), 0u) << problem;
        for (char c : problem) EXPECT_TRUE(c >= ' ' && c <= '~') << problem; // no raw bytes
    }
}

TEST_F(ReportTest, WritingTheReportConsumesTheOutputOrChangesNothing) {
    fitDocument = *smallDocument();
    const std::string output = dir.write("output.txt", engineOutput);
    ASSERT_EQ(writeReport(output, dir.file("cu2.qpo")).outcome, ReportWrite::Written);
    EXPECT_EQ(dir.listing(), "cu2.qpo");
    EXPECT_EQ(fitDocument.calculations[0].j[0].fitted, -97.25);
    const std::string report = dir.read("cu2.qpo");
    EXPECT_EQ(report.substr(report.find("  TITLE")),
              reportText(fitDocument, "").substr(reportText(fitDocument, "").find("  TITLE")));

    // The disk fills while the report is written: report, document and output as they were.
    dir.write("output.txt", std::string(engineOutput).replace(0, 6, "0.0222"));
    failNthFileWrite(1);
    const ReportWrite full = writeReport(output, dir.file("cu2.qpo"));
    EXPECT_EQ(full.outcome, ReportWrite::NotWritten);
    EXPECT_EQ(full.detail, "No space left on device");
    EXPECT_EQ(dir.read("cu2.qpo"), report);
    EXPECT_EQ(fitDocument.calculations[0].deviation, 0.0125);
    EXPECT_EQ(dir.listing(), "cu2.qpo output.txt");

    std::filesystem::remove(output);
    EXPECT_EQ(writeReport(output, dir.file("cu2.qpo")).outcome, ReportWrite::NoOutput);
    EXPECT_EQ(dir.read("cu2.qpo"), report);
}

// A report cut anywhere is refused, or reads as the calculations it holds whole: no value of a
// document read from it is missing or made up.
TEST_F(ReportTest, AReportCutShortIsRefusedWhereverItEnds) {
    auto doc = smallDocument();
    doc->calculationCount = 2;
    doc->calculations[1] = doc->calculations[0];
    doc->calculations[1].g.fitted = 2.0625;
    const std::string full = reportText(*doc, "11/17/2026 04:22:28 PM");
    const std::size_t firstEnd = full.find(std::string(78, '*') + "\n\n\n") + 79;
    int refused = 0;
    for (std::size_t cut = 0; cut < full.size(); ++cut) {
        auto read = std::make_unique<FitDocument>();
        read->calculationCount = 0;
        std::string problem;
        if (!readReportText(full.substr(0, cut), *read, problem)) {
            ++refused;
            continue;
        }
        // Taken only when every section it holds is whole: the first alone, or both.
        const int held = cut < full.size() - 1 ? 1 : 2;
        ASSERT_TRUE((cut >= firstEnd - 1 && cut <= firstEnd + 2) || held == 2) << cut;
        ASSERT_EQ(read->calculationCount, held) << cut;
        auto expected = std::make_unique<FitDocument>(*doc);
        expected->calculationCount = held;
        EXPECT_EQ(reportText(*read, "d"), reportText(*expected, "d")) << cut;
    }
    EXPECT_EQ(refused, static_cast<int>(full.size()) - 5);

    // Through the file: a message naming the file and what is missing; the document stays.
    fitDocument.title = "before";
    EXPECT_FALSE(plotReport(dir.write("cut.qpo", full.substr(0, full.size() - 200))));
    ASSERT_EQ(port.messages.size(), 1u);
    EXPECT_EQ(port.messages[0].text,
              "Cannot read the report " + dir.file("cut.qpo") +
                  ", the file ends in the pairs of calculation # 2, after 0 of 2 pairs; it is "
                  "not complete.");
    EXPECT_EQ(fitDocument.title, "before");
}

} // namespace
} // namespace corvane
