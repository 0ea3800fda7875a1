// The fit document: the fitting problem that is loaded and every calculation made on it.
//
// There is one process-wide instance, `fitDocument`, alive for the whole process; it is not
// thread-safe. Sites, interactions, pairs, J values and calculations are numbered from 1
// wherever the user sees them; the arrays here are 0-based, so site n is sites[n - 1].
// Only entries 1..count of each array are meaningful; entries beyond a count keep whatever
// they held and are never written to a file.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "fit/limits.h"

namespace corvane {

// What the observed values are. The value is the number written to the engine input file.
enum class DataKind : int { ChiT = 0, Chi = 1 };
inline constexpr int dataKindCount = 2;
inline constexpr std::array<const char*, dataKindCount> dataKindNames = {"chiT", "chi"};

// Unit of the J and zJ values. The value is the number written to the engine input file.
enum class EnergyUnit : int { Cm1 = 0, MeV = 1, Kelvin = 2 };
inline constexpr int energyUnitCount = 3;
inline constexpr std::array<const char*, energyUnitCount> energyUnitNames = {"cm-1", "meV", "K"};

struct SpinSite {
    int spin = 0; // the spin as the file gives it, an integer (2S by convention)
};

struct Interaction {
    int siteA = 0;          // number of the first site (from 1)
    int siteB = 0;          // number of the second site (from 1)
    int parameterIndex = 0; // engine parameter number of its J value: J number + 4
};

struct DataPair {
    double temperature = 0.0; // K
    double observed = 0.0;    // chi (cm3 mol-1) or chiT (cm3 K mol-1), as the DataKind says
};

// One magnetisation point: the magnetisation (Bohr magnetons per formula unit, N muB) measured
// at a temperature and a field.
struct MagnetPoint {
    double temperature = 0.0; // K
    double field = 0.0;       // T
    double observed = 0.0;    // N muB
};

// How the residuals of the chi or chiT set count in the deviation: as they are (the default),
// or relative to the observed values.
enum class Weighting : int { Uniform = 0, Relative = 1 };

struct FitParameter {
    double start = 0.0;  // starting value given to the engine
    double step = 0.0;   // step given to the engine; 0 keeps the parameter fixed
    double fitted = 0.0; // value the engine found
    // Its standard uncertainty: 0 for a fixed parameter, infinite when the data cannot determine
    // it, NaN when it is not known (a report written without it).
    double uncertainty = 0.0;
};

// How the engine's fit of a calculation ended.
enum class FitEnd { Converged, IterationLimit, Interrupted, Plateau };

struct Calculation {
    double tolerance = 0.0; // convergence tolerance given to the engine
    FitParameter g;
    FitParameter c;   // Curie constant of a paramagnetic impurity, cm3 K mol-1
    FitParameter zJ;  // intermolecular mean field, in the document's energy unit
    FitParameter tip; // temperature-independent paramagnetism Xtip, cm3 mol-1
    std::array<FitParameter, maxJValues> j{}; // J1..J10 as j[0]..j[9]
    double deviation = 0.0;                   // fitting squared deviation from the engine
    int firstPair = 1;                        // fitted range, pair numbers from 1
    int lastPair = 1;
    std::array<double, maxPairs> fittedValues{}; // fitted value at pair n as fittedValues[n - 1]
    // Fitted magnetisation at magnetisation point n as fittedMagnet[n - 1] (N muB), and each
    // set's part of the joint deviation (both 0 when the problem has no magnetisation set).
    std::array<double, maxMagnetPoints> fittedMagnet{};
    double chiDeviation = 0.0, magnetDeviation = 0.0;
    // Correlations of the free parameters from the last engine run (none from a report):
    // correlated[0..correlatedCount) are their engine parameter numbers (1 g .. 14 J10), and
    // correlation[a][b] the correlation of the a-th and b-th of them (NaN where undetermined).
    int correlatedCount = 0;
    std::array<int, maxParameters> correlated{};
    std::array<std::array<double, maxParameters>, maxParameters> correlation{};
    // From the last engine run (none from a report): its warnings on the fit, one sentence each,
    // and the other minima its search found nearly as good, each with its squared deviation and
    // all its values by engine parameter number (values[0] g .. values[13] J10); equivalent ones
    // fit exactly as well.
    std::vector<std::string> warnings;
    struct OtherMinimum {
        double deviation = 0.0;
        bool equivalent = false;
        std::array<double, maxParameters> values{};
    };
    std::vector<OtherMinimum> alternatives;
    FitEnd end = FitEnd::Converged; // a report keeps it when the fit did not converge
};

struct FitDocument {
    std::string title; // at most maxTitleLength characters
    DataKind dataKind = DataKind::ChiT;
    EnergyUnit energyUnit = EnergyUnit::Cm1;
    int jCount = 1; // 0..maxJValues, the same for every calculation
    int siteCount = 1;
    std::array<SpinSite, maxSites> sites{};
    int interactionCount = 1;
    std::array<Interaction, maxInteractions> interactions{};
    int pairCount = 1; // the same for every calculation
    std::array<DataPair, maxPairs> pairs{};
    // The field at which the chi or chiT pairs were measured, in tesla (0: the zero-field limit),
    // and how their residuals count.
    double field = 0.0;
    Weighting weighting = Weighting::Uniform;
    // The magnetisation set, the same for every calculation, and its weight in the deviation.
    int magnetCount = 0;
    std::array<MagnetPoint, maxMagnetPoints> magnetPoints{};
    double magnetWeight = 1.0;
    // Calculations held; also the number of the calculation the next engine result goes to.
    int calculationCount = 0;
    // 0-based index of the calculation the parameter dialog shows and edits; -1 when none.
    int currentCalculation = -1;
    std::array<Calculation, maxCalculations> calculations{};
};

// The process-wide document.
extern FitDocument fitDocument;

// Gives fitDocument its start-up values (no problem loaded, no calculation).
void resetFitDocument();

// The array index of the entry numbered n (from 1): site n is sites[slot(n)].
constexpr std::size_t slot(int n) { return static_cast<std::size_t>(n - 1); }

} // namespace corvane
