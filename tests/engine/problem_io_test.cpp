#include <cmath>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>

#include "problem_io.h"
#include "support/fixtures.h"

namespace corefit {
namespace {

using corvane::testing::ScratchDir;

TEST(ReadProblem, ReadsCrLfAndMixedSeparatorsWithTheDefaultTolerance) {
    ScratchDir dir;
    const std::string input = dir.write("input.txt", "0,2 ,\t1\r\n"
                                                     "3\r\n1\r\n2\r\n+5\r\n"
                                                     "6 -0.5\r\n"
                                                     "2.000000,0.010000\r\n"
                                                     "1e-3\t0\r\n"
                                                     "0.000000, 0.000000\r\n"
                                                     "0, 0\r\n"
                                                     "-100.5, 1.0\r\n"
                                                     "3.25, 0\r\n"
                                                     "1, 2, 5\r\n"
                                                     "3 , 1 , 6\r\n"
                                                     "2,3,5\r\n"
                                                     "\r\n\r\n");
    dir.write("chit.txt", "must not be read");
    dir.write("chi.txt", "3, 2, 3\r\n2.0  0.1\r\n10\t0.5\r\n300.000000  1.000000e-2\r\n");

    Problem problem;
    std::string error;
    ASSERT_TRUE(readProblem(input, problem, error)) << error;
    EXPECT_EQ(problem.inputPath, input);
    EXPECT_EQ(problem.dataPath, dir.file("chi.txt"));
    EXPECT_EQ(problem.unit, EnergyUnit::Kelvin);
    EXPECT_EQ(problem.kind, DataKind::Chi);
    EXPECT_EQ(problem.twiceSpin, (std::vector<int>{1, 2, 5}));
    EXPECT_TRUE(problem.toleranceDefaulted);
    EXPECT_EQ(problem.tolerance, defaultTolerance);

    ASSERT_EQ(problem.jCount(), 2);
    const double starts[] = {2.0, 1e-3, 0, 0, -100.5, 3.25};
    const double steps[] = {0.01, 0, 0, 0, 1.0, 0};
    for (std::size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(problem.parameters[i].start, starts[i]) << i;
        EXPECT_EQ(problem.parameters[i].step, steps[i]) << i;
    }

    ASSERT_EQ(problem.bonds.size(), 3u);
    EXPECT_EQ(problem.bonds[0].a, 0);
    EXPECT_EQ(problem.bonds[0].b, 1);
    EXPECT_EQ(problem.bonds[0].j, 0);
    EXPECT_EQ(problem.bonds[1].a, 2);
    EXPECT_EQ(problem.bonds[1].b, 0);
    EXPECT_EQ(problem.bonds[1].j, 1);

    ASSERT_EQ(problem.points.size(), 3u);
    EXPECT_EQ(problem.points[1].temperature, 10.0);
    EXPECT_EQ(problem.points[2].observed, 0.01);
    EXPECT_EQ(problem.first, 2);
    EXPECT_EQ(problem.last, 3);
}

TEST(ReadProblem, KeepsAGivenToleranceAndReadsABareFileName) {
    ScratchDir dir;
    dir.write("input.txt", "0, 1, 0\n1\n1\n4, 0.000100\n2, 0\n0, 0\n0, 0\n0, 0\n");
    dir.write("chit.txt", "1, 1, 1\n5 0.375\n");
    const auto previous = std::filesystem::current_path();
    std::filesystem::current_path(dir.path());
    Problem problem;
    std::string error;
    const bool read = readProblem("input.txt", problem, error);
    std::filesystem::current_path(previous);

    ASSERT_TRUE(read) << error;
    EXPECT_EQ(problem.unit, EnergyUnit::MeV);
    EXPECT_FALSE(problem.toleranceDefaulted);
    EXPECT_EQ(problem.tolerance, 0.0001);
    EXPECT_EQ(problem.jCount(), 0);
    EXPECT_TRUE(problem.bonds.empty());
    ASSERT_EQ(problem.points.size(), 1u);
    EXPECT_EQ(problem.points[0].observed, 0.375);
}

TEST(ReadProblem, ReadsTheFieldTheWeightingAndAMagnetisationSet) {
    const std::string input = "0, 2, 0\n1\n1\n4, 0\n2, 0.01\n0, 0\n0, 0\n0, 0\n";
    Problem problem;
    std::string error;
    ASSERT_TRUE(readProblemText(input,
                                "2, 1, 2\n2 0.4\n300 0.37\nweight relative\nfield 0.1\n"
                                "magnetisation 3, 2, 3, 0.5\n2 1 0.5\n2, 7, 1.9\n5\t3 1.2\n",
                                "input.txt", "chit.txt", problem, error))
        << error;
    EXPECT_EQ(problem.field, 0.1);
    EXPECT_EQ(problem.weighting, Weighting::Relative);
    ASSERT_EQ(problem.magnetisation.size(), 3u);
    EXPECT_EQ(problem.magnetisationLine, 6);
    EXPECT_EQ(problem.magnetisationWeight, 0.5);
    EXPECT_EQ(problem.magnetisation[1].field, 7);
    EXPECT_EQ(problem.magnetisation[2].observed, 1.2);
    EXPECT_EQ(problem.fittedPoints(), 4) << "2 pairs and magnetisation points 2 to 3";
}

Problem smallProblem(int jCount) {
    Problem problem;
    problem.twiceSpin = {1, 1};
    problem.parameters.resize(static_cast<std::size_t>(4 + jCount));
    problem.points = {{2, 0.1}, {10, 0.5}, {300, 1}};
    problem.first = 2;
    problem.last = 3;
    return problem;
}

TEST(WriteOutput, WritesTheExactLayoutAndReplacesAnEarlierFile) {
    ScratchDir dir;
    dir.write("output.txt", "from an earlier run\n");
    std::string error;

    // J2 free, but its uncertainty undetermined (NaN); a fixed parameter cannot have one.
    Problem problem = smallProblem(2);
    problem.parameters[5].step = 1;
    Outcome outcome{0.000123456789012,
                    {2.0123456789, 0, -0.25, 3.1e-06, -102.5, 1234567890123.0},
                    {0.0012, 0, 0, 3.1e-06, 0.5, std::nan("")},
                    {0.125, 0.5, 0.99999999999}, {}, {}, {}, {}, {}};
    ASSERT_TRUE(writeOutput(dir.file("output.txt"), problem, outcome, error)) << error;
    EXPECT_EQ(dir.read("output.txt"), "0.000123456789 2.012345679 0\n"
                                      "-0.25 3.1e-06\n"
                                      "# 0.0012 0 0 3.1e-06\n"
                                      "2 -102.5 1.23456789e+12\n"
                                      "# 0.5 undetermined\n"
                                      "3 2 3\n"
                                      "2 0.125 0.1\n"
                                      "10 0.5 0.5\n"
                                      "300 1 1\n");

    problem.parameters[5].step = 0;
    EXPECT_FALSE(writeOutput(dir.file("output.txt"), problem, outcome, error));
    EXPECT_NE(error.find("uncertainty of J2"), std::string::npos) << error;

    Outcome noJ{1, {2, 0, 0, 0}, {0, 0, 0, 0}, {1, 2, 3}, {}, {}, {}, {}, {}};
    ASSERT_TRUE(writeOutput(dir.file("output.txt"), smallProblem(0), noJ, error)) << error;
    EXPECT_EQ(dir.read("output.txt"), "1 2 0\n0 0\n# 0 0 0 0\n0\n#\n3 2 3\n2 1 0.1\n10 2 0.5\n"
                                      "300 3 1\n");
    EXPECT_EQ(dir.listing(), "output.txt");

    // The search's warnings and other minima follow the pairs, before the note.
    noJ.warnings = {"g = 0.4 lies outside 1 to 3"};
    noJ.alternatives = {{1.0000001, {2.5, 0, 0, 0}, true}, {1.02, {1.5, 0.1, 0, 0}, false}};
    noJ.note = "ftlm note";
    ASSERT_TRUE(writeOutput(dir.file("output.txt"), smallProblem(0), noJ, error)) << error;
    EXPECT_EQ(dir.read("output.txt"), "1 2 0\n0 0\n# 0 0 0 0\n0\n#\n3 2 3\n2 1 0.1\n10 2 0.5\n"
                                      "300 3 1\n# warning g = 0.4 lies outside 1 to 3\n"
                                      "# equivalent 1.0000001 2.5 0 0 0\n"
                                      "# alternative 1.02 1.5 0.1 0 0\n# ftlm note\n");
    noJ.alternatives[1].values.pop_back();
    EXPECT_FALSE(writeOutput(dir.file("output.txt"), smallProblem(0), noJ, error));

    // A magnetisation set: each set's part of D and every point, after the pairs.
    Problem joint = smallProblem(0);
    joint.magnetisation = {{2, 1, 0.5}, {2, 7, 1.875}};
    joint.magnetisationLast = 2;
    Outcome both{1, {2, 0, 0, 0}, {0, 0, 0, 0}, {1, 2, 3, 0.25, 2}, {}, {}, {}, {}, {}};
    both.warnings = {"a warning"};
    both.chiDeviation = 0.75;
    both.magnetisationDeviation = 0.25;
    ASSERT_TRUE(writeOutput(dir.file("output.txt"), joint, both, error)) << error;
    EXPECT_EQ(dir.read("output.txt"), "1 2 0\n0 0\n# 0 0 0 0\n0\n#\n3 2 3\n2 1 0.1\n10 2 0.5\n"
                                      "300 3 1\n# sets 0.75 0.25\n# magnetisation 2 1 2\n"
                                      "# 2 1 0.25 0.5\n# 2 7 2 1.875\n# warning a warning\n");
    both.calculated.pop_back();
    EXPECT_FALSE(writeOutput(dir.file("output.txt"), joint, both, error));
}

TEST(WriteOutput, FailsCleanlyLeavingNoFileBehind) {
    ScratchDir dir;
    std::string error;
    const Outcome outcome{1, {2, 0, 0, 0}, {0, 0, 0, 0}, {1, 2, 3}, {}, {}, {}, {}, {}};

    EXPECT_FALSE(writeOutput(dir.file("missing/output.txt"), smallProblem(0), outcome, error));
    EXPECT_NE(error.find("output.txt"), std::string::npos) << error;
    EXPECT_NE(error.find("No such file or directory"), std::string::npos) << error;

    // The rename fails at the very end: the temporary must go too.
    std::filesystem::create_directory(dir.file("output.txt"));
    error.clear();
    EXPECT_FALSE(writeOutput(dir.file("output.txt"), smallProblem(0), outcome, error));
    EXPECT_EQ(error.rfind("output.txt: ", 0), 0u) << error;
    EXPECT_EQ(dir.listing(), "output.txt");

    Outcome broken = outcome;
    broken.calculated[1] = std::nan("");
    EXPECT_FALSE(writeOutput(dir.file("out.txt"), smallProblem(0), broken, error));
    EXPECT_NE(error.find("point 2"), std::string::npos) << error;
    broken.calculated.pop_back();
    EXPECT_FALSE(writeOutput(dir.file("out.txt"), smallProblem(0), broken, error));
    EXPECT_EQ(dir.listing(), "output.txt");
}

TEST(Paths, SplitAndJoin) {
    EXPECT_EQ(directoryOf("input.txt"), ".");
    EXPECT_EQ(directoryOf("/input.txt"), "/");
    EXPECT_EQ(directoryOf("a b//c/input.txt"), "a b//c");
    EXPECT_EQ(directoryOf("run//input.txt"), "run");
    EXPECT_EQ(joinPath(".", "chi.txt"), "./chi.txt");
    EXPECT_EQ(joinPath("/", "chi.txt"), "/chi.txt");
    EXPECT_EQ(joinPath("", "chi.txt"), "chi.txt");
    EXPECT_EQ(joinPath("a/", "chi.txt"), "a/chi.txt");
}

} // namespace
} // namespace corefit
