// corefit: fits the magnetic susceptibility of an isotropic exchange cluster.
//
//   corefit [options] DIR/input.txt
//
// Reads DIR/input.txt and DIR/chit.txt or DIR/chi.txt, writes DIR/output.txt and DIR/corefit.log.
// Exit codes: 0 converged or evaluated, 1 iteration limit reached, 2 bad input, 3 interrupted,
// 4 too large for the engine's limits, 5 an internal failure (LAPACK, out of memory).
#include <atomic>
#include <cerrno>
#include <chrono>
#include <clocale>
#include <cmath>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <string>
#include <thread>

#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "fit.h"
#include "guards.h"
#include "model.h"
#include "problem_io.h"
#include "spectrum.h"

namespace {

using namespace corefit;

enum ExitCode {
    exitConverged = 0,
    exitIterationLimit = 1,
    exitBadInput = 2,
    exitInterrupted = 3,
    exitTooLarge = 4,
    exitInternal = 5
};

std::atomic<bool> stopRequested{false};

extern "C" void requestStop(int) { stopRequested.store(true); }

void installStopHandlers() {
    struct sigaction action {};
    action.sa_handler = requestStop;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
}

// corefit.log beside the input: written as the run goes, so that it can be read meanwhile.
class Log {
public:
    void open(const std::string& path) { file_ = std::fopen(path.c_str(), "w"); }
    ~Log() {
        if (file_) std::fclose(file_);
    }
    [[gnu::format(printf, 2, 3)]] void line(const char* format, ...) {
        if (!file_) return;
        va_list arguments;
        va_start(arguments, format);
        std::vfprintf(file_, format, arguments);
        va_end(arguments);
        std::fputc('\n', file_);
        std::fflush(file_);
    }

private:
    std::FILE* file_ = nullptr;
};

// Progress on the standard output, one line at a time.
[[gnu::format(printf, 1, 2)]] void progress(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::vprintf(format, arguments);
    va_end(arguments);
    std::putchar('\n');
    std::fflush(stdout);
}

int fail(Log& log, int code, const std::string& message) {
    std::fprintf(stderr, "corefit: %s\n", message.c_str());
    log.line("error: %s", message.c_str());
    log.line("exit code %d; no output.txt written", code);
    return code;
}

std::string parameterLine(const std::vector<double>& p) {
    std::string text;
    char value[64];
    for (std::size_t i = 0; i < p.size(); ++i) {
        std::snprintf(value, sizeof value, "%s%s=%.10g", i ? " " : "",
                      parameterName(static_cast<int>(i)).c_str(), p[i]);
        text += value;
    }
    return text;
}

std::string spinText(int twiceSpin) {
    return twiceSpin % 2 ? std::to_string(twiceSpin) + "/2" : std::to_string(twiceSpin / 2);
}

std::string localTime() {
    const std::time_t now = std::time(nullptr);
    char text[64];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", std::localtime(&now));
    return text;
}

double physicalMemory() {
    const long pages = ::sysconf(_SC_PHYS_PAGES), size = ::sysconf(_SC_PAGE_SIZE);
    return pages > 0 && size > 0 ? static_cast<double>(pages) * static_cast<double>(size)
                                 : 16.0 * (1 << 30);
}

std::string gib(double bytes) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f GiB", bytes / (1024.0 * 1024.0 * 1024.0));
    return text;
}

void logProblem(Log& log, const Problem& problem, const Plan& plan) {
    log.line("input: %s", problem.inputPath.c_str());
    log.line("data: %s (%s, %zu points, fitted from point %d to %d)", problem.dataPath.c_str(),
             problem.kind == DataKind::ChiT ? "chiT in cm3 K mol-1" : "chi in cm3 mol-1",
             problem.points.size(), problem.first, problem.last);
    log.line("sites: %d", problem.siteCount());
    for (int i = 0; i < problem.siteCount(); ++i)
        log.line("  site %d: S = %s", i + 1,
                 spinText(problem.twiceSpin[static_cast<std::size_t>(i)]).c_str());
    log.line("Hamiltonian: H = -2 sum J_p S_a.S_b (negative J antiferromagnetic), energies in %s",
             unitName(problem.unit));
    for (const Bond& bond : problem.bonds)
        log.line("  sites %d and %d coupled by J%d", bond.a + 1, bond.b + 1, bond.j + 1);
    log.line("susceptibility: chi = C0 g^2 <M^2> / (T - 2 zJ <M^2>) + C / T + Xtip, "
             "C0 = %.9f cm3 K mol-1, zJ in %s",
             curieConstant, unitName(problem.unit));
    log.line("parameters (start, step; step 0 keeps a parameter fixed):");
    for (std::size_t i = 0; i < problem.parameters.size(); ++i) {
        const Parameter& parameter = problem.parameters[i];
        log.line("  %-4s %.10g  step %.10g  %s", parameterName(static_cast<int>(i)).c_str(),
                 parameter.start, parameter.step, parameter.free() ? "free" : "fixed");
    }
    log.line("tolerance: %.10g%s", problem.tolerance,
             problem.toleranceDefaulted ? " (default)" : "");
    log.line("method: %s", plan.describe().c_str());
    std::string sizes;
    for (double size : plan.blockSizes) {
        char text[32];
        std::snprintf(text, sizeof text, "%s%.0f", sizes.empty() ? "" : " ", size);
        sizes += text;
    }
    log.line("block sizes: %s", sizes.c_str());
    log.line("estimated memory %s; estimated %.3g s per spectrum, %.3g s with J slopes",
             gib(plan.bytes).c_str(), plan.secondsPerSpectrum, plan.secondsPerSlopes);
}

const char* statusText(FitStatus status) {
    switch (status) {
    case FitStatus::Evaluated:
        return "evaluated at the start values (no free parameter)";
    case FitStatus::Converged:
        return "converged";
    case FitStatus::IterationLimit:
        return "stopped at the iteration limit without converging";
    case FitStatus::Interrupted:
        return "interrupted; the best parameters so far are written";
    case FitStatus::Failed:
        break;
    }
    return "failed";
}

struct Options {
    std::string input;
    int threads = 0;
    std::string method = "automatic";
    double maxMemoryGiB = 0;
    double maxSeconds = 3600;
};

int run(const Options& options) {
    const auto started = std::chrono::steady_clock::now();
    Log log;
    log.open(joinPath(directoryOf(options.input), "corefit.log"));
    log.line("corefit %s, %s", COREFIT_VERSION, localTime().c_str());

    Problem problem;
    std::string error;
    if (!readProblem(options.input, problem, error)) return fail(log, exitBadInput, error);
    if (!(problem.parameters[gIndex].start > 0))
        return fail(log, exitBadInput, "input.txt: the start value of g must be positive");

    Method method = Method::Automatic;
    if (options.method == "full")
        method = Method::Full;
    else if (options.method == "m-blocks")
        method = Method::MBlocks;
    else if (options.method == "s-blocks")
        method = Method::SBlocks;

    SpinSystem system{problem.twiceSpin, problem.bonds, problem.jCount()};
    const Plan plan =
        planSpectrum(system, method, options.threads > 0 ? options.threads : defaultThreads());
    logProblem(log, problem, plan);

    // Limits, checked before anything large is built.
    const double memoryLimit = options.maxMemoryGiB > 0
                                   ? options.maxMemoryGiB * 1024 * 1024 * 1024
                                   : std::min(16.0 * 1024 * 1024 * 1024, 0.8 * physicalMemory());
    int freeJ = 0, freeCount = 0;
    for (std::size_t i = 0; i < problem.parameters.size(); ++i) {
        freeCount += problem.parameters[i].free();
        freeJ += i >= firstJIndex && problem.parameters[i].free();
    }
    // A fit with free J values needs a spectrum with slopes at each of some 25 iterations.
    const double estimate =
        plan.scaled || freeJ == 0 ? plan.secondsPerSpectrum : 25 * plan.secondsPerSlopes;
    char size[256];
    std::snprintf(size, sizeof size, "dimension %.*g, largest block %.*g (%s)",
                  plan.dimension < 0x1p53 ? 17 : 4, plan.dimension,
                  plan.largestBlock < 0x1p53 ? 17 : 4, plan.largestBlock, methodName(plan.method));
    if (plan.bytes > memoryLimit)
        return fail(log, exitTooLarge,
                    std::string("problem too large: ") + size + " needs an estimated " +
                        gib(plan.bytes) + " of memory; the limit is " + gib(memoryLimit) +
                        " (--max-memory)");
    if (estimate > options.maxSeconds) {
        char text[400];
        std::snprintf(text, sizeof text,
                      "problem too large: %s needs an estimated %.0f s; the limit is %.0f s "
                      "(--max-time)",
                      size, estimate, options.maxSeconds);
        return fail(log, exitTooLarge, text);
    }

    const int threads = options.threads > 0
                            ? options.threads
                            : static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    progress("setup %s; %d free parameter%s, %zu points, %d thread%s", plan.describe().c_str(),
             freeCount, freeCount == 1 ? "" : "s", problem.points.size(), threads,
             threads == 1 ? "" : "s");
    Spectrum spectrum(system, plan, threads);
    const double setupSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    log.line("set up in %.3f s", setupSeconds);

    SusceptibilityModel model(problem, spectrum);
    FitOptions fitOptions;
    fitOptions.tolerance = problem.tolerance;
    fitOptions.stop = &stopRequested;
    fitOptions.onIteration = [&](const IterationReport& report) {
        const std::string values = parameterLine(*report.parameters);
        progress("iteration %d deviation %.10g %s", report.iteration, report.deviation,
                 values.c_str());
        log.line("iteration %d deviation %.10g %s", report.iteration, report.deviation,
                 values.c_str());
    };
    const FitResult result = fitLeastSquares(model, problem.parameters, fitOptions);
    if (result.status == FitStatus::Failed)
        return fail(log, exitBadInput, "input.txt: " + result.message);

    Outcome outcome;
    outcome.deviation = result.deviation;
    outcome.values = result.parameters;
    outcome.uncertainties = result.uncertainties;
    outcome.uncertainties.resize(outcome.values.size(), 0.0);
    for (double& u : outcome.uncertainties)
        if (!std::isfinite(u)) u = 0;
    if (!model.predict(result.parameters, outcome.calculated))
        return fail(log, exitInternal, "the fitted parameters give no finite susceptibility");

    // Log: values, uncertainties, correlations, agreement factor.
    log.line("result: %s after %d iteration%s; %d evaluations, spectra computed: %d",
             statusText(result.status), result.iterations, result.iterations == 1 ? "" : "s",
             result.evaluations, spectrum.diagonalisations());
    log.line("deviation D = %.10g", result.deviation);
    double observedSquares = 0;
    for (int i = problem.first; i <= problem.last; ++i)
        observedSquares += std::pow(problem.points[static_cast<std::size_t>(i - 1)].observed, 2);
    if (observedSquares > 0)
        log.line("agreement factor R = %.6g", result.deviation / observedSquares);
    for (std::size_t i = 0; i < outcome.values.size(); ++i) {
        const bool free = problem.parameters[i].free();
        if (free)
            log.line("  %-4s = %.10g +/- %.4g", parameterName(static_cast<int>(i)).c_str(),
                     outcome.values[i], outcome.uncertainties[i]);
        else
            log.line("  %-4s = %.10g (fixed)", parameterName(static_cast<int>(i)).c_str(),
                     outcome.values[i]);
    }
    if (result.correlation.size() > 0) {
        log.line("correlations of the free parameters:");
        for (Eigen::Index r = 0; r < result.correlation.rows(); ++r)
            for (Eigen::Index c = r + 1; c < result.correlation.cols(); ++c) {
                const double value = result.correlation(r, c);
                log.line("  %s, %s: %+.4f%s",
                         parameterName(result.freeIndices[static_cast<std::size_t>(r)]).c_str(),
                         parameterName(result.freeIndices[static_cast<std::size_t>(c)]).c_str(),
                         value, std::abs(value) > 0.95 ? "  strongly correlated" : "");
            }
    } else if (!result.freeIndices.empty()) {
        log.line("uncertainties not estimable (too few points or a singular Jacobian)");
    }

    const std::string outputPath = joinPath(directoryOf(options.input), "output.txt");
    if (!writeOutput(outputPath, problem, outcome, error)) return fail(log, exitInternal, error);

    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    struct rusage usage {};
    ::getrusage(RUSAGE_SELF, &usage);
    log.line("wrote %s; %.3f s in all; peak memory %s (estimated %s)", outputPath.c_str(), seconds,
             gib(static_cast<double>(usage.ru_maxrss) * 1024).c_str(), gib(plan.bytes).c_str());
    progress("%s: deviation %.10g after %d iteration%s, %.2f s", statusText(result.status),
             result.deviation, result.iterations, result.iterations == 1 ? "" : "s", seconds);
    switch (result.status) {
    case FitStatus::IterationLimit:
        return exitIterationLimit;
    case FitStatus::Interrupted:
        log.line("interrupted by a signal");
        return exitInterrupted;
    default:
        return exitConverged;
    }
}

} // namespace

int main(int argc, char** argv) {
    std::setlocale(LC_ALL, "C");
    CLI::App app{"corefit: fits the magnetic susceptibility of an exchange-coupled spin cluster.\n"
                 "Reads DIR/input.txt and DIR/chit.txt or DIR/chi.txt; writes DIR/output.txt and "
                 "DIR/corefit.log.\nExit codes: 0 converged, 1 iteration limit, 2 bad input, "
                 "3 interrupted, 4 too large, 5 internal failure.",
                 "corefit"};
    app.set_version_flag("--version", std::string("corefit ") + COREFIT_VERSION);
    Options options;
    app.add_option("input", options.input, "the engine input file, DIR/input.txt")->required();
    app.add_option("-t,--threads", options.threads, "threads to use (default: all cores)")
        ->check(CLI::Range(1, 256));
    app.add_option("--method", options.method,
                   "automatic, s-blocks (total spin blocks), m-blocks (total M blocks) or full "
                   "(one dense matrix)")
        ->check(CLI::IsMember({"automatic", "s-blocks", "m-blocks", "full"}));
    app.add_option("--max-memory", options.maxMemoryGiB,
                   "memory limit in GiB (default: 16 or 80 % of the memory, whichever is less)")
        ->check(CLI::PositiveNumber);
    app.add_option("--max-time", options.maxSeconds,
                   "limit in seconds on the estimated time of the run (default 3600)")
        ->check(CLI::PositiveNumber);
    CLI11_PARSE(app, argc, argv);

    installStopHandlers();
    gslErrorsAsCodes();
    try {
        return run(options);
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "corefit: out of memory\n");
        return exitInternal;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "corefit: %s\n", failure.what());
        return exitInternal;
    }
}
