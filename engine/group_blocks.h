// S blocks split by every irreducible representation of the whole symmetry group.
//
// A coupling tree is kept only by groups of order 2^k, so the whole group (odd orders,
// non-abelian groups such as that of a cube) works on product states instead: a permutation of
// sites maps each product state to another one. For total spin S and a real irreducible
// representation Gamma with matrices D(g), the vectors P_1k |p> of an orbit representative p
// with M = S, P_kl = d/|G| sum_g D_kl(g) R(g), give an orthonormal basis of the first row of
// Gamma among the states of M = S (orbit by orbit, as for split S blocks). The states of total
// spin S among them are those that S+ takes to zero: S+ maps this space onto the same space of
// M = S + 1, and the kernel is found by a QR factorisation of S+. The Hamiltonian in that kernel
// is the (S, Gamma) block. A level of it stands for d / kind (2S + 1) states (kind 2 or 4 for a
// real representation of complex or quaternionic type, whose levels the block holds twice or
// four times).
#pragma once

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

// The size of the (M = S, Gamma) spaces the blocks of total spin twiceTotal are cut from, for
// every irrep: product states of M = S and of M = S + 1.
struct GroupSpace {
    int twiceTotal = 0;
    int irrep = 0;
    double states = 0, above = 0; // the block has states - above levels
};
std::vector<GroupSpace> groupSpaces(const SpinSystem& system, const SplitGroup& group);

// Floating-point operations to build one block from its space (the QR factorisation of S+, the
// kernel and the Hamiltonian per J in it) with `slots` J values.
double groupBlockFlops(const GroupSpace& space, std::size_t slots, int sites);

// As buildSplitBlocks, for a whole group: matrices[irrep] is resized to `slots` matrices of
// the (twiceTotal, irrep) block, matrices[irrep][jSlot[j]] with the paths of J value j.
void buildGroupBlocks(const SpinSystem& system, const SplitGroup& group,
                      const std::vector<int>& jSlot, std::size_t slots, int twiceTotal,
                      std::vector<std::vector<Eigen::MatrixXd>>& matrices, const StopFlag* stop);

} // namespace corefit
