#include "ftlm.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <stdexcept>

#include <Eigen/Dense>

#include "spectrum.h"

namespace corefit {

namespace {

using Index = Eigen::Index;

// Product states with digit sum `digits` (2M = 2 digits - sum of 2S), ascending codes; site 0
// is the least significant digit.
std::vector<long> blockStates(const std::vector<int>& twiceSpin, int digits) {
    const std::size_t n = twiceSpin.size();
    std::vector<long> stride(n, 1);
    for (std::size_t i = 1; i < n; ++i) stride[i] = stride[i - 1] * (twiceSpin[i - 1] + 1);
    std::vector<int> room(n + 1, 0); // largest digit sum of sites below i
    for (std::size_t i = 0; i < n; ++i) room[i + 1] = room[i] + twiceSpin[i];
    std::vector<long> states;
    auto place = [&](auto&& self, std::size_t site, int left, long code) -> void {
        if (site == 0) {
            if (left == 0) states.push_back(code);
            return;
        }
        const std::size_t i = site - 1;
        for (int d = 0; d <= twiceSpin[i] && d <= left; ++d)
            if (left - d <= room[i]) self(self, i, left - d, code + d * stride[i]);
    };
    place(place, n, digits, 0);
    return states;
}

// y = H x for the current J values.
struct Sparse {
    std::vector<long> rowStart;
    std::vector<int> column;
    std::vector<unsigned char> slot;
    std::vector<double> element; // per unit J
    Eigen::MatrixXd diagonal;    // n x slots, per unit J
    std::vector<double> value;   // element x J of its slot, for the current J values
    Eigen::VectorXd diagonalNow;

    void setJ(const std::vector<double>& j) {
        value.resize(element.size());
        for (std::size_t e = 0; e < element.size(); ++e) value[e] = j[slot[e]] * element[e];
        diagonalNow = diagonal * Eigen::Map<const Eigen::VectorXd>(j.data(), static_cast<Index>(j.size()));
    }
    Eigen::MatrixXd dense() const {
        const auto n = diagonalNow.size();
        Eigen::MatrixXd matrix = Eigen::MatrixXd::Zero(n, n);
        for (Index row = 0; row < n; ++row) {
            matrix(row, row) = diagonalNow[row];
            for (long e = rowStart[static_cast<std::size_t>(row)];
                 e < rowStart[static_cast<std::size_t>(row) + 1]; ++e)
                matrix(column[static_cast<std::size_t>(e)], row) +=
                    value[static_cast<std::size_t>(e)];
        }
        return matrix;
    }
    void apply(const Eigen::VectorXd& x, Eigen::VectorXd& y) const {
        const Index n = x.size();
        y.resize(n);
        for (Index i = 0; i < n; ++i) {
            double sum = diagonalNow[i] * x[i];
            for (long e = rowStart[static_cast<std::size_t>(i)]; e < rowStart[static_cast<std::size_t>(i) + 1]; ++e)
                sum += value[static_cast<std::size_t>(e)] * x[column[static_cast<std::size_t>(e)]];
            y[i] = sum;
        }
    }
};

// Random vector r of a block: +-1 entries from the seed, the block and r alone.
Eigen::VectorXd randomVector(Index n, std::uint64_t seed, int twiceM, int r) {
    std::seed_seq sequence{static_cast<std::uint32_t>(seed), static_cast<std::uint32_t>(seed >> 32),
                           static_cast<std::uint32_t>(twiceM), static_cast<std::uint32_t>(r + 1000)};
    std::mt19937_64 bits(sequence);
    Eigen::VectorXd v(n);
    std::uint64_t word = 0;
    for (Index i = 0; i < n; ++i) {
        if (i % 64 == 0) word = bits();
        v[i] = (word >> (i % 64)) & 1 ? 1.0 : -1.0;
    }
    return v;
}

constexpr int lowestWidth = 60; // basis of the search for the lowest levels, at least

void projectOut(const Eigen::MatrixXd& basis, Eigen::VectorXd& v) {
    if (basis.cols() == 0) return;
    for (int pass = 0; pass < 2; ++pass) v -= basis * (basis.transpose() * v);
}

// A Ritz pair counts once its residual is below this times the largest Ritz value. The search
// takes other paths at other J values (more or fewer restarts), and its pairs differ by up to
// that much: with 1e-8 a fit of the 8-site ring in model_test ended 1e-7 apart with different
// OpenBLAS kernels, with 1e-10 not at all (at no extra cost: the search is far below that by
// its last restart).
constexpr double convergedResidual = 1e-10;
constexpr double valueResidual = 1e-6; // the same for a value alone (its error: the square)
constexpr double sameLevel = 1e-7;     // levels closer than this (same scale) are one group
constexpr double exactTaper = 0.1;     // see exactShare

// The lowest eigenpairs of a block found so far, orthonormal, and the size of its levels.
struct Found {
    Eigen::MatrixXd vectors;
    std::vector<double> values;
    double scale = 0;
    double highestOf(int count) const { // the count-th lowest value found
        std::vector<double> sorted = values;
        std::nth_element(sorted.begin(), sorted.begin() + (count - 1), sorted.end());
        return sorted[static_cast<std::size_t>(count - 1)];
    }
};

// Thick-restart Lanczos with full reorthogonalisation, on the part of the block orthogonal to
// the pairs found, from v, with a basis of at most `width` vectors. The converged Ritz pairs go
// to `found` from the lowest up while take(value, pairs taken before it) wants them. The first
// one it does not want ends the search, and its value is returned (converged less tightly: only
// its value is used); so does wanting no more at all. Every few steps the Ritz pairs are looked
// at for that end; when the basis is full, it starts again from the lowest Ritz pairs not taken
// and the residual. Returns NaN when the Krylov space of v holds nothing more.
double explore(const Sparse& h, Eigen::VectorXd v, int width, Found& found,
               const std::function<bool(double, Index)>& take, const StopFlag* stop) {
    const Index n = v.size();
    width = static_cast<int>(std::min<Index>(width, n - found.vectors.cols()));
    Eigen::MatrixXd basis(n, width);
    Eigen::MatrixXd projected = Eigen::MatrixXd::Zero(width, width); // basis^T H basis
    projectOut(found.vectors, v);
    if (width <= 0 || v.norm() == 0) return std::nan("");
    basis.col(0) = v.normalized();
    Index size = 1;      // vectors in the basis
    Index restarted = 0; // the first vector after the Ritz vectors kept at a restart
    Eigen::VectorXd w;
    for (long products = 0;; ++products) {
        if (products % 16 == 0) throwIfStopped(stop);
        if (products > 200L * width)
            throw std::runtime_error("FTLM: the lowest levels of a block of " + std::to_string(n) +
                                     " states did not converge");
        // Column j of the projection comes with the full reorthogonalisation of H v_j: the
        // three-term recurrence first (the whole basis right after a restart, where the kept
        // Ritz vectors all couple to the next), then a pass over the whole basis, and another
        // where that one cancelled much.
        const Index j = size - 1;
        h.apply(basis.col(j), w);
        Eigen::VectorXd c = Eigen::VectorXd::Zero(j + 1);
        const Index local = j == restarted ? 0 : j - 1;
        const Eigen::VectorXd near = basis.middleCols(local, j + 1 - local).transpose() * w;
        w -= basis.middleCols(local, j + 1 - local) * near;
        c.tail(j + 1 - local) = near;
        for (int pass = 0; pass < 2; ++pass) {
            const double before = w.norm();
            const Eigen::VectorXd part = basis.leftCols(j + 1).transpose() * w;
            w -= basis.leftCols(j + 1) * part;
            c += part;
            if (found.vectors.cols() > 0) w -= found.vectors * (found.vectors.transpose() * w);
            if (w.norm() > 0.7 * before) break;
        }
        projected.col(j).head(j + 1) = c;
        const double residual = w.norm();
        found.scale = std::max(found.scale, std::abs(c[j]));
        const bool exhausted = residual <= 1e-12 * found.scale;
        const bool full = size == width;
        if (!exhausted && !full && (size - restarted) % 8 != 0) {
            basis.col(size++) = w / residual;
            continue;
        }
        // The Ritz pairs: the lowest converged ones wanted are taken, up to the first that is
        // not wanted (the end) or not converged.
        const Eigen::MatrixXd symmetric =
            projected.topLeftCorner(size, size).selfadjointView<Eigen::Upper>();
        const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> ritz(symmetric);
        const Eigen::VectorXd& theta = ritz.eigenvalues();
        found.scale = std::max(found.scale, theta.cwiseAbs().maxCoeff());
        auto within = [&](Index k, double tolerance) {
            return exhausted ||
                   std::abs(residual * ritz.eigenvectors()(size - 1, k)) <= tolerance * found.scale;
        };
        Index taken = 0;
        double end = std::nan("");
        while (taken < size) {
            const bool wanted = take(theta[taken], taken);
            if (!wanted && within(taken, valueResidual)) end = theta[taken];
            if (!wanted || !within(taken, convergedResidual)) break;
            ++taken;
        }
        const bool satisfied = !take(-std::numeric_limits<double>::infinity(), taken);
        const bool over = !std::isnan(end) || exhausted || taken == size || satisfied;
        if (!over && !full) { // not yet: the basis grows on
            basis.col(size++) = w / residual;
            continue;
        }
        for (Index k = 0; k < taken; ++k) {
            Eigen::VectorXd x = basis.leftCols(size) * ritz.eigenvectors().col(k);
            projectOut(found.vectors, x);
            x.normalize();
            found.vectors.conservativeResize(n, found.vectors.cols() + 1);
            found.vectors.col(found.vectors.cols() - 1) = x;
            found.values.push_back(theta[k]);
        }
        if (over) return end;
        // Start again from the lowest Ritz pairs not taken (half the basis) and the residual.
        width = static_cast<int>(std::min<Index>(width, n - found.vectors.cols()));
        const Index kept = std::min<Index>({size - taken, std::max(width / 2, 1), width - 1});
        if (kept <= 0) return std::nan("");
        const Eigen::MatrixXd restart =
            basis.leftCols(size) * ritz.eigenvectors().middleCols(taken, kept);
        basis.leftCols(kept) = restart;
        projected.setZero();
        projected.diagonal().head(kept) = theta.segment(taken, kept);
        basis.col(kept) = w / residual;
        size = kept + 1;
        restarted = kept;
    }
}

// The lowest `count` eigenpairs of a block, ascending, and the level right above them (infinity
// when the block has no more).
struct Lowest {
    std::vector<double> values;
    Eigen::MatrixXd vectors;
    double next = std::numeric_limits<double>::infinity();
    double scale = 0; // the size of the block's levels, for comparing them
};

// Thick-restart Lanczos from one random vector finds `count` levels; but a Krylov space holds
// one vector of a degenerate level only, so a second, from another random vector orthogonal to
// all found, takes every level it finds up to the highest of the `count` lowest (a missed
// partner, or one lying lower), and returns the first above them; that check is repeated until
// it takes nothing. The pairs are converged to near rounding, so the result does not depend
// (beyond that) on the path the search took: it is smooth in the J values.
Lowest lowestLevels(const Sparse& h, Index n, int count, std::uint64_t seed, int twiceM,
                    const StopFlag* stop) {
    count = static_cast<int>(std::min<Index>(count, n));
    Lowest out;
    Found found;
    found.vectors.resize(n, 0);
    const int width = std::max(lowestWidth, 2 * count + 20);
    int start = 0; // random vectors used
    if (count > 0) {
        const auto wanted = static_cast<std::size_t>(count);
        while (found.values.size() < wanted && found.vectors.cols() < n) {
            // (The first level it does not take may be a partner of one it took.)
            explore(
                h, randomVector(n, seed + 7777, twiceM, -1 - start++), width, found,
                [&](double, Index before) {
                    return found.values.size() + static_cast<std::size_t>(before) < wanted;
                },
                stop);
        }
        for (std::size_t before = 0; before != found.values.size() && found.vectors.cols() < n;) {
            before = found.values.size();
            const double limit = found.highestOf(count) + sameLevel * found.scale;
            const double above = explore(
                h, randomVector(n, seed + 7777, twiceM, -1 - start++), width, found,
                [&](double value, Index) { return value <= limit; }, stop);
            if (!std::isnan(above)) out.next = std::min(out.next, above);
        }
    }
    out.scale = found.scale;
    // The lowest `count`, ascending; those beyond may lie below the level the checks found.
    std::vector<Index> order(found.values.size());
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = static_cast<Index>(i);
    std::stable_sort(order.begin(), order.end(), [&](Index a, Index b) {
        return found.values[static_cast<std::size_t>(a)] <
               found.values[static_cast<std::size_t>(b)];
    });
    const auto kept = std::min<std::size_t>(order.size(), static_cast<std::size_t>(count));
    out.vectors.resize(n, static_cast<Index>(kept));
    for (std::size_t i = 0; i < order.size(); ++i) {
        const double value = found.values[static_cast<std::size_t>(order[i])];
        if (i < kept) {
            out.values.push_back(value);
            out.vectors.col(static_cast<Index>(i)) = found.vectors.col(order[i]);
        } else {
            out.next = std::min(out.next, value);
        }
    }
    return out;
}

// How much of an exact level of energy e counts exactly, the rest being left to the random
// vectors: all of it up to the last tenth of the way from the lowest level to the first level
// above the exact ones, then falling smoothly to nothing at that level. So where that level
// crosses the highest exact one as the J values change, and the two swap places, the estimate
// stays continuous. (Over the last half instead, the error of chiT at T ~ |J| was some 25 %
// larger on 16-site rings; over the last tenth, 4 %.)
double exactShare(double e, double lowest, double next, double tolerance) {
    if (std::isinf(next)) return 1;
    if (next - lowest <= tolerance) return 0;
    const double x = std::clamp((next - e) / (next - lowest) / exactTaper, 0.0, 1.0);
    return x * x * (3 - 2 * x);
}

// How many of the lowest levels a block keeps exact: `wanted`, or fewer, so as not to split a
// group of levels that are one (degenerate); more only when the `wanted` lowest are all one.
// The count is decided once, at the first J values of a fit.
Lowest lowestAtAGap(const Sparse& h, Index n, int wanted, std::uint64_t seed, int twiceM,
                    const StopFlag* stop) {
    for (int count = wanted;;) {
        Lowest lowest = lowestLevels(h, n, count, seed, twiceM, stop);
        const auto found = static_cast<int>(lowest.values.size());
        const double gap = sameLevel * lowest.scale;
        int cut = found;
        while (cut > 0 &&
               (cut < found ? lowest.values[static_cast<std::size_t>(cut)] : lowest.next) -
                       lowest.values[static_cast<std::size_t>(cut - 1)] <=
                   gap)
            --cut;
        if (cut > 0 || found < count || std::isinf(lowest.next) || count >= n - 1) {
            if (cut == 0) cut = found; // one group fills the whole block
            if (cut < found) lowest.next = lowest.values[static_cast<std::size_t>(cut)];
            lowest.values.resize(static_cast<std::size_t>(cut));
            lowest.vectors.conservativeResize(n, cut);
            return lowest;
        }
        count = static_cast<int>(std::min<Index>(2 * count, n - 1));
    }
}

} // namespace

struct FtlmSpectrum::Block {
    int twiceM = 0;
    double weight = 1; // 2 for M > 0: the block of -M repeats it
    Index n = 0;
    Sparse h;
    int exactCount = -1; // levels found exactly, decided at the first J values (-1: not yet)
};

FtlmSizes ftlmSizes(const SpinSystem& system) {
    FtlmSizes sizes;
    int total = 0;
    for (int s : system.twiceSpin) total += s;
    std::vector<double> counts{1};
    for (int s : system.twiceSpin) {
        std::vector<double> next(counts.size() + static_cast<std::size_t>(s), 0);
        for (std::size_t m = 0; m < counts.size(); ++m)
            for (std::size_t k = 0; k <= static_cast<std::size_t>(s); ++k) next[m + k] += counts[m];
        counts = std::move(next);
    }
    // Off-diagonal elements per state: a path flips a pair when one can go up and the other
    // down, some 2 (2s/(2s+1))^2 times per path on average.
    double perState = 1;
    for (const Bond& bond : system.bonds) {
        const double a = system.twiceSpin[static_cast<std::size_t>(bond.a)],
                     b = system.twiceSpin[static_cast<std::size_t>(bond.b)];
        perState += 2 * (a / (a + 1)) * (b / (b + 1));
    }
    for (int twiceM = total % 2; twiceM <= total; twiceM += 2) {
        const double n = counts[static_cast<std::size_t>((twiceM + total) / 2)];
        sizes.blocks.push_back(n);
        sizes.nonzeros.push_back(n * perState);
    }
    return sizes;
}

FtlmSpectrum::FtlmSpectrum(const SpinSystem& system, const FtlmSettings& settings, int threads,
                           const StopFlag* stop)
    : system_(system), settings_(settings), threads_(std::max(1, threads)), stop_(stop),
      usedJ_(usedJValues(system)) {
    int total = 0;
    for (int s : system.twiceSpin) total += s;
    std::vector<int> jSlot(static_cast<std::size_t>(std::max(system.jCount, 1)), 0);
    for (std::size_t slot = 0; slot < usedJ_.size(); ++slot)
        jSlot[static_cast<std::size_t>(usedJ_[slot])] = static_cast<int>(slot);
    for (int twiceM = total % 2; twiceM <= total; twiceM += 2) {
        blocks_.push_back(std::make_unique<Block>());
        blocks_.back()->twiceM = twiceM;
        blocks_.back()->weight = twiceM > 0 ? 2 : 1;
    }
    const std::size_t sites = system.twiceSpin.size();
    std::vector<long> stride(sites, 1);
    for (std::size_t i = 1; i < sites; ++i) stride[i] = stride[i - 1] * (system.twiceSpin[i - 1] + 1);
    const auto slots = static_cast<Index>(std::max<std::size_t>(usedJ_.size(), 1));
    parallelFor(static_cast<long>(blocks_.size()), threads_, stop_, [&](long index) {
        Block& block = *blocks_[static_cast<std::size_t>(index)];
        const std::vector<long> states = blockStates(system.twiceSpin, (block.twiceM + total) / 2);
        block.n = static_cast<Index>(states.size());
        Sparse& h = block.h;
        h.diagonal = Eigen::MatrixXd::Zero(block.n, slots);
        h.rowStart.push_back(0);
        for (Index row = 0; row < block.n; ++row) {
            if (row % 4096 == 0) throwIfStopped(stop_);
            const long code = states[static_cast<std::size_t>(row)];
            for (const Bond& bond : system.bonds) {
                const auto a = static_cast<std::size_t>(bond.a), b = static_cast<std::size_t>(bond.b);
                const int slot = jSlot[static_cast<std::size_t>(bond.j)];
                const int ta = system.twiceSpin[a], tb = system.twiceSpin[b];
                const int da = static_cast<int>(code / stride[a] % (ta + 1)),
                          db = static_cast<int>(code / stride[b] % (tb + 1));
                const double sa = ta / 2.0, sb = tb / 2.0, ma = da - sa, mb = db - sb;
                h.diagonal(row, slot) += -2 * ma * mb;
                // -2 (1/2) (S+_a S-_b + S-_a S+_b)
                for (int up : {1, -1}) {
                    if ((up > 0 && (da == ta || db == 0)) || (up < 0 && (da == 0 || db == tb))) continue;
                    const long target = code + up * (stride[a] - stride[b]);
                    const double element = -std::sqrt((sa * (sa + 1) - ma * (ma + up)) *
                                                       (sb * (sb + 1) - mb * (mb - up)));
                    const auto at = std::lower_bound(states.begin(), states.end(), target);
                    h.column.push_back(static_cast<int>(at - states.begin()));
                    h.slot.push_back(static_cast<unsigned char>(slot));
                    h.element.push_back(element);
                }
            }
            h.rowStart.push_back(static_cast<long>(h.column.size()));
        }
    });
}

FtlmSpectrum::~FtlmSpectrum() = default;

void FtlmSpectrum::levels(const std::vector<double>& jKelvin, Levels& out) {
    std::vector<double> j(std::max<std::size_t>(usedJ_.size(), 1), 0.0);
    for (std::size_t slot = 0; slot < usedJ_.size(); ++slot)
        j[slot] = jKelvin[static_cast<std::size_t>(usedJ_[slot])];
    struct Part {
        std::vector<double> energy, weight;
        std::vector<int> sample;
    };
    const int vectors = std::max(1, settings_.vectors);
    const std::size_t count = blocks_.size();
    // First the exact levels of every block (the whole of a small block), then the random
    // vectors of the large blocks, one task each, largest blocks first.
    std::vector<Part> exactParts(count);
    std::vector<Eigen::MatrixXd> exactVectors(count), wholeVectors(count);
    std::vector<Eigen::VectorXd> wholeValues(count), exactValues(count), exactShares(count);
    parallelFor(static_cast<long>(count), threads_, stop_, [&](long index) {
        const auto b = static_cast<std::size_t>(index);
        Block& block = *blocks_[b];
        Part& part = exactParts[b];
        block.h.setJ(j);
        const Index n = block.n;
        Eigen::VectorXd values;
        if (n <= settings_.denseLimit) {
            Eigen::MatrixXd matrix = block.h.dense();
            symmetricEigen(matrix, values, false);
        } else {
            // The same number of exact levels at every J values of a fit, so that the estimate
            // is a smooth function of them.
            Lowest lowest = block.exactCount < 0
                                ? lowestAtAGap(block.h, n, settings_.exactLevels, settings_.seed,
                                               block.twiceM, stop_)
                                : lowestLevels(block.h, n, block.exactCount, settings_.seed,
                                               block.twiceM, stop_);
            block.exactCount = static_cast<int>(lowest.values.size());
            exactValues[b] = Eigen::Map<Eigen::VectorXd>(lowest.values.data(), block.exactCount);
            exactVectors[b] = std::move(lowest.vectors);
            exactShares[b] = exactValues[b].unaryExpr([&](double e) {
                return exactShare(e, exactValues[b][0], lowest.next, sameLevel * lowest.scale);
            });
            values = exactValues[b];
            // A rest of the block that the Lanczos runs of the random vectors would use up: their
            // sums over its levels come from its eigenvectors instead. (Past the end of a Krylov
            // space a run goes on from rounding errors, and its levels jump with them.)
            if (n - block.exactCount <= 2 * static_cast<Index>(settings_.steps)) {
                wholeVectors[b] = block.h.dense();
                symmetricEigen(wholeVectors[b], wholeValues[b], true);
            }
        }
        part.energy.assign(values.data(), values.data() + values.size());
        part.weight.assign(part.energy.size(), block.weight);
        part.sample.assign(part.energy.size(), -1);
        for (Index i = 0; i < exactShares[b].size(); ++i)
            part.weight[static_cast<std::size_t>(i)] *= exactShares[b][i];
    });
    std::vector<std::pair<std::size_t, int>> tasks;
    for (std::size_t b = 0; b < count; ++b)
        if (blocks_[b]->n > settings_.denseLimit)
            for (int r = 0; r < vectors; ++r) tasks.emplace_back(b, r);
    std::stable_sort(tasks.begin(), tasks.end(), [&](const auto& x, const auto& y) {
        return blocks_[x.first]->n > blocks_[y.first]->n;
    });
    std::vector<Part> randomParts(tasks.size());
    parallelFor(static_cast<long>(tasks.size()), threads_, stop_, [&](long index) {
        const auto [b, r] = tasks[static_cast<std::size_t>(index)];
        const Block& block = *blocks_[b];
        const Eigen::MatrixXd& exact = exactVectors[b];
        Part& part = randomParts[static_cast<std::size_t>(index)];
        const Index n = block.n;
        // With E[r r^T] = 1, r^T A r estimates the trace of A: the part of the exact levels
        // that they do not count themselves, and the rest of the trace from r orthogonal to them.
        Eigen::VectorXd v = randomVector(n, settings_.seed, block.twiceM, r), w;
        const Eigen::VectorXd onExact = exact.transpose() * v;
        for (Index i = 0; i < onExact.size(); ++i) {
            part.energy.push_back(exactValues[b][i]);
            part.weight.push_back(block.weight * (1 - exactShares[b][i]) * onExact[i] * onExact[i] /
                                  vectors);
            part.sample.push_back(r);
        }
        projectOut(exact, v);
        const double share = block.weight * v.squaredNorm() / vectors;
        v.normalize();
        if (wholeValues[b].size() > 0) {
            const Eigen::VectorXd overlap = wholeVectors[b].transpose() * v;
            for (Index k = 0; k < n; ++k) {
                part.energy.push_back(wholeValues[b][k]);
                part.weight.push_back(share * overlap[k] * overlap[k]);
                part.sample.push_back(r);
            }
            return;
        }
        const int steps = static_cast<int>(std::min<Index>(settings_.steps, n - exact.cols()));
        Eigen::VectorXd previous = Eigen::VectorXd::Zero(n);
        std::vector<double> alpha, beta;
        double norm = 0, scale = 0;
        for (int m = 0; m < steps; ++m) {
            block.h.apply(v, w);
            alpha.push_back(w.dot(v));
            w -= alpha.back() * v + norm * previous;
            projectOut(exact, w);
            norm = w.norm();
            scale = std::max({scale, std::abs(alpha.back()), norm});
            if (m + 1 == steps || norm < 1e-12 * scale) break;
            beta.push_back(norm);
            previous.swap(v);
            v = w / norm;
        }
        const auto m = static_cast<Index>(alpha.size());
        Eigen::VectorXd d = Eigen::Map<Eigen::VectorXd>(alpha.data(), m);
        Eigen::VectorXd e = Eigen::Map<Eigen::VectorXd>(beta.data(), m - 1);
        Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> tri;
        tri.computeFromTridiagonal(d, e, Eigen::ComputeEigenvectors);
        for (Index k = 0; k < m; ++k) {
            const double first = tri.eigenvectors()(0, k);
            part.energy.push_back(tri.eigenvalues()[k]);
            part.weight.push_back(share * first * first);
            part.sample.push_back(r);
        }
    });
    // Every level with the M of its block.
    std::vector<Part> parts = std::move(exactParts);
    std::vector<double> twiceMOf;
    for (const auto& block : blocks_) twiceMOf.push_back(block->twiceM);
    for (std::size_t t = 0; t < tasks.size(); ++t) {
        parts.push_back(std::move(randomParts[t]));
        twiceMOf.push_back(blocks_[tasks[t].first]->twiceM);
    }
    out.energy.clear();
    out.weight.clear();
    out.moment.clear();
    out.sample.clear();
    out.samples = 0;
    for (const Part& part : parts)
        if (std::any_of(part.sample.begin(), part.sample.end(), [](int r) { return r >= 0; }))
            out.samples = vectors;
    out.slope.assign(static_cast<std::size_t>(system_.jCount), {});
    for (std::size_t b = 0; b < parts.size(); ++b) {
        const double m = twiceMOf[b] / 2.0;
        const Part& part = parts[b];
        for (std::size_t i = 0; i < part.energy.size(); ++i) {
            out.energy.push_back(part.energy[i]);
            out.weight.push_back(part.weight[i]);
            out.moment.push_back(part.weight[i] * m * m);
            out.sample.push_back(part.sample[i]);
        }
    }
}

} // namespace corefit
