// Finite-temperature Lanczos (FTLM) for clusters beyond exact diagonalisation.
//
// The Hamiltonian is kept sparse, one sector per total M >= 0 (negative M repeat them), on the
// orbits of the product states under a cyclic symmetry of the cluster (the translations of a
// ring): a sector splits into one block per character k of the cyclic group, whose basis states
// are the orbits' Bloch sums e^(-2 pi i k j/m) g^j |r>. Blocks k and m - k are complex conjugates
// with the same levels, so only k <= m/2 is worked on; k = 0 and k = m/2 are real. Within a block
// of dimension n, the trace of exp(-H/T) is estimated from R random vectors r as
//   Tr e^(-H/T) ~ n/R sum_r sum_j |<r|psi_j^r>|^2 e^(-eps_j^r/T),
// with eps_j^r, psi_j^r the Ritz pairs of K Lanczos steps from r. The hybrid form keeps low
// temperatures accurate: the lowest levels of every block are found exactly first (thick-restart
// Lanczos with full reorthogonalisation, with every degenerate partner), the random vectors are
// taken orthogonal to them, and they count exactly; blocks small enough are diagonalised whole.
//
// A fit needs the estimate to be a smooth function of the J values. So the random vectors (+-1
// entries) come from the seed alone; how many levels of each block are exact is decided once, at
// the first J values (at a gap between levels, never inside a degenerate group), and later
// evaluations find exactly that many; the exact levels hand their weight over to the random
// vectors as they come close to the first level above them, so that a crossing of the two
// changes nothing abruptly; and a rest of a block small enough for the Lanczos runs to use up
// is summed over its eigenvectors instead. Each Ritz pair becomes a level of fractional weight
// tagged with its random vector, so that the spread over the vectors gives the error of the
// estimate.
//
// Which levels are found exactly is decided at the first J values, from the temperatures of the
// data: a short Lanczos run from one random vector of every block sketches the spectrum (Z(T)
// relative to the lowest level, and the sum of M^2 e^(-E/T) that chi follows), and a level
// counts where at some temperature of the data it holds more than a thousandth of either (of the
// second only in blocks of M != 0). A block keeps exact at most exactLevels of the levels that
// count, and none when even its lowest does not: the levels of large M, and those far above the
// lowest in a large cluster, are left to the random vectors, which carry them well there. The
// same sketch also ends the random vectors' Lanczos runs early at the first J values, where more
// steps would change their sums at those temperatures by less than 1e-9 of the whole; each block
// keeps the longest of its runs for later J values.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "guards.h"
#include "problem.h"

namespace corefit {

struct Levels;

struct FtlmSettings {
    int vectors = 20;        // random vectors per block
    int steps = 100;         // Lanczos steps per random vector, at most (see FtlmSpectrum)
    int exactLevels = 8;     // lowest levels of a block found exactly, at most (fewer at a
                             // degenerate group, or where they do not count: see FtlmSpectrum)
    long denseLimit = 2000;  // blocks up to this size are diagonalised whole
    std::uint64_t seed = 1;
    bool symmetry = true; // split the M sectors by a cyclic symmetry of the cluster
    // The temperatures of the data (K; 0: not known). With them, a block's levels are found
    // exactly only where they count at some temperature of the data (see FtlmSpectrum).
    double lowestTemperature = 0, highestTemperature = 0;
};

// The blocks worked on (M >= 0, and with symmetry k <= m/2), their dimensions, the estimated
// nonzero elements of their rows, whether they are complex, and the order m of the cyclic
// symmetry used (1: none).
struct FtlmSizes {
    std::vector<double> blocks, nonzeros;
    std::vector<char> complex;
    std::vector<double> sectors; // the orbits of every M sector (the length of its vectors)
    int order = 1;
    std::string symmetry; // the generator in cycle notation, "none"
};
// The sizes follow from characters (counts of the states each power of the generator fixes),
// before anything is built; exact as doubles up to 2^53.
FtlmSizes ftlmSizes(const SpinSystem& system, bool symmetry = true);

// How much of the search for exact levels a plan counts on: where the temperatures of the data
// are known, only the blocks whose levels count there search (0.1 to 0.5 of the work on rings).
double ftlmSearchShare(const FtlmSettings& settings);

// The processes of an MPI run (1 without MPI): FTLM's blocks are split over them.
int ftlmProcesses();

// The estimated cost of one block on one thread: seconds per spectrum, and whether it is
// diagonalised whole (at most denseLimit states, and cheaper so than by Lanczos). n: its
// dimension; nonzeros: of its rows; complex: a complex block.
struct FtlmBlockCost {
    double seconds = 0;
    bool whole = false;
};
FtlmBlockCost ftlmBlockCost(double n, double nonzeros, bool complex, const FtlmSettings& settings);

class FtlmSpectrum {
public:
    // Builds the sparse blocks. Throws Interrupted when stop is set.
    FtlmSpectrum(const SpinSystem& system, const FtlmSettings& settings, int threads,
                 const StopFlag* stop);
    ~FtlmSpectrum();
    FtlmSpectrum(const FtlmSpectrum&) = delete;
    FtlmSpectrum& operator=(const FtlmSpectrum&) = delete;

    // Levels at the J values jKelvin: energy, weight and moment of every exact level and Ritz
    // pair; out.sample[n] is the random vector of level n, or -1 for an exact one. The first
    // call decides how many levels of each block are exact; later ones keep that.
    void levels(const std::vector<double>& jKelvin, Levels& out);
    // Random vectors per block from now on: the first ones stay the same, more are added after
    // them (or the last ones dropped); the exact levels stay as they are.
    void setVectors(int vectors) { settings_.vectors = vectors; }
    // After the first call with the data's temperatures: what it decided for the whole fit
    // (blocks with exact levels, the steps of the Lanczos runs); empty without temperatures.
    std::string summary() const;

    struct Block;
    struct Sector;
    struct Sketch;

private:
    // At the first J values: which levels of every block are found exactly (see above); mine:
    // the blocks this process works on.
    void decideExactLevels(const std::vector<std::size_t>& mine);

    SpinSystem system_;
    FtlmSettings settings_;
    int threads_;
    const StopFlag* stop_;
    std::vector<int> usedJ_;
    std::vector<std::unique_ptr<Sector>> sectors_;
    std::vector<std::unique_ptr<Block>> blocks_;
    std::unique_ptr<Sketch> sketch_; // the whole spectrum sketched at the first J values
};

} // namespace corefit
