// Scaling: the values the vertical axis shows, and default ranges of both axes from the data.
#pragma once

#include <array>

#include "fit/limits.h"
#include "plot/plot_settings.h"

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
// the vertical axis title. minorCount and digits stay. Never draws. In the M view the axes in
// force get the M view's ranges (magnetRanges) and its vertical title instead.
void scalePlot();

// The default ranges of the M view from the observed magnetisation points, as scalePlot sets
// those of the chi view: the field and M each from 0 (or their most negative value) to their
// largest value, numbered in fifths. minorCount and digits stay.
void magnetRanges(AxisScale& field, AxisScale& magnet);

} // namespace corvane
