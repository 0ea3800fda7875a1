// The problem the engine solves: the spin cluster, the parameters and the data, as read from
// input.txt and chi.txt / chit.txt.
#pragma once

#include <array>
#include <string>
#include <vector>

namespace corefit {

enum class EnergyUnit { Cm1 = 0, MeV = 1, Kelvin = 2 };
enum class DataKind { ChiT = 0, Chi = 1 };

// Kelvin per unit of energy, indexed by EnergyUnit.
inline constexpr double kelvinPerCm1 = 1.4387768775;
inline constexpr double kelvinPerMeV = 11.6045181216;
double kelvinPer(EnergyUnit unit);
const char* unitName(EnergyUnit unit); // "cm-1", "meV", "K"

// N_A mu_B^2 / k_B in cm3 K mol-1.
inline constexpr double curieConstant = 0.375148096;
// mu_B / k_B in kelvin per tesla: the Zeeman energy g mu_B B M in kelvin is g M B times this.
inline constexpr double bohrPerBoltzmann = 0.67171381563;
// N_A mu_B in cm3 G mol-1: the molar magnetisation (emu/mol) of one Bohr magneton per formula
// unit (CODATA 2018). Then curieConstant = molarBohr * bohrPerBoltzmann / 1e4 (1 T = 1e4 G), to
// 1e-9, so that chi in a field tends to the zero-field chi as B -> 0. (The rounded 5584.938
// differs from it by 2.5e-7 of its value: chi in a field would miss its limit by as much.)
inline constexpr double molarBohr = 5584.93941;
static_assert(molarBohr * bohrPerBoltzmann / 1e4 - curieConstant < 1e-9 &&
                  curieConstant - molarBohr * bohrPerBoltzmann / 1e4 < 1e-9,
              "the Curie constant, mu_B / k_B and N mu_B must agree");

inline constexpr int maxSites = 20;
// The largest 2S of a site (S = 10). Up to it the 6j symbols and the size estimate are exact.
inline constexpr int maxTwiceSpin = 20;
inline constexpr int maxJValues = 10;
inline constexpr int maxPoints = 1000;
inline constexpr int maxMagnetisationPoints = 1000;
// The largest field of the chi data and of a magnetisation point, in tesla.
inline constexpr double maxField = 100;
inline constexpr double defaultTolerance = 1e-6;

// Parameter order everywhere: g, C, zJ, Xtip, then J1..Jn.
enum FixedParameter { gIndex = 0, cIndex = 1, zjIndex = 2, tipIndex = 3, firstJIndex = 4 };

// "g", "C", "zJ", "Xtip", "J1", "J2", ... by parameter index.
std::string parameterName(int index);

struct Parameter {
    double start = 0;
    double step = 0; // 0 keeps the parameter fixed at its start
    bool free() const { return step != 0; }
};

// One exchange path: sites a and b (0-based) coupled by J value j (0-based).
struct Bond {
    int a = 0, b = 0, j = 0;
};

// The cluster as the spectrum sees it: the spins and the exchange paths.
struct SpinSystem {
    std::vector<int> twiceSpin; // 2S per site
    std::vector<Bond> bonds;    // sites and J index, 0-based
    int jCount = 0;
};

struct Point {
    double temperature = 0; // K
    double observed = 0;    // chi (cm3 mol-1) or chiT (cm3 K mol-1), by the data kind
};

// How the residuals of the chi or chiT set count: as they are, or relative to the observed values.
enum class Weighting { Uniform = 0, Relative = 1 };

// One magnetisation point.
struct MagnetisationPoint {
    double temperature = 0; // K
    double field = 0;       // T
    double observed = 0;    // N muB (Bohr magnetons per formula unit)
};

struct Problem {
    std::string inputPath, dataPath;
    EnergyUnit unit = EnergyUnit::Cm1;
    DataKind kind = DataKind::ChiT;
    std::vector<int> twiceSpin;          // 2S of every site, 1 to maxTwiceSpin
    double tolerance = defaultTolerance; // as given, or the default when it was <= 0
    bool toleranceDefaulted = false;
    std::vector<Parameter> parameters; // g, C, zJ, Xtip, J1..Jn (energies in the file's unit)
    std::vector<Bond> bonds;
    std::vector<Point> points; // none when the data file holds a magnetisation set alone
    int first = 1, last = 1;   // fitted range, 1-based and inclusive, as in the data file (1, 0
                               // without points)
    double field = 0; // T, at which the chi or chiT values were measured; 0: zero-field limit
    Weighting weighting = Weighting::Uniform;
    // The magnetisation set: its points, fitted range (1-based, inclusive), its weight in the
    // joint deviation, and the line of the data file that announces it (its points follow).
    std::vector<MagnetisationPoint> magnetisation;
    int magnetisationFirst = 1, magnetisationLast = 0;
    double magnetisationWeight = 1;
    int magnetisationLine = 0;

    int jCount() const { return static_cast<int>(parameters.size()) - firstJIndex; }
    bool hasMagnetisation() const { return !magnetisation.empty(); }
    // The fitted points of each set, and of both.
    int fittedChi() const { return last - first + 1; }
    int fittedMagnetisation() const { return magnetisationLast - magnetisationFirst + 1; }
    int fittedPoints() const { return fittedChi() + fittedMagnetisation(); }
    int siteCount() const { return static_cast<int>(twiceSpin.size()); }
};

// The root mean square of the observed values over the fitted range: of the chi or chiT points,
// and of the magnetisation points (0 for a set without fitted points).
double observedSize(const Problem& problem);
double observedMagnetisationSize(const Problem& problem);

} // namespace corefit

namespace corefit {

// What the engine writes to output.txt: values in the file's energy unit.
struct Outcome {
    double deviation = 0;              // sum of squared deviations over the fitted range
    std::vector<double> values;        // g, C, zJ, Xtip, J1..Jn
    std::vector<double> uncertainties; // standard uncertainties, 0 for fixed parameters, NaN for
                                       // free ones that could not be estimated ("undetermined")
    // The model at every point, also outside the fitted range: the chi or chiT points, then the
    // magnetisation points (N muB).
    std::vector<double> calculated;
    // The correlations of the free parameters when they were estimated: correlated holds their
    // indices (as in values), correlation the matrix row by row (NaN where undetermined).
    std::vector<int> correlated;
    std::vector<double> correlation;
    // Warnings on the fit, one sentence each, and the other minima the search found nearly as
    // good (equivalent: the same deviation to the fit's precision): written after the
    // correlations as "# warning ...", "# alternative D values..." and "# equivalent D values...".
    std::vector<std::string> warnings;
    struct Minimum {
        double deviation = 0;
        std::vector<double> values; // g, C, zJ, Xtip, J1..Jn
        bool equivalent = false;
    };
    std::vector<Minimum> alternatives;
    std::string note; // written last, as a line beginning with "# " (FTLM's error), or empty
    // With a magnetisation set, each set's part of the deviation (their sum is the deviation).
    double chiDeviation = 0, magnetisationDeviation = 0;
};

} // namespace corefit
