// The energy levels of an isotropic exchange Hamiltonian H = -2 sum J_p S_a.S_b, computed block by
// block in one of three bases:
// - Full: the whole product basis as one dense matrix (a reference for small clusters);
// - MBlocks: product states of equal total M, only M >= 0 (negative M repeat them);
// - SBlocks: a spin-coupled basis |S1 S12 S123 ... S>, one block per total spin S, with matrix
//   elements from irreducible tensor operators (Wigner 6j symbols).
// The Hamiltonian is kept as one matrix per J value, so a new set of J values costs one
// diagonalisation per block; with a single J the spectrum is computed once and scaled.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <Eigen/Dense>

#include "problem.h"

namespace corefit {

enum class Method { Automatic, Full, MBlocks, SBlocks };
const char* methodName(Method method); // "automatic", "full", "M blocks", "S blocks"

struct SpinSystem {
    std::vector<int> twiceSpin; // 2S per site
    std::vector<Bond> bonds;    // sites and J index, 0-based
    int jCount = 0;
};

// Levels at one set of J values (kelvin). Level n stands for weight[n] states of energy
// energy[n]; moment[n] is the sum of M^2 over those states.
struct Levels {
    std::vector<double> energy, weight, moment;
    std::vector<std::vector<double>> slope; // slope[k][n] = dE_n / dJ_k, for the J asked for
};

// Sizes and costs of a method on a system, known before anything is built.
struct Plan {
    Method method = Method::SBlocks;
    double dimension = 0;         // Hilbert space dimension
    std::vector<long> blockSizes; // the blocks that are diagonalised
    long largestBlock = 0;
    bool scaled = false;           // at most one J is used: one spectrum, scaled
    double bytes = 0;              // estimated peak memory of the spectrum
    double secondsPerSpectrum = 0; // estimated diagonalisation time, eigenvalues only
    double secondsPerSlopes = 0;   // estimated time with eigenvectors and J slopes
    std::string describe() const;  // "S blocks: dimension 46656, 31 blocks, largest 609"
};

Plan planSpectrum(const SpinSystem& system, Method method);

class Spectrum {
public:
    // Builds the block matrices (the Hamiltonian per J value) of plan.method. threads: how many
    // blocks are diagonalised at once and how many BLAS threads a large block gets.
    Spectrum(const SpinSystem& system, const Plan& plan, int threads);
    ~Spectrum();
    Spectrum(const Spectrum&) = delete;
    Spectrum& operator=(const Spectrum&) = delete;

    // The levels at J values jKelvin (one per J, kelvin). slopeFor[k] asks for dE/dJ_k
    // (empty: none). The last result is kept, so asking again with the same values is free.
    const Levels& levels(const std::vector<double>& jKelvin, const std::vector<bool>& slopeFor);

    int diagonalisations() const { return diagonalisations_; }
    const Plan& plan() const { return plan_; }

private:
    struct Block;
    void diagonaliseAll(const std::vector<double>& jKelvin, const std::vector<bool>& slopeFor);
    void diagonalise(Block& block, const std::vector<double>& jKelvin,
                     const std::vector<bool>& slopeFor);

    SpinSystem system_;
    Plan plan_;
    int threads_;
    std::vector<std::unique_ptr<Block>> blocks_;
    std::vector<int> usedJ_; // J indices that appear in a bond
    Levels levels_;
    std::vector<double> cachedJ_;
    std::vector<bool> cachedSlopes_;
    bool cached_ = false;
    int diagonalisations_ = 0;
};

// Eigenvalues (ascending) of a symmetric matrix, and eigenvectors in place of it when asked:
// LAPACK dsyevd. Throws std::runtime_error if LAPACK reports a failure.
void symmetricEigen(Eigen::MatrixXd& matrix, Eigen::VectorXd& values, bool vectors);
void setBlasThreads(int threads);

} // namespace corefit
