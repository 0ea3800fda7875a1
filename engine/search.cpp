#include "search.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <exception>
#include <limits>
#include <mutex>
#include <thread>

namespace corefit {

namespace {

// The radical inverse of k in base b: an even spread of points in [0, 1) (Halton).
double radicalInverse(unsigned k, unsigned base) {
    double value = 0, scale = 1.0 / base;
    for (; k > 0; k /= base, scale /= base) value += (k % base) * scale;
    return value;
}

constexpr unsigned primes[] = {2, 3, 5, 7, 11, 13, 17, 19, 23, 29, 31, 37, 41};

std::string shortNumber(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.4g", value);
    return text;
}

} // namespace

std::vector<std::vector<double>> spreadStarts(const Problem& problem, int count) {
    std::vector<std::vector<double>> starts;
    if (count <= 0) return starts;
    double lowest = std::numeric_limits<double>::infinity(), highest = 0;
    for (int i = problem.first; i <= problem.last; ++i) {
        const double t = problem.points[static_cast<std::size_t>(i - 1)].temperature;
        lowest = std::min(lowest, t);
        highest = std::max(highest, t);
    }
    for (int i = problem.magnetisationFirst; i <= problem.magnetisationLast; ++i) {
        const double t = problem.magnetisation[static_cast<std::size_t>(i - 1)].temperature;
        lowest = std::min(lowest, t);
        highest = std::max(highest, t);
    }
    if (!(highest > 0)) lowest = highest = 1;
    const double toUnit = 1 / kelvinPer(problem.unit);
    const double small = std::log(lowest / 5), large = std::log(3 * highest);
    std::vector<std::size_t> freeJ;
    for (std::size_t i = firstJIndex; i < problem.parameters.size(); ++i)
        if (problem.parameters[i].free()) freeJ.push_back(i);
    const unsigned patterns = 1u << std::min<std::size_t>(freeJ.size(), 16);
    for (int k = 1; k <= count; ++k) {
        const auto index = static_cast<unsigned>(k);
        std::vector<double> p;
        for (const Parameter& parameter : problem.parameters) p.push_back(parameter.start);
        if (problem.parameters[gIndex].free()) p[gIndex] = 1.9 + 0.3 * radicalInverse(index, 2);
        if (problem.parameters[cIndex].free()) p[cIndex] = 0;
        if (problem.parameters[zjIndex].free()) p[zjIndex] = 0;
        // Every sign pattern once before any repeats; the magnitudes of each J on their own
        // sequence, so that two J values do not move together.
        const unsigned pattern = (index - 1) % patterns;
        for (std::size_t m = 0; m < freeJ.size(); ++m) {
            const double u = radicalInverse(index, primes[(m + 1) % std::size(primes)]);
            const double magnitude = std::exp(small + u * (large - small)) * toUnit;
            p[freeJ[m]] = (pattern >> (m % 16)) & 1u ? magnitude : -magnitude;
        }
        starts.push_back(std::move(p));
    }
    return starts;
}

int defaultStarts(const Problem& problem, double secondsPerFit, int workers) {
    const bool anyFree = std::any_of(problem.parameters.begin(), problem.parameters.end(),
                                     [](const Parameter& p) { return p.free(); });
    if (!anyFree) return 0;
    if (!(secondsPerFit > 0)) return maxDefaultStarts;
    const double budget = std::max(0.3, secondsPerFit) * std::max(workers, 1);
    return static_cast<int>(std::clamp(std::floor(budget / secondsPerFit), 1.0,
                                       static_cast<double>(maxDefaultStarts)));
}

std::vector<FitResult> fitFromStarts(
    const std::vector<LeastSquaresModel*>& models, const std::vector<Parameter>& parameters,
    const std::vector<std::vector<double>>& starts,
    const std::function<FitOptions(int start, int worker)>& optionsFor) {
    const int count = static_cast<int>(starts.size());
    std::vector<FitResult> results(starts.size());
    for (FitResult& result : results) {
        result.status = FitStatus::Interrupted;
        result.deviation = std::numeric_limits<double>::quiet_NaN();
    }
    std::atomic<int> next{0};
    std::exception_ptr failure;
    std::mutex failureMutex;
    auto work = [&](int worker) {
        for (int i; (i = next++) < count;) {
            FitOptions options = optionsFor(i, worker);
            if (stopRequested(options.stop)) continue;
            std::vector<Parameter> from = parameters;
            for (std::size_t k = 0; k < from.size(); ++k)
                from[k].start = starts[static_cast<std::size_t>(i)][k];
            try {
                results[static_cast<std::size_t>(i)] =
                    fitLeastSquares(*models[static_cast<std::size_t>(worker)], from, options);
            } catch (...) {
                const std::lock_guard lock(failureMutex);
                if (!failure) failure = std::current_exception();
                next = count;
            }
        }
    };
    const int workers = std::min<int>(static_cast<int>(models.size()), count);
    std::vector<std::thread> pool;
    for (int w = 1; w < workers; ++w) pool.emplace_back(work, w);
    work(0);
    for (std::thread& thread : pool) thread.join();
    if (failure) std::rethrow_exception(failure);
    return results;
}

SearchSummary summarise(const std::vector<FitResult>& results, double tolerance, double scale,
                        int chosen) {
    SearchSummary summary;
    summary.best = chosen;
    if (chosen < 0) {
        for (std::size_t i = 0; i < results.size(); ++i) {
            const double d = results[i].deviation;
            if (!std::isfinite(d)) continue;
            if (summary.best < 0 || d < results[static_cast<std::size_t>(summary.best)].deviation)
                summary.best = static_cast<int>(i);
        }
    }
    if (summary.best < 0) return summary;
    const FitResult& best = results[static_cast<std::size_t>(summary.best)];
    // Two points are one minimum when no determined free parameter tells them apart.
    auto same = [&](const std::vector<double>& a, const std::vector<double>& b) {
        for (int index : best.freeIndices) {
            const auto k = static_cast<std::size_t>(index);
            const double sigma = best.uncertainties[k];
            if (std::isnan(sigma)) continue; // the data do not fix it: no evidence either way
            const double width =
                sigma > 0 ? 0.5 * sigma
                          : 1e-3 * std::max({std::abs(a[k]), std::abs(b[k]), 1e-300});
            if (std::abs(a[k] - b[k]) > width) return false;
        }
        return true;
    };
    // The given start keeps the result when it reached the same minimum.
    if (chosen < 0 && summary.best > 0 && results.front().status == FitStatus::Converged &&
        same(results.front().parameters, best.parameters)) {
        summary.best = 0;
        return summarise(results, tolerance, scale, 0);
    }
    const double equal =
        std::max(1e-6, std::pow(offsetLimit(tolerance), 2)) * best.deviation + 1e-13 * scale;
    std::vector<int> order;
    for (std::size_t i = 0; i < results.size(); ++i)
        if (static_cast<int>(i) != summary.best && results[i].status == FitStatus::Converged &&
            results[i].deviation <= (1 + alternativeMargin) * best.deviation + 1e-13 * scale)
            order.push_back(static_cast<int>(i));
    std::stable_sort(order.begin(), order.end(), [&](int a, int b) {
        return results[static_cast<std::size_t>(a)].deviation <
               results[static_cast<std::size_t>(b)].deviation;
    });
    for (int i : order) {
        const FitResult& r = results[static_cast<std::size_t>(i)];
        if (same(r.parameters, best.parameters)) continue;
        const bool known = std::any_of(
            summary.alternatives.begin(), summary.alternatives.end(),
            [&](const Alternative& other) { return same(r.parameters, other.values); });
        if (known) continue;
        summary.alternatives.push_back(
            {i, r.deviation, r.parameters, r.deviation - best.deviation <= equal});
    }
    return summary;
}

std::vector<std::string> fitWarnings(const Problem& problem, const FitResult& result) {
    std::vector<std::string> warnings;
    if (result.parameters.size() != problem.parameters.size()) return warnings;
    const double g = result.parameters[gIndex];
    if (problem.parameters[gIndex].free() && !(g >= 1 && g <= 3))
        warnings.push_back("g = " + shortNumber(g) +
                           " lies outside 1 to 3, where the g of real compounds lies: the fit is "
                           "not physical");
    if (!result.uncertaintyNote.empty()) {
        warnings.push_back("no uncertainty could be estimated: " + result.uncertaintyNote);
        return warnings;
    }
    for (int index : result.freeIndices) {
        const auto k = static_cast<std::size_t>(index);
        const std::string name = parameterName(index);
        const double value = result.parameters[k];
        const double sigma = k < result.uncertainties.size() ? result.uncertainties[k] : 0;
        if (std::isnan(sigma))
            warnings.push_back(name + " is undetermined: the data do not fix its value");
        else if (sigma > 10 * std::abs(value))
            warnings.push_back("the uncertainty of " + name + " (" + shortNumber(sigma) +
                               ") is more than ten times its value (" + shortNumber(value) + ")");
    }
    return warnings;
}

} // namespace corefit
