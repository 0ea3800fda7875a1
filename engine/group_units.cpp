#include "group_units.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <map>
#include <numeric>
#include <set>
#include <stdexcept>
#include <string>

#include <gsl/gsl_errno.h>
#include <gsl/gsl_sf_coupling.h>

#include "guards.h"
#include "recoupling.h"

namespace corefit {

namespace {

using Operator = GroupUnits::Operator;
using Triplet = Eigen::Triplet<double>;

// The binary forest: leaves 0..N-1 are the sites, internal nodes N + k couple two children, and
// every element maps each node to a node (internal ones with their children, possibly swapped).
struct Forest {
    int sites = 0;
    std::vector<std::array<int, 2>> children; // of internal node N + k
    std::vector<std::vector<int>> image;      // [element][node]
    std::vector<std::vector<char>> swapped;   // [element][internal node k]
    std::vector<double> states;               // per node
    std::vector<int> roots;                   // the units
};

Forest pairedForest(const SpinSystem& system, const SplitGroup& group, bool pair) {
    Forest forest;
    const int sites = static_cast<int>(system.twiceSpin.size());
    forest.sites = sites;
    const std::size_t count = group.elements.size();
    forest.image = group.elements;
    forest.swapped.assign(count, {});
    for (int s : system.twiceSpin) forest.states.push_back(s + 1.0);
    std::map<std::pair<int, int>, int> nodeOf;
    auto addNode = [&](int left, int right) {
        const int node = sites + static_cast<int>(forest.children.size());
        forest.children.push_back({left, right});
        forest.states.push_back(forest.states[static_cast<std::size_t>(left)] *
                                forest.states[static_cast<std::size_t>(right)]);
        nodeOf[{left, right}] = node;
        return node;
    };
    auto imageOf = [&](std::size_t g, int node) {
        return forest.image[g][static_cast<std::size_t>(node)];
    };
    auto small = [&](int a, int b) {
        return forest.states[static_cast<std::size_t>(a)] *
                   forest.states[static_cast<std::size_t>(b)] <=
               maxUnitStates;
    };
    std::vector<int> level(static_cast<std::size_t>(sites));
    std::iota(level.begin(), level.end(), 0);
    while (pair) {
        const std::size_t before = forest.children.size();
        std::vector<int> next, fixed;
        std::set<int> done;
        for (int x : level) {
            if (done.count(x)) continue;
            std::set<int> orbit;
            for (std::size_t g = 0; g < count; ++g) orbit.insert(imageOf(g, x));
            if (orbit.size() == 1) {
                fixed.push_back(x);
                done.insert(x);
                continue;
            }
            // A partner y such that the images of {x, y} split the orbit into pairs.
            bool paired = false;
            for (int y : orbit) {
                if (y == x || !small(x, y)) continue;
                if (!imagesArePairs(count, imageOf, x, y)) continue;
                for (std::size_t g = 0; g < count; ++g) {
                    const int a = imageOf(g, x), b = imageOf(g, y);
                    if (done.count(a)) continue;
                    next.push_back(addNode(a, b));
                    done.insert(a);
                    done.insert(b);
                }
                paired = true;
                break;
            }
            if (!paired)
                for (int z : orbit) {
                    done.insert(z);
                    next.push_back(z);
                }
        }
        // Nodes that every element fixes pair up among themselves.
        for (std::size_t i = 0; i < fixed.size(); ++i) {
            if (i + 1 < fixed.size() && small(fixed[i], fixed[i + 1])) {
                next.push_back(addNode(fixed[i], fixed[i + 1]));
                ++i;
            } else {
                next.push_back(fixed[i]);
            }
        }
        for (std::size_t g = 0; g < count; ++g)
            for (std::size_t k = before; k < forest.children.size(); ++k) {
                const auto [l, r] = forest.children[k];
                const int gl = imageOf(g, l), gr = imageOf(g, r);
                const auto straight = nodeOf.find({gl, gr});
                const bool swap = straight == nodeOf.end();
                const auto found = swap ? nodeOf.find({gr, gl}) : straight;
                if (found == nodeOf.end())
                    throw std::logic_error("a pairing of sites is not kept by the group");
                forest.image[g].push_back(found->second);
                forest.swapped[g].push_back(swap ? 1 : 0);
            }
        if (forest.children.size() == before) break;
        level = std::move(next);
    }
    forest.roots = level;
    return forest;
}

// <j1 m1 j2 m2 | J M> (Condon-Shortley), every argument 2j or 2m.
double clebschGordan(int j1, int m1, int j2, int m2, int j, int m) {
    gslErrorsAsCodes();
    gsl_sf_result result;
    const int status = gsl_sf_coupling_3j_e(j1, j2, j, m1, m2, -m, &result);
    if (status != GSL_SUCCESS || !std::isfinite(result.val)) {
        char text[160];
        std::snprintf(text, sizeof text,
                      "GSL cannot compute the 3j symbol (%d/2 %d/2 %d/2; %d/2 %d/2 %d/2): %s", j1,
                      j2, j, m1, m2, -m, gsl_strerror(status));
        throw std::runtime_error(text);
    }
    return sign(j1 - j2 + m) * std::sqrt(j + 1.0) * result.val;
}

// The coupled basis of one node: multiplets of its children's multiplets, and s_z, s_+ of every
// site below it.
struct NodeBasis {
    int states = 0;
    std::vector<int> twiceJ, offset; // per multiplet
    std::vector<int> left, right;    // internal: the children's multiplets of each multiplet
    std::vector<int> first;          // internal: the multiplet of (left a, right b) with the
                                     // least J, at a * (right multiplets) + b
    std::vector<int> sites;          // below, left to right
    std::vector<Operator> sz, raise; // per site of `sites`
};

NodeBasis siteBasis(int site, int twiceSpin) {
    NodeBasis basis;
    basis.states = twiceSpin + 1;
    basis.twiceJ = {twiceSpin};
    basis.offset = {0};
    basis.sites = {site};
    std::vector<Triplet> z, up;
    const double s = twiceSpin / 2.0;
    for (int k = 0; k <= twiceSpin; ++k) {
        const double m = k - s;
        if (m != 0) z.emplace_back(k, k, m);
        if (k < twiceSpin) up.emplace_back(k + 1, k, std::sqrt(s * (s + 1) - m * (m + 1)));
    }
    Operator sz(basis.states, basis.states), raise(basis.states, basis.states);
    sz.setFromTriplets(z.begin(), z.end());
    raise.setFromTriplets(up.begin(), up.end());
    basis.sz = {sz};
    basis.raise = {raise};
    return basis;
}

NodeBasis coupledBasis(NodeBasis& a, NodeBasis& b) {
    NodeBasis basis;
    const int nb = static_cast<int>(b.twiceJ.size());
    for (int x = 0; x < static_cast<int>(a.twiceJ.size()); ++x)
        for (int y = 0; y < nb; ++y) {
            const int ja = a.twiceJ[static_cast<std::size_t>(x)],
                      jb = b.twiceJ[static_cast<std::size_t>(y)];
            basis.first.push_back(static_cast<int>(basis.twiceJ.size()));
            for (int j = std::abs(ja - jb); j <= ja + jb; j += 2) {
                basis.twiceJ.push_back(j);
                basis.offset.push_back(basis.states);
                basis.left.push_back(x);
                basis.right.push_back(y);
                basis.states += j + 1;
            }
        }
    // Columns: the coupled states in the product of the children's bases (index ta + na tb).
    std::vector<Triplet> entries;
    for (std::size_t mu = 0; mu < basis.twiceJ.size(); ++mu) {
        const int j = basis.twiceJ[mu];
        const auto x = static_cast<std::size_t>(basis.left[mu]),
                   y = static_cast<std::size_t>(basis.right[mu]);
        const int ja = a.twiceJ[x], jb = b.twiceJ[y];
        for (int m = -j; m <= j; m += 2) {
            const int column = basis.offset[mu] + (m + j) / 2;
            for (int ma = -ja; ma <= ja; ma += 2) {
                const int mb = m - ma;
                if (mb < -jb || mb > jb) continue;
                const double value = clebschGordan(ja, ma, jb, mb, j, m);
                if (value == 0) continue;
                const int ta = a.offset[x] + (ma + ja) / 2, tb = b.offset[y] + (mb + jb) / 2;
                entries.emplace_back(ta + a.states * tb, column, value);
            }
        }
    }
    Operator c(basis.states, basis.states);
    c.setFromTriplets(entries.begin(), entries.end());
    const Operator ct = c.transpose();
    // A site's operator on one child, I on the other, in the coupled basis: C^T (O x I) C.
    auto lift = [&](const Operator& o, bool onLeft) {
        std::vector<Triplet> lifted;
        const int other = onLeft ? b.states : a.states;
        for (int t = 0; t < other; ++t)
            for (int column = 0; column < o.outerSize(); ++column)
                for (Operator::InnerIterator it(o, column); it; ++it) {
                    const auto row = static_cast<int>(it.row());
                    if (onLeft)
                        lifted.emplace_back(row + a.states * t, column + a.states * t, it.value());
                    else
                        lifted.emplace_back(t + a.states * row, t + a.states * column, it.value());
                }
        Operator x(basis.states, basis.states);
        x.setFromTriplets(lifted.begin(), lifted.end());
        Operator result = ct * x * c;
        result.prune(1.0, 1e-13);
        return result;
    };
    for (NodeBasis* child : {&a, &b}) {
        for (std::size_t i = 0; i < child->sites.size(); ++i) {
            basis.sites.push_back(child->sites[i]);
            basis.sz.push_back(lift(child->sz[i], child == &a));
            basis.raise.push_back(lift(child->raise[i], child == &a));
        }
        child->sz.clear();
        child->raise.clear();
    }
    return basis;
}

} // namespace

GroupUnits groupUnits(const SpinSystem& system, const SplitGroup& group, bool pair) {
    for (const Permutation& g : group.elements) {
        bool kept = g.size() == system.twiceSpin.size();
        for (std::size_t i = 0; kept && i < g.size(); ++i)
            kept = g[i] >= 0 && static_cast<std::size_t>(g[i]) < g.size() &&
                   system.twiceSpin[static_cast<std::size_t>(g[i])] == system.twiceSpin[i];
        if (!kept)
            throw std::invalid_argument("a symmetry element " + cycleText(g) +
                                        " does not keep the spins of the sites");
    }
    const Forest forest = pairedForest(system, group, pair);
    const int sites = forest.sites;
    const std::size_t nodes = static_cast<std::size_t>(sites) + forest.children.size(),
                      count = group.elements.size();
    std::vector<NodeBasis> bases(nodes);
    for (int i = 0; i < sites; ++i)
        bases[static_cast<std::size_t>(i)] =
            siteBasis(i, system.twiceSpin[static_cast<std::size_t>(i)]);
    for (std::size_t k = 0; k < forest.children.size(); ++k) {
        const auto [l, r] = forest.children[k];
        bases[static_cast<std::size_t>(sites) + k] =
            coupledBasis(bases[static_cast<std::size_t>(l)], bases[static_cast<std::size_t>(r)]);
    }

    // Where every element takes each multiplet of every node, and the sign.
    std::vector<std::vector<std::vector<int>>> target(count, std::vector<std::vector<int>>(nodes));
    std::vector<std::vector<std::vector<signed char>>> signs(
        count, std::vector<std::vector<signed char>>(nodes));
    for (std::size_t g = 0; g < count; ++g) {
        for (int i = 0; i < sites; ++i) {
            target[g][static_cast<std::size_t>(i)] = {0};
            signs[g][static_cast<std::size_t>(i)] = {1};
        }
        for (std::size_t k = 0; k < forest.children.size(); ++k) {
            const std::size_t node = static_cast<std::size_t>(sites) + k;
            const auto l = static_cast<std::size_t>(forest.children[k][0]),
                       r = static_cast<std::size_t>(forest.children[k][1]);
            const NodeBasis& here = bases[node];
            const auto t = static_cast<std::size_t>(forest.image[g][node]);
            const NodeBasis& there = bases[t];
            const bool swap = forest.swapped[g][k] != 0;
            const auto thereRight =
                bases[static_cast<std::size_t>(
                          forest.children[t - static_cast<std::size_t>(sites)][1])]
                    .twiceJ.size();
            for (std::size_t mu = 0; mu < here.twiceJ.size(); ++mu) {
                const auto x = static_cast<std::size_t>(here.left[mu]),
                           y = static_cast<std::size_t>(here.right[mu]);
                const int gx = target[g][l][x], gy = target[g][r][y];
                const int jx = bases[l].twiceJ[x], jy = bases[r].twiceJ[y], j = here.twiceJ[mu];
                const int first = swap ? there.first[static_cast<std::size_t>(gy) * thereRight +
                                                     static_cast<std::size_t>(gx)]
                                       : there.first[static_cast<std::size_t>(gx) * thereRight +
                                                     static_cast<std::size_t>(gy)];
                target[g][node].push_back(first + (j - std::abs(jx - jy)) / 2);
                double s = signs[g][l][x] * signs[g][r][y];
                if (swap) s *= sign(jx + jy - j);
                signs[g][node].push_back(static_cast<signed char>(s));
            }
        }
    }

    GroupUnits out;
    out.unitOf.assign(static_cast<std::size_t>(sites), -1);
    out.place.assign(static_cast<std::size_t>(sites), -1);
    std::map<int, int> unitOfNode;
    for (int root : forest.roots) {
        NodeBasis& basis = bases[static_cast<std::size_t>(root)];
        GroupUnits::Unit unit;
        unit.sites = basis.sites;
        unit.states = basis.states;
        unit.twiceJ = basis.twiceJ;
        unit.offset = basis.offset;
        for (std::size_t mu = 0; mu < basis.twiceJ.size(); ++mu)
            for (int m = -basis.twiceJ[mu]; m <= basis.twiceJ[mu]; m += 2) {
                unit.multiplet.push_back(static_cast<int>(mu));
                unit.twiceM.push_back(m);
            }
        unit.sz = std::move(basis.sz);
        unit.raise = std::move(basis.raise);
        const int index = static_cast<int>(out.units.size());
        for (std::size_t i = 0; i < unit.sites.size(); ++i) {
            out.unitOf[static_cast<std::size_t>(unit.sites[i])] = index;
            out.place[static_cast<std::size_t>(unit.sites[i])] = static_cast<int>(i);
        }
        unitOfNode[root] = index;
        out.units.push_back(std::move(unit));
    }
    out.moves.assign(count, std::vector<GroupUnits::Move>(out.units.size()));
    for (std::size_t g = 0; g < count; ++g)
        for (std::size_t u = 0; u < out.units.size(); ++u) {
            const auto root = static_cast<std::size_t>(forest.roots[u]);
            const auto image = forest.image[g][root];
            GroupUnits::Move& move = out.moves[g][u];
            move.unit = unitOfNode.at(image);
            const GroupUnits::Unit &from = out.units[u],
                                   &to = out.units[static_cast<std::size_t>(move.unit)];
            for (int k = 0; k < from.states; ++k) {
                const auto mu =
                    static_cast<std::size_t>(from.multiplet[static_cast<std::size_t>(k)]);
                const auto nu = static_cast<std::size_t>(target[g][root][mu]);
                move.state.push_back(to.offset[nu] +
                                     (from.twiceM[static_cast<std::size_t>(k)] + from.twiceJ[mu]) /
                                         2);
                move.sign.push_back(signs[g][root][mu]);
            }
        }
    return out;
}

} // namespace corefit
