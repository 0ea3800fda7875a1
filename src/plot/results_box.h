// The results box (Display > Show Info): for each shown calculation, in its curve's colour, the
// fitted values with their uncertainties and units, the squared deviation D and D per degree of
// freedom, and a mark where the engine warned or the fit did not converge. It stands in the
// corner of the frame that covers the fewest data points.
#pragma once

#include <string>
#include <vector>

#include "platform/surface.h"
#include "plot/axes.h"

namespace corvane {

// The lines of the box for calculation k (0-based): a heading, then one line per parameter that
// was fitted or is fixed at a value other than 0.
std::vector<std::string> resultsBoxLines(int k);

// Where the box goes: the corner of the frame (top right, top left, bottom right, bottom left,
// the first of them on a tie) whose box of width x height device units holds the fewest shown
// data points (magnetisation points in the M view). Expects layoutFrame().
DeviceBox resultsBoxPlace(int width, int height, int margin);

// Draws the box when plotSettings.showInfo is 1. Expects layoutFrame() and scalePlot().
void drawResultsBox(Surface& surface);

} // namespace corvane
