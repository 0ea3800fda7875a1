// FTLM around a fit: random vectors enough for an error target (--ftlm-error), decided before
// the fit so that the model stays the same during it; and the sampling error of the random
// vectors in the uncertainties of the fitted parameters.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "fit.h"
#include "model.h"
#include "problem.h"
#include "spectrum.h"

namespace corefit {

class FtlmFit {
public:
    using Say = std::function<void(const std::string&)>;
    // log: a line of the log; say: a line of the progress.
    FtlmFit(const Problem& fitted, const SpinSystem& cluster, Spectrum& levels,
            SusceptibilityModel& susceptibility, double target, double seconds, Say logLine,
            Say progressLine)
        : problem(fitted), system(cluster), spectrum(levels), model(susceptibility),
          errorTarget(target), maxSeconds(seconds), log(std::move(logLine)),
          say(std::move(progressLine)) {}

    const Problem& problem;
    const SpinSystem& system;
    Spectrum& spectrum;
    SusceptibilityModel& model;
    double errorTarget; // relative standard error wanted at every fitted point; 0: none
    double maxSeconds;  // the limit on the estimated time of a fit
    Say log, say;

    // With an error target: random vectors enough for it at the start values.
    void beforeFit();
    // With an error target, when the fitted values miss it: more random vectors, and the fit
    // again from the fitted values, once; and a line on the progress if the target is still
    // missed. Then the sampling covariance of the random vectors added to the uncertainties and
    // correlations of result. A stop request on the way leaves result Interrupted.
    void afterFit(const FitOptions& options, FitResult& result);

    // The largest relative standard error over the fitted points of both sets at p, and where it
    // lies ("T = 8", "T = 2, H = 7 T").
    double largestError(const std::vector<double>& p, std::string* where = nullptr);

private:
    bool moreVectors(const std::vector<double>& p, const char* where);
    std::string limit_; // what kept the vectors below those needed, if anything did
};

} // namespace corefit
