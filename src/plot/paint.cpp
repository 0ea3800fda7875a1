#include "plot/paint.h"

#include <algorithm>

#include "fit/fit_document.h"
#include "plot/axes.h"
#include "plot/curves.h"
#include "plot/magnet.h"
#include "plot/plot_settings.h"
#include "plot/residuals.h"
#include "plot/results_box.h"

namespace corvane {

void paintPlot(Surface& surface) {
    measureDevice(surface);
    PlotLayout& l = plotLayout;
    l.printScale = l.referenceWidth > 0
                       ? static_cast<float>(l.deviceWidth) / static_cast<float>(l.referenceWidth)
                       : 1.0f;
    surface.setBackgroundMode(BackgroundMode::Transparent);
    const PlotSettings& s = plotSettings;
    if (s.plotLoaded != 1) return;
    layoutFrame();
    drawAxes(surface);
    const bool magnet = s.magnetView == 1;
    if (magnet)
        drawMagnetData(surface);
    else if (s.experimentalShown == 1)
        drawExperimental(surface);
    const int calculations = std::clamp(fitDocument.calculationCount, 0, maxCalculations);
    for (int k = 0; k < calculations; ++k) {
        if (s.curveShown[static_cast<std::size_t>(k)] != 1) continue;
        if (magnet)
            drawMagnetCurves(surface, k);
        else
            drawFittedCurve(surface, k);
    }
    drawResidualPanel(surface);
    drawResultsBox(surface);
}

} // namespace corvane
