// corefit as a program: a real measurement, undetermined uncertainties, the interrupt, the size
// limits, its files.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "model.h"
#include "problem_io.h"
#include "support/corefit_run.h"
#include "support/fixtures.h"

using corvane::testing::CorefitRun;
using corvane::testing::runCorefit;
using corvane::testing::ScratchDir;

namespace {

// The numbers of every line of output.txt up to the correlations ("#" lines included, without
// the "#").
std::vector<std::vector<double>> readOutput(const ScratchDir& dir) {
    std::vector<std::vector<double>> lines;
    std::istringstream text(dir.read("output.txt"));
    for (std::string line; std::getline(text, line);) {
        if (line.rfind("# correlation", 0) == 0) break;
        if (!line.empty() && line[0] == '#') line.erase(0, 1);
        std::istringstream numbers(line);
        lines.emplace_back();
        for (double value; numbers >> value;) lines.back().push_back(value);
    }
    return lines;
}

// input.txt for identical sites in a ring (or a pair), J values alternating along the ring.
std::string ringInput(int sites, int twiceSpin, const std::vector<std::pair<double, double>>& g,
                      const std::vector<std::pair<double, double>>& j, const char* unitAndKind) {
    std::ostringstream text;
    text << "0, " << unitAndKind << "\n" << sites << "\n";
    for (int i = 0; i < sites; ++i) text << twiceSpin << "\n";
    text << 4 + j.size() << ", 0.000000\n";
    for (auto [start, step] : g) text << start << ", " << step << "\n";
    for (auto [start, step] : j) text << start << ", " << step << "\n";
    const int bonds = sites == 2 ? 1 : sites;
    for (int i = 0; i < bonds; ++i)
        text << i + 1 << ", " << (i + 1) % sites + 1 << ", " << 5 + i % static_cast<int>(j.size())
             << "\n";
    return text.str();
}

// chit.txt of the D-NIT2 measurements (two S = 1/2 radicals, kelvin units); returns the count.
int writeDNit2Data(const ScratchDir& dir) {
    std::ifstream example(CORVANE_SOURCE_DIR "/examples/d-nit2.qpi");
    std::ostringstream data;
    int count = 0;
    for (std::string line; std::getline(example, line);)
        if (line.rfind("T_CHI ", 0) == 0) {
            data << line.substr(6) << "\n";
            ++count;
        }
    dir.write("chit.txt",
              std::to_string(count) + ", 1, " + std::to_string(count) + "\n" + data.str());
    return count;
}

} // namespace

TEST(Corefit, FitsTheDNit2MeasurementsAsPublished) {
    // g and J free, C, zJ and Xtip fixed at 0.
    ScratchDir dir;
    const int count = writeDNit2Data(dir);
    ASSERT_GT(count, 20);
    const std::string input = dir.write(
        "input.txt", ringInput(2, 1, {{2.0, 0.01}, {0, 0}, {0, 0}, {0, 0}}, {{-200, 2}}, "2, 0"));
    const CorefitRun run = runCorefit(input);
    ASSERT_EQ(run.exitCode, 0) << run.errors;
    const auto output = readOutput(dir);
    ASSERT_EQ(output.size(), static_cast<std::size_t>(6 + count));
    const double g = output[0][1], j = output[3][1];
    // Published: J = -230 K (chiT fit); J = -229.9 K with g = 1.984 (weighted least squares).
    EXPECT_NEAR(j, -229.9, 0.5);
    EXPECT_NEAR(g, 1.984, 0.002);
    EXPECT_GT(output[4][0], 0) << "an uncertainty for J";
    EXPECT_EQ(output[0][2], 0) << "C stays fixed";
    EXPECT_NE(dir.read("corefit.log").find("agreement factor R"), std::string::npos);
}

TEST(Corefit, MarksTheUncertaintyOfAFreeJNoPathUsesAndEstimatesTheOthers) {
    // The same fit with a free J2 on no pair: g and J1 keep their uncertainties.
    ScratchDir dir;
    writeDNit2Data(dir);
    const auto g = std::vector<std::pair<double, double>>{{2.0, 0.01}, {0, 0}, {0, 0}, {0, 0}};
    const std::string input = dir.write("input.txt", ringInput(2, 1, g, {{-200, 2}}, "2, 0"));
    ASSERT_EQ(runCorefit(input).exitCode, 0);
    const auto alone = readOutput(dir);
    dir.write("input.txt", ringInput(2, 1, g, {{-200, 2}, {5, 0.1}}, "2, 0"));
    const CorefitRun run = runCorefit(input);
    ASSERT_EQ(run.exitCode, 0) << run.errors;
    const auto output = readOutput(dir);
    EXPECT_NEAR(output[2][0], alone[2][0], 1e-6 * alone[2][0]) << "g";
    EXPECT_NEAR(output[4][0], alone[4][0], 1e-6 * alone[4][0]) << "J1";
    std::istringstream text(dir.read("output.txt"));
    std::vector<std::string> lines(5);
    for (std::string& line : lines) std::getline(text, line);
    EXPECT_EQ(lines[2].rfind("# ", 0), 0u) << lines[2];
    EXPECT_EQ(lines[2].substr(lines[2].size() - 6), " 0 0 0") << "fixed C, zJ, Xtip";
    EXPECT_EQ(lines[4].rfind("# ", 0), 0u) << lines[4];
    EXPECT_EQ(lines[4].substr(lines[4].size() - 13), " undetermined") << lines[4];
    EXPECT_NE(dir.read("corefit.log").find("J2: no exchange path uses J2"), std::string::npos)
        << dir.read("corefit.log");
}

TEST(Corefit, InterruptWritesTheBestParametersSoFarAndExits3) {
    // A 14-site ring with two J, started well off, so that the fit takes several iterations;
    // without symmetry, so that each takes long enough for the further starts to run one after
    // another (side by side, the best so far could come from a start that reports no lines).
    ScratchDir dir;
    std::ostringstream data;
    for (int i = 1; i <= 60; ++i) data << 5.0 * i << "  " << 0.3 + 0.002 * i << "\n";
    dir.write("chit.txt", "60, 1, 60\n" + data.str());
    const std::string input =
        dir.write("input.txt", ringInput(14, 1, {{2.3, 0.01}, {0, 0}, {0, 0}, {0, 0}},
                                         {{-3, 0.1}, {-2, 0.1}}, "2, 0"));
    std::string lastIteration;
    bool signalled = false;
    const CorefitRun run =
        runCorefit(input, {"--symmetry", "off"}, [&](const std::string& line, pid_t pid) {
            if (line.rfind("iteration ", 0) != 0) return;
            lastIteration = line;
            if (!signalled) signalled = ::kill(pid, SIGTERM) == 0;
        });
    ASSERT_TRUE(signalled);
    ASSERT_EQ(run.exitCode, 3) << run.out << run.errors;
    // output.txt holds the parameters of the last iteration reported.
    const auto output = readOutput(dir);
    ASSERT_EQ(output.size(), 66u);
    std::ostringstream expected;
    expected.precision(10);
    expected << "g=" << output[0][1] << " ";
    EXPECT_NE(lastIteration.find(expected.str()), std::string::npos) << lastIteration;
    expected.str("");
    expected << "J1=" << output[3][1] << " J2=" << output[3][2];
    EXPECT_NE(lastIteration.find(expected.str()), std::string::npos) << lastIteration;
    EXPECT_NE(dir.read("corefit.log").find("interrupted"), std::string::npos);
}

TEST(Corefit, StopsInsideALongDiagonalisationAndEndsAtOnceOnASecondSignal) {
    // A 13-site ring in M blocks with both J free: the first spectrum, with eigenvectors for the
    // slopes, takes seconds. A signal arrives while it is computed, before any result.
    for (const int signals : {1, 2}) {
        SCOPED_TRACE(signals);
        ScratchDir dir;
        dir.write("chit.txt", "3, 1, 3\n2 0.3\n10 0.5\n300 1.1\n");
        const std::string input =
            dir.write("input.txt", ringInput(13, 1, {{2.3, 0.01}, {0, 0}, {0, 0}, {0, 0}},
                                             {{-3, 0.1}, {-2, 0.1}}, "2, 0"));
        const CorefitRun run =
            runCorefit(input, {"--method", "m-blocks", "--threads", "1", "--starts", "0"},
                       [&](const std::string& line, pid_t pid) {
                           if (line.rfind("setup ", 0) != 0) return;
                           std::this_thread::sleep_for(std::chrono::milliseconds(300));
                           for (int i = 0; i < signals; ++i) {
                               if (i > 0)
                                   std::this_thread::sleep_for(std::chrono::milliseconds(50));
                               ::kill(pid, SIGINT);
                           }
                       });
        if (signals == 1) {
            EXPECT_EQ(run.exitCode, 3) << run.out << run.errors;
            EXPECT_NE(dir.read("corefit.log").find("interrupted"), std::string::npos);
        } else {
            EXPECT_EQ(run.exitCode, -1) << "ended by the second signal";
        }
        EXPECT_FALSE(dir.has("output.txt")) << "no result to write yet";
    }
}

TEST(Corefit, RefusesProblemsBeyondItsLimitsAtOnce) {
    ScratchDir dir;
    dir.write("chit.txt", "2, 1, 2\n10  1\n300  3\n");
    // Twenty S = 5/2 sites (3.7e15 states), and twenty S = 10 sites (2.8e26, beyond 64 bits).
    for (const auto& [twiceSpin, dimension] :
         {std::pair{5, "dimension 3656158440062976"}, std::pair{20, "dimension 2.782e+26"}}) {
        const std::string input =
            dir.write("input.txt", ringInput(20, twiceSpin, {{2, 0.01}, {0, 0}, {0, 0}, {0, 0}},
                                             {{-5, 0.1}}, "2, 0"));
        const CorefitRun huge = runCorefit(input);
        EXPECT_EQ(huge.exitCode, 4);
        EXPECT_NE(huge.errors.find(dimension), std::string::npos) << huge.errors;
        EXPECT_NE(huge.errors.find("the limit is"), std::string::npos) << huge.errors;
        EXPECT_FALSE(dir.has("output.txt"));
    }

    // A small problem under a tiny memory limit is refused the same way; with none, it runs.
    const std::string input = dir.write(
        "input.txt", ringInput(6, 5, {{2, 0}, {0, 0}, {0, 0}, {0, 0}}, {{-5, 0}, {-3, 0}}, "2, 0"));
    const CorefitRun limited = runCorefit(input, {"--max-memory", "0.001"});
    EXPECT_EQ(limited.exitCode, 4);
    EXPECT_NE(limited.errors.find("--max-memory"), std::string::npos) << limited.errors;
    const CorefitRun evaluated = runCorefit(input);
    EXPECT_EQ(evaluated.exitCode, 0) << evaluated.errors;
    EXPECT_EQ(readOutput(dir).size(), 8u);
}

TEST(Corefit, ReplacesLinksNamedLikeItsFilesAndLeavesTheirTargetsAlone) {
    ScratchDir dir;
    dir.write("chit.txt", "3, 1, 3\n2 0.3\n10 0.5\n300 0.7\n");
    const std::string input = dir.write(
        "input.txt", ringInput(2, 1, {{2, 0.01}, {0, 0}, {0, 0}, {0, 0}}, {{-10, 0.1}}, "2, 0"));
    const std::vector<std::string> names{"corefit.log", "output.txt"};
    for (const std::string& name : names) {
        dir.write("kept-" + name, "kept\n");
        std::filesystem::create_symlink("kept-" + name, dir.file(name));
    }
    ASSERT_EQ(runCorefit(input).exitCode, 0);
    for (const std::string& name : names) {
        EXPECT_EQ(dir.read("kept-" + name), "kept\n") << name;
        EXPECT_FALSE(std::filesystem::is_symlink(dir.file(name))) << name;
    }
    EXPECT_NE(dir.read("corefit.log").find("wrote"), std::string::npos);
    EXPECT_EQ(readOutput(dir).size(), 9u);
}

TEST(Corefit, NamesTheSymmetryAndTheMethodItUsesAndFtlmItsError) {
    ScratchDir dir;
    dir.write("chit.txt", "3, 1, 3\n2  0.5\n20  2\n300  3\n");
    const std::string input = dir.write(
        "input.txt", ringInput(10, 1, {{2, 0}, {0, 0}, {0, 0}, {0, 0}}, {{-10, 0}, {-7, 0}}, "2, 0"));

    const CorefitRun exact = runCorefit(input);
    ASSERT_EQ(exact.exitCode, 0) << exact.errors;
    const std::string log = dir.read("corefit.log");
    EXPECT_NE(log.find("symmetry: order 10, cyclic 5 + reflections"), std::string::npos) << log;
    EXPECT_NE(exact.out.find("S blocks split by symmetry (the whole group, order 10, cyclic 5 + "
                             "reflections on 5 units of 2 sites"),
              std::string::npos)
        << exact.out;
    const double split = readOutput(dir)[6][1];

    const CorefitRun plain = runCorefit(input, {"--symmetry", "off"});
    ASSERT_EQ(plain.exitCode, 0) << plain.errors;
    EXPECT_NE(dir.read("corefit.log").find("symmetry: not used"), std::string::npos);
    EXPECT_NEAR(readOutput(dir)[6][1], split, 1e-9 * split);

    // Beyond a limit, exact refuses with its estimate. FTLM says how far to trust it: here
    // every block is small enough to be diagonalised whole, so its values have no sampling
    // error, and it says so.
    const CorefitRun refused = runCorefit(input, {"--method", "exact", "--max-time", "1e-9"});
    EXPECT_EQ(refused.exitCode, 4);
    EXPECT_NE(refused.errors.find("needs an estimated"), std::string::npos) << refused.errors;
    const CorefitRun ftlm = runCorefit(input, {"--method", "ftlm", "--seed", "7"});
    ASSERT_EQ(ftlm.exitCode, 0) << ftlm.errors;
    EXPECT_NE(dir.read("output.txt").find("# ftlm: every block diagonalised whole"),
              std::string::npos);
    EXPECT_NE(dir.read("corefit.log").find("seed 7"), std::string::npos);
}

TEST(Corefit, MagnetisationFixesTheGThatChiTAloneTradesAgainstJ) {
    // A ferromagnetic pair of S = 1/2 (J = +20 K, g = 2.1). Between 10 and 30 K its chiT changes
    // with g^2 and with T/J about alike, so chiT alone (1 % noise) leaves g and J strongly
    // correlated; M(H) at 2 K up to 7 T (0.3 % noise), close to its saturation g S, fixes g.
    corefit::Problem problem;
    problem.unit = corefit::EnergyUnit::Kelvin;
    problem.twiceSpin = {1, 1};
    problem.bonds = {{0, 1, 0}};
    problem.parameters.resize(5);
    for (int i = 0; i < 30; ++i) problem.points.push_back({10 * std::pow(3.0, i / 29.0), 0});
    problem.last = 30;
    for (int i = 1; i <= 28; ++i) problem.magnetisation.push_back({2, 0.25 * i, 0});
    problem.magnetisationLast = 28;
    const corefit::SpinSystem system{problem.twiceSpin, problem.bonds, 1};
    corefit::Spectrum spectrum(system, corefit::planSpectrum(system, corefit::Method::SBlocks), 1);
    std::vector<double> clean;
    ASSERT_TRUE(corefit::SusceptibilityModel(problem, spectrum).predict({2.1, 0, 0, 0, 20}, clean));
    std::uint64_t state = 7; // Box-Muller over a fixed linear congruential sequence
    auto uniform = [&state] {
        state = state * 6364136223846793005ULL + 1442695040888963407ULL;
        return (static_cast<double>(state >> 11) + 0.5) / 9007199254740992.0;
    };
    auto normal = [&] {
        return std::sqrt(-2 * std::log(uniform())) * std::cos(6.2831853 * uniform());
    };
    std::string chiT = "30, 1, 30\n", magnetisation = "magnetisation 28, 1, 28, 1\n";
    for (std::size_t i = 0; i < 30; ++i)
        chiT += corefit::formatText("%.10g %.10g\n", problem.points[i].temperature,
                                    clean[i] * (1 + 0.01 * normal()));
    for (std::size_t i = 0; i < 28; ++i)
        magnetisation += corefit::formatText("2 %g %.10g\n", problem.magnetisation[i].field,
                                             clean[30 + i] * (1 + 0.003 * normal()));

    ScratchDir dir;
    const std::string input = dir.write(
        "input.txt", ringInput(2, 1, {{2.0, 0.01}, {0, 0}, {0, 0}, {0, 0}}, {{8, 0.1}}, "2, 0"));
    struct Fitted {
        double g, sg, j, sj, correlation;
        std::vector<std::string> lines;
    };
    auto fit = [&](const std::string& data) {
        dir.write("chit.txt", data);
        EXPECT_EQ(runCorefit(input).exitCode, 0);
        Fitted out{};
        std::istringstream text(dir.read("output.txt"));
        for (std::string line; std::getline(text, line);) out.lines.push_back(line);
        const auto output = readOutput(dir);
        out.g = output[0][1], out.sg = output[2][0], out.j = output[3][1], out.sj = output[4][0];
        const auto at = std::find(out.lines.begin(), out.lines.end(), "# correlation 2 1 5");
        if (at + 1 < out.lines.end()) std::sscanf(at[1].c_str(), "# %*f %lf", &out.correlation);
        return out;
    };
    const Fitted alone = fit(chiT);
    const Fitted joint = fit(chiT + magnetisation);
    EXPECT_LT(alone.correlation, -0.85) << "g and J traded against each other";
    EXPECT_GT(joint.correlation, alone.correlation);
    EXPECT_LT(joint.sg, 0.6 * alone.sg);
    EXPECT_LT(joint.sj, 0.6 * alone.sj);
    EXPECT_LT(std::abs(joint.g - 2.1), 3 * joint.sg) << joint.g << " +/- " << joint.sg;
    EXPECT_LT(std::abs(joint.j - 20), 3 * joint.sj) << joint.j << " +/- " << joint.sj;

    // output.txt: each set's part of D, then the magnetisation points after the pairs.
    const auto& lines = joint.lines;
    ASSERT_GT(lines.size(), 36u + 28u);
    double chiPart = 0, magnetPart = 0, tesla = 0, calculated = 0, observed = 0;
    ASSERT_EQ(std::sscanf(lines[36].c_str(), "# sets %lf %lf", &chiPart, &magnetPart), 2);
    EXPECT_NEAR(chiPart + magnetPart, std::stod(lines[0]), 1e-9 * std::stod(lines[0]));
    EXPECT_EQ(lines[37], "# magnetisation 28 1 28");
    ASSERT_EQ(std::sscanf(lines[65].c_str(), "# 2 %lf %lf %lf", &tesla, &calculated, &observed), 3);
    EXPECT_EQ(tesla, 7);
    EXPECT_NEAR(calculated, observed, 0.01 * observed) << "close to g S = 1.05";
}
