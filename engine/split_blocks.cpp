#include "split_blocks.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <unordered_map>

#include "recoupling.h"

namespace corefit {

namespace {

__extension__ using Count = unsigned __int128;

using Small = Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, 0, 2, 2>;

Small representation(const SplitGroup::Irrep& irrep, std::size_t element) {
    Small d(irrep.dimension, irrep.dimension);
    const double* m = irrep.at(element);
    for (int i = 0; i < irrep.dimension; ++i)
        for (int j = 0; j < irrep.dimension; ++j) d(i, j) = m[i * irrep.dimension + j];
    return d;
}

// The coupled states of one total spin on the tree: the values 2j of the internal nodes, with
// an open-addressing index from values to state.
struct TreeStates {
    int internal = 0;
    std::vector<std::uint16_t> values; // state after state
    std::vector<int> slots;            // -1 or a state; a power of 2 long
    int count() const { return static_cast<int>(values.size() / static_cast<std::size_t>(internal)); }
    const std::uint16_t* state(int i) const {
        return values.data() + static_cast<std::size_t>(i) * static_cast<std::size_t>(internal);
    }
    std::size_t hash(const std::uint16_t* state) const {
        std::uint64_t h = 0xcbf29ce484222325ULL;
        for (int k = 0; k < internal; ++k) h = (h ^ state[k]) * 0x100000001b3ULL;
        return static_cast<std::size_t>(h ^ (h >> 29));
    }
    bool same(int i, const std::uint16_t* state) const {
        return std::equal(state, state + internal, this->state(i));
    }
    void index() {
        std::size_t size = 16;
        while (size < 2 * static_cast<std::size_t>(count())) size *= 2;
        slots.assign(size, -1);
        for (int i = 0; i < count(); ++i) {
            std::size_t at = hash(state(i)) & (size - 1);
            while (slots[at] >= 0) at = (at + 1) & (size - 1);
            slots[at] = i;
        }
    }
    int find(const std::uint16_t* state) const {
        for (std::size_t at = hash(state) & (slots.size() - 1);; at = (at + 1) & (slots.size() - 1))
            if (slots[at] < 0 || same(slots[at], state)) return slots[at];
    }
};

TreeStates enumerateStates(const SpinSystem& system, const CouplingTree& tree, int twiceTotal) {
    TreeStates states;
    const int sites = tree.sites;
    states.internal = sites - 1;
    std::vector<std::uint16_t> current(static_cast<std::size_t>(states.internal));
    auto value = [&](int node) {
        return node < sites ? system.twiceSpin[static_cast<std::size_t>(node)]
                            : current[static_cast<std::size_t>(node - sites)];
    };
    // Internal nodes come after their children: assign them in order.
    auto assign = [&](auto&& self, int k) -> void {
        if (k == states.internal) {
            states.values.insert(states.values.end(), current.begin(), current.end());
            return;
        }
        const auto [l, r] = tree.children[static_cast<std::size_t>(k)];
        const int a = value(l), b = value(r);
        int low = std::abs(a - b), high = a + b;
        if (k == states.internal - 1) {
            if (twiceTotal < low || twiceTotal > high || (twiceTotal - low) % 2) return;
            low = high = twiceTotal;
        }
        for (int v = low; v <= high; v += 2) {
            current[static_cast<std::size_t>(k)] = static_cast<std::uint16_t>(v);
            self(self, k + 1);
        }
    };
    assign(assign, 0);
    states.index();
    return states;
}

// One exchange path seen from the tree: the nodes between each site and the lowest common
// ancestor `top` can change (T acts on the left child of top, U on the right).
struct BondPath {
    std::size_t slot = 0;
    int top = 0, left = 0, right = 0;
    std::vector<int> changed, child, sibling; // children before parents
    std::vector<char> fromLeft;
    double start = 1;
};

BondPath bondPath(const SpinSystem& system, const CouplingTree& tree, const Bond& bond,
                  std::size_t slot) {
    auto ancestors = [&](int node) {
        std::vector<int> chain{node};
        while (tree.parent[static_cast<std::size_t>(chain.back())] >= 0)
            chain.push_back(tree.parent[static_cast<std::size_t>(chain.back())]);
        return chain;
    };
    const std::vector<int> up = ancestors(bond.a), other = ancestors(bond.b);
    BondPath path;
    path.slot = slot;
    path.start = reducedSpin(system.twiceSpin[static_cast<std::size_t>(bond.a)]) *
                 reducedSpin(system.twiceSpin[static_cast<std::size_t>(bond.b)]);
    std::size_t i = 0;
    while (std::find(other.begin(), other.end(), up[i]) == other.end()) ++i;
    path.top = up[i];
    const auto& kids = tree.children[static_cast<std::size_t>(path.top - tree.sites)];
    for (const auto* chain : {&up, &other})
        for (std::size_t k = 1; (*chain)[k] != path.top; ++k) {
            const int node = (*chain)[k], below = (*chain)[k - 1];
            const auto& pair = tree.children[static_cast<std::size_t>(node - tree.sites)];
            path.changed.push_back(node);
            path.child.push_back(below);
            path.fromLeft.push_back(pair[0] == below);
            path.sibling.push_back(pair[0] == below ? pair[1] : pair[0]);
        }
    path.left = kids[0];
    path.right = kids[1];
    return path;
}

} // namespace

FixedStates::FixedStates(const SpinSystem& system, const std::vector<Permutation>& elements) {
    for (int s : system.twiceSpin) total_ += s;
    for (const Permutation& g : elements) {
        std::vector<Count> counts{1};
        std::vector<char> seen(g.size(), 0);
        for (std::size_t i = 0; i < g.size(); ++i) {
            if (seen[i]) continue;
            std::size_t length = 0;
            for (std::size_t j = i; !seen[j]; j = static_cast<std::size_t>(g[j]))
                seen[j] = 1, ++length;
            const auto s = static_cast<std::size_t>(system.twiceSpin[i]);
            std::vector<Count> next(counts.size() + length * s, 0);
            for (std::size_t d = 0; d < counts.size(); ++d)
                for (std::size_t m = 0; m <= s; ++m) next[d + length * m] += counts[d];
            counts = std::move(next);
        }
        std::vector<double> asDouble;
        for (Count c : counts) asDouble.push_back(static_cast<double>(c));
        counts_.push_back(std::move(asDouble));
    }
}

double FixedStates::at(std::size_t element, int twiceM) const {
    const int d = (twiceM + total_) / 2; // digit sum, 2M = 2D - total
    const auto& c = counts_[element];
    return d >= 0 && static_cast<std::size_t>(d) < c.size() ? c[static_cast<std::size_t>(d)] : 0.0;
}

double FixedStates::multiplicity(const SplitGroup& group, std::size_t irrep, int twiceM) const {
    double sum = 0;
    for (std::size_t g = 0; g < group.elements.size(); ++g)
        sum += group.irreps[irrep].character(g) * at(g, twiceM);
    return std::round(sum / group.order());
}

std::vector<SplitBlockSize> splitBlockSizes(const SpinSystem& system, const SplitGroup& group) {
    const FixedStates fixed(system, group.elements);
    const int total = fixed.total();
    std::vector<SplitBlockSize> sizes;
    for (int twiceS = total % 2; twiceS <= total; twiceS += 2)
        for (std::size_t k = 0; k < group.irreps.size(); ++k) {
            double sum = 0;
            for (std::size_t g = 0; g < group.elements.size(); ++g)
                sum +=
                    group.irreps[k].character(g) * (fixed.at(g, twiceS) - fixed.at(g, twiceS + 2));
            const double size = std::round(sum / group.order());
            if (size > 0) sizes.push_back({twiceS, static_cast<int>(k), size});
        }
    return sizes;
}

namespace {

// The orbits of the coupled states under the group: for every state its orbit, an element h
// with R(h)|rep> = sign |state>, and for every orbit and irrep A = sum over the stabiliser of
// the representative of sign D(u).
struct Orbits {
    std::vector<int> orbitOf, mover, representatives;
    std::vector<double> signOf;
    std::vector<std::vector<Small>> stabiliserSum; // [irrep][orbit]
};

Orbits findOrbits(const SpinSystem& system, const SplitGroup& group, const CouplingTree& tree,
                  const TreeStates& states, const StopFlag* stop) {
    const int sites = tree.sites, internal = states.internal, count = states.count();
    const std::size_t elements = group.elements.size(), irreps = group.irreps.size();
    Orbits found;
    std::vector<int>& orbitOf = found.orbitOf;
    std::vector<int>& mover = found.mover;
    std::vector<int>& representatives = found.representatives;
    std::vector<double>& signOf = found.signOf;
    std::vector<std::vector<Small>>& stabiliserSum = found.stabiliserSum;
    orbitOf.assign(static_cast<std::size_t>(count), -1);
    mover.assign(orbitOf.size(), 0);
    signOf.assign(orbitOf.size(), 0.0);
    stabiliserSum.assign(irreps, {});
    std::vector<std::uint16_t> image(static_cast<std::size_t>(internal));
    for (int c = 0; c < count; ++c) {
        if (orbitOf[static_cast<std::size_t>(c)] >= 0) continue;
        if (representatives.size() % 256 == 0) throwIfStopped(stop);
        const int orbit = static_cast<int>(representatives.size());
        representatives.push_back(c);
        for (std::size_t k = 0; k < irreps; ++k)
            stabiliserSum[k].push_back(Small::Zero(group.irreps[k].dimension, group.irreps[k].dimension));
        const std::uint16_t* state = states.state(c);
        auto value = [&](int node) {
            return node < sites ? system.twiceSpin[static_cast<std::size_t>(node)]
                                : static_cast<int>(state[node - sites]);
        };
        for (std::size_t g = 0; g < elements; ++g) {
            double sign = 1;
            for (int k = 0; k < internal; ++k) {
                const int node = sites + k;
                image[static_cast<std::size_t>(tree.image[g][static_cast<std::size_t>(node)] - sites)] =
                    state[k];
                if (tree.swapped[g][static_cast<std::size_t>(k)]) {
                    const auto [l, r] = tree.children[static_cast<std::size_t>(k)];
                    sign *= corefit::sign(value(l) + value(r) - state[k]);
                }
            }
            const int target = states.find(image.data());
            if (target < 0) throw std::logic_error("a symmetry element leaves the coupled states");
            const auto t = static_cast<std::size_t>(target);
            if (orbitOf[t] < 0) {
                orbitOf[t] = orbit;
                mover[t] = static_cast<int>(g);
                signOf[t] = sign;
            }
            if (target == c)
                for (std::size_t k = 0; k < irreps; ++k)
                    stabiliserSum[k].back() += sign * representation(group.irreps[k], g);
        }
    }
    return found;
}

// Per irrep and orbit: W with W^T Gram W = 1 (Gram = d/|G| A), A W, and the offset of the
// orbit's rows in the irrep's block.
struct Part {
    Small w, aw;
    int offset = 0;
    int rank() const { return static_cast<int>(w.cols()); }
};

std::vector<std::vector<Part>> orbitParts(const SplitGroup& group, const Orbits& orbits,
                                          std::size_t slots,
                                          std::vector<std::vector<Eigen::MatrixXd>>& matrices) {
    const std::size_t irreps = group.irreps.size(), count = orbits.representatives.size();
    const std::vector<std::vector<Small>>& stabiliserSum = orbits.stabiliserSum;
    std::vector<std::vector<Part>> parts(irreps, std::vector<Part>(count));
    matrices.assign(irreps, {});
    for (std::size_t k = 0; k < irreps; ++k) {
        const int d = group.irreps[k].dimension;
        const double scale = static_cast<double>(d) / group.order();
        int offset = 0;
        for (std::size_t o = 0; o < count; ++o) {
            const Small& a = stabiliserSum[k][o];
            Part& part = parts[k][o];
            part.offset = offset;
            Eigen::SelfAdjointEigenSolver<Small> solver(scale * a);
            std::vector<int> kept;
            for (int i = 0; i < d; ++i)
                if (solver.eigenvalues()[i] > 1e-8) kept.push_back(i);
            part.w.resize(d, static_cast<Eigen::Index>(kept.size()));
            for (std::size_t i = 0; i < kept.size(); ++i)
                part.w.col(static_cast<Eigen::Index>(i)) =
                    solver.eigenvectors().col(kept[i]) / std::sqrt(solver.eigenvalues()[kept[i]]);
            part.aw = a * part.w;
            offset += part.rank();
        }
        matrices[k].assign(slots, Eigen::MatrixXd::Zero(offset, offset));
    }

    return parts;
}

} // namespace

void buildSplitBlocks(const SpinSystem& system, const SplitGroup& group, const CouplingTree& tree,
                      const std::vector<int>& jSlot, std::size_t slots, int twiceTotal,
                      std::vector<std::vector<Eigen::MatrixXd>>& matrices, const StopFlag* stop) {
    const TreeStates states = enumerateStates(system, tree, twiceTotal);
    const int sites = tree.sites, internal = states.internal;
    const std::size_t irreps = group.irreps.size();
    const Orbits found = findOrbits(system, group, tree, states, stop);
    const std::vector<int>& orbitOf = found.orbitOf;
    const std::vector<int>& mover = found.mover;
    const std::vector<double>& signOf = found.signOf;
    const std::size_t orbits = found.representatives.size();
    const std::vector<std::vector<Part>> parts = orbitParts(group, found, slots, matrices);

    // Rows of H at the representatives, and their part in every irrep block.
    std::vector<BondPath> paths;
    for (const Bond& bond : system.bonds)
        paths.push_back(bondPath(system, tree, bond,
                                 static_cast<std::size_t>(jSlot[static_cast<std::size_t>(bond.j)])));
    Recoupling recoupling;
    std::vector<int> bra(static_cast<std::size_t>(tree.nodes())), ket(bra.size());
    std::vector<std::uint16_t> key(static_cast<std::size_t>(internal));
    for (std::size_t o = 0; o < orbits; ++o) {
        if (o % 64 == 0) throwIfStopped(stop);
        bool wanted = false;
        for (std::size_t k = 0; k < irreps; ++k) wanted = wanted || parts[k][o].rank() > 0;
        if (!wanted) continue;
        const std::uint16_t* state = states.state(found.representatives[o]);
        for (int node = 0; node < tree.nodes(); ++node)
            bra[static_cast<std::size_t>(node)] =
                node < sites ? system.twiceSpin[static_cast<std::size_t>(node)] : state[node - sites];
        auto add = [&](std::size_t slot, double value) {
            for (int k = 0; k < internal; ++k)
                key[static_cast<std::size_t>(k)] = static_cast<std::uint16_t>(ket[static_cast<std::size_t>(sites + k)]);
            const int target = states.find(key.data());
            if (target < 0) throw std::logic_error("an exchange path leaves the coupled states");
            const auto t = static_cast<std::size_t>(target);
            const auto other = static_cast<std::size_t>(orbitOf[t]);
            for (std::size_t k = 0; k < irreps; ++k) {
                const Part &here = parts[k][o], &there = parts[k][other];
                if (here.rank() == 0 || there.rank() == 0) continue;
                const double factor = group.irreps[k].dimension / static_cast<double>(group.order()) *
                                      signOf[t] * value;
                if (group.irreps[k].dimension == 1) {
                    matrices[k][slot](here.offset, there.offset) +=
                        factor * here.w(0, 0) *
                        group.irreps[k].at(static_cast<std::size_t>(mover[t]))[0] * there.aw(0, 0);
                    continue;
                }
                const Small y = here.w.transpose() *
                                (representation(group.irreps[k], static_cast<std::size_t>(mover[t])) * there.aw);
                matrices[k][slot].block(here.offset, there.offset, here.rank(), there.rank()) +=
                    factor * y;
            }
        };
        for (const BondPath& path : paths) {
            ket = bra;
            auto walk = [&](auto&& self, std::size_t i, double amplitude) -> void {
                if (i == path.changed.size()) {
                    const auto l = static_cast<std::size_t>(path.left), r = static_cast<std::size_t>(path.right);
                    const double f = recoupling.scalar(bra[static_cast<std::size_t>(path.top)], bra[l],
                                                       bra[r], ket[l], ket[r]);
                    if (f != 0) add(path.slot, -2 * amplitude * f);
                    return;
                }
                const auto y = static_cast<std::size_t>(path.changed[i]),
                           x = static_cast<std::size_t>(path.child[i]),
                           w = static_cast<std::size_t>(path.sibling[i]);
                for (int next = bra[y] - 2; next <= bra[y] + 2; next += 2) {
                    if (next < 0) continue;
                    const double f =
                        path.fromLeft[i] ? recoupling.first(bra[x], ket[x], bra[w], bra[y], next)
                                         : recoupling.second(bra[w], bra[x], ket[x], bra[y], next);
                    if (f == 0) continue;
                    ket[y] = next;
                    self(self, i + 1, amplitude * f);
                }
                ket[y] = bra[y];
            };
            walk(walk, 0, path.start);
        }
    }
    for (auto& perJ : matrices)
        for (Eigen::MatrixXd& m : perJ) m = 0.5 * (m + m.transpose()).eval();
}

} // namespace corefit
