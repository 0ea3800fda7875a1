#include "group_blocks.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <numeric>
#include <stdexcept>
#include <string>

#include <Eigen/Sparse>

#include "split_blocks.h"

extern "C" {
void dgeqrf_(const int* m, const int* n, double* a, const int* lda, double* tau, double* work,
             const int* lwork, int* info);
void dormqr_(const char* side, const char* trans, const int* m, const int* n, const int* k,
             const double* a, const int* lda, const double* tau, double* c, const int* ldc,
             double* work, const int* lwork, int* info);
void dgemm_(const char* transa, const char* transb, const int* m, const int* n, const int* k,
            const double* alpha, const double* a, const int* lda, const double* b, const int* ldb,
            const double* beta, double* c, const int* ldc);
}

namespace corefit {

namespace {

using Index = Eigen::Index;

SplitGroup trivialGroup(int sites) {
    SplitGroup group;
    group.wholeGroup = true;
    group.elements = {identity(sites)};
    group.irreps.push_back({1, 1, "1D", {1.0}});
    group.name = "none";
    return group;
}

// Deterministic numbers in [-1, 1) (splitmix64), the same on every machine.
class Numbers {
public:
    explicit Numbers(std::uint64_t seed) : state_(seed) {}
    double next() {
        std::uint64_t z = (state_ += 0x9e3779b97f4a7c15ULL);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
        z ^= z >> 31;
        return static_cast<double>(z >> 11) * 0x1p-52 - 1.0;
    }

private:
    std::uint64_t state_;
};

// The real irreducible representations from one random symmetric element of the algebra of the
// right regular representation, which commutes with the left one: its eigenspaces are
// irreducible left-invariant subspaces. Empty when the eigenvalues do not separate them.
std::vector<SplitGroup::Irrep> irrepsFromRegular(const std::vector<int>& product,
                                                 const std::vector<int>& inverse,
                                                 std::uint64_t seed) {
    const auto n = static_cast<Index>(inverse.size());
    const auto at = [&](Index a, Index b) {
        return static_cast<Index>(product[static_cast<std::size_t>(a * n + b)]);
    };
    Numbers numbers(seed);
    std::vector<double> raw(static_cast<std::size_t>(n)), c(raw.size());
    for (double& x : raw) x = numbers.next();
    for (Index g = 0; g < n; ++g)
        c[static_cast<std::size_t>(g)] =
            raw[static_cast<std::size_t>(g)] +
            raw[static_cast<std::size_t>(inverse[static_cast<std::size_t>(g)])];
    Eigen::MatrixXd r(n, n);
    for (Index y = 0; y < n; ++y)
        for (Index x = 0; x < n; ++x)
            r(y, x) = c[static_cast<std::size_t>(at(inverse[static_cast<std::size_t>(y)], x))];
    const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> solver(r);
    const Eigen::VectorXd& values = solver.eigenvalues();
    const double scale = std::max(1.0, values.cwiseAbs().maxCoeff());

    std::vector<SplitGroup::Irrep> irreps;
    std::vector<std::vector<double>> characters;
    double covered = 0;
    for (Index begin = 0; begin < n;) {
        Index end = begin + 1;
        while (end < n && values[end] - values[end - 1] < 1e-9 * scale) ++end;
        const Index d = end - begin;
        const Eigen::MatrixXd u = solver.eigenvectors().middleCols(begin, d);
        begin = end;
        // D(g) = U^T L(g) U with L(g) e_x = e_(gx).
        std::vector<double> matrices(static_cast<std::size_t>(n * d * d)),
            character(static_cast<std::size_t>(n));
        for (Index g = 0; g < n; ++g) {
            Eigen::MatrixXd moved(n, d);
            for (Index x = 0; x < n; ++x) moved.row(at(g, x)) = u.row(x);
            const Eigen::MatrixXd dg = u.transpose() * moved;
            for (Index i = 0; i < d; ++i)
                for (Index j = 0; j < d; ++j)
                    matrices[static_cast<std::size_t>((g * d + i) * d + j)] = dg(i, j);
            character[static_cast<std::size_t>(g)] = dg.trace();
        }
        bool seen = false;
        for (const auto& other : characters) {
            double difference = 0;
            for (std::size_t g = 0; g < other.size(); ++g)
                difference = std::max(difference, std::abs(other[g] - character[g]));
            seen = seen || difference < 1e-6;
        }
        if (seen) continue;
        // <chi, chi> is 1, 2 or 4 for a real irreducible representation of real, complex or
        // quaternionic type, and the Frobenius-Schur sum 1/|G| sum chi(g^2) then 1, 0 or -2.
        double norm = 0, indicator = 0;
        for (Index g = 0; g < n; ++g) {
            norm += character[static_cast<std::size_t>(g)] * character[static_cast<std::size_t>(g)];
            indicator += character[static_cast<std::size_t>(at(g, g))];
        }
        norm /= static_cast<double>(n);
        indicator /= static_cast<double>(n);
        const int kind = static_cast<int>(std::lround(norm));
        if (std::abs(norm - kind) > 1e-6 || (kind != 1 && kind != 2 && kind != 4) ||
            std::abs(indicator - (kind == 1   ? 1
                                  : kind == 2 ? 0
                                              : -2)) > 1e-6 ||
            d % kind != 0)
            return {};
        SplitGroup::Irrep irrep;
        irrep.dimension = static_cast<int>(d);
        irrep.kind = kind;
        irrep.name = std::to_string(d) + "D" +
                     (kind == 2   ? " (complex pair)"
                      : kind == 4 ? " (quaternionic)"
                                  : "");
        irrep.matrix = std::move(matrices);
        covered += static_cast<double>(d * d) / kind;
        characters.push_back(std::move(character));
        irreps.push_back(std::move(irrep));
    }
    if (std::abs(covered - static_cast<double>(n)) > 0.5) return {};
    // The trivial representation first, then by dimension.
    auto trivial = [](const SplitGroup::Irrep& irrep) {
        return irrep.dimension == 1 && std::all_of(irrep.matrix.begin(), irrep.matrix.end(),
                                                   [](double x) { return x > 0.5; });
    };
    std::stable_sort(irreps.begin(), irreps.end(), [&](const auto& a, const auto& b) {
        return std::make_pair(a.dimension, !trivial(a)) < std::make_pair(b.dimension, !trivial(b));
    });
    return irreps;
}

// ---------------------------------------------------------------------------------------------
// Product states of one total M as mixed-radix codes, ascending.

struct ProductSpace {
    std::vector<std::uint64_t> stride;
    std::vector<std::uint64_t> codes;

    ProductSpace(const std::vector<int>& twiceSpin, int twiceM) {
        long double dimension = 1;
        for (int s : twiceSpin) dimension *= s + 1;
        if (dimension > static_cast<long double>(std::numeric_limits<std::int64_t>::max()))
            throw std::length_error("too many product states to index");
        std::uint64_t step = 1;
        for (int s : twiceSpin) {
            stride.push_back(step);
            step *= static_cast<std::uint64_t>(s + 1);
        }
        int total = 0;
        for (int s : twiceSpin) total += s;
        const int digitSum = (twiceM + total) / 2;
        if ((twiceM + total) % 2 != 0 || digitSum < 0 || digitSum > total) return;
        // Sites from the last (largest stride) down: codes come out ascending.
        std::vector<int> rest(twiceSpin.size() + 1, 0); // largest digit sum of sites < i
        for (std::size_t i = 0; i < twiceSpin.size(); ++i) rest[i + 1] = rest[i] + twiceSpin[i];
        auto fill = [&](auto&& self, std::size_t sites, int sum, std::uint64_t code) -> void {
            if (sites == 0) {
                if (sum == 0) codes.push_back(code);
                return;
            }
            const std::size_t i = sites - 1;
            for (int d = 0; d <= twiceSpin[i] && d <= sum; ++d)
                if (sum - d <= rest[i])
                    self(self, i, sum - d, code + static_cast<std::uint64_t>(d) * stride[i]);
        };
        fill(fill, twiceSpin.size(), digitSum, 0);
    }
    Index size() const { return static_cast<Index>(codes.size()); }
    Index find(std::uint64_t code) const {
        const auto found = std::lower_bound(codes.begin(), codes.end(), code);
        return found != codes.end() && *found == code ? static_cast<Index>(found - codes.begin())
                                                      : -1;
    }
    int digit(std::uint64_t code, std::size_t site, int twiceSpin) const {
        return static_cast<int>(code / stride[site] % static_cast<std::uint64_t>(twiceSpin + 1));
    }
};

// The product states of one M split into orbits of the group, and for every irrep the
// orthonormal first-row vectors of each orbit: W with W^T (d/|G| A) W = 1, A the sum of D(u)
// over the stabiliser of the representative.
struct AdaptedSpace {
    ProductSpace space;
    std::vector<int> orbitOf, mover; // per state: its orbit, h with R(h) rep = state
    std::vector<Index> representatives;
    struct Part {
        std::vector<Index> offset; // per orbit, in the irrep's basis
        std::vector<int> rank;
        std::vector<Eigen::MatrixXd> w, aw;
        Index size = 0;
    };
    std::vector<Part> parts; // per irrep

    AdaptedSpace(const SpinSystem& system, const SplitGroup& group, int twiceM,
                 const StopFlag* stop)
        : space(system.twiceSpin, twiceM) {
        const std::size_t count = space.codes.size(), elements = group.elements.size(),
                          irreps = group.irreps.size(), sites = system.twiceSpin.size();
        orbitOf.assign(count, -1);
        mover.assign(count, 0);
        std::vector<std::vector<Eigen::MatrixXd>> stabiliser(irreps);
        std::vector<int> digits(sites);
        for (std::size_t c = 0; c < count; ++c) {
            if (orbitOf[c] >= 0) continue;
            if (representatives.size() % 1024 == 0) throwIfStopped(stop);
            const int orbit = static_cast<int>(representatives.size());
            representatives.push_back(static_cast<Index>(c));
            const std::uint64_t code = space.codes[c];
            for (std::size_t i = 0; i < sites; ++i)
                digits[i] = space.digit(code, i, system.twiceSpin[i]);
            std::vector<Eigen::MatrixXd> sums(irreps);
            for (std::size_t k = 0; k < irreps; ++k)
                sums[k].setZero(group.irreps[k].dimension, group.irreps[k].dimension);
            for (std::size_t g = 0; g < elements; ++g) {
                const Permutation& p = group.elements[g];
                std::uint64_t image = 0;
                for (std::size_t i = 0; i < sites; ++i)
                    image += static_cast<std::uint64_t>(digits[i]) *
                             space.stride[static_cast<std::size_t>(p[i])];
                const Index target = space.find(image);
                if (target < 0)
                    throw std::logic_error("a symmetry element leaves the product states");
                const auto t = static_cast<std::size_t>(target);
                if (orbitOf[t] < 0) {
                    orbitOf[t] = orbit;
                    mover[t] = static_cast<int>(g);
                }
                if (t == c)
                    for (std::size_t k = 0; k < irreps; ++k) {
                        const int d = group.irreps[k].dimension;
                        sums[k] += Eigen::Map<const Eigen::Matrix<double, Eigen::Dynamic,
                                                                  Eigen::Dynamic, Eigen::RowMajor>>(
                            group.irreps[k].at(g), d, d);
                    }
            }
            for (std::size_t k = 0; k < irreps; ++k) stabiliser[k].push_back(std::move(sums[k]));
        }
        const std::size_t orbits = representatives.size();
        parts.resize(irreps);
        for (std::size_t k = 0; k < irreps; ++k) {
            Part& part = parts[k];
            const int d = group.irreps[k].dimension;
            const double scale = static_cast<double>(d) / group.order();
            part.offset.resize(orbits);
            part.rank.resize(orbits);
            part.w.resize(orbits);
            part.aw.resize(orbits);
            for (std::size_t o = 0; o < orbits; ++o) {
                const Eigen::MatrixXd& a = stabiliser[k][o];
                part.offset[o] = part.size;
                const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> solver(scale * a);
                std::vector<Index> kept;
                for (Index i = 0; i < d; ++i)
                    if (solver.eigenvalues()[i] > 1e-8) kept.push_back(i);
                Eigen::MatrixXd w(d, static_cast<Index>(kept.size()));
                for (std::size_t i = 0; i < kept.size(); ++i)
                    w.col(static_cast<Index>(i)) = solver.eigenvectors().col(kept[i]) /
                                                   std::sqrt(solver.eigenvalues()[kept[i]]);
                part.rank[o] = static_cast<int>(kept.size());
                part.size += part.rank[o];
                if (!kept.empty()) {
                    part.aw[o] = a * w;
                    part.w[o] = std::move(w);
                }
            }
        }
    }
};

// Adds value X(rep of braOrbit, state) to the irrep blocks of X between the adapted spaces,
// through add(row, column, entry) in each irrep's basis.
template <class Add>
void addElement(const SplitGroup& group, const AdaptedSpace& bra, std::size_t braOrbit,
                const AdaptedSpace& ket, Index state, double value, const Add& add) {
    const auto s = static_cast<std::size_t>(state);
    const auto other = static_cast<std::size_t>(ket.orbitOf[s]);
    const auto h = static_cast<std::size_t>(ket.mover[s]);
    for (std::size_t k = 0; k < group.irreps.size(); ++k) {
        const AdaptedSpace::Part &here = bra.parts[k], &there = ket.parts[k];
        const int rows = here.rank[braOrbit], columns = there.rank[other];
        if (rows == 0 || columns == 0) continue;
        const int d = group.irreps[k].dimension;
        const double factor = d / static_cast<double>(group.order()) * value;
        if (d == 1) {
            add(k, here.offset[braOrbit], there.offset[other],
                factor * here.w[braOrbit](0, 0) * group.irreps[k].at(h)[0] * there.aw[other](0, 0));
            continue;
        }
        const Eigen::Map<
            const Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>>
            dh(group.irreps[k].at(h), d, d);
        const Eigen::MatrixXd y = here.w[braOrbit].transpose() * (dh * there.aw[other]);
        for (int i = 0; i < rows; ++i)
            for (int j = 0; j < columns; ++j)
                add(k, here.offset[braOrbit] + i, there.offset[other] + j, factor * y(i, j));
    }
}

} // namespace

SplitGroup wholeGroup(const SiteSymmetry& symmetry, int sites) {
    const std::size_t n = symmetry.elements.size();
    if (!symmetry.complete || symmetry.order > maxWholeGroupOrder || symmetry.order <= 1 ||
        static_cast<double>(n) != symmetry.order)
        return trivialGroup(sites);
    SplitGroup group;
    group.wholeGroup = true;
    group.name = symmetry.name;
    group.elements = symmetry.elements;
    const Permutation e = identity(sites);
    const auto first = std::find(group.elements.begin(), group.elements.end(), e);
    if (first == group.elements.end()) return trivialGroup(sites);
    std::iter_swap(group.elements.begin(), first);
    std::map<Permutation, int> index;
    for (std::size_t g = 0; g < n; ++g) index.emplace(group.elements[g], static_cast<int>(g));
    std::vector<int> product(n * n), inverse(n);
    for (std::size_t a = 0; a < n; ++a)
        for (std::size_t b = 0; b < n; ++b) {
            const auto found = index.find(compose(group.elements[a], group.elements[b]));
            if (found == index.end()) return trivialGroup(sites); // not closed: not the group
            product[a * n + b] = found->second;
            if (found->second == 0) inverse[a] = static_cast<int>(b);
        }
    for (std::uint64_t seed = 1; seed <= 4; ++seed) {
        group.irreps = irrepsFromRegular(product, inverse, seed);
        if (!group.irreps.empty()) return group;
    }
    return trivialGroup(sites);
}

std::vector<GroupSpace> groupSpaces(const SpinSystem& system, const SplitGroup& group) {
    const FixedStates fixed(system, group.elements);
    std::vector<GroupSpace> spaces;
    for (int twiceS = fixed.total() % 2; twiceS <= fixed.total(); twiceS += 2)
        for (std::size_t k = 0; k < group.irreps.size(); ++k) {
            const double states = fixed.multiplicity(group, k, twiceS),
                         above = fixed.multiplicity(group, k, twiceS + 2);
            if (states > above) spaces.push_back({twiceS, static_cast<int>(k), states, above});
        }
    return spaces;
}

double groupBlockFlops(const GroupSpace& space, std::size_t slots, int sites) {
    const double m = space.states, a = space.above, n = m - a;
    const double factor = 2 * m * a * a - 2.0 / 3.0 * a * a * a; // dgeqrf
    const double kernel = 4 * m * a * n - 2 * a * a * n;         // dormqr on n columns
    const double perJ = 2 * m * (2.0 + sites) * n + 2 * m * n * n;
    return factor + std::max(0.0, kernel) +
           static_cast<double>(std::max<std::size_t>(slots, 1)) * perJ;
}

void buildGroupBlocks(const SpinSystem& system, const SplitGroup& group,
                      const std::vector<int>& jSlot, std::size_t slots, int twiceTotal,
                      std::vector<std::vector<Eigen::MatrixXd>>& matrices, const StopFlag* stop) {
    const AdaptedSpace here(system, group, twiceTotal, stop),
        above(system, group, twiceTotal + 2, stop);
    const std::size_t irreps = group.irreps.size(), sites = system.twiceSpin.size();
    const ProductSpace& space = here.space;

    // The Hamiltonian per J in the first-row basis of every irrep, from the rows at the
    // representatives: -2 J (Sz_a Sz_b + (S+_a S-_b + S-_a S+_b) / 2).
    std::vector<std::vector<std::vector<Eigen::Triplet<double>>>> entries(
        irreps, std::vector<std::vector<Eigen::Triplet<double>>>(slots));
    std::vector<int> digits(sites);
    for (std::size_t o = 0; o < here.representatives.size(); ++o) {
        if (o % 256 == 0) throwIfStopped(stop);
        const std::uint64_t code = space.codes[static_cast<std::size_t>(here.representatives[o])];
        for (std::size_t i = 0; i < sites; ++i)
            digits[i] = space.digit(code, i, system.twiceSpin[i]);
        for (const Bond& bond : system.bonds) {
            const auto slot = static_cast<std::size_t>(jSlot[static_cast<std::size_t>(bond.j)]);
            auto add = [&](std::size_t k, Index row, Index column, double value) {
                entries[k][slot].emplace_back(row, column, value);
            };
            const auto a = static_cast<std::size_t>(bond.a), b = static_cast<std::size_t>(bond.b);
            const double sa = system.twiceSpin[a] / 2.0, sb = system.twiceSpin[b] / 2.0;
            const int da = digits[a], db = digits[b];
            const double ma = da - sa, mb = db - sb;
            if (ma * mb != 0)
                addElement(group, here, o, here, here.representatives[o], -2 * ma * mb, add);
            if (da < system.twiceSpin[a] && db > 0) {
                const Index target = space.find(code + space.stride[a] - space.stride[b]);
                addElement(
                    group, here, o, here, target,
                    -std::sqrt((sa * (sa + 1) - ma * (ma + 1)) * (sb * (sb + 1) - mb * (mb - 1))),
                    add);
            }
            if (da > 0 && db < system.twiceSpin[b]) {
                const Index target = space.find(code - space.stride[a] + space.stride[b]);
                addElement(
                    group, here, o, here, target,
                    -std::sqrt((sa * (sa + 1) - ma * (ma - 1)) * (sb * (sb + 1) - mb * (mb + 1))),
                    add);
            }
        }
    }

    // S+ from M = S to M = S + 1 as the columns of B (rows: this space), from the rows of S+
    // at the representatives above: <p'| s+_i |p> with p = s-_i p'.
    std::vector<Eigen::MatrixXd> raise(irreps);
    for (std::size_t k = 0; k < irreps; ++k)
        raise[k].setZero(here.parts[k].size, above.parts[k].size);
    for (std::size_t o = 0; o < above.representatives.size(); ++o) {
        if (o % 256 == 0) throwIfStopped(stop);
        const std::uint64_t code =
            above.space.codes[static_cast<std::size_t>(above.representatives[o])];
        auto add = [&](std::size_t k, Index row, Index column, double value) {
            raise[k](column, row) += value;
        };
        for (std::size_t i = 0; i < sites; ++i) {
            const int d = above.space.digit(code, i, system.twiceSpin[i]);
            if (d == 0) continue;
            const double s = system.twiceSpin[i] / 2.0, m = d - 1 - s;
            addElement(group, above, o, here, space.find(code - space.stride[i]),
                       std::sqrt(s * (s + 1) - m * (m + 1)), add);
        }
    }

    matrices.assign(irreps, {});
    for (std::size_t k = 0; k < irreps; ++k) {
        throwIfStopped(stop);
        const Index m = here.parts[k].size, a = above.parts[k].size, n = m - a;
        if (n <= 0) continue;
        // The kernel of S+: the last n columns of Q in B = Q R.
        Eigen::MatrixXd kernel = Eigen::MatrixXd::Identity(m, n);
        if (a > 0) {
            Eigen::MatrixXd& b = raise[k];
            const int rows = static_cast<int>(m), columns = static_cast<int>(a),
                      wanted = static_cast<int>(n);
            std::vector<double> tau(static_cast<std::size_t>(a));
            int info = 0, lwork = -1;
            double size = 0;
            dgeqrf_(&rows, &columns, b.data(), &rows, tau.data(), &size, &lwork, &info);
            std::vector<double> work(static_cast<std::size_t>(size) + 1);
            lwork = static_cast<int>(work.size());
            dgeqrf_(&rows, &columns, b.data(), &rows, tau.data(), work.data(), &lwork, &info);
            if (info != 0)
                throw std::runtime_error("LAPACK dgeqrf failed with info " + std::to_string(info));
            const double largest = b.diagonal().cwiseAbs().maxCoeff();
            if (b.diagonal().cwiseAbs().minCoeff() < 1e-9 * largest)
                throw std::logic_error(
                    "S+ does not reach every state of M + 1 in a symmetry block");
            kernel.setZero();
            kernel.bottomRows(n).setIdentity();
            const char left = 'L', none = 'N';
            lwork = -1;
            dormqr_(&left, &none, &rows, &wanted, &columns, b.data(), &rows, tau.data(),
                    kernel.data(), &rows, &size, &lwork, &info);
            work.resize(static_cast<std::size_t>(size) + 1);
            lwork = static_cast<int>(work.size());
            dormqr_(&left, &none, &rows, &wanted, &columns, b.data(), &rows, tau.data(),
                    kernel.data(), &rows, work.data(), &lwork, &info);
            if (info != 0)
                throw std::runtime_error("LAPACK dormqr failed with info " + std::to_string(info));
        }
        raise[k].resize(0, 0);
        matrices[k].resize(slots);
        for (std::size_t slot = 0; slot < slots; ++slot) {
            Eigen::SparseMatrix<double> h(m, m);
            h.setFromTriplets(entries[k][slot].begin(), entries[k][slot].end());
            entries[k][slot] = {};
            const Eigen::MatrixXd applied = h * kernel;
            Eigen::MatrixXd& block = matrices[k][slot];
            block.resize(n, n);
            const int size = static_cast<int>(n), rows = static_cast<int>(m);
            const double one = 1, zero = 0;
            const char transposed = 'T', none = 'N';
            dgemm_(&transposed, &none, &size, &size, &rows, &one, kernel.data(), &rows,
                   applied.data(), &rows, &zero, block.data(), &size);
            block = 0.5 * (block + block.transpose()).eval();
        }
    }
}

} // namespace corefit
