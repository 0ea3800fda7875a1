// The magnetisation in a field against an independent brute force, chi in a vanishing field
// against the zero-field model, and the derivatives the fit uses.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <memory>
#include <string>

#include <Eigen/Eigenvalues>

#include "group_blocks.h"
#include "magnetisation.h"
#include "model.h"
#include "product_space.h"
#include "symmetry.h"

using namespace corefit;

namespace {

struct Cluster {
    const char* name;
    SpinSystem system;
    std::vector<double> j; // kelvin
};

// Mixed spins without symmetry, and a ring of S = 1 with two J (symmetry of order 4).
std::vector<Cluster> clusters() {
    return {{"triangle 1/2 1 3/2", {{1, 2, 3}, {{0, 1, 0}, {1, 2, 1}, {2, 0, 2}}, 3}, {-10, 7, -3}},
            {"ring 4 x 1, J1/J2",
             {{2, 2, 2, 2}, {{0, 1, 0}, {1, 2, 1}, {2, 3, 0}, {3, 0, 1}}, 2},
             {-6, 4}}};
}

struct Parameters {
    double g, c, zj, tip; // zJ in kelvin
};

// Brute force, sharing nothing with the engine but the constants: H - h Sz_total of the whole
// product basis, diagonalised whole at every field; <Sz> over its Boltzmann weights; the mean
// field h = g mu_B B / k_B + 2 zJ <Sz> by plain iteration; then M = g <Sz> + C / C0
// tanh(mu_B B / k_B T) + Xtip B 1e4 / N mu_B.
double bruteForce(const reference::ProductSpace& space, const Parameters& p, double t,
                  double tesla) {
    auto mean = [&](double h) {
        const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> solver(space.h - h * space.sz);
        const Eigen::VectorXd e = solver.eigenvalues();
        const Eigen::VectorXd m =
            (solver.eigenvectors().transpose() * space.sz * solver.eigenvectors()).diagonal();
        const Eigen::ArrayXd w = (-(e.array() - e[0]) / t).exp();
        return (w * m.array()).sum() / w.sum();
    };
    const double h0 = p.g * bohrPerBoltzmann * tesla;
    double s = mean(h0), before = 0;
    for (int k = 0; k < 1000 && std::abs(s - before) > 1e-13 * std::abs(s); ++k)
        before = s, s = mean(h0 + 2 * p.zj * s);
    return p.g * s + p.c / curieConstant * std::tanh(bohrPerBoltzmann * tesla / t) +
           p.tip * tesla * 1e4 / molarBohr;
}

// FTLM settings that diagonalise every block whole.
FtlmSettings wholeBlocks() {
    FtlmSettings settings;
    settings.denseLimit = 100000;
    return settings;
}

// The plans of every method: the full basis, M blocks, S blocks, S blocks split by symmetry (by
// the tree's subgroup, and every other total spin by the whole group), and FTLM with every block
// whole.
std::vector<std::pair<std::string, Plan>> everyMethod(const SpinSystem& system) {
    std::vector<std::pair<std::string, Plan>> plans{
        {"full", planSpectrum(system, Method::Full)},
        {"M blocks", planSpectrum(system, Method::MBlocks)},
        {"S blocks", planSpectrum(system, Method::SBlocks)}};
    const int sites = static_cast<int>(system.twiceSpin.size());
    const auto tree = std::make_shared<const SplitGroup>(splitGroup(findSymmetry(system), sites));
    if (tree->order() > 1) {
        const auto whole =
            std::make_shared<const SplitGroup>(wholeGroup(findSymmetry(system), sites));
        Plan mixed = planSpectrum(system, Method::SBlocks, 1, tree, {}, whole);
        mixed.wholeFor.assign(64, 0);
        for (std::size_t label = 0; label < mixed.wholeFor.size(); ++label)
            mixed.wholeFor[label] = label % 4 < 2;
        plans.emplace_back("split by the tree's and the whole group", mixed);
    }
    plans.emplace_back("FTLM, every block whole",
                       planSpectrum(system, Method::Ftlm, 1, nullptr, wholeBlocks()));
    return plans;
}

// A problem on the cluster with chiT points (observed 1) at these temperatures, fitted whole.
Problem problemOf(const SpinSystem& system, std::vector<double> temperatures) {
    Problem problem;
    problem.unit = EnergyUnit::Kelvin;
    problem.twiceSpin = system.twiceSpin;
    problem.bonds = system.bonds;
    problem.parameters.resize(static_cast<std::size_t>(firstJIndex + system.jCount));
    for (double t : temperatures) problem.points.push_back({t, 1});
    problem.last = static_cast<int>(problem.points.size());
    return problem;
}

// Fields and temperatures from the linear range to saturation (7 T at 2 K).
constexpr std::array<std::array<double, 2>, 5> points{{{2, 7}, {2, 0.5}, {5, 2}, {10, 3}, {50, 5}}};

} // namespace

TEST(Magnetisation, AgreesWithBruteForceInAFieldThroughEveryMethod) {
    // With an antiferromagnetic and a ferromagnetic mean field, free centres and TIP.
    const Parameters parameterSets[] = {{2.05, 0.02, -0.4, 2e-4}, {1.98, 0, 0.1, 0}};
    for (const Cluster& cluster : clusters()) {
        SCOPED_TRACE(cluster.name);
        const auto space =
            reference::productSpace(cluster.system.twiceSpin, cluster.system.bonds, cluster.j);
        std::vector<double> expected;
        for (const Parameters& p : parameterSets)
            for (const auto& [t, tesla] : points)
                expected.push_back(bruteForce(space, p, t, tesla));
        for (const auto& [name, plan] : everyMethod(cluster.system)) {
            SCOPED_TRACE(name);
            Spectrum spectrum(cluster.system, plan, 2);
            const Levels& levels = spectrum.levels(cluster.j, {});
            auto truth = expected.begin();
            for (const Parameters& p : parameterSets)
                for (const auto& [t, tesla] : points) {
                    Magnetisation m;
                    ASSERT_EQ(magnetisation(levels, t, tesla, p.g, p.c, p.zj, p.tip, false, m),
                              FieldFault::None);
                    EXPECT_NEAR(m.total, *truth, 1e-9 * std::abs(*truth))
                        << "T = " << t << ", B = " << tesla << ", zJ = " << p.zj;
                    ++truth;
                }
        }
    }
}

TEST(Magnetisation, FtlmAgreesWithinItsErrorAndHoldsLargeSpinsInStrongFields) {
    // A 10 x S=1/2 ring by FTLM with random vectors, chiT at 1 T and M(H), with a mean field:
    // within 4 of its standard errors (the jackknife through the mean field) of the exact values.
    SpinSystem ring{std::vector<int>(10, 1), {}, 1};
    for (int i = 0; i < 10; ++i) ring.bonds.push_back({i, (i + 1) % 10, 0});
    Problem problem = problemOf(ring, {2, 5, 20, 100});
    problem.field = 1;
    for (const auto& [t, tesla] : points) problem.magnetisation.push_back({t, tesla, 1});
    problem.magnetisationLast = static_cast<int>(points.size());
    const std::vector<double> p{2, 0.01, -1, 1e-4, -8};
    Spectrum exact(ring, planSpectrum(ring, Method::SBlocks), 1);
    std::vector<double> truth, values;
    ASSERT_TRUE(SusceptibilityModel(problem, exact).predict(p, truth));
    FtlmSettings settings;
    settings.denseLimit = 20;
    settings.exactLevels = 4;
    settings.vectors = 10;
    Spectrum ftlm(ring, planSpectrum(ring, Method::Ftlm, 1, nullptr, settings), 1);
    SusceptibilityModel model(problem, ftlm);
    ASSERT_TRUE(model.predict(p, values));
    const std::vector<double> errors = model.standardErrors(p);
    ASSERT_EQ(errors.size(), truth.size());
    for (std::size_t i = 0; i < truth.size(); ++i) {
        EXPECT_GT(errors[i], 0) << pointPlace(problem, i);
        EXPECT_LT(std::abs(values[i] - truth[i]), 4 * errors[i]) << pointPlace(problem, i);
    }

    // A lone multiplet of S = 100 in strong and weak fields against the Brillouin function,
    // g sum M e^(xM) / sum e^(xM), x = g mu_B B / k_B T, summed over M and -M together.
    Levels single;
    single.energy = single.moment = {0};
    single.weight = {201};
    single.twice = {200};
    for (const auto& [t, tesla] : {std::pair{2.0, 7.0}, {2.0, 1e-4}, {300.0, 1e-4}}) {
        const double x = 2 * bohrPerBoltzmann * tesla / t;
        double up = 0, z = 1;
        for (int m = 1; m <= 100; ++m) up += 2 * m * std::sinh(x * m), z += 2 * std::cosh(x * m);
        Magnetisation magnetised;
        ASSERT_EQ(magnetisation(single, t, tesla, 2, 0, 0, 0, false, magnetised), FieldFault::None);
        EXPECT_NEAR(magnetised.total, up / z * 2, 1e-9 * up / z * 2)
            << "T = " << t << ", B = " << tesla;
    }
}

TEST(Magnetisation, ChiInAVanishingFieldIsTheZeroFieldChi) {
    // chi and chiT at B = 1e-4 T against the zero-field model, with a mean field of either sign,
    // free centres and TIP, above 5 K where the field's own nonlinearity stays below 1e-9.
    for (const Cluster& cluster : clusters()) {
        SCOPED_TRACE(cluster.name);
        Spectrum spectrum(cluster.system, planSpectrum(cluster.system, Method::SBlocks), 1);
        Problem problem = problemOf(cluster.system, {5, 8, 12, 20, 30, 50, 80, 120, 200, 300});
        for (DataKind kind : {DataKind::Chi, DataKind::ChiT})
            for (double zj : {-0.7, 0.2}) {
                problem.kind = kind;
                std::vector<double> p{2.03, 0.05, zj, 3e-4};
                p.insert(p.end(), cluster.j.begin(), cluster.j.end());
                std::vector<double> zeroField, inField;
                problem.field = 0;
                ASSERT_TRUE(SusceptibilityModel(problem, spectrum).predict(p, zeroField));
                problem.field = 1e-4;
                ASSERT_TRUE(SusceptibilityModel(problem, spectrum).predict(p, inField));
                for (std::size_t i = 0; i < zeroField.size(); ++i)
                    EXPECT_NEAR(inField[i], zeroField[i], 1e-8 * zeroField[i])
                        << "T = " << problem.points[i].temperature << ", zJ = " << zj;
            }
    }
}

TEST(Magnetisation, JacobianOfTheJointResidualsIsTheirDerivative) {
    // chiT at 1 T with relative residuals and a magnetisation set, every parameter free: the
    // Jacobian against central differences, by S blocks (Hellmann-Feynman slopes) and by FTLM
    // (its forward differences, against its own central differences).
    const Cluster cluster = clusters()[1];
    Problem problem = problemOf(cluster.system, {3, 10, 50, 200});
    problem.unit = EnergyUnit::Cm1;
    problem.parameters = {{2.02, 0.01}, {0.01, 0.001}, {-0.3, 0.01},
                          {1e-4, 1e-5}, {-4, 0.1},     {3, 0.1}};
    problem.field = 1;
    problem.weighting = Weighting::Relative;
    for (double tesla : {0.5, 2.0, 5.0, 7.0}) problem.magnetisation.push_back({2, tesla, 3});
    problem.magnetisation.push_back({20, 7, 1});
    problem.magnetisationLast = 5;
    problem.magnetisationWeight = 2;
    const std::vector<int> free{0, 1, 2, 3, 4, 5};
    for (const Plan& plan :
         {planSpectrum(cluster.system, Method::SBlocks),
          planSpectrum(cluster.system, Method::Ftlm, 1, nullptr, wholeBlocks())}) {
        SCOPED_TRACE(methodName(plan.method));
        Spectrum spectrum(cluster.system, plan, 1);
        SusceptibilityModel model(problem, spectrum);
        std::vector<double> p;
        for (const Parameter& parameter : problem.parameters) p.push_back(parameter.start);
        Eigen::VectorXd residuals, up, down;
        Eigen::MatrixXd jacobian;
        ASSERT_TRUE(model.evaluate(p, residuals, &jacobian, free));
        ASSERT_EQ(residuals.size(), 9);
        for (std::size_t k = 0; k < free.size(); ++k) {
            const double step = 1e-3 * problem.parameters[k].step;
            std::vector<double> moved = p;
            moved[k] += step;
            ASSERT_TRUE(model.evaluate(moved, up, nullptr, free));
            moved[k] -= 2 * step;
            ASSERT_TRUE(model.evaluate(moved, down, nullptr, free));
            const Eigen::VectorXd difference = (up - down) / (2 * step);
            const auto column = jacobian.col(static_cast<Eigen::Index>(k));
            EXPECT_LT((column - difference).norm(), 1e-5 * difference.norm() + 1e-12)
                << parameterName(static_cast<int>(k)) << ": " << column.transpose() << " vs "
                << difference.transpose();
        }
    }
}
