// The three bases must give the same spectrum; the full product basis is the reference.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <tuple>

#include "group_blocks.h"
#include "model.h"
#include "spectrum.h"
#include "symmetry.h"

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

double momentAt(const Levels& levels, double t) {
    const double e0 = *std::min_element(levels.energy.begin(), levels.energy.end());
    double z = 0, m = 0;
    for (std::size_t n = 0; n < levels.energy.size(); ++n) {
        const double boltzmann = std::exp(-(levels.energy[n] - e0) / t);
        z += levels.weight[n] * boltzmann;
        m += levels.moment[n] * boltzmann;
    }
    return m / z;
}

std::shared_ptr<const SplitGroup> symmetryOf(const SpinSystem& system) {
    return std::make_shared<const SplitGroup>(
        splitGroup(findSymmetry(system), static_cast<int>(system.twiceSpin.size())));
}

// The levels of `levels` against those of `reference`: every state's energy, <M^2> and, where
// slopes were asked for, sum_k J_k dE/dJ_k = E (Hellmann-Feynman, exact for a homogeneous H).
void expectSameSpectrum(const Levels& levels, const Levels& reference,
                        const std::vector<double>& j, double tolerance) {
    const std::vector<double> states = allStates(levels), referenceStates = allStates(reference);
    double scale = 1;
    for (double e : referenceStates) scale = std::max(scale, std::abs(e));
    ASSERT_EQ(states.size(), referenceStates.size());
    for (std::size_t i = 0; i < states.size(); ++i)
        ASSERT_NEAR(states[i], referenceStates[i], tolerance * scale) << "state " << i;
    for (double t : {0.5, 3.0, 40.0, 300.0})
        EXPECT_NEAR(momentAt(levels, t), momentAt(reference, t),
                    tolerance * momentAt(reference, t) + 1e-20)
            << "T = " << t;
    // The thermal mean of every dH/dJ_k: the same whatever basis degenerate levels come in.
    auto slopeAt = [](const Levels& l, std::size_t k, double t) {
        const double e0 = *std::min_element(l.energy.begin(), l.energy.end());
        double z = 0, sum = 0;
        for (std::size_t n = 0; n < l.energy.size(); ++n) {
            const double boltzmann = l.weight[n] * std::exp(-(l.energy[n] - e0) / t);
            z += boltzmann;
            sum += boltzmann * l.slope[k][n];
        }
        return sum / z;
    };
    for (std::size_t k = 0; k < j.size() && k < reference.slope.size(); ++k) {
        if (reference.slope[k].empty() || k >= levels.slope.size() || levels.slope[k].empty())
            continue;
        for (double t : {3.0, 40.0})
            EXPECT_NEAR(slopeAt(levels, k, t), slopeAt(reference, k, t), tolerance * scale)
                << "J" << k + 1 << ", T = " << t;
    }
    for (std::size_t n = 0; n < levels.energy.size(); ++n) {
        if (levels.slope.empty() || levels.slope[0].empty()) break;
        double sum = 0;
        for (std::size_t k = 0; k < j.size(); ++k) sum += j[k] * levels.slope[k][n];
        ASSERT_NEAR(sum, levels.energy[n], tolerance * scale) << "level " << n;
    }
}

} // namespace

TEST(Spectrum, BlockedBasesAgreeWithTheWholeProductBasis) {
    for (const Cluster& cluster : clusters()) {
        SCOPED_TRACE(cluster.name);
        const std::vector<bool> allSlopes(static_cast<std::size_t>(cluster.system.jCount), true);
        Spectrum full(cluster.system, planSpectrum(cluster.system, Method::Full), 1);
        const Levels reference = full.levels(cluster.j, allSlopes);

        for (int variant = 0; variant < 3; ++variant) {
            const Method method = variant == 0 ? Method::MBlocks : Method::SBlocks;
            SCOPED_TRACE(variant == 2 ? "S blocks split by symmetry" : methodName(method));
            const Plan plan = planSpectrum(cluster.system, method, 1,
                                           variant == 2 ? symmetryOf(cluster.system) : nullptr);
            Spectrum spectrum(cluster.system, plan, 2);
            expectSameSpectrum(spectrum.levels(cluster.j, allSlopes), reference, cluster.j, 1e-9);
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

// One slope of a sparse block may come from the others by sum_k J_k dE/dJ_k = E: asking for
// any of the J, with one J zero or small, gives the slopes of dense products per J.
TEST(Spectrum, SlopesOfAnyJAgreeWhicheverAreAskedFor) {
    const Cluster cluster = clusters()[1];
    for (const std::vector<double>& j :
         {cluster.j, std::vector<double>{-10, 0, 7}, std::vector<double>{-10, 1e-3, 7}}) {
        // Reference: the slopes from dense products per J, on the same eigenvectors.
        Plan dense = planSpectrum(cluster.system, Method::SBlocks);
        dense.denseTerms = true;
        Spectrum reference(cluster.system, dense, 1);
        const std::vector<std::vector<double>> alone = reference.levels(j, {true, true, true}).slope;
        for (int mask = 1; mask < 8; ++mask) {
            const std::vector<bool> asked{(mask & 1) != 0, (mask & 2) != 0, (mask & 4) != 0};
            Spectrum spectrum(cluster.system, planSpectrum(cluster.system, Method::SBlocks), 1);
            const Levels& levels = spectrum.levels(j, asked);
            for (std::size_t k = 0; k < 3; ++k) {
                ASSERT_EQ(levels.slope[k].size(), asked[k] ? alone[k].size() : 0U)
                    << "mask " << mask << ", J" << k + 1;
                for (std::size_t n = 0; n < levels.slope[k].size(); ++n)
                    ASSERT_NEAR(levels.slope[k][n], alone[k][n], 1e-9 * (1 + std::abs(alone[k][n])))
                        << "mask " << mask << ", J" << k + 1 << ", level " << n;
            }
        }
    }
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
    // The 18- and 20-site rings: their large total spins by the whole dihedral group on opposite
    // sites joined in pairs (and those in pairs of pairs), not by the subgroup of order 4 (18
    // sites, largest block 3050) or 8 (20 sites) that keeps a coupling tree.
    for (const auto& [sites, largest, units] : {std::tuple{18, 742, "on 9 units of 2 sites"},
                                                std::tuple{20, 2434, "on 5 units of 4 sites"}}) {
        const SpinSystem system = ring(sites, 1);
        const SiteSymmetry symmetry = findSymmetry(system);
        const Plan plan =
            planSpectrum(system, Method::SBlocks, 2,
                         std::make_shared<const SplitGroup>(splitGroup(symmetry, sites)), {},
                         std::make_shared<const SplitGroup>(wholeGroup(symmetry, sites)));
        EXPECT_EQ(plan.largestBlock, largest);
        EXPECT_NE(plan.describe().find(units), std::string::npos) << plan.describe();
        // The automatic choice keeps them exact, also against FTLM that knows the temperatures
        // of the data (as in a run from 2 to 300 K, where it is fastest).
        FtlmSettings settings;
        settings.lowestTemperature = 2;
        settings.highestTemperature = 300;
        const double exact = estimatedSeconds(plan, 0),
                     ftlm = estimatedSeconds(
                         planSpectrum(system, Method::Ftlm, 2, nullptr, settings), 0);
        EXPECT_FALSE(ftlmFasterEnough(exact, ftlm)) << exact << " s against " << ftlm << " s";
    }
    // Twenty S = 10 sites, the most the input allows: 21^20 states, beyond 64 bits. No count
    // wraps: one block per total spin 0 to 200, and an estimate far beyond any limit.
    const Plan largest = planSpectrum(ring(20, 20), Method::SBlocks);
    EXPECT_DOUBLE_EQ(largest.dimension, std::pow(21.0, 20));
    EXPECT_EQ(largest.blockSizes.size(), 201u);
    EXPECT_GT(largest.largestBlock, 1e22);
    EXPECT_GT(largest.bytes, 1e40);
    EXPECT_FALSE(largest.buildable());
}

// Clusters with symmetry: the S blocks split by it against the S blocks whole. Rings, a chain, a
// cube, a square with diagonals, mixed spins, several J values, an odd number of sites.
TEST(Spectrum, SymmetryBlocksAgreeWithWholeSBlocks) {
    auto ring = [](std::vector<int> spins, int jValues) {
        SpinSystem system{spins, {}, jValues};
        const int n = static_cast<int>(spins.size());
        for (int i = 0; i < n; ++i) system.bonds.push_back({i, (i + 1) % n, i % jValues});
        return system;
    };
    SpinSystem cube{std::vector<int>(8, 1), {}, 2};
    for (int a = 0; a < 8; ++a)
        for (int bit : {1, 2, 4})
            if ((a & bit) == 0) cube.bonds.push_back({a, a | bit, bit == 4 ? 1 : 0});
    SpinSystem wheel = ring({2, 2, 2, 2, 2, 2}, 1); // with a spin at the hub, J2 to it
    wheel.twiceSpin.push_back(3);
    wheel.jCount = 2;
    for (int i = 0; i < 6; ++i) wheel.bonds.push_back({i, 6, 1});
    SpinSystem ladder = ring({1, 1, 1, 1, 1, 1, 1, 1}, 1); // ring with next-nearest paths
    ladder.jCount = 2;
    for (int i = 0; i < 8; ++i) ladder.bonds.push_back({i, (i + 2) % 8, 1});
    const std::vector<Cluster> symmetric{
        {"ring 8 x 1/2", ring({1, 1, 1, 1, 1, 1, 1, 1}, 1), {-10}},
        {"ring 10 x 1/2, J1/J2", ring(std::vector<int>(10, 1), 2), {-10, -7}},
        {"ring 6 x 5/2, J1/J2", ring({5, 5, 5, 5, 5, 5}, 2), {-10, -7}},
        {"ring 4 x 3/2 one J", ring({3, 3, 3, 3}, 1), {-5}},
        {"ring 1/2 and 1 alternating", ring({1, 2, 1, 2, 1, 2, 1, 2}, 1), {-12}},
        {"ring 1/2 5/2 1/2 5/2, three J",
         {{1, 5, 1, 5}, {{0, 1, 0}, {1, 2, 0}, {2, 3, 1}, {3, 0, 1}, {0, 2, 2}}, 3},
         {-12, 5, -3}},
        {"chain 7 x 1", {std::vector<int>(7, 2), {{0, 1, 0}, {1, 2, 1}, {2, 3, 2}, {3, 4, 2}, {4, 5, 1}, {5, 6, 0}}, 3}, {-9, 4, -2}},
        {"cube, J2 between faces", cube, {-6, 3}},
        {"square 3/2 with diagonals", {{3, 3, 3, 3}, {{0, 1, 0}, {1, 2, 0}, {2, 3, 0}, {3, 0, 0}, {0, 2, 1}, {1, 3, 1}}, 2}, {-8, 2}},
        {"wheel 6 x 1 around 3/2", wheel, {-4, 1.5}},
        {"ring 8 x 1/2 with next neighbours", ladder, {-10, 3}},
        {"triangle 1/2 1/2 1", {{1, 1, 2}, {{0, 1, 0}, {1, 2, 1}, {2, 0, 1}}, 2}, {-20, 6}},
    };
    for (const Cluster& cluster : symmetric) {
        SCOPED_TRACE(cluster.name);
        const std::vector<bool> allSlopes(static_cast<std::size_t>(cluster.system.jCount), true);
        Spectrum whole(cluster.system, planSpectrum(cluster.system, Method::SBlocks), 1);
        const Plan plan = planSpectrum(cluster.system, Method::SBlocks, 1, symmetryOf(cluster.system));
        ASSERT_TRUE(plan.split());
        Spectrum split(cluster.system, plan, 2);
        expectSameSpectrum(split.levels(cluster.j, allSlopes), whole.levels(cluster.j, allSlopes),
                           cluster.j, 1e-10);
    }
}

// The whole symmetry group, every irreducible representation (odd orders, non-abelian groups,
// 3-dimensional representations), on the composite units the group permutes (opposite sites of
// the even rings, cube and octahedron paired, pairs of pairs on the 12-site ring, eight sites a
// unit on the 16-site ring; single sites
// where nothing pairs; stabilisers of cells with complex representations on the 6-site ring with
// two J): against the full product basis where it is small, against the S blocks split by the
// subgroup of order 2^k, and against the whole group on single sites.
TEST(Spectrum, WholeGroupBlocksAgreeWithFullBasisAndSplitBlocks) {
    auto ring = [](std::vector<int> spins, int jValues) {
        SpinSystem system{spins, {}, jValues};
        const int n = static_cast<int>(spins.size());
        for (int i = 0; i < n; ++i) system.bonds.push_back({i, (i + 1) % n, i % jValues});
        return system;
    };
    auto graph = [](int sites, int twiceSpin, std::vector<std::pair<int, int>> edges) {
        SpinSystem system{std::vector<int>(static_cast<std::size_t>(sites), twiceSpin), {}, 1};
        for (auto [a, b] : edges) system.bonds.push_back({a, b, 0});
        return system;
    };
    std::vector<std::pair<int, int>> cube, octahedron;
    for (int a = 0; a < 8; ++a)
        for (int bit : {1, 2, 4})
            if ((a & bit) == 0) cube.emplace_back(a, a | bit);
    for (int a = 0; a < 6; ++a)
        for (int b = a + 1; b < 6; ++b)
            if (b != a + 3) octahedron.emplace_back(a, b);
    SpinSystem wheel = ring({1, 1, 1, 1, 1}, 1); // a pentagon around a spin 1
    wheel.twiceSpin.push_back(2);
    wheel.jCount = 2;
    for (int i = 0; i < 5; ++i) wheel.bonds.push_back({i, 5, 1});
    struct Case {
        Cluster cluster;
        bool full; // small enough for the full product basis
        int order;
    };
    const std::vector<Case> cases{
        {{"ring 5 x 3/2", ring({3, 3, 3, 3, 3}, 1), {-7}}, true, 10},
        {{"ring 6 x 1", ring({2, 2, 2, 2, 2, 2}, 1), {-9}}, true, 12},
        {{"ring 9 x 1/2", ring(std::vector<int>(9, 1), 1), {-11}}, true, 18},
        {{"ring 10 x 1/2, J1/J2", ring(std::vector<int>(10, 1), 2), {-10, -4}}, true, 10},
        {{"ring 9 x 1/2, J1/J2/J3: cyclic 3, complex",
          ring(std::vector<int>(9, 1), 3),
          {-10, -4, 3}},
         true,
         3},
        {{"ring 12 x 1/2", ring(std::vector<int>(12, 1), 1), {-10}}, false, 24},
        {{"ring 14 x 1/2", ring(std::vector<int>(14, 1), 1), {-10}}, false, 28},
        {{"ring 16 x 1/2: two units of 8 sites", ring(std::vector<int>(16, 1), 1), {-10}},
         false,
         32},
        {{"ring 6 x 5/2, J1/J2", ring({5, 5, 5, 5, 5, 5}, 2), {-10, -7}}, false, 6},
        {{"triangle 3 x 3/2", graph(3, 3, {{0, 1}, {1, 2}, {2, 0}}), {-13}}, true, 6},
        {{"ring 4 x 5/2: one unit of 1296 states", ring({5, 5, 5, 5}, 1), {-9}}, true, 8},
        {{"tetrahedron 4 x 3/2",
          graph(4, 3, {{0, 1}, {0, 2}, {0, 3}, {1, 2}, {1, 3}, {2, 3}}),
          {5}},
         true,
         24},
        {{"cube 8 x 1/2", graph(8, 1, cube), {-8}}, true, 48},
        {{"octahedron 6 x 1", graph(6, 2, octahedron), {-6}}, true, 48},
        {{"ring 1/2 and 1 alternating", ring({1, 2, 1, 2, 1, 2, 1, 2}, 1), {-12}}, true, 8},
        {{"pentagon 1/2 around 1", wheel, {-4, 1.5}}, true, 10},
    };
    for (const Case& c : cases) {
        const Cluster& cluster = c.cluster;
        SCOPED_TRACE(cluster.name);
        const std::vector<bool> allSlopes(static_cast<std::size_t>(cluster.system.jCount), true);
        const SiteSymmetry symmetry = findSymmetry(cluster.system);
        const int sites = static_cast<int>(cluster.system.twiceSpin.size());
        const auto whole = std::make_shared<const SplitGroup>(wholeGroup(symmetry, sites));
        ASSERT_EQ(whole->order(), c.order);
        const Plan plan = planSpectrum(cluster.system, Method::SBlocks, 1, whole);
        ASSERT_TRUE(plan.split());
        Spectrum spectrum(cluster.system, plan, 2);
        const Levels& levels = spectrum.levels(cluster.j, allSlopes);
        Spectrum split(cluster.system,
                       planSpectrum(cluster.system, Method::SBlocks, 1, symmetryOf(cluster.system)),
                       2);
        expectSameSpectrum(levels, split.levels(cluster.j, allSlopes), cluster.j, 1e-10);
        // Every other total spin by the whole group, the rest by the tree's subgroup.
        Plan mixed =
            planSpectrum(cluster.system, Method::SBlocks, 1, symmetryOf(cluster.system), {}, whole);
        mixed.wholeFor.assign(64, 0);
        for (std::size_t label = 0; label < mixed.wholeFor.size(); ++label)
            mixed.wholeFor[label] = label % 4 < 2;
        Spectrum both(cluster.system, mixed, 2);
        expectSameSpectrum(both.levels(cluster.j, allSlopes), levels, cluster.j, 1e-10);
        // The whole group on product states of single sites, each (M = S, irrep) space's kernel
        // from one QR factorisation (the earlier way), against its composite units.
        Spectrum single(cluster.system,
                        planSpectrum(cluster.system, Method::SBlocks, 1, whole, {}, nullptr, true),
                        2);
        expectSameSpectrum(levels, single.levels(cluster.j, allSlopes), cluster.j, 1e-10);
        if (c.full) {
            Spectrum full(cluster.system, planSpectrum(cluster.system, Method::Full), 2);
            expectSameSpectrum(levels, full.levels(cluster.j, allSlopes), cluster.j, 1e-9);
        }
    }
}

// The blocks of every total spin are built side by side and diagonalised by whichever thread is
// free: a stop asked for before is seen at once, without waiting for blocks that never come. A
// group that does not keep the spins of the sites (that of a ring of equal spins, given with
// alternating ones) is refused, not built on.
TEST(Spectrum, WholeGroupBlocksStopOnRequestAndRefuseAGroupOfOtherSpins) {
    SpinSystem ring{std::vector<int>(12, 1), {}, 1};
    for (int i = 0; i < 12; ++i) ring.bonds.push_back({i, (i + 1) % 12, 0});
    const SiteSymmetry symmetry = findSymmetry(ring);
    const auto whole = std::make_shared<const SplitGroup>(wholeGroup(symmetry, 12));
    const Plan plan = planSpectrum(ring, Method::SBlocks, 2, symmetryOf(ring), {}, whole);
    ASSERT_NE(plan.describe().find("the whole group"), std::string::npos);
    StopFlag stop{true};
    EXPECT_THROW(Spectrum(ring, plan, 2, &stop), Interrupted);

    SpinSystem mixed = ring;
    for (std::size_t i = 1; i < 12; i += 2) mixed.twiceSpin[i] = 2;
    Plan wrong = plan;
    wrong.whole = whole;
    wrong.wholeFor.assign(64, 1);
    EXPECT_THROW(Spectrum(mixed, wrong, 2), std::invalid_argument);
}

// FTLM on clusters of 10 and 12 sites, its blocks above 100 states by random vectors: within
// four of its own standard errors of the exact <M^2>, and the same numbers again from the same
// seed.
TEST(Ftlm, AgreesWithExactWithinItsErrorAndRepeatsFromItsSeed) {
    SpinSystem ring12{std::vector<int>(12, 1), {}, 2};
    for (int i = 0; i < 12; ++i) ring12.bonds.push_back({i, (i + 1) % 12, i % 2});
    SpinSystem mixed{{1, 2, 1, 2, 1, 2, 1, 2, 1, 2}, {}, 2};
    for (int i = 0; i < 10; ++i) mixed.bonds.push_back({i, (i + 1) % 10, 0});
    mixed.bonds.push_back({0, 5, 1});
    const std::vector<Cluster> cases{{"ring 12 x 1/2, J1/J2", ring12, {-10, -7}},
                                     {"ring of 1/2 and 1, one cross path", mixed, {-15, 4}}};
    FtlmSettings settings;
    settings.vectors = 12;
    settings.steps = 60;
    settings.exactLevels = 4;
    settings.denseLimit = 100;
    for (const Cluster& cluster : cases) {
        SCOPED_TRACE(cluster.name);
        Spectrum exact(cluster.system, planSpectrum(cluster.system, Method::SBlocks), 1);
        const Levels reference = exact.levels(cluster.j, {});
        const Plan plan = planSpectrum(cluster.system, Method::Ftlm, 2, nullptr, settings);
        Spectrum ftlm(cluster.system, plan, 2);
        EXPECT_FALSE(ftlm.exactSlopes());
        const Levels estimate = ftlm.levels(cluster.j, {});
        ASSERT_EQ(estimate.samples, settings.vectors);
        for (double t : {2.0, 5.0, 20.0, 100.0, 300.0}) {
            const double error = thermalMomentError(estimate, t);
            EXPECT_GT(error, 0);
            EXPECT_NEAR(thermalMoment(estimate, t).value, momentAt(reference, t),
                        4 * error + 1e-9)
                << "T = " << t;
        }
        Spectrum again(cluster.system, plan, 1);
        EXPECT_EQ(again.levels(cluster.j, {}).energy, estimate.energy);
        EXPECT_EQ(again.levels(cluster.j, {}).weight, estimate.weight);
        settings.seed = 2;
        Spectrum otherSeed(cluster.system,
                           planSpectrum(cluster.system, Method::Ftlm, 2, nullptr, settings), 2);
        EXPECT_NE(otherSeed.levels(cluster.j, {}).weight, estimate.weight);
        settings.seed = 1;
    }
}

// Told the temperatures of the data, FTLM finds exactly only the levels that count there: on a
// 14-site ring from 20 K up, the blocks keep fewer exact levels than without temperatures (those
// of larger M far fewer), and from 1 K up more again; the estimate stays within four of its
// standard errors of the exact one each time.
TEST(Ftlm, FindsExactlyTheLevelsThatCountAtTheTemperaturesOfTheData) {
    SpinSystem ring{std::vector<int>(14, 1), {}, 1};
    for (int i = 0; i < 14; ++i) ring.bonds.push_back({i, (i + 1) % 14, 0});
    const std::vector<double> j{-10};
    Spectrum exact(ring, planSpectrum(ring, Method::SBlocks), 1);
    const Levels& reference = exact.levels(j, {});
    FtlmSettings settings;
    settings.vectors = 12;
    settings.steps = 60;
    settings.denseLimit = 50;
    auto exactLevels = [&](double lowest) {
        settings.lowestTemperature = lowest;
        settings.highestTemperature = 300;
        Spectrum ftlm(ring, planSpectrum(ring, Method::Ftlm, 2, nullptr, settings), 2);
        const Levels levels = ftlm.levels(j, {});
        std::vector<int> perM(8, 0);
        for (std::size_t n = 0; n < levels.energy.size(); ++n)
            if (levels.sample[n] < 0) perM[static_cast<std::size_t>(levels.twice[n] / 2)] += 1;
        for (double t : {std::max(lowest, 2.0), 30.0, 300.0}) {
            const double error = thermalMomentError(levels, t);
            EXPECT_NEAR(thermalMoment(levels, t).value, momentAt(reference, t), 4 * error + 1e-9)
                << "T = " << t;
        }
        return perM;
    };
    const std::vector<int> all = exactLevels(0), warm = exactLevels(20), cold = exactLevels(1);
    // (M = 0 to 3: blocks of 72 to 245 states, by random vectors; above, whole.)
    EXPECT_GT(warm[0], 0);
    EXPECT_LT(warm[0], all[0]);
    EXPECT_LT(2 * warm[3], all[3]);
    EXPECT_GT(cold[0], warm[0]);
    EXPECT_GT(cold[1], warm[1]);
}

// With the data's temperatures known, the random vectors' Lanczos runs end where more steps
// change nothing there: on a 16-site ring from 0.1 K up (no exact levels, so that the runs carry
// the lowest levels too) they take far fewer steps than the 100 allowed, and chi T follows that
// of the full runs (same vectors) to 1e-8, at the first J values and at others, where the blocks
// keep the steps they took at the first.
TEST(Ftlm, RunsEndWhereMoreStepsChangeNothingAtTheTemperaturesOfTheData) {
    SpinSystem ring{std::vector<int>(16, 1), {}, 1};
    for (int i = 0; i < 16; ++i) ring.bonds.push_back({i, (i + 1) % 16, 0});
    FtlmSettings settings;
    settings.vectors = 3;
    settings.exactLevels = 0; // the same (none) with and without the temperatures
    settings.denseLimit = 50;
    Spectrum full(ring, planSpectrum(ring, Method::Ftlm, 2, nullptr, settings), 2);
    settings.lowestTemperature = 0.1;
    settings.highestTemperature = 300;
    Spectrum ended(ring, planSpectrum(ring, Method::Ftlm, 2, nullptr, settings), 2);
    for (double j : {-10.0, -13.0}) {
        SCOPED_TRACE(j);
        const Levels& all = full.levels({j}, {});
        const Levels& few = ended.levels({j}, {});
        EXPECT_LT(few.energy.size(), all.energy.size() / 2);
        for (double t : {0.1, 1.0, 30.0, 300.0}) {
            const double reference = thermalMoment(all, t).value;
            EXPECT_NEAR(thermalMoment(few, t).value, reference, 1e-8 * reference) << "T = " << t;
        }
    }
    EXPECT_NE(ended.ftlmSummary().find("converged after"), std::string::npos);
}

// FTLM's blocks of fixed M and character of the cyclic symmetry, diagonalised whole, hold the
// exact spectrum: an odd ring (complex blocks), an even ring of mixed spins with two J (the
// translation by two sites), and a cluster whose largest symmetry is not a rotation of all sites.
// Their sizes are those the plan counts from characters.
TEST(Ftlm, SymmetryBlocksHoldTheExactSpectrum) {
    SpinSystem ring7{std::vector<int>(7, 3), {}, 1};
    for (int i = 0; i < 7; ++i) ring7.bonds.push_back({i, (i + 1) % 7, 0});
    SpinSystem mixed{{1, 2, 1, 2, 1, 2, 1, 2}, {}, 2};
    for (int i = 0; i < 8; ++i) mixed.bonds.push_back({i, (i + 1) % 8, i % 2});
    const std::vector<Cluster> cases{
        {"ring 7 x 3/2", ring7, {-10}},
        {"ring of 1/2 and 1, two J", mixed, {-12, 5}},
        {"star 3/2 with 1/2, 1, 5/2", clusters()[5].system, clusters()[5].j},
        {"cubane 4 x 1", clusters()[4].system, clusters()[4].j}};
    FtlmSettings settings;
    settings.denseLimit = 100000;
    settings.vectors = 1000; // so that every block is cheaper whole
    for (const Cluster& cluster : cases) {
        SCOPED_TRACE(cluster.name);
        Spectrum exact(cluster.system, planSpectrum(cluster.system, Method::MBlocks), 1);
        const Plan plan = planSpectrum(cluster.system, Method::Ftlm, 2, nullptr, settings);
        Spectrum ftlm(cluster.system, plan, 2);
        const Levels& levels = ftlm.levels(cluster.j, {});
        EXPECT_EQ(levels.samples, 0);
        double states = 0;
        for (double w : levels.weight) states += w;
        EXPECT_NEAR(states, plan.dimension, 1e-9 * plan.dimension);
        for (double t : {0.5, 3.0, 40.0, 300.0})
            EXPECT_NEAR(thermalMoment(levels, t).value, momentAt(exact.levels(cluster.j, {}), t),
                        1e-10 * momentAt(exact.levels(cluster.j, {}), t))
                << "T = " << t;
    }
    EXPECT_EQ(ftlmSizes(ring7).order, 7);
    EXPECT_EQ(ftlmSizes(mixed).order, 4);
    EXPECT_EQ(ftlmSizes(mixed, false).order, 1);
}

// The exact levels of FTLM are the lowest of their block with every degenerate partner (a 12-site
// J1/J2 ring has many degenerate pairs), their number is kept where the J values move, and no
// degenerate group is cut: against the M blocks diagonalised whole.
TEST(Ftlm, KeepsTheLowestLevelsOfEveryBlockWithTheirDegeneratePartners) {
    SpinSystem ring{std::vector<int>(12, 1), {}, 2};
    for (int i = 0; i < 12; ++i) ring.bonds.push_back({i, (i + 1) % 12, i % 2});
    FtlmSettings settings;
    settings.exactLevels = 5;
    settings.denseLimit = 100;
    settings.symmetry = false;
    Spectrum ftlm(ring, planSpectrum(ring, Method::Ftlm, 1, nullptr, settings), 1);
    Spectrum whole(ring, planSpectrum(ring, Method::MBlocks), 1);
    // The levels of each M >= 0 (a level's M^2 is its moment over its weight).
    auto byM = [](const Levels& levels, bool exactOnly) {
        std::vector<std::vector<double>> blocks(7);
        for (std::size_t n = 0; n < levels.energy.size(); ++n) {
            if (exactOnly && levels.sample[n] >= 0) continue;
            if (levels.weight[n] == 0) continue; // an exact level handed to the random vectors
            const auto m = static_cast<std::size_t>(
                std::lround(std::sqrt(levels.moment[n] / levels.weight[n])));
            blocks[m].push_back(levels.energy[n]);
        }
        for (auto& block : blocks) std::sort(block.begin(), block.end());
        return blocks;
    };
    std::vector<std::size_t> counts;
    for (const std::vector<double>& j : {std::vector<double>{-10, -7}, {-12, -6}}) {
        const auto exact = byM(ftlm.levels(j, {}), true), all = byM(whole.levels(j, {}), false);
        for (std::size_t m = 0; m < 3; ++m) { // blocks of 924, 792, 495 states
            SCOPED_TRACE(m);
            const std::size_t k = exact[m].size();
            ASSERT_GT(k, 0u);
            ASSERT_LT(k, all[m].size());
            for (std::size_t i = 0; i < k; ++i) EXPECT_NEAR(exact[m][i], all[m][i], 1e-8);
            if (j[0] == -10) {
                EXPECT_GT(all[m][k] - all[m][k - 1], 1e-6); // the cut lies at a gap
                counts.push_back(k);
            } else {
                EXPECT_EQ(k, counts[m]);
            }
        }
    }
}
