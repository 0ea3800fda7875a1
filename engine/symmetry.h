// The symmetry of a cluster: the permutations of sites that keep every spin and every exchange
// path with its J value (the automorphisms of the labelled exchange graph), and the subgroup the
// exact spectrum is split by.
#pragma once

#include <array>
#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "problem.h"

namespace corefit {

// Whether the images of the pair {x, y} under the `count` elements of a group (imageOf(g, site))
// are pairs that never share a site with another image: then every image can be coupled first.
template <typename Image>
bool imagesArePairs(std::size_t count, const Image& imageOf, int x, int y) {
    std::map<int, int> partner;
    for (std::size_t g = 0; g < count; ++g) {
        const int a = imageOf(g, x), b = imageOf(g, y);
        for (const auto& [u, v] : {std::pair{a, b}, std::pair{b, a}}) {
            const auto [it, inserted] = partner.emplace(u, v);
            if (!inserted && it->second != v) return false;
        }
    }
    return true;
}

// A permutation of sites: site i goes to p[i]. Composition (g * h)[i] = g[h[i]]: h acts first.
using Permutation = std::vector<int>;

// The identity on n sites, and g * h (h acts first).
Permutation identity(int n);
Permutation compose(const Permutation& g, const Permutation& h);

// "(1 2 3 4)(5 6)" with sites from 1, fixed sites left out; "identity" for the identity.
std::string cycleText(const Permutation& p);

struct SiteSymmetry {
    double order = 1;                    // the group's order (exact unless incomplete)
    bool complete = true;                // false: a search gave up, order is a lower bound
    std::vector<Permutation> generators; // generate the group
    std::vector<Permutation> elements;   // every element, or the first maxListedElements
    std::string name;                    // "none", "cyclic 8 + reflections", "order 48", ...
};

inline constexpr std::size_t maxListedElements = 1 << 12;

// The automorphisms of the labelled exchange graph of system: site spins must match, and between
// every two sites the number of paths of each J value. Exact for every system the input allows;
// a search that takes more than a bounded number of steps is left out (and complete is false).
SiteSymmetry findSymmetry(const SpinSystem& system);

// The group the exact spectrum is split by, with its real irreducible representations. Either
// a subgroup <r, s, z1, z2, ...> of the symmetry with r of order m (a power of 2), s a reflection
// (s r s = r^-1) and the z central swaps, all of whose irreducible representations are real; its
// order is a power of 2, so that a coupling tree of the sites exists on which it acts (see
// CouplingTree). Or the whole group (wholeGroup), whose blocks are built from highest-weight
// product states instead (see group_blocks.h).
struct SplitGroup {
    struct Irrep {
        int dimension = 1;
        // 1: of real type. 2 or 4: of complex or quaternionic type (two complex irreducible
        // representations, or one twice, in one real one); every level of its blocks is found
        // `kind` times and stands for dimension / kind (2S + 1) states.
        int kind = 1;
        std::string name;
        std::vector<double> matrix; // per element, row-major dimension x dimension
        const double* at(std::size_t element) const {
            return matrix.data() + element * static_cast<std::size_t>(dimension * dimension);
        }
        double character(std::size_t element) const {
            double trace = 0;
            for (int i = 0; i < dimension; ++i) trace += at(element)[i * (dimension + 1)];
            return trace;
        }
    };
    std::vector<Permutation> elements; // elements[0] is the identity
    std::vector<Irrep> irreps;
    // Whole groups: products[a * order + b] is the index of elements[a] * elements[b].
    std::vector<int> products;
    std::string name; // "cyclic 8 + reflections", "order 4", "none"
    bool wholeGroup = false;
    int order() const { return static_cast<int>(elements.size()); }
};

// The largest such subgroup found among symmetry.elements (all of them for a ring of 2^k sites).
SplitGroup splitGroup(const SiteSymmetry& symmetry, int sites);

// A binary coupling tree of the sites on which every element of group acts: leaves 0..N-1 are
// the sites, internal nodes N..2N-2 couple two children, the last is the root (the total spin).
// An element maps every node to a node, and internal nodes to internal nodes whose children are
// the images of the children, possibly swapped.
struct CouplingTree {
    int sites = 0;
    std::vector<std::array<int, 2>> children; // of internal node N + k
    std::vector<int> parent;                  // of every node; -1 for the root
    std::vector<std::vector<int>> image;      // [element][node]
    std::vector<std::vector<char>> swapped;   // [element][internal node k]
    int nodes() const { return 2 * sites - 1; }
};

// Pairs sites swapped by the group first, then pairs of pairs, and chains what every element
// fixes. With the trivial group, the chain ((s1 s2) s3) ... of the sites in their order.
CouplingTree couplingTree(const SplitGroup& group, int sites);

} // namespace corefit
