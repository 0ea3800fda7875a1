#include "ftlm.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <limits>
#include <numeric>
#include <random>
#include <stdexcept>

#include <Eigen/Dense>

#include "spectrum.h"
#include "symmetry.h"

#ifdef COREFIT_MPI
#include <mpi.h>
#endif

extern "C" void zheevd_(const char* jobz, const char* uplo, const int* n, std::complex<double>* a,
                        const int* lda, double* w, std::complex<double>* work, const int* lwork,
                        double* rwork, const int* lrwork, int* iwork, const int* liwork, int* info);

extern "C" {
void dgemv_(const char* trans, const int* m, const int* n, const double* alpha, const double* a,
            const int* lda, const double* x, const int* incx, const double* beta, double* y,
            const int* incy);
void zgemv_(const char* trans, const int* m, const int* n, const std::complex<double>* alpha,
            const std::complex<double>* a, const int* lda, const std::complex<double>* x,
            const int* incx, const std::complex<double>* beta, std::complex<double>* y,
            const int* incy);
void dstev_(const char* jobz, const int* n, double* d, double* e, double* z, const int* ldz,
            double* work, int* info);
void dgemm_(const char* transa, const char* transb, const int* m, const int* n, const int* k,
            const double* alpha, const double* a, const int* lda, const double* b, const int* ldb,
            const double* beta, double* c, const int* ldc);
void zgemm_(const char* transa, const char* transb, const int* m, const int* n, const int* k,
            const std::complex<double>* alpha, const std::complex<double>* a, const int* lda,
            const std::complex<double>* b, const int* ldb, const std::complex<double>* beta,
            std::complex<double>* c, const int* ldc);
}

namespace corefit {

// The processes of an MPI run (one without MPI, or when MPI is not initialised).
int ftlmProcesses() {
#ifdef COREFIT_MPI
    int initialised = 0, size = 1;
    MPI_Initialized(&initialised);
    if (initialised) MPI_Comm_size(MPI_COMM_WORLD, &size);
    return size;
#else
    return 1;
#endif
}

namespace {

using Index = Eigen::Index;
using Complex = std::complex<double>;
template <class S> using Vector = Eigen::Matrix<S, Eigen::Dynamic, 1>;
template <class S> using Matrix = Eigen::Matrix<S, Eigen::Dynamic, Eigen::Dynamic>;
// Several vectors side by side, the entries of one state together (so that a product reads each
// element of H once for all of them).
template <class S> using Rows = Eigen::Matrix<S, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;
__extension__ using Count = unsigned __int128;
__extension__ using Signed = __int128;

// Eigenvalues (ascending) of a Hermitian matrix, and eigenvectors in place of it when asked.
void hermitianEigen(Matrix<double>& matrix, Eigen::VectorXd& values, bool vectors) {
    symmetricEigen(matrix, values, vectors);
}
void hermitianEigen(Matrix<Complex>& matrix, Eigen::VectorXd& values, bool vectors) {
    const int n = static_cast<int>(matrix.rows());
    values.resize(n);
    if (n == 0) return;
    const char jobz = vectors ? 'V' : 'N', uplo = 'L';
    int lwork = -1, lrwork = -1, liwork = -1, info = 0, iworkSize = 0;
    Complex workSize;
    double rworkSize = 0;
    zheevd_(&jobz, &uplo, &n, matrix.data(), &n, values.data(), &workSize, &lwork, &rworkSize,
            &lrwork, &iworkSize, &liwork, &info);
    lwork = static_cast<int>(workSize.real()) + 1;
    lrwork = static_cast<int>(rworkSize) + 1;
    liwork = std::max(1, iworkSize);
    std::vector<Complex> work(static_cast<std::size_t>(lwork));
    std::vector<double> rwork(static_cast<std::size_t>(lrwork));
    std::vector<int> iwork(static_cast<std::size_t>(liwork));
    zheevd_(&jobz, &uplo, &n, matrix.data(), &n, values.data(), work.data(), &lwork, rwork.data(),
            &lrwork, iwork.data(), &liwork, &info);
    if (info != 0)
        throw std::runtime_error("LAPACK zheevd failed with info " + std::to_string(info));
}

// The cyclic group the sectors are split by: the powers of one symmetry of the cluster, the one
// of the largest order (the translations of a ring); the identity alone without symmetry.
struct Cyclic {
    int order = 1;
    std::vector<Permutation> power; // power[j] = g^j
    std::string name = "none";
};

int permutationOrder(const Permutation& p) {
    long order = 1;
    std::vector<char> seen(p.size(), 0);
    for (std::size_t i = 0; i < p.size(); ++i) {
        long length = 0;
        for (std::size_t k = i; !seen[k]; k = static_cast<std::size_t>(p[k])) seen[k] = 1, ++length;
        if (length > 0) order = std::lcm(order, length);
        if (order > 4096) return 0; // more blocks than useful
    }
    return static_cast<int>(order);
}

Cyclic cyclicSymmetry(const SpinSystem& system, bool use) {
    Cyclic cyclic;
    Permutation identity(system.twiceSpin.size());
    std::iota(identity.begin(), identity.end(), 0);
    cyclic.power = {identity};
    if (!use) return cyclic;
    const SiteSymmetry symmetry = findSymmetry(system);
    const Permutation* best = nullptr;
    for (const Permutation& element : symmetry.elements) {
        const int order = permutationOrder(element);
        if (order > cyclic.order) cyclic.order = order, best = &element;
    }
    if (!best) return cyclic;
    for (int j = 1; j < cyclic.order; ++j) {
        Permutation next(identity.size());
        for (std::size_t i = 0; i < next.size(); ++i)
            next[i] = (*best)[static_cast<std::size_t>(cyclic.power.back()[i])];
        cyclic.power.push_back(std::move(next));
    }
    cyclic.name = cycleText(*best);
    return cyclic;
}

// Mixed-radix codes of product states (site 0 the least significant digit) and their images
// under the powers of the generator.
struct Coder {
    std::vector<int> twiceSpin;
    std::vector<long> stride;
    std::vector<std::vector<long>> moved; // moved[j][i] = stride of g^j(i)
    Coder(const std::vector<int>& spins, const Cyclic& cyclic) : twiceSpin(spins) {
        stride.assign(spins.size(), 1);
        for (std::size_t i = 1; i < spins.size(); ++i)
            stride[i] = stride[i - 1] * (spins[i - 1] + 1);
        for (const Permutation& p : cyclic.power) {
            moved.emplace_back(spins.size());
            for (std::size_t i = 0; i < spins.size(); ++i)
                moved.back()[i] = stride[static_cast<std::size_t>(p[i])];
        }
    }
    void digits(long code, std::vector<int>& out) const {
        out.resize(twiceSpin.size());
        for (std::size_t i = 0; i < twiceSpin.size(); ++i) {
            out[i] = static_cast<int>(code % (twiceSpin[i] + 1));
            code /= twiceSpin[i] + 1;
        }
    }
    long image(const std::vector<int>& digit, std::size_t j) const {
        long code = 0;
        const std::vector<long>& to = moved[j];
        for (std::size_t i = 0; i < digit.size(); ++i) code += digit[i] * to[i];
        return code;
    }
};

// Product states with digit sum `digits` (2M = 2 digits - sum of 2S), ascending codes.
std::vector<long> sectorStates(const std::vector<int>& twiceSpin, int digits) {
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

// The number of states of every digit sum that a permutation fixes: the sites of a cycle carry
// one digit.
std::vector<Count> fixedCounts(const std::vector<int>& twiceSpin, const Permutation& p) {
    std::vector<Count> counts{1};
    std::vector<char> seen(p.size(), 0);
    for (std::size_t i = 0; i < p.size(); ++i) {
        if (seen[i]) continue;
        std::size_t length = 0;
        for (std::size_t k = i; !seen[k]; k = static_cast<std::size_t>(p[k])) seen[k] = 1, ++length;
        const auto s = static_cast<std::size_t>(twiceSpin[i]);
        std::vector<Count> next(counts.size() + s * length, 0);
        for (std::size_t m = 0; m < counts.size(); ++m)
            for (std::size_t d = 0; d <= s; ++d) next[m + d * length] += counts[m];
        counts = std::move(next);
    }
    return counts;
}

// A sector of fixed M: the orbits of its product states under the cyclic group, each by its
// smallest code (its representative) and its length, and the rows of H on them, shared by the
// blocks of every k. Row a holds, for every state s = g^l b that a path takes a's
// representative to, the element h sqrt(p_a / p_b) at column b with the shift l: then block k
// has <a,k|H|x> = sum over the row of h sqrt(p_a/p_b) e^(-2 pi i k l/m) x_b.
struct SectorRows {
    std::vector<long> rowStart;
    std::vector<int> column;
    std::vector<std::uint16_t> shift;
    std::vector<unsigned char> slot;
    std::vector<double> element; // per unit J
    std::vector<double> value;   // element x J of its slot, for the current J values
    Eigen::MatrixXd diagonal;    // orbits x slots, per unit J
    Eigen::VectorXd diagonalNow;
    std::vector<std::uint16_t> period; // orbit lengths

    void setJ(const std::vector<double>& j) {
        value.resize(element.size());
        for (std::size_t e = 0; e < element.size(); ++e) value[e] = j[slot[e]] * element[e];
        diagonalNow =
            diagonal * Eigen::Map<const Eigen::VectorXd>(j.data(), static_cast<Index>(j.size()));
    }
};

// The product of a block with several vectors side by side (its rows, as SectorRows holds them),
// the loop of FTLM's random vectors: y = H x, x and y with `width` entries per orbit. Built for
// any x86-64 and, where the processor has them, for AVX2 and FMA, chosen when the program starts.
template <class S> struct RowsProduct {
    const long* rowStart;
    const int* column;
    const std::uint16_t* shift;
    const double *value, *diagonal;
    const S* phase;
    const char* skip; // orbits without a state of the block's character (none: nullptr)
};
#if defined(__GNUC__) && defined(__x86_64__) && !defined(__clang__)
#define COREFIT_CLONES __attribute__((target_clones("arch=x86-64-v3", "default")))
#else
#define COREFIT_CLONES
#endif
// The bodies go into each clone whole (a call out of a clone would run the code for any x86-64).
#if defined(__GNUC__)
#define COREFIT_INLINE inline __attribute__((always_inline))
#else
#define COREFIT_INLINE inline
#endif
// W vectors (a constant, so that the sums stay in registers; 0: `width` of them).
template <int W, class S>
COREFIT_INLINE void applyRowsBody(const RowsProduct<S>& h, const S* x, S* y, Index n, Index width) {
    constexpr Index most = 8;
    const Index count = W > 0 ? W : width;
    for (Index a = 0; a < n; ++a) {
        S* out = y + a * count;
        if (h.skip && h.skip[a]) {
            std::fill(out, out + count, S(0));
            continue;
        }
        const S* own = x + a * count;
        S sum[most];
        for (Index c = 0; c < count; ++c) sum[c] = h.diagonal[a] * own[c];
        const long end = h.rowStart[a + 1];
        for (long e = h.rowStart[a]; e < end; ++e) {
            const S element = h.value[e] * h.phase[h.shift[e]];
            const S* in = x + static_cast<Index>(h.column[e]) * count;
            for (Index c = 0; c < count; ++c) sum[c] += element * in[c];
        }
        std::copy(sum, sum + count, out);
    }
}
template <class S>
COREFIT_INLINE void applyRowsBody(const RowsProduct<S>& h, const S* x, S* y, Index n, Index width) {
    switch (width) {
    case 1:
        return applyRowsBody<1>(h, x, y, n, width);
    case 2:
        return applyRowsBody<2>(h, x, y, n, width);
    case 3:
        return applyRowsBody<3>(h, x, y, n, width);
    case 4:
        return applyRowsBody<4>(h, x, y, n, width);
    case 5:
        return applyRowsBody<5>(h, x, y, n, width);
    case 6:
        return applyRowsBody<6>(h, x, y, n, width);
    case 7:
        return applyRowsBody<7>(h, x, y, n, width);
    case 8:
        return applyRowsBody<8>(h, x, y, n, width);
    default:
        if (width > 8) throw std::logic_error("FTLM: more than 8 vectors side by side");
        return applyRowsBody<0>(h, x, y, n, width);
    }
}
COREFIT_CLONES void applyRows(const RowsProduct<double>& h, const double* x, double* y, Index n,
                              Index width) {
    applyRowsBody(h, x, y, n, width);
}
COREFIT_CLONES void applyRows(const RowsProduct<Complex>& h, const Complex* x, Complex* y, Index n,
                              Index width) {
    applyRowsBody(h, x, y, n, width);
}

// The passes of a Lanczos step over vectors side by side (n rows of `width`), in the same clones.
template <class S>
COREFIT_INLINE void dotsBody(const S* v, const S* w, Index n, Index width, double* dot) {
    std::fill(dot, dot + width, 0.0);
    for (Index a = 0; a < n; ++a)
        for (Index c = 0; c < width; ++c)
            dot[c] += std::real(std::conj(v[a * width + c]) * w[a * width + c]);
}
template <class S>
COREFIT_INLINE void updateBody(const S* v, const S* previous, Index n, Index width,
                               const double* alpha, const double* beta, S* w) {
    for (Index a = 0; a < n; ++a)
        for (Index c = 0; c < width; ++c) {
            const Index i = a * width + c;
            w[i] -= alpha[c] * v[i] + beta[c] * previous[i];
        }
}
template <class S>
COREFIT_INLINE void squaresBody(const S* w, Index n, Index width, double* square) {
    std::fill(square, square + width, 0.0);
    for (Index a = 0; a < n; ++a)
        for (Index c = 0; c < width; ++c) square[c] += std::norm(w[a * width + c]);
}
template <class S>
COREFIT_INLINE void nextBody(const S* w, const double* factor, Index n, Index width, S* v,
                             S* previous) {
    for (Index a = 0; a < n; ++a)
        for (Index c = 0; c < width; ++c) {
            const Index i = a * width + c;
            v[i] = w[i] * factor[c];
            if (factor[c] == 0) previous[i] = S(0);
        }
}
#define COREFIT_LANCZOS_PASSES(S)                                                                  \
    COREFIT_CLONES void lanczosDots(const S* v, const S* w, Index n, Index width, double* dot) {   \
        dotsBody(v, w, n, width, dot);                                                             \
    }                                                                                              \
    COREFIT_CLONES void lanczosUpdate(const S* v, const S* previous, Index n, Index width,         \
                                      const double* alpha, const double* beta, S* w) {             \
        updateBody(v, previous, n, width, alpha, beta, w);                                         \
    }                                                                                              \
    COREFIT_CLONES void lanczosSquares(const S* w, Index n, Index width, double* square) {         \
        squaresBody(w, n, width, square);                                                          \
    }                                                                                              \
    COREFIT_CLONES void lanczosNext(const S* w, const double* factor, Index n, Index width, S* v,  \
                                    S* previous) {                                                 \
        nextBody(w, factor, n, width, v, previous);                                                \
    }
COREFIT_LANCZOS_PASSES(double)
COREFIT_LANCZOS_PASSES(Complex)
#undef COREFIT_LANCZOS_PASSES

// H on block k of a sector: vectors have one entry per orbit of the sector, zero at the orbits
// that have no state of character k (whose length p has k p / m not whole).
template <class S> struct BlockOperator {
    const SectorRows* rows = nullptr;
    int k = 0, order = 1;
    Index dimension = 0;   // orbits with a state of character k
    std::vector<S> phase;  // e^(-2 pi i k l / m), per shift l
    std::vector<int> kept; // the orbits with a state of character k, ascending
    std::vector<char> skip; // per orbit, 1 for those without (empty when there are none)

    BlockOperator(const SectorRows& sector, int character, int m)
        : rows(&sector), k(character), order(m) {
        for (int l = 0; l < m; ++l) {
            const double angle =
                -2 * M_PI * static_cast<double>((static_cast<long>(k) * l) % m) / m;
            if constexpr (std::is_same_v<S, double>)
                phase.push_back(std::round(std::cos(angle)));
            else
                phase.push_back(std::polar(1.0, angle));
        }
        for (std::size_t a = 0; a < sector.period.size(); ++a)
            if (has(static_cast<Index>(a))) kept.push_back(static_cast<int>(a));
        dimension = static_cast<Index>(kept.size());
        if (dimension != length())
            for (Index a = 0; a < length(); ++a) skip.push_back(has(a) ? 0 : 1);
    }
    Index length() const { return static_cast<Index>(rows->period.size()); }
    bool has(Index a) const {
        return (static_cast<long>(k) * rows->period[static_cast<std::size_t>(a)]) % order == 0;
    }
    void apply(const Vector<S>& x, Vector<S>& y) const {
        y.resize(length());
        applyRows(product(), x.data(), y.data(), length(), 1);
    }
    RowsProduct<S> product() const {
        const SectorRows& h = *rows;
        return {h.rowStart.data(),
                h.column.data(),
                h.shift.data(),
                h.value.data(),
                h.diagonalNow.data(),
                phase.data(),
                skip.empty() ? nullptr : skip.data()};
    }
    // The same for the columns of x side by side.
    void apply(const Rows<S>& x, Rows<S>& y) const {
        const Index n = length(), width = x.cols();
        y.resize(n, width);
        applyRows(product(), x.data(), y.data(), n, width);
    }
    // The block as a dense matrix on the orbits kept.
    Matrix<S> dense() const {
        const SectorRows& h = *rows;
        std::vector<int> at(static_cast<std::size_t>(length()), -1);
        for (std::size_t i = 0; i < kept.size(); ++i)
            at[static_cast<std::size_t>(kept[i])] = static_cast<int>(i);
        Matrix<S> matrix = Matrix<S>::Zero(dimension, dimension);
        for (std::size_t i = 0; i < kept.size(); ++i) {
            const auto a = static_cast<std::size_t>(kept[i]);
            matrix(static_cast<Index>(i), static_cast<Index>(i)) +=
                h.diagonalNow[static_cast<Index>(a)];
            for (auto e = static_cast<std::size_t>(h.rowStart[a]);
                 e < static_cast<std::size_t>(h.rowStart[a + 1]); ++e) {
                const int b = at[static_cast<std::size_t>(h.column[e])];
                if (b >= 0) matrix(static_cast<Index>(i), b) += h.value[e] * phase[h.shift[e]];
            }
        }
        return matrix;
    }
    // A vector on the orbits kept, from one on all of them, and back.
    Vector<S> compact(const Vector<S>& x) const {
        Vector<S> out(dimension);
        for (std::size_t i = 0; i < kept.size(); ++i) out[static_cast<Index>(i)] = x[kept[i]];
        return out;
    }
};

// Random vector r of a block: +-1 entries from the seed, the block and r alone, zero at the
// orbits without a state of the block's character. (Without symmetry, or at k = 0, the
// stream of each sector is that of its product states.)
template <class S>
Vector<S> randomVector(const BlockOperator<S>& h, std::uint64_t seed, int twiceM, int r) {
    std::vector<std::uint32_t> words{
        static_cast<std::uint32_t>(seed), static_cast<std::uint32_t>(seed >> 32),
        static_cast<std::uint32_t>(twiceM), static_cast<std::uint32_t>(r + 1000)};
    if (h.k != 0) words.push_back(static_cast<std::uint32_t>(h.k));
    std::seed_seq sequence(words.begin(), words.end());
    std::mt19937_64 bits(sequence);
    const Index n = h.length();
    Vector<S> v(n);
    std::uint64_t word = 0;
    const bool all = h.dimension == n;
    for (Index i = 0; i < n; ++i) {
        if (i % 64 == 0) word = bits();
        v[i] = !all && !h.has(i) ? S(0) : (word >> (i % 64)) & 1 ? S(1) : S(-1);
    }
    return v;
}

// y = alpha op(A) x + beta y, A the first `columns` columns of `a` (op: the adjoint when
// `adjoint`), by BLAS: the dense passes over the vectors of large blocks, where its kernels for the
// machine at hand are several times faster than code built for any x86-64.
template <class S>
void gemv(bool adjoint, const Matrix<S>& a, Index columns, const S* x, S alpha, S beta, S* y) {
    keepBlasOnOneThread();
    const int m = static_cast<int>(a.rows()), n = static_cast<int>(columns), one = 1;
    if (m == 0 || n == 0) {
        for (Index i = 0; i < (adjoint ? columns : a.rows()); ++i) y[i] *= beta;
        return;
    }
    const char trans = adjoint ? 'C' : 'N';
    if constexpr (std::is_same_v<S, double>)
        dgemv_(&trans, &m, &n, &alpha, a.data(), &m, x, &one, &beta, y, &one);
    else
        zgemv_(&trans, &m, &n, &alpha, a.data(), &m, x, &one, &beta, y, &one);
}

// The first `columns` columns of a times b (columns x p), by BLAS.
template <class S> Matrix<S> times(const Matrix<S>& a, Index columns, const Matrix<S>& b) {
    keepBlasOnOneThread();
    Matrix<S> c = Matrix<S>::Zero(a.rows(), b.cols());
    const int m = static_cast<int>(a.rows()), n = static_cast<int>(b.cols()),
              k = static_cast<int>(columns), ldb = static_cast<int>(b.rows());
    if (m == 0 || n == 0 || k == 0) return c;
    const char none = 'N';
    const S one(1), zero(0);
    if constexpr (std::is_same_v<S, double>)
        dgemm_(&none, &none, &m, &n, &k, &one, a.data(), &m, b.data(), &ldb, &zero, c.data(), &m);
    else
        zgemm_(&none, &none, &m, &n, &k, &one, a.data(), &m, b.data(), &ldb, &zero, c.data(), &m);
    return c;
}

// v -= basis basis^H v, passes times.
template <class S> void projectOut(const Matrix<S>& basis, Vector<S>& v, int passes = 2) {
    if (basis.cols() == 0) return;
    Vector<S> c = Vector<S>::Zero(basis.cols());
    for (int pass = 0; pass < passes; ++pass) {
        gemv(true, basis, basis.cols(), v.data(), S(1), S(0), c.data());
        gemv(false, basis, basis.cols(), c.data(), S(-1), S(1), v.data());
    }
}
// The same for every column of v. (v's entries lie as those of its transpose would in a matrix of
// columns: c = basis^H v is BLAS's basis^H (v^T)^T, and v^T -= c^T basis^T.)
template <class S> void projectOut(const Matrix<S>& basis, Rows<S>& v, int passes = 2) {
    if (basis.cols() == 0 || v.size() == 0) return;
    keepBlasOnOneThread();
    const int n = static_cast<int>(basis.rows()), k = static_cast<int>(basis.cols()),
              width = static_cast<int>(v.cols());
    Matrix<S> c = Matrix<S>::Zero(k, width);
    const S one(1), minus(-1), zero(0);
    const char adjoint = 'C', transpose = 'T';
    for (int pass = 0; pass < passes; ++pass) {
        if constexpr (std::is_same_v<S, double>) {
            dgemm_(&transpose, &transpose, &k, &width, &n, &one, basis.data(), &n, v.data(), &width,
                   &zero, c.data(), &k);
            dgemm_(&transpose, &transpose, &width, &n, &k, &minus, c.data(), &k, basis.data(), &n,
                   &one, v.data(), &width);
        } else {
            zgemm_(&adjoint, &transpose, &k, &width, &n, &one, basis.data(), &n, v.data(), &width,
                   &zero, c.data(), &k);
            zgemm_(&transpose, &transpose, &width, &n, &k, &minus, c.data(), &k, basis.data(), &n,
                   &one, v.data(), &width);
        }
    }
}

// The basis of the search for the lowest levels: at least this, and the levels wanted + 12. A
// wider one converges in fewer products, but each pass over it costs more; on the rings of 9 and
// 10 x S=5/2 (blocks of 1e5 to 4e5 states) this one took some 0.8 of the time of max(24, 2L + 20).
constexpr int lowestWidth = 16;

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
template <class S> struct Found {
    Matrix<S> vectors;
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
template <class S>
double explore(const BlockOperator<S>& h, Vector<S> v, int width, Found<S>& found,
               const std::function<bool(double, Index)>& take, const StopFlag* stop) {
    const Index n = h.dimension, length = v.size();
    width = static_cast<int>(std::min<Index>(width, n - found.vectors.cols()));
    Matrix<S> basis(length, std::max(width, 1));
    Matrix<S> projected = Matrix<S>::Zero(width, width); // basis^H H basis
    projectOut(found.vectors, v);
    if (width <= 0 || v.norm() == 0) return std::nan("");
    basis.col(0) = v.normalized();
    Index size = 1;      // vectors in the basis
    Index restarted = 0; // the first vector after the Ritz vectors kept at a restart
    Vector<S> w;
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
        Vector<S> c = Vector<S>::Zero(j + 1);
        const Index local = j == restarted ? 0 : j - 1;
        const Vector<S> near = basis.middleCols(local, j + 1 - local).adjoint() * w;
        w -= basis.middleCols(local, j + 1 - local) * near;
        c.tail(j + 1 - local) = near;
        Vector<S> part = Vector<S>::Zero(j + 1);
        for (int pass = 0; pass < 2; ++pass) {
            const double before = w.norm();
            gemv(true, basis, j + 1, w.data(), S(1), S(0), part.data());
            gemv(false, basis, j + 1, part.data(), S(-1), S(1), w.data());
            c += part;
            projectOut(found.vectors, w, 1);
            if (w.norm() > 0.7 * before) break;
        }
        projected.col(j).head(j + 1) = c;
        const double residual = w.norm();
        found.scale = std::max(found.scale, std::abs(std::real(c[j])));
        const bool exhausted = residual <= 1e-12 * found.scale;
        const bool full = size == width;
        if (!exhausted && !full && (size - restarted) % 8 != 0) {
            basis.col(size++) = w / residual;
            continue;
        }
        // The Ritz pairs: the lowest converged ones wanted are taken, up to the first that is
        // not wanted (the end) or not converged.
        const Matrix<S> symmetric =
            projected.topLeftCorner(size, size).template selfadjointView<Eigen::Upper>();
        const Eigen::SelfAdjointEigenSolver<Matrix<S>> ritz(symmetric);
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
        const Matrix<S> taking = times(basis, size, Matrix<S>(ritz.eigenvectors().leftCols(taken)));
        for (Index k = 0; k < taken; ++k) {
            Vector<S> x = taking.col(k);
            projectOut(found.vectors, x);
            x.normalize();
            found.vectors.conservativeResize(length, found.vectors.cols() + 1);
            found.vectors.col(found.vectors.cols() - 1) = x;
            found.values.push_back(theta[k]);
        }
        if (over) return end;
        // Start again from the lowest Ritz pairs not taken (half the basis) and the residual.
        width = static_cast<int>(std::min<Index>(width, n - found.vectors.cols()));
        const Index kept = std::min<Index>({size - taken, std::max(width / 2, 1), width - 1});
        if (kept <= 0) return std::nan("");
        const Matrix<S> restart =
            times(basis, size, Matrix<S>(ritz.eigenvectors().middleCols(taken, kept)));
        basis.leftCols(kept) = restart;
        projected.setZero();
        projected.diagonal().head(kept) = theta.segment(taken, kept).template cast<S>();
        basis.col(kept) = w / residual;
        size = kept + 1;
        restarted = kept;
    }
}

// The lowest `count` eigenpairs of a block, ascending, and the level right above them (infinity
// when the block has no more).
template <class S> struct Lowest {
    std::vector<double> values;
    Matrix<S> vectors;
    double next = std::numeric_limits<double>::infinity();
    double scale = 0; // the size of the block's levels, for comparing them
};

// Thick-restart Lanczos from one random vector finds `count` levels; but a Krylov space holds
// one vector of a degenerate level only, so a second, from another random vector orthogonal to
// all found, takes every level it finds up to the highest of the `count` lowest (a missed
// partner, or one lying lower), and returns the first above them; that check is repeated until
// it takes nothing. The pairs are converged to near rounding, so the result does not depend
// (beyond that) on the path the search took: it is smooth in the J values.
// With a limit, only the levels up to it are wanted: fewer than `count` when the block has
// fewer there, and none when its lowest lies above it.
template <class S>
Lowest<S> lowestLevels(const BlockOperator<S>& h, int count, std::uint64_t seed, int twiceM,
                       const StopFlag* stop,
                       double limit = std::numeric_limits<double>::infinity()) {
    const Index n = h.dimension;
    count = static_cast<int>(std::min<Index>(count, n));
    Lowest<S> out;
    Found<S> found;
    found.vectors.resize(h.length(), 0);
    const int width = std::max(lowestWidth, count + 12);
    int start = 0; // random vectors used
    if (count > 0) {
        const auto wanted = static_cast<std::size_t>(count);
        while (found.values.size() < wanted && found.vectors.cols() < n) {
            // (The first level it does not take may be a partner of one it took.)
            const double above = explore(
                h, randomVector(h, seed + 7777, twiceM, -1 - start++), width, found,
                [&](double value, Index before) {
                    return found.values.size() + static_cast<std::size_t>(before) < wanted &&
                           value <= limit;
                },
                stop);
            if (above > limit) { // the levels up to the limit are all there
                out.next = above;
                count = static_cast<int>(found.values.size());
                break;
            }
        }
    }
    if (count > 0) {
        for (std::size_t before = 0; before != found.values.size() && found.vectors.cols() < n;) {
            before = found.values.size();
            const double highest = found.highestOf(count) + sameLevel * found.scale;
            const double above = explore(
                h, randomVector(h, seed + 7777, twiceM, -1 - start++), width, found,
                [&](double value, Index) { return value <= highest; }, stop);
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
    out.vectors.resize(h.length(), static_cast<Index>(kept));
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
template <class S>
Lowest<S> lowestAtAGap(const BlockOperator<S>& h, int wanted, double limit, std::uint64_t seed,
                       int twiceM, const StopFlag* stop) {
    const Index n = h.dimension;
    for (int count = wanted;;) {
        Lowest<S> lowest = lowestLevels(h, count, seed, twiceM, stop, limit);
        if (lowest.values.empty()) return lowest;
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
            lowest.vectors.conservativeResize(h.length(), cut);
            return lowest;
        }
        count = static_cast<int>(std::min<Index>(2 * count, n - 1));
    }
}

// The random vectors' Lanczos runs start orthogonal to the exact levels and are made so again
// every this many steps. In exact arithmetic they would stay so; rounding (and the exact pairs'
// residuals of up to 1e-10) brings the exact levels back, growing at most as the Lanczos
// polynomial at them does, which over so few steps leaves them far below what counts.
constexpr int keepApart = 8;

// Random vectors of a block whose Lanczos runs go side by side (see randomParts), at most: the
// vectors of a block are split into as few runs as that allows, of sizes as even as can be.
constexpr std::size_t runsTogether = 8;
std::size_t runSize(std::size_t vectors) {
    const std::size_t runs = (vectors + runsTogether - 1) / runsTogether;
    return (vectors + runs - 1) / std::max<std::size_t>(runs, 1);
}

int thisProcess() {
#ifdef COREFIT_MPI
    int rank = 0;
    if (ftlmProcesses() > 1) MPI_Comm_rank(MPI_COMM_WORLD, &rank);
    return rank;
#else
    return 0;
#endif
}

// The levels one task gives: the exact ones of a block, or those of one random vector.
struct Part {
    std::vector<double> energy, weight;
    std::vector<int> sample;
};

// What the sketches of all blocks say of the whole spectrum at the first J values, at 64
// temperatures from the lowest of the data to the highest, evenly in ln T: Z(T) e^(E0/T) and
// the sum of M^2 e^(-(E - E0)/T), with E0 the lowest Ritz value of all.
struct Sketched {
    double e0 = std::numeric_limits<double>::infinity();
    std::vector<double> t, z, m2;
};

// Under MPI: every process sends the parts it worked on (own(p)) to all the others, so that
// each has them all, the same as one process alone would.
void shareParts(std::vector<Part>& parts, const std::function<bool(std::size_t)>& own) {
#ifdef COREFIT_MPI
    const int size = ftlmProcesses();
    if (size <= 1) return;
    // Each part as its number, its length, then energies, weights and random vectors.
    std::vector<double> buffer;
    for (std::size_t p = 0; p < parts.size(); ++p) {
        if (!own(p)) continue;
        const Part& part = parts[p];
        buffer.push_back(static_cast<double>(p));
        buffer.push_back(static_cast<double>(part.energy.size()));
        buffer.insert(buffer.end(), part.energy.begin(), part.energy.end());
        buffer.insert(buffer.end(), part.weight.begin(), part.weight.end());
        buffer.insert(buffer.end(), part.sample.begin(), part.sample.end());
    }
    const int length = static_cast<int>(buffer.size());
    std::vector<int> lengths(static_cast<std::size_t>(size)),
        offsets(static_cast<std::size_t>(size), 0);
    MPI_Allgather(&length, 1, MPI_INT, lengths.data(), 1, MPI_INT, MPI_COMM_WORLD);
    for (std::size_t r = 1; r < lengths.size(); ++r) offsets[r] = offsets[r - 1] + lengths[r - 1];
    std::vector<double> all(static_cast<std::size_t>(offsets.back() + lengths.back()));
    MPI_Allgatherv(buffer.data(), length, MPI_DOUBLE, all.data(), lengths.data(), offsets.data(),
                   MPI_DOUBLE, MPI_COMM_WORLD);
    for (std::size_t at = 0; at < all.size();) {
        Part& part = parts[static_cast<std::size_t>(all[at])];
        const auto n = static_cast<std::ptrdiff_t>(all[at + 1]);
        const auto from = all.begin() + static_cast<std::ptrdiff_t>(at) + 2;
        part.energy.assign(from, from + n);
        part.weight.assign(from + n, from + 2 * n);
        part.sample.assign(from + 2 * n, from + 3 * n);
        at += 2 + 3 * static_cast<std::size_t>(n);
    }
#else
    (void)parts;
    (void)own;
#endif
}

// Under MPI: the largest of every entry over the processes.
void shareLongest(std::vector<int>& values) {
#ifdef COREFIT_MPI
    if (ftlmProcesses() <= 1) return;
    MPI_Allreduce(MPI_IN_PLACE, values.data(), static_cast<int>(values.size()), MPI_INT, MPI_MAX,
                  MPI_COMM_WORLD);
#else
    (void)values;
#endif
}

// What the random vectors of a block need of its exact part at the current J values.
template <class S> struct Exact {
    Matrix<S> vectors;              // the exact levels' eigenvectors
    Eigen::VectorXd values, shares; // their energies, and how much of each counts exactly
    Matrix<S> whole;                // a rest small enough: the block's eigenvectors (compact)
    Eigen::VectorXd wholeValues;
    void clear() { *this = Exact(); }
};

} // namespace

struct FtlmSpectrum::Sketch {
    Sketched all;
    bool stepsKept = false; // the blocks' steps are decided
};

struct FtlmSpectrum::Sector {
    int twiceM = 0;
    SectorRows rows;
};

struct FtlmSpectrum::Block {
    std::size_t sector = 0;
    int twiceM = 0, k = 0;
    double weight = 1; // 2 for M > 0 (the block of -M repeats it), twice that for k and m - k
    Index n = 0;
    int exactCount = -1; // levels found exactly, decided at the first J values (-1: not yet)
    double limit = std::numeric_limits<double>::infinity(); // of the levels found exactly
    int steps = 0; // of its random vectors' Lanczos runs, decided at the first J values (0: all)
    bool whole = false;  // diagonalised whole
    double cost = 0;     // estimated seconds
    int process = 0;     // of an MPI run, the one that works on it
    std::unique_ptr<BlockOperator<double>> real;
    std::unique_ptr<BlockOperator<Complex>> complex;
    Exact<double> exactReal;
    Exact<Complex> exactComplex;
    template <class S> Exact<S>& exact() {
        if constexpr (std::is_same_v<S, double>)
            return exactReal;
        else
            return exactComplex;
    }
};

namespace {

// Off-diagonal elements per state: a path flips a pair when one can go up and the other down,
// some 2 (2s/(2s+1))^2 times per path on average.
double elementsPerState(const SpinSystem& system) {
    double perState = 1;
    for (const Bond& bond : system.bonds) {
        const double a = system.twiceSpin[static_cast<std::size_t>(bond.a)],
                     b = system.twiceSpin[static_cast<std::size_t>(bond.b)];
        perState += 2 * (a / (a + 1)) * (b / (b + 1));
    }
    return perState;
}

// The exact part of a block: the whole block when small, otherwise its lowest levels (as many
// as decided at the first J values), and its eigenvectors when the rest is small enough for
// the random vectors' Lanczos runs to use up.
template <class S>
void exactPart(FtlmSpectrum::Block& block, const BlockOperator<S>& h, const FtlmSettings& settings,
               const StopFlag* stop, Part& part) {
    Exact<S>& exact = block.exact<S>();
    exact.clear();
    const Index n = h.dimension;
    Eigen::VectorXd values;
    if (block.whole) {
        Matrix<S> matrix = h.dense();
        hermitianEigen(matrix, values, false);
    } else {
        Lowest<S> lowest = block.exactCount < 0 ? lowestAtAGap(h, settings.exactLevels, block.limit,
                                                               settings.seed, block.twiceM, stop)
                                                : lowestLevels(h, block.exactCount, settings.seed,
                                                               block.twiceM, stop);
        block.exactCount = static_cast<int>(lowest.values.size());
        exact.values = Eigen::Map<Eigen::VectorXd>(lowest.values.data(), block.exactCount);
        exact.vectors = std::move(lowest.vectors);
        exact.shares = exact.values.unaryExpr([&](double e) {
            return exactShare(e, exact.values[0], lowest.next, sameLevel * lowest.scale);
        });
        values = exact.values;
        // A rest of the block that the Lanczos runs of the random vectors would use up: their
        // sums over its levels come from its eigenvectors instead. (Past the end of a Krylov
        // space a run goes on from rounding errors, and its levels jump with them.)
        if (n - block.exactCount <= 2 * static_cast<Index>(settings.steps)) {
            exact.whole = h.dense();
            hermitianEigen(exact.whole, exact.wholeValues, true);
        }
    }
    part.energy.assign(values.data(), values.data() + values.size());
    part.weight.assign(part.energy.size(), block.weight);
    part.sample.assign(part.energy.size(), -1);
    for (Index i = 0; i < exact.shares.size(); ++i)
        part.weight[static_cast<std::size_t>(i)] *= exact.shares[i];
}

// The Ritz values of a Lanczos run (the eigenvalues of its tridiagonal matrix: diagonal alpha,
// off-diagonal beta) and the first component of each eigenvector, by LAPACK's implicit QL/QR
// (dstev). (Eigen's tridiagonal QR failed to converge on some of these matrices, whose ghost
// copies of converged levels make near-equal eigenvalues, and left them unsorted and wrong.)
void ritzPairs(std::vector<double> alpha, std::vector<double> beta, std::vector<double>& values,
               std::vector<double>& first) {
    const int n = static_cast<int>(alpha.size());
    values.clear();
    first.clear();
    if (n == 0) return;
    std::vector<double> z(static_cast<std::size_t>(n) * static_cast<std::size_t>(n)),
        work(static_cast<std::size_t>(std::max(1, 2 * n - 2)));
    beta.resize(static_cast<std::size_t>(n)); // dstev's workspace holds n
    const char jobz = 'V';
    int info = 0;
    dstev_(&jobz, &n, alpha.data(), beta.data(), z.data(), &n, work.data(), &info);
    if (info != 0)
        throw std::runtime_error("LAPACK dstev failed with info " + std::to_string(info) +
                                 " on a Lanczos run of FTLM");
    values = std::move(alpha);
    for (std::size_t k = 0; k < values.size(); ++k) first.push_back(z[k * values.size()]);
}

// At the first J values, a random vector's Lanczos run ends as soon as more steps would change
// its sums little: every checkEvery steps from fewestSteps on, its Ritz pairs' sums of
// e^(-(E - E0)/T) (and of M^2 times that) at the sketch's temperatures are compared with those
// checkEvery steps before, and the run ends when no sum moved by more than stepsShare of the
// whole spectrum's. (Once a run's Ritz values resolve e^(-E/T) over its spectrum, its Gauss
// quadrature converges faster than exponentially; the ends of the blocks' runs are kept for the
// whole fit, so that the estimate stays a smooth function of J.)
constexpr int fewestSteps = 20, checkEvery = 10;
constexpr double stepsShare = 1e-9;
class Converging {
public:
    Converging(const Sketched* all, int twiceM, std::size_t columns) : all_(all) {
        if (!all_) return;
        const double moment = twiceM * twiceM / 4.0;
        for (std::size_t i = 0; i < all_->t.size(); ++i)
            allowed_.push_back(stepsShare * (moment > 0 ? std::min(all_->z[i], all_->m2[i] / moment)
                                                        : all_->z[i]));
        last_.assign(columns, {});
    }
    // Whether the run of column c, its weight share and its steps so far (alpha, beta), has
    // converged.
    bool done(std::size_t c, double share, const std::vector<double>& alpha,
              const std::vector<double>& beta) {
        const auto m = static_cast<int>(alpha.size());
        if (!all_ || m < fewestSteps || m % checkEvery != 0) return false;
        std::vector<double> values, first;
        ritzPairs(alpha, {beta.begin(), beta.begin() + (m - 1)}, values, first);
        std::vector<double> sums(all_->t.size(), 0.0);
        for (std::size_t i = 0; i < sums.size(); ++i)
            for (std::size_t k = 0; k < values.size(); ++k)
                sums[i] +=
                    share * first[k] * first[k] * std::exp(-(values[k] - all_->e0) / all_->t[i]);
        bool moved = last_[c].empty();
        for (std::size_t i = 0; i < sums.size() && !moved; ++i)
            moved = !(std::abs(sums[i] - last_[c][i]) <= allowed_[i]);
        last_[c] = std::move(sums);
        return !moved;
    }

private:
    const Sketched* all_;
    std::vector<double> allowed_;
    std::vector<std::vector<double>> last_;
};

// The levels of the random vectors `samples` of a block, one part each: the part of the exact
// levels they do not count themselves, and the Ritz pairs of Lanczos runs from them orthogonal to
// those. The runs go side by side, one product of H for all of them at each step; each run is
// the same as it would be alone.
template <class S>
void randomParts(const FtlmSpectrum::Block& block, const BlockOperator<S>& h, const Exact<S>& exact,
                 const std::vector<int>& samples, int vectors, const FtlmSettings& settings,
                 const std::vector<Part*>& parts, const Sketched* converge = nullptr,
                 int* used = nullptr) {
    const Index n = h.dimension, length = h.length();
    const auto width = static_cast<Index>(samples.size());
    const auto columns = static_cast<std::size_t>(width);
    // With E[r r^H] = 1, r^H A r estimates the trace of A: the part of the exact levels that
    // they do not count themselves, and the rest of the trace from r orthogonal to them.
    Rows<S> v(length, width), w(length, width);
    for (Index c = 0; c < width; ++c)
        v.col(c) =
            randomVector(h, settings.seed, block.twiceM, samples[static_cast<std::size_t>(c)]);
    const Matrix<S> onExact = exact.vectors.adjoint() * v;
    for (std::size_t c = 0; c < columns; ++c)
        for (Index i = 0; i < onExact.rows(); ++i) {
            parts[c]->energy.push_back(exact.values[i]);
            parts[c]->weight.push_back(block.weight * (1 - exact.shares[i]) *
                                       std::norm(onExact(i, static_cast<Index>(c))) / vectors);
            parts[c]->sample.push_back(samples[c]);
        }
    projectOut(exact.vectors, v);
    std::vector<double> share(columns);
    for (std::size_t c = 0; c < columns; ++c) {
        const auto column = static_cast<Index>(c);
        share[c] = block.weight * v.col(column).squaredNorm() / vectors;
        v.col(column).normalize();
    }
    if (exact.wholeValues.size() > 0) {
        for (std::size_t c = 0; c < columns; ++c) {
            const Vector<S> overlap =
                exact.whole.adjoint() * h.compact(v.col(static_cast<Index>(c)));
            for (Index k = 0; k < overlap.size(); ++k) {
                parts[c]->energy.push_back(exact.wholeValues[k]);
                parts[c]->weight.push_back(share[c] * std::norm(overlap[k]));
                parts[c]->sample.push_back(samples[c]);
            }
        }
        return;
    }
    const int most = block.steps > 0 ? std::min(block.steps, settings.steps) : settings.steps;
    const int steps = static_cast<int>(std::min<Index>(most, n - exact.vectors.cols()));
    Rows<S> previous = Rows<S>::Zero(length, width);
    std::vector<std::vector<double>> alpha(columns), beta(columns);
    std::vector<double> norm(columns, 0.0), scale(columns, 0.0), dot(columns), square(columns);
    std::vector<char> active(columns, 1);
    Converging converging(converge, block.twiceM, columns);
    for (int m = 0; m < steps; ++m) {
        h.apply(v, w);
        // alpha = v^H w, then w -= alpha v + beta previous, column by column in one pass each.
        lanczosDots(v.data(), w.data(), length, width, dot.data());
        for (std::size_t c = 0; c < columns; ++c)
            if (active[c]) alpha[c].push_back(dot[c]);
        lanczosUpdate(v.data(), previous.data(), length, width, dot.data(), norm.data(), w.data());
        if ((m + 1) % keepApart == 0) {
            projectOut(exact.vectors, w, 1);
            projectOut(exact.vectors, v, 1);
        }
        lanczosSquares(w.data(), length, width, square.data());
        bool any = false;
        for (std::size_t c = 0; c < columns; ++c) {
            norm[c] = std::sqrt(square[c]);
            if (!active[c]) continue;
            scale[c] = std::max({scale[c], std::abs(alpha[c].back()), norm[c]});
            if (m + 1 == steps || norm[c] < 1e-12 * scale[c] ||
                converging.done(c, share[c], alpha[c], beta[c]))
                active[c] = 0; // this run ends: its columns are zero from now on
            else
                beta[c].push_back(norm[c]);
            any = any || active[c];
        }
        if (!any) break;
        previous.swap(v);
        for (std::size_t c = 0; c < columns; ++c) {
            square[c] = active[c] ? 1 / norm[c] : 0.0;
            if (!active[c]) norm[c] = 0;
        }
        // v = w / beta, and a run that ended keeps zeros.
        lanczosNext(w.data(), square.data(), length, width, v.data(), previous.data());
    }
    for (std::size_t c = 0; c < columns; ++c) {
        if (used) *used = std::max(*used, static_cast<int>(alpha[c].size()));
        std::vector<double> values, first;
        ritzPairs(alpha[c], beta[c], values, first);
        for (std::size_t k = 0; k < values.size(); ++k) {
            parts[c]->energy.push_back(values[k]);
            parts[c]->weight.push_back(share[c] * first[k] * first[k]);
            parts[c]->sample.push_back(samples[c]);
        }
    }
}

// The sketch of a block's spectrum that decides which of its levels are found exactly: the Ritz
// pairs of a short Lanczos run from its first random vector, weighted as an estimate of the
// block's trace (as one random vector alone would weigh them).
constexpr int sketchSteps = 40;
template <class S>
void sketch(const FtlmSpectrum::Block& block, const BlockOperator<S>& h,
            const FtlmSettings& settings, Part& part) {
    Exact<S> none;
    none.vectors.resize(h.length(), 0);
    FtlmSettings brief = settings;
    brief.steps = std::min(settings.steps, sketchSteps);
    randomParts(block, h, none, {0}, 1, brief, {&part});
}

// A level counts where at some temperature of the data it holds more than this share of Z, or
// of the sum of M^2 e^(-E/T) (chi T follows their ratio).
constexpr double countingShare = 1e-3;

// The whole spectrum from the sketches of all blocks (M of block b: twiceM[b] / 2).
Sketched sketched(const std::vector<Part>& sketches, const std::vector<int>& twiceM, double lowest,
                  double highest) {
    Sketched all;
    for (const Part& part : sketches)
        for (double e : part.energy) all.e0 = std::min(all.e0, e);
    constexpr int count = 64;
    highest = std::max(highest, lowest);
    all.z.assign(count, 0.0);
    all.m2.assign(count, 0.0);
    for (int i = 0; i < count; ++i)
        all.t.push_back(lowest * std::pow(highest / lowest, i / (count - 1.0)));
    for (std::size_t b = 0; b < sketches.size(); ++b) {
        const double moment = twiceM[b] * twiceM[b] / 4.0;
        const Part& part = sketches[b];
        for (std::size_t l = 0; l < part.energy.size(); ++l)
            for (std::size_t i = 0; i < all.t.size(); ++i) {
                const double f = part.weight[l] * std::exp(-(part.energy[l] - all.e0) / all.t[i]);
                all.z[i] += f;
                all.m2[i] += f * moment;
            }
    }
    return all;
}

// The energy up to which the levels of a block of M = twiceM / 2 count: E0 + the largest
// T (ln(1/share) - ln z(T)) over the temperatures, with z(T) = Z(T) e^(E0/T), and for M != 0
// the same with M^2 / the sum of M^2 e^(-(E - E0)/T).
double countingLimit(const Sketched& all, int twiceM) {
    const double share = std::log(1 / countingShare), moment = twiceM * twiceM / 4.0;
    double limit = -std::numeric_limits<double>::infinity();
    for (std::size_t i = 0; i < all.t.size(); ++i) {
        if (all.z[i] > 0) limit = std::max(limit, all.t[i] * (share - std::log(all.z[i])));
        if (moment > 0 && all.m2[i] > 0)
            limit = std::max(limit, all.t[i] * (share + std::log(moment / all.m2[i])));
    }
    return all.e0 + limit;
}

// The orbits of a sector and the rows of H on them.
void buildSector(const SpinSystem& system, const Cyclic& cyclic, const Coder& coder,
                 const std::vector<int>& jSlot, Index slots, int twiceM, SectorRows& h,
                 const StopFlag* stop) {
    int total = 0;
    for (int s : system.twiceSpin) total += s;
    const auto m = static_cast<std::size_t>(cyclic.order);
    std::vector<long> reps;
    {
        const std::vector<long> states = sectorStates(system.twiceSpin, (twiceM + total) / 2);
        std::vector<int> digit;
        for (std::size_t i = 0; i < states.size(); ++i) {
            if (i % 65536 == 0) throwIfStopped(stop);
            const long s = states[i];
            std::size_t period = m;
            bool smallest = true;
            if (m > 1) {
                coder.digits(s, digit);
                for (std::size_t j = 1; j < m; ++j) {
                    const long image = coder.image(digit, j);
                    if (image < s) {
                        smallest = false;
                        break;
                    }
                    if (image == s) {
                        period = j;
                        break;
                    }
                }
            }
            if (!smallest) continue;
            reps.push_back(s);
            h.period.push_back(static_cast<std::uint16_t>(period));
        }
    }
    const auto n = static_cast<Index>(reps.size());
    h.diagonal = Eigen::MatrixXd::Zero(n, slots);
    h.rowStart.assign(1, 0);
    std::vector<int> digit, target;
    for (Index row = 0; row < n; ++row) {
        if (row % 4096 == 0) throwIfStopped(stop);
        const long code = reps[static_cast<std::size_t>(row)];
        coder.digits(code, digit);
        const double pa = h.period[static_cast<std::size_t>(row)];
        for (const Bond& bond : system.bonds) {
            const auto a = static_cast<std::size_t>(bond.a), b = static_cast<std::size_t>(bond.b);
            const int slot = jSlot[static_cast<std::size_t>(bond.j)];
            const int ta = system.twiceSpin[a], tb = system.twiceSpin[b];
            const int da = digit[a], db = digit[b];
            const double sa = ta / 2.0, sb = tb / 2.0, ma = da - sa, mb = db - sb;
            h.diagonal(row, slot) += -2 * ma * mb;
            // -2 (1/2) (S+_a S-_b + S-_a S+_b)
            for (int up : {1, -1}) {
                if ((up > 0 && (da == ta || db == 0)) || (up < 0 && (da == 0 || db == tb)))
                    continue;
                target = digit;
                target[a] += up;
                target[b] -= up;
                // Its orbit's representative r = g^j s, so s = g^l r with l = m - j.
                long smallest = coder.image(target, 0);
                std::size_t at = 0;
                for (std::size_t j = 1; j < m; ++j) {
                    const long image = coder.image(target, j);
                    if (image < smallest) smallest = image, at = j;
                }
                const auto column =
                    std::lower_bound(reps.begin(), reps.end(), smallest) - reps.begin();
                const double pb = h.period[static_cast<std::size_t>(column)];
                const double element = -std::sqrt((sa * (sa + 1) - ma * (ma + up)) *
                                                  (sb * (sb + 1) - mb * (mb - up)) * pa / pb);
                h.column.push_back(static_cast<int>(column));
                h.shift.push_back(static_cast<std::uint16_t>((m - at) % m));
                h.slot.push_back(static_cast<unsigned char>(slot));
                h.element.push_back(element);
            }
        }
        h.rowStart.push_back(static_cast<long>(h.column.size()));
    }
}

} // namespace

double ftlmSearchShare(const FtlmSettings& settings) {
    // Measured on the rings of 18 and 20 x S=1/2 (some 0.1) and 8 to 10 x S=5/2 (some 0.5) from
    // 2 to 300 K: a share between the two.
    return settings.lowestTemperature > 0 ? 0.25 : 1.0;
}

FtlmBlockCost ftlmBlockCost(double n, double nonzeros, bool complex, const FtlmSettings& settings) {
    // Seconds on one core (AMD EPYC, 2026), from the parts of a spectrum measured apart: the
    // sparse product per element, a pass over a vector per entry, dsyevd per n^3 (zheevd four
    // times as much; a complex product three times a real one), the search for the lowest levels
    // per level (products and its reorthogonalisation against a basis of some 30 vectors on
    // average), and the tridiagonal eigenproblem of a Lanczos run (with its eigenvectors).
    // Vectors far beyond the caches (the blocks of 1e5 states and more) make the product and
    // the passes bound by memory: on the 10 x S=5/2 ring (blocks of up to 439548 complex states)
    // they took some 1.5 times what the rate measured on smaller blocks gives.
    const double factor = (complex ? 3 : 1) * (1 + 0.6 * n / (n + 1e5));
    const double product = factor * (nonzeros * 0.9e-9 + n * 3e-9);
    const double levels = std::min<double>(settings.exactLevels, n) + 2;
    const double search = ftlmSearchShare(settings) * levels * 70 * (product + factor * n * 3e-9);
    // Where the temperatures of the data are known, the runs end where they converge: on rings
    // of 18 and 20 x S=1/2 and 8 to 10 x S=5/2 from 2 to 300 K after 30 to 40 of 100 steps.
    const double steps = std::min<double>(
        n, settings.lowestTemperature > 0
               ? std::max(0.35 * settings.steps, std::min<double>(settings.steps, 20))
               : settings.steps);
    // The random vectors run side by side (several per pass over the rows): half the cost of
    // one at a time.
    const double lanczos =
        search + settings.vectors * (0.5 * steps * product + 3e-9 * steps * steps * steps);
    const double dense = (complex ? 4 : 1) * 7.5e-11 * n * n * n;
    FtlmBlockCost cost;
    cost.whole = n <= static_cast<double>(settings.denseLimit) && dense <= lanczos;
    cost.seconds = cost.whole ? dense + 1e-9 * n * n : lanczos;
    return cost;
}

FtlmSizes ftlmSizes(const SpinSystem& system, bool symmetry) {
    FtlmSizes sizes;
    const Cyclic cyclic = cyclicSymmetry(system, symmetry);
    const int m = cyclic.order;
    sizes.order = m;
    sizes.symmetry = cyclic.name;
    int total = 0;
    for (int s : system.twiceSpin) total += s;
    // States fixed by g^d, for every divisor d of m (g^j fixes those g^gcd(j, m) fixes).
    std::vector<std::vector<Count>> fixed(static_cast<std::size_t>(m) + 1);
    for (int d = 1; d <= m; ++d)
        if (m % d == 0)
            fixed[static_cast<std::size_t>(d)] =
                fixedCounts(system.twiceSpin, cyclic.power[static_cast<std::size_t>(d % m)]);
    auto mobius = [](int x) {
        int result = 1;
        for (int p = 2; p * p <= x; ++p)
            if (x % p == 0) {
                x /= p;
                if (x % p == 0) return 0;
                result = -result;
            }
        return x > 1 ? -result : result;
    };
    const double perState = elementsPerState(system);
    for (int twiceM = total % 2; twiceM <= total; twiceM += 2) {
        const auto i = static_cast<std::size_t>((twiceM + total) / 2);
        // Orbits of length p: the states of period exactly p (Moebius inversion of the states
        // fixed by g^p's divisors), p per orbit.
        std::vector<Count> orbits(static_cast<std::size_t>(m) + 1, 0);
        Count all = 0;
        for (int p = 1; p <= m; ++p) {
            if (m % p != 0) continue;
            Signed exact = 0;
            for (int d = 1; d <= p; ++d)
                if (p % d == 0) {
                    const std::vector<Count>& f = fixed[static_cast<std::size_t>(d)];
                    exact += mobius(p / d) * static_cast<Signed>(i < f.size() ? f[i] : 0);
                }
            orbits[static_cast<std::size_t>(p)] = static_cast<Count>(exact) / static_cast<Count>(p);
            all += orbits[static_cast<std::size_t>(p)];
        }
        sizes.sectors.push_back(static_cast<double>(all));
        for (int k = 0; 2 * k <= m; ++k) {
            Count n = 0;
            for (int p = 1; p <= m; ++p)
                if (m % p == 0 && (static_cast<long>(k) * p) % m == 0)
                    n += orbits[static_cast<std::size_t>(p)];
            if (n == 0) continue;
            sizes.blocks.push_back(static_cast<double>(n));
            sizes.nonzeros.push_back(static_cast<double>(n) * perState);
            sizes.complex.push_back((2 * k) % m != 0);
        }
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
    const Cyclic cyclic = cyclicSymmetry(system, settings.symmetry);
    const Coder coder(system.twiceSpin, cyclic);
    for (int twiceM = total % 2; twiceM <= total; twiceM += 2) {
        sectors_.push_back(std::make_unique<Sector>());
        sectors_.back()->twiceM = twiceM;
    }
    const auto slots = static_cast<Index>(std::max<std::size_t>(usedJ_.size(), 1));
    parallelFor(static_cast<long>(sectors_.size()), threads_, stop_, [&](long index) {
        Sector& sector = *sectors_[static_cast<std::size_t>(index)];
        buildSector(system, cyclic, coder, jSlot, slots, sector.twiceM, sector.rows, stop_);
    });
    const int m = cyclic.order;
    const double perState = elementsPerState(system);
    for (std::size_t s = 0; s < sectors_.size(); ++s) {
        const Sector& sector = *sectors_[s];
        for (int k = 0; 2 * k <= m; ++k) {
            auto block = std::make_unique<Block>();
            block->sector = s;
            block->twiceM = sector.twiceM;
            block->k = k;
            block->weight = (sector.twiceM > 0 ? 2 : 1) * ((2 * k) % m == 0 ? 1 : 2);
            if ((2 * k) % m == 0) {
                block->real = std::make_unique<BlockOperator<double>>(sector.rows, k, m);
                block->n = block->real->dimension;
            } else {
                block->complex = std::make_unique<BlockOperator<Complex>>(sector.rows, k, m);
                block->n = block->complex->dimension;
            }
            const FtlmBlockCost cost = ftlmBlockCost(static_cast<double>(block->n),
                                                     static_cast<double>(block->n) * perState,
                                                     block->complex != nullptr, settings);
            block->whole = cost.whole;
            block->cost = cost.seconds;
            if (block->n > 0) blocks_.push_back(std::move(block));
        }
    }
    // Under MPI every process works on its own blocks with all their random vectors, the most
    // costly first to the process with the least so far; the same for any seed and J values.
    std::vector<Block*> byCost;
    for (auto& block : blocks_) byCost.push_back(block.get());
    std::stable_sort(byCost.begin(), byCost.end(),
                     [](const Block* x, const Block* y) { return x->cost > y->cost; });
    std::vector<double> load(static_cast<std::size_t>(ftlmProcesses()), 0.0);
    for (Block* block : byCost) {
        const auto least = std::min_element(load.begin(), load.end()) - load.begin();
        block->process = static_cast<int>(least);
        load[static_cast<std::size_t>(least)] += block->cost;
    }
}

FtlmSpectrum::~FtlmSpectrum() = default;

void FtlmSpectrum::decideExactLevels(const std::vector<std::size_t>& mine) {
    std::vector<Part> sketches(blocks_.size());
    parallelFor(static_cast<long>(mine.size()), threads_, stop_, [&](long index) {
        const std::size_t b = mine[static_cast<std::size_t>(index)];
        const Block& block = *blocks_[b];
        if (block.real)
            sketch(block, *block.real, settings_, sketches[b]);
        else
            sketch(block, *block.complex, settings_, sketches[b]);
    });
    const int self = thisProcess();
    shareParts(sketches, [&](std::size_t b) { return blocks_[b]->process == self; });
    std::vector<int> twiceM;
    for (const auto& block : blocks_) twiceM.push_back(block->twiceM);
    sketch_ = std::make_unique<Sketch>();
    sketch_->all =
        sketched(sketches, twiceM, settings_.lowestTemperature, settings_.highestTemperature);
    for (std::size_t b = 0; b < blocks_.size(); ++b) {
        Block& block = *blocks_[b];
        if (block.whole || block.exactCount >= 0) continue;
        block.limit = countingLimit(sketch_->all, block.twiceM);
        const std::vector<double>& e = sketches[b].energy;
        // The sketch's lowest Ritz value lies above the block's lowest level, by little.
        if (!e.empty() && *std::min_element(e.begin(), e.end()) > block.limit) block.exactCount = 0;
    }
}

std::string FtlmSpectrum::summary() const {
    if (!sketch_) return {};
    int exactBlocks = 0, exactLevels = 0, runBlocks = 0, fewest = 0, most = 0;
    for (const auto& block : blocks_) {
        if (block->whole) continue;
        if (block->exactCount > 0) ++exactBlocks, exactLevels += block->exactCount;
        if (block->steps <= 0) continue;
        fewest = runBlocks++ == 0 ? block->steps : std::min(fewest, block->steps);
        most = std::max(most, block->steps);
    }
    char steps[40];
    if (fewest == most)
        std::snprintf(steps, sizeof steps, "%d", most);
    else
        std::snprintf(steps, sizeof steps, "%d to %d", fewest, most);
    char text[300];
    std::snprintf(text, sizeof text,
                  "FTLM at the temperatures of the data (%.4g to %.4g K): exact levels in %d of "
                  "%zu blocks (%d levels); the random vectors' Lanczos runs converged after %s "
                  "steps, kept for the whole fit",
                  settings_.lowestTemperature, settings_.highestTemperature, exactBlocks,
                  blocks_.size(), exactLevels, runBlocks > 0 ? steps : "no");
    return text;
}

void FtlmSpectrum::levels(const std::vector<double>& jKelvin, Levels& out) {
    std::vector<double> j(std::max<std::size_t>(usedJ_.size(), 1), 0.0);
    for (std::size_t slot = 0; slot < usedJ_.size(); ++slot)
        j[slot] = jKelvin[static_cast<std::size_t>(usedJ_[slot])];
    const int vectors = std::max(1, settings_.vectors);
    const std::size_t count = blocks_.size();
    parallelFor(static_cast<long>(sectors_.size()), threads_, stop_,
                [&](long s) { sectors_[static_cast<std::size_t>(s)]->rows.setJ(j); });
    // First the exact levels of every block (the whole of a small block), then the random
    // vectors of the large blocks, one task each; largest blocks first.
    std::vector<std::size_t> order(count);
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t x, std::size_t y) { return blocks_[x]->n > blocks_[y]->n; });
    std::vector<Part> exactParts(count);
    const int self = thisProcess();
    std::vector<std::size_t> mine;
    for (std::size_t b : order)
        if (blocks_[b]->process == self) mine.push_back(b);
    if (settings_.lowestTemperature > 0 &&
        std::any_of(blocks_.begin(), blocks_.end(),
                    [](const auto& block) { return block->exactCount < 0 && !block->whole; }))
        decideExactLevels(mine);
    parallelFor(static_cast<long>(mine.size()), threads_, stop_, [&](long index) {
        const std::size_t b = mine[static_cast<std::size_t>(index)];
        Block& block = *blocks_[b];
        if (block.real)
            exactPart(block, *block.real, settings_, stop_, exactParts[b]);
        else
            exactPart(block, *block.complex, settings_, stop_, exactParts[b]);
    });
    std::vector<std::pair<std::size_t, int>> tasks;
    for (std::size_t b : order)
        if (!blocks_[b]->whole)
            for (int r = 0; r < vectors; ++r) tasks.emplace_back(b, r);
    std::vector<Part> sampled(tasks.size());
    // The vectors of a block go side by side, runSize of them at a time (a run: tasks[first..]).
    const std::size_t together = runSize(static_cast<std::size_t>(vectors));
    std::vector<std::size_t> runs;
    for (std::size_t t = 0; t < tasks.size(); ++t)
        if (blocks_[tasks[t].first]->process == self &&
            (runs.empty() || tasks[runs.back()].first != tasks[t].first ||
             t - runs.back() == together))
            runs.push_back(t);
    // At the first J values with the data's temperatures, the runs end where they converge, and
    // each block keeps the longest of its runs for later J values.
    std::vector<int> used(runs.size(), 0);
    parallelFor(static_cast<long>(runs.size()), threads_, stop_, [&](long at) {
        const std::size_t first = runs[static_cast<std::size_t>(at)];
        const std::size_t b = tasks[first].first;
        std::vector<int> samples;
        std::vector<Part*> into;
        for (std::size_t t = first;
             t < tasks.size() && tasks[t].first == b && samples.size() < together; ++t) {
            samples.push_back(tasks[t].second);
            into.push_back(&sampled[t]);
        }
        const Block& block = *blocks_[b];
        const Sketched* converge = sketch_ && !sketch_->stepsKept ? &sketch_->all : nullptr;
        int* steps = &used[static_cast<std::size_t>(at)];
        if (block.real)
            randomParts(block, *block.real, block.exactReal, samples, vectors, settings_, into,
                        converge, steps);
        else
            randomParts(block, *block.complex, block.exactComplex, samples, vectors, settings_,
                        into, converge, steps);
    });
    if (sketch_ && !sketch_->stepsKept) {
        std::vector<int> longest(count, 0);
        for (std::size_t at = 0; at < runs.size(); ++at) {
            int& b = longest[tasks[runs[at]].first];
            b = std::max(b, used[at]);
        }
        shareLongest(longest);
        for (std::size_t b = 0; b < count; ++b) blocks_[b]->steps = longest[b];
        sketch_->stepsKept = true;
    }
    // Every level with the M of its block.
    std::vector<Part> parts = std::move(exactParts);
    for (Part& part : sampled) parts.push_back(std::move(part));
    shareParts(parts, [&](std::size_t p) {
        return blocks_[p < count ? p : tasks[p - count].first]->process == self;
    });
    // Every process knows from now on how many levels of every block are exact (the same
    // everywhere, so that all of them take the same paths at later J values).
    for (std::size_t b = 0; b < count; ++b)
        if (!blocks_[b]->whole && blocks_[b]->exactCount < 0)
            blocks_[b]->exactCount = static_cast<int>(parts[b].energy.size());
    std::vector<double> twiceMOf;
    for (const auto& block : blocks_) twiceMOf.push_back(block->twiceM);
    for (std::size_t t = 0; t < tasks.size(); ++t)
        twiceMOf.push_back(blocks_[tasks[t].first]->twiceM);
    out.energy.clear();
    out.weight.clear();
    out.moment.clear();
    out.twice.clear();
    out.multiplets = false;
    out.sample.clear();
    out.samples = tasks.empty() ? 0 : vectors;
    out.slope.assign(static_cast<std::size_t>(system_.jCount), {});
    for (std::size_t b = 0; b < parts.size(); ++b) {
        const double m = twiceMOf[b] / 2.0;
        const Part& part = parts[b];
        for (std::size_t i = 0; i < part.energy.size(); ++i) {
            out.energy.push_back(part.energy[i]);
            out.weight.push_back(part.weight[i]);
            out.moment.push_back(part.weight[i] * m * m);
            out.twice.push_back(static_cast<int>(twiceMOf[b]));
            out.sample.push_back(part.sample[i]);
        }
    }
}

} // namespace corefit
