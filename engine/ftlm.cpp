#include "ftlm.h"

#include <algorithm>
#include <cmath>
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

void projectOut(const Eigen::MatrixXd& basis, Eigen::VectorXd& v) {
    if (basis.cols() == 0) return;
    for (int pass = 0; pass < 2; ++pass) v -= basis * (basis.transpose() * v);
}

constexpr int lowestSteps = 60; // Lanczos steps of each run for the lowest levels

// Lowest eigenpairs of the block by Lanczos with full reorthogonalisation, deflated: each run
// starts orthogonal to the pairs found and keeps the lowest Ritz pairs that have converged.
void lowestPairs(const Sparse& h, Index n, int wanted, std::uint64_t seed, int twiceM,
                 Eigen::VectorXd& values, Eigen::MatrixXd& vectors, const StopFlag* stop) {
    std::vector<double> found;
    vectors.resize(n, 0);
    // A run that finds nothing new is followed by one twice as long; a second such run ends the
    // search (the levels left count by the random vectors).
    int steps = static_cast<int>(std::min<Index>(n, lowestSteps)), idle = 0;
    for (int run = 0; static_cast<int>(found.size()) < wanted && idle < 2; ++run) {
        throwIfStopped(stop);
        Eigen::MatrixXd q(n, steps);
        Eigen::VectorXd v = randomVector(n, seed + 7777, twiceM, -1 - run), w;
        projectOut(vectors, v);
        if (v.norm() == 0) break;
        v.normalize();
        std::vector<double> alpha, beta;
        int m = 0;
        double next = 0; // the norm of the residual after the last step
        for (; m < steps; ++m) {
            q.col(m) = v;
            h.apply(v, w);
            alpha.push_back(w.dot(v));
            // Full reorthogonalisation, one pass: against the Krylov vectors and the pairs found.
            w -= q.leftCols(m + 1) * (q.leftCols(m + 1).transpose() * w);
            if (vectors.cols() > 0) w -= vectors * (vectors.transpose() * w);
            next = w.norm();
            if (m + 1 == steps || next < 1e-10 * std::abs(alpha.back()) + 1e-300) {
                ++m;
                break;
            }
            beta.push_back(next);
            v = w / next;
        }
        Eigen::VectorXd d = Eigen::Map<Eigen::VectorXd>(alpha.data(), m);
        Eigen::VectorXd e = Eigen::VectorXd::Zero(std::max(m - 1, 0));
        for (int i = 0; i + 1 < m; ++i) e[i] = beta[static_cast<std::size_t>(i)];
        Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> tri;
        tri.computeFromTridiagonal(d, e, Eigen::ComputeEigenvectors);
        const double scale = std::max(tri.eigenvalues().cwiseAbs().maxCoeff(), 1e-300);
        // Accept the lowest converged Ritz pairs, in order, up to the first that is not.
        int accepted = 0;
        for (int k = 0; k < m && static_cast<int>(found.size()) < wanted; ++k) {
            const double residual = std::abs(next * tri.eigenvectors()(m - 1, k));
            if (residual > 1e-6 * scale) break;
            Eigen::VectorXd x = q.leftCols(m) * tri.eigenvectors().col(k);
            projectOut(vectors, x);
            x.normalize();
            vectors.conservativeResize(n, vectors.cols() + 1);
            vectors.col(vectors.cols() - 1) = x;
            found.push_back(tri.eigenvalues()[k]);
            ++accepted;
        }
        if (accepted > 0) {
            idle = 0;
        } else if (++idle == 1) {
            steps = static_cast<int>(std::min<Index>(n - vectors.cols(), 2 * steps));
        }
    }
    values = Eigen::Map<Eigen::VectorXd>(found.data(), static_cast<Index>(found.size()));
}

} // namespace

struct FtlmSpectrum::Block {
    int twiceM = 0;
    double weight = 1; // 2 for M > 0: the block of -M repeats it
    Index n = 0;
    Sparse h;
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
    std::vector<Eigen::MatrixXd> exactVectors(count);
    parallelFor(static_cast<long>(count), threads_, stop_, [&](long index) {
        Block& block = *blocks_[static_cast<std::size_t>(index)];
        Part& part = exactParts[static_cast<std::size_t>(index)];
        block.h.setJ(j);
        const Index n = block.n;
        Eigen::VectorXd values;
        if (n <= settings_.denseLimit) {
            Eigen::MatrixXd dense = Eigen::MatrixXd::Zero(n, n);
            for (Index row = 0; row < n; ++row) {
                dense(row, row) = block.h.diagonalNow[row];
                for (long e = block.h.rowStart[static_cast<std::size_t>(row)];
                     e < block.h.rowStart[static_cast<std::size_t>(row) + 1]; ++e)
                    dense(block.h.column[static_cast<std::size_t>(e)], row) +=
                        block.h.value[static_cast<std::size_t>(e)];
            }
            symmetricEigen(dense, values, false);
        } else {
            lowestPairs(block.h, n, settings_.exactLevels, settings_.seed, block.twiceM, values,
                        exactVectors[static_cast<std::size_t>(index)], stop_);
        }
        part.energy.assign(values.data(), values.data() + values.size());
        part.weight.assign(part.energy.size(), block.weight);
        part.sample.assign(part.energy.size(), -1);
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
        // The rest of the trace from the random vectors, orthogonal to the exact levels.
        const double rest = static_cast<double>(n - exact.cols());
        const int steps = static_cast<int>(std::min<Index>(settings_.steps, n - exact.cols()));
        Eigen::VectorXd v = randomVector(n, settings_.seed, block.twiceM, r), w;
        projectOut(exact, v);
        v.normalize();
        Eigen::VectorXd previous = Eigen::VectorXd::Zero(n);
        std::vector<double> alpha, beta;
        double norm = 0;
        for (int m = 0; m < steps; ++m) {
            block.h.apply(v, w);
            alpha.push_back(w.dot(v));
            w -= alpha.back() * v + norm * previous;
            projectOut(exact, w);
            norm = w.norm();
            if (m + 1 == steps || norm < 1e-12 * (std::abs(alpha.back()) + 1)) break;
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
            part.weight.push_back(block.weight * rest / vectors * first * first);
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
