#include "group_blocks.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <limits>
#include <map>
#include <numeric>
#include <set>
#include <stdexcept>
#include <string>

#include <Eigen/Sparse>

#include "group_units.h"

extern "C" {
void dgeqrf_(const int* m, const int* n, double* a, const int* lda, double* tau, double* work,
             const int* lwork, int* info);
void dormqr_(const char* side, const char* trans, const int* m, const int* n, const int* k,
             const double* a, const int* lda, const double* tau, double* c, const int* ldc,
             double* work, const int* lwork, int* info);
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
// Product states of the units with one total M: mixed-radix codes of the units' local states,
// ascending.

struct UnitProducts {
    std::vector<std::uint64_t> stride;
    std::vector<std::uint64_t> codes;

    UnitProducts(const GroupUnits& units, int twiceM) {
        long double dimension = 1;
        for (const GroupUnits::Unit& unit : units.units) dimension *= unit.states;
        if (dimension > static_cast<long double>(std::numeric_limits<std::int64_t>::max()))
            throw std::length_error("too many product states to index");
        const std::size_t count = units.units.size();
        // The least and the most 2M of the units before each.
        std::vector<int> low(count + 1, 0), high(count + 1, 0);
        std::uint64_t step = 1;
        for (std::size_t i = 0; i < count; ++i) {
            const std::vector<int>& m = units.units[i].twiceM;
            stride.push_back(step);
            step *= static_cast<std::uint64_t>(units.units[i].states);
            low[i + 1] = low[i] + *std::min_element(m.begin(), m.end());
            high[i + 1] = high[i] + *std::max_element(m.begin(), m.end());
        }
        // The last unit (largest stride) outermost, its states ascending: codes come out sorted.
        auto fill = [&](auto&& self, std::size_t left, int rest, std::uint64_t code) -> void {
            if (left == 0) {
                if (rest == 0) codes.push_back(code);
                return;
            }
            const std::size_t i = left - 1;
            const GroupUnits::Unit& unit = units.units[i];
            for (int k = 0; k < unit.states; ++k) {
                const int r = rest - unit.twiceM[static_cast<std::size_t>(k)];
                if (r >= low[i] && r <= high[i])
                    self(self, i, r, code + static_cast<std::uint64_t>(k) * stride[i]);
            }
        };
        fill(fill, count, twiceM, 0);
        if (codes.size() > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max()))
            throw std::length_error("too many product states of one M to index");
    }
    Index size() const { return static_cast<Index>(codes.size()); }
    Index find(std::uint64_t code) const {
        const auto found = std::lower_bound(codes.begin(), codes.end(), code);
        return found != codes.end() && *found == code ? static_cast<Index>(found - codes.begin())
                                                      : -1;
    }
    int local(std::uint64_t code, std::size_t unit, int states) const {
        return static_cast<int>(code / stride[unit] % static_cast<std::uint64_t>(states));
    }
};

// Ids of the classes of cells: the least image of a cell under the group names its class.
struct CellClasses {
    std::map<std::vector<int>, int> ids;
    int id(const std::vector<int>& least) {
        return ids.emplace(least, static_cast<int>(ids.size())).first->second;
    }
    std::size_t size() const { return ids.size(); }
};

// The product states of one M split into orbits of the group, and for every irrep the
// orthonormal first-row vectors of each orbit: W with W^T (d/|G| A) W = 1, A the sum of
// sign(u) D(u) over the stabiliser of the representative. Every orbit's cells lie in one class.
struct AdaptedSpace {
    UnitProducts space;
    std::vector<int> orbitOf, mover; // per state: its orbit, h with R(h) rep = sign state
    std::vector<signed char> signOf;
    std::vector<Index> representatives;
    std::vector<int> classOf; // per orbit
    struct Part {
        std::vector<Index> offset; // per orbit, in the irrep's basis
        std::vector<int> rank;
        std::vector<Eigen::MatrixXd> w, aw;
        Index size = 0;
    };
    std::vector<Part> parts; // per irrep

    AdaptedSpace(const GroupUnits& units, const SplitGroup& group, int twiceM,
                 CellClasses& classes, const StopFlag* stop)
        : space(units, twiceM) {
        const std::size_t count = space.codes.size(), elements = group.elements.size(),
                          irreps = group.irreps.size(), unitCount = units.units.size();
        orbitOf.assign(count, -1);
        mover.assign(count, 0);
        signOf.assign(count, 1);
        std::vector<std::vector<Eigen::MatrixXd>> stabiliser(irreps);
        std::vector<int> local(unitCount), cell(unitCount), image(unitCount), least(unitCount);
        for (std::size_t c = 0; c < count; ++c) {
            if (orbitOf[c] >= 0) continue;
            if (representatives.size() % 1024 == 0) throwIfStopped(stop);
            const int orbit = static_cast<int>(representatives.size());
            representatives.push_back(static_cast<Index>(c));
            const std::uint64_t code = space.codes[c];
            for (std::size_t u = 0; u < unitCount; ++u) {
                local[u] = space.local(code, u, units.units[u].states);
                cell[u] = units.units[u].multiplet[static_cast<std::size_t>(local[u])];
            }
            least = cell;
            std::vector<Eigen::MatrixXd> sums(irreps);
            for (std::size_t k = 0; k < irreps; ++k)
                sums[k].setZero(group.irreps[k].dimension, group.irreps[k].dimension);
            for (std::size_t g = 0; g < elements; ++g) {
                std::uint64_t target = 0;
                int sign = 1;
                for (std::size_t u = 0; u < unitCount; ++u) {
                    const GroupUnits::Move& move = units.moves[g][u];
                    const auto k = static_cast<std::size_t>(local[u]);
                    const auto to = static_cast<std::size_t>(move.unit);
                    const int state = move.state[k];
                    target += static_cast<std::uint64_t>(state) * space.stride[to];
                    sign *= move.sign[k];
                    image[to] = units.units[to].multiplet[static_cast<std::size_t>(state)];
                }
                if (image < least) least = image;
                const Index found = space.find(target);
                if (found < 0)
                    throw std::logic_error("a symmetry element leaves the product states");
                const auto t = static_cast<std::size_t>(found);
                if (orbitOf[t] < 0) {
                    orbitOf[t] = orbit;
                    mover[t] = static_cast<int>(g);
                    signOf[t] = static_cast<signed char>(sign);
                }
                if (t == c)
                    for (std::size_t k = 0; k < irreps; ++k) {
                        const int d = group.irreps[k].dimension;
                        sums[k] += sign * Eigen::Map<const Eigen::Matrix<double, Eigen::Dynamic,
                                                                           Eigen::Dynamic,
                                                                           Eigen::RowMajor>>(
                                              group.irreps[k].at(g), d, d);
                    }
            }
            classOf.push_back(classes.id(least));
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
            stabiliser[k].clear();
        }
    }
};

// An operator's row at every orbit representative, as the states it reaches: X(rep, state).
struct Rows {
    struct Entry {
        std::int32_t state;
        std::int32_t slot;
        double value;
    };
    std::vector<std::size_t> start{0}; // per orbit, into entries; one more at the end
    std::vector<Entry> entries;
};

// Adds the terms gathered for one representative (codes), merged, to rows.
struct Gathered {
    std::uint64_t code;
    int slot;
    double value;
};
void addRow(const UnitProducts& space, std::vector<Gathered>& terms, Rows& rows) {
    std::sort(terms.begin(), terms.end(), [](const Gathered& a, const Gathered& b) {
        return a.code != b.code ? a.code < b.code : a.slot < b.slot;
    });
    for (std::size_t i = 0; i < terms.size();) {
        std::size_t j = i;
        double sum = 0;
        for (; j < terms.size() && terms[j].code == terms[i].code && terms[j].slot == terms[i].slot;
             ++j)
            sum += terms[j].value;
        if (std::abs(sum) > 1e-13) {
            const Index state = space.find(terms[i].code);
            if (state < 0) throw std::logic_error("an operator leaves the product states");
            rows.entries.push_back({static_cast<std::int32_t>(state), terms[i].slot, sum});
        }
        i = j;
    }
    rows.start.push_back(rows.entries.size());
    terms.clear();
}

// s_z and s_+ of every site in its unit, s_- = (s_+)^T, and s_a.s_b of the paths within a unit.
struct UnitOperators {
    std::vector<GroupUnits::Operator> lower; // per site
    std::vector<GroupUnits::Operator> inner; // per path; empty unless within one unit
    UnitOperators(const SpinSystem& system, const GroupUnits& units) {
        for (std::size_t site = 0; site < system.twiceSpin.size(); ++site) {
            const GroupUnits::Unit& unit = units.units[static_cast<std::size_t>(units.unitOf[site])];
            lower.emplace_back(unit.raise[static_cast<std::size_t>(units.place[site])].transpose());
        }
        for (const Bond& bond : system.bonds) {
            const auto a = static_cast<std::size_t>(bond.a), b = static_cast<std::size_t>(bond.b);
            inner.emplace_back();
            if (units.unitOf[a] != units.unitOf[b]) continue;
            const GroupUnits::Unit& unit = units.units[static_cast<std::size_t>(units.unitOf[a])];
            const auto pa = static_cast<std::size_t>(units.place[a]),
                       pb = static_cast<std::size_t>(units.place[b]);
            GroupUnits::Operator product = unit.sz[pa] * unit.sz[pb];
            product += 0.5 * (unit.raise[pa] * lower[b] + lower[a] * unit.raise[pb]);
            product.prune(1.0, 1e-13);
            inner.back() = std::move(product);
        }
    }
};

// The rows of the Hamiltonian per J at the representatives: -2 J s_a.s_b for every path, with
// s_a.s_b = s_z s_z + (s+ s- + s- s+) / 2 on two units, or its matrix within one.
Rows hamiltonianRows(const SpinSystem& system, const GroupUnits& units,
                     const UnitOperators& operators, const AdaptedSpace& adapted,
                     const std::vector<int>& jSlot, const StopFlag* stop) {
    const UnitProducts& space = adapted.space;
    Rows rows;
    std::vector<Gathered> terms;
    std::vector<int> local(units.units.size());
    using Iterator = GroupUnits::Operator::InnerIterator;
    for (std::size_t o = 0; o < adapted.representatives.size(); ++o) {
        if (o % 256 == 0) throwIfStopped(stop);
        const std::uint64_t code =
            space.codes[static_cast<std::size_t>(adapted.representatives[o])];
        for (std::size_t u = 0; u < units.units.size(); ++u)
            local[u] = space.local(code, u, units.units[u].states);
        for (std::size_t p = 0; p < system.bonds.size(); ++p) {
            const Bond& bond = system.bonds[p];
            const int slot = jSlot[static_cast<std::size_t>(bond.j)];
            const auto a = static_cast<std::size_t>(bond.a), b = static_cast<std::size_t>(bond.b);
            const auto u = static_cast<std::size_t>(units.unitOf[a]),
                       v = static_cast<std::size_t>(units.unitOf[b]);
            const std::uint64_t su = space.stride[u], sv = space.stride[v];
            const auto lu = static_cast<std::uint64_t>(local[u]),
                       lv = static_cast<std::uint64_t>(local[v]);
            if (u == v) {
                for (Iterator it(operators.inner[p], local[u]); it; ++it)
                    terms.push_back({code - lu * su + static_cast<std::uint64_t>(it.row()) * su,
                                     slot, -2 * it.value()});
                continue;
            }
            const GroupUnits::Unit &first = units.units[u], &second = units.units[v];
            const auto pa = static_cast<std::size_t>(units.place[a]),
                       pb = static_cast<std::size_t>(units.place[b]);
            auto pairTerms = [&](const GroupUnits::Operator& x, const GroupUnits::Operator& y,
                                 double factor) {
                for (Iterator i(x, local[u]); i; ++i)
                    for (Iterator j(y, local[v]); j; ++j)
                        terms.push_back({code - lu * su - lv * sv +
                                             static_cast<std::uint64_t>(i.row()) * su +
                                             static_cast<std::uint64_t>(j.row()) * sv,
                                         slot, factor * i.value() * j.value()});
            };
            pairTerms(first.sz[pa], second.sz[pb], -2);
            pairTerms(first.raise[pa], operators.lower[b], -1);
            pairTerms(operators.lower[a], second.raise[pb], -1);
        }
        addRow(space, terms, rows);
    }
    return rows;
}

// The rows of S+ from M = S to M = S + 1 at the representatives above, as S- of each: every
// unit's m lowered by one within its multiplet.
Rows lowerRows(const GroupUnits& units, const AdaptedSpace& above, const UnitProducts& below) {
    Rows rows;
    std::vector<Gathered> terms;
    for (const Index representative : above.representatives) {
        const std::uint64_t code = above.space.codes[static_cast<std::size_t>(representative)];
        for (std::size_t u = 0; u < units.units.size(); ++u) {
            const GroupUnits::Unit& unit = units.units[u];
            const int k = above.space.local(code, u, unit.states);
            const int j = unit.twiceJ[static_cast<std::size_t>(unit.multiplet[static_cast<std::size_t>(k)])];
            const int m = unit.twiceM[static_cast<std::size_t>(k)] - 2; // after lowering
            if (m < -j) continue;
            terms.push_back({code - above.space.stride[u], 0,
                             std::sqrt((j * (j + 2.0) - m * (m + 2.0)) / 4)});
        }
        addRow(below, terms, rows);
    }
    return rows;
}

// X(rep, state) in irrep k: factor D(h) A'W' (d x rank'), with W' and A' of the state's orbit,
// into u; the part of the matrix element is then L^T u for the first-row vectors L of the rep.
double projected(const SplitGroup& group, std::size_t k, const AdaptedSpace& ket, Index state,
                 double value, Eigen::MatrixXd& u) {
    const auto s = static_cast<std::size_t>(state);
    const auto other = static_cast<std::size_t>(ket.orbitOf[s]);
    const auto h = static_cast<std::size_t>(ket.mover[s]);
    const int d = group.irreps[k].dimension;
    const Eigen::Map<const Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>>
        dh(group.irreps[k].at(h), d, d);
    u.noalias() = dh * ket.parts[k].aw[other];
    return d / static_cast<double>(group.order()) * value * ket.signOf[s];
}

// The kernel of S+ (b: m x a, its columns S+'s rows): the last m - a columns of Q in b = Q R.
Eigen::MatrixXd kernelOf(Eigen::MatrixXd& b) {
    const Index m = b.rows(), a = b.cols(), n = m - a;
    if (a == 0) return Eigen::MatrixXd::Identity(m, m);
    const int rows = static_cast<int>(m), columns = static_cast<int>(a),
              wanted = static_cast<int>(n);
    std::vector<double> tau(static_cast<std::size_t>(a));
    int info = 0, lwork = -1;
    double size = 0;
    dgeqrf_(&rows, &columns, b.data(), &rows, tau.data(), &size, &lwork, &info);
    std::vector<double> work(static_cast<std::size_t>(size) + 1);
    lwork = static_cast<int>(work.size());
    dgeqrf_(&rows, &columns, b.data(), &rows, tau.data(), work.data(), &lwork, &info);
    if (info != 0) throw std::runtime_error("LAPACK dgeqrf failed with info " + std::to_string(info));
    const double largest = b.diagonal().cwiseAbs().maxCoeff();
    if (b.diagonal().cwiseAbs().minCoeff() < 1e-9 * largest)
        throw std::logic_error("S+ does not reach every state of M + 1 in a symmetry block");
    Eigen::MatrixXd kernel = Eigen::MatrixXd::Zero(m, n);
    kernel.bottomRows(n).setIdentity();
    const char left = 'L', none = 'N';
    lwork = -1;
    dormqr_(&left, &none, &rows, &wanted, &columns, b.data(), &rows, tau.data(), kernel.data(),
            &rows, &size, &lwork, &info);
    work.resize(static_cast<std::size_t>(size) + 1);
    lwork = static_cast<int>(work.size());
    dormqr_(&left, &none, &rows, &wanted, &columns, b.data(), &rows, tau.data(), kernel.data(),
            &rows, work.data(), &lwork, &info);
    if (info != 0) throw std::runtime_error("LAPACK dormqr failed with info " + std::to_string(info));
    return kernel;
}

// The (S, irrep k) block per J: the kernel of S+ class by class, and the Hamiltonian in it.
void irrepBlock(const SplitGroup& group, std::size_t k, const AdaptedSpace& here,
                const AdaptedSpace& above, const Rows& hamiltonian, const Rows& lowering,
                std::size_t slots, std::size_t classes, std::vector<Eigen::MatrixXd>& out,
                const StopFlag* stop) {
    const AdaptedSpace::Part &herePart = here.parts[k], &abovePart = above.parts[k];
    const int d = group.irreps[k].dimension;
    const std::size_t hereOrbits = here.representatives.size(),
                      aboveOrbits = above.representatives.size();
    // Each class's part of both spaces, and where every orbit's vectors lie in it.
    std::vector<Index> m(classes, 0), a(classes, 0), hereAt(hereOrbits), aboveAt(aboveOrbits);
    std::vector<std::vector<std::size_t>> orbitsOf(classes);
    for (std::size_t o = 0; o < hereOrbits; ++o) {
        const auto c = static_cast<std::size_t>(here.classOf[o]);
        hereAt[o] = m[c];
        m[c] += herePart.rank[o];
        if (herePart.rank[o] > 0) orbitsOf[c].push_back(o);
    }
    for (std::size_t o = 0; o < aboveOrbits; ++o) {
        const auto c = static_cast<std::size_t>(above.classOf[o]);
        aboveAt[o] = a[c];
        a[c] += abovePart.rank[o];
    }
    for (std::size_t c = 0; c < classes; ++c)
        if (a[c] > m[c]) throw std::logic_error("S+ leaves a class of cells in a symmetry block");

    // S+ per class (its transpose: rows here, columns above), then its kernel.
    std::vector<Eigen::MatrixXd> raise(classes);
    for (std::size_t c = 0; c < classes; ++c)
        if (m[c] > a[c] && a[c] > 0) raise[c].setZero(m[c], a[c]);
    Eigen::MatrixXd u(d, d);
    for (std::size_t o = 0; o < aboveOrbits; ++o) {
        const int rank = abovePart.rank[o];
        const auto c = static_cast<std::size_t>(above.classOf[o]);
        if (rank == 0 || raise[c].size() == 0) continue;
        for (std::size_t e = lowering.start[o]; e < lowering.start[o + 1]; ++e) {
            const Rows::Entry& entry = lowering.entries[e];
            const auto other = static_cast<std::size_t>(here.orbitOf[static_cast<std::size_t>(entry.state)]);
            const int columns = herePart.rank[other];
            if (columns == 0) continue;
            if (static_cast<std::size_t>(here.classOf[other]) != c)
                throw std::logic_error("S+ leaves a class of cells");
            const double factor = projected(group, k, here, entry.state, entry.value, u);
            raise[c].block(hereAt[other], aboveAt[o], columns, rank) +=
                factor * (abovePart.w[o].transpose() * u).transpose();
        }
    }
    std::vector<Eigen::MatrixXd> kernel(classes);
    std::vector<Index> kernelAt(classes, 0);
    Index n = 0;
    for (std::size_t c = 0; c < classes; ++c) {
        kernelAt[c] = n;
        if (m[c] <= a[c]) continue;
        throwIfStopped(stop);
        kernel[c] = a[c] == 0 ? Eigen::MatrixXd::Identity(m[c], m[c]) : kernelOf(raise[c]);
        raise[c] = Eigen::MatrixXd();
        n += m[c] - a[c];
    }
    out.clear();
    if (n == 0) return;
    out.assign(slots, Eigen::MatrixXd::Zero(n, n));

    // Z^T H Z class by class: Y = Z_c^T H(rows of c, all), from the rows at the representatives
    // with Z_c's rows folded into their first-row vectors; then Z_c^T H Z_c' = Y(, c') Z_c'.
    std::vector<Index> start(classes + 1, 0);
    for (std::size_t c = 0; c < classes; ++c) start[c + 1] = start[c] + m[c];
    std::vector<Eigen::MatrixXd> y(slots);
    std::vector<char> touched(classes);
    for (std::size_t c = 0; c < classes; ++c) {
        const Index nc = kernel[c].cols();
        if (nc == 0) continue;
        throwIfStopped(stop);
        for (Eigen::MatrixXd& part : y) part.setZero(nc, start[classes]);
        std::fill(touched.begin(), touched.end(), 0);
        for (const std::size_t o : orbitsOf[c]) {
            const Eigen::MatrixXd folded =
                (herePart.w[o] * kernel[c].middleRows(hereAt[o], herePart.rank[o])).transpose();
            for (std::size_t e = hamiltonian.start[o]; e < hamiltonian.start[o + 1]; ++e) {
                const Rows::Entry& entry = hamiltonian.entries[e];
                const auto other =
                    static_cast<std::size_t>(here.orbitOf[static_cast<std::size_t>(entry.state)]);
                const int columns = herePart.rank[other];
                const auto oc = static_cast<std::size_t>(here.classOf[other]);
                if (columns == 0 || kernel[oc].cols() == 0) continue;
                touched[oc] = 1;
                const double factor = projected(group, k, here, entry.state, entry.value, u);
                Eigen::MatrixXd& target = y[static_cast<std::size_t>(entry.slot)];
                const Index at = start[oc] + hereAt[other];
                for (int j = 0; j < columns; ++j)
                    for (int i = 0; i < d; ++i)
                        target.col(at + j) += factor * u(i, j) * folded.col(i);
            }
        }
        for (std::size_t oc = 0; oc < classes; ++oc) {
            if (!touched[oc]) continue;
            for (std::size_t slot = 0; slot < slots; ++slot)
                out[slot].block(kernelAt[c], kernelAt[oc], nc, kernel[oc].cols()).noalias() +=
                    y[slot].middleCols(start[oc], m[oc]) * kernel[oc];
        }
    }
    for (Eigen::MatrixXd& block : out) block = 0.5 * (block + block.transpose()).eval();
}


// The classes of cells of the units, for the estimates: per class, the number of its product
// states of each total 2M (index (2M + sum of 2S) / 2). With too many cells to go through, one
// class of all states, the most the kernel can cost.
std::vector<std::vector<double>> cellClassStates(const SpinSystem& system,
                                                 const GroupUnits& units) {
    int total = 0;
    for (int s : system.twiceSpin) total += s;
    const std::size_t count = units.units.size();
    auto statesOf = [&](const std::vector<int>& cell) {
        std::vector<double> states{1};
        for (std::size_t u = 0; u < count; ++u) {
            const int j = units.units[u].twiceJ[static_cast<std::size_t>(cell[u])];
            std::vector<double> next(states.size() + static_cast<std::size_t>(j), 0);
            for (std::size_t i = 0; i < states.size(); ++i)
                for (int m = 0; m <= j; ++m) next[i + static_cast<std::size_t>(m)] += states[i];
            states = std::move(next);
        }
        // A cell of spins j_u reaches 2M = -sum 2j_u .. sum 2j_u; place it on the common scale.
        int spins = 0;
        for (std::size_t u = 0; u < count; ++u)
            spins += units.units[u].twiceJ[static_cast<std::size_t>(cell[u])];
        std::vector<double> placed(static_cast<std::size_t>(total) + 1, 0);
        for (std::size_t i = 0; i < states.size(); ++i)
            placed[i + static_cast<std::size_t>((total - spins) / 2)] = states[i];
        return placed;
    };
    double cells = 1;
    for (const GroupUnits::Unit& unit : units.units) cells *= static_cast<double>(unit.twiceJ.size());
    if (cells > 65536) {
        std::vector<double> all{1};
        for (int s : system.twiceSpin) {
            std::vector<double> next(all.size() + static_cast<std::size_t>(s), 0);
            for (std::size_t i = 0; i < all.size(); ++i)
                for (int m = 0; m <= s; ++m) next[i + static_cast<std::size_t>(m)] += all[i];
            all = std::move(next);
        }
        return {all};
    }
    std::vector<std::vector<double>> classes;
    std::set<std::vector<int>> seen;
    std::vector<int> cell(count, 0), image(count);
    for (double c = 0; c < cells; ++c) {
        if (!seen.count(cell)) {
            double size = 0;
            for (std::size_t g = 0; g < units.moves.size(); ++g) {
                for (std::size_t u = 0; u < count; ++u) {
                    const GroupUnits::Move& move = units.moves[g][u];
                    const GroupUnits::Unit &from = units.units[u],
                                           &to = units.units[static_cast<std::size_t>(move.unit)];
                    const int state =
                        move.state[static_cast<std::size_t>(from.offset[static_cast<std::size_t>(cell[u])])];
                    image[static_cast<std::size_t>(move.unit)] =
                        to.multiplet[static_cast<std::size_t>(state)];
                }
                size += seen.insert(image).second ? 1 : 0;
            }
            std::vector<double> states = statesOf(cell);
            for (double& x : states) x *= size;
            classes.push_back(std::move(states));
        }
        for (std::size_t u = 0; u < count; ++u) { // the next cell
            if (++cell[u] < static_cast<int>(units.units[u].twiceJ.size())) break;
            cell[u] = 0;
        }
    }
    return classes;
}

// Constants of the estimate, measured on 2-core machines: seconds per state and element to find
// the orbits, per term of a row gathered, and per floating-point operation of the projections,
// the QR factorisations and the products (small ones, at a fraction of dgemm's rate).
constexpr double orbitSeconds = 4e-9, termSeconds = 5e-8, flopSeconds = 1.0 / 4e9,
                 qrFlopSeconds = 1.0 / 2e10;

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


std::vector<GroupBuildCost> groupBuildCosts(const SpinSystem& system, const SplitGroup& group,
                                            std::size_t slots, bool siteUnits) {
    const GroupUnits units = groupUnits(system, group, !siteUnits);
    const UnitOperators operators(system, units);
    const double order = group.order(), k = static_cast<double>(std::max<std::size_t>(slots, 1));
    // Terms of a row of H: per path, the products of its operators' nonzeros per column.
    double terms = 0;
    for (std::size_t p = 0; p < system.bonds.size(); ++p) {
        const auto a = static_cast<std::size_t>(system.bonds[p].a),
                   b = static_cast<std::size_t>(system.bonds[p].b);
        const GroupUnits::Unit &first = units.units[static_cast<std::size_t>(units.unitOf[a])],
                               &second = units.units[static_cast<std::size_t>(units.unitOf[b])];
        auto perState = [](const GroupUnits::Operator& x) {
            return static_cast<double>(x.nonZeros()) / static_cast<double>(x.cols());
        };
        const auto pa = static_cast<std::size_t>(units.place[a]),
                   pb = static_cast<std::size_t>(units.place[b]);
        if (units.unitOf[a] == units.unitOf[b])
            terms += perState(operators.inner[p]);
        else
            terms += perState(first.sz[pa]) * perState(second.sz[pb]) +
                     perState(first.raise[pa]) * perState(operators.lower[b]) +
                     perState(operators.lower[a]) * perState(second.raise[pb]);
    }
    const std::vector<std::vector<double>> classes = cellClassStates(system, units);
    int total = 0;
    for (int s : system.twiceSpin) total += s;
    auto statesOf = [&](const std::vector<double>& states, int twiceM) {
        const int i = (twiceM + total) / 2;
        return i >= 0 && i < static_cast<int>(states.size()) ? states[static_cast<std::size_t>(i)]
                                                             : 0.0;
    };
    std::vector<GroupBuildCost> costs;
    for (int twiceS = total % 2; twiceS <= total; twiceS += 2) {
        double here = 0, above = 0;
        for (const auto& states : classes) {
            here += statesOf(states, twiceS);
            above += statesOf(states, twiceS + 2);
        }
        if (here <= above) continue;
        const double orbits = (here + above) / order, rowTerms = here / order * terms;
        double seconds = (here + above) * order *
                             (static_cast<double>(units.units.size()) + std::log2(here + 2)) *
                             orbitSeconds +
                         rowTerms * termSeconds,
               bytes = (here + above) * 24 + rowTerms * 16 +
                       orbits * static_cast<double>(group.irreps.size()) * 96,
               largest = 0;
        for (const SplitGroup::Irrep& irrep : group.irreps) {
            const double d = irrep.dimension, share = d / order;
            double qr = 0, n = 0, folded = 0, m = 0, held = 0;
            for (const auto& states : classes) {
                const double mc = statesOf(states, twiceS) * share,
                             ac = statesOf(states, twiceS + 2) * share, nc = std::max(0.0, mc - ac);
                if (nc <= 0) continue;
                if (ac > 0) qr += 2 * mc * ac * ac + 4 * mc * ac * nc;
                n += nc;
                folded += mc * nc;
                m += mc;
                held += mc * (nc + ac);
            }
            if (n <= 0) continue;
            const double columns = m > 0 ? folded / m : 0; // Z's columns per row, on average
            seconds += qr * qrFlopSeconds +
                       (rowTerms * d * d * (d + 2 * k * columns) + 2 * k * n * folded) * flopSeconds;
            largest = std::max(largest, 8 * (held + k * m * std::min(n, 4 * columns + 1)));
        }
        costs.push_back({twiceS, seconds, bytes + largest});
    }
    return costs;
}

std::string groupUnitsText(const SpinSystem& system, const SplitGroup& group) {
    const GroupUnits units = groupUnits(system, group);
    std::map<std::size_t, int, std::greater<>> bySize;
    for (const GroupUnits::Unit& unit : units.units) ++bySize[unit.sites.size()];
    std::string text;
    for (const auto& [size, count] : bySize) {
        char part[64];
        std::snprintf(part, sizeof part, "%s%d unit%s of %zu site%s", text.empty() ? "" : ", ",
                      count, count == 1 ? "" : "s", size, size == 1 ? "" : "s");
        text += part;
    }
    return text;
}

void buildGroupBlocks(const SpinSystem& system, const SplitGroup& group,
                      const std::vector<int>& jSlot, std::size_t slots, int twiceTotal,
                      std::vector<std::vector<Eigen::MatrixXd>>& matrices, const StopFlag* stop,
                      bool siteUnits) {
    const GroupUnits units = groupUnits(system, group, !siteUnits);
    CellClasses classes;
    const AdaptedSpace here(units, group, twiceTotal, classes, stop),
        above(units, group, twiceTotal + 2, classes, stop);
    const UnitOperators operators(system, units);
    const Rows hamiltonian = hamiltonianRows(system, units, operators, here, jSlot, stop);
    const Rows lowering = lowerRows(units, above, here.space);
    matrices.assign(group.irreps.size(), {});
    for (std::size_t k = 0; k < group.irreps.size(); ++k)
        irrepBlock(group, k, here, above, hamiltonian, lowering, slots, classes.size(),
                   matrices[k], stop);
}

} // namespace corefit
