// The paint pipeline: the whole plot on one surface, the window's or a printer page's.
#pragma once

#include "platform/surface.h"

namespace corvane {

// Measures surface, sets plotLayout.printScale (deviceWidth / referenceWidth: 1 on the screen,
// larger on a finer printer), makes the text background transparent and, once a document is
// loaded, lays out the frame and draws axes, the experimental points (when shown) and each
// shown fitted curve in calculation order, of the chi view or of the M view (plot/magnet.h).
// Nothing is kept between paints. The caller obtains and releases the surface: the window's paint
// handler, or the print command with plotLayout.printing set to 1 around the call.
void paintPlot(Surface& surface);

} // namespace corvane
