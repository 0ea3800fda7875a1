#include "ftlm_fit.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "problem_io.h"

namespace corefit {

namespace {

constexpr int mostVectors = 10000; // as --ftlm-vectors allows

constexpr auto& format = formatText;

} // namespace

double FtlmFit::largestError(const std::vector<double>& p, double* where) {
    std::vector<double> values;
    if (!model.predict(p, values)) return 0;
    const std::vector<double> errors = model.standardErrors(p);
    double worst = 0;
    for (int i = problem.first - 1; i < problem.last; ++i) {
        const auto k = static_cast<std::size_t>(i);
        const double relative = errors[k] / std::abs(values[k]);
        if (relative > worst) {
            worst = relative;
            if (where) *where = problem.points[k].temperature;
        }
    }
    return worst;
}

// Random vectors enough for the target at p, the error falling as 1/sqrt of their number (and
// a tenth more), within mostVectors and the time limit. Returns whether it set more.
bool FtlmFit::moreVectors(const std::vector<double>& p, const char* where) {
    const int now = spectrum.plan().ftlm.vectors;
    double at = 0;
    const double worst = largestError(p, &at);
    if (worst <= errorTarget) {
        log(format("ftlm error target %.3g: %d random vectors per block reach it at the %s "
                   "(largest %.2g %% at T = %.6g)",
                   errorTarget, now, where, 100 * worst, at));
        return false;
    }
    int freeJ = 0;
    for (std::size_t i = firstJIndex; i < problem.parameters.size(); ++i)
        freeJ += problem.parameters[i].free();
    const double ratio = worst / errorTarget;
    const double wanted = std::ceil(1.1 * now * ratio * ratio);
    int vectors = static_cast<int>(std::min<double>(wanted, mostVectors));
    auto seconds = [&](int count) {
        FtlmSettings settings = spectrum.plan().ftlm;
        settings.vectors = count;
        return estimatedSeconds(
            planSpectrum(system, Method::Ftlm, spectrum.plan().threads, nullptr, settings), freeJ);
    };
    while (vectors > now && seconds(vectors) > maxSeconds)
        vectors = std::max(now, static_cast<int>(0.8 * vectors));
    const bool reached = vectors >= wanted;
    const std::string limit = wanted > mostVectors ? format("at most %d", mostVectors)
                                                   : format("%.0f s, --max-time", maxSeconds);
    log(format("ftlm error target %.3g: largest %.2g %% (at T = %.6g) with %d random vectors per "
               "block at the %s; %.0f needed%s",
               errorTarget, 100 * worst, at, now, where, wanted,
               reached ? "" : format(", %d taken (the limit: %s)", vectors, limit.c_str()).c_str()));
    if (!reached)
        say(format("ftlm error target %.3g out of reach: %.0f random vectors per block needed, %d "
                   "taken (the limit: %s)",
                   errorTarget, wanted, vectors, limit.c_str()));
    if (vectors <= now) return false;
    spectrum.setFtlmVectors(vectors);
    return true;
}

void FtlmFit::beforeFit() {
    if (errorTarget <= 0) return;
    std::vector<double> start;
    for (const Parameter& parameter : problem.parameters) start.push_back(parameter.start);
    for (int round = 0; round < 3 && moreVectors(start, "start values"); ++round) {
    }
}

void FtlmFit::afterFit(const FitOptions& options, FitResult& result) {
    auto done = [&] {
        return result.status == FitStatus::Converged || result.status == FitStatus::IterationLimit;
    };
    if (!done() && result.status != FitStatus::Evaluated) return;
    try {
        if (errorTarget > 0 && done() && moreVectors(result.parameters, "fitted values")) {
            std::vector<Parameter> from = problem.parameters;
            for (std::size_t i = 0; i < from.size(); ++i) from[i].start = result.parameters[i];
            const int vectors = spectrum.plan().ftlm.vectors;
            log(format("fitting again from the fitted values with %d random vectors per block",
                       vectors));
            say(format("fitting again with %d random vectors per block", vectors));
            FitResult again = fitLeastSquares(model, from, options);
            again.iterations += result.iterations;
            again.evaluations += result.evaluations;
            result = std::move(again);
            if (!done()) return;
            double at = 0;
            const double worst = largestError(result.parameters, &at);
            log(format("ftlm error at the fitted values: largest %.2g %% (at T = %.6g)%s",
                       100 * worst, at, worst > errorTarget ? ", still above the target" : ""));
        }
        if (result.freeIndices.empty() || result.correlation.size() == 0) return;
        Eigen::VectorXd residuals;
        Eigen::MatrixXd jacobian;
        if (!model.evaluate(result.parameters, residuals, &jacobian, result.freeIndices)) return;
        const Eigen::MatrixXd sampling =
            model.samplingCovariance(result.parameters, result.freeIndices, jacobian);
        if (sampling.isZero(0)) return;
        includeCovariance(result, sampling);
        log(format("uncertainties include the sampling error of the %d random vectors per block "
                   "(jackknife, to first order); its share of each variance:",
                   spectrum.plan().ftlm.vectors));
        for (std::size_t k = 0; k < result.freeIndices.size(); ++k) {
            const int index = result.freeIndices[k];
            const double total = result.uncertainties[static_cast<std::size_t>(index)];
            const double part = sampling(static_cast<Eigen::Index>(k), static_cast<Eigen::Index>(k));
            if (std::isnan(total) || total == 0) continue;
            log(format("  %-4s +/- %.4g, of which sampling +/- %.4g (%.0f %%)",
                       parameterName(index).c_str(), total, std::sqrt(part),
                       100 * part / (total * total)));
        }
    } catch (const Interrupted&) {
        result.status = FitStatus::Interrupted;
    }
}

} // namespace corefit
