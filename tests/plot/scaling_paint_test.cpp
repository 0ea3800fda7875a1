#include <cmath>
#include <string>

#include "plot_fixture.h"

namespace corvane {
namespace {

class ScalingTest : public testing::PlotTest {};

std::string yTitle() { return plotSettings.yAxisLabel.data(); }

TEST_F(ScalingTest, ValuesAreShownAsChiOrChiTWhateverTheDataHold) {
    load({{2, 0.5}, {4, 1.0}}, 2); // chiT data; calculation 2 fits 10 % higher
    EXPECT_EQ(displayedChi[1], 1.0);
    EXPECT_DOUBLE_EQ(displayedFit[1][1], 1.1);
    EXPECT_EQ(yTitle(), "ChiT - T");

    plotSettings.showChi = 1;
    scalePlot();
    EXPECT_EQ(displayedChi[0], 0.25);
    EXPECT_EQ(displayedChi[1], 0.25);
    EXPECT_DOUBLE_EQ(displayedFit[1][0], 0.275);
    EXPECT_EQ(yTitle(), "Chi - T");
    EXPECT_EQ(plotSettings.chiAxis.max, 0.25f);

    fitDocument.dataKind = DataKind::Chi;
    scalePlot();
    EXPECT_EQ(displayedChi[1], 1.0);
    plotSettings.showChi = 0;
    scalePlot();
    EXPECT_EQ(displayedChi[1], 4.0);
    EXPECT_DOUBLE_EQ(displayedFit[1][1], 4.4);
    EXPECT_EQ(yTitle(), "ChiT - T");
}

TEST_F(ScalingTest, RangesRunFromZeroOrTheMostNegativeValueToTheLargest) {
    load({{10, 0.25}, {20, 0.75}, {5, 0.5}}, 2); // the fitted curve above 0.75 is cut off
    const AxisScale& chi = plotSettings.chiAxis;
    const AxisScale& t = plotSettings.tAxis;
    EXPECT_EQ(std::vector<float>({chi.min, chi.max, chi.labelFrom, chi.labelTo, chi.majorInterval}),
              std::vector<float>({0, 0.75f, 0, 0.75f, 0.15f}));
    EXPECT_EQ(std::vector<float>({t.min, t.max, t.labelFrom, t.labelTo, t.majorInterval}),
              std::vector<float>({0, 20, 0, 20, 4}));

    load({{10, -0.5}, {20, 2.0}});
    EXPECT_EQ(std::vector<float>({chi.min, chi.max, chi.majorInterval}),
              std::vector<float>({-0.5f, 2.0f, 0.5f}));

    // A range typed by the user lasts until the next scaling; numbering settings stay.
    plotSettings.chiAxis = {1, 2, 1, 2, 0.1f, 5, 3};
    plotSettings.yAxisLabel = {"my title"};
    plotSettings.gridLines = 1;
    resetRangeDefaults();
    EXPECT_EQ(std::vector<float>({chi.min, chi.max, chi.majorInterval}),
              std::vector<float>({-0.5f, 2.0f, 0.5f}));
    EXPECT_EQ(std::make_pair(chi.minorCount, chi.digits), std::make_pair(5, 3));
    EXPECT_EQ(yTitle(), "ChiT - T");
    EXPECT_EQ(plotSettings.gridLines, 0);
}

TEST_F(ScalingTest, PointsThatCannotBeShownAreLeftOut) {
    // Chi from chiT at 0 K: no point, and the range comes from the others.
    load({{0, 0.5}, {10, 1.0}, {20, 1.5}});
    plotSettings.showChi = 1;
    scalePlot();
    EXPECT_FALSE(std::isfinite(displayedChi[0]));
    EXPECT_EQ(plotSettings.chiAxis.max, 0.1f);
    paintPlot(surface);
    EXPECT_EQ(surface.callsOf(SurfaceOp::Ellipse).size(), 2u);
    std::size_t curve = 0; // lines of the curve pen, not of the frame pen
    for (const SurfaceCall& c : surface.callsOf(SurfaceOp::LineTo)) curve += c.pen.width == 1;
    EXPECT_EQ(curve, 1u);

    // No pairs at all: empty ranges, the frame and the titles only.
    load({});
    EXPECT_EQ(std::vector<float>(
                  {plotSettings.tAxis.min, plotSettings.tAxis.max, plotSettings.chiAxis.max}),
              std::vector<float>({0, 0, 0}));
    surface.calls.clear();
    paintPlot(surface);
    EXPECT_EQ(surface.callsOf(SurfaceOp::Rectangle).size(), 1u);
    EXPECT_EQ(surface.callsOf(SurfaceOp::TextOut).size(), 2u);
    EXPECT_TRUE(surface.callsOf(SurfaceOp::LineTo).empty());
    EXPECT_TRUE(surface.callsOf(SurfaceOp::Ellipse).empty());
}

class PaintTest : public testing::PlotTest {};

TEST_F(PaintTest, PaintingDrawsThePlotOnlyOnceADocumentIsLoaded) {
    paintPlot(surface);
    ASSERT_EQ(surface.calls.size(), 1u);
    EXPECT_EQ(surface.calls[0].backgroundMode, BackgroundMode::Transparent);

    // Hidden points and curves leave frame, ticks, titles and numbers.
    loadDefault();
    plotSettings.experimentalShown = 0;
    plotSettings.curveShown.fill(0);
    surface.calls.clear();
    paintPlot(surface);
    EXPECT_EQ(surface.callsOf(SurfaceOp::Rectangle).size(), 1u);
    EXPECT_EQ(surface.callsOf(SurfaceOp::TextOut).size(), 14u);
    EXPECT_EQ(surface.callsOf(SurfaceOp::LineTo).size(), 44u);
    EXPECT_TRUE(surface.callsOf(SurfaceOp::Ellipse).empty());
}

TEST_F(PaintTest, TheExportedViewShowsTheNewestCurveOnTopOfTheMarkers) {
    loadDefault(3);
    plotSettings.curveShown = {1, 1, 0, 0, 0, 0, 0, 0, 0, 0};
    showPlotForExport(true, true);
    EXPECT_EQ(plotSettings.curveShown, (std::array<int, maxCalculations>{0, 0, 1}));
    EXPECT_EQ(plotSettings.showChi, 1);
    EXPECT_EQ(plotSettings.gridLines, 1);
    EXPECT_EQ(yTitle(), "Chi - T");

    paintPlot(surface);
    std::size_t lastMarker = 0, firstGreen = 0;
    for (std::size_t i = 0; i < surface.calls.size(); ++i) {
        const SurfaceCall& c = surface.calls[i];
        if (c.op == SurfaceOp::Ellipse) lastMarker = i;
        if (c.op == SurfaceOp::LineTo && c.pen.colour == 0x00FF00u && firstGreen == 0)
            firstGreen = i;
    }
    EXPECT_GT(firstGreen, lastMarker);
    EXPECT_GT(lastMarker, 0u);
}

} // namespace
} // namespace corvane
