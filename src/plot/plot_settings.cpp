#include "plot/plot_settings.h"

#include <cmath>
#include <utility>

#include "fit/fit_document.h"
#include "plot/scaling.h"

namespace corvane {

PlotSettings plotSettings;
PlotLayout plotLayout;

void resetPlot() {
    plotSettings = PlotSettings{};
    plotLayout = PlotLayout{};
    displayedChi.fill(0.0);
    for (auto& values : displayedFit) values.fill(0.0);
}

void measureDevice(Surface& surface) {
    const DeviceMetrics m = surface.deviceMetrics();
    PlotLayout& layout = plotLayout;
    layout.deviceWidth = m.horizontalResolution;
    const int r = m.verticalResolution;
    // Millimetres per pixel across and down; a surface that reports no size has square pixels.
    const float mmX =
        layout.deviceWidth > 0 ? static_cast<float>(m.horizontalSizeMm / layout.deviceWidth) : 0.0f;
    const float mmY = r > 0 ? static_cast<float>(m.verticalSizeMm / r) : 0.0f;
    // The constant is slightly below a twelfth: 768 pixels give 705, not 704.
    layout.deviceHeight = r - static_cast<int>(r * 0.08333333);
    layout.pixelAspect = mmX > 0 && mmY > 0 ? mmY / mmX : 1.0f;
    layout.centreX = layout.deviceWidth / 2;
    layout.centreY = layout.deviceHeight / 2;
}

void initPlotSettings() {
    const LogFont font = plotSettings.labelFont;
    const Colour colour = plotSettings.labelColour;
    plotSettings = PlotSettings{};
    plotSettings.labelFont = font;
    plotSettings.labelColour = colour;
    plotLayout.referenceWidth = plotLayout.deviceWidth;
}

void resetDisplayDefaults() {
    PlotSettings& s = plotSettings;
    s.frameLineWidth = 2;
    s.frameColour = black;
    s.frameWidthChoice = 1;
    for (AxisScale* axis : {&s.tAxis, &s.chiAxis}) {
        axis->minorCount = 2;
        axis->digits = 2;
    }
    s.labelColour = black;
    s.curves.penWidthChoice = 0;
    s.curves.penWidth = 1;
    s.gridLines = 0;
    scalePlot();
}

void resetZoomDefaults() {
    PlotSettings& s = plotSettings;
    s.zoom = 1.0f;
    s.horizontalRatio = 1.0f;
    s.verticalRatio = 1.0f;
    s.horizontalRatioChoice = 3;
    s.verticalRatioChoice = 3;
    s.frameLineWidth = 2;
    s.frameColour = black;
}

void resetRangeDefaults() {
    plotSettings.gridLines = 0;
    scalePlot();
}

void showLoadedPlot(int shownCalculation) {
    PlotSettings& s = plotSettings;
    showMagnetView(false);
    s.plotLoaded = 1;
    s.experimentalShown = 1;
    for (int k = 0; k < maxCalculations; ++k)
        s.curveShown[static_cast<std::size_t>(k)] = k == shownCalculation ? 1 : 0;
    s.showChi = 0;
    scalePlot();
    magnetRanges(s.otherView.horizontal, s.otherView.vertical);
}

void showPlotForExport(bool showChi, bool gridLines, bool magnetView) {
    showLoadedPlot(fitDocument.calculationCount - 1);
    plotSettings.showChi = showChi ? 1 : 0;
    plotSettings.gridLines = gridLines ? 1 : 0;
    scalePlot();
    showMagnetView(magnetView);
}

void showMagnetView(bool on) {
    PlotSettings& s = plotSettings;
    if ((s.magnetView == 1) == on) return;
    std::swap(s.tAxis, s.otherView.horizontal);
    std::swap(s.chiAxis, s.otherView.vertical);
    std::swap(s.xAxisLabel, s.otherView.xAxisLabel);
    std::swap(s.yAxisLabel, s.otherView.yAxisLabel);
    s.magnetView = on ? 1 : 0;
}

} // namespace corvane
