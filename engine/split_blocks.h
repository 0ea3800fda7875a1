// S blocks split by the symmetry of the cluster.
//
// The spin-coupled basis is built on a coupling tree that the splitting group keeps (sites
// swapped by the group are coupled first): an element g then maps every coupled state to
// another one, up to a sign (-1)^(j1 + j2 - J) for every node whose two children it swaps.
// States of one total spin S fall into orbits; for an irreducible representation Gamma (real,
// of dimension d) the vectors P_1k |c> of an orbit representative c, with
// P_kl = d/|G| sum_g D_kl(g) R(g), span the part of the orbit in the first row of Gamma. As H
// commutes with every R(g), <P_1k c|H|P_1l c'> = <c|H P_kl|c'> needs only the rows of H at the
// orbit representatives. Each level found in the Gamma block stands for d (2S+1) states.
#pragma once

#include <vector>

#include <Eigen/Dense>

#include "guards.h"
#include "problem.h"
#include "symmetry.h"

namespace corefit {

struct SplitBlockSize {
    int twiceTotal = 0; // 2S
    int irrep = 0;      // index into SplitGroup::irreps
    double size = 0;
};

// Product states that each element of a group keeps fixed, by total 2M: a cycle of the
// permutation keeps a state only when its sites share one m. Exact counts, as doubles.
class FixedStates {
public:
    FixedStates(const SpinSystem& system, const std::vector<Permutation>& elements);
    double at(std::size_t element, int twiceM) const;
    // Copies of the irrep in the product states of total 2M (the size of their symmetry block):
    // 1/|G| sum_g chi(g) fixed(g, M).
    double multiplicity(const SplitGroup& group, std::size_t irrep, int twiceM) const;
    int total() const { return total_; } // sum of 2S

private:
    int total_ = 0;
    std::vector<std::vector<double>> counts_; // [element][digit sum]
};

// The size of every (S, irrep) block from characters, without building anything:
// n = 1/|G| sum_g chi_Gamma(g) (fixed product states of g with M = S, less those with M = S + 1).
// Blocks of size 0 are left out.
std::vector<SplitBlockSize> splitBlockSizes(const SpinSystem& system, const SplitGroup& group);

// The Hamiltonian per J value of every irrep block of total spin twiceTotal: matrices[irrep] is
// resized to `slots` matrices, matrices[irrep][jSlot[j]] gets the paths of J value j. Throws
// Interrupted when stop is set (checked between orbits).
void buildSplitBlocks(const SpinSystem& system, const SplitGroup& group, const CouplingTree& tree,
                      const std::vector<int>& jSlot, std::size_t slots, int twiceTotal,
                      std::vector<std::vector<Eigen::MatrixXd>>& matrices, const StopFlag* stop);

} // namespace corefit
