// FTLM around a fit: random vectors enough for an error target (--ftlm-error), decided before
// the fit so that the model stays the same during it; and the sampling error of the random
// vectors in the uncertainties of the fitted parameters.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "fit.h"
#include "model.h"
#include "problem.h"
#include "spectrum.h"

namespace corefit {

struct FtlmFit {
    const Problem& problem;
    const SpinSystem& system;
    Spectrum& spectrum;
    SusceptibilityModel& model;
    double errorTarget = 0;  // relative standard error wanted at every fitted point; 0: none
    double maxSeconds = 0;   // the limit on the estimated time of a fit
    std::function<void(const std::string&)> log, say; // a line of the log, of the progress

    // With an error target: random vectors enough for it at the start values.
    void beforeFit();
    // With an error target, when the fitted values miss it: more random vectors, and the fit
    // again from the fitted values, once. Then the sampling covariance of the random vectors
    // added to the uncertainties and correlations of result. A stop request on the way leaves
    // result Interrupted.
    void afterFit(const FitOptions& options, FitResult& result);

    // The largest relative standard error over the fitted points at p, and its temperature.
    double largestError(const std::vector<double>& p, double* where = nullptr);

private:
    bool moreVectors(const std::vector<double>& p, const char* where);
};

} // namespace corefit
