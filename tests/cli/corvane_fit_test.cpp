// corvane-fit as a user runs it: exit codes, what it prints, what it leaves on disk.
#include <cmath>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <regex>
#include <spawn.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "fit/fit_document.h"
#include "fit/report.h"
#include "support/magnet_set.h"
#include "support/stand_in_engine.h"
#include "text/text.h"

extern char** environ;

namespace corvane {
namespace {

struct Outcome {
    int exitCode;
    std::string out, err;
};

// Each test in a scratch directory; a stand-in engine (CORVANE_ENGINE) lasts one test.
class CorvaneFit : public ::testing::Test {
protected:
    void TearDown() override { unsetenv("CORVANE_ENGINE"); }
    testing::ScratchDir dir;
};

// Runs corvane-fit with the arguments, each passed as one argument.
Outcome run(const testing::ScratchDir& dir, std::initializer_list<std::string> arguments) {
    std::string command = "'" CORVANE_BIN_DIR "/corvane-fit'";
    for (const std::string& argument : arguments) command += " '" + argument + "'";
    command += " >'" + dir.file(".out") + "' 2>'" + dir.file(".err") + "'";
    const int status = std::system(command.c_str());
    Outcome outcome{WIFEXITED(status) ? WEXITSTATUS(status) : -1, dir.read(".out"),
                    dir.read(".err")};
    std::filesystem::remove(dir.file(".out"));
    std::filesystem::remove(dir.file(".err"));
    return outcome;
}

TEST_F(CorvaneFit, PrepareWritesTheExchangeFilesAndSaysWhere) {
    std::filesystem::create_directory(dir.file("my data"));
    const std::string input = dir.file("my data/cu2-dimer.qpi");
    std::filesystem::copy_file(CORVANE_SOURCE_DIR "/examples/cu2-dimer.qpi", input);
    const Outcome outcome = run(dir, {"prepare", input});
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    EXPECT_EQ(outcome.err, "");
    EXPECT_NE(
        outcome.out.find("2 sites, 1 interaction, 1 J value, 50 chiT pairs, energies in cm-1"),
        std::string::npos)
        << outcome.out;
    EXPECT_NE(outcome.out.find("Wrote " + dir.file("my data/chit.txt") + "\n"), std::string::npos);
    EXPECT_TRUE(dir.has("my data/input.txt") && dir.has("my data/chit.txt"));
}

// chi of a copper(II) dimer is of the order of 1e-4 cm3 mol-1 when J is -300 cm-1: six decimals
// would keep one or two of its digits, so the engine must get them all.
TEST_F(CorvaneFit, NoiseFreeChiOfAStrongAntiferromagnetGivesBackGAndJ) {
    const double g = 2.1, j = -300.0, jKelvin = j * 1.4387768775, c0 = 0.375148096;
    std::string input = "TITLE Cu2, J = -300 cm-1\nKEYWD DATA_FILE=XT ENERGY_UNIT=CM-1 "
                        "PRECISION=1e-12\nKEYWD G_START=2.0 G_STEP=0.01\n"
                        "J_VALUE1 -250 1\nSPIN_ON_SITE1 1\nSPIN_ON_SITE2 1\n"
                        "INTERACTION sites 1 and 2 coupled by J1\n";
    for (int t = 60; t <= 300; t += 10) {
        const double triplet = std::exp(2 * jKelvin / t); // H = -2J S1.S2: the triplet at -2J
        const double chi = c0 * g * g / t * 2 * triplet / (1 + 3 * triplet);
        input += formatC("T_CHI %d %.17g\n", t, chi);
    }
    const Outcome outcome = run(dir, {"run", dir.write("cu2.qpi", input), "--json"});
    ASSERT_EQ(outcome.exitCode, 0) << outcome.err;
    const nlohmann::json fit = nlohmann::json::parse(outcome.out)["calculations"][0];
    EXPECT_NEAR(fit["g"]["fitted"].get<double>(), g, 1e-5 * g);
    EXPECT_NEAR(fit["J"][0]["fitted"].get<double>(), j, 1e-5 * -j);
    EXPECT_TRUE(fit["g"]["uncertainty"].is_number());
    EXPECT_EQ(fit["correlations"]["parameters"], nlohmann::json::parse(R"(["g", "J1"])"));
    EXPECT_EQ(fit["correlations"]["matrix"][1][1].get<double>(), 1.0);
}

TEST_F(CorvaneFit, FailuresGoToTheErrorStreamWithANonZeroExit) {
    const Outcome limit = run(dir, {"prepare", dir.write("big.qpi", "J_VALUE11 1 1\n")});
    EXPECT_EQ(limit.exitCode, 1);
    EXPECT_EQ(limit.err, "Error: " + dir.file("big.qpi") + ", line 1: Maximum J values are 10 !\n");
    EXPECT_EQ(limit.out, "");
    EXPECT_FALSE(dir.has("input.txt"));

    const Outcome missing = run(dir, {"prepare", dir.file("none.qpi")});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_NE(missing.err.find(dir.file("none.qpi") + ": No such file or directory"),
              std::string::npos);

    // No engine: exit 2, one line on the error stream that says why, nothing more of it on the
    // output, no report.
    const std::string input = dir.write("cu2.qpi", testing::dimerInput);
    setenv("CORVANE_ENGINE", dir.file("no-engine").c_str(), 1);
    const Outcome noEngine = run(dir, {"run", input});
    EXPECT_EQ(noEngine.exitCode, 2);
    EXPECT_EQ(noEngine.out, "");
    EXPECT_EQ(std::count(noEngine.err.begin(), noEngine.err.end(), '\n'), 1) << noEngine.err;
    EXPECT_NE(noEngine.err.find("could not be started (" + dir.file("no-engine")),
              std::string::npos)
        << noEngine.err;
    EXPECT_FALSE(dir.has("cu2.qpo"));

    const Outcome notAReport = run(dir, {"export", input});
    EXPECT_EQ(notAReport.exitCode, 1);
    EXPECT_NE(notAReport.err.find("holds no fit results"), std::string::npos);
    // A command line that is not understood: exit 64, what is wrong and the usage of the command
    // it names on the error stream; with no arguments, the usage alone.
    const struct {
        std::initializer_list<std::string> arguments;
        std::string message, usage;
    } usageCases[] = {
        {{}, "", "Usage: corvane-fit [OPTIONS] SUBCOMMAND\n"},
        {{"prepare"},
         "corvane-fit: FILE is required\n",
         "Usage: corvane-fit prepare [OPTIONS] FILE\n"},
        {{"fit", "x.qpi"},
         "corvane-fit: fit is not a command; give one of the commands prepare, run, export, "
         "plot or import.\n",
         "Usage: corvane-fit [OPTIONS] SUBCOMMAND\n"},
        {{"export", input, "--json", "--csv"},
         "corvane-fit: --json excludes --csv\n",
         "Usage: corvane-fit export [OPTIONS] FILE\n"},
    };
    for (const auto& c : usageCases) {
        const Outcome usage = run(dir, c.arguments);
        EXPECT_EQ(usage.exitCode, 64) << c.usage;
        EXPECT_EQ(usage.out, "");
        EXPECT_EQ(usage.err.substr(0, c.message.size()), c.message);
        EXPECT_NE(usage.err.find(c.usage), std::string::npos) << usage.err;
    }
    const Outcome help = run(dir, {"run", "--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_NE(help.out.find("Usage: corvane-fit run [OPTIONS] FILE\n"), std::string::npos);

    // Output that cannot be written is a failure, not a cut file with exit 0.
    testing::useScriptEngine(dir, std::string("printf '") + testing::dimerOutput + "' > \"$out\"");
    ASSERT_EQ(run(dir, {"run", input}).exitCode, 0);
    const std::string full = "'" CORVANE_BIN_DIR "/corvane-fit' export '" + dir.file("cu2.qpo") +
                             "' >/dev/full 2>'" + dir.file("full.err") + "'";
    const int status = std::system(full.c_str());
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 6);
    EXPECT_NE(dir.read("full.err").find("No space left on device"), std::string::npos);
    std::filesystem::remove(dir.file("full.err"));
}

// The rows a report prints for one calculation, rebuilt from the JSON export of that report.
std::string rowsFromJson(const nlohmann::json& doc, const nlohmann::json& calc) {
    std::string rows =
        formatC("  g = %f     C = %f     zJ = %f     Xtip = %f\n",
                calc["g"]["fitted"].get<double>(), calc["C"]["fitted"].get<double>(),
                calc["zJ"]["fitted"].get<double>(), calc["Xtip"]["fitted"].get<double>());
    int k = 0;
    for (const auto& j : calc["J"])
        rows += formatC("    %d   %f        %f\n", ++k, j["start"].get<double>(),
                        j["step"].get<double>());
    const auto& pairs = doc["pairs"];
    for (std::size_t i = 0; i < pairs.size(); ++i)
        rows += formatC("  %zu   %f                  %f                       %f\n", i + 1,
                        pairs[i]["temperature"].get<double>(), pairs[i]["observed"].get<double>(),
                        calc["fittedValues"][i].get<double>());
    return rows;
}

TEST_F(CorvaneFit, RunFitsEveryExampleAndExportGivesBackWhatTheReportPrints) {
    int examples = 0;
    for (const auto& entry : std::filesystem::directory_iterator(CORVANE_SOURCE_DIR "/examples")) {
        if (entry.path().extension() != ".qpi") continue;
        ++examples;
        SCOPED_TRACE(entry.path().filename().string());
        const std::string input = dir.file(entry.path().filename().string());
        std::filesystem::copy_file(entry.path(), input);
        const Outcome fit = run(dir, {"run", input});
        ASSERT_EQ(fit.exitCode, 0) << fit.err;
        const std::string reportPath = input.substr(0, input.size() - 4) + ".qpo";
        EXPECT_NE(fit.out.find("Wrote " + reportPath + "\n"), std::string::npos) << fit.out;
        EXPECT_NE(fit.out.find("  iteration 1 deviation "), std::string::npos);
        EXPECT_FALSE(dir.has("output.txt"));

        const std::string report = dir.read(std::filesystem::path(reportPath).filename());
        EXPECT_TRUE(std::regex_search(
            report, std::regex(R"(\n  Date: \d\d/\d\d/\d{4} \d\d:\d\d:\d\d [AP]M\n)")));
        const Outcome exported = run(dir, {"export", reportPath, "--json"});
        ASSERT_EQ(exported.exitCode, 0) << exported.err;
        const nlohmann::json doc = nlohmann::json::parse(exported.out);
        ASSERT_EQ(doc["calculations"].size(), 1u);
        const auto& calc = doc["calculations"][0];
        EXPECT_NE(report.find(formatC("  TITLE - %s\n", doc["title"].get<std::string>().c_str())),
                  std::string::npos);
        EXPECT_NE(
            report.find(formatC("diviation = %f (Convergence Tolerance = %f)\n",
                                calc["deviation"].get<double>(), calc["tolerance"].get<double>())),
            std::string::npos);
        // Every fitted value and every pair row, character for character.
        const std::string rows = rowsFromJson(doc, calc);
        std::size_t at = 0;
        for (std::size_t end; (end = rows.find('\n', at)) != std::string::npos; at = end + 1) {
            const std::string row = rows.substr(at, end - at + 1);
            EXPECT_NE(report.find("\n" + row), std::string::npos) << row;
        }

        const Outcome csv = run(dir, {"export", "--csv", reportPath});
        EXPECT_EQ(csv.out.rfind("T,", 0), 0u);
        // A magnetization set is a second table after a blank line; both sets' fitted values
        // are in the JSON.
        const std::size_t magnet = doc.contains("magnetization") ? doc["magnetization"].size() : 0;
        EXPECT_EQ(std::count(csv.out.begin(), csv.out.end(), '\n'),
                  static_cast<long>(doc["pairs"].size() + 1 + (magnet > 0 ? magnet + 2 : 0)));
        if (magnet > 0) {
            EXPECT_EQ(calc["fittedMagnetization"].size(), magnet);
            EXPECT_NE(fit.out.find("  joint fit of chiT at 0.1 T and 28 magnetization points"),
                      std::string::npos) << fit.out;
        }
    }
    EXPECT_GE(examples, 4);

    // The isosceles triangle fits exactly as well with its J values swapped for another pair:
    // the search names that pair, in words and in the JSON.
    const std::string triangle = dir.file("triangle.qpi");
    std::filesystem::copy_file(CORVANE_SOURCE_DIR "/examples/cu3-triangle.qpi", triangle);
    const Outcome words = run(dir, {"run", triangle});
    EXPECT_NE(words.out.find("\nEquivalent minimum (fits as well, squared deviation "),
              std::string::npos)
        << words.out;
    const Outcome json = run(dir, {"run", "--json", triangle});
    const nlohmann::json fit = nlohmann::json::parse(json.out);
    EXPECT_EQ(fit["warnings"], nlohmann::json::array());
    ASSERT_EQ(fit["alternatives"].size(), 1u);
    const nlohmann::json& other = fit["alternatives"][0];
    EXPECT_TRUE(other["equivalent"].get<bool>());
    EXPECT_NEAR(other["deviation"].get<double>(), fit["calculations"][0]["deviation"], 1e-9);
    EXPECT_EQ(other["values"]["J"].size(), 2u);
    EXPECT_TRUE(other["values"]["Xtip"].is_number());
}

// The lines of an output that begin with prefix.
std::vector<std::string> linesStarting(const std::string& text, const std::string& prefix) {
    std::vector<std::string> lines;
    for (std::size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
        if (text.compare(at, prefix.size(), prefix) == 0)
            lines.push_back(text.substr(at, end - at));
    return lines;
}

TEST_F(CorvaneFit, ImportPrintsAMagnetometersFilesAsLinesOfAnInputFile) {
    const std::string mpms = CORVANE_SOURCE_DIR "/tests/data/mpms/";
    // chiT at 200 Oe with the header's mass and molar mass and the lab's diamagnetic correction.
    const Outcome chiT =
        run(dir, {"import", mpms + "fc5.dat", "--chit", "--diamagnetic", "-5.6176e-4"});
    ASSERT_EQ(chiT.exitCode, 0) << chiT.err;
    const std::vector<std::string> pairs = linesStarting(chiT.out, "T_CHI ");
    ASSERT_EQ(pairs.size(), 151u);
    EXPECT_EQ(std::count(chiT.out.begin(), chiT.out.end(), '\n'), 151);
    EXPECT_EQ(pairs.back(), "T_CHI 299.906 23.5435");
    EXPECT_NE(chiT.err.find("Using the sample mass 10.2 mg from the file's header "
                            "(SAMPLE_MASS).\n"),
              std::string::npos)
        << chiT.err;
    EXPECT_NE(chiT.err.find("KEYWD FIELD=0.0199962"), std::string::npos);
    EXPECT_EQ(chiT.err.find("No diamagnetic correction"), std::string::npos);
    // Without --diamagnetic none is subtracted; the header's SAMPLE_SIZE is named, not taken.
    const Outcome raw = run(dir, {"import", mpms + "fc5.dat", "--chit"});
    EXPECT_EQ(linesStarting(raw.out, "T_CHI ").back(), "T_CHI 299.906 23.375");
    EXPECT_NE(raw.err.find("No diamagnetic correction is subtracted"), std::string::npos);
    EXPECT_NE(raw.err.find("--diamagnetic -0.00056176 subtracts it"), std::string::npos);

    // The virgin curve at 2 K, the field in tesla; --mass and --molar-mass replace the header's.
    const Outcome mh = run(
        dir, {"import", mpms + "mvsh9.dat", "--mh", "--mass", "9.3", "--molar-mass", "1046.664"});
    ASSERT_EQ(mh.exitCode, 0) << mh.err;
    const std::vector<std::string> points = linesStarting(mh.out, "T_H_M ");
    ASSERT_EQ(points.size(), 19u);
    EXPECT_EQ(points.back(), "T_H_M 2.00048 7.00003 8.08811");
    EXPECT_EQ(mh.err.find("from the file's header"), std::string::npos);

    // What import prints, put into an input file, is read as it was meant.
    const std::string input =
        dir.write("er2.qpi",
                  std::string(testing::dimerInput) + "KEYWD FIELD=0.0199962\n" + chiT.out + mh.out);
    const Outcome prepared = run(dir, {"prepare", input});
    EXPECT_EQ(prepared.exitCode, 0) << prepared.err;
    EXPECT_NE(prepared.out.find(", 153 chiT pairs,"), std::string::npos) << prepared.out;

    // Refusals: a sentence, exit 64 for what the command line must give, 1 for the file.
    const std::string columns = dir.write("columns.txt", "2 1000 0.5\n3 1000 0.4\n");
    const struct {
        std::initializer_list<std::string> arguments;
        int exitCode;
        std::string message;
    } refusals[] = {
        {{"import", columns, "--chi", "--molar-mass", "500"},
         64,
         "corvane-fit: " + columns +
             " gives no sample mass (a file of plain columns has no "
             "header values); give it with --mass MG.\n"},
        {{"import", columns, "--chi", "--mass", "0", "--molar-mass", "500"},
         64,
         "corvane-fit: The sample mass 0 mg is not above 0.\n"},
        {{"import", columns, "--mass", "1"},
         64,
         "corvane-fit: import: give one of --chi, --chit "
         "or --mh\n"},
        {{"import", columns, "--chi", "--mh"}, 64, "corvane-fit: --chi excludes --mh\n"},
        {{"import", mpms + "fc5.dat", "--chi", "--field", "5000"},
         1,
         "corvane-fit: " + mpms +
             "fc5.dat: no row was measured at 5000 Oe; the fields measured "
             "are 200 Oe (151 rows).\n"},
        {{"import", mpms + "fc5.dat", "--mh"},
         1,
         "corvane-fit: " + mpms +
             "fc5.dat: no "
             "temperature has a field loop"},
        {{"import", dir.file("none.dat"), "--chi"},
         1,
         "corvane-fit: Cannot read " + dir.file("none.dat") + ": No such file or directory\n"},
    };
    for (const auto& refusal : refusals) {
        const Outcome outcome = run(dir, refusal.arguments);
        EXPECT_EQ(outcome.exitCode, refusal.exitCode) << refusal.message;
        EXPECT_EQ(outcome.out, "");
        EXPECT_NE(outcome.err.find(refusal.message), std::string::npos) << outcome.err;
    }
}

TEST_F(CorvaneFit, ARunNeverTouchesTheUsersFilesAndTwoRunsNeverMeet) {
    // Files of the user's under the names the engine uses, a FIFO among them: a run with a typo,
    // a chiT fit and prepare's refusal leave every one as it was.
    dir.write("input.txt", "notes");
    dir.write("chi.txt", "raw");
    dir.write("output.txt", "mine");
    dir.write("corefit.log", "my log");
    ASSERT_EQ(::mkfifo(dir.file("chit.txt").c_str(), 0600), 0);
    const std::string before = dir.listing();
    EXPECT_EQ(run(dir, {"run", dir.file("typo.qpi")}).exitCode, 1);
    const std::string input = dir.write("cu2.qpi", testing::dimerInput);
    const Outcome fitted = run(dir, {"run", input});
    ASSERT_EQ(fitted.exitCode, 0) << fitted.err;
    EXPECT_EQ(run(dir, {"prepare", input}).exitCode, 1);
    EXPECT_EQ(dir.read("input.txt") + dir.read("chi.txt") + dir.read("output.txt") +
                  dir.read("corefit.log"),
              "notesrawminemy log");
    EXPECT_TRUE(std::filesystem::is_fifo(dir.file("chit.txt")));
    EXPECT_EQ(dir.listing(), before.substr(0, before.find("input.txt")) + "cu2.qpi cu2.qpo " +
                                 before.substr(before.find("input.txt")));

    // An input file named like an exchange file fits and stays; one named like its report, or a
    // FIFO, is refused at once.
    const Outcome named = run(dir, {"run", dir.file("output.txt")});
    EXPECT_EQ(named.exitCode, 1); // "mine" is no input file, and it stays
    EXPECT_EQ(dir.read("output.txt"), "mine");
    const std::string asReport = dir.write("x.qpo", testing::dimerInput);
    const Outcome refused = run(dir, {"run", asReport});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_NE(refused.err.find("its report would replace it"), std::string::npos) << refused.err;
    EXPECT_EQ(dir.read("x.qpo"), testing::dimerInput);
    ASSERT_EQ(::mkfifo(dir.file("fifo.qpi").c_str(), 0600), 0);
    const Outcome fifo = run(dir, {"run", dir.file("fifo.qpi")});
    EXPECT_EQ(fifo.exitCode, 1);
    EXPECT_NE(fifo.err.find("not a regular file"), std::string::npos) << fifo.err;

    // Two fits in one folder at once, each with an engine that takes its time: each report holds
    // its own fit (the second's data 1.21 times the first's, so a larger g).
    testing::useScriptEngine(dir, "sleep 0.5; exec '" CORVANE_BIN_DIR "/corefit' \"$1\"");
    std::string second = testing::dimerInput;
    second.replace(second.find("T_CHI 2 0.51"), 12, "T_CHI 2 0.6171");
    second.replace(second.find("T_CHI 300 0.0012"), 16, "T_CHI 300 0.001452");
    const std::string a = dir.write("a.qpi", testing::dimerInput), b = dir.write("b.qpi", second);
    const std::string both = "'" CORVANE_BIN_DIR "/corvane-fit' run --json '" + a + "' > '" +
                             dir.file("a.json") + "' 2>/dev/null & '" CORVANE_BIN_DIR
                             "/corvane-fit' run --json '" + b + "' > '" + dir.file("b.json") +
                             "' 2>/dev/null; wait";
    ASSERT_EQ(std::system(both.c_str()), 0);
    const double ga = nlohmann::json::parse(dir.read("a.json"))["calculations"][0]["g"]["fitted"];
    const double gb = nlohmann::json::parse(dir.read("b.json"))["calculations"][0]["g"]["fitted"];
    EXPECT_GT(gb, 1.05 * ga);
}

TEST_F(CorvaneFit, AReportIsKeptWhenReadOnlyOrWhenItHeldMoreCalculations) {
    const std::string input = dir.write("cu2.qpi", testing::dimerInput);
    ASSERT_EQ(run(dir, {"run", input}).exitCode, 0);
    // A report of two calculations, as Add New leaves it.
    std::string report = dir.read("cu2.qpo");
    const std::string section = report.substr(report.find("Fitting Results - Calculation # 1"));
    std::string two = report;
    two.insert(two.size(), std::regex_replace(section, std::regex("Calculation # 1"),
                                              "Calculation # 2"));
    dir.write("cu2.qpo", two);
    const Outcome again = run(dir, {"run", input});
    ASSERT_EQ(again.exitCode, 0) << again.err;
    EXPECT_NE(again.err.find("The earlier report, with 2 calculations, is kept as " +
                             dir.file("cu2.qpo~")),
              std::string::npos)
        << again.err;
    EXPECT_EQ(dir.read("cu2.qpo~"), two);

    std::filesystem::permissions(dir.file("cu2.qpo"), std::filesystem::perms::owner_read);
    const std::string kept = dir.read("cu2.qpo");
    const Outcome readOnly = run(dir, {"run", input});
    EXPECT_NE(readOnly.exitCode, 0);
    EXPECT_NE(readOnly.err.find("read-only"), std::string::npos) << readOnly.err;
    EXPECT_EQ(dir.read("cu2.qpo"), kept);
}

TEST_F(CorvaneFit, PlotDrawsAReportOrTheFitJustMadeAsPngPdfOrSvg) {
    const std::string input = dir.file("d-nit2.qpi");
    std::filesystem::copy_file(CORVANE_SOURCE_DIR "/examples/d-nit2.qpi", input);
    const Outcome fit = run(dir, {"run", input, "-o", dir.file("fit.png"), "--size", "640x480"});
    ASSERT_EQ(fit.exitCode, 0) << fit.err;
    const std::string png = dir.read("fit.png");
    ASSERT_GT(png.size(), 24u);
    EXPECT_EQ(png.substr(1, 3), "PNG");
    EXPECT_EQ(png.substr(16, 8), std::string("\0\0\x02\x80\0\0\x01\xe0", 8)); // 640 x 480

    const std::string report = dir.file("d-nit2.qpo");
    EXPECT_EQ(run(dir, {"plot", report, "-o", dir.file("chi.pdf"), "--chi", "--grid"}).exitCode, 0);
    EXPECT_EQ(dir.read("chi.pdf").substr(0, 5), "%PDF-");

    EXPECT_EQ(run(dir, {"plot", report, "-o", dir.file("plot.svg")}).exitCode, 0);
    EXPECT_NE(dir.read("plot.svg").find("Temperature (K)"), std::string::npos);

    // Nothing is left of a plot that cannot be drawn or written.
    EXPECT_EQ(run(dir, {"plot", report, "-o", dir.file("x.png"), "--size", "0x480"}).exitCode, 5);
    const Outcome bmp = run(dir, {"plot", report, "-o", dir.file("x.bmp")});
    EXPECT_EQ(bmp.exitCode, 5);
    EXPECT_NE(bmp.err.find("x.bmp: use .png, .pdf or .svg"), std::string::npos) << bmp.err;
    const Outcome unwritable = run(dir, {"plot", report, "-o", dir.file("no/dir/x.png")});
    EXPECT_EQ(unwritable.exitCode, 5);
    EXPECT_NE(unwritable.err.find("cannot write " + dir.file("no/dir/x.png")), std::string::npos);
    EXPECT_EQ(run(dir, {"plot", input, "-o", dir.file("x.png")}).exitCode, 1);
    // Without a magnetisation set there is no magnetisation against field to draw.
    const Outcome noSet = run(dir, {"plot", report, "-o", dir.file("m.png"), "--mh"});
    EXPECT_EQ(noSet.exitCode, 5);
    EXPECT_NE(noSet.err.find(report + " holds no magnetization set"), std::string::npos)
        << noSet.err;
    // The engine worked in a folder of its own: nothing of it is left beside the input.
    EXPECT_EQ(dir.listing(), "chi.pdf d-nit2.qpi d-nit2.qpo fit.png plot.svg");
}

TEST_F(CorvaneFit, PlotMhDrawsTheMagnetizationOfAReportAgainstTheField) {
    auto doc = std::make_unique<FitDocument>();
    doc->siteCount = 2;
    doc->sites[0].spin = doc->sites[1].spin = 1;
    doc->interactions[0] = {1, 2, 5};
    doc->pairs[0] = {2, 0.5};
    doc->calculationCount = 1;
    testing::addMagnetSet(*doc);
    const std::string report = dir.write("m.qpo", reportText(*doc, "d"));
    const Outcome svg = run(dir, {"plot", report, "-o", dir.file("m.svg"), "--mh", "--residuals"});
    ASSERT_EQ(svg.exitCode, 0) << svg.err;
    for (const char* text : {"Magnetic Field (T)", "2.01 K", "10 K", "obs - calc"})
        EXPECT_NE(dir.read("m.svg").find(text), std::string::npos) << text;
}

TEST_F(CorvaneFit, AFitStoppedAtTheIterationLimitIsExplainedWithoutTheEnginesWords) {
    const std::string input = dir.write("cu2.qpi", testing::dimerInput);
    // As corefit leaves it: results written, and the log's last line names them.
    testing::useScriptEngine(
        dir, std::string("printf '") + testing::dimerOutput +
                 "' > \"$out\"\n"
                 "echo \"wrote $out; 0.01 s in all\" > \"$(dirname \"$1\")/corefit.log\"\n"
                 "exit 1");
    const Outcome fit = run(dir, {"run", input});
    EXPECT_EQ(fit.exitCode, 0) << fit.err;
    EXPECT_NE(fit.out.find("\nNote: the fit stopped at its iteration limit before converging; "
                           "the report holds the last values"),
              std::string::npos)
        << fit.out;
    EXPECT_EQ(fit.out.find("output.txt"), std::string::npos) << fit.out;
    EXPECT_TRUE(dir.has("cu2.qpo"));
}

// corvane-fit run in the background, its standard output on a pipe, so a test can signal it.
// Waits are cut off after 20 s, so that a run that hangs fails instead of hanging the tests.
class BackgroundRun {
public:
    BackgroundRun(const testing::ScratchDir& dir, const std::string& input) {
        int pipe[2];
        if (::pipe(pipe) != 0) return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, pipe[1], 1);
        posix_spawn_file_actions_addclose(&actions, pipe[0]);
        posix_spawn_file_actions_addopen(&actions, 2, dir.file(".err").c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0644);
        std::string program = CORVANE_BIN_DIR "/corvane-fit", command = "run", path = input;
        char* argv[] = {program.data(), command.data(), path.data(), nullptr};
        if (posix_spawn(&pid, argv[0], &actions, nullptr, argv, environ) != 0) pid = -1;
        posix_spawn_file_actions_destroy(&actions);
        ::close(pipe[1]);
        out_ = pipe[0];
    }
    ~BackgroundRun() {
        if (pid > 0) finish();
        ::close(out_);
    }
    // Reads the standard output until it holds text; false when it ends first.
    bool waitFor(const std::string& text) {
        for (int round = 0; round < 2000 && out.find(text) == std::string::npos; ++round) {
            pollfd ready{out_, POLLIN, 0};
            if (::poll(&ready, 1, 10) != 1) continue;
            char buffer[4096];
            const ssize_t got = ::read(out_, buffer, sizeof buffer);
            if (got <= 0) break;
            out.append(buffer, static_cast<std::size_t>(got));
        }
        return out.find(text) != std::string::npos;
    }
    // Waits for corvane-fit to end; its exit code, -1 when a signal ended it.
    int finish() {
        int status = 0;
        for (int round = 0; round < 2000 && ::waitpid(pid, &status, WNOHANG) == 0; ++round)
            ::usleep(10000);
        if (::waitpid(pid, &status, WNOHANG) == 0) { // hangs: end it, so the test fails
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            status = -1;
        }
        pid = -1;
        return status >= 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    pid_t pid = -1;
    std::string out;

private:
    int out_ = -1;
};

// True once the process is gone or has ended (a zombie waiting for its reaper).
bool ended(pid_t pid) {
    for (int round = 0; round < 2000; ++round) {
        std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
        std::string line;
        if (!std::getline(stat, line) || line.substr(line.rfind(')') + 2, 1) == "Z") return true;
        ::usleep(10000);
    }
    return false;
}

TEST_F(CorvaneFit, ASecondInterruptOrTheEndOfCorvaneFitEndsAnEngineThatIgnoresRequests) {
    const std::string input = dir.write("cu2.qpi", testing::dimerInput);
    testing::useScriptEngine(dir, "trap '' TERM INT\necho $$ > '" + dir.file("engine.pid") +
                                      "'\necho 'iteration 1'\nexec sleep 60");
    const struct {
        const char* name;
        std::vector<int> signals;
        int exitCode;
    } cases[] = {
        {"Ctrl-C twice", {SIGINT, SIGINT}, 4},
        {"Ctrl-C and SIGTERM", {SIGINT, SIGTERM}, 4},
        {"SIGKILL", {SIGKILL}, -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        BackgroundRun run(dir, input);
        ASSERT_TRUE(run.waitFor("  iteration 1\n")) << run.out;
        const pid_t enginePid = std::stoi(dir.read("engine.pid"));
        for (std::size_t i = 0; i < c.signals.size(); ++i) {
            ::kill(run.pid, c.signals[i]);
            // Signals of one kind sent together would arrive as one.
            if (i == 0 && c.signals.size() > 1) {
                EXPECT_TRUE(run.waitFor("Stopping the engine at its next iteration")) << run.out;
            }
        }
        EXPECT_EQ(run.finish(), c.exitCode);
        const bool engineEnded = ended(enginePid);
        EXPECT_TRUE(engineEnded);
        if (!engineEnded) ::kill(enginePid, SIGKILL);
        const std::string stopped = "the fitting engine was stopped at once at the second "
                                    "interrupt. " +
                                    dir.file("cu2.qpo") + " was not changed";
        EXPECT_EQ(dir.read(".err").find(stopped) != std::string::npos, c.exitCode == 4);
        EXPECT_FALSE(dir.has("cu2.qpo"));
    }
}

} // namespace
} // namespace corvane
