// The three bases must give the same spectrum; the full product basis is the reference.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "spectrum.h"

extern "C" int openblas_get_num_threads(void);

using namespace corefit;

namespace {

struct Cluster {
    const char* name;
    SpinSystem system;
    std::vector<double> j; // kelvin
};

// Mixed spins, several J values, a pair joined twice, a bond written backwards.
std::vector<Cluster> clusters() {
    return {
        {"dimer 1/2", {{1, 1}, {{0, 1, 0}}, 1}, {-100}},
        {"triangle 1/2 1 3/2", {{1, 2, 3}, {{0, 1, 0}, {1, 2, 1}, {2, 0, 2}}, 3}, {-10, 7, -3}},
        {"chain 5/2 1/2 2 1",
         {{5, 1, 4, 2}, {{0, 1, 0}, {1, 2, 1}, {3, 2, 0}, {0, 3, 1}}, 2},
         {-20, 15}},
        {"ring 6 x 1/2 two J",
         {{1, 1, 1, 1, 1, 1},
          {{0, 1, 0}, {1, 2, 1}, {2, 3, 0}, {3, 4, 1}, {4, 5, 0}, {5, 0, 1}},
          2},
         {-30, -12}},
        {"cubane 4 x 1, repeated pair",
         {{2, 2, 2, 2},
          {{0, 1, 0}, {0, 2, 0}, {1, 3, 0}, {2, 3, 0}, {0, 3, 1}, {1, 2, 1}, {0, 1, 1}},
          2},
         {8, -3}},
        {"star 3/2 with 1/2, 1, 5/2 and an unused J",
         {{3, 1, 2, 5}, {{0, 1, 0}, {0, 2, 2}, {0, 3, 2}}, 3},
         {4, 99, -9}},
    };
}

// Every state's energy, ascending, each level repeated by its weight.
std::vector<double> allStates(const Levels& levels) {
    std::vector<double> states;
    for (std::size_t n = 0; n < levels.energy.size(); ++n)
        for (int copy = 0; copy < static_cast<int>(std::lround(levels.weight[n])); ++copy)
            states.push_back(levels.energy[n]);
    std::sort(states.begin(), states.end());
    return states;
}

double thermalMoment(const Levels& levels, double t) {
    const double e0 = *std::min_element(levels.energy.begin(), levels.energy.end());
    double z = 0, m = 0;
    for (std::size_t n = 0; n < levels.energy.size(); ++n) {
        const double boltzmann = std::exp(-(levels.energy[n] - e0) / t);
        z += levels.weight[n] * boltzmann;
        m += levels.moment[n] * boltzmann;
    }
    return m / z;
}

} // namespace

TEST(Spectrum, BlockedBasesAgreeWithTheWholeProductBasis) {
    for (const Cluster& cluster : clusters()) {
        SCOPED_TRACE(cluster.name);
        const std::vector<bool> allSlopes(static_cast<std::size_t>(cluster.system.jCount), true);
        Spectrum full(cluster.system, planSpectrum(cluster.system, Method::Full), 1);
        const Levels reference = full.levels(cluster.j, allSlopes);
        const std::vector<double> referenceStates = allStates(reference);
        double scale = 1;
        for (double e : referenceStates) scale = std::max(scale, std::abs(e));

        for (Method method : {Method::MBlocks, Method::SBlocks}) {
            SCOPED_TRACE(methodName(method));
            const Plan plan = planSpectrum(cluster.system, method);
            Spectrum spectrum(cluster.system, plan, 2);
            const Levels& levels = spectrum.levels(cluster.j, allSlopes);
            const std::vector<double> states = allStates(levels);
            ASSERT_EQ(states.size(), referenceStates.size());
            for (std::size_t i = 0; i < states.size(); ++i)
                ASSERT_NEAR(states[i], referenceStates[i], 1e-10 * scale) << "state " << i;
            for (double t : {0.5, 3.0, 40.0, 300.0})
                EXPECT_NEAR(thermalMoment(levels, t), thermalMoment(reference, t),
                            1e-9 * thermalMoment(reference, t) + 1e-20)
                    << "T = " << t;
            // Hellmann-Feynman slopes: sum_k J_k dE/dJ_k = E for every level.
            for (std::size_t n = 0; n < levels.energy.size(); ++n) {
                double sum = 0;
                for (std::size_t k = 0; k < cluster.j.size(); ++k)
                    sum += cluster.j[k] * levels.slope[k][n];
                ASSERT_NEAR(sum, levels.energy[n], 1e-9 * scale) << "level " << n;
            }
        }
    }
}

TEST(Spectrum, KeepsTheLastSpectrum) {
    const Cluster cluster = clusters()[2];
    Spectrum spectrum(cluster.system, planSpectrum(cluster.system, Method::SBlocks), 1);
    spectrum.levels(cluster.j, {true, true});
    spectrum.levels(cluster.j, {true, false}); // covered by the kept result
    EXPECT_EQ(spectrum.diagonalisations(), 1);
    std::vector<double> moved = cluster.j;
    moved[1] += 1e-4;
    spectrum.levels(moved, {});
    EXPECT_EQ(spectrum.diagonalisations(), 2);
}

TEST(Spectrum, LeavesLapackOnOneThreadWhateverItsOwnThreads) {
    // OpenBLAS's threads wait for each other at every step of a dsyevd: next to other work on
    // the machine that made a spectrum many times slower than on one thread. Blocks run side by
    // side on the engine's threads instead.
    const Cluster cluster = clusters()[3];
    Spectrum spectrum(cluster.system, planSpectrum(cluster.system, Method::MBlocks, 2), 2);
    spectrum.levels(cluster.j, {true, true});
    EXPECT_EQ(openblas_get_num_threads(), 1);
}

TEST(Spectrum, SingleJIsDiagonalisedOnceAndScaled) {
    const SpinSystem ring{{5, 5, 5, 5}, {{0, 1, 0}, {1, 2, 0}, {2, 3, 0}, {3, 0, 0}}, 1};
    const Plan plan = planSpectrum(ring, Method::Automatic);
    EXPECT_TRUE(plan.scaled);
    EXPECT_EQ(plan.method, Method::SBlocks);
    EXPECT_EQ(plan.dimension, 1296);
    EXPECT_EQ(plan.largestBlock, 24); // S = 3 and S = 4
    Spectrum spectrum(ring, plan, 2);
    const Levels a = spectrum.levels({-10}, {true});
    const Levels b = spectrum.levels({-25}, {true});
    EXPECT_EQ(spectrum.diagonalisations(), 1);
    for (std::size_t n = 0; n < a.energy.size(); ++n) {
        EXPECT_DOUBLE_EQ(b.energy[n], 2.5 * a.energy[n]);
        EXPECT_DOUBLE_EQ(a.slope[0][n] * -10, a.energy[n]);
    }
}

TEST(Spectrum, PlanSizesOfStandardProblems) {
    auto ring = [](int sites, int twiceSpin) {
        SpinSystem system{std::vector<int>(static_cast<std::size_t>(sites), twiceSpin), {}, 1};
        for (int i = 0; i < sites; ++i) system.bonds.push_back({i, (i + 1) % sites, 0});
        return system;
    };
    EXPECT_EQ(planSpectrum(ring(6, 5), Method::MBlocks).largestBlock, 4332);
    EXPECT_EQ(planSpectrum(ring(6, 5), Method::SBlocks).largestBlock, 609);
    EXPECT_EQ(planSpectrum(ring(16, 1), Method::SBlocks).largestBlock, 3640);
    EXPECT_EQ(planSpectrum(ring(8, 5), Method::SBlocks).largestBlock, 16576);
    EXPECT_EQ(planSpectrum(ring(20, 1), Method::MBlocks).largestBlock, 184756);
    // Twenty S = 10 sites, the most the input allows: 21^20 states, beyond 64 bits. No count
    // wraps: one block per total spin 0 to 200, and an estimate far beyond any limit.
    const Plan largest = planSpectrum(ring(20, 20), Method::SBlocks);
    EXPECT_DOUBLE_EQ(largest.dimension, std::pow(21.0, 20));
    EXPECT_EQ(largest.blockSizes.size(), 201u);
    EXPECT_GT(largest.largestBlock, 1e22);
    EXPECT_GT(largest.bytes, 1e40);
    EXPECT_FALSE(largest.buildable());
}
