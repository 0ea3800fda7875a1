// Nonlinear least squares over a parameter vector of which some entries are free.
#pragma once

#include <atomic>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include <Eigen/Dense>

#include "guards.h"
#include "problem.h"

namespace corefit {

// A model with residuals r_i(p) = calculated_i(p) - observed_i over the fitted points.
class LeastSquaresModel {
public:
    virtual ~LeastSquaresModel() = default;
    virtual int residualCount() const = 0;
    // Fills the residuals at p (the full parameter vector). With a jacobian, also fills it
    // (residualCount rows, one column per entry of freeIndices: d r_i / d p_freeIndices[k]).
    // Returns false when p lies outside the model's domain (the step that led there is rejected).
    virtual bool evaluate(const std::vector<double>& p, Eigen::VectorXd& residuals,
                          Eigen::MatrixXd* jacobian, const std::vector<int>& freeIndices) = 0;
};

struct IterationReport {
    int iteration = 0;
    double deviation = 0;
    const std::vector<double>* parameters = nullptr;
};

struct FitOptions {
    double tolerance = defaultTolerance; // relative decrease of D below which the fit has converged
    int maxIterations = 200;
    const std::atomic<bool>* stop =
        nullptr; // set from a signal handler: stop at the next safe point
    std::function<void(const IterationReport&)>
        onIteration; // after the start and every accepted step
};

enum class FitStatus {
    Evaluated,      // no free parameter: the model at the start values
    Converged,      // D fell by less than tolerance * D where the gradient is small too
    Plateau,        // D no longer falls, or no step lowers it, although the gradient is not small
    IterationLimit, // maxIterations accepted steps without converging
    Interrupted,    // stop was set, or the model threw Interrupted; the best parameters so far
    Failed,         // the start values lie outside the model's domain, or too few points
    SolverFailed    // the least-squares solver failed; message says how
};

struct FitResult {
    FitStatus status = FitStatus::Failed;
    std::vector<double> parameters; // all parameters, best found
    double deviation = 0;           // D at those parameters; NaN if stopped before the first
    int iterations = 0;             // accepted steps
    int evaluations = 0;            // calls of evaluate
    std::vector<int> freeIndices;   // which parameters were free
    // Per parameter: 0 for fixed ones, NaN for free ones the data cannot determine.
    std::vector<double> uncertainties;
    Eigen::MatrixXd correlation; // free x free; NaN where a parameter is undetermined
    // Why free parameters are undetermined: unseen ones the data do not depend on at all;
    // entangled ones lie in a combination of parameters that leaves the residuals unchanged (only
    // the other combinations are determined); uncertaintyNote says why none could be estimated
    // (too few points, an interrupted run), or is empty.
    std::vector<int> unseen, entangled;
    std::string uncertaintyNote;
    std::string message; // why it failed, when it did
    // The size of the Gauss-Newton step at the best point relative to the spread of the residuals
    // (the relative offset, sqrt(|P r|^2 / p) / sqrt(|r - P r|^2 / (n - p)), P the projection on
    // the columns of the Jacobian): about the distance to the minimum in standard uncertainties.
    // NaN when not known.
    double offset = std::numeric_limits<double>::quiet_NaN();
};

// The largest relative offset at which a fit with this tolerance counts as converged:
// max(1e-3, sqrt(tolerance)).
double offsetLimit(double tolerance);

// Fits the free parameters (step != 0) from their start values, using each step as the
// parameter's scale. A run has converged when an accepted step lowers D by less than
// tolerance x D and the relative offset there is within offsetLimit: the relative change of D
// alone is also met on a plateau or in a long curved valley, far from any minimum. The uncertainties come from covariance = D / (n - r) * (J^T J)^+ at the end,
// r the rank of J: directions the data cannot see are left out, and the parameters along them
// are undetermined. An exception of the model other than Interrupted is thrown on after the
// solver has been left.
FitResult fitLeastSquares(LeastSquaresModel& model, const std::vector<Parameter>& parameters,
                          const FitOptions& options);

} // namespace corefit
