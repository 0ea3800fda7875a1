// The symmetry of clusters: the group found, the subgroup the spectrum is split by, and the
// coupling tree that subgroup acts on.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "group_blocks.h"
#include "group_units.h"
#include "symmetry.h"

using namespace corefit;

namespace {

SpinSystem ring(int sites, int twiceSpin, int jValues) {
    SpinSystem system{std::vector<int>(static_cast<std::size_t>(sites), twiceSpin), {}, jValues};
    for (int i = 0; i < sites; ++i) system.bonds.push_back({i, (i + 1) % sites, i % jValues});
    return system;
}

struct Case {
    const char* name;
    SpinSystem system;
    double order, splitOrder;
    const char* groupName;
};

std::vector<Case> cases() {
    SpinSystem cube{std::vector<int>(8, 1), {}, 1};
    for (int a = 0; a < 8; ++a)
        for (int bit : {1, 2, 4})
            if ((a & bit) == 0) cube.bonds.push_back({a, a | bit, 0});
    SpinSystem chain{std::vector<int>(5, 2), {}, 1};
    for (int i = 0; i < 4; ++i) chain.bonds.push_back({i, i + 1, 0});
    return {
        {"ring 8 x 5/2", ring(8, 5, 1), 16, 16, "cyclic 8 + reflections"},
        {"ring 16 x 1/2, J1/J2", ring(16, 1, 2), 16, 16, "cyclic 8 + reflections"},
        {"ring 6 x 5/2", ring(6, 5, 1), 12, 4, "cyclic 6 + reflections"},
        {"ring 6 x 5/2, J1/J2", ring(6, 5, 2), 6, 2, "cyclic 3 + reflections"},
        {"chain of 5", chain, 2, 2, "cyclic 2"},
        {"square, J1 sides, J2 diagonals",
         {{3, 3, 3, 3}, {{0, 1, 0}, {1, 2, 0}, {2, 3, 0}, {3, 0, 0}, {0, 2, 1}, {1, 3, 1}}, 2},
         8,
         8,
         "cyclic 4 + reflections"},
        {"cube", cube, 48, 16, "order 48"},
        {"triangle 1/2 1/2 1", {{1, 1, 2}, {{0, 1, 0}, {1, 2, 0}, {2, 0, 0}}, 1}, 2, 2, "cyclic 2"},
        {"a path counted twice breaks the ring",
         {{1, 1, 1, 1}, {{0, 1, 0}, {1, 2, 0}, {2, 3, 0}, {3, 0, 0}, {0, 1, 0}}, 1},
         2,
         2,
         "cyclic 2"},
        {"no symmetry",
         {{1, 2, 3, 1}, {{0, 1, 0}, {1, 2, 1}, {2, 3, 0}, {3, 0, 1}, {0, 2, 0}}, 2},
         1,
         1,
         "none"},
        {"no paths: all permutations", {std::vector<int>(5, 1), {}, 1}, 120, 8, "order 120"},
    };
}

bool isAutomorphism(const SpinSystem& system, const Permutation& p) {
    const auto n = system.twiceSpin.size();
    auto counts = [&](int a, int b, int j) {
        int k = 0;
        for (const Bond& bond : system.bonds)
            k += bond.j == j && ((bond.a == a && bond.b == b) || (bond.a == b && bond.b == a));
        return k;
    };
    for (std::size_t a = 0; a < n; ++a) {
        if (system.twiceSpin[a] != system.twiceSpin[static_cast<std::size_t>(p[a])]) return false;
        for (std::size_t b = 0; b < n; ++b)
            for (int j = 0; j < system.jCount; ++j)
                if (counts(int(a), int(b), j) != counts(p[a], p[b], j)) return false;
    }
    return true;
}

// Real irreducible representations: each a homomorphism, <chi, chi> its kind (1, 2 or 4), the
// characters of two of them orthogonal, and sum of d^2 / kind the order.
void expectRealIrreps(const SplitGroup& group) {
    const auto n = group.elements.size();
    auto indexOf = [&](const Permutation& p) {
        return static_cast<std::size_t>(std::find(group.elements.begin(), group.elements.end(), p) -
                                        group.elements.begin());
    };
    double squares = 0;
    for (std::size_t k = 0; k < group.irreps.size(); ++k) {
        const auto& irrep = group.irreps[k];
        const int d = irrep.dimension;
        squares += static_cast<double>(d * d) / irrep.kind;
        for (std::size_t l = 0; l <= k; ++l) {
            double product = 0;
            for (std::size_t g = 0; g < n; ++g)
                product += irrep.character(g) * group.irreps[l].character(g);
            EXPECT_NEAR(product / static_cast<double>(n), l == k ? irrep.kind : 0, 1e-9)
                << irrep.name << " with " << group.irreps[l].name;
        }
        for (std::size_t g = 0; g < n; ++g)
            for (std::size_t h = 0; h < n; h += 1 + n / 8) {
                Permutation gh(group.elements[h].size());
                for (std::size_t i = 0; i < gh.size(); ++i)
                    gh[i] = group.elements[g][static_cast<std::size_t>(group.elements[h][i])];
                const double* product = irrep.at(indexOf(gh));
                for (int i = 0; i < d; ++i)
                    for (int j = 0; j < d; ++j) {
                        double sum = 0;
                        for (int x = 0; x < d; ++x)
                            sum += irrep.at(g)[i * d + x] * irrep.at(h)[x * d + j];
                        ASSERT_NEAR(sum, product[i * d + j], 1e-9) << irrep.name;
                    }
            }
    }
    EXPECT_NEAR(squares, static_cast<double>(n), 1e-9);
}

} // namespace

TEST(Symmetry, GroupsOfStandardClusters) {
    for (const Case& c : cases()) {
        SCOPED_TRACE(c.name);
        const SiteSymmetry symmetry = findSymmetry(c.system);
        EXPECT_TRUE(symmetry.complete);
        EXPECT_EQ(symmetry.order, c.order);
        EXPECT_EQ(symmetry.name, c.groupName);
        ASSERT_EQ(symmetry.elements.size(), static_cast<std::size_t>(c.order));
        for (const Permutation& p : symmetry.elements) ASSERT_TRUE(isAutomorphism(c.system, p));

        const int sites = static_cast<int>(c.system.twiceSpin.size());
        const SplitGroup group = splitGroup(symmetry, sites);
        EXPECT_EQ(group.order(), c.splitOrder);
        // Real irreducible representations: sum of squared dimensions is the order, and each is
        // a homomorphism with the orthogonality of characters.
        expectRealIrreps(group);
        const SplitGroup whole = wholeGroup(symmetry, sites);
        EXPECT_EQ(whole.order(), c.order);
        expectRealIrreps(whole);

        // The coupling tree: every element maps the children of a node onto those of its image.
        const CouplingTree tree = couplingTree(group, sites);
        ASSERT_EQ(static_cast<int>(tree.children.size()), sites - 1);
        for (std::size_t g = 0; g < group.elements.size(); ++g)
            for (std::size_t k = 0; k < tree.children.size(); ++k) {
                const auto [l, r] = tree.children[k];
                const int image = tree.image[g][static_cast<std::size_t>(sites) + k];
                auto kids = tree.children[static_cast<std::size_t>(image - sites)];
                if (tree.swapped[g][k]) std::swap(kids[0], kids[1]);
                EXPECT_EQ(kids[0], tree.image[g][static_cast<std::size_t>(l)]);
                EXPECT_EQ(kids[1], tree.image[g][static_cast<std::size_t>(r)]);
            }
    }
}

// The composite units: which sites they join, and in every unit the spin operators of its sites
// in its coupled basis, with the moves of the group. Every unit's total S+ and S_z must act on
// its multiplets as a spin does (the kernel of S+ relies on it), every site's operators must be
// those of a spin commuting with the other sites', and every element must carry the operators of
// a site to those of its image: P s(a) P^T = s(g a), P the element's signed permutation of the
// local states (the signs of swapped children).
TEST(Symmetry, UnitsOfTheWholeGroupCarryTheSpinsOfTheirSites) {
    using Dense = Eigen::MatrixXd;
    SpinSystem cube{std::vector<int>(8, 1), {}, 1};
    for (int a = 0; a < 8; ++a)
        for (int bit : {1, 2, 4})
            if ((a & bit) == 0) cube.bonds.push_back({a, a | bit, 0});
    SpinSystem wheel = ring(5, 1, 1); // a pentagon around a spin 1
    wheel.twiceSpin.push_back(2);
    wheel.jCount = 2;
    for (int i = 0; i < 5; ++i) wheel.bonds.push_back({i, 5, 1});
    const struct {
        const char* name;
        SpinSystem system;
        const char* units;
    } cases[] = {
        {"ring 12 x 1/2", ring(12, 1, 1), "3 units of 4 sites"},
        {"ring 6 x 5/2, J1/J2", ring(6, 5, 2), "3 units of 2 sites"},
        {"ring 10 x 3/2", ring(10, 3, 1), "5 units of 2 sites"},
        {"cube", cube, "4 units of 2 sites"},
        {"ring 9 x 1/2", ring(9, 1, 1), "9 units of 1 site"},
        {"pentagon around a spin 1", wheel, "6 units of 1 site"},
    };
    // Where units would grow or their cells would be too many: pairs of pairs of S = 5/2 (1296
    // states) are not paired again; 3 units of 4 sites of S = 3/2 have 44^3 cells, so single sites.
    EXPECT_EQ(groupUnitsText(ring(8, 5, 1), wholeGroup(findSymmetry(ring(8, 5, 1)), 8)),
              "2 units of 4 sites");
    EXPECT_EQ(groupUnitsText(ring(12, 3, 1), wholeGroup(findSymmetry(ring(12, 3, 1)), 12)),
              "12 units of 1 site");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const int sites = static_cast<int>(c.system.twiceSpin.size());
        const SplitGroup group = wholeGroup(findSymmetry(c.system), sites);
        EXPECT_EQ(groupUnitsText(c.system, group), c.units);
        const GroupUnits units = groupUnits(c.system, group);
        for (std::size_t u = 0; u < units.units.size(); ++u) {
            const GroupUnits::Unit& unit = units.units[u];
            const auto n = static_cast<Eigen::Index>(unit.states);
            Dense totalZ = Dense::Zero(n, n), totalUp = Dense::Zero(n, n), ladder = totalUp;
            for (int k = 0; k < unit.states; ++k) {
                const auto i = static_cast<std::size_t>(k);
                const double j = unit.twiceJ[static_cast<std::size_t>(unit.multiplet[i])] / 2.0,
                             m = unit.twiceM[i] / 2.0;
                if (m < j) ladder(k + 1, k) = std::sqrt(j * (j + 1) - m * (m + 1));
            }
            for (std::size_t p = 0; p < unit.sites.size(); ++p) {
                ASSERT_EQ(units.unitOf[static_cast<std::size_t>(unit.sites[p])],
                          static_cast<int>(u));
                const Dense z(unit.sz[p]), up(unit.raise[p]);
                const double s = c.system.twiceSpin[static_cast<std::size_t>(unit.sites[p])] / 2.0;
                EXPECT_LT((z * up - up * z - up).norm(), 1e-12);
                EXPECT_LT((z * z + 0.5 * (up * up.transpose() + up.transpose() * up) -
                           s * (s + 1) * Dense::Identity(n, n))
                              .norm(),
                          1e-12);
                for (std::size_t q = 0; q < p; ++q)
                    EXPECT_LT((z * Dense(unit.raise[q]) - Dense(unit.raise[q]) * z).norm(), 1e-12);
                totalZ += z;
                totalUp += up;
            }
            Dense m = Dense::Zero(n, n);
            for (int k = 0; k < unit.states; ++k)
                m(k, k) = unit.twiceM[static_cast<std::size_t>(k)] / 2.0;
            EXPECT_LT((totalZ - m).norm(), 1e-12);
            EXPECT_LT((totalUp - ladder).norm(), 1e-12);
            // Every element: the operators of each site go to those of its image.
            for (std::size_t g = 0; g < group.elements.size(); ++g) {
                const GroupUnits::Move& move = units.moves[g][u];
                const GroupUnits::Unit& image = units.units[static_cast<std::size_t>(move.unit)];
                ASSERT_EQ(image.states, unit.states);
                Dense moved = Dense::Zero(n, n);
                for (int k = 0; k < unit.states; ++k)
                    moved(move.state[static_cast<std::size_t>(k)], k) =
                        move.sign[static_cast<std::size_t>(k)];
                for (std::size_t p = 0; p < unit.sites.size(); ++p) {
                    const int site = group.elements[g][static_cast<std::size_t>(unit.sites[p])];
                    ASSERT_EQ(units.unitOf[static_cast<std::size_t>(site)], move.unit);
                    const auto q =
                        static_cast<std::size_t>(units.place[static_cast<std::size_t>(site)]);
                    EXPECT_LT(
                        (moved * Dense(unit.sz[p]) * moved.transpose() - Dense(image.sz[q])).norm(),
                        1e-12);
                    EXPECT_LT(
                        (moved * Dense(unit.raise[p]) * moved.transpose() - Dense(image.raise[q]))
                            .norm(),
                        1e-12);
                }
            }
        }
    }
}

TEST(Symmetry, CycleNotationFromOne) {
    EXPECT_EQ(cycleText({1, 2, 0, 4, 3, 5}), "(1 2 3)(4 5)");
    EXPECT_EQ(cycleText({0, 1, 2}), "identity");
}
