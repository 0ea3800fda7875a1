#include "spectrum.h"

#include "group_blocks.h"
#include "recoupling.h"
#include "split_blocks.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <unordered_map>

#include <Eigen/Sparse>

extern "C" {
void dsyevd_(const char* jobz, const char* uplo, const int* n, double* a, const int* lda, double* w,
             double* work, const int* lwork, int* iwork, const int* liwork, int* info);
void dgemm_(const char* transa, const char* transb, const int* m, const int* n, const int* k,
            const double* alpha, const double* a, const int* lda, const double* b, const int* ldb,
            const double* beta, double* c, const int* ldc);
void openblas_set_num_threads(int threads);
int openblas_get_num_threads(void);
}

namespace corefit {

const char* methodName(Method method) {
    switch (method) {
    case Method::Automatic:
        return "automatic";
    case Method::Full:
        return "full";
    case Method::MBlocks:
        return "M blocks";
    case Method::Ftlm:
        return "FTLM";
    case Method::SBlocks:
        break;
    }
    return "S blocks";
}

int blasThreads() { return openblas_get_num_threads(); }

void keepBlasOnOneThread() {
    static const bool once = (openblas_set_num_threads(1), true);
    (void)once;
}

int defaultThreads() { return static_cast<int>(std::max(1u, std::thread::hardware_concurrency())); }

void symmetricEigen(Eigen::MatrixXd& matrix, Eigen::VectorXd& values, bool vectors) {
    if (matrix.rows() > maxLapackBlock)
        throw std::length_error("a block of " + std::to_string(matrix.rows()) +
                                " exceeds LAPACK's 32-bit sizes (" +
                                std::to_string(maxLapackBlock) + ")");
    keepBlasOnOneThread();
    const int n = static_cast<int>(matrix.rows());
    values.resize(n);
    if (n == 0) return;
    const char jobz = vectors ? 'V' : 'N', uplo = 'L';
    int info = 0, lwork = -1, liwork = -1, iworkSize = 0;
    double workSize = 0;
    dsyevd_(&jobz, &uplo, &n, matrix.data(), &n, values.data(), &workSize, &lwork, &iworkSize,
            &liwork, &info);
    lwork = static_cast<int>(workSize) + 1;
    liwork = std::max(1, iworkSize);
    std::vector<double> work(static_cast<std::size_t>(lwork));
    std::vector<int> iwork(static_cast<std::size_t>(liwork));
    dsyevd_(&jobz, &uplo, &n, matrix.data(), &n, values.data(), work.data(), &lwork, iwork.data(),
            &liwork, &info);
    if (info != 0)
        throw std::runtime_error("LAPACK dsyevd failed with info " + std::to_string(info));
}

namespace {

using Index = Eigen::Index;

// State counts, exact for every cluster the input allows: 20 sites of 2S = 20 have 21^20 < 2^88
// states. Converted to double only for sizes and estimates.
__extension__ using Count = unsigned __int128;

// How many product states have each total 2M, by 2M + sum of 2S (an index from 0).
std::vector<Count> momentCounts(const std::vector<int>& twiceSpin) {
    std::vector<Count> counts{1};
    for (int s : twiceSpin) {
        std::vector<Count> next(counts.size() + static_cast<std::size_t>(s), 0);
        for (std::size_t m = 0; m < counts.size(); ++m)
            for (std::size_t k = 0; k <= static_cast<std::size_t>(s); ++k) next[m + k] += counts[m];
        counts = std::move(next);
    }
    return counts; // counts[i]: states with 2M = 2i - sum of 2S
}

int sumTwiceSpin(const std::vector<int>& twiceSpin) {
    int sum = 0;
    for (int s : twiceSpin) sum += s;
    return sum;
}

// The shape of one block before it is built: its label and size, and how a level counts.
struct BlockShape {
    int twiceLabel = 0; // 2M for M blocks, 2S for S blocks, unused for the full basis
    double size = 0;    // exact up to 2^53, far beyond any block that is built
    double weight = 1, moment = 0;
    int irrep = -1;     // split S blocks: the irreducible representation
    bool whole = false; // of the whole group (product states), not the tree's subgroup
    long built() const { return static_cast<long>(size); } // once the plan is within limits
};

// The site spins must be those the input allows: the counts and the 6j symbols rely on it.
void checkSystem(const SpinSystem& system) {
    if (system.twiceSpin.empty() || system.twiceSpin.size() > static_cast<std::size_t>(maxSites))
        throw std::invalid_argument("a spin system has 1 to " + std::to_string(maxSites) +
                                    " sites, not " + std::to_string(system.twiceSpin.size()));
    for (int s : system.twiceSpin)
        if (s < 1 || s > maxTwiceSpin)
            throw std::invalid_argument("a site's 2S is 1 to " + std::to_string(maxTwiceSpin) +
                                        ", not " + std::to_string(s));
}

// The (S, irrep) blocks of a group: a level stands for d / kind copies of every state of the
// multiplet.
std::vector<BlockShape> splitShapes(const SpinSystem& system, const SplitGroup& group, bool whole) {
    std::vector<BlockShape> shapes;
    for (const SplitBlockSize& block : splitBlockSizes(system, group)) {
        const auto& irrep = group.irreps[static_cast<std::size_t>(block.irrep)];
        const double s = block.twiceTotal / 2.0,
                     d = static_cast<double>(irrep.dimension) / irrep.kind;
        shapes.push_back({block.twiceTotal, block.size, d * (2 * s + 1),
                         d * s * (s + 1) * (2 * s + 1) / 3, block.irrep, whole});
    }
    return shapes;
}

std::vector<BlockShape> blockShapes(const SpinSystem& system, const Plan& plan) {
    checkSystem(system);
    const Method method = plan.method;
    if (method == Method::SBlocks && plan.split()) {
        std::vector<BlockShape> shapes;
        if (plan.group)
            for (const BlockShape& shape : splitShapes(system, *plan.group, false))
                if (!plan.splitByWhole(shape.twiceLabel)) shapes.push_back(shape);
        if (plan.whole)
            for (const BlockShape& shape : splitShapes(system, *plan.whole, true))
                if (plan.splitByWhole(shape.twiceLabel)) shapes.push_back(shape);
        return shapes;
    }
    const std::vector<Count> counts = momentCounts(system.twiceSpin);
    const int total = sumTwiceSpin(system.twiceSpin);
    std::vector<BlockShape> shapes;
    if (method == Method::Full) {
        Count dimension = 0;
        for (Count c : counts) dimension += c;
        shapes.push_back({0, static_cast<double>(dimension), 1, 0, -1});
        return shapes;
    }
    // counts index i holds 2M = 2i - total; M >= 0 from i = ceil(total / 2).
    for (int twiceM = total % 2; twiceM <= total; twiceM += 2) {
        const auto i = static_cast<std::size_t>((twiceM + total) / 2);
        const Count here = counts[i], above = i + 1 < counts.size() ? counts[i + 1] : 0;
        const double m = twiceM / 2.0;
        if (method == Method::MBlocks) {
            const double weight = twiceM > 0 ? 2 : 1;
            shapes.push_back({twiceM, static_cast<double>(here), weight, weight * m * m, -1});
        } else if (here > above) {
            const double multiplicity = twiceM + 1;
            shapes.push_back({twiceM, static_cast<double>(here - above), multiplicity,
                             m * (m + 1) * multiplicity / 3, -1});
        }
    }
    return shapes;
}

// Bytes of a dense n x n matrix of doubles.
double squareBytes(double n) { return n * n * 8; }

// Seconds for dsyevd on an n x n matrix, one thread, from measurements on 2-core machines.
double eigenSeconds(double n, bool vectors) {
    const double valuesOnly = 7.5e-11 * n * n * n;
    return vectors ? 2.6 * valuesOnly : valuesOnly;
}

// ---------------------------------------------------------------------------------------------
// Product basis: a state is a mixed-radix code of site digits d (m = d - S, 0 <= d <= 2S).

struct ProductBasis {
    std::vector<int> twiceSpin;
    std::vector<long> stride;
    long dimension = 1;

    explicit ProductBasis(const std::vector<int>& spins) : twiceSpin(spins) {
        for (int s : spins) {
            stride.push_back(dimension);
            dimension *= s + 1;
        }
    }
    int digit(long code, std::size_t site) const {
        return static_cast<int>(code / stride[site] % (twiceSpin[site] + 1));
    }
    int twiceM(long code) const {
        int sum = 0;
        for (std::size_t site = 0; site < twiceSpin.size(); ++site)
            sum += 2 * digit(code, site) - twiceSpin[site];
        return sum;
    }
};

// The Hamiltonian per J of a block of the coupled or product basis: its lower triangle, sparse.
using Entry = Eigen::Triplet<double, int>;
using Term = Eigen::SparseMatrix<double, Eigen::ColMajor, int>;

// Fills terms[slot of J] of the product states `states` (all of one total M, or all states).
void buildProductBlock(const SpinSystem& system, const std::vector<int>& jSlot,
                       const std::vector<long>& states, std::vector<Term>& terms,
                       std::vector<int>* stateTwiceM, const StopFlag* stop) {
    const ProductBasis basis(system.twiceSpin);
    const Index n = static_cast<Index>(states.size());
    std::unordered_map<long, Index> position;
    position.reserve(states.size());
    for (Index i = 0; i < n; ++i) position.emplace(states[static_cast<std::size_t>(i)], i);
    std::vector<std::vector<Entry>> entries(terms.size());
    if (stateTwiceM) stateTwiceM->resize(states.size());

    for (Index col = 0; col < n; ++col) {
        if (col % 256 == 0) throwIfStopped(stop);
        const long code = states[static_cast<std::size_t>(col)];
        if (stateTwiceM) (*stateTwiceM)[static_cast<std::size_t>(col)] = basis.twiceM(code);
        for (const Bond& bond : system.bonds) {
            std::vector<Entry>& h =
                entries[static_cast<std::size_t>(jSlot[static_cast<std::size_t>(bond.j)])];
            const auto a = static_cast<std::size_t>(bond.a), b = static_cast<std::size_t>(bond.b);
            const double sa = system.twiceSpin[a] / 2.0, sb = system.twiceSpin[b] / 2.0;
            const int da = basis.digit(code, a), db = basis.digit(code, b);
            const double ma = da - sa, mb = db - sb;
            const auto column = static_cast<int>(col);
            if (ma * mb != 0) h.emplace_back(column, column, -2 * ma * mb);
            // -2 * (1/2) (S+_a S-_b + S-_a S+_b)
            if (da < system.twiceSpin[a] && db > 0) {
                const long target = code + basis.stride[a] - basis.stride[b];
                const double value =
                    -std::sqrt((sa * (sa + 1) - ma * (ma + 1)) * (sb * (sb + 1) - mb * (mb - 1)));
                const Index row = position.at(target);
                if (row > col) h.emplace_back(static_cast<int>(row), column, value);
            }
            if (da > 0 && db < system.twiceSpin[b]) {
                const long target = code - basis.stride[a] + basis.stride[b];
                const double value =
                    -std::sqrt((sa * (sa + 1) - ma * (ma - 1)) * (sb * (sb + 1) - mb * (mb + 1)));
                const Index row = position.at(target);
                if (row > col) h.emplace_back(static_cast<int>(row), column, value);
            }
        }
    }
    for (std::size_t slot = 0; slot < terms.size(); ++slot) {
        terms[slot].resize(n, n);
        terms[slot].setFromTriplets(entries[slot].begin(), entries[slot].end());
        entries[slot] = {};
    }
}

std::vector<long> productStates(const SpinSystem& system, const BlockShape& shape, Method method) {
    const ProductBasis basis(system.twiceSpin);
    std::vector<long> states;
    states.reserve(static_cast<std::size_t>(shape.size));
    for (long code = 0; code < basis.dimension; ++code)
        if (method == Method::Full || basis.twiceM(code) == shape.twiceLabel) states.push_back(code);
    return states;
}

// ---------------------------------------------------------------------------------------------
// Spin-coupled basis. A state is a chain t[0..N-1] of 2S values: t[0] = 2s_0 and t[i] is the
// total spin of sites 0..i, coupled from t[i-1] and site i. A block holds the chains ending in T.

class CoupledBlock {
public:
    CoupledBlock(const std::vector<int>& twiceSpin, int twiceTotal)
        : spins_(twiceSpin), sites_(twiceSpin.size()), top_(sumTwiceSpin(twiceSpin)) {
        // completions_[i][t]: chains from t at step i to twiceTotal at the last step.
        completions_.assign(sites_, std::vector<long>(static_cast<std::size_t>(top_) + 1, 0));
        completions_[sites_ - 1][static_cast<std::size_t>(twiceTotal)] = 1;
        for (std::size_t i = sites_ - 1; i-- > 0;)
            for (int t = 0; t <= top_; ++t) {
                long sum = 0;
                forEachCoupled(t, spins_[i + 1], [&](int next) {
                    if (next <= top_) sum += completions_[i + 1][static_cast<std::size_t>(next)];
                });
                completions_[i][static_cast<std::size_t>(t)] = sum;
            }
        size_ = completions_[0][static_cast<std::size_t>(spins_[0])];
        chains_.reserve(static_cast<std::size_t>(size_) * sites_);
        std::vector<int> chain(sites_);
        chain[0] = spins_[0];
        enumerate(chain, 1);
    }

    long size() const { return size_; }
    const int* chain(long index) const {
        return chains_.data() + static_cast<std::size_t>(index) * sites_;
    }

    // The index of a chain of this block (chains are enumerated in ascending order).
    long rank(const int* chain) const {
        long index = 0;
        for (std::size_t i = 1; i < sites_; ++i) {
            const int low = std::abs(chain[i - 1] - spins_[i]);
            for (int t = low; t < chain[i]; t += 2)
                index += completions_[i][static_cast<std::size_t>(t)];
        }
        return index;
    }

    template <class F> static void forEachCoupled(int t, int s, F&& f) {
        for (int next = std::abs(t - s); next <= t + s; next += 2) f(next);
    }

private:
    void enumerate(std::vector<int>& chain, std::size_t i) {
        if (i == sites_) {
            chains_.insert(chains_.end(), chain.begin(), chain.end());
            return;
        }
        forEachCoupled(chain[i - 1], spins_[i], [&](int next) {
            if (completions_[i][static_cast<std::size_t>(next)] == 0) return;
            chain[i] = next;
            enumerate(chain, i + 1);
        });
    }

    std::vector<int> spins_;
    std::size_t sites_;
    int top_;
    long size_ = 0;
    std::vector<std::vector<long>> completions_;
    std::vector<int> chains_;
};

// Adds -2 J-free matrix elements of S_a . S_b (a < b) between the chains of one block:
// <c| S_a.S_b |c'> = 1/(2S_b+1) sum_X (-1)^(X - S_b) <c..S_b||s_a||c'..X> <c'..X||s_b||c'..S_b>,
// where S_b is the spin of sites 0..b and c' differs from c only in t[a..b-1].
void addCoupledBond(const CoupledBlock& block, const std::vector<int>& spins, int a, int b,
                    Recoupling& recoupling, std::vector<Entry>& h, long rowBegin, long rowEnd) {
    const std::size_t sites = spins.size();
    std::vector<int> other(sites);
    for (long row = rowBegin; row < rowEnd; ++row) {
        const int* c = block.chain(row);
        std::copy(c, c + sites, other.begin());
        const int tb = c[b];
        const double start = reducedSpin(spins[static_cast<std::size_t>(a)]);
        // Walk t'[a..b-1]; amplitude: the reduced element of s_a up to step i.
        std::function<void(int, double)> walk = [&](int i, double amplitude) {
            if (i == b) {
                const int before = other[static_cast<std::size_t>(b - 1)];
                if (!triangle(before, spins[static_cast<std::size_t>(b)], tb)) return;
                double element = 0;
                for (int x = tb >= 2 ? tb - 2 : tb; x <= tb + 2; x += 2) {
                    const double first = recoupling.first(
                        c[b - 1], before, spins[static_cast<std::size_t>(b)], tb, x);
                    if (first == 0) continue;
                    const double second =
                        recoupling.second(before, spins[static_cast<std::size_t>(b)], x, tb);
                    element += sign(x - tb) * first * second;
                }
                element *= amplitude * reducedSpin(spins[static_cast<std::size_t>(b)]) / (tb + 1);
                const long target = block.rank(other.data());
                if (element != 0 && target >= row)
                    h.emplace_back(static_cast<int>(target), static_cast<int>(row), -2 * element);
                return;
            }
            const auto si = static_cast<std::size_t>(i);
            if (i == a) {
                if (a == 0) {
                    other[0] = c[0];
                    walk(1, amplitude);
                    return;
                }
                CoupledBlock::forEachCoupled(c[a - 1], spins[si], [&](int t) {
                    if (std::abs(t - c[a]) > 2) return;
                    const double factor = recoupling.second(c[a - 1], spins[si], c[a], t);
                    if (factor == 0) return;
                    other[si] = t;
                    walk(i + 1, amplitude * factor);
                });
                other[si] = c[si];
                return;
            }
            CoupledBlock::forEachCoupled(other[si - 1], spins[si], [&](int t) {
                if (std::abs(t - c[i]) > 2) return;
                const double factor = recoupling.first(c[i - 1], other[si - 1], spins[si], c[i], t);
                if (factor == 0) return;
                other[si] = t;
                walk(i + 1, amplitude * factor);
            });
            other[si] = c[si];
        };
        walk(a, start);
    }
}

void buildCoupledBlock(const SpinSystem& system, const std::vector<int>& jSlot, int twiceTotal,
                       std::vector<Term>& terms, int threads, const StopFlag* stop) {
    const CoupledBlock block(system.twiceSpin, twiceTotal);
    // Rows are independent and each fills its own column: chunks of rows run side by side, and
    // a stop request is seen between slices of rows.
    constexpr long slice = 64;
    const long chunks = threads > 1 ? 8L * threads : 1;
    std::vector<std::vector<std::vector<Entry>>> entries(
        static_cast<std::size_t>(chunks), std::vector<std::vector<Entry>>(terms.size()));
    parallelFor(chunks, threads, stop, [&](long chunk) {
        Recoupling recoupling;
        auto& mine = entries[static_cast<std::size_t>(chunk)];
        const long begin = block.size() * chunk / chunks, end = block.size() * (chunk + 1) / chunks;
        for (long from = begin; from < end; from += slice) {
            throwIfStopped(stop);
            for (const Bond& bond : system.bonds)
                addCoupledBond(
                    block, system.twiceSpin, std::min(bond.a, bond.b), std::max(bond.a, bond.b),
                    recoupling,
                    mine[static_cast<std::size_t>(jSlot[static_cast<std::size_t>(bond.j)])], from,
                    std::min(from + slice, end));
        }
    });
    const auto n = static_cast<Index>(block.size());
    for (std::size_t slot = 0; slot < terms.size(); ++slot) {
        std::vector<Entry> all;
        std::size_t count = 0;
        for (const auto& chunk : entries) count += chunk[slot].size();
        all.reserve(count);
        for (auto& chunk : entries) {
            all.insert(all.end(), chunk[slot].begin(), chunk[slot].end());
            chunk[slot] = {};
        }
        terms[slot].resize(n, n);
        terms[slot].setFromTriplets(all.begin(), all.end());
    }
}

} // namespace

void parallelFor(long count, int threads, const StopFlag* stop,
                 const std::function<void(long)>& body) {
    if (threads <= 1 || count <= 1) {
        for (long i = 0; i < count; ++i) {
            throwIfStopped(stop);
            body(i);
        }
        return;
    }
    std::atomic<long> next{0};
    std::exception_ptr failure;
    std::mutex failureMutex;
    auto work = [&] {
        for (long i; !stopRequested(stop) && (i = next++) < count;) {
            try {
                body(i);
            } catch (...) {
                std::lock_guard lock(failureMutex);
                if (!failure) failure = std::current_exception();
                next = count;
            }
        }
    };
    std::vector<std::thread> pool;
    for (int t = 1; t < std::min<long>(threads, count); ++t) pool.emplace_back(work);
    work();
    for (auto& thread : pool) thread.join();
    if (failure) std::rethrow_exception(failure);
    throwIfStopped(stop);
}

std::string Plan::describe() const {
    char text[320];
    std::string name = methodName(method);
    auto named = [](const SplitGroup& g) {
        return "order " + std::to_string(g.order()) +
               (g.name.rfind("order", 0) == 0 ? "" : ", " + g.name);
    };
    // The total spins split by the whole group, as ranges: "S = 0 to 2, 4".
    std::string spins;
    for (std::size_t label = 0; label < wholeFor.size(); ++label) {
        if (wholeFor[label] == 0 || (label >= 2 && wholeFor[label - 2] != 0)) continue;
        std::size_t last = label;
        while (last + 2 < wholeFor.size() && wholeFor[last + 2] != 0) last += 2;
        char range[48];
        const double from = static_cast<double>(label) / 2, to = static_cast<double>(last) / 2;
        if (last == label)
            std::snprintf(range, sizeof range, "%g", from);
        else
            std::snprintf(range, sizeof range, "%g to %g", from, to);
        spins += (spins.empty() ? "S = " : ", ") + std::string(range);
    }
    const bool byTree = group != nullptr && group->order() > 1 && (whole == nullptr || treeUsed);
    const std::string units = wholeUnits.empty() ? "" : " on " + wholeUnits;
    if (!spins.empty() && byTree)
        name += " split by symmetry (the whole group, " + named(*whole) + units + ", for " + spins +
                "; " + named(*group) + " for the others)";
    else if (!spins.empty())
        name += " split by symmetry (the whole group, " + named(*whole) + units + ")";
    else if (byTree)
        name += " split by symmetry (" + named(*group) + ")";
    std::snprintf(text, sizeof text, "%s: dimension %.*g, %zu block%s, largest %.*g%s",
                  name.c_str(), dimension < 0x1p53 ? 17 : 4, dimension, blockSizes.size(),
                  blockSizes.size() == 1 ? "" : "s", largestBlock < 0x1p53 ? 17 : 4, largestBlock,
                  scaled ? ", one J: spectrum scaled" : "");
    return text;
}

namespace {

// FTLM: sparse blocks of fixed M (and character of a cyclic symmetry); the time of every block
// from its dimension (ftlmBlockCost), the memory from the rows kept per M sector, the exact
// levels' vectors of every block and the working vectors of the blocks worked on.
Plan planFtlm(const SpinSystem& system, Plan plan) {
    checkSystem(system);
    const FtlmSettings& f = plan.ftlm;
    const FtlmSizes sizes = ftlmSizes(system, f.symmetry);
    Count dimension = 0;
    for (Count c : momentCounts(system.twiceSpin)) dimension += c;
    plan.dimension = static_cast<double>(dimension);
    plan.blockSizes = sizes.blocks;
    const double slots = std::max<double>(static_cast<double>(usedJValues(system).size()), 1);
    const double perState = sizes.blocks.empty() ? 1 : sizes.nonzeros[0] / sizes.blocks[0];
    double seconds = 0, longest = 0, stored = 0, working = 0, sectorLongest = 0;
    for (double orbits : sizes.sectors) {
        // Per element a column, a shift, a slot, the element and its value; per orbit its
        // diagonal per J, the current one and its length.
        stored += orbits * perState * 23 + orbits * (8 * (slots + 1) + 2);
        sectorLongest = std::max(sectorLongest, orbits);
    }
    for (std::size_t b = 0; b < sizes.blocks.size(); ++b) {
        const double n = sizes.blocks[b], nonzeros = sizes.nonzeros[b];
        const double scalar = sizes.complex[b] ? 16 : 8;
        plan.largestBlock = std::max(plan.largestBlock, n);
        const FtlmBlockCost cost = ftlmBlockCost(n, nonzeros, sizes.complex[b] != 0, f);
        if (cost.whole) {
            working = std::max(working, 1.2 * squareBytes(n) * scalar / 8);
        } else {
            // The exact levels' vectors are kept from the search to the random vectors; the
            // search's basis, the Ritz vectors kept at a restart (half of it) and the levels
            // found, on vectors of the sector's length.
            const double length = n * 1.1;
            const double width = std::max(16.0, f.exactLevels + 12.0);
            stored += ftlmSearchShare(f) * (f.exactLevels + 1) * length * scalar;
            working = std::max(working, (1.5 * width + f.exactLevels + 8) * length * scalar);
        }
        seconds += cost.seconds;
        longest = std::max(longest, cost.seconds);
    }
    // Under MPI every process takes whole blocks with its threads.
    plan.secondsPerSpectrum = std::max(seconds / (plan.threads * ftlmProcesses()), longest);
    plan.secondsPerSlopes = plan.secondsPerSpectrum; // J slopes by differences: one more per J
    plan.bytes = 16.0 * 1024 * 1024 + stored + plan.threads * working;
    return plan;
}

// The cost of building the blocks of one total spin split by a group: one thread's seconds,
// the bytes held meanwhile (with the blocks kept until they are diagonalised), and the
// diagonalisations of a fit (scaled: one spectrum; otherwise some 25 with J slopes).
struct SpinCost {
    int twiceTotal = 0;
    double build = 0, bytes = 0, diagonalise = 0;
};

std::vector<SpinCost> spinCostsOf(const SpinSystem& system, const SplitGroup& group, bool whole,
                                  double k, bool scaled, bool siteUnits) {
    const auto sites = static_cast<int>(system.twiceSpin.size());
    double multiplicity = 0; // 2s + 1 of the sites, on average
    for (int s : system.twiceSpin) multiplicity += (s + 1.0) / sites;
    std::vector<SpinCost> costs;
    auto at = [&](int twiceTotal) -> SpinCost& {
        for (SpinCost& cost : costs)
            if (cost.twiceTotal == twiceTotal) return cost;
        costs.push_back({twiceTotal, 0, 0, 0});
        return costs.back();
    };
    for (const BlockShape& shape : splitShapes(system, group, whole)) {
        SpinCost& cost = at(shape.twiceLabel);
        const double n = shape.size;
        cost.bytes += (scaled ? 1 : k) * squareBytes(n);
        cost.diagonalise += scaled ? eigenSeconds(n, false)
                                   : 25 * (eigenSeconds(n, true) + k * 1.0e-10 * n * n * n);
        if (!whole) {
            // Coupled states: their values and an index (some 100 bytes a state) and orbits;
            // per state its images under the group and a share of the rows (some 0.25 us per
            // exchange path and 2s + 1 of its sites, the recoupling's branches), measured on
            // rings of 8 and 16 sites of S = 1/2 to 5/2 on these machines.
            const double states = n * group.irreps[static_cast<std::size_t>(shape.irrep)].dimension;
            cost.bytes += states * (100 + 2.0 * sites);
            cost.build +=
                states * (1e-7 * group.order() +
                          2.5e-7 * multiplicity * static_cast<double>(system.bonds.size()));
        }
    }
    if (!whole) {
        // And per total spin its setting up, some 0.3 ms as for the whole group's.
        for (SpinCost& cost : costs) cost.build += 3e-4;
        return costs;
    }
    // Product states of the units with M = S and S + 1, their orbits and rows of H, then irrep by
    // irrep the kernel of S+ class by class and H in it (group_blocks.h).
    for (const GroupBuildCost& built :
         groupBuildCosts(system, group, static_cast<std::size_t>(k), siteUnits)) {
        SpinCost& cost = at(built.twiceTotal);
        cost.build += built.seconds;
        cost.bytes += built.bytes;
    }
    return costs;
}

// For every total spin, the whole group when its blocks are estimated faster to build and
// diagonalise than those of the tree's subgroup.
void chooseGroups(const SpinSystem& system, Plan& plan, double k) {
    const std::vector<SpinCost> whole =
        spinCostsOf(system, *plan.whole, true, k, plan.scaled, plan.siteUnits);
    std::vector<SpinCost> tree;
    if (plan.group) tree = spinCostsOf(system, *plan.group, false, k, plan.scaled, false);
    for (const SpinCost& cost : whole) {
        bool faster = true;
        for (const SpinCost& other : tree)
            if (other.twiceTotal == cost.twiceTotal)
                faster = cost.build + cost.diagonalise < other.build + other.diagonalise;
        const auto label = static_cast<std::size_t>(cost.twiceTotal);
        if (plan.wholeFor.size() <= label) plan.wholeFor.resize(label + 1, 0);
        plan.wholeFor[label] = faster ? 1 : 0;
    }
}

// The build costs of the plan's blocks, each total spin by the group it is split by.
std::vector<SpinCost> spinCosts(const SpinSystem& system, const Plan& plan, double k) {
    std::vector<SpinCost> costs;
    for (int whole = 0; whole < 2; ++whole) {
        const SplitGroup* group = whole ? plan.whole.get() : plan.group.get();
        if (group == nullptr) continue;
        for (const SpinCost& cost :
             spinCostsOf(system, *group, whole != 0, k, plan.scaled, plan.siteUnits))
            if (plan.splitByWhole(cost.twiceTotal) == (whole != 0)) costs.push_back(cost);
    }
    return costs;
}

} // namespace

Plan planSpectrum(const SpinSystem& system, Method method, int threads,
                  std::shared_ptr<const SplitGroup> group, const FtlmSettings& ftlm,
                  std::shared_ptr<const SplitGroup> whole, bool siteUnits) {
    Plan plan;
    plan.siteUnits = siteUnits;
    plan.method = method == Method::Automatic ? Method::SBlocks : method;
    plan.threads = std::max(1, threads);
    plan.ftlm = ftlm;
    if (plan.method == Method::Ftlm) return planFtlm(system, plan);
    const std::vector<int> used = usedJValues(system);
    plan.scaled = used.size() <= 1;
    const double k = static_cast<double>(std::max<std::size_t>(used.size(), 1));
    if (plan.method == Method::SBlocks) {
        if (group && group->wholeGroup) std::swap(group, whole);
        // With the whole group the tree's subgroup is kept even when trivial: it then splits
        // nothing, and its coupled states make the blocks the whole group does not.
        // (Not when the tree's subgroup is the whole group: its blocks are the same and cheaper.)
        const bool byWhole =
            whole && whole->order() > 1 && !(group && group->order() >= whole->order());
        if (group && (group->order() > 1 || byWhole)) plan.group = std::move(group);
        if (byWhole) {
            plan.whole = std::move(whole);
            chooseGroups(system, plan, k);
            plan.wholeUnits = siteUnits ? "single sites" : groupUnitsText(system, *plan.whole);
        }
    }
    const std::vector<BlockShape> shapes = blockShapes(system, plan);
    for (const BlockShape& shape : shapes) plan.treeUsed = plan.treeUsed || !shape.whole;
    Count dimension = 0;
    for (Count c : momentCounts(system.twiceSpin)) dimension += c;
    plan.dimension = static_cast<double>(dimension);
    // Blocks of the coupled or product basis keep the Hamiltonian per J as the sparse lower
    // triangle, some 6 entries per state and exchange path (5.5 on a 10-site cluster of S = 5/2
    // and 1/2), 12 bytes each; blocks split by symmetry one dense matrix per J.
    const bool sparse = !plan.split();
    const double paths = static_cast<double>(system.bonds.size());
    double stored = 0, levels = 0, spectrum = 0, slopes = 0, longest = 0, longestSlopes = 0;
    for (const BlockShape& shape : shapes) {
        const double n = shape.size;
        plan.blockSizes.push_back(n);
        plan.largestBlock = std::max(plan.largestBlock, n);
        const double entries = std::min(n * (1 + 6 * paths), k * n * (n + 1) / 2);
        stored += sparse ? 12 * entries + 4 * k * (n + 1) : k * squareBytes(n);
        levels += n;
        const double values = eigenSeconds(n, plan.method == Method::Full);
        // eigenvectors, then the slopes: one dense product per J, or a pass over the sparse
        // entries per slice of eigenvectors (those of all J but one, whose slopes follow; some
        // 2 % of dsyevd's time on a 10-site cluster of S = 5/2 and 1/2; counted at about twice)
        const double withSlopes =
            eigenSeconds(n, true) +
            (sparse ? 2e-10 * entries * n * (k > 1 ? (k - 1) / k : 1.0) : k * 1.0e-10 * n * n * n);
        spectrum += values;
        slopes += withSlopes;
        longest = std::max(longest, values);
        longestSlopes = std::max(longestSlopes, withSlopes);
    }
    // Blocks run side by side: the work shared by the threads, but never less than the largest.
    const double t = plan.threads;
    plan.secondsPerSpectrum = std::max(spectrum / t, longest);
    plan.secondsPerSlopes =
        plan.scaled ? plan.secondsPerSpectrum : std::max(slopes / t, longestSlopes);

    // Memory: what the blocks being worked on hold at once, for the `threads` largest. Scaled:
    // a block's matrix is built, diagonalised and dropped (dsyevd's workspace is 2n^2 more with
    // eigenvectors, for the full basis). Otherwise: the matrices per J of every block are kept,
    // and each block being worked on adds its working copy and dsyevd's workspace (and, with
    // dense matrices per J, the product for the slopes).
    std::vector<double> sizes = plan.blockSizes;
    std::sort(sizes.begin(), sizes.end(), std::greater<>());
    const double working = plan.scaled ? (plan.method == Method::Full ? 3.2 : 1.2)
                           : sparse    ? 3.1
                                       : 4.2;
    plan.bytes = plan.scaled ? 0 : stored;
    for (std::size_t i = 0; i < sizes.size() && i < static_cast<std::size_t>(plan.threads); ++i)
        plan.bytes += working * squareBytes(sizes[i]);
    if (plan.split()) {
        // The blocks of one total spin are built together, one total spin per thread.
        double seconds = 0, slowest = 0;
        std::vector<double> bytes;
        for (const SpinCost& cost : spinCosts(system, plan, k)) {
            seconds += cost.build;
            slowest = std::max(slowest, cost.build);
            bytes.push_back(cost.bytes);
        }
        plan.secondsToBuild = std::max(seconds / plan.threads, slowest);
        std::sort(bytes.begin(), bytes.end(), std::greater<>());
        for (std::size_t i = 0; i < bytes.size() && i < static_cast<std::size_t>(plan.threads); ++i)
            plan.bytes += bytes[i];
    }
    // The program itself (some 9 MiB with its libraries, measured), and the levels with their
    // slopes (kept twice while they are gathered).
    plan.bytes += 10.0 * 1024 * 1024 + 2 * 8 * (3 + k) * levels;
    return plan;
}

namespace {

// The full basis: the eigenvectors of a degenerate level mix states of different total M, which
// a field tells apart. H commutes with M, so within each group of equal eigenvalues the vectors
// are rotated to eigenvectors of M (diagonal in the product states, 2M each in stateTwiceM);
// twiceM receives the 2M of every vector.
void separateByM(Eigen::MatrixXd& vectors, const Eigen::VectorXd& values,
                 const std::vector<int>& stateTwiceM, std::vector<int>& twiceM) {
    const Index n = values.size();
    twiceM.assign(static_cast<std::size_t>(n), 0);
    if (n == 0) return;
    const double scale = std::max(std::abs(values[0]), std::abs(values[n - 1]));
    const double same = 1e-9 * scale + 1e-300;
    const Eigen::Map<const Eigen::VectorXi> m2(stateTwiceM.data(), n);
    const Eigen::VectorXd m = m2.cast<double>() / 2;
    for (Index from = 0; from < n;) {
        Index to = from + 1;
        while (to < n && values[to] - values[to - 1] <= same) ++to;
        auto group = vectors.middleCols(from, to - from);
        const Eigen::MatrixXd projected = group.transpose() * m.asDiagonal() * group;
        const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> solver(projected);
        group = Eigen::MatrixXd(group * solver.eigenvectors());
        for (Index k = 0; k < to - from; ++k)
            twiceM[static_cast<std::size_t>(from + k)] =
                static_cast<int>(std::lround(2 * solver.eigenvalues()[k]));
        from = to;
    }
}

// Hellmann-Feynman slopes dE/dJ_k = <v|H_k|v> of `count` eigenvectors (the columns of `vectors`,
// n rows each), levels from `from` on, from the sparse lower triangles H_k: the sum over their
// entries h_ij of (2 - delta_ij) h_ij v_i v_j, for 64 vectors at a time, transposed so that their
// i-th elements lie side by side.
void addSlopes(const double* vectors, Index n, Index from, Index count,
               const std::vector<Term>& terms, const std::vector<char>& wanted,
               std::vector<Eigen::VectorXd>& slopes) {
    constexpr Index width = 64;
    Eigen::MatrixXd slice;
    Eigen::ArrayXd sum;
    for (Index part = 0; part < count; part += width) {
        const Index w = std::min(width, count - part);
        slice = Eigen::Map<const Eigen::MatrixXd>(vectors + part * n, n, w).transpose();
        for (std::size_t slot = 0; slot < terms.size(); ++slot) {
            if (!wanted[slot]) continue;
            sum.setZero(w);
            double* total = sum.data();
            for (Index column = 0; column < n; ++column) {
                const double* x = slice.data() + column * w;
                for (Term::InnerIterator it(terms[slot], column); it; ++it) {
                    const double* y = slice.data() + it.row() * w;
                    const double h = it.row() == column ? it.value() : 2 * it.value();
                    for (Index i = 0; i < w; ++i) total[i] += h * x[i] * y[i];
                }
            }
            slopes[slot].segment(from + part, w) = sum.matrix();
        }
    }
}

// The J slopes of a block whose Hamiltonian per J is kept sparse, from its eigenvectors (the
// columns of `vectors`) and levels. Hellmann-Feynman gives sum_k J_k dE/dJ_k = E, so one slope
// follows from the others: when every J is wanted, that of the term with the most entries
// (the long paths of a coupled basis fill theirs) is taken as (E - sum of the others) / J, where
// its J is not small beside the others (a quarter of the largest at least), so that nothing
// is lost to rounding.
void sparseSlopes(const Eigen::MatrixXd& vectors, const Eigen::VectorXd& values,
                  const std::vector<Term>& terms, const std::vector<double>& j,
                  const std::vector<char>& wanted, std::vector<Eigen::VectorXd>& slopes) {
    const Index n = values.size();
    const std::size_t used = terms.size();
    double largest = 0;
    for (double value : j) largest = std::max(largest, std::abs(value));
    std::size_t derived = used;
    for (std::size_t slot = 0; slot < used; ++slot)
        if (wanted[slot] && j[slot] != 0 && std::abs(j[slot]) >= 0.25 * largest &&
            (derived == used || terms[slot].nonZeros() > terms[derived].nonZeros()))
            derived = slot;
    // By the sum, every other slope is needed: worth it when that costs fewer entries.
    Index direct = 0, others = 0;
    for (std::size_t slot = 0; slot < used; ++slot) {
        if (wanted[slot]) direct += terms[slot].nonZeros();
        if (slot != derived) others += terms[slot].nonZeros();
    }
    if (derived < used && others >= direct) derived = used;
    std::vector<char> compute = wanted;
    if (derived < used)
        for (std::size_t slot = 0; slot < used; ++slot) compute[slot] = slot != derived;
    for (std::size_t slot = 0; slot < used; ++slot)
        if (compute[slot]) slopes[slot].resize(n);
    addSlopes(vectors.data(), n, 0, n, terms, compute, slopes);
    if (derived == used) return;
    Eigen::VectorXd rest = values;
    for (std::size_t slot = 0; slot < used; ++slot)
        if (slot != derived) rest -= j[slot] * slopes[slot];
    slopes[derived] = rest / j[derived];
    for (std::size_t slot = 0; slot < used; ++slot)
        if (!wanted[slot]) slopes[slot] = Eigen::VectorXd();
}

} // namespace

struct Spectrum::Block {
    BlockShape shape;
    // The Hamiltonian per used J (not kept when the spectrum is scaled): sparse for blocks of the
    // coupled or product basis, which a new set of J values sums into one dense matrix; dense
    // for blocks split by symmetry (and with Plan::denseTerms).
    std::vector<Term> terms;
    std::vector<Eigen::MatrixXd> perJ;
    std::vector<int> stateTwiceM;      // full basis: 2M of every product state
    Eigen::VectorXd unitValues;        // scaled: eigenvalues of the one J's matrix at J = 1
    std::vector<int> unitTwiceM;       // scaled, full basis: 2M of each eigenvector
    Eigen::VectorXd values;            // at the current J values
    std::vector<int> twiceM;           // full basis: 2M of each eigenvector
    std::vector<Eigen::VectorXd> slopes;
};

Spectrum::Spectrum(const SpinSystem& system, const Plan& plan, int threads, const StopFlag* stop)
    : system_(system), plan_(plan), threads_(std::max(1, threads)), stop_(stop),
      usedJ_(usedJValues(system)) {
    keepBlasOnOneThread();
    if (plan.method == Method::Ftlm) {
        ftlm_ = std::make_unique<FtlmSpectrum>(system, plan.ftlm, threads_, stop_);
        return;
    }
    if (!plan.buildable())
        throw std::length_error(plan.describe() + ": the largest block exceeds " +
                                std::to_string(maxLapackBlock) + ", the largest LAPACK takes");
    std::vector<int> jSlot(static_cast<std::size_t>(std::max(system.jCount, 1)), 0);
    for (std::size_t slot = 0; slot < usedJ_.size(); ++slot)
        jSlot[static_cast<std::size_t>(usedJ_[slot])] = static_cast<int>(slot);

    for (const BlockShape& shape : blockShapes(system, plan)) {
        blocks_.push_back(std::make_unique<Block>());
        blocks_.back()->shape = shape;
    }
    // Largest first, so that the threads end with the small ones.
    std::stable_sort(blocks_.begin(), blocks_.end(),
                     [](const auto& x, const auto& y) { return x->shape.size > y->shape.size; });

    std::mutex buildMutex;
    auto countBuild = [&](std::chrono::steady_clock::time_point started) {
        const std::lock_guard lock(buildMutex);
        buildSeconds_ +=
            std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    };
    // One J (or none): diagonalise once at J = 1 and keep only the levels.
    auto diagonaliseOnce = [&](Block& block) {
        const auto n = static_cast<Index>(block.shape.built());
        Eigen::MatrixXd matrix = !block.perJ.empty()    ? std::move(block.perJ[0])
                                 : !block.terms.empty() ? Eigen::MatrixXd(block.terms[0])
                                                        : Eigen::MatrixXd::Zero(n, n);
        block.perJ.clear();
        block.terms.clear();
        const bool vectors = plan.method == Method::Full;
        throwIfStopped(stop_);
        symmetricEigen(matrix, block.unitValues, vectors);
        if (vectors) separateByM(matrix, block.unitValues, block.stateTwiceM, block.unitTwiceM);
    };

    if (plan.split()) {
        // The irrep blocks of one total spin are built together, one total spin per thread,
        // those with the largest blocks first.
        const CouplingTree tree =
            plan.group ? couplingTree(*plan.group, static_cast<int>(system.twiceSpin.size()))
                       : CouplingTree{};
        // What the whole group's blocks of every total spin share, built once.
        std::shared_ptr<const GroupBasis> basis;
        if (std::any_of(blocks_.begin(), blocks_.end(),
                        [](const auto& block) { return block->shape.whole; })) {
            const auto started = std::chrono::steady_clock::now();
            basis = groupBasis(system, plan.whole, plan.siteUnits);
            countBuild(started);
        }
        std::vector<std::vector<Block*>> bySpin;
        for (const auto& block : blocks_) {
            auto same = std::find_if(bySpin.begin(), bySpin.end(), [&](const auto& list) {
                return list[0]->shape.twiceLabel == block->shape.twiceLabel;
            });
            if (same == bySpin.end()) bySpin.push_back({block.get()});
            else same->push_back(block.get());
        }
        // A scaled spectrum's blocks are diagonalised once built, by whichever thread is free: a
        // thread takes a block waiting for that before it builds the next total spin, and waits
        // for the blocks of the total spins being built before it ends, so that the blocks of a
        // large total spin are shared by all threads (the blocks of one hold much of the work).
        struct Queue {
            std::mutex mutex;
            std::condition_variable changed;
            std::vector<Block*> ready; // the largest last
            std::size_t next = 0;      // the next total spin to build
            int building = 0;
            bool failed = false;
        } queue;
        auto build = [&](const std::vector<Block*>& list) {
            std::vector<std::vector<Eigen::MatrixXd>> matrices;
            const auto started = std::chrono::steady_clock::now();
            if (list[0]->shape.whole)
                buildGroupBlocks(*basis, jSlot, usedJ_.size(), list[0]->shape.twiceLabel, matrices,
                                 stop_);
            else
                buildSplitBlocks(system, *plan.group, tree, jSlot, usedJ_.size(),
                                 list[0]->shape.twiceLabel, matrices, stop_);
            countBuild(started);
            for (Block* block : list) {
                auto& perJ = matrices[static_cast<std::size_t>(block->shape.irrep)];
                if (!perJ.empty() && perJ[0].rows() != block->shape.built())
                    throw std::logic_error("a symmetry block does not have the size its "
                                           "characters give");
                block->perJ = std::move(perJ);
            }
            const std::lock_guard lock(queue.mutex);
            if (plan_.scaled) {
                queue.ready.insert(queue.ready.end(), list.begin(), list.end());
                std::sort(queue.ready.begin(), queue.ready.end(),
                          [](Block* x, Block* y) { return x->shape.size < y->shape.size; });
            }
            --queue.building;
            queue.changed.notify_all();
        };
        parallelFor(threads_, threads_, stop_, [&](long) {
            for (;;) {
                Block* block = nullptr;
                const std::vector<Block*>* list = nullptr;
                {
                    std::unique_lock lock(queue.mutex);
                    while (!block && !list) {
                        if (queue.failed || stopRequested(stop_)) return;
                        if (!queue.ready.empty()) {
                            block = queue.ready.back();
                            queue.ready.pop_back();
                        } else if (queue.next < bySpin.size()) {
                            list = &bySpin[queue.next++];
                            ++queue.building;
                        } else if (queue.building == 0) {
                            return;
                        } else {
                            queue.changed.wait_for(lock, std::chrono::milliseconds(100));
                        }
                    }
                }
                try {
                    if (block)
                        diagonaliseOnce(*block);
                    else
                        build(*list);
                } catch (...) {
                    {
                        const std::lock_guard lock(queue.mutex);
                        queue.failed = true;
                    }
                    queue.changed.notify_all();
                    throw;
                }
            }
        });
        if (plan_.scaled) diagonalisations_ = 1;
        return;
    }

    // A lone block is built by all threads, row by row; otherwise one block per thread.
    const int buildThreads = blocks_.size() == 1 ? threads_ : 1;
    parallelFor(static_cast<long>(blocks_.size()), threads_, stop_, [&](long i) {
        Block& block = *blocks_[static_cast<std::size_t>(i)];
        block.terms.resize(usedJ_.size());
        const auto started = std::chrono::steady_clock::now();
        if (plan.method == Method::SBlocks) {
            buildCoupledBlock(system, jSlot, block.shape.twiceLabel, block.terms, buildThreads,
                              stop_);
        } else {
            const auto states = productStates(system, block.shape, plan.method);
            buildProductBlock(system, jSlot, states, block.terms,
                              plan.method == Method::Full ? &block.stateTwiceM : nullptr, stop_);
        }
        if (plan.denseTerms && !plan_.scaled) {
            for (const Term& term : block.terms) {
                Eigen::MatrixXd dense(term);
                dense.triangularView<Eigen::StrictlyUpper>() = dense.transpose();
                block.perJ.push_back(std::move(dense));
            }
            block.terms.clear();
        }
        countBuild(started);
        if (plan_.scaled) diagonaliseOnce(block);
    });
    if (plan_.scaled) diagonalisations_ = 1;
}

Spectrum::~Spectrum() = default;

std::string Spectrum::ftlmSummary() const { return ftlm_ ? ftlm_->summary() : std::string(); }

void Spectrum::setFtlmVectors(int vectors) {
    if (!ftlm_) return;
    ftlm_->setVectors(vectors);
    plan_.ftlm.vectors = vectors;
    cached_ = false;
}

void Spectrum::diagonalise(Block& block, const std::vector<double>& jKelvin,
                           const std::vector<bool>& slopeFor) {
    const auto n = static_cast<Index>(block.shape.built());
    const std::size_t used = usedJ_.size();
    auto wanted = [&](std::size_t slot) {
        const auto j = static_cast<std::size_t>(usedJ_[slot]);
        return j < slopeFor.size() && slopeFor[j];
    };
    block.slopes.assign(used, Eigen::VectorXd());
    if (plan_.scaled) {
        const double j = used == 1 ? jKelvin[static_cast<std::size_t>(usedJ_[0])] : 0.0;
        block.values = j * block.unitValues;
        if (plan_.method == Method::Full) block.twiceM = block.unitTwiceM;
        if (used == 1 && wanted(0)) block.slopes[0] = block.unitValues;
        return;
    }
    // The sum at these J values, its lower triangle (which is all the sparse terms hold).
    Eigen::MatrixXd matrix = Eigen::MatrixXd::Zero(n, n);
    std::vector<double> jUsed(used);
    for (std::size_t slot = 0; slot < used; ++slot) {
        const double j = jKelvin[static_cast<std::size_t>(usedJ_[slot])];
        jUsed[slot] = j;
        if (!block.perJ.empty()) {
            matrix += j * block.perJ[slot];
            continue;
        }
        const Term& term = block.terms[slot];
        for (Index column = 0; column < n; ++column)
            for (Term::InnerIterator it(term, column); it; ++it)
                matrix(it.row(), column) += j * it.value();
    }
    std::vector<char> want(used, 0);
    for (std::size_t slot = 0; slot < used; ++slot) want[slot] = wanted(slot) ? 1 : 0;
    const bool anySlope = std::any_of(want.begin(), want.end(), [](char w) { return w != 0; });
    const bool vectors = anySlope || plan_.method == Method::Full;
    symmetricEigen(matrix, block.values, vectors);
    if (plan_.method == Method::Full)
        separateByM(matrix, block.values, block.stateTwiceM, block.twiceM);
    if (!anySlope) return;
    if (block.perJ.empty()) {
        sparseSlopes(matrix, block.values, block.terms, jUsed, want, block.slopes);
        return;
    }
    Eigen::MatrixXd product(n, n);
    const int size = static_cast<int>(n);
    const double one = 1, zero = 0;
    const char none = 'N';
    for (std::size_t slot = 0; slot < used; ++slot) {
        if (!wanted(slot)) continue;
        dgemm_(&none, &none, &size, &size, &size, &one, block.perJ[slot].data(), &size,
               matrix.data(), &size, &zero, product.data(), &size);
        block.slopes[slot] = (matrix.array() * product.array()).colwise().sum().transpose();
    }
}

void Spectrum::diagonaliseAll(const std::vector<double>& jKelvin,
                              const std::vector<bool>& slopeFor) {
    // Threads only pay where there is work to share: a few small blocks run serially.
    double work = 0;
    for (const auto& block : blocks_) work += std::pow(block->shape.size, 3);
    parallelFor(static_cast<long>(blocks_.size()), work > 1e6 ? threads_ : 1, stop_, [&](long i) {
        diagonalise(*blocks_[static_cast<std::size_t>(i)], jKelvin, slopeFor);
    });
    if (!plan_.scaled) diagonalisations_ += 1;
}

const Levels& Spectrum::levels(const std::vector<double>& jKelvin,
                               const std::vector<bool>& slopeFor) {
    auto covers = [&](const std::vector<bool>& have) {
        for (std::size_t k = 0; k < slopeFor.size(); ++k)
            if (slopeFor[k] && (k >= have.size() || !have[k])) return false;
        return true;
    };
    if (cached_ && cachedJ_ == jKelvin && (ftlm_ || covers(cachedSlopes_))) return levels_;
    if (ftlm_) {
        ftlm_->levels(jKelvin, levels_);
        ++diagonalisations_;
        cachedJ_ = jKelvin;
        cached_ = true;
        return levels_;
    }

    diagonaliseAll(jKelvin, slopeFor);
    Levels& out = levels_;
    out.energy.clear();
    out.weight.clear();
    out.moment.clear();
    out.twice.clear();
    out.multiplets = plan_.method == Method::SBlocks;
    out.slope.assign(static_cast<std::size_t>(system_.jCount), {});
    std::vector<bool> has(static_cast<std::size_t>(system_.jCount), false);
    for (std::size_t k = 0; k < has.size(); ++k) has[k] = k < slopeFor.size() && slopeFor[k];
    for (const auto& blockPointer : blocks_) {
        const Block& block = *blockPointer;
        for (Index i = 0; i < block.values.size(); ++i) {
            out.energy.push_back(block.values[i]);
            out.weight.push_back(block.shape.weight);
            if (plan_.method == Method::Full) { // one state of M each
                const int twiceM = block.twiceM[static_cast<std::size_t>(i)];
                out.moment.push_back(twiceM * twiceM / 4.0);
                out.twice.push_back(std::abs(twiceM));
            } else {
                out.moment.push_back(block.shape.moment);
                out.twice.push_back(block.shape.twiceLabel);
            }
        }
        for (std::size_t k = 0; k < has.size(); ++k) {
            if (!has[k]) continue;
            auto slot = std::find(usedJ_.begin(), usedJ_.end(), static_cast<int>(k));
            std::vector<double>& slope = out.slope[k];
            for (Index i = 0; i < block.values.size(); ++i)
                slope.push_back(
                    slot == usedJ_.end()
                        ? 0.0
                        : block.slopes[static_cast<std::size_t>(slot - usedJ_.begin())][i]);
        }
    }
    cachedJ_ = jKelvin;
    cachedSlopes_ = has;
    cached_ = true;
    return levels_;
}

double estimatedSeconds(const Plan& plan, int freeJ) {
    return plan.secondsToBuild +
           (freeJ == 0 || plan.scaled      ? plan.secondsPerSpectrum
            : plan.method == Method::Ftlm ? 25 * (1 + freeJ) * plan.secondsPerSpectrum
                                          : 25 * plan.secondsPerSlopes);
}

bool ftlmFasterEnough(double exactSeconds, double ftlmSeconds) {
    return exactSeconds > 60 && exactSeconds > 2 * ftlmSeconds;
}

std::vector<int> usedJValues(const SpinSystem& system) {
    std::vector<int> used;
    for (const Bond& bond : system.bonds)
        if (std::find(used.begin(), used.end(), bond.j) == used.end()) used.push_back(bond.j);
    std::sort(used.begin(), used.end());
    return used;
}

} // namespace corefit
