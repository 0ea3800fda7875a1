// The residual panel (Display > Residuals): under the frame, on the same temperature axis, the
// observed minus the calculated value of the current calculation at every pair, in the quantity
// the vertical axis shows, about a zero line, on a scale symmetric about 0. In the M view, the
// observed minus the fitted M at every magnetisation point, on the field axis.
#pragma once

#include "platform/surface.h"

namespace corvane {

// The calculation (0-based) whose residuals the panel shows: the current one when it is
// shown, else the last shown; -1 for none.
int residualCalculation();

// Draws the panel when plotSettings.showResiduals is 1 (layoutFrame() has made room for it).
void drawResidualPanel(Surface& surface);

} // namespace corvane
