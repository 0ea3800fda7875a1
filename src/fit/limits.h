// Every fixed limit of a fitting problem and of the files that carry it, in one place. Readers,
// writers, messages, the menu and the dialogs all take them from here.
#pragma once

#include <cstddef>

namespace corvane {

inline constexpr int maxSites = 20;         // spin sites of a problem (SPIN_ON_SITE1..20)
inline constexpr int maxInteractions = 100; // exchange paths between pairs of sites
inline constexpr int maxJValues = 10;       // distinct J values the paths use (J1..J10)
inline constexpr int maxPairs = 1000;       // experimental (T, chi) or (T, chiT) pairs
inline constexpr int maxMagnetPoints = 1000; // magnetisation points (T, H, M), any temperatures
// The largest field of the chi data (FIELD=) and of a magnetisation point, in tesla; far above
// any magnet, so that a field in Oe or kOe typed by mistake is caught.
inline constexpr double maxFieldTesla = 100.0;
// The largest weight of the magnetisation set in the joint deviation (M_WEIGHT=).
inline constexpr double maxMagnetWeight = 1.0e6;
inline constexpr int maxCalculations = 10;  // calculations (fitted curves "# 1".."# 10") held
inline constexpr int maxTitleLength = 119;  // characters of a title that are kept
inline constexpr int maxTwiceSpin = 20;     // a site's spin is given as 2S, from 1 to this

// The largest magnitude of a value in a problem or a result: its "%f" text must fit a line of
// the report (131 characters) with the other values of that line.
inline constexpr double maxValueMagnitude = 999999999.0;

// Files larger than these are refused before they are read: no valid input file (every count
// at its limit) or report (ten calculations of 1000 pairs) comes near them.
inline constexpr std::size_t maxInputFileBytes = std::size_t{1} << 20;
inline constexpr std::size_t maxReportFileBytes = std::size_t{8} << 20;

// Engine parameter numbers: 1 g, 2 C, 3 zJ, 4 Xtip, then J1..J10 as 5..14.
inline constexpr int fixedParameterCount = 4;
inline constexpr int firstJParameter = fixedParameterCount + 1;
inline constexpr int maxParameters = fixedParameterCount + maxJValues;

// Line pieces: the report is read in pieces of at most this many characters, the ending newline
// counted; a longer line becomes several pieces, each handled as a line of its own. (The input
// file is read in whole lines, however long, within maxInputFileBytes.)
inline constexpr int reportLineLength = 131;
// The same for the engine's output file.
inline constexpr int engineLineLength = 254;

} // namespace corvane
