// corefit: fits the magnetic susceptibility of an isotropic exchange cluster.
//
//   corefit [options] DIR/input.txt
//
// Reads DIR/input.txt and DIR/chit.txt or DIR/chi.txt, writes DIR/output.txt and DIR/corefit.log.
// Exit codes: 0 converged or evaluated, 1 iteration limit reached, 2 bad input, 3 interrupted,
// 4 too large for the engine's limits, 5 an internal failure (LAPACK, out of memory), 6 stopped
// on a plateau (not a minimum).
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <clocale>
#include <cmath>
#include <condition_variable>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <semaphore.h>
#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "fit.h"
#include "ftlm_fit.h"
#include "group_blocks.h"
#include "model.h"
#include "problem_io.h"
#include "search.h"
#include "spectrum.h"
#include "symmetry.h"

#ifdef COREFIT_MPI
#include <mpi.h>
#endif

namespace {

using namespace corefit;

enum ExitCode {
    exitConverged = 0,
    exitIterationLimit = 1,
    exitBadInput = 2,
    exitInterrupted = 3,
    exitTooLarge = 4,
    exitInternal = 5,
    exitPlateau = 6
};

// How long a stop request waits for the computation to reach a safe point before the best
// result so far is written from here and the engine ends.
constexpr auto stopGrace = std::chrono::milliseconds(500);

StopFlag stopRequest{false};
std::atomic<int> signalsSeen{0};
sem_t wakeWatcher;

// The first SIGINT or SIGTERM asks for a stop; a second one ends the engine at once.
extern "C" void onStopSignal(int signal) {
    if (signalsSeen.fetch_add(1) > 0) {
        std::signal(signal, SIG_DFL);
        std::raise(signal);
        return;
    }
    stopRequest.store(true);
    sem_post(&wakeWatcher);
}

void installStopHandlers() {
    sem_init(&wakeWatcher, 0, 0);
    struct sigaction action {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
}

// How FTLM's M sectors are split: "M sectors split by the characters of (1 2 3 4 5 6), order 6".
// FTLM finds levels exactly only where they count at the temperatures of the data.
FtlmSettings withTemperatures(FtlmSettings settings, const Problem& problem) {
    std::vector<double> t;
    for (const Point& point : problem.points) t.push_back(point.temperature);
    for (const MagnetisationPoint& point : problem.magnetisation) t.push_back(point.temperature);
    if (!t.empty()) {
        settings.lowestTemperature = *std::min_element(t.begin(), t.end());
        settings.highestTemperature = *std::max_element(t.begin(), t.end());
    }
    return settings;
}

std::string ftlmSymmetryText(const SpinSystem& system, const FtlmSettings& settings) {
    const FtlmSizes sizes = ftlmSizes(system, settings.symmetry);
    std::string text = sizes.order > 1 ? "M sectors split by the characters of " + sizes.symmetry +
                                             ", order " + std::to_string(sizes.order)
                                       : "M sectors not split by symmetry";
    if (const int processes = ftlmProcesses(); processes > 1)
        text += "; blocks split over " + std::to_string(processes) + " MPI processes";
    return text;
}

// Under MPI only the first process writes files and output; the others compute alongside.
bool writesFiles = true;

// corefit.log beside the input: a new file, renamed over an earlier log (a link of that name is
// replaced, never followed), then written line by line as the run goes, so that it can be read
// meanwhile. Lines come from the computation and from the watcher of stop requests.
class Log {
public:
    void open(const std::string& directory) {
        if (!writesFiles) return;
        const std::string path = joinPath(directory, "corefit.log");
        const std::string temporary =
            joinPath(directory, ".corefit.log." + std::to_string(::getpid()) + ".tmp");
        const int fd =
            ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
        if (fd < 0 || std::rename(temporary.c_str(), path.c_str()) != 0) {
            const int error = errno;
            if (fd >= 0) {
                ::unlink(temporary.c_str());
                ::close(fd);
            }
            std::fprintf(stderr, "corefit: cannot write %s: %s\n", path.c_str(),
                         std::strerror(error));
            return;
        }
        file_ = ::fdopen(fd, "w");
    }
    ~Log() {
        if (file_) std::fclose(file_);
    }
    [[gnu::format(printf, 2, 3)]] void line(const char* format, ...) {
        const std::lock_guard lock(mutex_);
        if (!file_) return;
        va_list arguments;
        va_start(arguments, format);
        std::vfprintf(file_, format, arguments);
        va_end(arguments);
        std::fputc('\n', file_);
        std::fflush(file_);
    }

private:
    std::mutex mutex_;
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

std::string nameList(const std::vector<int>& indices) {
    std::string text;
    for (int index : indices) text += (text.empty() ? "" : ", ") + parameterName(index);
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
    std::snprintf(text, sizeof text, "%.3g GiB", bytes / (1024.0 * 1024.0 * 1024.0));
    return text;
}

// The data beyond the pairs: the field of the chi data, the weighting, the magnetisation set and
// how the joint deviation scales the two sets.
void logData(Log& log, const Problem& problem) {
    const char* quantity = problem.kind == DataKind::ChiT ? "chiT" : "chi";
    if (problem.field > 0)
        log.line("  %s measured at B = %.10g T: calculated at that field", quantity, problem.field);
    else if (!problem.points.empty())
        log.line("  %s in the zero-field limit", quantity);
    if (problem.weighting == Weighting::Relative)
        log.line("  weight relative: residuals of the %s points relative to the observed values, "
                 "(calculated - observed) / observed",
                 quantity);
    if (!problem.hasMagnetisation()) return;
    double tLow = 1e300, tHigh = 0, hLow = 1e300, hHigh = 0;
    for (const MagnetisationPoint& point : problem.magnetisation) {
        tLow = std::min(tLow, point.temperature), tHigh = std::max(tHigh, point.temperature);
        hLow = std::min(hLow, point.field), hHigh = std::max(hHigh, point.field);
    }
    std::vector<double> temperatures;
    for (const MagnetisationPoint& point : problem.magnetisation)
        if (std::find(temperatures.begin(), temperatures.end(), point.temperature) ==
            temperatures.end())
            temperatures.push_back(point.temperature);
    std::string list;
    for (std::size_t k = 0; k < temperatures.size() && k < 12; ++k)
        list += formatText("%s%.6g", k ? ", " : "", temperatures[k]);
    if (temperatures.size() > 12) list += ", ...";
    log.line("  magnetisation: %zu points in N muB (line %d on), fitted from point %d to %d, "
             "weight %.10g; at %zu temperature%s (%s K; %.6g to %.6g K), fields %.6g to %.6g T",
             problem.magnetisation.size(), problem.magnetisationLine + 1,
             problem.magnetisationFirst, problem.magnetisationLast, problem.magnetisationWeight,
             temperatures.size(), temperatures.size() == 1 ? "" : "s", list.c_str(), tLow, tHigh,
             hLow, hHigh);
    if (problem.fittedChi() == 0) {
        log.line("deviation: D = W (1/n_m) sum (r/s_m)^2 with n_m = %d, s_m = %.6g N muB (the root "
                 "mean square of the fitted observed values), W = %.6g",
                 problem.fittedMagnetisation(), observedMagnetisationSize(problem),
                 problem.magnetisationWeight);
        return;
    }
    const double chiSize = problem.weighting == Weighting::Relative ? 1.0 : observedSize(problem);
    log.line("joint deviation: D = (1/n_c) sum (r/s_c)^2 + W (1/n_m) sum (r/s_m)^2 with n_c = %d, "
             "s_c = %.6g%s, n_m = %d, s_m = %.6g N muB (the root mean square of each set's "
             "fitted observed values), W = %.6g",
             problem.fittedChi(), chiSize,
             problem.weighting == Weighting::Relative ? " (relative residuals)" : "",
             problem.fittedMagnetisation(), observedMagnetisationSize(problem),
             problem.magnetisationWeight);
}

void logProblem(Log& log, const Problem& problem) {
    log.line("input: %s", problem.inputPath.c_str());
    if (problem.points.empty())
        log.line("data: %s (no %s points: the magnetisation set alone)", problem.dataPath.c_str(),
                 problem.kind == DataKind::ChiT ? "chiT" : "chi");
    else
        log.line("data: %s (%s, %zu points, fitted from point %d to %d)", problem.dataPath.c_str(),
                 problem.kind == DataKind::ChiT ? "chiT in cm3 K mol-1" : "chi in cm3 mol-1",
                 problem.points.size(), problem.first, problem.last);
    logData(log, problem);
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
    if (problem.field > 0 || problem.hasMagnetisation())
        log.line("in a field B: M = g <M>(h) + (C / C0) tanh(mu_B B / k_B T) + Xtip B 1e4 / N mu_B "
                 "in N muB, the levels E - h M with h = g mu_B B / k_B + 2 zJ <M> (the mean field "
                 "solved self-consistently), mu_B / k_B = %.11g K/T, N mu_B = %.7g cm3 G mol-1%s",
                 bohrPerBoltzmann, molarBohr,
                 problem.field > 0 ? "; chi = M N mu_B / (B 1e4) at the field of the data" : "");
    log.line("parameters (start, step; step 0 keeps a parameter fixed):");
    for (std::size_t i = 0; i < problem.parameters.size(); ++i) {
        const Parameter& parameter = problem.parameters[i];
        log.line("  %-4s %.10g  step %.10g  %s", parameterName(static_cast<int>(i)).c_str(),
                 parameter.start, parameter.step, parameter.free() ? "free" : "fixed");
    }
    log.line("tolerance: %.10g%s", problem.tolerance,
             problem.toleranceDefaulted ? " (default)" : "");
}

void logPlan(Log& log, const Plan& plan) {
    log.line("method: %s", plan.describe().c_str());
    std::string sizes;
    for (double size : plan.blockSizes) {
        char text[32];
        std::snprintf(text, sizeof text, "%s%.*g", sizes.empty() ? "" : " ", size < 0x1p53 ? 17 : 4,
                      size);
        sizes += text;
    }
    log.line("block sizes: %s", sizes.c_str());
    log.line("threads: %d (blocks side by side)", plan.threads);
    log.line("estimated memory %s; estimated %.3g s to build, %.3g s per spectrum, %.3g s with "
             "J slopes",
             gib(plan.bytes).c_str(), plan.secondsToBuild, plan.secondsPerSpectrum,
             plan.secondsPerSlopes);
}

const char* statusText(FitStatus status) {
    switch (status) {
    case FitStatus::Evaluated:
        return "evaluated at the start values (no free parameter)";
    case FitStatus::Converged:
        return "converged";
    case FitStatus::Plateau:
        return "stopped on a plateau: the deviation no longer falls although the gradient is not "
               "small; not a minimum";
    case FitStatus::IterationLimit:
        return "stopped at the iteration limit without converging";
    case FitStatus::Interrupted:
        return "interrupted; the best parameters so far are written";
    case FitStatus::Failed:
    case FitStatus::SolverFailed:
        break;
    }
    return "failed";
}

// The best parameters reported so far, with the model at every point: what an interrupted run
// writes.
struct Snapshot {
    bool valid = false;
    int iteration = 0;
    double deviation = 0;
    std::vector<double> parameters, calculated;
};

// Outcome of a snapshot: uncertainties 0 for fixed parameters and undetermined for free ones.
Outcome snapshotOutcome(const Problem& problem, const Snapshot& best) {
    Outcome outcome{best.deviation, best.parameters, {}, best.calculated, {}, {}, {}, {}, {}};
    for (const Parameter& parameter : problem.parameters)
        outcome.uncertainties.push_back(parameter.free() ? std::nan("") : 0.0);
    const SetDeviations sets = setDeviations(problem, best.calculated);
    outcome.chiDeviation = sets.chi;
    outcome.magnetisationDeviation = sets.magnetisation;
    return outcome;
}

// Coordinates the computation with stop requests. On a stop request, waits stopGrace for the
// computation to finish by itself; if it does not (it is inside a long diagonalisation), writes
// the best result so far from here and ends the engine with exit code 3.
class Run {
public:
    Run(Log& log, std::string outputPath)
        : log_(log), outputPath_(std::move(outputPath)), watcher_([this] { watch(); }) {}
    ~Run() {
        finish();
        finished_ = true;
        sem_post(&wakeWatcher);
        watcher_.join();
    }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    void setProblem(const Problem* problem) {
        const std::lock_guard lock(mutex_);
        problem_ = problem;
    }
    // Keeps the snapshot when it is the first or lower than the one kept (fits from several
    // starts report side by side).
    void update(const Snapshot& best) {
        const std::lock_guard lock(mutex_);
        if (!best_.valid || best.deviation < best_.deviation) best_ = best;
    }
    Snapshot best() {
        const std::lock_guard lock(mutex_);
        return best_;
    }
    // The computation is done and writes its own results. Blocks for good (the engine is
    // ending) once the watcher writes.
    void finish() {
        std::unique_lock lock(mutex_);
        computing_ = false;
        done_.notify_all();
    }

private:
    void watch() {
        while (sem_wait(&wakeWatcher) != 0 && errno == EINTR) {
        }
        if (finished_) return;
        std::unique_lock lock(mutex_);
        if (done_.wait_for(lock, stopGrace, [this] { return !computing_; })) return;
        // The mutex stays held: the computation can no longer write anything.
        log_.line("stop requested during a computation that cannot be left at once");
        int code = exitInterrupted;
        if (problem_ != nullptr && best_.valid) {
            std::string error;
            if (!writesFiles ||
                writeOutput(outputPath_, *problem_, snapshotOutcome(*problem_, best_), error)) {
                log_.line("wrote %s: the parameters of iteration %d, deviation %.10g; "
                          "uncertainties undetermined (interrupted)",
                          outputPath_.c_str(), best_.iteration, best_.deviation);
                progress("interrupted: deviation %.10g after %d iteration%s", best_.deviation,
                         best_.iteration, best_.iteration == 1 ? "" : "s");
            } else {
                std::fprintf(stderr, "corefit: %s\n", error.c_str());
                log_.line("error: %s", error.c_str());
                code = exitInternal;
            }
        } else {
            log_.line("interrupted before any result; no output.txt written");
            progress("interrupted before any result");
        }
        log_.line("interrupted by a signal; exit code %d", code);
        std::fflush(stdout);
        std::_Exit(code);
    }

    Log& log_;
    std::string outputPath_;
    std::mutex mutex_;
    std::condition_variable done_;
    bool computing_ = true;
    std::atomic<bool> finished_{false};
    const Problem* problem_ = nullptr;
    Snapshot best_;
    std::thread watcher_;
};

struct Options {
    std::string input;
    int threads = 0;
    std::string method = "automatic";
    bool symmetry = true;
    double maxMemoryGiB = 0;
    double maxSeconds = 3600;
    int starts = -1; // further starts of the search; -1: by the cost of a fit
    FtlmSettings ftlm;
    double ftlmError = 0; // FTLM: relative standard error to reach at every fitted point (0: none)
};

// How the search for the global minimum runs: further starts, and side by side on workers of
// their own (each with a spectrum of its own) or one after another.
struct SearchPlan {
    int starts = 0;
    int workers = 1;
};

std::string startLine(int start, int count, const FitResult& result) {
    char head[96];
    std::snprintf(head, sizeof head, "start %d of %d: %s, deviation %.10g, ", start, count,
                  result.status == FitStatus::Converged   ? "converged"
                  : result.status == FitStatus::Plateau   ? "plateau"
                  : result.status == FitStatus::IterationLimit ? "iteration limit"
                  : result.status == FitStatus::Interrupted    ? "interrupted"
                                                               : "outside the domain",
                  result.deviation);
    return head + parameterLine(result.parameters);
}

// The sampling error of FTLM's random vectors at the parameters written: the last line of
// output.txt, and a few temperatures in the log.
std::string ftlmErrorNote(const Problem& problem, SusceptibilityModel& model,
                          const Outcome& outcome, int vectors, Log& log) {
    const std::vector<double> errors = model.standardErrors(outcome.values);
    double worst = 0;
    std::string where;
    for (std::size_t i = 0; i < errors.size(); ++i) {
        const double relative = errors[i] / std::abs(outcome.calculated[i]);
        if (relative > worst) worst = relative, where = pointPlace(problem, i);
    }
    char text[300];
    if (worst == 0)
        std::snprintf(text, sizeof text,
                      "ftlm: every block diagonalised whole, no random vectors: the "
                      "calculated values have no sampling error");
    else
        std::snprintf(text, sizeof text,
                      "ftlm standard error of the calculated values (%d random vectors per "
                      "block): largest %.2g %% (at %s); at some temperatures the "
                      "actual error may reach 2 to 3 times that",
                      vectors, 100 * worst, where.c_str());
    log.line("%s", text);
    for (std::size_t i = 0; worst > 0 && i < errors.size();
         i += std::max<std::size_t>(1, errors.size() / 10))
        log.line("  %s: %.10g +/- %.3g", pointPlace(problem, i).c_str(), outcome.calculated[i],
                 errors[i]);
    return text;
}

// The fits from the given start and from the search's further starts, one model per worker;
// the best result, and the summary of the others in summary.
FitResult fitFromAllStarts(const Options& options, Log& log, Run& run, const Problem& problem,
                           const SpinSystem& system, const Plan& plan, const SearchPlan& search,
                           Spectrum& spectrum,
                           std::vector<std::unique_ptr<SusceptibilityModel>>& models,
                           SearchSummary& summary) {
    std::vector<LeastSquaresModel*> workers;
    for (const auto& each : models) workers.push_back(each.get());
    SusceptibilityModel& model = *models.front();
    // The user's start first, then the further starts of the search.
    std::vector<std::vector<double>> starts(1);
    for (const Parameter& parameter : problem.parameters) starts[0].push_back(parameter.start);
    for (auto& other : spreadStarts(problem, search.starts)) starts.push_back(std::move(other));
    const int count = static_cast<int>(starts.size());
    if (count > 1)
        log.line("search for the global minimum: the given start and %d further start%s, %s",
                 count - 1, count == 2 ? "" : "s",
                 search.workers > 1
                     ? ("side by side on " + std::to_string(search.workers) + " workers").c_str()
                     : "one after another");
    const auto optionsFor = [&](int start, int worker) {
        FitOptions fitOptions;
        fitOptions.tolerance = problem.tolerance;
        fitOptions.stop = &stopRequest;
        SusceptibilityModel& own = *models[static_cast<std::size_t>(worker)];
        fitOptions.onIteration = [&, start, count](const IterationReport& report) {
            const std::string values = parameterLine(*report.parameters);
            if (start == 0) {
                progress("iteration %d deviation %.10g %s", report.iteration, report.deviation,
                         values.c_str());
                log.line("iteration %d deviation %.10g %s", report.iteration, report.deviation,
                         values.c_str());
            } else if (search.workers == 1) { // a long search: its progress as it goes
                progress("start %d of %d: iteration %d deviation %.10g %s", start + 1, count,
                         report.iteration, report.deviation, values.c_str());
            }
            // The model has just been computed at these parameters: its values are at hand.
            Snapshot best{true, report.iteration, report.deviation, *report.parameters, {}};
            try {
                if (own.predict(best.parameters, best.calculated)) run.update(best);
            } catch (const Interrupted&) {
            }
        };
        return fitOptions;
    };
    // FTLM: random vectors enough for an error target before the fit (the model stays the same
    // during it), the sampling error in the uncertainties after it.
    FtlmFit ftlm(problem, system, spectrum, model, options.ftlmError, options.maxSeconds,
                 [&](const std::string& line) { log.line("%s", line.c_str()); },
                 [](const std::string& line) { progress("%s", line.c_str()); });
    if (plan.method == Method::Ftlm) ftlm.beforeFit();
    std::vector<FitResult> results = fitFromStarts(workers, problem.parameters, starts, optionsFor);
    // The user's start decides whether the input is at fault; the best start gives the result.
    FitResult result = results.front();
    if (result.status != FitStatus::Failed && result.status != FitStatus::SolverFailed) {
        if (count > 1) {
            for (int i = 0; i < count; ++i)
                log.line("%s", startLine(i + 1, count, results[static_cast<std::size_t>(i)]).c_str());
            progress("search: %d start%s", count, count == 1 ? "" : "s");
        }
        summary = summarise(results, problem.tolerance, observedScale(problem));
        if (summary.best > 0) {
            log.line("the best fit comes from start %d; the given start ended at deviation "
                     "%.10g (%s)",
                     summary.best + 1, result.deviation, statusText(result.status));
            result = results[static_cast<std::size_t>(summary.best)];
        }
    }
    if (plan.method == Method::Ftlm && result.status != FitStatus::Failed &&
        result.status != FitStatus::SolverFailed)
        ftlm.afterFit(optionsFor(0, 0), result);
    return result;
}

// The run after its files are read and its limits checked: the spectrum, the fit, the results.
int fitAndWrite(const Options& options, Log& log, Run& run, const Problem& problem,
                const SpinSystem& system, const Plan& plan, const SearchPlan& search,
                std::chrono::steady_clock::time_point started) {
    int freeCount = 0;
    for (const Parameter& parameter : problem.parameters) freeCount += parameter.free();
    int freeJ = 0;
    for (std::size_t i = firstJIndex; i < problem.parameters.size(); ++i)
        freeJ += problem.parameters[i].free();
    progress("setup %s; %d free parameter%s, %zu points, %d thread%s; a fit takes about %.3g s",
             plan.describe().c_str(), freeCount, freeCount == 1 ? "" : "s",
             problem.points.size() + problem.magnetisation.size(), plan.threads,
             plan.threads == 1 ? "" : "s", estimatedSeconds(plan, freeJ));
    // One spectrum per worker: the blocks of each on one thread when several work side by side.
    const int blockThreads = search.workers > 1 ? 1 : plan.threads;
    std::vector<std::unique_ptr<Spectrum>> spectra;
    std::vector<std::unique_ptr<SusceptibilityModel>> models;
    std::vector<LeastSquaresModel*> workers;
    for (int w = 0; w < search.workers; ++w) {
        spectra.push_back(std::make_unique<Spectrum>(system, plan, blockThreads, &stopRequest));
        models.push_back(std::make_unique<SusceptibilityModel>(problem, *spectra.back()));
        workers.push_back(models.back().get());
    }
    Spectrum& spectrum = *spectra.front();
    SusceptibilityModel& model = *models.front();
    double buildSeconds = 0;
    for (const auto& each : spectra) buildSeconds += each->buildSeconds();
    log.line("set up in %.3f s (building the matrices: %.3f thread-seconds)",
             std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count(),
             buildSeconds);

    SearchSummary summary;
    FitResult result =
        fitFromAllStarts(options, log, run, problem, system, plan, search, spectrum, models, summary);
    // From here on a stop request is not waited for: nothing lasts long.
    const auto failed = [&](int code, const std::string& message) {
        run.finish();
        return fail(log, code, message);
    };
    const std::string input = fileName(problem.inputPath), data = fileName(problem.dataPath);
    if (result.status == FitStatus::Failed) {
        if (problem.fittedPoints() < freeCount)
            return failed(exitBadInput,
                          data + " line 1: " + std::to_string(problem.fittedPoints()) +
                              " fitted points cannot determine the " + std::to_string(freeCount) +
                              " free parameters of " + input);
        std::vector<double> start;
        for (const Parameter& parameter : problem.parameters) start.push_back(parameter.start);
        std::string fault = model.domainFault(start);
        if (fault.empty()) fault = input + ": " + result.message;
        return failed(exitBadInput, fault);
    }
    if (result.status == FitStatus::SolverFailed)
        return failed(exitInternal, "the fit failed: " + result.message);

    Outcome outcome{result.deviation, result.parameters, result.uncertainties, {}, {}, {}, {}, {}, {}};
    if (result.status != FitStatus::Interrupted) {
        try {
            if (!model.predict(result.parameters, outcome.calculated))
                return failed(exitInternal, "the fitted parameters give no finite susceptibility");
        } catch (const Interrupted&) {
            result.status = FitStatus::Interrupted;
        }
    }
    if (result.status == FitStatus::Interrupted) {
        // What the last reported iteration holds; with the fit's uncertainties when they belong
        // to the same parameters.
        const Snapshot best = run.best();
        if (!best.valid) {
            run.finish();
            log.line("interrupted by a signal before any result; no output.txt written");
            progress("interrupted before any result");
            return exitInterrupted;
        }
        outcome = snapshotOutcome(problem, best);
        if (best.parameters == result.parameters) {
            outcome.uncertainties = result.uncertainties;
        } else {
            result.unseen.clear();
            result.entangled.clear();
            result.correlation.resize(0, 0);
            result.uncertaintyNote = "the run was interrupted before they could be estimated";
        }
        result.parameters = best.parameters;
        result.deviation = best.deviation;
        result.iterations = best.iteration;
    }
    run.finish();
    {
        const SetDeviations sets = setDeviations(problem, outcome.calculated);
        outcome.chiDeviation = sets.chi;
        outcome.magnetisationDeviation = sets.magnetisation;
    }
    if (const std::string decided = spectrum.ftlmSummary(); !decided.empty())
        log.line("%s", decided.c_str());
    if (plan.method == Method::Ftlm && !outcome.calculated.empty())
        outcome.note = ftlmErrorNote(problem, model, outcome, spectrum.plan().ftlm.vectors, log);
    if (result.correlation.size() > 0 &&
        result.correlation.rows() == static_cast<Eigen::Index>(result.freeIndices.size())) {
        outcome.correlated = result.freeIndices;
        for (Eigen::Index a = 0; a < result.correlation.rows(); ++a)
            for (Eigen::Index b = 0; b < result.correlation.cols(); ++b)
                outcome.correlation.push_back(result.correlation(a, b));
    }

    // Log: values, uncertainties, correlations, agreement factor.
    log.line("result: %s after %d iteration%s; %d evaluations, spectra computed: %d",
             statusText(result.status), result.iterations, result.iterations == 1 ? "" : "s",
             result.evaluations, spectrum.diagonalisations());
    log.line("deviation D = %.10g", result.deviation);
    if (const double squares = observedScale(problem); squares > 0)
        log.line("agreement factor R = %.6g", result.deviation / squares);
    if (problem.hasMagnetisation()) {
        // Each set's part, and its root mean square residual relative to the size of its values
        // (also for a set of weight 0, which is calculated but not fitted).
        const char* quantity = problem.kind == DataKind::ChiT ? "chiT" : "chi";
        const bool relative = problem.weighting == Weighting::Relative;
        double chiSquares = 0, magnetSquares = 0;
        for (int i = problem.first; i <= problem.last; ++i) {
            const auto k = static_cast<std::size_t>(i - 1);
            const double r = outcome.calculated[k] - problem.points[k].observed;
            chiSquares += std::pow(relative ? r / problem.points[k].observed : r, 2);
        }
        for (int i = problem.magnetisationFirst; i <= problem.magnetisationLast; ++i) {
            const auto k = static_cast<std::size_t>(i - 1);
            magnetSquares += std::pow(outcome.calculated[problem.points.size() + k] -
                                          problem.magnetisation[k].observed,
                                      2);
        }
        if (problem.fittedChi() > 0)
            log.line("  %s set: Dchi = %.10g; residuals %.3g %% of %s (root mean square)", quantity,
                     outcome.chiDeviation,
                     100 * std::sqrt(chiSquares / problem.fittedChi()) /
                         (relative ? 1.0 : observedSize(problem)),
                     relative ? "the observed values" : "s_c");
        log.line("  magnetisation set: Dm = %.10g%s; residuals %.3g %% of s_m (root mean square)",
                 outcome.magnetisationDeviation,
                 problem.magnetisationWeight > 0 ? "" : " (weight 0: calculated, not fitted)",
                 100 * std::sqrt(magnetSquares / problem.fittedMagnetisation()) /
                     observedMagnetisationSize(problem));
    }
    for (std::size_t i = 0; i < outcome.values.size(); ++i) {
        const std::string name = parameterName(static_cast<int>(i));
        if (!problem.parameters[i].free())
            log.line("  %-4s = %.10g (fixed)", name.c_str(), outcome.values[i]);
        else if (std::isnan(outcome.uncertainties[i]))
            log.line("  %-4s = %.10g +/- undetermined", name.c_str(), outcome.values[i]);
        else
            log.line("  %-4s = %.10g +/- %.4g", name.c_str(), outcome.values[i],
                     outcome.uncertainties[i]);
    }
    for (int index : result.unseen) {
        const std::string name = parameterName(index);
        bool used = index < firstJIndex;
        for (const Bond& bond : problem.bonds) used = used || bond.j == index - firstJIndex;
        log.line(
            "undetermined: %s: %s", name.c_str(),
            used ? "the fitted points do not change with it at these values"
                 : ("no exchange path uses " + name + ", so the data do not depend on it").c_str());
    }
    if (!result.entangled.empty())
        log.line("undetermined: %s: the fitted points determine only a combination of them, "
                 "not each (they change the fitted points alike)",
                 nameList(result.entangled).c_str());
    if (!result.uncertaintyNote.empty())
        log.line("uncertainties undetermined: %s", result.uncertaintyNote.c_str());
    if (result.correlation.size() > 0) {
        log.line("correlations of the free parameters:");
        for (Eigen::Index r = 0; r < result.correlation.rows(); ++r)
            for (Eigen::Index c = r + 1; c < result.correlation.cols(); ++c) {
                const double value = result.correlation(r, c);
                if (std::isnan(value)) continue;
                log.line("  %s, %s: %+.4f%s",
                         parameterName(result.freeIndices[static_cast<std::size_t>(r)]).c_str(),
                         parameterName(result.freeIndices[static_cast<std::size_t>(c)]).c_str(),
                         value, std::abs(value) > 0.95 ? "  strongly correlated" : "");
            }
    }

    // What a chemist would question in the best fit, and the other minima nearly as good.
    if (result.status != FitStatus::Interrupted) outcome.warnings = fitWarnings(problem, result);
    for (const Alternative& other : summary.alternatives)
        outcome.alternatives.push_back({other.deviation, other.values, other.equivalent});
    for (const std::string& warning : outcome.warnings) log.line("warning: %s", warning.c_str());
    for (const Alternative& other : summary.alternatives)
        log.line("%s minimum (start %d): deviation %.10g (%+.3g %%) %s",
                 other.equivalent ? "equivalent" : "alternative", other.start + 1, other.deviation,
                 result.deviation > 0 ? 100 * (other.deviation / result.deviation - 1) : 0.0,
                 parameterLine(other.values).c_str());

    const std::string outputPath = joinPath(directoryOf(options.input), "output.txt");
    std::string error;
    if (writesFiles && !writeOutput(outputPath, problem, outcome, error))
        return fail(log, exitInternal, error);

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
    case FitStatus::Plateau:
        return exitPlateau;
    case FitStatus::Interrupted:
        log.line("interrupted by a signal");
        return exitInterrupted;
    default:
        return exitConverged;
    }
}

int run(const Options& options) {
    const auto started = std::chrono::steady_clock::now();
    Log log;
    log.open(directoryOf(options.input));
    log.line("corefit %s, %s", COREFIT_VERSION, localTime().c_str());
    Run run(log, joinPath(directoryOf(options.input), "output.txt"));

    Problem problem;
    std::string error;
    if (!readProblem(options.input, problem, error)) return fail(log, exitBadInput, error);
    run.setProblem(&problem);
    const std::string input = fileName(problem.inputPath);
    if (!(problem.parameters[gIndex].start > 0))
        return fail(log, exitBadInput,
                    input + " line " + std::to_string(problem.siteCount() + 4) +
                        ": the start value of g must be above 0");
    logProblem(log, problem);

    Method method = Method::Automatic;
    if (options.method == "full")
        method = Method::Full;
    else if (options.method == "m-blocks")
        method = Method::MBlocks;
    else if (options.method == "s-blocks" || options.method == "exact")
        method = Method::SBlocks;
    else if (options.method == "ftlm")
        method = Method::Ftlm;

    // Limits, checked before anything large is built; fewer blocks side by side when that is
    // what it takes to stay within the memory limit.
    const SpinSystem system{problem.twiceSpin, problem.bonds, problem.jCount()};
    std::shared_ptr<const SplitGroup> group, whole;
    if (options.symmetry) {
        const SiteSymmetry symmetry = findSymmetry(system);
        group = std::make_shared<const SplitGroup>(splitGroup(symmetry, problem.siteCount()));
        whole = std::make_shared<const SplitGroup>(wholeGroup(symmetry, problem.siteCount()));
        std::string generators;
        for (std::size_t k = 0; k < symmetry.generators.size() && k < 6; ++k)
            generators += (k ? ", " : "") + cycleText(symmetry.generators[k]);
        if (symmetry.generators.size() > 6) generators += ", ...";
        const bool named = symmetry.name.rfind("order", 0) != 0;
        log.line("symmetry: order %.0f%s%s%s%s%s", symmetry.order,
                 symmetry.complete ? "" : " at least (the search was cut short)",
                 named ? ", " : "", named ? symmetry.name.c_str() : "",
                 generators.empty() ? "" : "; generated by ", generators.c_str());
    } else {
        log.line("symmetry: not used (--symmetry off)");
    }
    const double memoryLimit = options.maxMemoryGiB > 0
                                   ? options.maxMemoryGiB * 1024 * 1024 * 1024
                                   : std::min(16.0 * 1024 * 1024 * 1024, 0.8 * physicalMemory());
    const int threads = options.threads > 0 ? options.threads : defaultThreads();
    const FtlmSettings ftlmSettings = withTemperatures(options.ftlm, problem);
    auto planned = [&](Method kind) {
        Plan plan = planSpectrum(system, kind, threads, group, ftlmSettings, whole);
        while (plan.bytes > memoryLimit && plan.threads > 1)
            plan = planSpectrum(system, kind, plan.threads - 1, group, ftlmSettings, whole);
        return plan;
    };
    int freeJ = 0;
    for (std::size_t i = firstJIndex; i < problem.parameters.size(); ++i)
        freeJ += problem.parameters[i].free();
    // Why a plan is beyond the limits, or "". A fit with free J values needs a spectrum with
    // slopes at each of some 25 iterations (FTLM: one more spectrum per free J instead).
    auto fitSeconds = [&](const Plan& plan) {
        return estimatedSeconds(plan, freeJ) - plan.secondsToBuild;
    };
    auto beyondLimits = [&](const Plan& plan) -> std::string {
        const double estimate = estimatedSeconds(plan, freeJ);
        const std::string size = plan.describe();
        char text[600];
        if (!plan.buildable()) {
            std::snprintf(text, sizeof text,
                          "problem too large: %s; the limit is %ld, the largest block LAPACK takes",
                          size.c_str(), maxLapackBlock);
            return text;
        }
        if (plan.bytes > memoryLimit)
            return "problem too large: " + size + " needs an estimated " + gib(plan.bytes) +
                   " of memory; the limit is " + gib(memoryLimit) + " (--max-memory)";
        if (estimate > options.maxSeconds) {
            std::snprintf(text, sizeof text,
                          "problem too large: %s needs an estimated %.3g s; the limit is %.0f s "
                          "(--max-time)",
                          size.c_str(), estimate, options.maxSeconds);
            return text;
        }
        return {};
    };
    Plan plan = planned(method);
    std::string refusal = beyondLimits(plan);
    if (method == Method::Automatic) {
        // By time (ftlmFasterEnough), and FTLM whenever the exact spectrum is beyond the limits.
        const Plan ftlm = planned(Method::Ftlm);
        const std::string ftlmRefusal = beyondLimits(ftlm);
        const double exactSeconds = estimatedSeconds(plan, freeJ),
                     ftlmSeconds = estimatedSeconds(ftlm, freeJ);
        log.line("estimates: exact %.3g s, %s; FTLM %.3g s, %s", exactSeconds,
                 gib(plan.bytes).c_str(), ftlmSeconds, gib(ftlm.bytes).c_str());
        if (!refusal.empty()) {
            log.line("exact spectrum out of reach (%s); finite-temperature Lanczos instead",
                     refusal.c_str());
            plan = ftlm;
            refusal = ftlmRefusal;
        } else if (ftlmRefusal.empty() && ftlmFasterEnough(exactSeconds, ftlmSeconds)) {
            log.line("finite-temperature Lanczos: estimated %.3g times faster than the exact "
                     "spectrum",
                     exactSeconds / ftlmSeconds);
            plan = ftlm;
        }
    }
    logPlan(log, plan);
    if (plan.threads < threads)
        log.line("threads lowered from %d to %d to stay within the memory limit", threads,
                 plan.threads);
    if (plan.method == Method::Ftlm)
        log.line("FTLM: %d random vectors per block, %d Lanczos steps each, seed %llu; the "
                 "lowest %d levels of every block exact (fewer where that would split a degenerate "
                 "group), blocks up to %ld diagonalised whole where that is cheaper; %s",
                 plan.ftlm.vectors, plan.ftlm.steps,
                 static_cast<unsigned long long>(plan.ftlm.seed), plan.ftlm.exactLevels,
                 plan.ftlm.denseLimit, ftlmSymmetryText(system, plan.ftlm).c_str());
    if (freeJ > 0)
        log.line("J derivatives: %s",
                 plan.method == Method::Ftlm
                     ? "forward differences (step 1e-5 |J|) over the same random vectors"
                 : plan.scaled ? "exact, from the scaled spectrum"
                               : "Hellmann-Feynman, dE/dJ = <n|H_J|n> from the eigenvectors");
    if (!refusal.empty()) return fail(log, exitTooLarge, refusal);

    // The search: as many further starts as fit in about one more fit; side by side on workers
    // of their own when a fit is short and the copies of the spectrum fit in memory.
    SearchPlan search;
    const double perFit = fitSeconds(plan);
    search.workers =
        plan.method != Method::Ftlm && perFit < 2 && plan.bytes * threads <= memoryLimit / 2
            ? threads
            : 1;
    search.starts = options.starts >= 0 ? options.starts
                                        : defaultStarts(problem, perFit, search.workers);
    search.workers = std::max(1, std::min(search.workers, search.starts + 1));

    try {
        return fitAndWrite(options, log, run, problem, system, plan, search, started);
    } catch (const Interrupted&) {
        run.finish();
        log.line("interrupted by a signal before any result; no output.txt written");
        progress("interrupted before any result");
        return exitInterrupted;
    } catch (const std::bad_alloc&) {
        run.finish();
        return fail(log, exitInternal, "out of memory");
    } catch (const std::exception& failure) {
        run.finish();
        return fail(log, exitInternal, failure.what());
    }
}

} // namespace

int main(int argc, char** argv) {
    std::setlocale(LC_ALL, "C");
    CLI::App app{"corefit: fits the magnetic susceptibility of an exchange-coupled spin cluster.\n"
                 "Reads DIR/input.txt and DIR/chit.txt or DIR/chi.txt; writes DIR/output.txt and "
                 "DIR/corefit.log.\nExit codes: 0 converged, 1 iteration limit, 2 bad input, "
                 "3 interrupted, 4 too large, 5 internal failure, 6 stopped on a plateau.",
                 "corefit"};
    app.set_version_flag("--version", std::string("corefit ") + COREFIT_VERSION);
    Options options;
    app.add_option("input", options.input, "the engine input file, DIR/input.txt")->required();
    app.add_option("-t,--threads", options.threads, "threads to use (default: all cores)")
        ->check(CLI::Range(1, 256));
    app.add_option("--method", options.method,
                   "automatic (by the estimates: exact, or ftlm when exact is beyond the limits or "
                   "over a minute and more than twice as slow), exact (S blocks split by "
                   "symmetry; refused beyond the limits), ftlm (finite-temperature Lanczos), "
                   "s-blocks, m-blocks (total M blocks) or full (one dense matrix)")
        ->check(CLI::IsMember({"automatic", "exact", "ftlm", "s-blocks", "m-blocks", "full"}));
    app.add_option("--starts", options.starts,
                   "further starts of the search for the global minimum (default: as many as "
                   "take about the time of one fit, at most 16; 0: the given start alone)")
        ->check(CLI::Range(0, 1000));
    app.add_option("--seed", options.ftlm.seed, "FTLM: seed of the random vectors (default 1)");
    app.add_option("--ftlm-vectors", options.ftlm.vectors,
                   "FTLM: random vectors per block (default 20)")
        ->check(CLI::Range(2, 10000));
    app.add_option("--ftlm-steps", options.ftlm.steps,
                   "FTLM: Lanczos steps per random vector, at most (default 100; fewer where the "
                   "temperatures of the data need fewer)")
        ->check(CLI::Range(10, 10000));
    app.add_option("--ftlm-exact", options.ftlm.exactLevels,
                   "FTLM: lowest levels of a block found exactly, at most (default 8; only those "
                   "that count at the temperatures of the data)")
        ->check(CLI::Range(0, 1000));
    app.add_option("--ftlm-error", options.ftlmError,
                   "FTLM: add random vectors until the relative standard error at every fitted "
                   "point is below this (e.g. 0.005), within --max-time")
        ->check(CLI::PositiveNumber);
    app.add_option("--max-memory", options.maxMemoryGiB,
                   "memory limit in GiB (default: 16 or 80 % of the memory, whichever is less)")
        ->check(CLI::PositiveNumber);
    app.add_option("--max-time", options.maxSeconds,
                   "limit in seconds on the estimated time of the run (default 3600)")
        ->check(CLI::PositiveNumber);
    std::string symmetry = "on";
    app.add_option("--symmetry", symmetry,
                   "on: split the exact spectrum by the symmetry of the cluster (default); off: "
                   "do not look for it")
        ->check(CLI::IsMember({"on", "off"}));
    CLI11_PARSE(app, argc, argv);
    options.symmetry = symmetry == "on";
    options.ftlm.symmetry = options.symmetry;

    installStopHandlers();
    gslErrorsAsCodes();
#ifdef COREFIT_MPI
    // FTLM splits its blocks over the processes (see ftlm.h); every process runs the same fit.
    int provided = 0, rank = 0;
    MPI_Init_thread(&argc, &argv, MPI_THREAD_SERIALIZED, &provided);
    MPI_Comm_rank(MPI_COMM_WORLD, &rank);
    if (rank > 0) {
        writesFiles = false;
        if (!std::freopen("/dev/null", "w", stdout) || !std::freopen("/dev/null", "w", stderr))
            return exitInternal;
    }
    struct Finish {
        ~Finish() { MPI_Finalize(); }
    } finish;
#endif
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
