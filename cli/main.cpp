// corvane-fit: the fitting work of Corvane without a window.
//
//   corvane-fit prepare FILE.qpi   reads a fitting input file and writes the engine's exchange
//                                  files beside it, ready for the fitting engine
//   corvane-fit run FILE.qpi       fits the input file with the engine and writes the report
//                                  FILE.qpo beside it
//   corvane-fit export FILE.qpo    prints the document a report holds, as JSON or CSV
//   corvane-fit plot FILE.qpo -o OUT.png|OUT.pdf|OUT.svg
//                                  draws the plot of a report as the window shows it (--mh:
//                                  its magnetisation against field)
//   corvane-fit import FILE --chi|--chit|--mh
//                                  prints a magnetometer file's moments as the T_CHI or T_H_M
//                                  lines of an input file
//
// Messages go to the standard error stream; a failure gives a non-zero exit code.

#include <CLI/CLI.hpp>
#include <charconv>
#include <cmath>
#include <csignal>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "fit/engine_run.h"
#include "fit/exchange_files.h"
#include "fit/fit_document.h"
#include "fit/report.h"
#include "fit/results.h"
#include "fit/run_cycle.h"
#include "import/moment_file.h"
#include "import/moment_sets.h"
#include "plot/plot_settings.h"
#include "qt/plot_export.h"
#include "text/text.h"

namespace {

using namespace corvane;

// Exit codes.
enum ExitCode : int {
    exitOk = 0,
    exitBadFile = 1,      // an input file or report that cannot be read
    exitNoEngine = 2,     // the engine could not be started
    exitEngineFailed = 3, // the engine left no usable results; nothing was written
    exitInterrupted = 4,  // interrupted: the report holds the best fit found until then,
                          // or is left as it was when the engine was stopped at once
    exitPlotFailed = 5,   // the plot could not be written
    exitOutputFailed = 6, // what was to be printed could not be written (a full disk, say)
    exitUsage = 64,       // a command line that is not understood (EX_USAGE of sysexits.h)
};

// Progress and notes go to the standard output, or to the standard error stream when the
// standard output carries the results as JSON.
std::FILE* chatter = stdout;

// What to draw and where, for plot and run -o.
struct PlotRequest {
    std::string output; // "" for no plot
    std::string size = "1024x768";
    bool chi = false;
    bool grid = false;
    bool info = false;      // the results box
    bool residuals = false; // the residual panel
    bool magnet = false;    // the M view: magnetisation against field
};

// "WxH" with both sides in 1..maxExportSide.
bool parseSize(const std::string& text, int& width, int& height) {
    const std::size_t x = text.find_first_of("xX");
    if (x == std::string::npos || !isInteger(text.substr(0, x).c_str()) ||
        !isInteger(text.substr(x + 1).c_str()))
        return false;
    width = readLeadingInteger(text.substr(0, x));
    height = readLeadingInteger(text.substr(x + 1));
    return width >= 1 && height >= 1 && width <= maxExportSide && height <= maxExportSide;
}

// Draws the newest calculation of fitDocument, read from source, with the experimental points.
int writePlot(const PlotRequest& request, const std::string& source) {
    int width = 0, height = 0;
    if (!parseSize(request.size, width, height)) {
        std::fprintf(stderr, "corvane-fit: --size %s: give WIDTHxHEIGHT, each 1 to %d\n",
                     request.size.c_str(), maxExportSide);
        return exitPlotFailed;
    }
    if (request.magnet && fitDocument.magnetCount <= 0) {
        std::fprintf(stderr,
                     "corvane-fit: %s holds no magnetization set, so there is no magnetization "
                     "against field to draw (--mh).\n",
                     source.c_str());
        return exitPlotFailed;
    }
    showPlotForExport(request.chi, request.grid, request.magnet);
    plotSettings.showInfo = request.info ? 1 : 0;
    plotSettings.showResiduals = request.residuals ? 1 : 0;
    std::string error;
    if (!exportPlot(request.output, width, height, error)) {
        std::fprintf(stderr, "corvane-fit: cannot write the plot %s: %s\n", request.output.c_str(),
                     error.c_str());
        return exitPlotFailed;
    }
    std::fprintf(chatter, "Wrote %s\n", request.output.c_str());
    return exitOk;
}

// The plot options, shared by plot and run.
void addPlotOptions(CLI::App* command, PlotRequest& request, bool required) {
    CLI::Option* output =
        command->add_option("-o,--output", request.output, "the plot as a PNG, PDF or SVG file");
    if (required) output->required();
    command->add_option("--size", request.size, "WIDTHxHEIGHT in pixels (default 1024x768)");
    command->add_flag("--chi", request.chi, "plot chi against T instead of chiT");
    command->add_flag("--grid", request.grid, "draw grid lines");
    command->add_flag("--info", request.info,
                      "draw the results box: each fitted value with its uncertainty and unit");
    command->add_flag("--residuals", request.residuals,
                      "draw the residuals (observed minus calculated) in a panel under the plot");
    command->add_flag("--mh", request.magnet,
                      "plot the magnetization against the field, a curve per temperature");
}

const char* plural(int n, const char* one, const char* many) { return n == 1 ? one : many; }

const char* unitName(const FitDocument& doc) {
    return energyUnitNames[static_cast<std::size_t>(doc.energyUnit)];
}

// What the file held, in one line, so that a user sees at once whether it was understood.
void printSummary(const std::string& path) {
    const FitDocument& doc = fitDocument;
    std::printf("Read %s: \"%s\"\n", path.c_str(), doc.title.c_str());
    std::printf("  %d %s, %d %s, %d %s, %d %s pairs, energies in %s\n", doc.siteCount,
                plural(doc.siteCount, "site", "sites"), doc.interactionCount,
                plural(doc.interactionCount, "interaction", "interactions"), doc.jCount,
                plural(doc.jCount, "J value", "J values"), doc.pairCount,
                dataKindNames[static_cast<std::size_t>(doc.dataKind)], unitName(doc));
}

// A path as the file choosers give it: absolute, so that its directory is never empty.
std::string absolutePath(const std::string& path) {
    std::error_code ignored;
    const std::filesystem::path absolute = std::filesystem::absolute(path, ignored);
    return absolute.empty() ? path : absolute.lexically_normal().string();
}

int prepareCommand(const std::string& path) {
    if (!prepareRun(path)) return exitBadFile;
    printSummary(path);
    const std::string directory = directoryOf(path);
    std::printf("Wrote %s\n", pathIn(directory, engineInputName).c_str());
    std::printf("Wrote %s\n", pathIn(directory, dataExchangeName(fitDocument)).c_str());
    return exitOk;
}

// [SECTION] run

// Ctrl-C and SIGTERM, counted: the first stops the engine at its next iteration, and the report
// then holds the best fit found so far; the second stops it at once.
volatile std::sig_atomic_t interruptCount = 0;
extern "C" void onInterrupt(int) {
    if (interruptCount < 2) interruptCount = interruptCount + 1;
}

// The engine's progress on the terminal, as it comes, and the user's requests to stop it.
class TerminalProgress final : public EngineProgress {
public:
    void status(const std::string& text) override {
        // An engine that cannot be started is told once, with the reason, on the error stream.
        if (text == engineStartFailedText) return;
        std::fprintf(chatter, "%s\n", text.c_str());
        std::fflush(chatter);
    }
    void line(const std::string& text) override {
        std::fprintf(chatter, "  %s\n", text.c_str());
        std::fflush(chatter);
    }
    bool interruptRequested() override {
        if (interruptCount == 0) return false;
        std::fprintf(chatter,
                     "Stopping the engine at its next iteration; Ctrl-C again stops it at once.\n");
        std::fflush(chatter);
        return true;
    }
    bool killRequested() override { return interruptCount >= 2; }
};

// A fitted value with its standard uncertainty: "2.100000 +/- 0.000120", "(fixed)" for a
// fixed parameter, "(not determined by the data)" where the data cannot fix it, and a word on
// the interruption when the fit was stopped before its uncertainties were known.
std::string withUncertainty(const FitParameter& p) {
    const std::string value = formatC("%f", p.fitted);
    if (p.step == 0.0) return value + " (fixed)";
    if (std::isnan(p.uncertainty) && runState.lastEngineRun.interrupted)
        return value + " (uncertainty not estimated: the fit was interrupted)";
    if (std::isinf(p.uncertainty)) return value + " (not determined by the data)";
    if (std::isnan(p.uncertainty)) return value;
    return value + " +/- " + formatC("%.2g", p.uncertainty);
}

void printResults() {
    const FitDocument& doc = fitDocument;
    const int n = doc.calculationCount;
    const Calculation& calc = doc.calculations[slot(n)];
    std::printf("Calculation # %d: squared deviation %s, pairs %d to %d of %d\n", n,
                formatC("%g", calc.deviation).c_str(), calc.firstPair, calc.lastPair,
                doc.pairCount);
    if (doc.magnetCount > 0)
        std::printf("  joint fit of %s at %s and %d magnetization points (weight %s): "
                    "deviation %s from the %s, %s from the magnetization\n",
                    dataKindNames[static_cast<std::size_t>(doc.dataKind)],
                    doc.field == 0 ? "the zero-field limit" : formatC("%g T", doc.field).c_str(),
                    doc.magnetCount, formatC("%g", doc.magnetWeight).c_str(),
                    formatC("%g", calc.chiDeviation).c_str(),
                    dataKindNames[static_cast<std::size_t>(doc.dataKind)],
                    formatC("%g", calc.magnetDeviation).c_str());
    const std::string unit = unitName(doc);
    const std::pair<const char*, std::string> rows[] = {
        {"g", withUncertainty(calc.g)},
        {"C", withUncertainty(calc.c) + "  cm3 K mol-1"},
        {"zJ", withUncertainty(calc.zJ) + "  " + unit},
        {"Xtip", withUncertainty(calc.tip) + "  cm3 mol-1"}};
    for (const auto& [name, text] : rows) std::printf("  %-4s = %s\n", name, text.c_str());
    for (int k = 1; k <= doc.jCount; ++k)
        std::printf("  J%-3d = %s  %s\n", k, withUncertainty(calc.j[slot(k)]).c_str(),
                    unit.c_str());
    if (calc.end != FitEnd::Converged) std::printf("%s\n", fitEndText(calc.end).c_str());
    for (const std::string& warning : calc.warnings) std::printf("Warning: %s.\n", warning.c_str());
    static const char* const names[] = {"g", "C", "zJ", "Xtip"};
    for (const Calculation::OtherMinimum& other : calc.alternatives) {
        if (other.equivalent)
            std::printf("Equivalent minimum (fits as well, squared deviation %s):",
                        formatC("%g", other.deviation).c_str());
        else
            std::printf("Alternative minimum (squared deviation %s, %.2g %% higher):",
                        formatC("%g", other.deviation).c_str(),
                        100 * (other.deviation / calc.deviation - 1));
        for (int k = 0; k < fixedParameterCount + doc.jCount; ++k) {
            const std::string name = k < fixedParameterCount
                                         ? names[k]
                                         : "J" + std::to_string(k - fixedParameterCount + 1);
            std::printf("%s %s = %s", k ? "," : "", name.c_str(),
                        formatC("%g", other.values[static_cast<std::size_t>(k)]).c_str());
        }
        std::printf("\n");
    }
}

// The warnings and the other minima of the newest calculation's run, for run --json: each
// minimum's values keyed as the fitted values of a calculation are.
void addSearchJson(nlohmann::ordered_json& out, const FitDocument& doc) {
    using nlohmann::ordered_json;
    const Calculation& calc = doc.calculations[slot(doc.calculationCount)];
    ordered_json warnings = ordered_json::array();
    for (const std::string& warning : calc.warnings) warnings.push_back(warning);
    ordered_json alternatives = ordered_json::array();
    for (const Calculation::OtherMinimum& other : calc.alternatives) {
        ordered_json j = ordered_json::array();
        for (int k = 1; k <= doc.jCount; ++k)
            j.push_back(other.values[static_cast<std::size_t>(fixedParameterCount + k - 1)]);
        alternatives.push_back({{"deviation", other.deviation},
                                {"equivalent", other.equivalent},
                                {"values",
                                 {{"g", other.values[0]},
                                  {"C", other.values[1]},
                                  {"zJ", other.values[2]},
                                  {"Xtip", other.values[3]},
                                  {"J", j}}}});
    }
    out["warnings"] = warnings;
    out["alternatives"] = alternatives;
}

nlohmann::ordered_json documentJson(const FitDocument& doc);

int runCommand(const std::string& path, const PlotRequest& plot, bool json) {
    chatter = json ? stderr : stdout;
    runState.inputPath = absolutePath(path);
    std::signal(SIGINT, onInterrupt);
    std::signal(SIGTERM, onInterrupt);
    TerminalProgress progress;
    const RunOutcome outcome = runInputCycle(&progress);
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    switch (outcome) {
    case RunOutcome::BadInput:
        return exitBadFile;
    case RunOutcome::EngineNotStarted:
        return exitNoEngine;
    case RunOutcome::NoResults:
        return runState.lastEngineRun.interrupted ? exitInterrupted : exitEngineFailed;
    case RunOutcome::Fitted:
        break;
    }
    std::fprintf(chatter, "Wrote %s\n", runState.reportPath.c_str());
    if (json) {
        nlohmann::ordered_json out = documentJson(fitDocument);
        addSearchJson(out, fitDocument);
        std::printf("%s\n", out.dump(2).c_str());
    }
    else
        printResults();
    if (const std::string note = engineNoteText(runState.lastEngineRun); !note.empty())
        std::fprintf(chatter, "Note: %s; see %s/%s.\n", note.c_str(), runState.workDir.c_str(),
                     engineLogName);
    if (!plot.output.empty()) {
        if (const int code = writePlot(plot, runState.reportPath); code != exitOk) return code;
    }
    if (runState.lastEngineRun.interrupted) {
        std::fprintf(chatter, "Interrupted: the report holds the best fit found until then.\n");
        return exitInterrupted;
    }
    return exitOk;
}

// [SECTION] export

// A parameter; its standard uncertainty is null where it is not known (a fit read from a
// report) or the data cannot determine it, 0 for a fixed parameter.
nlohmann::ordered_json parameterJson(const FitParameter& p) {
    nlohmann::ordered_json uncertainty = nullptr;
    if (std::isfinite(p.uncertainty)) uncertainty = p.uncertainty;
    return {
        {"start", p.start}, {"step", p.step}, {"fitted", p.fitted}, {"uncertainty", uncertainty}};
}

// The correlations of the free parameters: their names and the matrix (null where the data
// cannot determine one); empty when not known (a fit read from a report).
nlohmann::ordered_json correlationJson(const Calculation& calc) {
    static const char* const fixedNames[] = {"g", "C", "zJ", "Xtip"};
    nlohmann::ordered_json names = nlohmann::ordered_json::array();
    nlohmann::ordered_json matrix = nlohmann::ordered_json::array();
    for (int a = 0; a < calc.correlatedCount; ++a) {
        const int p = calc.correlated[static_cast<std::size_t>(a)];
        names.push_back(p <= fixedParameterCount ? std::string(fixedNames[p - 1])
                                                 : "J" + std::to_string(p - fixedParameterCount));
        nlohmann::ordered_json row = nlohmann::ordered_json::array();
        for (int b = 0; b < calc.correlatedCount; ++b) {
            const double r =
                calc.correlation[static_cast<std::size_t>(a)][static_cast<std::size_t>(b)];
            row.push_back(std::isfinite(r) ? nlohmann::ordered_json(r) : nlohmann::ordered_json());
        }
        matrix.push_back(row);
    }
    return {{"parameters", names}, {"matrix", matrix}};
}

nlohmann::ordered_json documentJson(const FitDocument& doc) {
    using nlohmann::ordered_json;
    ordered_json sites = ordered_json::array();
    for (int s = 1; s <= doc.siteCount; ++s)
        sites.push_back({{"site", s}, {"spin", doc.sites[slot(s)].spin}});
    ordered_json interactions = ordered_json::array();
    for (int n = 1; n <= doc.interactionCount; ++n) {
        const Interaction& path = doc.interactions[slot(n)];
        interactions.push_back({{"siteA", path.siteA},
                                {"siteB", path.siteB},
                                {"j", path.parameterIndex - fixedParameterCount}});
    }
    ordered_json pairs = ordered_json::array();
    for (int i = 1; i <= doc.pairCount; ++i)
        pairs.push_back({{"temperature", doc.pairs[slot(i)].temperature},
                         {"observed", doc.pairs[slot(i)].observed}});
    ordered_json calculations = ordered_json::array();
    for (int n = 1; n <= doc.calculationCount; ++n) {
        const Calculation& calc = doc.calculations[slot(n)];
        ordered_json j = ordered_json::array();
        for (int k = 1; k <= doc.jCount; ++k) j.push_back(parameterJson(calc.j[slot(k)]));
        ordered_json fitted = ordered_json::array();
        for (int i = 1; i <= doc.pairCount; ++i) fitted.push_back(calc.fittedValues[slot(i)]);
        ordered_json entry = {{"number", n},
                                {"tolerance", calc.tolerance},
                                {"deviation", calc.deviation},
                                {"g", parameterJson(calc.g)},
                                {"C", parameterJson(calc.c)},
                                {"zJ", parameterJson(calc.zJ)},
                                {"Xtip", parameterJson(calc.tip)},
                                {"J", j},
                                {"correlations", correlationJson(calc)},
                                {"converged", calc.end == FitEnd::Converged},
                                {"firstPair", calc.firstPair},
                                {"lastPair", calc.lastPair},
                                {"fittedValues", fitted}};
        if (doc.magnetCount > 0) {
            ordered_json magnet = ordered_json::array();
            for (int i = 1; i <= doc.magnetCount; ++i) magnet.push_back(calc.fittedMagnet[slot(i)]);
            entry["chiDeviation"] = calc.chiDeviation;
            entry["magnetizationDeviation"] = calc.magnetDeviation;
            entry["fittedMagnetization"] = magnet;
        }
        calculations.push_back(entry);
    }
    ordered_json out = {{"title", doc.title},
                        {"dataKind", dataKindNames[static_cast<std::size_t>(doc.dataKind)]},
                        {"energyUnit", unitName(doc)},
                        {"sites", sites},
                        {"interactions", interactions},
                        {"jCount", doc.jCount},
                        {"pairs", pairs}};
    // The field, weighting and magnetization set only where the problem has them.
    if (doc.field != 0) out["field"] = doc.field;
    if (doc.weighting == Weighting::Relative) out["weighting"] = "relative";
    if (doc.magnetCount > 0) {
        ordered_json magnet = ordered_json::array();
        for (int i = 1; i <= doc.magnetCount; ++i)
            magnet.push_back({{"temperature", doc.magnetPoints[slot(i)].temperature},
                              {"field", doc.magnetPoints[slot(i)].field},
                              {"observed", doc.magnetPoints[slot(i)].observed}});
        out["magnetizationWeight"] = doc.magnetWeight;
        out["magnetization"] = magnet;
    }
    out["calculations"] = calculations;
    return out;
}

// The shortest text that reads back as the same double, in any locale.
std::string shortest(double value) {
    char buffer[32];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    return std::string(buffer, result.ptr);
}

std::string documentCsv(const FitDocument& doc) {
    const char* kind = doc.dataKind == DataKind::Chi ? "chi" : "chiT";
    std::string out = formatC("T,%s observed", kind);
    for (int n = 1; n <= doc.calculationCount; ++n) out += formatC(",%s fitted %d", kind, n);
    out += "\n";
    for (int i = 1; i <= doc.pairCount; ++i) {
        out.append(shortest(doc.pairs[slot(i)].temperature)).append(",");
        out.append(shortest(doc.pairs[slot(i)].observed));
        for (int n = 1; n <= doc.calculationCount; ++n)
            out.append(",").append(shortest(doc.calculations[slot(n)].fittedValues[slot(i)]));
        out += "\n";
    }
    // The magnetization set as a second table after a blank line.
    if (doc.magnetCount > 0) {
        out += "\nT,H,M observed";
        for (int n = 1; n <= doc.calculationCount; ++n) out += formatC(",M fitted %d", n);
        out += "\n";
    }
    for (int i = 1; i <= doc.magnetCount; ++i) {
        const MagnetPoint& point = doc.magnetPoints[slot(i)];
        out.append(shortest(point.temperature)).append(",").append(shortest(point.field));
        out.append(",").append(shortest(point.observed));
        for (int n = 1; n <= doc.calculationCount; ++n)
            out.append(",").append(shortest(doc.calculations[slot(n)].fittedMagnet[slot(i)]));
        out += "\n";
    }
    return out;
}

int exportCommand(const std::string& path, bool csv) {
    if (!plotReport(path)) return exitBadFile;
    const std::string text = csv ? documentCsv(fitDocument) : documentJson(fitDocument).dump(2);
    std::fwrite(text.data(), 1, text.size(), stdout);
    if (!csv) std::fputc('\n', stdout);
    return exitOk;
}

int plotCommand(const std::string& path, const PlotRequest& plot) {
    if (!plotReport(path)) return exitBadFile;
    return writePlot(plot, path);
}

// [SECTION] import

// What import is asked for: the quantity, the sample's values the user gave, the set's field or
// temperature.
struct ImportRequest {
    bool chi = false, chiT = false, mh = false;
    bool allPositive = false; // every row with H > 0 at the temperature, not the first branch
    std::optional<double> mass, molarMass, diamagnetic, field, temperature;
};

// The sample of file: each value as the user gave it or else from the header, saying so on the
// error stream. False, after a sentence on the error stream, when a value is neither given nor
// in the header, or cannot convert moments.
bool importSample(const MomentFile& file, const ImportRequest& request, Sample& sample) {
    const struct {
        const std::optional<double>& given;
        const HeaderValue& header;
        double& value;
        const char *what, *unit, *option;
    } values[] = {
        {request.mass, file.mass, sample.mass, "sample mass", "mg", "--mass MG"},
        {request.molarMass, file.molarMass, sample.molarMass, "molar mass", "g mol-1",
         "--molar-mass G_PER_MOL"},
    };
    for (const auto& v : values) {
        if (v.given) {
            v.value = *v.given;
        } else if (v.header.given) {
            v.value = v.header.value;
            std::fprintf(stderr, "Using the %s %s %s from the file's header (%s).\n", v.what,
                         formatC("%.10g", v.value).c_str(), v.unit, v.header.name.c_str());
        } else {
            std::fprintf(stderr, "corvane-fit: %s gives no %s (%s); give it with %s.\n",
                         file.path.c_str(), v.what,
                         file.format == MomentFormat::Mpms3
                             ? ("its header has no " + v.header.name).c_str()
                             : "a file of plain columns has no header values",
                         v.option);
            return false;
        }
    }
    if (request.diamagnetic) sample.diamagnetic = *request.diamagnetic;
    if (const std::string problem = sampleProblem(sample); !problem.empty()) {
        std::fprintf(stderr, "corvane-fit: %s\n", problem.c_str());
        return false;
    }
    if (request.diamagnetic) {
        if (sample.diamagnetic > 0)
            std::fprintf(stderr,
                         "Note: --diamagnetic %s is positive; a diamagnetic susceptibility is "
                         "negative, and the value given is subtracted as it is.\n",
                         formatC("%g", sample.diamagnetic).c_str());
        return true;
    }
    // SAMPLE_SIZE is only a lab's habit: it is named, never taken.
    std::fprintf(stderr, "No diamagnetic correction is subtracted (--diamagnetic CM3_PER_MOL "
                         "gives one).");
    if (file.sampleSize.given)
        std::fprintf(stderr,
                     " The file's header holds %s = %s, which some labs use for the molar "
                     "diamagnetic correction in cm3 mol-1: --diamagnetic %s subtracts it.",
                     file.sampleSize.name.c_str(), formatC("%.10g", file.sampleSize.value).c_str(),
                     formatC("%.10g", file.sampleSize.value).c_str());
    std::fprintf(stderr,
                 " A rough estimate from the molar mass (-0.5e-6 cm3 mol-1 per g mol-1) is %s "
                 "cm3 mol-1.\n",
                 formatC("%.3g", estimatedDiamagnetic(sample.molarMass)).c_str());
    return true;
}

int importCommand(const std::string& path, const ImportRequest& request) {
    MomentFile file;
    std::string error;
    if (!readMomentFile(path, file, error)) {
        std::fprintf(stderr, "corvane-fit: %s\n", error.c_str());
        return exitBadFile;
    }
    Sample sample;
    if (!importSample(file, request, sample)) return exitUsage;
    MomentSet set;
    const bool found =
        request.mh
            ? magnetSet(file, request.temperature,
                        request.allPositive ? Branch::AllPositive : Branch::FirstRising, set, error)
            : chiSet(file, request.field, set, error);
    if (!found) {
        std::fprintf(stderr, "corvane-fit: %s\n", error.c_str());
        return exitBadFile;
    }
    const int n = static_cast<int>(set.rows.size());
    std::fprintf(stderr, "%d %s from %s, with the moment from \"%s\"", n, plural(n, "row", "rows"),
                 path.c_str(), file.momentColumn.c_str());
    if (file.skippedRows > 0)
        std::fprintf(stderr,
                     "; %d %s without a number in a needed column skipped (the first on "
                     "line %d)",
                     file.skippedRows, plural(file.skippedRows, "row", "rows"),
                     file.firstSkippedLine);
    if (request.mh) {
        std::fprintf(stderr, ": M(H) at %s K, %s.\n", formatC("%.3g", set.level).c_str(),
                     request.allPositive ? "every row with H > 0"
                                         : "the first branch on which the field rises, H > 0");
    } else {
        const double first = set.rows.front().temperature, last = set.rows.back().temperature;
        std::fprintf(stderr,
                     ": %s from %s to %s K at %s Oe (in an input file: KEYWD FIELD=%s%s).\n",
                     request.chiT ? "chiT" : "chi", formatC("%.3g", first).c_str(),
                     formatC("%.3g", last).c_str(), formatC("%.5g", set.level).c_str(),
                     measuredText(set.level / 1e4).c_str(), request.chiT ? " DATA_FILE=XTT" : "");
    }
    const int limit = request.mh ? maxMagnetPoints : maxPairs;
    if (n > limit) std::fprintf(stderr, "Note: an input file holds at most %d of them.\n", limit);
    for (const MomentRow& row : set.rows) {
        if (request.mh) {
            std::printf("T_H_M %s %s %s\n", measuredText(row.temperature).c_str(),
                        measuredText(row.field / 1e4).c_str(),
                        measuredText(magnetization(row, sample)).c_str());
        } else {
            const double chi = molarSusceptibility(row, sample);
            std::printf("T_CHI %s %s\n", measuredText(row.temperature).c_str(),
                        measuredText(request.chiT ? chi * row.temperature : chi).c_str());
        }
    }
    return exitOk;
}

// A command line that is not understood: what is wrong, then how the command it names is used,
// on the error stream. With no arguments at all, the usage alone.
int usageError(const CLI::App& app, const CLI::ParseError& error, int argc, char** argv) {
    const std::vector<CLI::App*> commands = app.get_subcommands();
    if (argc > 1 && commands.empty())
        std::fprintf(
            stderr,
            "corvane-fit: %s is not %s; give one of the commands prepare, run, export, plot or "
            "import.\n",
            argv[1], argv[1][0] == '-' ? "an option" : "a command");
    else if (argc > 1)
        std::fprintf(stderr, "corvane-fit: %s\n", error.what());
    const std::string usage = commands.empty() ? app.help() : commands.back()->help(app.get_name());
    std::fprintf(stderr, "%s", usage.c_str());
    return exitUsage;
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app{"Corvane: fit the magnetic susceptibility of exchange-coupled spin clusters.",
                 "corvane-fit"};
    app.set_version_flag("--version", std::string("corvane-fit ") + CORVANE_VERSION);
    app.require_subcommand(1);
    app.footer("Exit codes: 0 done, 1 a file that cannot be read, 2 no engine, 3 the engine left "
               "no results, 4 interrupted (the report holds the best fit so far; after a second "
               "Ctrl-C it is left as it was), 5 the plot could not be written, 6 the standard "
               "output could not be written, 64 a command line that is not understood (for import, "
               "also a sample value that is missing or not above 0).\n"
               "The engine is corefit beside corvane-fit or on PATH; CORVANE_ENGINE names "
               "another.");

    std::string path;
    CLI::App* prepare = app.add_subcommand(
        "prepare", "Read a fitting input file and write the engine's exchange files beside it.");
    prepare->add_option("FILE", path, "fitting input file (.qpi)")->required();

    CLI::App* run = app.add_subcommand(
        "run", "Fit a fitting input file and write the results report (.qpo) beside it.");
    run->add_option("FILE", path, "fitting input file (.qpi)")->required();
    PlotRequest plot;
    addPlotOptions(run, plot, false);
    bool runJson = false;
    run->add_flag("--json", runJson,
                  "print the fit as JSON, with the standard uncertainties and correlations of the "
                  "fitted values (progress goes to the error stream)");

    bool json = false, csv = false;
    CLI::App* exporter = app.add_subcommand(
        "export", "Print the fit a results report holds, as JSON (the default) or CSV.");
    exporter->add_option("FILE", path, "results report (.qpo)")->required();
    CLI::Option* jsonFlag = exporter->add_flag("--json", json, "the whole document as JSON");
    exporter->add_flag("--csv", csv, "T, observed and each calculation's fitted values")
        ->excludes(jsonFlag);

    CLI::App* plotter = app.add_subcommand(
        "plot", "Draw the plot of a results report as the window shows it after File > Plot: "
                "the experimental points and the newest calculation.");
    plotter->add_option("FILE", path, "results report (.qpo)")->required();
    addPlotOptions(plotter, plot, true);

    CLI::App* importer = app.add_subcommand(
        "import", "Print a magnetometer's data file (MPMS3 .dat, or columns of T in K, H in Oe "
                  "and the moment in emu) as the T_CHI or T_H_M lines of an input file.");
    importer->add_option("FILE", path, "the magnetometer's data file")->required();
    ImportRequest request;
    double mass = 0, molarMass = 0, diamagnetic = 0, field = 0, temperature = 0;
    CLI::Option* massOption = importer->add_option(
        "--mass", mass, "sample mass in mg (default: the file header's SAMPLE_MASS)");
    CLI::Option* molarOption = importer->add_option(
        "--molar-mass", molarMass,
        "molar mass in g mol-1 (default: the file header's SAMPLE_MOLECULAR_WEIGHT)");
    CLI::Option* diamagneticOption = importer->add_option(
        "--diamagnetic", diamagnetic,
        "molar diamagnetic correction chi_dia in cm3 mol-1 (negative), subtracted from chi and "
        "from M (default: none)");
    CLI::Option* chiFlag = importer->add_flag("--chi", request.chi, "chi in cm3 mol-1");
    CLI::Option* chiTFlag = importer->add_flag("--chit", request.chiT, "chiT in cm3 K mol-1");
    CLI::Option* mhFlag =
        importer->add_flag("--mh", request.mh, "the magnetization in N muB against the field in T");
    chiFlag->excludes(chiTFlag)->excludes(mhFlag);
    chiTFlag->excludes(mhFlag);
    CLI::Option* fieldOption =
        importer->add_option("--field", field,
                             "with --chi or --chit: the field of the rows, in Oe (default: the "
                             "field most rows have)");
    fieldOption->excludes(mhFlag);
    CLI::Option* temperatureOption = importer->add_option(
        "--temperature", temperature,
        "with --mh: the temperature of the field loop, in K (default: the lowest one with a "
        "field loop)");
    CLI::Option* allFlag = importer->add_flag(
        "--all-positive", request.allPositive,
        "with --mh: every row with H > 0 at the temperature, not only the first branch on which "
        "the field rises");
    temperatureOption->excludes(chiFlag)->excludes(chiTFlag);
    allFlag->excludes(chiFlag)->excludes(chiTFlag);

    try {
        app.parse(argc, argv);
        if (importer->parsed() && !request.chi && !request.chiT && !request.mh)
            throw CLI::ValidationError("import: give one of --chi, --chit or --mh");
    } catch (const CLI::Success& done) { // --help, --version
        return app.exit(done);
    } catch (const CLI::ParseError& error) {
        return usageError(app, error, argc, argv);
    }

    resetPlot();
    initPlotSettings();
    resetFitDocument();
    int code = exitOk;
    if (prepare->parsed())
        code = prepareCommand(path);
    else if (run->parsed())
        code = runCommand(path, plot, runJson);
    else if (plotter->parsed())
        code = plotCommand(path, plot);
    else if (exporter->parsed())
        code = exportCommand(path, csv);
    else if (importer->parsed()) {
        const auto given = [](const CLI::Option* option, double value) {
            return option->count() > 0 ? std::optional<double>(value) : std::nullopt;
        };
        request.mass = given(massOption, mass);
        request.molarMass = given(molarOption, molarMass);
        request.diamagnetic = given(diamagneticOption, diamagnetic);
        request.field = given(fieldOption, field);
        request.temperature = given(temperatureOption, temperature);
        code = importCommand(path, request);
    }
    // What was printed must have reached its file: a full disk or a closed pipe is a failure.
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        std::fprintf(stderr, "corvane-fit: cannot write to the standard output: %s\n",
                     std::strerror(errno));
        return code == exitOk ? exitOutputFailed : code;
    }
    return code;
}
