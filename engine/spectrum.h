// The energy levels of an isotropic exchange Hamiltonian H = -2 sum J_p S_a.S_b, computed block by
// block in one of three bases:
// - Full: the whole product basis as one dense matrix (a reference for small clusters);
// - MBlocks: product states of equal total M, only M >= 0 (negative M repeat them);
// - SBlocks: a spin-coupled basis |S1 S12 S123 ... S>, one block per total spin S, with matrix
//   elements from irreducible tensor operators (Wigner 6j symbols).
// The Hamiltonian is kept as one sparse matrix per J value (dense for blocks split by symmetry),
// so a new set of J values costs one dense sum and one diagonalisation per block; with a single J
// the spectrum is computed once and scaled.
// Blocks are built and diagonalised side by side, one block per thread, largest first; LAPACK
// itself runs on one thread. (OpenBLAS's own threads wait for each other at every step of a
// dsyevd: with another program busy on one of two cores, one dsyevd of n = 2000 took 30 times
// longer on two OpenBLAS threads than on one. Whole blocks per thread do not wait.)
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <Eigen/Dense>

#include "ftlm.h"
#include "guards.h"
#include "problem.h"
#include "symmetry.h"

namespace corefit {

enum class Method { Automatic, Full, MBlocks, SBlocks, Ftlm };
const char* methodName(Method method); // "automatic", "full", "M blocks", "S blocks", "FTLM"

// Levels at one set of J values (kelvin). Level n stands for weight[n] states of energy
// energy[n]; moment[n] is the sum of M^2 over those states. In a field B the Zeeman term
// -g mu_B B M commutes with H, and splits a level by the M of its states: with multiplets,
// level n is weight[n] / (2S + 1) multiplets of 2S = twice[n], each spread over M = -S..S (S
// blocks, split or not); otherwise its states have |M| = twice[n] / 2, half of them at M and
// half at -M (M blocks, the full basis, FTLM, whose M >= 0 blocks stand for -M as well).
struct Levels {
    std::vector<double> energy, weight, moment;
    std::vector<int> twice;
    bool multiplets = true;
    std::vector<std::vector<double>> slope; // slope[k][n] = dE_n / dJ_k, for the J asked for
    // FTLM: the random vector level n comes from (-1 for a level found exactly), of `samples`.
    std::vector<int> sample;
    int samples = 0;
};

// The largest block LAPACK's 32-bit sizes take: dsyevd's workspace of 1 + 6n + 2n^2 doubles.
inline constexpr long maxLapackBlock = 32766;

// Sizes and costs of a method on a system, known before anything is built. Every count is exact
// (as a double: exact up to 2^53, and never wrapped) for any system the input allows.
struct Plan {
    Method method = Method::SBlocks;
    int threads = 1;                // blocks diagonalised side by side
    double dimension = 0;           // Hilbert space dimension
    std::vector<double> blockSizes; // the blocks that are diagonalised
    double largestBlock = 0;
    bool scaled = false;           // at most one J is used: one spectrum, scaled
    double bytes = 0;              // estimated peak memory of the spectrum
    double secondsPerSpectrum = 0; // estimated diagonalisation time, eigenvalues only
    double secondsPerSlopes = 0;   // estimated time with eigenvectors and J slopes
    double secondsToBuild = 0;     // estimated time to build the blocks (split S blocks only)
    // S blocks split further by this group's irreducible representations (when of order > 1):
    // a subgroup that keeps a coupling tree, and the whole group, built from product states;
    // wholeFor[2S] says which one the blocks of total spin S are split by (the faster).
    std::shared_ptr<const SplitGroup> group, whole;
    std::vector<char> wholeFor;
    bool treeUsed = false; // some blocks split by the tree's subgroup
    // The whole group's blocks built on product states of single sites, the kernel of S+ from one
    // QR factorisation of each whole (M = S, irrep) space (the earlier way, for comparison);
    // otherwise on the composite units the group permutes (group_units.h), named here.
    bool siteUnits = false;
    std::string wholeUnits; // "9 units of 2 sites"
    FtlmSettings ftlm; // for Method::Ftlm
    // Blocks of the coupled or product basis keep their Hamiltonian per J sparse; with this,
    // as one dense matrix per J (the earlier way, for comparison in the benchmark).
    bool denseTerms = false;
    // Dense blocks within LAPACK's sizes; FTLM's sparse blocks within 32-bit column indices.
    bool buildable() const {
        return largestBlock <= (method == Method::Ftlm ? 2147483647.0 : static_cast<double>(maxLapackBlock));
    }
    bool split() const {
        return (group != nullptr && group->order() > 1) || (whole != nullptr && whole->order() > 1);
    }
    bool splitByWhole(int twiceTotal) const {
        return whole != nullptr && static_cast<std::size_t>(twiceTotal) < wholeFor.size() &&
               wholeFor[static_cast<std::size_t>(twiceTotal)];
    }
    std::string describe() const; // "S blocks: dimension 46656, 31 blocks, largest 609"
};

// The estimated seconds of a run with freeJ free J values: a fit needs a spectrum with slopes at
// each of some 25 iterations (FTLM: one more spectrum per free J instead).
double estimatedSeconds(const Plan& plan, int freeJ);

// The automatic choice by time, where the exact spectrum is within the limits: FTLM only when
// the exact run is estimated at more than a minute and FTLM more than twice as fast (the
// estimates' precision). A shorter exact run is kept, as it has no sampling error.
bool ftlmFasterEnough(double exactSeconds, double ftlmSeconds);

// The J numbers the bonds use, ascending, each once.
std::vector<int> usedJValues(const SpinSystem& system);

// Throws std::invalid_argument for a system outside the input's limits (sites, 2S). With a
// group of order > 1, S blocks (and the automatic method) are split by it; given a subgroup
// that keeps a coupling tree (splitGroup) and the whole group (wholeGroup), the blocks of each
// total spin by the one estimated faster. siteUnits: see Plan.
Plan planSpectrum(const SpinSystem& system, Method method, int threads = 1,
                  std::shared_ptr<const SplitGroup> group = nullptr, const FtlmSettings& ftlm = {},
                  std::shared_ptr<const SplitGroup> whole = nullptr, bool siteUnits = false);

// The threads corefit uses unless told otherwise: one per core.
int defaultThreads();

class Spectrum {
public:
    // Builds the block matrices (the Hamiltonian per J value) of plan.method; threads: how many
    // blocks are built and diagonalised at once. Throws Interrupted when stop is set (checked
    // between blocks and between rows), std::length_error when the plan is not buildable.
    Spectrum(const SpinSystem& system, const Plan& plan, int threads,
             const StopFlag* stop = nullptr);
    ~Spectrum();
    Spectrum(const Spectrum&) = delete;
    Spectrum& operator=(const Spectrum&) = delete;

    // The levels at J values jKelvin (one per J, kelvin). slopeFor[k] asks for dE/dJ_k
    // (empty: none; FTLM has none, see exactSlopes). The last result is kept, so asking again with the same values is free.
    // Throws Interrupted when stop is set (checked between blocks).
    const Levels& levels(const std::vector<double>& jKelvin, const std::vector<bool>& slopeFor);

    // FTLM: random vectors per block from now on (see FtlmSpectrum::setVectors).
    void setFtlmVectors(int vectors);
    // FTLM: what the first spectrum decided for the whole fit (see FtlmSpectrum::summary).
    std::string ftlmSummary() const;

    int diagonalisations() const { return diagonalisations_; }
    bool exactSlopes() const { return plan_.method != Method::Ftlm; }
    // Thread-seconds the constructor spent building block matrices (the rest of it, for a
    // scaled spectrum, diagonalising them).
    double buildSeconds() const { return buildSeconds_; }
    const Plan& plan() const { return plan_; }

private:
    struct Block;
    void diagonaliseAll(const std::vector<double>& jKelvin, const std::vector<bool>& slopeFor);
    void diagonalise(Block& block, const std::vector<double>& jKelvin,
                     const std::vector<bool>& slopeFor);

    SpinSystem system_;
    Plan plan_;
    int threads_;
    const StopFlag* stop_;
    std::vector<std::unique_ptr<Block>> blocks_;
    std::unique_ptr<FtlmSpectrum> ftlm_;
    std::vector<int> usedJ_; // J indices that appear in a bond
    Levels levels_;
    std::vector<double> cachedJ_;
    std::vector<bool> cachedSlopes_;
    bool cached_ = false;
    int diagonalisations_ = 0;
    double buildSeconds_ = 0;
};

// Eigenvalues (ascending) of a symmetric matrix, and eigenvectors in place of it when asked:
// LAPACK dsyevd on the calling thread. Throws std::runtime_error if LAPACK reports a failure,
// std::length_error beyond maxLapackBlock.
void symmetricEigen(Eigen::MatrixXd& matrix, Eigen::VectorXd& values, bool vectors);

// How many threads OpenBLAS would use for one call (the engine keeps it at 1).
int blasThreads();
// Before the first BLAS or LAPACK call of a thread's work: OpenBLAS's own threads stay idle (the
// engine runs its blocks side by side instead).
void keepBlasOnOneThread();

} // namespace corefit
