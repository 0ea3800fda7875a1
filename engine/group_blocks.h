// S blocks split by every irreducible representation of the whole symmetry group.
//
// A coupling tree is kept only by groups of order 2^k, so the whole group (odd orders,
// non-abelian groups such as that of a cube) works on product states instead: a permutation of
// sites maps each product state to another one, up to a sign once sites are joined into the
// composite units the group permutes (group_units.h). For total spin S and a real irreducible
// representation Gamma with matrices D(g), the vectors P_1k |p> of an orbit representative p
// with M = S, P_kl = d/|G| sum_g D_kl(g) R(g), give an orthonormal basis of the first row of
// Gamma among the states of M = S (orbit by orbit, as for split S blocks). The states of total
// spin S among them are those that S+ takes to zero: S+ maps this space onto the same space of
// M = S + 1, and the kernel is found by QR factorisations of S+. The Hamiltonian in that kernel
// is the (S, Gamma) block. A level of it stands for d / kind (2S + 1) states (kind 2 or 4 for a
// real representation of complex or quaternionic type, whose levels the block holds twice or
// four times).
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <Eigen/Dense>

#include "guards.h"
#include "problem.h"
#include "symmetry.h"

namespace corefit {

// Largest group whose representations are found (from its regular representation).
inline constexpr int maxWholeGroupOrder = 512;

// The whole symmetry group with every real irreducible representation, found numerically from
// a random symmetric element commuting with the regular representation (same seed each time).
// Order 1 (no splitting) when the group is not complete or larger than maxWholeGroupOrder.
SplitGroup wholeGroup(const SiteSymmetry& symmetry, int sites);

// The cost of building the blocks of each total spin by the whole group, before anything is
// built: one thread's seconds and the bytes it holds meanwhile (not the blocks themselves), from
// the sizes of the spaces of M = S and M = S + 1, of the classes of cells the kernel of S+ is
// found in (see buildGroupBlocks) and of the blocks. slots: J values with a matrix each.
struct GroupBuildCost {
    int twiceTotal = 0;
    double seconds = 0, bytes = 0;
};
std::vector<GroupBuildCost> groupBuildCosts(const SpinSystem& system, const SplitGroup& group,
                                            std::size_t slots, bool siteUnits = false);

// "9 units of 2 sites", "1 unit of 4 sites, 2 units of 1 site": the units the blocks are built
// on.
std::string groupUnitsText(const SpinSystem& system, const SplitGroup& group);

// What the whole group's blocks of every total spin share, built once per spectrum: the
// composite units (group_units.h) with their operators, the classes of their cells and the
// representations of the stabiliser of every class's canonical cell. siteUnits: every site a
// unit of its own (one cell, one class, whose kernel is a QR factorisation of the whole space).
struct GroupBasis;
std::shared_ptr<const GroupBasis> groupBasis(const SpinSystem& system,
                                             std::shared_ptr<const SplitGroup> group,
                                             bool siteUnits = false);

// As buildSplitBlocks, for a whole group: matrices[irrep] is resized to `slots` matrices of
// the (twiceTotal, irrep) block, matrices[irrep][jSlot[j]] with the paths of J value j.
//
// The product states are those of the group's units, each unit in a multiplet alpha_u with its
// m_u. A cell is the choice of every unit's multiplet; S+ keeps it, and the group maps cells onto
// cells. So the kernel of S+ is found class by class, a class being the cells of one orbit of
// the group. A class is induced from its canonical cell, with the stabiliser H of that cell: the
// kernel comes from one small QR factorisation of S+ on the cell per irreducible representation
// of H, and every irrep of the group takes its part from these (where H has representations of
// complex or quaternionic type, from a QR factorisation of the class's part of the (M = S,
// irrep) space instead). The Hamiltonian, from its rows at the orbit representatives (taken in
// the canonical cells), is then taken into the kernel class by class.
void buildGroupBlocks(const GroupBasis& basis, const std::vector<int>& jSlot, std::size_t slots,
                      int twiceTotal, std::vector<std::vector<Eigen::MatrixXd>>& matrices,
                      const StopFlag* stop);

} // namespace corefit
