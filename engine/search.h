// The search for the global minimum: fits from the user's start and from further starts spread
// over the ranges where real clusters lie, the best of them, the other minima nearly as good, and
// the warnings a chemist would want on the best.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "fit.h"
#include "problem.h"

namespace corefit {

// The most further starts the default search takes, for a problem cheap enough to afford them.
inline constexpr int maxDefaultStarts = 16;

// Further start values (all parameters, in the file's units), deterministic for a problem. Fixed
// parameters keep their start. Free ones: g between 1.9 and 2.2, C and zJ at 0, Xtip at its
// start, and every free J with each sign in turn (the first 2^m starts cover all sign patterns of
// m free J values) and a magnitude spread evenly on a log scale from a fifth of the lowest to
// three times the highest fitted temperature (of both sets).
std::vector<std::vector<double>> spreadStarts(const Problem& problem, int count);

// How many further starts the default search takes: as many as fit in about the time of one fit
// from the user's start (at least 0.3 s) on `workers` side by side, from 1 to maxDefaultStarts;
// none when no parameter is free.
int defaultStarts(const Problem& problem, double secondsPerFit, int workers);

// Fits from every start (starts[0] should be the user's), `models.size()` of them side by side,
// each worker with its own model. optionsFor(start, worker) gives the options of one fit. A start
// not run because a stop was requested comes back with status Interrupted and a NaN deviation.
// The first exception of a fit other than Interrupted is thrown once all workers have ended.
std::vector<FitResult> fitFromStarts(
    const std::vector<LeastSquaresModel*>& models, const std::vector<Parameter>& parameters,
    const std::vector<std::vector<double>>& starts,
    const std::function<FitOptions(int start, int worker)>& optionsFor);

// Another minimum than the best: distinct in its parameters, its deviation within a few percent
// of the best (`equivalent`: the same to the precision of the fit).
struct Alternative {
    int start = 0; // the start it came from
    double deviation = 0;
    std::vector<double> values;
    bool equivalent = false;
};

struct SearchSummary {
    int best = -1; // the start with the lowest deviation, -1 when no fit gave one
    std::vector<Alternative> alternatives; // by deviation, one per distinct minimum
};

// Deviations within this fraction of the best are alternatives.
inline constexpr double alternativeMargin = 0.05;

// The best of the results (the lowest deviation; the given start, results[0], when it converged
// to the same minimum), and the distinct minima nearly as good. Two results are the same minimum
// when every determined free parameter agrees within half the best fit's standard uncertainty
// (or 1e-3 relative where that is 0). Only converged results count as alternatives. scale: the
// sum of squares of the observed values, below whose 1e-13 two deviations count as the same.
// chosen: the best when it is already known, -1 to find it.
SearchSummary summarise(const std::vector<FitResult>& results, double tolerance, double scale,
                        int chosen = -1);

// What a chemist would question in a fit, one sentence each: g outside 1 to 3, a free parameter
// the data leave undetermined, an uncertainty more than ten times its value.
std::vector<std::string> fitWarnings(const Problem& problem, const FitResult& result);

} // namespace corefit
