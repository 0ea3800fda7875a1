#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <utility>
#include <vector>

#include "fit.h"

namespace corefit {
namespace {

using Values = std::vector<double>;
using Eigen::VectorXd;
// y(t; p) for k < 0, else d y / d p_k.
using Curve = std::function<double(double t, const Values& p, int k)>;

// Residuals y(t_i; p) - observed_i. Outside inDomain, evaluate returns false, or with nanOutside
// gives NaN residuals.
struct CurveModel : LeastSquaresModel {
    CurveModel(Curve c, VectorXd at, VectorXd obs)
        : y(std::move(c)), t(std::move(at)), observed(std::move(obs)) {}
    Curve y;
    VectorXd t, observed;
    std::function<bool(const Values&)> inDomain = [](const Values&) { return true; };
    std::function<bool(const Values&)> jacobianAt = [](const Values&) { return true; };
    bool nanOutside = false;
    int calls = 0;

    int residualCount() const override { return static_cast<int>(t.size()); }
    bool evaluate(const Values& p, VectorXd& r, Eigen::MatrixXd* jacobian,
                  const std::vector<int>& free) override {
        ++calls;
        if ((!inDomain(p) && !nanOutside) || (jacobian && !jacobianAt(p))) return false;
        r = inDomain(p) ? residuals(p) : VectorXd(VectorXd::Constant(t.size(), NAN));
        if (jacobian) {
            *jacobian = Eigen::MatrixXd::NullaryExpr(
                t.size(), static_cast<Eigen::Index>(free.size()),
                [&](Eigen::Index i, Eigen::Index k) {
                    return y(t(i), p, free[static_cast<std::size_t>(k)]);
                });
        }
        return true;
    }
    VectorXd residuals(const Values& p) const {
        return t.unaryExpr([&](double x) { return y(x, p, -1); }) - observed;
    }
    double deviationAt(const Values& p) const { return residuals(p).squaredNorm(); }
};

VectorXd noise(Eigen::Index count, double amplitude) { // deterministic, uniform
    unsigned state = 12345;
    return VectorXd::NullaryExpr(count, [&](Eigen::Index) {
        state = state * 1103515245u + 12345u;
        return amplitude * (2.0 * ((state >> 8) & 0xffff) / 65535.0 - 1.0);
    });
}

// y = a exp(-b t) + c at t = 0, 0.5, ... 19.5, plus noise.
CurveModel decay(const Values& truth, double amplitude) {
    const Curve y = [](double t, const Values& p, int k) {
        const double e = std::exp(-p[1] * t);
        return k < 0 ? p[0] * e + p[2] : k == 0 ? e : k == 1 ? -p[0] * t * e : 1.0;
    };
    const VectorXd t = VectorXd::LinSpaced(40, 0.0, 19.5);
    return {y, t, t.unaryExpr([&](double x) { return y(x, truth, -1); }) + noise(40, amplitude)};
}

CurveModel quadratic(const VectorXd& t, const VectorXd& observed) { // y = a + b t + c t^2
    return {[](double x, const Values& p, int k) {
                return k < 0 ? p[0] + p[1] * x + p[2] * x * x : std::pow(x, k);
            },
            t, observed};
}

struct Recorder {
    Values deviations;
    std::vector<Values> parameters;
    std::function<void()> then = [] {};
    FitOptions options() {
        FitOptions o;
        o.onIteration = [this](const IterationReport& r) {
            EXPECT_EQ(r.iteration, static_cast<int>(deviations.size()));
            deviations.push_back(r.deviation);
            parameters.push_back(*r.parameters);
            then();
        };
        return o;
    }
};

TEST(FitLeastSquares, RecoversAnExponentialDecayReportingEveryAcceptedStep) {
    const Values truth{5.0, 0.4, 1.0};
    CurveModel model = decay(truth, 0.02 * std::sqrt(3.0)); // standard deviation 0.02
    for (const double tolerance : {1e-6, 1e-2}) {
        Recorder rec;
        FitOptions options = rec.options();
        options.tolerance = tolerance;
        const FitResult result = fitLeastSquares(model, {{3, 0.5}, {1, 0.1}, {0, 0.5}}, options);
        ASSERT_EQ(result.status, FitStatus::Converged) << result.message;
        for (std::size_t k = 0; tolerance < 1e-3 && k < 3; ++k) {
            EXPECT_NEAR(result.parameters[k], truth[k], 2 * result.uncertainties[k]);
            EXPECT_GT(result.uncertainties[k], 0.0);
        }
        EXPECT_DOUBLE_EQ(result.deviation, model.deviationAt(result.parameters));
        // Iteration 0 is the start; every step lowers D by at least tolerance * D but the last.
        const Values& d = rec.deviations;
        ASSERT_EQ(d.size(), static_cast<std::size_t>(result.iterations) + 1);
        EXPECT_EQ(rec.parameters.front(), Values({3, 1, 0}));
        for (std::size_t i = 1; i + 1 < d.size(); ++i) {
            EXPECT_GE(d[i - 1] - d[i], tolerance * d[i - 1]);
        }
        EXPECT_LT(d[d.size() - 2] - d.back(), tolerance * d[d.size() - 2]);
        EXPECT_EQ(rec.parameters.back(), result.parameters);
        EXPECT_EQ(d.back(), result.deviation);
    }
}

TEST(FitLeastSquares, EndsWhereDataWithoutNoiseLeaveOnlyRounding) {
    // Calculated values written with eight digits, fitted by a model whose values carry rounding
    // of its own that moves with the parameters: the decreases of D near its floor say nothing.
    const Values truth{5.0, 0.4, 1.0};
    CurveModel model = decay(truth, 0);
    model.observed = model.observed.unaryExpr([](double v) {
        char text[32];
        std::snprintf(text, sizeof text, "%.8g", v);
        return std::strtod(text, nullptr);
    });
    const Curve exact = model.y;
    model.y = [exact](double t, const Values& p, int k) {
        const double v = exact(t, p, k);
        if (k >= 0) return v;
        // A hash of the parameters' bits and t: the rounding of a model, within 5e-14 of v.
        const double mixed = p[0] + 3 * p[1] + 7 * p[2] + 13 * t;
        std::uint64_t bits = 0;
        std::memcpy(&bits, &mixed, sizeof bits);
        bits *= 0x9e3779b97f4a7c15u;
        bits ^= bits >> 29;
        return v * (1 + 1e-13 * (static_cast<double>(bits >> 11) * 0x1p-53 - 0.5));
    };
    const FitResult result = fitLeastSquares(model, {{3, 0.5}, {1, 0.1}, {0, 0.5}}, {});
    ASSERT_EQ(result.status, FitStatus::Converged) << result.message;
    for (std::size_t k = 0; k < 3; ++k) EXPECT_NEAR(result.parameters[k], truth[k], 1e-6);
    // No trials rejected one after another at the floor: about one evaluation per iteration.
    EXPECT_LE(model.calls, result.iterations + 8) << result.iterations << " iterations";
}

TEST(FitLeastSquares, MatchesLinearRegressionWithAFixedParameterAndANegativeStep) {
    // y = a + b t + 0.3 t^2 with the 0.3 fixed: a regression of y - 0.3 t^2 on 1 and t.
    const VectorXd t = VectorXd::LinSpaced(12, 1.0, 9.25), t2 = t.array().square();
    const VectorXd y = (2.0 - 1.5 * t.array() + 0.3 * t2.array()).matrix() + noise(12, 0.5);
    Eigen::MatrixXd x(12, 2);
    x << VectorXd::Ones(12), t;
    const Eigen::Matrix2d inverse = (x.transpose() * x).inverse();
    const Eigen::Vector2d ab = inverse * x.transpose() * (y - 0.3 * t2);
    CurveModel model = quadratic(t, y);
    const Eigen::Matrix2d covariance = model.deviationAt({ab(0), ab(1), 0.3}) / 10 * inverse;

    const FitResult result = fitLeastSquares(model, {{0, 1}, {1, -0.2}, {0.3, 0}}, {});
    ASSERT_EQ(result.status, FitStatus::Converged) << result.message;
    EXPECT_NEAR(result.parameters[0], ab(0), 1e-6);
    EXPECT_NEAR(result.parameters[1], ab(1), 1e-6);
    EXPECT_EQ(result.parameters[2], 0.3);
    EXPECT_EQ(result.freeIndices, std::vector<int>({0, 1}));
    EXPECT_NEAR(result.uncertainties[0], std::sqrt(covariance(0, 0)), 1e-8);
    EXPECT_NEAR(result.uncertainties[1], std::sqrt(covariance(1, 1)), 1e-8);
    EXPECT_EQ(result.uncertainties[2], 0.0);
    EXPECT_NEAR(result.correlation(0, 1),
                covariance(0, 1) / std::sqrt(covariance(0, 0) * covariance(1, 1)), 1e-8);
    // No trial is rejected on a linear model: one evaluation per step, Jacobian included.
    EXPECT_EQ(result.evaluations, result.iterations + 1);
    EXPECT_EQ(model.calls, result.evaluations);
}

TEST(FitLeastSquares, EstimatesWhatTheDataDetermineAndMarksTheRestUndetermined) {
    // y = a + b t; c changes nothing. With spare points a and b are estimated as by a regression
    // on 1 and t; with none, or with every t alike (only a + b is seen), they are undetermined.
    const auto line = [](const VectorXd& t, const VectorXd& y) {
        return CurveModel(
            [](double x, const Values& p, int k) {
                return k < 0 ? p[0] + p[1] * x : k == 0 ? 1.0 : k == 1 ? x : 0.0;
            },
            t, y);
    };
    const VectorXd t = VectorXd::LinSpaced(12, 1.0, 9.25);
    const VectorXd y = (2.0 - 1.5 * t.array()).matrix() + noise(12, 0.5);
    Eigen::MatrixXd x(12, 2);
    x << VectorXd::Ones(12), t;
    const Eigen::Matrix2d inverse = (x.transpose() * x).inverse();
    const Eigen::Vector2d ab = inverse * x.transpose() * y;
    const double variance = (x * ab - y).squaredNorm() / 10;
    const double nan = std::nan("");
    struct Case {
        const char* what;
        CurveModel model;
        double cStep;
        Values uncertainties;
        std::vector<int> unseen, entangled;
        bool noted;
    };
    const std::vector<Case> cases{
        {"spare points, c free",
         line(t, y),
         0.5,
         {std::sqrt(variance * inverse(0, 0)), std::sqrt(variance * inverse(1, 1)), nan},
         {2},
         {},
         false},
        {"no spare point",
         line(Eigen::Vector2d(1, 2), Eigen::Vector2d(3, 5)),
         0,
         {nan, nan, 0},
         {},
         {},
         true},
        {"one t, c free",
         line(Eigen::Vector3d(1, 1, 1), Eigen::Vector3d(3, 3.1, 2.9)),
         0.5,
         {nan, nan, nan},
         {2},
         {0, 1},
         false},
    };
    for (Case c : cases) {
        SCOPED_TRACE(c.what);
        const FitResult result = fitLeastSquares(c.model, {{0, 1}, {0, 1}, {7, c.cStep}}, {});
        EXPECT_EQ(result.status, FitStatus::Converged);
        for (std::size_t k = 0; k < 3; ++k)
            if (std::isnan(c.uncertainties[k]))
                EXPECT_TRUE(std::isnan(result.uncertainties[k])) << k;
            else
                EXPECT_NEAR(result.uncertainties[k], c.uncertainties[k], 1e-8) << k;
        EXPECT_EQ(result.unseen, c.unseen);
        EXPECT_EQ(result.entangled, c.entangled);
        EXPECT_EQ(result.uncertaintyNote.empty(), !c.noted);
    }
}

TEST(FitLeastSquares, ReportsASolverFailureAsAFailureWithItsMessage) {
    // The Jacobian cannot be had beyond the start: the solver fails at its first accepted step.
    CurveModel model = decay({5, 0.4, 1}, 0.1);
    model.jacobianAt = [](const Values& p) { return p[1] == 1; };
    const FitResult result = fitLeastSquares(model, {{3, 0.5}, {1, 0.1}, {0, 0.5}}, {});
    EXPECT_EQ(result.status, FitStatus::SolverFailed);
    EXPECT_NE(result.message.find("solver failed"), std::string::npos) << result.message;
}

TEST(FitLeastSquares, EvaluatesTheStartOnceWhenNothingIsFreeAndFailsOutsideTheDomain) {
    CurveModel model = decay({5, 0.4, 1}, 0.1);
    Recorder rec;
    FitResult result = fitLeastSquares(model, {{5, 0}, {0.4, 0}, {1, 0}}, rec.options());
    EXPECT_EQ(result.status, FitStatus::Evaluated);
    EXPECT_EQ(model.calls, 1);
    EXPECT_EQ(result.evaluations, 1);
    EXPECT_EQ(result.parameters, Values({5, 0.4, 1}));
    EXPECT_DOUBLE_EQ(result.deviation, model.deviationAt({5, 0.4, 1}));
    EXPECT_EQ(rec.deviations.size(), 1u);

    model.inDomain = [](const Values& p) { return p[1] > 0; };
    result = fitLeastSquares(model, {{5, 1}, {-1, 0.1}, {1, 0.5}}, {});
    EXPECT_EQ(result.status, FitStatus::Failed);
    EXPECT_FALSE(result.message.empty());
    EXPECT_EQ(result.evaluations, 1);
}

TEST(FitLeastSquares, NeverReturnsOrReportsAPointOutsideTheDomain) {
    // Data with b = 0.2 while the domain requires b > 0.35: the lowest point lies on the
    // boundary, where the gradient is not small: not a minimum of the model, and not reported as
    // one.
    for (const bool nanOutside : {false, true}) {
        CurveModel model = decay({5.0, 0.2, 1.0}, 0);
        model.inDomain = [](const Values& p) { return p[1] > 0.35 && p[0] > 0; };
        model.nanOutside = nanOutside;
        Recorder rec;
        const FitResult result =
            fitLeastSquares(model, {{5, 1}, {1, 0.5}, {1, 0.5}}, rec.options());
        EXPECT_EQ(result.status, FitStatus::Plateau) << nanOutside;
        EXPECT_TRUE(model.inDomain(result.parameters));
        EXPECT_LT(result.parameters[1], 0.36);
        EXPECT_DOUBLE_EQ(result.deviation, model.deviationAt(result.parameters));
        for (std::size_t i = 0; i < rec.parameters.size(); ++i) {
            EXPECT_TRUE(model.inDomain(rec.parameters[i]) && std::isfinite(rec.deviations[i]));
        }
    }
}

TEST(FitLeastSquares, StopsOnRequestOrAtTheIterationLimitWithTheBestParameters) {
    for (const bool interrupt : {true, false}) {
        CurveModel model = decay({5, 0.4, 1}, 0.1);
        std::atomic<bool> stop{false};
        Recorder rec;
        FitOptions options = rec.options();
        options.stop = &stop;
        options.maxIterations = interrupt ? 200 : 2;
        rec.then = [&] { stop = interrupt && rec.deviations.size() == 3; };
        const FitResult result = fitLeastSquares(model, {{1, 0.5}, {2, 0.1}, {0, 0.5}}, options);
        EXPECT_EQ(result.status, interrupt ? FitStatus::Interrupted : FitStatus::IterationLimit);
        EXPECT_EQ(result.iterations, 2);
        EXPECT_EQ(result.parameters, rec.parameters.back());
        EXPECT_EQ(result.deviation, rec.deviations.back());
        EXPECT_GT(result.uncertainties[1], 0.0);
    }
}

} // namespace
} // namespace corefit
