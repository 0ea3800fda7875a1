// Composite units of sites that a symmetry group permutes, each with a spin-coupled basis of its
// own, for the whole group's blocks (group_blocks.h).
//
// Sites are joined in pairs that every element of the group maps onto pairs (the opposite sites
// i and i + N/2 of a ring of N sites), pairs of such pairs where the group keeps those too (i,
// i + N/4, i + N/2, i + 3N/4), and so on: a forest of binary trees whose roots, the units, the
// group permutes. The states of a unit are coupled on its tree with Clebsch-Gordan coefficients:
// multiplets |alpha j m>, alpha the spins of the tree's inner nodes. An element maps every
// multiplet of a unit to one of its image unit, up to the sign (-1)^(j1 + j2 - J) of every node
// whose children it swaps; a product of unit states goes to another one up to a sign, as product
// states of single sites do. S+ keeps every unit's multiplet and only raises its m.
#pragma once

#include <vector>

#include <Eigen/SparseCore>

#include "problem.h"
#include "symmetry.h"

namespace corefit {

// The most states one unit may have (four sites of S = 5/2).
inline constexpr int maxUnitStates = 1296;

struct GroupUnits {
    using Operator = Eigen::SparseMatrix<double>; // column-major, local states x local states

    struct Unit {
        std::vector<int> sites;     // the sites of the unit
        int states = 0;             // local states: prod (2s + 1) of its sites
        std::vector<int> twiceJ;    // per multiplet
        std::vector<int> offset;    // per multiplet: its first local state; m ascends from -j
        std::vector<int> multiplet; // per local state
        std::vector<int> twiceM;    // per local state
        // Per site of `sites`, in the local basis: s_z and s_+.
        std::vector<Operator> sz, raise;
    };
    std::vector<Unit> units;
    std::vector<int> unitOf, place; // per site: its unit and its index in the unit's sites

    // What element g does to unit u: the unit it goes to, and the local state of that unit each
    // local state goes to, with its sign.
    struct Move {
        int unit = 0;
        std::vector<int> state;
        std::vector<signed char> sign;
    };
    std::vector<std::vector<Move>> moves; // [element][unit]
};

// The units of a group on a system: pairs kept by every element, pairs of those, and so on,
// up to maxUnitStates states per unit; with pair false (or where nothing pairs), single sites.
// Throws std::invalid_argument for a group whose elements do not keep the spins of the sites.
GroupUnits groupUnits(const SpinSystem& system, const SplitGroup& group, bool pair = true);

} // namespace corefit
