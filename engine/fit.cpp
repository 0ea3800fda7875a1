#include "fit.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <string>
#include <utility>

#include <gsl/gsl_errno.h>
#include <gsl/gsl_matrix.h>
#include <gsl/gsl_multifit_nlinear.h>
#include <gsl/gsl_vector.h>

namespace corefit {

void gslErrorsAsCodes() {
    static const bool once = (gsl_set_error_handler_off(), true);
    (void)once;
}

namespace {

using RowMajorMatrix = Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;
using VectorView = Eigen::Map<const Eigen::VectorXd, 0, Eigen::InnerStride<>>;

// The model at one point of the search, in the scaled variables x_k = (p - start) / step.
struct Evaluation {
    Eigen::VectorXd x;
    std::vector<double> parameters;
    Eigen::VectorXd residuals;
    Eigen::MatrixXd jacobian; // d r / d x; empty when it was not asked for
    double deviation = 0;
    bool valid = false;
};

VectorView view(const gsl_vector* v) {
    return VectorView(v->data, static_cast<Eigen::Index>(v->size),
                      Eigen::InnerStride<>(static_cast<Eigen::Index>(v->stride)));
}

struct WorkspaceDeleter {
    void operator()(gsl_multifit_nlinear_workspace* w) const { gsl_multifit_nlinear_free(w); }
};

class Fitter {
public:
    Fitter(LeastSquaresModel& model, const std::vector<Parameter>& parameters,
           const FitOptions& options)
        : model_(model), parameters_(parameters), options_(options), n_(model.residualCount()) {
        for (std::size_t i = 0; i < parameters.size(); ++i) {
            if (parameters[i].free()) {
                free_.push_back(static_cast<int>(i));
                steps_.push_back(parameters[i].step);
            }
        }
    }

    FitResult run() {
        FitResult result;
        result.freeIndices = free_;
        result.uncertainties.assign(parameters_.size(), 0.0);
        for (const Parameter& p : parameters_) result.parameters.push_back(p.start);

        const Eigen::VectorXd start = Eigen::VectorXd::Zero(freeCount());
        const Evaluation& first = evaluateAt(start, !free_.empty());
        if (!first.valid) {
            result.evaluations = evaluations_;
            if (takeInterruption()) {
                result.status = FitStatus::Interrupted;
                result.uncertaintyNote = interruptedNote;
                for (int index : free_)
                    result.uncertainties[static_cast<std::size_t>(index)] = undetermined;
                result.deviation = std::numeric_limits<double>::quiet_NaN();
                return result; // nothing evaluated: no parameters worth writing
            }
            result.message = "the model cannot be evaluated at the start values: they lie "
                             "outside its domain";
            return result;
        }
        report(0, first.deviation, first.parameters);

        if (free_.empty()) {
            result.status = FitStatus::Evaluated;
        } else if (n_ < freeCount()) {
            result.status = FitStatus::Failed;
            result.message = std::to_string(n_) + " fitted points cannot determine " +
                             std::to_string(freeCount()) + " free parameters";
        } else {
            result.status = minimise(result.message);
        }
        if (takeInterruption()) result.status = FitStatus::Interrupted;

        if (!free_.empty() && best_.valid && best_.jacobian.size() == 0 &&
            result.status != FitStatus::Interrupted) {
            evaluateAt(best_.x, true); // the covariance needs the Jacobian at the optimum
            if (takeInterruption()) result.status = FitStatus::Interrupted;
        }
        result.parameters = best_.parameters;
        result.deviation = best_.deviation;
        result.iterations = iterations_;
        result.evaluations = evaluations_;
        if (result.status != FitStatus::Failed && result.status != FitStatus::SolverFailed) {
            estimateUncertainties(result);
            result.offset = gaussNewton(best_).offset;
        }
        return result;
    }

private:
    static constexpr double undetermined = std::numeric_limits<double>::quiet_NaN();
    // Accepted steps in a row that lower D by less than tolerance x D where the gradient is not
    // small, before the run counts as stopped on a plateau.
    static constexpr int plateauSteps = 20;
    static constexpr const char* interruptedNote =
        "the run was interrupted before the Jacobian at the best point was known";

    int freeCount() const { return static_cast<int>(free_.size()); }

    bool stopRequested() const { return corefit::stopRequested(options_.stop); }

    // An exception of the model, kept while the solver ran: returns whether there was one, an
    // Interrupted (now handled); any other exception is thrown on.
    bool takeInterruption() {
        if (!pending_) return false;
        const std::exception_ptr pending = std::exchange(pending_, nullptr);
        try {
            std::rethrow_exception(pending);
        } catch (const Interrupted&) {
            return true;
        }
    }

    void report(int iteration, double deviation, const std::vector<double>& parameters) const {
        if (options_.onIteration) options_.onIteration({iteration, deviation, &parameters});
    }

    std::vector<double> toParameters(const Eigen::VectorXd& x) const {
        std::vector<double> p;
        for (const Parameter& parameter : parameters_) p.push_back(parameter.start);
        for (std::size_t k = 0; k < free_.size(); ++k) {
            const auto i = static_cast<std::size_t>(free_[k]);
            p[i] = parameters_[i].start + steps_[k] * x(static_cast<Eigen::Index>(k));
        }
        return p;
    }

    // The model at x, from the last evaluation when that was at the same point. Points outside
    // the domain, and points where the model gives non-finite residuals, come back invalid.
    const Evaluation& evaluateAt(const Eigen::VectorXd& x, bool withJacobian) {
        const bool samePoint = evaluated_ && last_.x.size() == x.size() && last_.x == x;
        if (samePoint && (!withJacobian || !last_.valid || last_.jacobian.size() > 0)) {
            return last_;
        }
        evaluated_ = true;
        last_.x = x;
        last_.parameters = toParameters(x);
        last_.jacobian.resize(0, 0);
        last_.valid = false;
        const bool finite = std::all_of(last_.parameters.begin(), last_.parameters.end(),
                                        [](double v) { return std::isfinite(v); });
        if (!finite) return last_;

        const Eigen::Index n = n_, p = freeCount();
        last_.residuals.setZero(n);
        Eigen::MatrixXd modelJacobian;
        if (withJacobian) modelJacobian.setZero(n, p);
        if (pending_) return last_;
        ++evaluations_;
        bool inDomain = false;
        try { // no exception may cross GSL: kept, and thrown on once the solver is left
            inDomain = model_.evaluate(last_.parameters, last_.residuals,
                                       withJacobian ? &modelJacobian : nullptr, free_);
        } catch (...) {
            pending_ = std::current_exception();
            evaluated_ = false;
            return last_;
        }
        if (!inDomain || last_.residuals.size() != n || !last_.residuals.allFinite()) {
            return last_;
        }
        last_.deviation = last_.residuals.squaredNorm();
        if (!std::isfinite(last_.deviation)) return last_;
        last_.valid = true;

        if (withJacobian && modelJacobian.rows() == n && modelJacobian.cols() == p) {
            // Chain rule: d r / d x_k = d r / d p_k * step_k. A derivative the model could not
            // give is taken as 0: that direction then looks flat from here.
            last_.jacobian =
                modelJacobian * Eigen::Map<const Eigen::VectorXd>(steps_.data(), p).asDiagonal();
            last_.jacobian =
                last_.jacobian.unaryExpr([](double v) { return std::isfinite(v) ? v : 0.0; });
        }
        const bool sameAsBest = best_.valid && best_.x == x;
        if (!best_.valid || last_.deviation < best_.deviation ||
            (sameAsBest && best_.jacobian.size() == 0)) {
            best_ = last_;
        }
        return last_;
    }

    // GSL callbacks. The residual callback fetches the Jacobian along with the residuals while
    // trial steps are being accepted (GSL asks for it at every accepted point), and leaves it out
    // after a rejection, when the next trial is less likely to be kept.
    static int residualsCallback(const gsl_vector* x, void* data, gsl_vector* f) {
        auto& self = *static_cast<Fitter*>(data);
        if (self.stopRequested() || self.pending_) return GSL_EFAILED;
        const bool withJacobian = self.lastTrialAccepted_;
        self.lastTrialAccepted_ = false;
        const Evaluation& e = self.evaluateAt(view(x), withJacobian);
        if (self.pending_) return GSL_EFAILED;
        for (std::size_t i = 0; i < f->size; ++i) {
            // Outside the domain: residuals whose norm exceeds that of the current point, so
            // that the ratio test rejects the step.
            f->data[i * f->stride] =
                e.valid ? e.residuals(static_cast<Eigen::Index>(i)) : self.rejectedResidual_;
        }
        return GSL_SUCCESS;
    }

    static int jacobianCallback(const gsl_vector* x, void* data, gsl_matrix* J) {
        auto& self = *static_cast<Fitter*>(data);
        self.lastTrialAccepted_ = true;
        const Evaluation& e = self.evaluateAt(view(x), true);
        if (!e.valid || e.jacobian.size() == 0) return GSL_EFAILED;
        self.accepted_ = e;
        Eigen::Map<RowMajorMatrix, 0, Eigen::OuterStride<>>(
            J->data, static_cast<Eigen::Index>(J->size1), static_cast<Eigen::Index>(J->size2),
            Eigen::OuterStride<>(static_cast<Eigen::Index>(J->tda))) = e.jacobian;
        return GSL_SUCCESS;
    }

    void setCurrentDeviation(double deviation) {
        current_ = deviation;
        rejectedResidual_ = 1e3 * (std::sqrt(deviation) + 1.0);
    }

    FitStatus minimise(std::string& message) {
        if (best_.deviation == 0) return FitStatus::Converged;
        if (stopRequested()) return FitStatus::Interrupted;

        gsl_multifit_nlinear_fdf fdf{};
        fdf.f = &Fitter::residualsCallback;
        fdf.df = &Fitter::jacobianCallback;
        fdf.fvv = nullptr;
        fdf.n = static_cast<std::size_t>(n_);
        fdf.p = free_.size();
        fdf.params = this;

        // Levenberg-Marquardt with the identity as scaling matrix: in the scaled variables this
        // measures every move in units of the parameter's step.
        gsl_multifit_nlinear_parameters settings = gsl_multifit_nlinear_default_parameters();
        settings.trs = gsl_multifit_nlinear_trs_lm;
        settings.scale = gsl_multifit_nlinear_scale_levenberg;
        settings.solver = gsl_multifit_nlinear_solver_qr;

        gslErrorsAsCodes();
        const std::unique_ptr<gsl_multifit_nlinear_workspace, WorkspaceDeleter> w(
            gsl_multifit_nlinear_alloc(gsl_multifit_nlinear_trust, &settings, fdf.n, fdf.p));
        if (!w) {
            message = "the least-squares solver could not be set up";
            return FitStatus::Failed;
        }
        Eigen::VectorXd x0 = Eigen::VectorXd::Zero(freeCount());
        gsl_vector_view x0View = gsl_vector_view_array(x0.data(), fdf.p);
        setCurrentDeviation(best_.deviation);
        lastTrialAccepted_ = true;
        if (const int status = gsl_multifit_nlinear_init(&x0View.vector, &fdf, w.get())) {
            return stopped(status, message);
        }

        bool previousSmall = false;
        int flatSteps = 0;
        for (;;) {
            if (stopRequested()) return FitStatus::Interrupted;
            if (iterations_ >= options_.maxIterations) return FitStatus::IterationLimit;
            const std::size_t trialsBefore = fdf.nevalf;
            const int status = gsl_multifit_nlinear_iterate(w.get());
            if (status == GSL_ENOPROG) { // no lower point nearby
                if (best_.jacobian.size() == 0) evaluateAt(best_.x, true);
                if (pending_) return FitStatus::Interrupted;
                return atMinimum(best_) ? FitStatus::Converged : FitStatus::Plateau;
            }
            if (status != GSL_SUCCESS) return stopped(status, message);

            ++iterations_;
            const double previous = current_;
            setCurrentDeviation(accepted_.deviation);
            report(iterations_, current_, accepted_.parameters);
            if (current_ == 0) return FitStatus::Converged;

            // At the minimum, whatever the last decrease, where the Gauss-Newton step from the
            // accepted point would change no parameter in its ninth digit and lower D by no more
            // than the offset limit allows: near a D of 0 the decreases are rounding and say
            // nothing. Otherwise a step cut short by rejected trials can lower D only a little
            // while the minimum is still far: then the small decrease has to be confirmed by the
            // next step. A small decrease where the gradient is not small is a plateau or a curved
            // valley: the search goes on, and gives up after plateauSteps such steps in a row.
            const bool small = previous - current_ < options_.tolerance * previous;
            const bool clean = fdf.nevalf - trialsBefore == 1;
            const GaussNewton step = gaussNewton(accepted_);
            const bool offsetSmall = step.offset <= offsetLimit(options_.tolerance);
            if (step.negligible && offsetSmall) return FitStatus::Converged;
            if (small && (clean || previousSmall)) {
                if (step.negligible || offsetSmall) return FitStatus::Converged;
                if (++flatSteps >= plateauSteps) return FitStatus::Plateau;
            } else if (!small) {
                flatSteps = 0;
            }
            previousSmall = small;
        }
    }

    // The Gauss-Newton step at e, from a singular value decomposition of the Jacobian with unit
    // columns (directions of singular value 0 left out), and the relative offset it gives.
    struct GaussNewton {
        double offset = std::numeric_limits<double>::quiet_NaN();
        bool negligible = false; // no parameter would change in its ninth digit
    };
    GaussNewton gaussNewton(const Evaluation& e) const {
        GaussNewton out;
        const Eigen::Index n = n_, p = freeCount();
        if (!e.valid || e.jacobian.rows() != n || e.jacobian.cols() != p || p == 0) return out;
        const Eigen::VectorXd norms = e.jacobian.colwise().norm().transpose();
        Eigen::MatrixXd unit = e.jacobian;
        for (Eigen::Index k = 0; k < p; ++k)
            unit.col(k) = std::isfinite(norms(k)) && norms(k) > 0
                              ? Eigen::VectorXd(unit.col(k) / norms(k))
                              : Eigen::VectorXd::Zero(n);
        const Eigen::JacobiSVD<Eigen::MatrixXd> svd(unit, Eigen::ComputeThinU | Eigen::ComputeThinV);
        const Eigen::VectorXd& s = svd.singularValues();
        const double rankLimit =
            s(0) * static_cast<double>(std::max(n, p)) * std::numeric_limits<double>::epsilon();
        Eigen::Index rank = 0;
        while (rank < p && s(rank) > rankLimit) ++rank;
        if (rank == 0) return {0.0, true};
        const Eigen::VectorXd projected = svd.matrixU().leftCols(rank).transpose() * e.residuals;
        const Eigen::VectorXd step = svd.matrixV().leftCols(rank) *
                                     (projected.array() / s.head(rank).array()).matrix();
        out.negligible = true;
        for (Eigen::Index k = 0; k < p; ++k) {
            if (!(norms(k) > 0)) continue;
            const double change = std::abs(step(k) / norms(k) * steps_[static_cast<std::size_t>(k)]);
            const double value = std::abs(e.parameters[static_cast<std::size_t>(free_[static_cast<std::size_t>(k)])]);
            if (!(change <= 1e-9 * std::max(value, std::abs(steps_[static_cast<std::size_t>(k)]))))
                out.negligible = false;
        }
        const double along = projected.squaredNorm();
        const double across = std::max(e.deviation - along, 0.0);
        if (n > rank && across > 0)
            out.offset = std::sqrt(along / static_cast<double>(rank)) /
                         std::sqrt(across / static_cast<double>(n - rank));
        else
            out.offset = along > 0 ? std::numeric_limits<double>::infinity() : 0.0;
        return out;
    }

    bool atMinimum(const Evaluation& e) const {
        const GaussNewton step = gaussNewton(e);
        return step.negligible || step.offset <= offsetLimit(options_.tolerance);
    }

    FitStatus stopped(int status, std::string& message) const {
        if (stopRequested() || pending_) return FitStatus::Interrupted; // sorted out by run()
        message = std::string("the least-squares solver failed after ") +
                  std::to_string(iterations_) + " iteration" + (iterations_ == 1 ? "" : "s") +
                  ": " + gsl_strerror(status);
        return FitStatus::SolverFailed;
    }

    // covariance = D / (n - r) * (J^T J)^+, from a singular value decomposition of J with unit
    // columns, so that the rank test does not depend on the parameters' units. A parameter with
    // a part along a direction of singular value 0 (the residuals do not change along it) is
    // undetermined; the others are estimable whatever those directions, and (J^T J)^+ gives
    // their covariance. r is the number of directions the data determine.
    void estimateUncertainties(FitResult& result) const {
        const Eigen::Index n = n_, p = freeCount();
        if (p == 0) return;
        for (int index : free_)
            result.uncertainties[static_cast<std::size_t>(index)] = undetermined;
        if (!best_.valid || best_.jacobian.rows() != n || best_.jacobian.cols() != p) {
            result.uncertaintyNote = result.status == FitStatus::Interrupted
                                         ? interruptedNote
                                         : "the Jacobian at the best point is not known";
            return;
        }
        const Eigen::VectorXd norms = best_.jacobian.colwise().norm().transpose();
        Eigen::MatrixXd unit = best_.jacobian;
        for (Eigen::Index k = 0; k < p; ++k) {
            const bool seen = std::isfinite(norms(k)) && norms(k) > 0;
            unit.col(k) = seen ? Eigen::VectorXd(unit.col(k) / norms(k)) : Eigen::VectorXd::Zero(n);
            if (!seen) result.unseen.push_back(free_[static_cast<std::size_t>(k)]);
        }
        const Eigen::JacobiSVD<Eigen::MatrixXd> svd(unit, Eigen::ComputeFullV);
        const Eigen::VectorXd& s = svd.singularValues(); // min(n, p) = p of them, descending
        const double rankLimit =
            s(0) * static_cast<double>(std::max(n, p)) * std::numeric_limits<double>::epsilon();
        Eigen::Index rank = 0;
        while (rank < p && s(rank) > rankLimit) ++rank;
        const Eigen::MatrixXd flat = svd.matrixV().rightCols(p - rank);
        std::vector<bool> determined(static_cast<std::size_t>(p));
        for (Eigen::Index k = 0; k < p; ++k) {
            const auto uk = static_cast<std::size_t>(k);
            determined[uk] = flat.cols() == 0 || flat.row(k).norm() < 1e-6;
            const bool unseen = std::find(result.unseen.begin(), result.unseen.end(), free_[uk]) !=
                                result.unseen.end();
            if (!determined[uk] && !unseen) result.entangled.push_back(free_[uk]);
        }
        if (n <= rank) {
            result.uncertaintyNote = std::to_string(n) + " fitted points leave no degree of " +
                                     "freedom beyond the " + std::to_string(rank) +
                                     " directions they determine";
            return;
        }

        const Eigen::MatrixXd vs =
            svd.matrixV().leftCols(rank) * s.head(rank).cwiseInverse().asDiagonal();
        const Eigen::MatrixXd inverse = vs * vs.transpose(); // (J^T J)^+ with unit columns
        const double variance = best_.deviation / static_cast<double>(n - rank);
        result.correlation.setConstant(p, p, undetermined);
        for (Eigen::Index k = 0; k < p; ++k) {
            const auto uk = static_cast<std::size_t>(k);
            if (!determined[uk]) continue;
            result.uncertainties[static_cast<std::size_t>(free_[uk])] =
                std::sqrt(variance * inverse(k, k)) / norms(k) * std::abs(steps_[uk]);
            for (Eigen::Index j = 0; j < p; ++j) {
                if (!determined[static_cast<std::size_t>(j)]) continue;
                const double sign =
                    (steps_[uk] < 0) == (steps_[static_cast<std::size_t>(j)] < 0) ? 1.0 : -1.0;
                result.correlation(k, j) =
                    j == k ? 1.0 : sign * inverse(k, j) / std::sqrt(inverse(k, k) * inverse(j, j));
            }
        }
    }

    LeastSquaresModel& model_;
    const std::vector<Parameter>& parameters_;
    const FitOptions& options_;
    int n_;
    std::vector<int> free_;
    std::vector<double> steps_;

    Evaluation last_, best_, accepted_; // accepted_: the solver's current point
    std::exception_ptr pending_;        // thrown by the model inside the solver
    bool evaluated_ = false;
    int evaluations_ = 0;
    int iterations_ = 0;
    double current_ = 0;          // D at the solver's current point
    double rejectedResidual_ = 0; // residual given for points outside the domain
    bool lastTrialAccepted_ = true;
};

} // namespace

double offsetLimit(double tolerance) { return std::max(1e-3, std::sqrt(std::max(tolerance, 0.0))); }

FitResult fitLeastSquares(LeastSquaresModel& model, const std::vector<Parameter>& parameters,
                          const FitOptions& options) {
    return Fitter(model, parameters, options).run();
}

} // namespace corefit
