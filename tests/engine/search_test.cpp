// The search for the global minimum on clusters where one start is not enough: fits that stop on
// a plateau or at a false minimum are not reported as converged, and the search ends at the
// global minimum, naming the equivalent one where the spectrum cannot tell two apart.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <memory>

#include "model.h"
#include "search.h"

using namespace corefit;

namespace {

// A problem with synthetic data (noise of 0.3 % of each value) and a model on two workers.
struct Case {
    Problem problem;
    SpinSystem system;
    std::vector<std::unique_ptr<Spectrum>> spectra;
    std::vector<std::unique_ptr<SusceptibilityModel>> models;

    Case(EnergyUnit unit, DataKind kind, std::vector<int> twiceSpin, std::vector<Bond> bonds,
         const std::vector<double>& truth) {
        problem.unit = unit;
        problem.kind = kind;
        problem.twiceSpin = std::move(twiceSpin);
        problem.bonds = std::move(bonds);
        problem.parameters.assign(truth.size(), {});
        for (double t : {2, 3, 4, 5, 6, 8, 10, 12, 15, 20, 25, 30, 40, 50, 60, 80, 100, 130, 160,
                         200, 250, 300})
            problem.points.push_back({t, 0});
        problem.last = static_cast<int>(problem.points.size());
        system = {problem.twiceSpin, problem.bonds, problem.jCount()};
        for (int w = 0; w < 2; ++w) {
            spectra.push_back(std::make_unique<Spectrum>(
                system, planSpectrum(system, Method::Automatic), 1));
            models.push_back(std::make_unique<SusceptibilityModel>(problem, *spectra.back()));
        }
        std::vector<double> clean;
        EXPECT_TRUE(models[0]->predict(truth, clean));
        std::uint64_t state = 2024;
        auto uniform = [&] {
            state = state * 6364136223846793005ULL + 1442695040888963407ULL;
            return (static_cast<double>(state >> 11) + 0.5) / 9007199254740992.0;
        };
        for (std::size_t i = 0; i < clean.size(); ++i)
            problem.points[i].observed =
                clean[i] * (1 + 0.003 * std::sqrt(-2 * std::log(uniform())) *
                                    std::cos(6.283185307179586 * uniform()));
    }

    void startAt(const std::vector<double>& start, const std::vector<double>& steps) {
        for (std::size_t i = 0; i < start.size(); ++i) problem.parameters[i] = {start[i], steps[i]};
    }

    FitResult fit() { return fitLeastSquares(*models[0], problem.parameters, {}); }

    struct Search {
        std::vector<FitResult> results;
        SearchSummary summary;
        const FitResult& best() const { return results[static_cast<std::size_t>(summary.best)]; }
    };
    Search search() {
        std::vector<std::vector<double>> starts(1);
        for (const Parameter& p : problem.parameters) starts[0].push_back(p.start);
        for (auto& other : spreadStarts(problem, maxDefaultStarts)) starts.push_back(other);
        Search out;
        out.results = fitFromStarts({models[0].get(), models[1].get()}, problem.parameters,
                                    starts, [](int, int) { return FitOptions{}; });
        double scale = 0;
        for (const Point& point : problem.points) scale += point.observed * point.observed;
        out.summary = summarise(out.results, defaultTolerance, scale);
        return out;
    }
};

} // namespace

TEST(Search, TheDimerAndTheTriangleEndAtTheGlobalMinimumFromStartsThatMissIt) {
    // A Cu2 dimer in chiT (J = -20 K): from J = +20 K one fit runs to g -> 0, where C alone
    // carries chiT. A (1/2, 1, 1/2) triangle in cm-1 with g, zJ, J1 and J2 free: from ferro-
    // magnetic starts one fit stops on a plateau or at the iteration limit far above the minimum.
    struct Trial {
        Case* c;
        std::vector<double> start;
    };
    Case dimer(EnergyUnit::Kelvin, DataKind::ChiT, {1, 1}, {{0, 1, 0}}, {2.05, 0.005, 0, 0, -20});
    const std::vector<double> dimerSteps{0.01, 0.001, 0, 0, 1};
    Case triangle(EnergyUnit::Cm1, DataKind::ChiT, {1, 2, 1}, {{0, 1, 0}, {1, 2, 0}, {0, 2, 1}},
                  {2.05, 0, -0.3, 0, -12, -4});
    const std::vector<double> triangleSteps{0.01, 0, 0.01, 0, 0.5, 0.5};

    for (Case* c : {&dimer, &triangle}) {
        const bool isDimer = c == &dimer;
        const auto& steps = isDimer ? dimerSteps : triangleSteps;
        // The global minimum, from a start near the truth.
        c->startAt(isDimer ? std::vector<double>{2, 0, 0, 0, -15}
                           : std::vector<double>{2, 0, 0, 0, -10, -3},
                   steps);
        const FitResult global = c->fit();
        ASSERT_EQ(global.status, FitStatus::Converged);
        const std::vector<std::vector<double>> misses =
            isDimer ? std::vector<std::vector<double>>{{2, 0, 0, 0, 20}, {2, 0, 0, 0, 100}}
                    : std::vector<std::vector<double>>{
                          {2, 0, 0, 0, 10, 30}, {2, 0, 0, 0, 30, -30}, {2, 0, 0, 0, 10, -10}};
        for (const auto& start : misses) {
            c->startAt(start, steps);
            const FitResult one = c->fit();
            EXPECT_GT(one.deviation, 100 * global.deviation) << "from J1 = " << start[4];
            EXPECT_NE(one.status, FitStatus::Converged) << "from J1 = " << start[4];

            const Case::Search search = c->search();
            ASSERT_GE(search.summary.best, 1);
            EXPECT_EQ(search.best().status, FitStatus::Converged);
            EXPECT_NEAR(search.best().deviation, global.deviation, 1e-6 * global.deviation);
            for (std::size_t k = 4; k < global.parameters.size(); ++k)
                EXPECT_NEAR(search.best().parameters[k], global.parameters[k],
                            0.01 * global.uncertainties[k]);
            EXPECT_TRUE(fitWarnings(c->problem, search.best()).empty());
        }
    }
}

TEST(Search, NamesTheEquivalentMinimumOfAnIsoscelesTriangle) {
    // J1 on 1-2 and 2-3, J2 on 1-3 of three S = 1/2: (J1, J2) and ((J1 + 2 J2) / 3,
    // (4 J1 - J2) / 3) give the same levels, so the same chi.
    Case c(EnergyUnit::Kelvin, DataKind::Chi, {1, 1, 1}, {{0, 1, 0}, {1, 2, 0}, {0, 2, 1}},
           {2.1, 0, 0, 1.8e-4, -25, -8});
    c.startAt({2.0, 0, 0, 1e-4, -20, -5}, {0.01, 0, 0, 1e-5, 0.2, 0.1});
    const Case::Search search = c.search();
    ASSERT_EQ(search.summary.alternatives.size(), 1u);
    const Alternative& other = search.summary.alternatives.front();
    EXPECT_TRUE(other.equivalent);
    const std::vector<double>& p = search.best().parameters;
    EXPECT_NEAR(other.values[4], (p[4] + 2 * p[5]) / 3, 0.02);
    EXPECT_NEAR(other.values[5], (4 * p[4] - p[5]) / 3, 0.02);
    EXPECT_NEAR(other.deviation, search.best().deviation, 1e-6 * search.best().deviation);
}

TEST(Search, StartsCoverEverySignAndTheWarningsNameWhatAChemistWouldQuestion) {
    Problem problem;
    problem.unit = EnergyUnit::Cm1;
    problem.twiceSpin = {1, 1, 1};
    problem.parameters = {{2.0, 0.01}, {0.001, 0}, {0.1, 0.01}, {0, 0}, {-5, 1}, {-5, 1}, {-5, 0}};
    problem.points = {{2, 1}, {50, 1}, {300, 1}, {400, 1}};
    problem.last = 3; // the fitted range: 2 to 300 K
    const auto starts = spreadStarts(problem, 8);
    ASSERT_EQ(starts.size(), 8u);
    std::vector<bool> signs(4, false);
    for (std::size_t k = 0; k < starts.size(); ++k) {
        const auto& p = starts[k];
        if (k < 4) signs[(p[4] > 0 ? 1u : 0u) + (p[5] > 0 ? 2u : 0u)] = true;
        EXPECT_GE(p[0], 1.9);
        EXPECT_LE(p[0], 2.2);
        EXPECT_EQ(p[1], 0.001); // fixed: kept
        EXPECT_EQ(p[2], 0);
        EXPECT_EQ(p[6], -5);
        for (std::size_t j : {4u, 5u}) {
            const double kelvin = std::abs(p[j]) * kelvinPerCm1;
            EXPECT_GE(kelvin, 2.0 / 5 * (1 - 1e-12));
            EXPECT_LE(kelvin, 3 * 300.0 * (1 + 1e-12));
        }
    }
    EXPECT_EQ(signs, std::vector<bool>(4, true));

    FitResult result;
    result.parameters = {0.4, 0.001, 0.1, 0, -5, 2, -5};
    result.freeIndices = {0, 2, 4, 5};
    result.uncertainties = {0.01, 0, 0.001, 0, std::nan(""), 50, 0};
    const auto warnings = fitWarnings(problem, result);
    ASSERT_EQ(warnings.size(), 3u);
    EXPECT_NE(warnings[0].find("g = 0.4 lies outside 1 to 3"), std::string::npos);
    EXPECT_NE(warnings[1].find("J1 is undetermined"), std::string::npos);
    EXPECT_NE(warnings[2].find("uncertainty of J2 (50)"), std::string::npos);
}
