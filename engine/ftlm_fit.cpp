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

double FtlmFit::largestError(const std::vector<double>& p, std::string* where) {
    std::vector<double> values;
    if (!model.predict(p, values)) return 0;
    const std::vector<double> errors = model.standardErrors(p);
    double worst = 0;
    const std::vector<FittedPoint> fitted = model.fitted();
    if (where && !fitted.empty()) *where = pointPlace(problem, fitted.front().value);
    for (const FittedPoint& point : fitted) {
        const std::size_t k = point.value;
        const double relative = errors[k] / std::abs(values[k]);
        if (relative > worst) {
            worst = relative;
            if (where) *where = pointPlace(problem, k);
        }
    }
    return worst;
}

// Random vectors enough for the target at p, the error falling as 1/sqrt of their number (and
// a tenth more), within mostVectors and the time limit. Returns whether it set more; keeps what
// limited them.
bool FtlmFit::moreVectors(const std::vector<double>& p, const char* where) {
    const int now = spectrum.plan().ftlm.vectors;
    std::string at;
    const double worst = largestError(p, &at);
    if (worst <= errorTarget) {
        log(format("ftlm error target %.3g: %d random vectors per block reach it at the %s "
                   "(largest %.2g %% at %s)",
                   errorTarget, now, where, 100 * worst, at.c_str()));
        return false;
    }
    int freeJ = 0;
    for (std::size_t i = firstJIndex; i < problem.parameters.size(); ++i)
        freeJ += problem.parameters[i].free();
    const double ratio = worst / errorTarget;
    const double wanted = std::ceil(1.1 * now * ratio * ratio);
    auto seconds = [&](int count) {
        FtlmSettings settings = spectrum.plan().ftlm;
        settings.vectors = count;
        return estimatedSeconds(
            planSpectrum(system, Method::Ftlm, spectrum.plan().threads, nullptr, settings), freeJ);
    };
    // The most within the limits: the estimate grows with the vectors.
    int vectors = static_cast<int>(std::min<double>(wanted, mostVectors));
    if (wanted > mostVectors) limit_ = format("at most %d", mostVectors);
    if (seconds(vectors) > maxSeconds) {
        limit_ = format("%.0f s, --max-time", maxSeconds);
        int low = now, high = vectors; // seconds(low) within the limit (as the plan was)
        while (high - low > 1) {
            const int middle = low + (high - low) / 2;
            (seconds(middle) > maxSeconds ? high : low) = middle;
        }
        vectors = low;
    }
    log(format("ftlm error target %.3g: largest %.2g %% (at %s) with %d random vectors per "
               "block at the %s; %.0f needed%s",
               errorTarget, 100 * worst, at.c_str(), now, where, wanted,
               vectors < wanted
                   ? format(", %d taken (the limit: %s)", vectors, limit_.c_str()).c_str()
                   : ""));
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
        const bool again =
            errorTarget > 0 && done() && moreVectors(result.parameters, "fitted values");
        if (again) {
            std::vector<Parameter> from = problem.parameters;
            for (std::size_t i = 0; i < from.size(); ++i) from[i].start = result.parameters[i];
            const int vectors = spectrum.plan().ftlm.vectors;
            log(format("fitting again from the fitted values with %d random vectors per block",
                       vectors));
            say(format("fitting again with %d random vectors per block", vectors));
            FitResult second = fitLeastSquares(model, from, options);
            second.iterations += result.iterations;
            second.evaluations += result.evaluations;
            result = std::move(second);
            if (!done()) return;
        }
        if (errorTarget > 0 && done()) {
            std::string at;
            const double worst = largestError(result.parameters, &at);
            const int vectors = spectrum.plan().ftlm.vectors;
            if (worst <= errorTarget) {
                if (again)
                    log(format("ftlm error target %.3g reached with %d random vectors per block: "
                               "largest %.2g %% (at %s) at the fitted values",
                               errorTarget, vectors, 100 * worst, at.c_str()));
            } else {
                const std::string text =
                    format("ftlm error target %.3g not reached: largest %.2g %% (at %s) at the "
                           "fitted values with %d random vectors per block%s",
                           errorTarget, 100 * worst, at.c_str(), vectors,
                           limit_.empty() ? "" : (" (the limit: " + limit_ + ")").c_str());
                log(text);
                say(text);
            }
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
            const double part =
                sampling(static_cast<Eigen::Index>(k), static_cast<Eigen::Index>(k));
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
