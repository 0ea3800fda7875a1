// Every malformed input the engine must refuse: the message from readProblem, and corefit's exit
// code, one-line message and untouched directory. A few inputs read well but give the model
// nothing finite at the start values; corefit names the file and line that cause it.
#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "problem_io.h"
#include "support/corefit_run.h"
#include "support/fixtures.h"

namespace corefit {
namespace {

using corvane::testing::CorefitRun;
using corvane::testing::runCorefit;
using corvane::testing::ScratchDir;

// Two S = 1 sites coupled by J1 in cm-1, fitted to three chiT points.
const std::string goodInput = "0, 0, 0\n2\n2\n2\n5, 0.000100\n2.000000, 0.010000\n"
                              "0.000000, 0.000000\n0.000000, 0.000000\n0.000000, 0.000000\n"
                              "-100.000000, 1.000000\n1, 2, 5\n";
const std::string goodData = "3, 1, 3\n2.000000  0.100000\n10.000000  0.500000\n"
                             "300.000000  1.000000\n";

// text with its line number (1-based) replaced by replacement.
std::string withLine(const std::string& text, int number, const std::string& replacement) {
    std::size_t begin = 0;
    for (int line = 1; line < number; ++line) begin = text.find('\n', begin) + 1;
    const std::size_t end = text.find('\n', begin);
    return text.substr(0, begin) + replacement + text.substr(end);
}

// The first count lines of text.
std::string firstLines(const std::string& text, int count) {
    std::size_t end = 0;
    for (int line = 0; line < count; ++line) end = text.find('\n', end) + 1;
    return text.substr(0, end);
}

struct Case {
    std::string what, input, dataName, data, fragment;
    bool readable = false; // read well; refused when the model is evaluated at the start
};

Case badInput(std::string what, std::string input, std::string fragment) {
    return {std::move(what), std::move(input), "chit.txt", goodData, std::move(fragment)};
}
Case badData(std::string what, std::string data, std::string fragment) {
    return {std::move(what), goodInput, "chit.txt", std::move(data), std::move(fragment)};
}
Case badStart(std::string what, std::string input, std::string data, std::string fragment) {
    return {std::move(what), std::move(input),    "chit.txt",
            std::move(data), std::move(fragment), true};
}

const std::vector<Case>& cases() {
    static const std::vector<Case> all = {
        badInput("empty input file", "", "input.txt line 1: the file is empty"),
        badInput("first value not 0", withLine(goodInput, 1, "1, 0, 0"),
                 "input.txt line 1: the first value is 1"),
        badInput("energy unit above 2", withLine(goodInput, 1, "0, 3, 0"),
                 "input.txt line 1: energy unit 3"),
        badInput("data kind above 1", withLine(goodInput, 1, "0, 0, 2"),
                 "input.txt line 1: data kind 2"),
        badInput("first line short", withLine(goodInput, 1, "0, 0"),
                 "input.txt line 1: expected 3 numbers"),
        badInput("no site", withLine(goodInput, 2, "0"), "input.txt line 2: site count 0"),
        badInput("21 sites", withLine(goodInput, 2, "21"), "input.txt line 2: site count 21"),
        badInput("spin 0", withLine(goodInput, 4, "0"),
                 "input.txt line 4: site 2 has spin 0; a spin is given as 2S and must be 1 to 20"),
        badInput("spin 21", withLine(goodInput, 4, "21"), "input.txt line 4: site 2 has spin 21"),
        badInput("two spins of 2S = 100", withLine(withLine(goodInput, 3, "100"), 4, "100"),
                 "input.txt line 3: site 1 has spin 100"),
        badInput("spin 2^31 - 1", withLine(goodInput, 4, "2147483647"),
                 "input.txt line 4: site 2 has spin 2147483647"),
        badInput("spin not an integer", withLine(goodInput, 3, "2.5"),
                 "input.txt line 3: \"2.5\" is not an integer"),
        badInput("blank line among the spins", withLine(goodInput, 3, "2\n"),
                 "input.txt line 4: blank line"),
        badInput("parameter count 3", withLine(goodInput, 5, "3, 0.0001"),
                 "input.txt line 5: parameter count 3"),
        badInput("11 J values", withLine(goodInput, 5, "15, 0.0001"),
                 "input.txt line 5: parameter count 15"),
        badInput("tolerance not a number", withLine(goodInput, 5, "5, abc"),
                 "input.txt line 5: \"abc\" is not a number"),
        badInput("start without step", withLine(goodInput, 7, "0"),
                 "input.txt line 7: expected 2 numbers"),
        badInput("three numbers for a start and step", withLine(goodInput, 6, "2, 0.01, 0"),
                 "input.txt line 6: expected 2 numbers"),
        badInput("trailing garbage", withLine(goodInput, 6, "2.000000, 0.010000x"),
                 "input.txt line 6: \"0.010000x\" is not a number"),
        badInput("start not finite", withLine(goodInput, 8, "nan, 0"),
                 "input.txt line 8: \"nan\" is not a finite number"),
        badInput("start and step lines cut short", firstLines(goodInput, 9),
                 "input.txt line 10: the file ends early"),
        badInput("interaction with site 3 of 2", withLine(goodInput, 11, "1, 3, 5"),
                 "input.txt line 11: an interaction names site 3"),
        badInput("interaction with site 0", withLine(goodInput, 11, "0, 2, 5"),
                 "input.txt line 11: an interaction names site 0"),
        badInput("interaction of a site with itself", withLine(goodInput, 11, "2, 2, 5"),
                 "input.txt line 11: an interaction joins site 2 to itself"),
        badInput("interaction by g", withLine(goodInput, 11, "1, 2, 4"),
                 "input.txt line 11: an interaction names parameter 4"),
        badInput("interaction by J2 of 1", withLine(goodInput, 11, "1, 2, 6"),
                 "input.txt line 11: an interaction names parameter 6"),
        badInput("interaction without J values",
                 firstLines(withLine(goodInput, 5, "4, 0.0001"), 9) + "1, 2, 5\n",
                 "input.txt line 10: an interaction names parameter 5, but there are no J values"),
        badInput("interaction short", goodInput + "1, 2\n",
                 "input.txt line 12: expected 3 numbers"),
        badInput("data kind 1 without chi.txt", withLine(goodInput, 1, "0, 0, 1"),
                 "chi.txt: cannot open"),
        {"no data file", goodInput, "", "", "chit.txt: cannot open"},
        badData("no point", withLine(goodData, 1, "0, 1, 1"), "chit.txt line 1: point count 0"),
        badData("1001 points", withLine(goodData, 1, "1001, 1, 3"),
                "chit.txt line 1: point count 1001"),
        badData("first 0", withLine(goodData, 1, "3, 0, 3"),
                "chit.txt line 1: fitted points 0 to 3"),
        badData("last beyond N", withLine(goodData, 1, "3, 1, 4"),
                "chit.txt line 1: fitted points 1 to 4"),
        badData("first after last", withLine(goodData, 1, "3, 3, 2"),
                "chit.txt line 1: fitted points 3 to 2"),
        badData("header short", withLine(goodData, 1, "3, 1"),
                "chit.txt line 1: expected 3 numbers"),
        badData("temperature 0", withLine(goodData, 3, "0 0.5"),
                "chit.txt line 3: point 2 has temperature 0"),
        badData("value not a number", withLine(goodData, 3, "10 0.5a"),
                "chit.txt line 3: \"0.5a\" is not a number"),
        badData("three numbers on a data line", withLine(goodData, 4, "300 1 1"),
                "chit.txt line 4: expected 2 numbers"),
        badData("data lines cut short", firstLines(goodData, 3),
                "chit.txt line 4: the file ends early"),
        badData("a line after the data", goodData + "400 1\n",
                "chit.txt line 5: more lines than the 3 points"),
        // The lines after the points: field, weight, magnetisation.
        badData("a word that is no line of the file", goodData + "feild 1\n",
                "chit.txt line 5: \"feild\" is not a line of the data file"),
        badData("field 0", goodData + "field 0\n",
                "chit.txt line 5: field 0 T; it must be above 0 and at most 100 T"),
        badData("field above 100 T", goodData + "weight relative\nfield 1000\n",
                "chit.txt line 6: field 1000 T; it must be above 0"),
        badData("1001 magnetisation points", goodData + "magnetisation 1001, 1, 3, 1\n",
                "chit.txt line 5: magnetisation point count 1001; it must be 1 to 1000"),
        badData("magnetisation line cut", goodData + "magnetisation 2, 1, 2, 1\n2 1 1\n2 2\n",
                "chit.txt line 7: expected 3 numbers (magnetisation point 2 of 2"),
        badData("magnetisation field 0", goodData + "magnetisation 1, 1, 1, 1\n2 0 1\n",
                "chit.txt line 6: magnetisation point 1 has field 0 T"),
        badData("no points and no magnetisation", "0, 1, 0\n",
                "chit.txt line 1: no points, and no magnetisation set"),
        badData("relative weight of a value 0", withLine(goodData, 3, "10 0") + "weight relative\n",
                "chit.txt line 3: point 2 has chiT 0; relative weighting divides"),
        badData("magnetisation all 0", goodData + "magnetisation 1, 1, 1, 1\n2 1 0\n",
                "chit.txt line 5: the fitted magnetisation values are all 0"),
        badStart("T = 1e308 with a Xtip", withLine(goodInput, 9, "0.001, 0"),
                 withLine(goodData, 4, "1e308 1"), "chit.txt line 4: point 3 (T = 1e+308"),
        badStart("chiT = 1e300", goodInput, withLine(goodData, 2, "2 1e300"),
                 "chit.txt line 2: point 1 (T = 2, chiT 1e+300)"),
        badStart("a mean field with its pole above 300 K", withLine(goodInput, 8, "1000, 0"),
                 goodData, "input.txt: zJ = 1000 puts the pole of the mean field above"),
        badStart("the pole above a magnetisation point", withLine(goodInput, 8, "1000, 0"),
                 "0, 1, 0\nmagnetisation 2, 1, 2, 1\n2 1 1\n300 1 0.01\n",
                 "above the temperature of chit.txt line 4: magnetisation point 2 (T = 300, H = 1 "
                 "T, M 0.01)"),
    };
    return all;
}

// A fresh directory with a blank in its name holding the case's files; returns the input path.
std::string prepare(const ScratchDir& scratch, const Case& c) {
    std::filesystem::create_directory(scratch.file("run dir"));
    if (!c.dataName.empty()) scratch.write("run dir/" + c.dataName, c.data);
    return scratch.write("run dir/input.txt", c.input);
}

TEST(Validation, ReadProblemRefusesEveryMalformedFileWithOneLineNamingFileAndLine) {
    for (const Case& c : cases()) {
        if (c.readable) continue;
        SCOPED_TRACE(c.what);
        ScratchDir scratch;
        Problem problem;
        std::string error;
        EXPECT_FALSE(readProblem(prepare(scratch, c), problem, error));
        EXPECT_NE(error.find(c.fragment), std::string::npos) << error;
        EXPECT_EQ(error.find('\n'), std::string::npos) << error;
    }
}

// The exit code and the one line on the error stream: the faults found only once the problem
// is evaluated, and two of those the reader finds (the reader's own test has the rest).
TEST(Validation, CorefitExitsWithCode2AndWritesNoOutput) {
    int unreadable = 0;
    for (const Case& c : cases()) {
        if (!c.readable && ++unreadable > 2) continue;
        SCOPED_TRACE(c.what);
        ScratchDir scratch;
        const CorefitRun run = runCorefit(prepare(scratch, c));
        EXPECT_EQ(run.exitCode, 2) << run.errors;
        EXPECT_NE(run.errors.find(c.fragment), std::string::npos) << run.errors;
        EXPECT_EQ(std::count(run.errors.begin(), run.errors.end(), '\n'), 1) << run.errors;
        EXPECT_FALSE(scratch.has("run dir/output.txt"));
    }
}

} // namespace
} // namespace corefit
