// From a magnetometer's moments to the data a fit takes: the rows at one field become molar
// susceptibilities chi(T), the rows of a field loop at one temperature magnetizations M(H).
//
//   chi = (moment / H) * (molar mass / mass) - chi_dia                     cm3 mol-1
//   M   = (moment * (molar mass / mass) - chi_dia * H) / (N muB)           N muB
//
// with the mass in g, H in Oe and N muB = 5584.93941 emu mol-1. The diamagnetic correction
// chi_dia (negative) is the user's; the magnetization is corrected with it too, so that chi and
// M of one sample agree.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "import/moment_file.h"

namespace corvane {

// Avogadro's number times the Bohr magneton, in emu mol-1 (erg G-1 mol-1).
inline constexpr double molarBohrMagneton = 5584.93941;
// A common rule of thumb for the molar diamagnetic susceptibility of a molecular compound:
// this many cm3 mol-1 per g mol-1 of its molar mass.
inline constexpr double diamagneticPerMolarMass = -0.5e-6;

struct Sample {
    double mass = 0.0;        // mg
    double molarMass = 0.0;   // g mol-1
    double diamagnetic = 0.0; // chi_dia, cm3 mol-1, subtracted from chi
};

// Why sample cannot convert moments, as a sentence ("The sample mass 0 mg is not above 0.");
// "" when it can.
std::string sampleProblem(const Sample& sample);

// The rule-of-thumb estimate of chi_dia from the molar mass: an estimate, never a measurement.
double estimatedDiamagnetic(double molarMass);

double molarSusceptibility(const MomentRow& row, const Sample& sample); // cm3 mol-1
double magnetization(const MomentRow& row, const Sample& sample);       // N muB

// Two readings that stand for one set point: fields within 1 % or 1 Oe, temperatures within
// 2 % or 0.1 K (whichever is wider).
bool sameField(double a, double b);
bool sameTemperature(double a, double b);

// A field (Oe) or a temperature (K) at which rows were measured: the mean of their readings,
// and how many they are.
struct Level {
    double value = 0.0;
    int rows = 0;
};

// The fields the rows were measured at, those with the most rows first (the lower field first
// among equals), and the temperatures, lowest first. Readings are grouped around the lowest one
// not yet taken, so that a sweep in small steps never runs together into one level.
std::vector<Level> fieldLevels(const std::vector<MomentRow>& rows);
std::vector<Level> temperatureLevels(const std::vector<MomentRow>& rows);

// How the magnetization set takes the rows at its temperature: the first branch on which the
// field rises (from its start to where it stops rising; the virgin curve of a loop that starts
// at 0), or every row; in both, only the rows with H > 0.
enum class Branch { FirstRising, AllPositive };

// The rows of a set in the file's order (the chi set sorted by temperature), and the set's
// field (Oe; the chi set) or temperature (K; the magnetization set).
struct MomentSet {
    double level = 0.0;
    std::vector<MomentRow> rows;
};

// The chi set: the rows at `field` (Oe) or, without it, at the field that most rows have,
// sorted by temperature. False, with a sentence in error naming the file and the fields it
// has, when no row is at that field or the field is 0.
bool chiSet(const MomentFile& file, std::optional<double> field, MomentSet& set,
            std::string& error);

// The temperatures at which the rows hold a field loop (a branch with at least two rows of
// H > 0), lowest first.
std::vector<Level> loopTemperatures(const MomentFile& file);

// The magnetization set: the rows at `temperature` (K) or, without it, at the lowest
// temperature with a field loop, taken as branch says. False, with a sentence in error naming
// the file and the temperatures it has, when there is no such row.
bool magnetSet(const MomentFile& file, std::optional<double> temperature, Branch branch,
               MomentSet& set, std::string& error);

// A converted value as the data lines of an input file hold it: six significant digits in the
// "C" locale ("23.5435", "0.0785027", "8.08796").
std::string measuredText(double value);

} // namespace corvane
