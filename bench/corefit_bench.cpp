// corefit-bench: how fast the engine evaluates and fits standard spin clusters, each measured side
// by side in one run with the naive reference (the whole Hilbert space as one dense matrix).
//
//   corefit-bench [--threads N] [--naive-budget SECONDS] [--large] [--case K]... [--csv]
//
// Prints the machine, the date and one table (aligned text, or CSV with --csv) on the standard
// output; progress goes to the standard error stream.
//
//   corefit-bench --scale [--large]
//
// Instead: the engine at scale, the method before symmetry and FTLM beside the new one, each run
// in a child process of its own (for its peak memory).
//
//   corefit-bench --search [--rounds N]
//
// Instead: the cost of the search for the global minimum, whole runs of corefit with its default
// starts beside runs with --starts 0, on the examples and the 16 x S=1/2 ring.
//
//   corefit-bench --ftlm-errors [--seeds N] [--large]
//
// Instead: FTLM's standard error against its deviation from exact spectra over many seeds, and
// the uncertainty of a fitted J against its scatter over seeds.
//
//   corefit-bench --magnetisation [--rounds N]
//
// Instead: the cost of a magnetisation set, the 16 x S=1/2 ring with chiT alone beside chiT
// with M(H) points, by its exact spectrum split by symmetry and by FTLM.
//
//   corefit-bench --under-load [--rounds N]
//
// Instead: the 16 x S=1/2 ring with the default threads and with one, on an idle machine and with
// one core kept busy by another process, side by side in one run.
#include <algorithm>
#include <chrono>
#include <clocale>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <exception>
#include <fstream>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "fit.h"
#include "group_blocks.h"
#include "model.h"
#include "problem.h"
#include "problem_io.h"
#include "spectrum.h"
#include "symmetry.h"

extern "C" void openblas_set_num_threads(int threads);

namespace {

using namespace corefit;
using Clock = std::chrono::steady_clock;

constexpr double gib = 1024.0 * 1024.0 * 1024.0;
constexpr double naiveMemoryLimit = 8 * gib;
constexpr int pointCount = 300;
constexpr double lowestTemperature = 2, highestTemperature = 300;
constexpr double startFactor = 1.2;   // free parameters start 20 % off their true values
constexpr double stepFraction = 0.01; // and step by 1 % of their start values
// Evaluations are repeated until they take about this long, within the bounds below.
constexpr double evaluationSeconds = 2;
constexpr int fewestEvaluations = 3, mostEvaluations = 25;
// Fits with free J values need some 25 spectra with J slopes (as the engine itself reckons).
constexpr double spectraPerFit = 25;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

constexpr auto& format = formatText;

[[gnu::format(printf, 1, 2)]] void progress(const char* pattern, ...) {
    va_list arguments;
    va_start(arguments, pattern);
    std::vfprintf(stderr, pattern, arguments);
    va_end(arguments);
    std::fputc('\n', stderr);
    std::fflush(stderr);
}

// ---------------------------------------------------------------------------------------------
// The problems.

struct Case {
    std::string name;
    std::vector<int> twiceSpin;
    std::vector<Bond> bonds;
    double g = 2;
    std::vector<double> j; // true J values, kelvin
    bool large = false;    // run only when asked for
};

// A ring of equal spins; alternating: J1 and J2 on alternate bonds, otherwise J1 on all.
Case ring(int sites, int twiceSpin, bool alternating, std::vector<double> j) {
    Case c;
    const std::string spin =
        twiceSpin % 2 ? std::to_string(twiceSpin) + "/2" : std::to_string(twiceSpin / 2);
    c.name = std::to_string(sites) + " x S=" + spin + " ring, " + (alternating ? "J1/J2" : "one J");
    c.twiceSpin.assign(static_cast<std::size_t>(sites), twiceSpin);
    for (int a = 0; a < sites; ++a)
        c.bonds.push_back({a, (a + 1) % sites, alternating ? a % 2 : 0});
    c.j = std::move(j);
    return c;
}

std::vector<Case> standardCases() {
    std::vector<Case> cases;
    Case dimer;
    dimer.name = "Cu(II) dimer, 2 x S=1/2";
    dimer.twiceSpin = {1, 1};
    dimer.bonds = {{0, 1, 0}};
    dimer.g = 2.1;
    dimer.j = {-60};
    cases.push_back(dimer);

    Case cubane;
    cubane.name = "4 x S=1 cubane, J1/J2";
    cubane.twiceSpin = {2, 2, 2, 2};
    cubane.bonds = {{0, 1, 0}, {0, 2, 0}, {1, 3, 0}, {2, 3, 0}, {0, 3, 1}, {1, 2, 1}};
    cubane.g = 2.2;
    cubane.j = {6, -3};
    cases.push_back(cubane);

    cases.push_back(ring(6, 5, false, {-10}));
    cases.push_back(ring(6, 5, true, {-10, -7}));
    cases.push_back(ring(10, 1, true, {-10, -7}));
    cases.push_back(ring(12, 1, true, {-10, -7}));
    cases.push_back(ring(16, 1, true, {-10, -7}));
    Case large = ring(8, 5, false, {-10});
    large.large = true;
    cases.push_back(large);
    return cases;
}

// A cluster without symmetry: four S=5/2 on a chain (J1), each with an S=1/2 radical (J2), two
// more radicals on the first and last, the radicals paired (J3).
Case mixedCluster() {
    Case c;
    c.name = "4 x S=5/2 + 6 x S=1/2, J1-J3";
    c.twiceSpin = {5, 5, 5, 5, 1, 1, 1, 1, 1, 1};
    c.bonds = {{0, 1, 0}, {1, 2, 0}, {2, 3, 0}, {0, 4, 1}, {1, 5, 1}, {2, 6, 1},
               {3, 7, 1}, {1, 8, 1}, {3, 9, 1}, {4, 5, 2}, {6, 7, 2}, {8, 9, 2}};
    c.j = {-10, -30, 5};
    return c;
}

// chiT in kelvin units at pointCount temperatures, every parameter fixed at its true value; the
// observed values are filled in later from the model itself.
Problem makeProblem(const Case& c) {
    Problem problem;
    problem.inputPath = problem.dataPath = c.name;
    problem.unit = EnergyUnit::Kelvin;
    problem.kind = DataKind::ChiT;
    problem.twiceSpin = c.twiceSpin;
    problem.bonds = c.bonds;
    problem.parameters = {{c.g, 0}, {0, 0}, {0, 0}, {0, 0}};
    for (double j : c.j) problem.parameters.push_back({j, 0});
    for (int i = 0; i < pointCount; ++i) {
        const double t =
            lowestTemperature + (highestTemperature - lowestTemperature) * i / (pointCount - 1);
        problem.points.push_back({t, 0});
    }
    problem.first = 1;
    problem.last = pointCount;
    return problem;
}

std::vector<double> trueValues(const Problem& problem) {
    std::vector<double> values;
    for (const Parameter& parameter : problem.parameters) values.push_back(parameter.start);
    return values;
}

// g and every J free, starting 20 % off.
std::vector<Parameter> fitStart(const Problem& problem) {
    std::vector<Parameter> parameters = problem.parameters;
    for (std::size_t i = 0; i < parameters.size(); ++i) {
        if (i != gIndex && i < firstJIndex) continue;
        parameters[i].start *= startFactor;
        parameters[i].step = stepFraction * std::abs(parameters[i].start);
    }
    return parameters;
}

// ---------------------------------------------------------------------------------------------
// One method on one problem.

struct Run {
    bool evaluated = false, fitted = false;
    double setup = 0;      // building the Spectrum (for a scaled one, also its one spectrum)
    double evaluation = 0; // median over the repetitions
    int repetitions = 0;
    double fit = 0; // setup + fitLeastSquares
    FitResult result;
    double fitError = 0; // largest relative error of a fitted parameter
};

double median(std::vector<double> samples) {
    std::sort(samples.begin(), samples.end());
    const std::size_t n = samples.size();
    return n % 2 ? samples[n / 2] : (samples[n / 2 - 1] + samples[n / 2]) / 2;
}

// Times the model on `problem` with `plan`. The first evaluation is at the true values; its
// values come back in `atTruth`, and become the observed data when `generate` is set. Each
// further one has J values of its own, so that the spectrum is computed anew every time. With
// `fit`, then fits from fitStart with the same spectrum (whose last J values are not the start).
Run measure(const SpinSystem& system, const Plan& plan, Problem& problem, int threads,
            bool generate, bool fit, std::vector<double>& atTruth) {
    Run run;
    const auto built = Clock::now();
    Spectrum spectrum(system, plan, threads);
    run.setup = secondsSince(built);
    SusceptibilityModel model(problem, spectrum);

    const std::vector<double> truth = trueValues(problem);
    std::vector<double> samples;
    auto started = Clock::now();
    if (!model.predict(truth, atTruth))
        throw std::runtime_error("no finite susceptibility at the true values");
    samples.push_back(secondsSince(started));
    if (generate)
        for (std::size_t i = 0; i < atTruth.size(); ++i) problem.points[i].observed = atTruth[i];
    const int repetitions = std::clamp(static_cast<int>(std::ceil(evaluationSeconds / samples[0])),
                                       fewestEvaluations, mostEvaluations);
    std::vector<double> values;
    for (int r = 1; r < repetitions; ++r) {
        std::vector<double> p = truth;
        for (std::size_t k = firstJIndex; k < p.size(); ++k) p[k] *= 1 + 1e-3 * r;
        started = Clock::now();
        if (!model.predict(p, values))
            throw std::runtime_error("no finite susceptibility near the true values");
        samples.push_back(secondsSince(started));
    }
    run.evaluated = true;
    run.repetitions = repetitions;
    run.evaluation = median(samples);
    if (!fit) return run;

    FitOptions options;
    options.tolerance = problem.tolerance;
    started = Clock::now();
    run.result = fitLeastSquares(model, fitStart(problem), options);
    run.fit = run.setup + secondsSince(started);
    run.fitted = true;
    for (int index : run.result.freeIndices) {
        const auto i = static_cast<std::size_t>(index);
        run.fitError = std::max(run.fitError, std::abs(run.result.parameters[i] / truth[i] - 1));
    }
    return run;
}

// ---------------------------------------------------------------------------------------------
// The table.

struct Row {
    std::vector<std::string> cells;
    std::vector<std::string> notes;
};

const std::vector<std::string> columns = {"problem",    "dimension", "largest",      "method",
                                          "est GiB",    "est s",     "setup s",      "eval s",
                                          "fit s",      "fit steps", "naive eval s", "naive fit s",
                                          "eval ratio", "fit ratio", "agreement",    "note"};
enum Column {
    problemColumn,
    dimensionColumn,
    largestColumn,
    methodColumn,
    memoryColumn,
    estimateColumn,
    setupColumn,
    evalColumn,
    fitColumn,
    stepsColumn,
    naiveEvalColumn,
    naiveFitColumn,
    evalRatioColumn,
    fitRatioColumn,
    agreementColumn,
    noteColumn
};

bool leftAligned(std::size_t column) {
    return column == problemColumn || column == methodColumn || column == noteColumn;
}

std::string seconds(double s) { return format("%.3g", s); }

std::string methodText(const Plan& plan) {
    return format("%s (%zu)%s", methodName(plan.method), plan.blockSizes.size(),
                  plan.scaled ? ", scaled" : "");
}

const char* statusName(FitStatus status) {
    switch (status) {
    case FitStatus::Evaluated:
        return "evaluated only";
    case FitStatus::Converged:
        return "converged";
    case FitStatus::Plateau:
        return "plateau";
    case FitStatus::IterationLimit:
        return "iteration limit";
    case FitStatus::Interrupted:
        return "interrupted";
    case FitStatus::Failed:
        break;
    case FitStatus::SolverFailed:
        return "solver failed";
    }
    return "failed";
}

// What is worth a note about a fit: not converged, or not back at the true values.
void noteFit(const char* who, const Run& run, std::vector<std::string>& notes) {
    if (run.result.status != FitStatus::Converged)
        notes.push_back(format("%s fit %s", who, statusName(run.result.status)));
    if (run.fitError > 1e-4)
        notes.push_back(format("%s fit off the true values by %.1e", who, run.fitError));
}

void printText(const std::vector<Row>& rows) {
    std::vector<std::size_t> width(columns.size());
    for (std::size_t c = 0; c < columns.size(); ++c) width[c] = columns[c].size();
    for (const Row& row : rows)
        for (std::size_t c = 0; c < columns.size(); ++c)
            width[c] = std::max(width[c], row.cells[c].size());
    auto line = [&](const std::vector<std::string>& cells) {
        std::string text;
        for (std::size_t c = 0; c < cells.size(); ++c) {
            const std::string pad(width[c] - cells[c].size(), ' ');
            if (c) text += "  ";
            text += leftAligned(c) ? cells[c] + (c + 1 < cells.size() ? pad : "") : pad + cells[c];
        }
        std::puts(text.c_str());
    };
    line(columns);
    std::vector<std::string> rule;
    for (std::size_t c = 0; c < columns.size(); ++c) rule.push_back(std::string(width[c], '-'));
    line(rule);
    for (const Row& row : rows) line(row.cells);
}

std::string csvField(const std::string& text) {
    if (text.find_first_of(",\"") == std::string::npos) return text;
    std::string quoted = "\"";
    for (char c : text) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    return quoted + "\"";
}

void printCsv(const std::vector<Row>& rows) {
    auto line = [](const std::vector<std::string>& cells) {
        std::string text;
        for (std::size_t c = 0; c < cells.size(); ++c) text += (c ? "," : "") + csvField(cells[c]);
        std::puts(text.c_str());
    };
    line(columns);
    for (const Row& row : rows) line(row.cells);
}

// ---------------------------------------------------------------------------------------------
// The machine.

std::string cpuModel() {
    std::ifstream cpuinfo("/proc/cpuinfo");
    std::string line;
    while (std::getline(cpuinfo, line)) {
        if (line.rfind("model name", 0) != 0) continue;
        const auto colon = line.find(':');
        if (colon == std::string::npos) break;
        const auto start = line.find_first_not_of(" \t", colon + 1);
        return start == std::string::npos ? "unknown" : line.substr(start);
    }
    return "unknown";
}

double physicalMemory() {
    const long pages = ::sysconf(_SC_PHYS_PAGES), size = ::sysconf(_SC_PAGE_SIZE);
    return pages > 0 && size > 0 ? static_cast<double>(pages) * static_cast<double>(size) : 0;
}

std::string localTime() {
    const std::time_t now = std::time(nullptr);
    char text[64];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S %Z", std::localtime(&now));
    return text;
}

// ---------------------------------------------------------------------------------------------

struct Settings {
    int threads = 0;
    double naiveBudget = 120;
    bool large = false, csv = false;
    std::vector<int> cases; // 1-based; empty: all
    bool underLoad = false;
    int rounds = 3;
    bool scale = false;
    bool search = false;
    double presentBudget = 1200; // --scale: skip a run of the present method estimated longer
    bool ftlmErrors = false;
    int seeds = 30; // --ftlm-errors
    bool magnetisation = false;
};

// The naive reference on the same problem and data, where it fits the memory and time budgets.
void compareNaive(const SpinSystem& system, Problem& problem, const Run& fast,
                  const std::vector<double>& observed, const Settings& settings, Row& row) {
    std::vector<std::string>& notes = row.notes;
    const Plan naive = planSpectrum(system, Method::Full, settings.threads);
    if (naive.bytes > naiveMemoryLimit) {
        notes.push_back(format("naive: estimated %.3g GiB > %.0f GiB", naive.bytes / gib,
                               naiveMemoryLimit / gib));
        return;
    }
    if (naive.secondsPerSlopes > settings.naiveBudget) {
        notes.push_back(format("naive: estimated %.3g s per spectrum > budget %.0f s",
                               naive.secondsPerSlopes, settings.naiveBudget));
        return;
    }
    const double naiveFitEstimate =
        naive.scaled ? naive.secondsPerSpectrum : spectraPerFit * naive.secondsPerSlopes;
    const bool naiveFit = naiveFitEstimate <= settings.naiveBudget;
    progress("  naive %s", naive.describe().c_str());
    std::vector<double> naiveAtTruth;
    const Run reference =
        measure(system, naive, problem, settings.threads, false, naiveFit, naiveAtTruth);
    row.cells[naiveEvalColumn] = seconds(reference.evaluation);
    row.cells[evalRatioColumn] = format("%.3g", reference.evaluation / fast.evaluation);
    double worst = 0;
    for (std::size_t i = 0; i < observed.size(); ++i)
        worst = std::max(worst, std::abs(naiveAtTruth[i] / observed[i] - 1));
    row.cells[agreementColumn] = format("%.1e", worst);
    progress("  naive setup %.3g s, evaluation %.3g s (median of %d)", reference.setup,
             reference.evaluation, reference.repetitions);
    if (naiveFit) {
        row.cells[naiveFitColumn] = seconds(reference.fit);
        row.cells[fitRatioColumn] = format("%.3g", reference.fit / fast.fit);
        noteFit("naive", reference, notes);
        progress("  naive fit %.3g s", reference.fit);
    } else {
        notes.push_back(format("naive fit: estimated %.0f s > budget %.0f s", naiveFitEstimate,
                               settings.naiveBudget));
    }
}

// One problem: its plan, and unless it is too large, the engine's run and the naive one.
Row benchmark(const Case& c, const Settings& settings) {
    Row row;
    row.cells.assign(columns.size(), "-");
    std::vector<std::string>& notes = row.notes;
    row.cells[problemColumn] = c.name;

    Problem problem = makeProblem(c);
    const SpinSystem system{problem.twiceSpin, problem.bonds, problem.jCount()};
    const Plan plan = planSpectrum(system, Method::Automatic, settings.threads);
    row.cells[dimensionColumn] = format("%.0f", plan.dimension);
    row.cells[largestColumn] = format("%.0f", plan.largestBlock);
    row.cells[methodColumn] = methodText(plan);
    row.cells[memoryColumn] = format("%.3g", plan.bytes / gib);
    row.cells[estimateColumn] = seconds(plan.secondsPerSpectrum);

    // A scaled spectrum costs its one diagonalisation; otherwise a few evaluations and a fit.
    const double estimate = plan.scaled ? plan.secondsPerSpectrum
                                        : fewestEvaluations * plan.secondsPerSpectrum +
                                              spectraPerFit * plan.secondsPerSlopes;
    if (c.large && !settings.large) {
        notes.push_back(format("not run (estimated %.0f s; --large to run)", estimate));
        return row;
    }
    const double memory = physicalMemory();
    if (memory > 0 && plan.bytes > 0.8 * memory) {
        notes.push_back(
            format("not run (estimated %.1f GiB of %.1f GiB)", plan.bytes / gib, memory / gib));
        return row;
    }

    progress("%s: %s; estimated %.3g GiB, %.3g s", c.name.c_str(), plan.describe().c_str(),
             plan.bytes / gib, estimate);
    std::vector<double> observed;
    const Run fast = measure(system, plan, problem, settings.threads, true, true, observed);
    row.cells[setupColumn] = seconds(fast.setup);
    row.cells[evalColumn] = seconds(fast.evaluation);
    row.cells[fitColumn] = seconds(fast.fit);
    row.cells[stepsColumn] = format("%d/%d", fast.result.iterations, fast.result.evaluations);
    noteFit("fast", fast, notes);
    progress("  setup %.3g s, evaluation %.3g s (median of %d), fit %.3g s (%s after %d "
             "iterations)",
             fast.setup, fast.evaluation, fast.repetitions, fast.fit,
             statusName(fast.result.status), fast.result.iterations);

    try {
        compareNaive(system, problem, fast, observed, settings, row);
    } catch (const std::bad_alloc&) {
        notes.push_back("naive: out of memory");
    } catch (const std::exception& failure) {
        notes.push_back(std::string("naive: ") + failure.what());
    }
    return row;
}

// ---------------------------------------------------------------------------------------------
// Under load: what another busy program on the machine does to the engine's threads.

// Another process that keeps one core busy while it lives, as `yes > /dev/null` would.
class BusyCore {
public:
    BusyCore() {
        pid_ = ::fork();
        if (pid_ < 0) throw std::runtime_error("cannot start a busy process");
        if (pid_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            volatile unsigned long spin = 0;
            for (;;) spin = spin + 1;
        }
    }
    ~BusyCore() {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    BusyCore(const BusyCore&) = delete;
    BusyCore& operator=(const BusyCore&) = delete;

private:
    pid_t pid_ = -1;
};

struct LoadTimes {
    std::vector<double> setup, evaluation, slopes;
};

// One evaluation as `corefit` runs it with no free parameter (the spectrum built, then chiT at
// new J values, eigenvalues only), and one spectrum with J slopes as every fit step needs it.
void measureOnce(const Case& c, int threads, LoadTimes& times) {
    Problem problem = makeProblem(c);
    const SpinSystem system{problem.twiceSpin, problem.bonds, problem.jCount()};
    const Plan plan = planSpectrum(system, Method::Automatic, threads);
    auto started = Clock::now();
    Spectrum spectrum(system, plan, threads);
    times.setup.push_back(secondsSince(started));
    SusceptibilityModel model(problem, spectrum);
    std::vector<double> p = trueValues(problem), values;
    started = Clock::now();
    if (!model.predict(p, values)) throw std::runtime_error("no finite susceptibility");
    times.evaluation.push_back(secondsSince(started));
    std::vector<double> jKelvin(c.j);
    for (double& j : jKelvin) j *= 1.001;
    started = Clock::now();
    spectrum.levels(jKelvin, std::vector<bool>(jKelvin.size(), true));
    times.slopes.push_back(secondsSince(started));
}

// One dsyevd (eigenvalues only) of a random symmetric matrix on `threads` OpenBLAS threads: how
// large blocks were diagonalised before the engine kept LAPACK on one thread.
double blasDiagonalisation(Eigen::Index n, int threads) {
    Eigen::MatrixXd matrix = Eigen::MatrixXd::Random(n, n);
    matrix = (matrix + matrix.transpose()).eval();
    Eigen::VectorXd values;
    openblas_set_num_threads(threads);
    const auto started = Clock::now();
    symmetricEigen(matrix, values, false);
    const double seconds = secondsSince(started);
    openblas_set_num_threads(1);
    return seconds;
}

std::string loadAverage() {
    std::ifstream file("/proc/loadavg");
    double one = 0;
    file >> one;
    return file ? format("%.2f", one) : std::string("unknown");
}

int runUnderLoad(const Settings& settings) {
    const Case ring16 = standardCases()[6];
    const int defaults = defaultThreads();
    constexpr Eigen::Index blasSize = 1000;
    struct Setting {
        bool loaded;
        int threads;
    };
    const std::vector<Setting> order{{false, defaults}, {false, 1}, {true, defaults}, {true, 1}};
    std::vector<LoadTimes> times(order.size());
    std::vector<std::vector<double>> blas(order.size());
    std::vector<std::string> averages;
    for (int round = 1; round <= settings.rounds; ++round) {
        for (std::size_t k = 0; k < order.size(); ++k) {
            const Setting& setting = order[k];
            averages.push_back(loadAverage());
            std::unique_ptr<BusyCore> busy;
            if (setting.loaded) busy = std::make_unique<BusyCore>();
            measureOnce(ring16, setting.threads, times[k]);
            blas[k].push_back(blasDiagonalisation(blasSize, setting.threads));
            progress("round %d, %s, %d thread%s: setup %.3g s, evaluation %.3g s, slopes %.3g s; "
                     "dsyevd on %d OpenBLAS thread%s %.3g s",
                     round, setting.loaded ? "one core busy" : "idle", setting.threads,
                     setting.threads == 1 ? "" : "s", times[k].setup.back(),
                     times[k].evaluation.back(), times[k].slopes.back(), setting.threads,
                     setting.threads == 1 ? "" : "s", blas[k].back());
        }
    }

    std::printf("corefit-bench --under-load, corefit %s, %s\n", COREFIT_VERSION,
                localTime().c_str());
    std::printf("machine: %s, nproc %ld; default threads %d; %d round%s, medians; load average "
                "before each measurement %s to %s\n",
                cpuModel().c_str(), ::sysconf(_SC_NPROCESSORS_ONLN), defaults, settings.rounds,
                settings.rounds == 1 ? "" : "s",
                std::min_element(averages.begin(), averages.end())->c_str(),
                std::max_element(averages.begin(), averages.end())->c_str());
    std::printf("%s, evaluation as corefit runs it; busy: another process spinning on one core\n\n",
                ring16.name.c_str());
    std::printf("%-4s  %-11s  %8s  %8s  %8s  %11s  %11s  %12s  %11s\n", "load", "threads",
                "setup s", "eval s", "slopes s", "setup+eval", "slopes", "dsyevd 1000", "dsyevd");
    std::printf("%-4s  %-11s  %8s  %8s  %8s  %11s  %11s  %12s  %11s\n", "", "", "", "", "",
                "vs 1 thread", "vs 1 thread", "OpenBLAS s", "vs 1 thread");
    for (std::size_t k = 0; k < order.size(); ++k) {
        const std::size_t one = k % 2 ? k : k + 1; // the one-thread run of the same load
        const double setupEval = median(times[k].setup) + median(times[k].evaluation);
        const double oneSetupEval = median(times[one].setup) + median(times[one].evaluation);
        std::printf("%-4s  %-11s  %8.3g  %8.3g  %8.3g  %11.2f  %11.2f  %12.3g  %11.2f\n",
                    order[k].loaded ? "busy" : "idle",
                    format("%d%s", order[k].threads, k % 2 ? "" : " (default)").c_str(),
                    median(times[k].setup), median(times[k].evaluation), median(times[k].slopes),
                    setupEval / oneSetupEval, median(times[k].slopes) / median(times[one].slopes),
                    median(blas[k]), median(blas[k]) / median(blas[one]));
    }
    return 0;
}

// ---------------------------------------------------------------------------------------------
// At scale: the present method (S blocks, no symmetry) beside the new one (S blocks split by the
// cluster's symmetry, or FTLM), each in a child process of its own.

struct Measured {
    bool ok = false;
    double setup = 0, build = 0, evaluation = 0, fit = 0, peakBytes = 0;
    int iterations = 0;
    std::vector<double> values; // chiT at the true values
    double worstError = 0;      // FTLM: the largest relative standard error it gives
};

// In a child process: builds the spectrum, evaluates chiT at the 300 temperatures (a whole run of
// corefit with no free parameter) and, with `fit`, fits g and J from 20 % off. Its peak resident
// memory comes from wait4.
Measured measureApart(const Case& c, const Plan& plan, int threads, bool fit) {
    int channel[2];
    if (::pipe(channel) != 0) throw std::runtime_error("no pipe");
    const pid_t pid = ::fork();
    if (pid < 0) throw std::runtime_error("cannot fork");
    if (pid == 0) {
        ::close(channel[0]);
        std::vector<double> out;
        try {
            Problem problem = makeProblem(c);
            const SpinSystem system{problem.twiceSpin, problem.bonds, problem.jCount()};
            auto started = Clock::now();
            Spectrum spectrum(system, plan, threads);
            const double setup = secondsSince(started);
            SusceptibilityModel model(problem, spectrum);
            std::vector<double> values;
            started = Clock::now();
            if (!model.predict(trueValues(problem), values)) throw std::runtime_error("no chiT");
            const double evaluation = secondsSince(started);
            double worst = 0;
            const std::vector<double> errors = model.standardErrors(trueValues(problem));
            for (std::size_t i = 0; i < errors.size(); ++i)
                worst = std::max(worst, errors[i] / values[i]);
            double fitSeconds = 0, iterations = 0;
            if (fit) {
                for (std::size_t i = 0; i < values.size(); ++i) problem.points[i].observed = values[i];
                started = Clock::now();
                const FitResult result = fitLeastSquares(model, fitStart(problem), {});
                fitSeconds = setup + secondsSince(started);
                iterations = result.iterations;
            }
            out = {1, setup, spectrum.buildSeconds(), evaluation, fitSeconds, iterations, worst};
            out.insert(out.end(), values.begin(), values.end());
        } catch (const std::exception& failure) {
            std::fprintf(stderr, "  failed: %s\n", failure.what());
            out = {0};
        }
        const auto bytes = static_cast<ssize_t>(out.size() * sizeof(double));
        ssize_t written = 0;
        while (written < bytes) {
            const ssize_t k = ::write(channel[1], reinterpret_cast<const char*>(out.data()) + written,
                                      static_cast<std::size_t>(bytes - written));
            if (k <= 0) break;
            written += k;
        }
        ::_exit(0);
    }
    ::close(channel[1]);
    std::vector<double> in;
    double value = 0;
    for (ssize_t k; (k = ::read(channel[0], &value, sizeof value)) == sizeof value;) in.push_back(value);
    ::close(channel[0]);
    int status = 0;
    struct rusage usage {};
    ::wait4(pid, &status, 0, &usage);
    Measured m;
    if (in.size() < 7 || in[0] != 1) return m;
    m.ok = true;
    m.setup = in[1];
    m.build = in[2];
    m.evaluation = in[3];
    m.fit = in[4];
    m.iterations = static_cast<int>(in[5]);
    m.worstError = in[6];
    m.values.assign(in.begin() + 7, in.end());
    m.peakBytes = static_cast<double>(usage.ru_maxrss) * 1024;
    return m;
}

// A whole run (setup and chiT) in a child process, repeated three times when it takes under a
// second (a child's first tenth of a second varies by up to twice from one child to the next):
// the run with the median time.
Measured medianRun(const Case& c, const Plan& plan, int threads) {
    std::vector<Measured> runs{measureApart(c, plan, threads, false)};
    auto time = [](const Measured& m) { return m.setup + m.evaluation; };
    if (!runs[0].ok || time(runs[0]) >= 1) return runs[0];
    for (int k = 0; k < 2; ++k) runs.push_back(measureApart(c, plan, threads, false));
    std::sort(runs.begin(), runs.end(),
              [&](const Measured& a, const Measured& b) { return time(a) < time(b); });
    return runs[1];
}

double largestDifference(const std::vector<double>& a, const std::vector<double>& b) {
    double worst = 0;
    for (std::size_t i = 0; i < a.size() && i < b.size(); ++i)
        worst = std::max(worst, std::abs(a[i] / b[i] - 1));
    return worst;
}

int runScale(const Settings& settings) {
    const int threads = settings.threads;
    auto symmetric = [](const Case& c) {
        const SpinSystem system{c.twiceSpin, c.bonds, static_cast<int>(c.j.size())};
        return std::make_shared<const SplitGroup>(
            splitGroup(findSymmetry(system), static_cast<int>(c.twiceSpin.size())));
    };
    auto systemOf = [](const Case& c) {
        return SpinSystem{c.twiceSpin, c.bonds, static_cast<int>(c.j.size())};
    };
    std::printf("corefit-bench --scale, corefit %s, %s\n", COREFIT_VERSION, localTime().c_str());
    std::printf("machine: %s, nproc %ld, %.1f GiB memory; %d thread%s; load average %s at the "
                "start\n",
                cpuModel().c_str(), ::sysconf(_SC_NPROCESSORS_ONLN), physicalMemory() / gib,
                threads, threads == 1 ? "" : "s", loadAverage().c_str());
    std::printf("present: S blocks without symmetry, one dense matrix per J; new: S blocks split "
                "by the symmetry (or FTLM), one sparse matrix per J where not split; whole run: "
                "setup + chiT at %d temperatures; each run in a child "
                "process, peak memory from the kernel\n\n",
                pointCount);
    std::printf("%-34s  %-44s  %9s  %9s  %8s  %8s  %8s  %8s  %7s  %9s\n", "target", "method",
                "present s", "new s", "ratio", "est s", "est GiB", "peak GiB", "build s",
                "agreement");

    struct Target {
        Case c;
        bool fit;
        const char* what;
        int number; // for --case
    };
    const std::vector<Case> standard = standardCases();
    std::vector<Target> targets{
        {ring(16, 1, false, {-10}), false, "whole run", 1}, {standard[3], false, "whole run", 2},
        {standard[6], true, "fit of g, J1, J2", 3},         {standard[7], false, "whole run", 4},
        {mixedCluster(), true, "fit of g, J1-J3", 6},
    };
    auto chosen = [&](int number) {
        return settings.cases.empty() || std::find(settings.cases.begin(), settings.cases.end(),
                                                    number) != settings.cases.end();
    };
    for (std::size_t k = 0; k < targets.size(); ++k) {
        const Target& target = targets[k];
        if (!chosen(target.number)) continue;
        const SpinSystem system = systemOf(target.c);
        // Present: the Hamiltonian per J as dense matrices; new: sparse, split by symmetry.
        Plan present = planSpectrum(system, Method::SBlocks, threads);
        present.denseTerms = true;
        const Plan fast = planSpectrum(system, Method::SBlocks, threads, symmetric(target.c));
        progress("%s, %s: %s", target.c.name.c_str(), target.what, fast.describe().c_str());
        const Measured now = measureApart(target.c, fast, threads, target.fit);
        const double presentEstimate =
            target.fit ? spectraPerFit * present.secondsPerSlopes : present.secondsPerSpectrum;
        Measured before;
        const bool runPresent = presentEstimate <= settings.presentBudget &&
                                (!target.c.large || settings.large);
        if (runPresent) {
            progress("  present: %s", present.describe().c_str());
            before = measureApart(target.c, present, threads, target.fit);
        }
        auto whole = [&](const Measured& m) { return target.fit ? m.fit : m.setup + m.evaluation; };
        const std::string name = target.c.name + ", " + target.what;
        std::printf("%-34s  %-44s  %9s  %9s  %8s  %8.3g  %8.3g  %8.3g  %7.3g  %9s\n",
                    name.c_str(), format("%.44s", fast.describe().c_str()).c_str(),
                    before.ok ? seconds(whole(before)).c_str()
                              : format("(est %.0f)", presentEstimate).c_str(),
                    now.ok ? seconds(whole(now)).c_str() : "failed",
                    before.ok && now.ok ? format("%.3g", whole(before) / whole(now)).c_str() : "-",
                    fast.secondsToBuild +
                        (target.fit ? spectraPerFit * fast.secondsPerSlopes : fast.secondsPerSpectrum),
                    fast.bytes / gib, now.peakBytes / gib, now.build,
                    before.ok && now.ok ? format("%.1e", largestDifference(now.values, before.values)).c_str()
                                        : "-");
        if (before.ok)
            std::printf(
                "%-34s  %-44s  present: setup %.3g s (building %.3g thread-s), peak %.3g GiB\n", "",
                "", before.setup, before.build, before.peakBytes / gib);
        std::fflush(stdout);
    }

    // The whole symmetry group: its blocks built on product states of single sites, the kernel of
    // S+ from one QR factorisation of every (M = S, irrep) space (present), beside those built on
    // the composite units the group permutes, the kernel class of cells by class (new); each
    // total spin by the whole group or the tree's subgroup, whichever is estimated faster.
    std::printf(
        "\nthe whole symmetry group: present = its blocks on product states of single sites "
        "(one QR factorisation per (M = S, irrep) space), new = on composite units (the "
        "kernel class of cells by class); whole run (setup + chiT; the median of three under a "
        "second); est = setup + one spectrum as estimated\n");
    std::printf("%-26s  %-50s  %9s  %9s  %7s  %9s  %9s  %8s  %8s  %8s  %9s\n", "target",
                "new method", "present s", "new s", "ratio", "pres est", "new est", "est GiB",
                "peak GiB", "pres GiB", "agreement");
    std::vector<Case> wholeTargets{ring(12, 1, false, {-10}), ring(16, 1, false, {-10}),
                                   ring(18, 1, false, {-10}), ring(20, 1, false, {-10}),
                                   ring(10, 3, false, {-10}), standard[3]};
    wholeTargets[3].large = true;
    for (std::size_t k = 0; k < wholeTargets.size(); ++k) {
        const Case& c = wholeTargets[k];
        if (!chosen(static_cast<int>(k) + 11)) continue;
        const SpinSystem system = systemOf(c);
        const SiteSymmetry symmetry = findSymmetry(system);
        const int sites = static_cast<int>(c.twiceSpin.size());
        const auto tree = std::make_shared<const SplitGroup>(splitGroup(symmetry, sites));
        const auto whole = std::make_shared<const SplitGroup>(wholeGroup(symmetry, sites));
        const Plan present = planSpectrum(system, Method::SBlocks, threads, tree, {}, whole, true);
        const Plan fast = planSpectrum(system, Method::SBlocks, threads, tree, {}, whole);
        progress("%s: %s", c.name.c_str(), fast.describe().c_str());
        const Measured now = medianRun(c, fast, threads);
        const double presentEstimate = present.secondsToBuild + present.secondsPerSpectrum;
        Measured before;
        if ((presentEstimate <= settings.presentBudget && !c.large) || settings.large) {
            progress("  present: %s", present.describe().c_str());
            before = medianRun(c, present, threads);
        }
        auto run = [](const Measured& m) { return m.setup + m.evaluation; };
        std::printf("%-26s  %-50s  %9s  %9s  %7s  %9.3g  %9.3g  %8.3g  %8.3g  %8s  %9s\n",
                    c.name.c_str(), format("%.50s", fast.describe().c_str()).c_str(),
                    before.ok ? seconds(run(before)).c_str()
                              : format("(est %.0f)", presentEstimate).c_str(),
                    now.ok ? seconds(run(now)).c_str() : "failed",
                    before.ok && now.ok ? format("%.3g", run(before) / run(now)).c_str() : "-",
                    presentEstimate, fast.secondsToBuild + fast.secondsPerSpectrum,
                    fast.bytes / gib, now.peakBytes / gib,
                    before.ok ? format("%.3g", before.peakBytes / gib).c_str() : "-",
                    before.ok && now.ok
                        ? format("%.1e", largestDifference(now.values, before.values)).c_str()
                        : "-");
        std::printf("%-26s  new: %s; setup %.3g s (building %.3g thread-s)\n", "",
                    fast.describe().c_str(), now.setup, now.build);
        if (before.ok)
            std::printf("%-26s  present: %s; setup %.3g s (building %.3g thread-s), est GiB %.3g\n",
                        "", present.describe().c_str(), before.setup, before.build,
                        present.bytes / gib);
        std::fflush(stdout);
    }
    if (chosen(11) || chosen(12) || chosen(13) || chosen(14) || chosen(15) || chosen(16))
        std::printf("load average %s\n", loadAverage().c_str());

    // FTLM against the exact spectrum (split by symmetry) on rings of 16, 18 and 20 sites.
    if (!chosen(5)) return 0;
    std::printf("\nFTLM (hybrid: lowest %d levels of every M block exact, %d Lanczos steps) "
                "against the exact spectrum: largest relative difference of chiT over 2-300 K, "
                "and the largest standard error FTLM gives itself\n\n",
                FtlmSettings{}.exactLevels, FtlmSettings{}.steps);
    std::printf("%-22s  %7s  %9s  %9s  %8s  %8s  %8s  %10s  %10s\n", "ring", "vectors",
                "exact s", "ftlm s", "est s", "est GiB", "peak GiB", "difference",
                "own error");
    for (int sites : {16, 18, 20}) {
        const Case c = ring(sites, 1, false, {-10});
        const SpinSystem system = systemOf(c);
        const Plan exact = planSpectrum(system, Method::SBlocks, threads, symmetric(c));
        Measured reference;
        if (sites < 20 || settings.large) {
            progress("%s: exact, %s", c.name.c_str(), exact.describe().c_str());
            reference = measureApart(c, exact, threads, false);
        }
        for (int vectors : {10, 20, 40}) {
            if (sites == 20 && vectors != 20) continue;
            FtlmSettings f;
            f.vectors = vectors;
            const Plan plan = planSpectrum(system, Method::Ftlm, threads, nullptr, f);
            progress("%s: FTLM with %d vectors", c.name.c_str(), vectors);
            const Measured m = measureApart(c, plan, threads, false);
            std::printf("%-22s  %7d  %9s  %9s  %8.3g  %8.3g  %8.3g  %10s  %10s\n",
                        c.name.c_str(), vectors,
                        reference.ok ? seconds(reference.setup + reference.evaluation).c_str() : "-",
                        m.ok ? seconds(m.setup + m.evaluation).c_str() : "failed",
                        plan.secondsPerSpectrum, plan.bytes / gib, m.peakBytes / gib,
                        reference.ok && m.ok ? format("%.2g %%", 100 * largestDifference(m.values, reference.values)).c_str() : "-",
                        m.ok ? format("%.2g %%", 100 * m.worstError).c_str() : "-");
            std::fflush(stdout);
        }
    }
    std::printf("\nload average at the end %s\n", loadAverage().c_str());
    return 0;
}

// ---------------------------------------------------------------------------------------------
// FTLM's sampling error against the truth: its standard error of <M^2> beside the deviation from
// the exact spectrum (split by symmetry), over many seeds; and the uncertainty of a fitted J
// beside its scatter over seeds.

struct ErrorCase {
    Case c;
    long denseLimit; // so that the larger blocks go to the random vectors
};

void measureErrors(const ErrorCase& e, int seeds, int threads) {
    const Case& c = e.c;
    const SpinSystem system{c.twiceSpin, c.bonds, static_cast<int>(c.j.size())};
    const auto group = std::make_shared<const SplitGroup>(
        splitGroup(findSymmetry(system), static_cast<int>(c.twiceSpin.size())));
    Spectrum exact(system, planSpectrum(system, Method::SBlocks, threads, group), threads);
    const Levels reference = exact.levels(c.j, {});
    std::vector<double> temperatures;
    for (double t = 1.5; t <= 300; t *= 1.1) temperatures.push_back(t);
    // Bands of T / |J1|.
    const std::vector<double> edges{0, 0.3, 0.7, 1.5, 4, 1e9};
    const std::size_t bands = edges.size() - 1;
    std::vector<double> squares(bands, 0), beyond(bands, 0), count(bands, 0);
    int exceeded = 0;
    double mostExceeded = 0;
    for (int seed = 1; seed <= seeds; ++seed) {
        FtlmSettings f;
        f.denseLimit = e.denseLimit;
        f.seed = static_cast<std::uint64_t>(seed);
        Spectrum ftlm(system, planSpectrum(system, Method::Ftlm, threads, nullptr, f), threads);
        const Levels& levels = ftlm.levels(c.j, {});
        double worst = 0, largest = 0;
        for (double t : temperatures) {
            const double truth = thermalMoment(reference, t).value;
            const double value = thermalMoment(levels, t).value;
            const double error = samplingErrorFactor * thermalMomentError(levels, t);
            if (error == 0) continue;
            const double z = (value - truth) / error;
            worst = std::max(worst, std::abs(value - truth) / value);
            largest = std::max(largest, error / value);
            for (std::size_t b = 0; b < bands; ++b)
                if (t >= edges[b] * std::abs(c.j[0]) && t < edges[b + 1] * std::abs(c.j[0])) {
                    squares[b] += z * z;
                    beyond[b] += std::abs(z) > 2;
                    count[b] += 1;
                }
        }
        exceeded += worst > largest;
        mostExceeded = std::max(mostExceeded, worst / largest);
    }
    std::printf("%-34s", c.name.c_str());
    for (std::size_t b = 0; b < bands; ++b)
        std::printf("  %5.2f %4.1f%%", std::sqrt(squares[b] / count[b]),
                    100 * beyond[b] / count[b]);
    std::printf("  %6d/%d %5.1f\n", exceeded, seeds, mostExceeded);
    std::fflush(stdout);
}

int runErrors(const Settings& settings) {
    std::printf("corefit-bench --ftlm-errors, corefit %s, %s\n", COREFIT_VERSION,
                localTime().c_str());
    std::printf("FTLM with its defaults (20 random vectors, 100 Lanczos steps, 8 exact levels) but "
                "for the size of the blocks diagonalised whole; seeds 1 to %d\n\n",
                settings.seeds);
    std::printf(
        "<M^2> at 57 temperatures from 1.5 to 300 K: root mean square of (ftlm - exact) / "
        "standard error, and the share beyond 2, in bands of T/|J1|; then the seeds whose "
        "largest deviation exceeds their largest standard error, and by how much at most\n\n");
    std::printf("%-34s  %-12s  %-12s  %-12s  %-12s  %-12s  %s\n", "cluster", "T/|J| <0.3",
                "0.3-0.7", "0.7-1.5", "1.5-4", ">4", "exceeded");
    Case mixed;
    mixed.name = "10-ring of S=1/2 and 1, cross path";
    mixed.twiceSpin = {1, 2, 1, 2, 1, 2, 1, 2, 1, 2};
    for (int a = 0; a < 10; ++a) mixed.bonds.push_back({a, (a + 1) % 10, 0});
    mixed.bonds.push_back({0, 5, 1});
    mixed.j = {-15, 4};
    std::vector<ErrorCase> cases{{ring(14, 1, false, {-10}), 400},
                                 {ring(16, 1, false, {-10}), 2000},
                                 {ring(16, 1, true, {-10, -6}), 2000},
                                 {ring(10, 2, false, {-10}), 1000},
                                 {mixed, 600}};
    if (settings.large) cases.push_back({ring(18, 1, false, {-10}), 2000});
    for (const ErrorCase& e : cases) {
        progress("%s", e.c.name.c_str());
        measureErrors(e, settings.seeds, settings.threads);
    }

    // A fit of g and J to the exact chiT of the 16-ring with 0.3 % noise, by FTLM with each seed.
    const Case c = ring(16, 1, false, {-10});
    Problem problem = makeProblem(c);
    const SpinSystem system{problem.twiceSpin, problem.bonds, problem.jCount()};
    const auto group = std::make_shared<const SplitGroup>(splitGroup(findSymmetry(system), 16));
    Spectrum exact(system, planSpectrum(system, Method::SBlocks, settings.threads, group),
                   settings.threads);
    std::vector<double> clean;
    SusceptibilityModel(problem, exact).predict(trueValues(problem), clean);
    std::uint64_t state = 12345; // Box-Muller over a fixed linear congruential sequence
    auto uniform = [&] {
        state = state * 6364136223846793005ULL + 1442695040888963407ULL;
        return (static_cast<double>(state >> 11) + 0.5) / 9007199254740992.0;
    };
    for (std::size_t i = 0; i < clean.size(); ++i)
        problem.points[i].observed = clean[i] * (1 + 0.003 * std::sqrt(-2 * std::log(uniform())) *
                                                         std::cos(6.283185307179586 * uniform()));
    const std::vector<Parameter> start = fitStart(problem);
    SusceptibilityModel exactModel(problem, exact);
    const FitResult reference = fitLeastSquares(exactModel, start, {});
    const std::size_t jIndex = firstJIndex;
    std::printf(
        "\n%s, g and J fitted to its exact chiT with 0.3 %% noise: exact J1 = %.4f +/- %.4f\n",
        c.name.c_str(), reference.parameters[jIndex], reference.uncertainties[jIndex]);
    const int fits = std::min(settings.seeds, 10);
    double sum = 0, squares = 0, reported = 0, alone = 0;
    for (int seed = 1; seed <= fits; ++seed) {
        progress("fit by FTLM, seed %d", seed);
        FtlmSettings f;
        f.seed = static_cast<std::uint64_t>(seed);
        Spectrum ftlm(system, planSpectrum(system, Method::Ftlm, settings.threads, nullptr, f),
                      settings.threads);
        SusceptibilityModel model(problem, ftlm);
        FitResult result = fitLeastSquares(model, start, {});
        const double fitAlone = result.uncertainties[jIndex];
        Eigen::VectorXd residuals;
        Eigen::MatrixXd jacobian;
        if (model.evaluate(result.parameters, residuals, &jacobian, result.freeIndices))
            includeCovariance(
                result, model.samplingCovariance(result.parameters, result.freeIndices, jacobian));
        const double j = result.parameters[jIndex], sigma = result.uncertainties[jIndex];
        std::printf("  seed %2d: J1 = %.4f +/- %.4f (the fit alone: %.4f)\n", seed, j, sigma,
                    fitAlone);
        sum += j;
        squares += j * j;
        reported += sigma * sigma;
        alone += fitAlone * fitAlone;
    }
    const double mean = sum / fits;
    std::printf("  scatter of J1 over the seeds %.4f (mean %.4f); root mean square of its "
                "uncertainty %.4f (the fit alone: %.4f)\n",
                std::sqrt((squares - fits * mean * mean) / (fits - 1)), mean,
                std::sqrt(reported / fits), std::sqrt(alone / fits));
    return 0;
}

int run(const Settings& settings) {
    const std::vector<Case> cases = standardCases();
    for (int k : settings.cases)
        if (k < 1 || k > static_cast<int>(cases.size()))
            throw std::invalid_argument("no problem " + std::to_string(k));

    const std::string header[] = {
        format("corefit-bench, corefit %s, %s", COREFIT_VERSION, localTime().c_str()),
        format("machine: %s, nproc %ld, %.1f GiB memory; %d thread%s", cpuModel().c_str(),
               ::sysconf(_SC_NPROCESSORS_ONLN), physicalMemory() / gib, settings.threads,
               settings.threads == 1 ? "" : "s"),
        format("evaluation: new J values, chiT at %d temperatures %g-%g K; fit: g and J from "
               "%.0f %% off; naive: one dense matrix, budget %.0f s",
               pointCount, lowestTemperature, highestTemperature, 100 * (startFactor - 1),
               settings.naiveBudget)};
    for (const std::string& line : header) progress("%s", line.c_str());

    std::vector<Row> rows;
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const int number = static_cast<int>(i) + 1;
        if (!settings.cases.empty() &&
            std::find(settings.cases.begin(), settings.cases.end(), number) == settings.cases.end())
            continue;
        try {
            rows.push_back(benchmark(cases[i], settings));
        } catch (const std::bad_alloc&) {
            rows.push_back({std::vector<std::string>(columns.size(), "-"), {"out of memory"}});
            rows.back().cells[problemColumn] = cases[i].name;
        } catch (const std::exception& failure) {
            rows.push_back({std::vector<std::string>(columns.size(), "-"), {failure.what()}});
            rows.back().cells[problemColumn] = cases[i].name;
        }
        Row& row = rows.back();
        std::string note;
        for (const std::string& part : row.notes) note += (note.empty() ? "" : "; ") + part;
        row.cells[noteColumn] = note;
    }

    for (const std::string& line : header)
        std::printf("%s%s\n", settings.csv ? "# " : "", line.c_str());
    if (!settings.csv) std::putchar('\n');
    if (settings.csv)
        printCsv(rows);
    else
        printText(rows);
    return 0;
}

// ---------------------------------------------------------------------------------------------
// The search for the global minimum: whole runs of corefit with its default starts beside runs
// with --starts 0, alternately in one run, on the examples and the 16 x S=1/2 ring.

// The directory of this program, where corefit and corvane-fit are built too.
std::string programDirectory() {
    char path[4096];
    const ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0) return ".";
    const std::string self(path, static_cast<std::size_t>(n));
    return self.substr(0, self.find_last_of('/'));
}

// Runs a program to its end with its output thrown away; the wall time, or -1 when it could not
// run. The exit code goes to `code`.
double timedRun(const std::vector<std::string>& arguments, int& code) {
    const auto started = Clock::now();
    const pid_t pid = ::fork();
    if (pid < 0) return -1;
    if (pid == 0) {
        std::FILE* null = std::fopen("/dev/null", "w");
        if (null != nullptr) {
            ::dup2(::fileno(null), 1);
            ::dup2(::fileno(null), 2);
        }
        std::vector<char*> argv;
        for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return code == 127 ? -1 : secondsSince(started);
}

std::string readText(const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The exchange files of a problem, as the program writes them.
void writeExchangeFiles(const Problem& problem, const std::string& directory) {
    std::string input = format("0, %d, %d\n%d\n", static_cast<int>(problem.unit),
                               static_cast<int>(problem.kind), problem.siteCount());
    for (int twiceSpin : problem.twiceSpin) input += format("%d\n", twiceSpin);
    input += format("%zu, %.10g\n", problem.parameters.size(), problem.tolerance);
    for (const Parameter& parameter : problem.parameters)
        input += format("%.17g, %.17g\n", parameter.start, parameter.step);
    for (const Bond& bond : problem.bonds)
        input += format("%d, %d, %d\n", bond.a + 1, bond.b + 1, bond.j + firstJIndex + 1);
    std::string data = format("%zu, %d, %d\n", problem.points.size(), problem.first, problem.last);
    for (const Point& point : problem.points)
        data += format("%.17g %.17g\n", point.temperature, point.observed);
    std::ofstream(directory + "/input.txt") << input;
    std::ofstream(directory + "/chit.txt") << data;
}

int runSearch(const Settings& settings) {
    const std::string bin = programDirectory(), corefit = bin + "/corefit";
    char scratch[] = "/tmp/corefit-bench-search-XXXXXX";
    if (::mkdtemp(scratch) == nullptr) throw std::runtime_error("cannot make a scratch directory");
    struct Target {
        std::string name, directory;
    };
    std::vector<Target> problems;
    // The examples, through corvane-fit prepare when it is built beside.
    const std::string examples = CORVANE_SOURCE_DIR "/examples";
    for (const char* name : {"cu2-dimer", "cu3-triangle", "ni4-cubane", "d-nit2"}) {
        const std::string directory = std::string(scratch) + "/" + name;
        ::mkdir(directory.c_str(), 0755);
        const std::string copy = directory + "/" + name + ".qpi";
        std::ofstream(copy) << readText(examples + "/" + name + ".qpi");
        int code = 0;
        if (timedRun({bin + "/corvane-fit", "prepare", copy}, code) < 0 || code != 0) {
            progress("%s: skipped (corvane-fit prepare failed or is not built beside)", name);
            continue;
        }
        problems.push_back({name, directory});
    }
    {
        const Case c = standardCases()[6]; // the 16 x S=1/2 ring, J1/J2
        Problem problem = makeProblem(c);
        const SpinSystem system{problem.twiceSpin, problem.bonds, problem.jCount()};
        Spectrum spectrum(system, planSpectrum(system, Method::Automatic, settings.threads),
                          settings.threads);
        SusceptibilityModel model(problem, spectrum);
        std::vector<double> values;
        if (!model.predict(trueValues(problem), values)) throw std::runtime_error("no chiT");
        for (std::size_t i = 0; i < values.size(); ++i) problem.points[i].observed = values[i];
        problem.parameters = fitStart(problem);
        const std::string directory = std::string(scratch) + "/ring16";
        ::mkdir(directory.c_str(), 0755);
        writeExchangeFiles(problem, directory);
        problems.push_back({c.name, directory});
    }

    std::printf("corefit-bench --search, corefit %s, %s\n", COREFIT_VERSION, localTime().c_str());
    std::printf("machine: %s, nproc %ld; whole runs of corefit, the default search beside "
                "--starts 0, alternately; medians of %d round%s\n\n",
                cpuModel().c_str(), ::sysconf(_SC_NPROCESSORS_ONLN), settings.rounds,
                settings.rounds == 1 ? "" : "s");
    std::printf("%-34s %7s %12s %12s %7s %14s %14s\n", "problem", "starts", "single (s)",
                "search (s)", "ratio", "D single", "D search");
    for (const Target& problem : problems) {
        progress("%s", problem.name.c_str());
        const std::string input = problem.directory + "/input.txt";
        std::vector<double> single, search;
        double deviation[2] = {0, 0};
        int code = 0;
        for (int round = 0; round < settings.rounds; ++round)
            for (int k = 0; k < 2; ++k) {
                std::vector<std::string> arguments{corefit};
                if (k == 0) arguments.insert(arguments.end(), {"--starts", "0"});
                arguments.push_back(input);
                const double seconds = timedRun(arguments, code);
                if (seconds < 0) throw std::runtime_error("cannot run " + corefit);
                (k == 0 ? single : search).push_back(seconds);
                deviation[k] = std::strtod(readText(problem.directory + "/output.txt").c_str(), nullptr);
            }
        const std::string log = readText(problem.directory + "/corefit.log");
        int starts = 1;
        const auto at = log.find("the given start and ");
        if (at != std::string::npos) starts += std::atoi(log.c_str() + at + 20);
        const double a = median(single), b = median(search);
        std::printf("%-34s %7d %12.4f %12.4f %7.2f %14.8g %14.8g\n", problem.name.c_str(), starts,
                    a, b, b / a, deviation[0], deviation[1]);
        std::fflush(stdout);
    }
    return 0;
}

// ---------------------------------------------------------------------------------------------
// The cost of a magnetisation set: the model of the 16 x S=1/2 ring with its 300 chiT points
// alone, and with M(H) at 2 and 5 K from 0.25 to 7 T (56 points), with and without a mean
// field (whose self-consistent field takes a few Newton steps per point) and with chiT in a
// field; by the exact spectrum split by symmetry and by FTLM without symmetry (whose large M
// sectors take random vectors).

int runMagnetisation(const Settings& settings) {
    const Case c = ring(16, 1, true, {-10, -7});
    const SpinSystem system{c.twiceSpin, c.bonds, static_cast<int>(c.j.size())};
    const SiteSymmetry symmetry = findSymmetry(system);
    const int sites = static_cast<int>(c.twiceSpin.size());
    const auto tree = std::make_shared<const SplitGroup>(splitGroup(symmetry, sites));
    const auto whole = std::make_shared<const SplitGroup>(wholeGroup(symmetry, sites));
    FtlmSettings plain;
    plain.symmetry = false;
    const std::vector<std::pair<std::string, Plan>> methods{
        {"exact, split by symmetry",
         planSpectrum(system, Method::SBlocks, settings.threads, tree, {}, whole)},
        {"FTLM, no symmetry",
         planSpectrum(system, Method::Ftlm, settings.threads, nullptr, plain)}};
    struct Variant {
        const char* name;
        bool magnetisation;
        double field, zj;
    };
    const Variant variants[] = {{"chiT alone", false, 0, 0},
                                {"chiT + M(H)", true, 0, 0},
                                {"chiT + M(H), zJ = -0.1 K", true, 0, -0.1},
                                {"chiT at 1 T + M(H), zJ = -0.1 K", true, 1, -0.1}};
    std::printf("corefit-bench --magnetisation, corefit %s, %s\n", COREFIT_VERSION,
                localTime().c_str());
    std::printf("machine: %s, nproc %ld, %d threads; %s: 300 chiT points, M(H) at 2 and 5 K, "
                "0.25 to 7 T (56 points); medians of %d\n\n",
                cpuModel().c_str(), ::sysconf(_SC_NPROCESSORS_ONLN), settings.threads,
                c.name.c_str(), settings.rounds);
    std::printf("%-26s %-32s %12s %12s %14s %12s\n", "method", "data", "sums (s)", "spectrum (s)",
                "J slopes (s)", "sums/alone");
    for (const auto& [method, plan] : methods) {
        progress("%s", method.c_str());
        Spectrum spectrum(system, plan, settings.threads);
        double alone = 0;
        for (const Variant& variant : variants) {
            Problem problem = makeProblem(c);
            problem.parameters[zjIndex].start = variant.zj;
            problem.field = variant.field;
            if (variant.magnetisation) {
                for (double t : {2.0, 5.0})
                    for (int k = 1; k <= 28; ++k) problem.magnetisation.push_back({t, 0.25 * k, 1});
                problem.magnetisationLast = 56;
            }
            SusceptibilityModel model(problem, spectrum);
            std::vector<double> p = trueValues(problem), values;
            std::vector<double> sums, spectra, slopes;
            for (int r = 0; r < settings.rounds; ++r) {
                // A new g: the spectrum is kept, only the thermal sums are done again.
                p[gIndex] = c.g * (1 + 1e-3 * (r + 1));
                if (!model.predict(p, values)) throw std::runtime_error("no model");
                auto started = Clock::now();
                p[gIndex] *= 1.0001;
                if (!model.predict(p, values)) throw std::runtime_error("no model");
                sums.push_back(secondsSince(started));
                // New J values: the spectrum as well.
                for (std::size_t k = firstJIndex; k < p.size(); ++k) p[k] *= 1 + 1e-3;
                started = Clock::now();
                if (!model.predict(p, values)) throw std::runtime_error("no model");
                spectra.push_back(secondsSince(started));
                // The Jacobian of g, zJ, J1 and J2: the J slopes (FTLM: a spectrum per J).
                for (std::size_t k = firstJIndex; k < p.size(); ++k) p[k] *= 1 + 1e-3;
                Eigen::VectorXd residuals;
                Eigen::MatrixXd jacobian;
                started = Clock::now();
                if (!model.evaluate(p, residuals, &jacobian, {gIndex, zjIndex, 4, 5}))
                    throw std::runtime_error("no model");
                slopes.push_back(secondsSince(started));
            }
            const double sumsSeconds = median(sums);
            if (!variant.magnetisation && variant.zj == 0) alone = sumsSeconds;
            std::printf("%-26s %-32s %12.4g %12.4g %14.4g %12.2f\n", method.c_str(), variant.name,
                        sumsSeconds, median(spectra), median(slopes), sumsSeconds / alone);
            std::fflush(stdout);
        }
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    std::setlocale(LC_ALL, "C");
    CLI::App app{"corefit-bench: the engine's speed on standard spin clusters, side by side with "
                 "the naive one-matrix reference.\nProblems: 1 Cu(II) dimer, 2 4 x S=1 cubane, "
                 "3-4 6 x S=5/2 rings, 5-7 10, 12 and 16 x S=1/2 rings, 8 8 x S=5/2 ring "
                 "(--large).",
                 "corefit-bench"};
    Settings settings;
    app.add_option("-t,--threads", settings.threads, "threads to use (default: all cores)")
        ->check(CLI::Range(1, 256));
    app.add_option("--naive-budget", settings.naiveBudget,
                   "skip a naive run estimated to take longer than this many seconds per "
                   "spectrum (a naive fit: in all) (default 120)")
        ->check(CLI::PositiveNumber);
    app.add_flag("--large", settings.large, "also run the 8 x S=5/2 ring (may take many minutes)");
    app.add_option("--case", settings.cases,
                   "run only these problems (1-8; repeatable); with --scale: 1-4 and 6 the "
                   "targets, 11-16 the whole group, 5 FTLM");
    app.add_flag("--csv", settings.csv, "print CSV instead of an aligned table");
    app.add_flag("--under-load", settings.underLoad,
                 "instead: the 16 x S=1/2 ring with the default threads and with one, idle and "
                 "with one core kept busy by another process");
    app.add_option("--rounds", settings.rounds, "rounds of --under-load (default 3)")
        ->check(CLI::Range(1, 100));
    app.add_flag("--scale", settings.scale,
                 "instead: the engine at scale, symmetry and FTLM beside the present method "
                 "(with --large also the 8 x S=5/2 ring and the exact 20 x S=1/2 ring)");
    app.add_flag("--search", settings.search,
                 "instead: whole runs of corefit with its default search for the global minimum "
                 "beside --starts 0, on the examples and the 16 x S=1/2 ring");
    app.add_option("--present-budget", settings.presentBudget,
                   "--scale: skip a run of the present method estimated longer (default 1200 s)")
        ->check(CLI::PositiveNumber);
    app.add_flag("--ftlm-errors", settings.ftlmErrors,
                 "instead: FTLM's standard error beside its deviation from exact spectra over "
                 "many seeds, and the uncertainty of a fitted J beside its scatter over seeds "
                 "(with --large also the 18 x S=1/2 ring)");
    app.add_option("--seeds", settings.seeds, "--ftlm-errors: seeds per cluster (default 30)")
        ->check(CLI::Range(2, 1000));
    app.add_flag("--magnetisation", settings.magnetisation,
                 "instead: the cost of a magnetisation set, the 16 x S=1/2 ring with chiT alone "
                 "beside chiT with M(H) points, exact and by FTLM (medians of --rounds)");
    CLI11_PARSE(app, argc, argv);
    if (settings.threads <= 0) settings.threads = defaultThreads();

    try {
        if (settings.scale) return runScale(settings);
        if (settings.search) return runSearch(settings);
        if (settings.ftlmErrors) return runErrors(settings);
        if (settings.magnetisation) return runMagnetisation(settings);
        return settings.underLoad ? runUnderLoad(settings) : run(settings);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "corefit-bench: %s\n", failure.what());
        return 2;
    }
}
