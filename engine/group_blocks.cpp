#include "group_blocks.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <limits>
#include <map>
#include <memory>
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
    Index find(std::uint64_t code) const {
        const auto found = std::lower_bound(codes.begin(), codes.end(), code);
        return found != codes.end() && *found == code ? static_cast<Index>(found - codes.begin())
                                                      : -1;
    }
    int local(std::uint64_t code, std::size_t unit, int states) const {
        return static_cast<int>(code / stride[unit] % static_cast<std::uint64_t>(states));
    }
};

// ---------------------------------------------------------------------------------------------
// At most so many cells, and cells times elements times units, are gone through; with more, the
// units are single sites (one cell).
constexpr double maxCells = 1 << 16, maxCellImages = 1 << 26;

double cellImages(const GroupUnits& units, std::size_t elements) {
    double cells = 1;
    for (const GroupUnits::Unit& unit : units.units)
        cells *= static_cast<double>(unit.twiceJ.size());
    return cells > maxCells
               ? 2 * maxCellImages
               : cells * static_cast<double>(elements) * static_cast<double>(units.units.size());
}

// The units the blocks are built on: composite ones unless asked for single sites or their cells
// are too many to go through.
GroupUnits unitsOf(const SpinSystem& system, const SplitGroup& group, bool siteUnits) {
    GroupUnits units = groupUnits(system, group, !siteUnits);
    if (cellImages(units, group.elements.size()) > maxCellImages)
        units = groupUnits(system, group, false);
    return units;
}

// Cells: the choice of every unit's multiplet, numbered as mixed-radix numbers. The group maps
// cells onto cells; a class is one orbit of cells, and its least cell the canonical one, where
// the orbit representatives of the product states are taken.
struct CellTable {
    std::vector<std::size_t> stride;        // per unit
    std::vector<int> classOf;               // per cell
    std::vector<char> canonical;            // per cell
    std::vector<std::size_t> canonicalCell; // per class
    std::vector<std::vector<int>> keeping;  // per class: the elements that keep its canonical cell

    CellTable(const GroupUnits& units, std::size_t elements) {
        const std::size_t count = units.units.size();
        double cells = 1;
        std::size_t step = 1;
        for (const GroupUnits::Unit& unit : units.units) {
            cells *= static_cast<double>(unit.twiceJ.size());
            stride.push_back(step);
            step *= unit.twiceJ.size();
        }
        if (cellImages(units, elements) > maxCellImages)
            throw std::logic_error("too many cells of the units to go through");
        // [element][unit][multiplet]: the multiplet of the image unit it goes to.
        std::vector<std::vector<std::vector<int>>> image(elements,
                                                         std::vector<std::vector<int>>(count));
        for (std::size_t g = 0; g < elements; ++g)
            for (std::size_t u = 0; u < count; ++u) {
                const GroupUnits::Move& move = units.moves[g][u];
                const GroupUnits::Unit &from = units.units[u],
                                       &to = units.units[static_cast<std::size_t>(move.unit)];
                for (const int first : from.offset)
                    image[g][u].push_back(to.multiplet[static_cast<std::size_t>(
                        move.state[static_cast<std::size_t>(first)])]);
            }
        const auto total = static_cast<std::size_t>(cells);
        classOf.assign(total, -1);
        canonical.assign(total, 0);
        std::vector<int> digits(count);
        for (std::size_t c = 0; c < total; ++c) {
            if (classOf[c] >= 0) continue;
            const int id = static_cast<int>(canonicalCell.size());
            canonicalCell.push_back(c);
            canonical[c] = 1;
            keeping.emplace_back();
            for (std::size_t u = 0; u < count; ++u)
                digits[u] = static_cast<int>(c / stride[u] % units.units[u].twiceJ.size());
            for (std::size_t g = 0; g < elements; ++g) {
                std::size_t target = 0;
                for (std::size_t u = 0; u < count; ++u)
                    target +=
                        stride[static_cast<std::size_t>(units.moves[g][u].unit)] *
                        static_cast<std::size_t>(image[g][u][static_cast<std::size_t>(digits[u])]);
                classOf[target] = id;
                if (target == c) keeping.back().push_back(static_cast<int>(g));
            }
        }
    }
    std::size_t classes() const { return canonicalCell.size(); }
};

// The product states of one M split into orbits of the group, and for every irrep the
// orthonormal first-row vectors of each orbit: W with W^T (d/|G| A) W = 1, A the sum of
// sign(u) D(u) over the stabiliser of the representative. Every orbit's cells lie in one class,
// and its representative in the class's canonical cell.
struct AdaptedSpace {
    UnitProducts space;
    std::vector<int> orbitOf, mover; // per state: its orbit, h with R(h) rep = sign state
    std::vector<signed char> signOf;
    std::vector<Index> representatives;
    std::vector<int> classOf; // per orbit
    // The stabiliser of every representative: elements with the sign R(u) rep = sign rep.
    std::vector<std::size_t> keptFrom{0};
    std::vector<std::pair<int, int>> kept;
    struct Part {
        std::vector<Index> offset; // per orbit, in the irrep's basis
        std::vector<int> rank;
        std::vector<Eigen::MatrixXd> w, aw;
        Index size = 0;
    };
    std::vector<Part> parts; // per irrep

    AdaptedSpace(const GroupUnits& units, const SplitGroup& group, int twiceM,
                 const CellTable& table, const StopFlag* stop)
        : space(units, twiceM) {
        const std::size_t count = space.codes.size(), elements = group.elements.size(),
                          irreps = group.irreps.size(), unitCount = units.units.size();
        orbitOf.assign(count, -1);
        mover.assign(count, 0);
        signOf.assign(count, 1);
        std::vector<int> local(unitCount);
        for (std::size_t c = 0; c < count; ++c) {
            if (orbitOf[c] >= 0) continue;
            const std::uint64_t code = space.codes[c];
            std::size_t cellIndex = 0;
            for (std::size_t u = 0; u < unitCount; ++u) {
                local[u] = space.local(code, u, units.units[u].states);
                cellIndex += table.stride[u] *
                             static_cast<std::size_t>(
                                 units.units[u].multiplet[static_cast<std::size_t>(local[u])]);
            }
            // Representatives in canonical cells: the others are reached from there.
            if (!table.canonical[cellIndex]) continue;
            if (representatives.size() % 1024 == 0) throwIfStopped(stop);
            const int orbit = static_cast<int>(representatives.size());
            representatives.push_back(static_cast<Index>(c));
            for (std::size_t g = 0; g < elements; ++g) {
                std::uint64_t target = 0;
                int sign = 1;
                for (std::size_t u = 0; u < unitCount; ++u) {
                    const GroupUnits::Move& move = units.moves[g][u];
                    const auto k = static_cast<std::size_t>(local[u]);
                    const auto to = static_cast<std::size_t>(move.unit);
                    target += static_cast<std::uint64_t>(move.state[k]) * space.stride[to];
                    sign *= move.sign[k];
                }
                const Index found = space.find(target);
                if (found < 0)
                    throw std::logic_error("a symmetry element leaves the product states");
                const auto t = static_cast<std::size_t>(found);
                if (orbitOf[t] < 0) {
                    orbitOf[t] = orbit;
                    mover[t] = static_cast<int>(g);
                    signOf[t] = static_cast<signed char>(sign);
                }
                if (t == c) kept.emplace_back(static_cast<int>(g), sign);
            }
            keptFrom.push_back(kept.size());
            classOf.push_back(table.classOf[cellIndex]);
        }
        for (const int o : orbitOf)
            if (o < 0) throw std::logic_error("a product state outside every orbit");
        const std::size_t orbits = representatives.size();
        parts.resize(irreps);
        for (std::size_t k = 0; k < irreps; ++k) {
            const SplitGroup::Irrep& irrep = group.irreps[k];
            Part& part = parts[k];
            part.offset.resize(orbits);
            part.rank.resize(orbits);
            part.w.resize(orbits);
            part.aw.resize(orbits);
            for (std::size_t o = 0; o < orbits; ++o) {
                part.offset[o] = part.size;
                part.rank[o] = firstRow(
                    irrep, group.order(), o, [](int g) { return g; }, part.w[o], part.aw[o]);
                part.size += part.rank[o];
            }
        }
    }

    // The first-row vectors of orbit o in an irrep of a group of `order` elements, of which
    // the stabiliser's elements are position(g): W and A W; returns their number.
    template <class Position>
    int firstRow(const SplitGroup::Irrep& irrep, int order, std::size_t o, Position position,
                 Eigen::MatrixXd& w, Eigen::MatrixXd& aw) const {
        const int d = irrep.dimension;
        Eigen::MatrixXd a = Eigen::MatrixXd::Zero(d, d);
        for (std::size_t i = keptFrom[o]; i < keptFrom[o + 1]; ++i)
            a += kept[i].second *
                 Eigen::Map<
                     const Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>>(
                     irrep.at(static_cast<std::size_t>(position(kept[i].first))), d, d);
        const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> solver(static_cast<double>(d) / order *
                                                                    a);
        std::vector<Index> chosen;
        for (Index i = 0; i < d; ++i)
            if (solver.eigenvalues()[i] > 1e-8) chosen.push_back(i);
        w.resize(d, static_cast<Index>(chosen.size()));
        for (std::size_t i = 0; i < chosen.size(); ++i)
            w.col(static_cast<Index>(i)) =
                solver.eigenvectors().col(chosen[i]) / std::sqrt(solver.eigenvalues()[chosen[i]]);
        aw = a * w;
        return static_cast<int>(chosen.size());
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
            const GroupUnits::Unit& unit =
                units.units[static_cast<std::size_t>(units.unitOf[site])];
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
            const int j =
                unit.twiceJ[static_cast<std::size_t>(unit.multiplet[static_cast<std::size_t>(k)])];
            const int m = unit.twiceM[static_cast<std::size_t>(k)] - 2; // after lowering
            if (m < -j) continue;
            terms.push_back(
                {code - above.space.stride[u], 0, std::sqrt((j * (j + 2.0) - m * (m + 2.0)) / 4)});
        }
        addRow(below, terms, rows);
    }
    return rows;
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
    if (info != 0)
        throw std::runtime_error("LAPACK dgeqrf failed with info " + std::to_string(info));
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
    if (info != 0)
        throw std::runtime_error("LAPACK dormqr failed with info " + std::to_string(info));
    return kernel;
}

// The stabiliser H of a class's canonical cell, with its real irreducible representations. Not
// ready where H has one of complex or quaternionic type (or the group's products are not at
// hand): its classes are then factorised irrep by irrep of the whole group.
struct Stabiliser {
    bool ready = false;
    std::vector<int> elements; // H, as indices into the group
    std::vector<int> position; // per element of the group: its index in H, or -1
    std::vector<SplitGroup::Irrep> irreps;
    // Per irrep Gamma of the group and irrep sigma of H: S_j = sum_h D(h)^T w_j D^sigma_1.(h)
    // for every w_j with w^T Q w = 1, Q = d/|G| sum_h D(h) D^sigma_11(h) (see groupKernel);
    // none where sigma does not occur in Gamma.
    std::vector<std::vector<std::vector<Eigen::MatrixXd>>> induced;
};

Stabiliser stabiliserOf(const SplitGroup& group, const std::vector<int>& keeping) {
    Stabiliser out;
    const std::size_t n = group.elements.size(), nh = keeping.size();
    if (group.products.size() != n * n || keeping.empty() || keeping[0] != 0) return out;
    out.elements = keeping;
    out.position.assign(n, -1);
    for (std::size_t i = 0; i < nh; ++i)
        out.position[static_cast<std::size_t>(keeping[i])] = static_cast<int>(i);
    if (nh == 1) {
        out.irreps.push_back({1, 1, "1D", {1.0}});
    } else {
        std::vector<int> product(nh * nh), inverse(nh, 0);
        for (std::size_t a = 0; a < nh; ++a)
            for (std::size_t b = 0; b < nh; ++b) {
                const int p = out.position[static_cast<std::size_t>(
                    group.products[static_cast<std::size_t>(keeping[a]) * n +
                                   static_cast<std::size_t>(keeping[b])])];
                if (p < 0) return out;
                product[a * nh + b] = p;
                if (p == 0) inverse[a] = static_cast<int>(b);
            }
        for (std::uint64_t seed = 1; seed <= 4 && out.irreps.empty(); ++seed)
            out.irreps = irrepsFromRegular(product, inverse, seed);
        if (out.irreps.empty()) return out;
    }
    for (const SplitGroup::Irrep& irrep : out.irreps)
        if (irrep.kind != 1) return out;
    using RowMajor = Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;
    auto matrix = [](const SplitGroup::Irrep& irrep, std::size_t element) {
        return Eigen::Map<const RowMajor>(irrep.at(element), irrep.dimension, irrep.dimension);
    };
    for (const SplitGroup::Irrep& gamma : group.irreps) {
        const int d = gamma.dimension;
        out.induced.emplace_back();
        for (const SplitGroup::Irrep& sigma : out.irreps) {
            Eigen::MatrixXd q = Eigen::MatrixXd::Zero(d, d);
            for (std::size_t i = 0; i < nh; ++i)
                q += matrix(gamma, static_cast<std::size_t>(keeping[i])) * sigma.at(i)[0];
            q *= d / static_cast<double>(group.order());
            const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> solver(q);
            std::vector<Eigen::MatrixXd> pieces;
            for (Eigen::Index j = 0; j < d; ++j) {
                const double value = solver.eigenvalues()[j];
                if (value <= 1e-8) continue;
                const Eigen::VectorXd w = solver.eigenvectors().col(j) / std::sqrt(value);
                Eigen::MatrixXd piece = Eigen::MatrixXd::Zero(d, sigma.dimension);
                for (std::size_t i = 0; i < nh; ++i)
                    piece += (matrix(gamma, static_cast<std::size_t>(keeping[i])).transpose() * w) *
                             matrix(sigma, i).row(0);
                pieces.push_back(std::move(piece));
            }
            out.induced.back().push_back(std::move(pieces));
        }
    }
    out.ready = true;
    return out;
}

// The kernel of S+ in one class, split by the real irreducible representations sigma of the
// stabiliser H of its canonical cell: every orbit of the class meets that cell in one orbit of
// H, so the class is the space induced from the cell, and its kernel is induced from the cell's.
// In each sigma, a QR factorisation of S+ on sigma's first-row vectors of the cell; every irrep
// of the whole group then takes its part of the class's kernel from these (groupKernel), without
// a factorisation of its own.
struct ClassKernel {
    bool ready = false;
    const Stabiliser* stabiliser = nullptr;
    std::vector<std::size_t> orbits; // of the class, M = S
    struct Sigma {
        std::vector<Index> at; // per orbit of the class: its first-row vectors in sigma's basis
        std::vector<int> rank;
        std::vector<Eigen::MatrixXd> w;
        Eigen::MatrixXd kernel; // sigma's basis x the kernel vectors
    };
    std::vector<Sigma> sigma;
};

// D^irrep(h) A'W' of the orbit of `state` (ket.mover[state] = h, at position(h) in the group
// the irrep belongs to), into u; returns the factor d/order value sign(state). X(rep, state)'s
// part between the first-row vectors L of the rep and those of state's orbit is then factor L^T u.
template <class Position>
double projected(const SplitGroup::Irrep& irrep, int order, const AdaptedSpace& ket, Index state,
                 double value, const Eigen::MatrixXd& aw, Position position, Eigen::MatrixXd& u) {
    const auto s = static_cast<std::size_t>(state);
    const int d = irrep.dimension;
    const Eigen::Map<const Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>>
        dh(irrep.at(static_cast<std::size_t>(position(ket.mover[s]))), d, d);
    u.noalias() = dh * aw;
    return d / static_cast<double>(order) * value * ket.signOf[s];
}

ClassKernel classKernel(const Stabiliser& stabiliser, const AdaptedSpace& here,
                        const AdaptedSpace& above, std::vector<std::size_t> hereOrbits,
                        const std::vector<std::size_t>& aboveOrbits,
                        const std::vector<Index>& inClass, const Rows& lowering) {
    ClassKernel out;
    out.orbits = std::move(hereOrbits);
    out.stabiliser = &stabiliser;
    if (!stabiliser.ready) return out;
    const auto position = [&](int g) { return stabiliser.position[static_cast<std::size_t>(g)]; };
    const int order = static_cast<int>(stabiliser.elements.size());
    Eigen::MatrixXd u;
    for (const SplitGroup::Irrep& irrep : stabiliser.irreps) {
        ClassKernel::Sigma part;
        const std::size_t count = out.orbits.size();
        part.at.resize(count);
        part.rank.resize(count);
        part.w.resize(count);
        std::vector<Eigen::MatrixXd> aw(count);
        Index m = 0, a = 0;
        for (std::size_t i = 0; i < count; ++i) {
            part.at[i] = m;
            part.rank[i] = here.firstRow(irrep, order, out.orbits[i], position, part.w[i], aw[i]);
            m += part.rank[i];
        }
        std::vector<Index> aboveAt(aboveOrbits.size());
        std::vector<Eigen::MatrixXd> aboveW(aboveOrbits.size()), unused(aboveOrbits.size());
        std::vector<int> aboveRank(aboveOrbits.size());
        for (std::size_t i = 0; i < aboveOrbits.size(); ++i) {
            aboveAt[i] = a;
            aboveRank[i] =
                above.firstRow(irrep, order, aboveOrbits[i], position, aboveW[i], unused[i]);
            a += aboveRank[i];
        }
        if (a > m) throw std::logic_error("S+ leaves a class of cells in a symmetry block");
        if (a == 0) {
            part.kernel = Eigen::MatrixXd::Identity(m, m);
        } else if (m > a) {
            Eigen::MatrixXd b = Eigen::MatrixXd::Zero(m, a);
            for (std::size_t i = 0; i < aboveOrbits.size(); ++i) {
                if (aboveRank[i] == 0) continue;
                const std::size_t o = aboveOrbits[i];
                for (std::size_t e = lowering.start[o]; e < lowering.start[o + 1]; ++e) {
                    const Rows::Entry& entry = lowering.entries[e];
                    const auto other = static_cast<std::size_t>(
                        here.orbitOf[static_cast<std::size_t>(entry.state)]);
                    if (here.classOf[other] != above.classOf[o])
                        throw std::logic_error("S+ leaves a class of cells");
                    const auto j = static_cast<std::size_t>(inClass[other]);
                    if (part.rank[j] == 0) continue;
                    if (position(here.mover[static_cast<std::size_t>(entry.state)]) < 0)
                        throw std::logic_error("S+ leaves the canonical cell of a class");
                    const double factor =
                        projected(irrep, order, here, entry.state, entry.value, aw[j], position, u);
                    b.block(part.at[j], aboveAt[i], part.rank[j], aboveRank[i]) +=
                        factor * (aboveW[i].transpose() * u).transpose();
                }
            }
            part.kernel = kernelOf(b);
        } else {
            part.kernel.resize(m, 0);
        }
        out.sigma.push_back(std::move(part));
    }
    out.ready = true;
    return out;
}

// The class's part of the kernel in irrep Gamma (k), as coordinates on its first-row vectors
// (rows: at[i] for the class's orbit i). For every sigma of H and every w_j with w^T Q w = 1,
// Q = d/|G| sum_h D(h) D^sigma_11(h), the vectors sum_l (w_j)_l P^Gamma_1l kappa of sigma's
// kernel vectors kappa, orthonormal; on orbit o their coordinates are
// d d_sigma / (|G| |H|) (A W)_o^T S_j W^sigma_o K_sigma(o), S_j = sum_h D(h)^T w_j D^sigma_1.(h).
Eigen::MatrixXd groupKernel(const SplitGroup& group, std::size_t k, const ClassKernel& kernel,
                            const AdaptedSpace& here, const std::vector<Index>& at, Index m) {
    const int d = group.irreps[k].dimension;
    const Stabiliser& stabiliser = *kernel.stabiliser;
    const auto nh = static_cast<double>(stabiliser.elements.size());
    const auto& induced = stabiliser.induced[k];
    Index columns = 0;
    for (std::size_t s = 0; s < stabiliser.irreps.size(); ++s)
        columns += static_cast<Index>(induced[s].size()) * kernel.sigma[s].kernel.cols();
    Eigen::MatrixXd z = Eigen::MatrixXd::Zero(m, columns);
    Index column = 0;
    for (std::size_t s = 0; s < stabiliser.irreps.size(); ++s) {
        const ClassKernel::Sigma& part = kernel.sigma[s];
        const Index ns = part.kernel.cols();
        if (ns == 0 || induced[s].empty()) continue;
        const double scale = d * stabiliser.irreps[s].dimension / (group.order() * nh);
        for (std::size_t i = 0; i < kernel.orbits.size(); ++i) {
            const std::size_t o = kernel.orbits[i];
            const int rank = here.parts[k].rank[o], rs = part.rank[i];
            if (rank == 0 || rs == 0) continue;
            const Eigen::MatrixXd right = part.w[i] * part.kernel.middleRows(part.at[i], rs);
            for (std::size_t j = 0; j < induced[s].size(); ++j)
                z.block(at[o], column + static_cast<Index>(j) * ns, rank, ns).noalias() =
                    scale * (here.parts[k].aw[o].transpose() * induced[s][j]) * right;
        }
        column += static_cast<Index>(induced[s].size()) * ns;
    }
    return z;
}

// The (S, irrep k) block per J: the kernel of S+ class by class, and the Hamiltonian in it.
void irrepBlock(const SplitGroup& group, std::size_t k, const AdaptedSpace& here,
                const AdaptedSpace& above, const Rows& hamiltonian, const Rows& lowering,
                std::size_t slots, std::size_t classes, const std::vector<ClassKernel>& kernels,
                std::vector<std::vector<double>>& workspace, std::vector<Eigen::MatrixXd>& out,
                const StopFlag* stop) {
    const AdaptedSpace::Part &herePart = here.parts[k], &abovePart = above.parts[k];
    const SplitGroup::Irrep& irrep = group.irreps[k];
    const int d = irrep.dimension;
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
    auto ready = [&](std::size_t c) { return c < kernels.size() && kernels[c].ready; };
    const auto identity = [](int g) { return g; };

    // S+ per class not ready (its transpose: rows here, columns above), then its kernel.
    std::vector<Eigen::MatrixXd> raise(classes);
    for (std::size_t c = 0; c < classes; ++c)
        if (m[c] > a[c] && a[c] > 0 && !ready(c)) raise[c].setZero(m[c], a[c]);
    Eigen::MatrixXd u(d, d);
    for (std::size_t o = 0; o < aboveOrbits; ++o) {
        const int rank = abovePart.rank[o];
        const auto c = static_cast<std::size_t>(above.classOf[o]);
        if (rank == 0 || raise[c].size() == 0) continue;
        for (std::size_t e = lowering.start[o]; e < lowering.start[o + 1]; ++e) {
            const Rows::Entry& entry = lowering.entries[e];
            const auto other =
                static_cast<std::size_t>(here.orbitOf[static_cast<std::size_t>(entry.state)]);
            const int columns = herePart.rank[other];
            if (columns == 0) continue;
            if (static_cast<std::size_t>(here.classOf[other]) != c)
                throw std::logic_error("S+ leaves a class of cells");
            const double factor = projected(irrep, group.order(), here, entry.state, entry.value,
                                            herePart.aw[other], identity, u);
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
        if (ready(c)) {
            kernel[c] = groupKernel(group, k, kernels[c], here, hereAt, m[c]);
            if (kernel[c].cols() != m[c] - a[c])
                throw std::logic_error("the kernel of S+ induced in a class has the wrong size");
        } else {
            kernel[c] = a[c] == 0 ? Eigen::MatrixXd::Identity(m[c], m[c]) : kernelOf(raise[c]);
            raise[c] = Eigen::MatrixXd();
        }
        n += m[c] - a[c];
    }
    out.clear();
    if (n == 0) return;
    out.resize(slots);
    for (Eigen::MatrixXd& block : out) block.setZero(n, n);

    // Z^T H Z by panels of consecutive classes (some 128 kernel vectors each), the blocks of a
    // panel with the classes from its first on only (H is symmetric): Y = Z_p^T H(rows of p, ),
    // from the rows at the representatives with Z's rows folded into their first-row vectors;
    // then Z_p^T H Z_c' = Y(, c') Z_c', one product per class c'.
    std::vector<Index> start(classes + 1, 0);
    for (std::size_t c = 0; c < classes; ++c) start[c + 1] = start[c] + m[c];
    std::vector<std::size_t> panels{0}; // first class of each panel, and the end
    for (std::size_t c = 0; c < classes; ++c)
        if (kernelAt[c] - kernelAt[panels.back()] >= 128) panels.push_back(c);
    panels.push_back(classes);
    // Y of every J in buffers kept from panel to panel and irrep to irrep (allocated anew, their
    // pages would be mapped anew each time).
    workspace.resize(slots);
    std::vector<char> touched(classes);
    for (std::size_t p = 0; p + 1 < panels.size(); ++p) {
        const std::size_t first = panels[p], last = panels[p + 1];
        const Index rows = (last < classes ? kernelAt[last] : n) - kernelAt[first];
        if (rows == 0) continue;
        throwIfStopped(stop);
        std::vector<Eigen::Map<Eigen::MatrixXd>> y;
        for (std::vector<double>& buffer : workspace) {
            const Index width = start[classes] - start[first];
            if (buffer.size() < static_cast<std::size_t>(rows * width))
                buffer.resize(static_cast<std::size_t>(rows * width));
            y.emplace_back(buffer.data(), rows, width);
            y.back().setZero();
        }
        std::fill(touched.begin(), touched.end(), 0);
        for (std::size_t c = first; c < last; ++c) {
            const Index nc = kernel[c].cols(), row = kernelAt[c] - kernelAt[first];
            if (nc == 0) continue;
            for (const std::size_t o : orbitsOf[c]) {
                const Eigen::MatrixXd folded =
                    (herePart.w[o] * kernel[c].middleRows(hereAt[o], herePart.rank[o])).transpose();
                for (std::size_t e = hamiltonian.start[o]; e < hamiltonian.start[o + 1]; ++e) {
                    const Rows::Entry& entry = hamiltonian.entries[e];
                    const auto other = static_cast<std::size_t>(
                        here.orbitOf[static_cast<std::size_t>(entry.state)]);
                    const int columns = herePart.rank[other];
                    const auto oc = static_cast<std::size_t>(here.classOf[other]);
                    if (columns == 0 || oc < first || kernel[oc].cols() == 0) continue;
                    touched[oc] = 1;
                    const double factor = projected(irrep, group.order(), here, entry.state,
                                                    entry.value, herePart.aw[other], identity, u);
                    Eigen::Map<Eigen::MatrixXd>& target = y[static_cast<std::size_t>(entry.slot)];
                    const Index at = start[oc] - start[first] + hereAt[other];
                    for (int j = 0; j < columns; ++j)
                        for (int i = 0; i < d; ++i)
                            target.col(at + j).segment(row, nc) += factor * u(i, j) * folded.col(i);
                }
            }
        }
        for (std::size_t oc = first; oc < classes; ++oc) {
            if (!touched[oc]) continue;
            // out(p, oc) += Y(, oc) Z_oc, by BLAS (Eigen's own products are not vectorised as
            // far in a portable build).
            const int height = static_cast<int>(rows), width = static_cast<int>(kernel[oc].cols()),
                      inner = static_cast<int>(m[oc]), ldz = static_cast<int>(m[oc]),
                      ldo = static_cast<int>(n);
            const double one = 1;
            const char none = 'N';
            for (std::size_t slot = 0; slot < slots; ++slot)
                dgemm_(&none, &none, &height, &width, &inner, &one,
                       y[slot].data() + (start[oc] - start[first]) * rows, &height,
                       kernel[oc].data(), &ldz, &one,
                       out[slot].data() + kernelAt[oc] * n + kernelAt[first], &ldo);
        }
    }
    // The panels' blocks on the diagonal are whole; those below them are mirrored.
    for (Eigen::MatrixXd& block : out)
        for (std::size_t p = 0; p + 1 < panels.size(); ++p) {
            const Index from = kernelAt[panels[p]],
                        to = panels[p + 1] < classes ? kernelAt[panels[p + 1]] : n;
            auto diagonal = block.block(from, from, to - from, to - from);
            diagonal = 0.5 * (diagonal + diagonal.transpose()).eval();
            block.block(to, from, n - to, to - from) =
                block.block(from, to, to - from, n - to).transpose();
        }
}

// Constants of the estimate, fitted to the building of rings of 9 to 20 sites of S = 1/2, 3/2
// and 5/2 on a 2-core machine (within 1.6 times for every total spin of them): seconds per
// product state of M = S and M = S + 1 and unit or bisection step (its orbit, its cell), per term
// of a row of H gathered, per operation of the projections folded into the rows, per operation
// of the products and QR factorisations of small matrices (BLAS, LAPACK), per class, and per
// total spin (its spaces set up). The QR factorisations of whole (M = S, irrep) spaces on single
// sites, large, run at some 2e10 operations a second.
constexpr double stateSeconds = 3.3e-8, termSeconds = 1e-7, foldSeconds = 2.3e-11,
                 blasSeconds = 1.1e-10, classSeconds = 1.2e-5, spinSeconds = 3e-4,
                 wholeQrSeconds = 5e-11;

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
        if (!group.irreps.empty()) {
            group.products = std::move(product);
            return group;
        }
    }
    return trivialGroup(sites);
}

std::vector<GroupBuildCost> groupBuildCosts(const SpinSystem& system, const SplitGroup& group,
                                            std::size_t slots, bool siteUnits) {
    const GroupUnits units = unitsOf(system, group, siteUnits);
    const UnitOperators operators(system, units);
    const CellTable table(units, group.elements.size());
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
    // Per class: its cells' product states by 2M (one cell; index (2M + sum 2S) / 2) and the
    // order of the stabiliser of its canonical cell.
    int total = 0;
    for (int s : system.twiceSpin) total += s;
    struct Class {
        std::vector<double> states;
        double keeping = 1;
    };
    std::vector<Class> classes;
    auto polynomial = [&](const std::vector<int>& spins) {
        std::vector<double> states{1};
        int sum = 0;
        for (int j : spins) {
            std::vector<double> next(states.size() + static_cast<std::size_t>(j), 0);
            for (std::size_t i = 0; i < states.size(); ++i)
                for (int m = 0; m <= j; ++m) next[i + static_cast<std::size_t>(m)] += states[i];
            states = std::move(next);
            sum += j;
        }
        std::vector<double> placed(static_cast<std::size_t>(total) + 1, 0);
        for (std::size_t i = 0; i < states.size(); ++i)
            placed[i + static_cast<std::size_t>((total - sum) / 2)] = states[i];
        return placed;
    };
    for (std::size_t c = 0; c < table.classes(); ++c) {
        std::vector<int> spins;
        for (std::size_t u = 0; u < units.units.size(); ++u) {
            const auto& twiceJ = units.units[u].twiceJ;
            spins.push_back(twiceJ[table.canonicalCell[c] / table.stride[u] % twiceJ.size()]);
        }
        classes.push_back({polynomial(spins), static_cast<double>(table.keeping[c].size())});
    }
    // Split by the stabiliser of its canonical cell, a class's kernel costs one QR factorisation
    // per irrep of that stabiliser (counted as if all were one-dimensional); on single sites one
    // per irrep of the group, of the whole (M = S, irrep) space.
    const bool induced = !siteUnits;
    auto statesOf = [&](const std::vector<double>& states, int twiceM) {
        const int i = (twiceM + total) / 2;
        return i >= 0 && i < static_cast<int>(states.size()) ? states[static_cast<std::size_t>(i)]
                                                             : 0.0;
    };
    auto factorisation = [](double m, double a) {
        return a > 0 && m > a ? 2 * m * a * a + 4 * m * a * (m - a) : 0.0;
    };

    std::vector<GroupBuildCost> costs;
    for (int twiceS = total % 2; twiceS <= total; twiceS += 2) {
        double here = 0, above = 0, qr = 0, liveClasses = 0;
        for (const Class& c : classes) {
            const double cs = statesOf(c.states, twiceS), ca = statesOf(c.states, twiceS + 2);
            here += cs * order / c.keeping;
            above += ca * order / c.keeping;
            if (induced) qr += factorisation(cs, ca) / (c.keeping * c.keeping);
            if (cs > ca) liveClasses += 1;
        }
        if (here <= above) continue;
        const double rowTerms = here / order * terms;
        double seconds =
                   (here + above) *
                       (static_cast<double>(units.units.size()) + std::log2(here + above) + 2) *
                       stateSeconds +
                   rowTerms * termSeconds,
               bytes = (here + above) * 24 + rowTerms * 16 +
                       (here + above) / order * static_cast<double>(group.irreps.size()) * 128,
               largest = 0;
        for (const SplitGroup::Irrep& irrep : group.irreps) {
            const double d = irrep.dimension;
            double n = 0, folded = 0, m = 0, held = 0;
            for (const Class& c : classes) {
                const double share = d / c.keeping;
                const double mc = statesOf(c.states, twiceS) * share,
                             ac = statesOf(c.states, twiceS + 2) * share,
                             nc = std::max(0.0, mc - ac);
                if (nc <= 0) continue;
                if (!induced) qr += factorisation(mc, ac);
                n += nc;
                folded += mc * nc;
                m += mc;
                held += mc * (nc + ac);
            }
            if (n <= 0) continue;
            const double columns = folded / m; // kernel vectors per row, on average
            // Per term of a row: its projection and its share of Y, with about half of them
            // (c <= c'); then Y Z for the blocks with c <= c'.
            seconds +=
                rowTerms * d * d * (d + k * columns) * foldSeconds + k * n * folded * blasSeconds;
            largest = std::max(largest, 8 * (held + k * m * columns));
        }
        seconds += qr * (induced ? blasSeconds : wholeQrSeconds) + liveClasses * classSeconds +
                   spinSeconds;
        costs.push_back({twiceS, seconds, bytes + largest});
    }
    return costs;
}

std::string groupUnitsText(const SpinSystem& system, const SplitGroup& group) {
    const GroupUnits units = unitsOf(system, group, false);
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

// What the blocks of every total spin share.
struct GroupBasis {
    std::shared_ptr<const SplitGroup> group;
    SpinSystem system;
    bool siteUnits = false;
    GroupUnits units;
    CellTable table;
    UnitOperators operators;
    // Per class (not on single sites): the stabiliser of its canonical cell, the same for the
    // classes with the same one.
    std::vector<Stabiliser> stabilisers;
    std::vector<std::size_t> stabiliserOfClass;

    GroupBasis(const SpinSystem& spins, std::shared_ptr<const SplitGroup> whole, bool sites)
        : group(std::move(whole)), system(spins), siteUnits(sites),
          units(unitsOf(system, *group, siteUnits)), table(units, group->elements.size()),
          operators(system, units) {
        if (siteUnits) return;
        std::map<std::vector<int>, std::size_t> seen;
        for (const std::vector<int>& keeping : table.keeping) {
            const auto [it, fresh] = seen.emplace(keeping, stabilisers.size());
            if (fresh) stabilisers.push_back(stabiliserOf(*group, keeping));
            stabiliserOfClass.push_back(it->second);
        }
    }
};

std::shared_ptr<const GroupBasis>
groupBasis(const SpinSystem& system, std::shared_ptr<const SplitGroup> group, bool siteUnits) {
    return std::make_shared<const GroupBasis>(system, std::move(group), siteUnits);
}

void buildGroupBlocks(const GroupBasis& basis, const std::vector<int>& jSlot, std::size_t slots,
                      int twiceTotal, std::vector<std::vector<Eigen::MatrixXd>>& matrices,
                      const StopFlag* stop) {
    const SplitGroup& group = *basis.group;
    const GroupUnits& units = basis.units;
    const CellTable& table = basis.table;
    const AdaptedSpace here(units, group, twiceTotal, table, stop),
        above(units, group, twiceTotal + 2, table, stop);
    const std::size_t classes = table.classes();
    const Rows hamiltonian =
        hamiltonianRows(basis.system, units, basis.operators, here, jSlot, stop);
    const Rows lowering = lowerRows(units, above, here.space);
    // The kernel of every class from the stabiliser of its canonical cell.
    std::vector<ClassKernel> kernels;
    if (!basis.stabilisers.empty()) {
        std::vector<std::vector<std::size_t>> hereOf(classes), aboveOf(classes);
        std::vector<Index> inClass(here.representatives.size());
        for (std::size_t o = 0; o < here.representatives.size(); ++o) {
            auto& list = hereOf[static_cast<std::size_t>(here.classOf[o])];
            inClass[o] = static_cast<Index>(list.size());
            list.push_back(o);
        }
        for (std::size_t o = 0; o < above.representatives.size(); ++o)
            aboveOf[static_cast<std::size_t>(above.classOf[o])].push_back(o);
        for (std::size_t c = 0; c < classes; ++c) {
            throwIfStopped(stop);
            kernels.push_back(classKernel(basis.stabilisers[basis.stabiliserOfClass[c]], here,
                                          above, hereOf[c], aboveOf[c], inClass, lowering));
        }
    }
    matrices.assign(group.irreps.size(), {});
    std::vector<std::vector<double>> workspace;
    for (std::size_t k = 0; k < group.irreps.size(); ++k)
        irrepBlock(group, k, here, above, hamiltonian, lowering, slots, classes, kernels, workspace,
                   matrices[k], stop);
}

} // namespace corefit
