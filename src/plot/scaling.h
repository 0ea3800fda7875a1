// Scaling: the values the vertical axis shows, and default ranges of both axes from the data.
#pragma once

#include <array>

#include "fit/limits.h"

namespace corvane {

// The plotted value of each experimental pair (same order as the document's pairs) and of
// each calculation's fitted value at each pair, in the quantity the vertical axis shows.
// A value that cannot be shown (chi at T = 0 from chiT data) is not finite and is left out of
// the ranges and the drawing.
extern std::array<double, maxPairs> displayedChi;
extern std::array<std::array<double, maxPairs>, maxCalculations> displayedFit;

// Converts the experimental and fitted values into chi or chiT (plotSettings.showChi), sets
// min, max, labelFrom, labelTo and majorInterval of both axes from the experimental data (five
// major intervals from 0, or from the most negative value, to the largest value) and writes
// the vertical axis title. minorCount and digits stay. Never draws.
void scalePlot();

} // namespace corvane
