// The M view on the recording surface: groups by temperature, their markers, labels and curves,
// each view's own ranges, the residuals and the pick.
#include <cmath>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <vector>

#include "plot/magnet.h"
#include "plot/residuals.h"
#include "plot_fixture.h"
#include "support/magnet_set.h"

namespace corvane {
namespace {

using Box = std::vector<int>;

TEST(MagnetGroups, PointsWithinFiveHundredthsOfAKelvinOrOnePercentShareATemperature) {
    resetFitDocument();
    const MagnetPoint points[] = {{5.0, 1, 1},          {2.02, 2, 1}, {2.0, 3, 1},
                                  {300, 1, 1},          {303, 2, 1},  {2.06, 1, 1},
                                  {std::nan(""), 1, 1}, {10, 1, 1},   {2.0, 0.5, 1}};
    fitDocument.magnetCount = 9;
    for (std::size_t i = 0; i < 9; ++i) fitDocument.magnetPoints[i] = points[i];
    std::vector<std::string> labels;
    std::vector<std::vector<int>> members;
    for (const MagnetGroup& g : magnetGroups()) {
        labels.push_back(temperatureText(g.temperature));
        members.push_back(g.points);
    }
    // 2.06 K is 0.06 K from the lowest of the 2 K group; 303 K is 1 % above 300 K.
    EXPECT_EQ(labels, (std::vector<std::string>{"2.01 K", "2.06 K", "5 K", "10 K", "302 K"}));
    EXPECT_EQ(members, (std::vector<std::vector<int>>{{8, 1, 2}, {5}, {0}, {7}, {3, 4}}));
    EXPECT_EQ(groupMarker(groupMarkerCount + 4), GroupMarker::Triangle);
}

class MagnetViewTest : public testing::PlotTest {
protected:
    // Two calculations and the support's magnetisation set, both shown in the M view: field 0
    // to 5 T and M 0 to 4 over the frame (141, 105) to (883, 600). The points lie at x 289,
    // 586, 883 (1, 3, 5 T); at 2 K at y 352, 166, 105, at 10 K at y 538, 414, 352.
    void SetUp() override {
        PlotTest::SetUp();
        load({{60, 0.25}, {300, 1.0}}, 2);
        testing::addMagnetSet(fitDocument);
        showLoadedPlot(1);
        showMagnetView(true);
        plotSettings.curveShown = {1, 1};
    }
    std::vector<SurfaceCall> texts(const std::string& ending) const {
        std::vector<SurfaceCall> found;
        for (const SurfaceCall& c : surface.callsOf(SurfaceOp::TextOut))
            if (c.text.ends_with(ending)) found.push_back(c);
        return found;
    }
};

TEST_F(MagnetViewTest, EachTemperatureHasItsMarkerItsLabelAndACurvePerShownCalculation) {
    paintPlot(surface);
    const PlotSettings& s = plotSettings;
    EXPECT_EQ(std::vector<float>({s.tAxis.min, s.tAxis.max, s.chiAxis.min, s.chiAxis.max}),
              std::vector<float>({0, 5, 0, 4}));
    EXPECT_EQ(std::string(s.xAxisLabel.data()) + ", " + s.yAxisLabel.data(),
              "Magnetic Field (T), M (N\u03bcB)");

    // 2 K in filled circles with a black outline, 10 K in open ones, each by rising field.
    std::vector<Box> filled, open;
    for (const SurfaceCall& e : surface.callsOf(SurfaceOp::Ellipse)) {
        const Box centre = {(e.x1 + e.x2) / 2, (e.y1 + e.y2) / 2, e.x2 - e.x1};
        if (e.brush.colour == 0x0000FFu && e.pen.colour == black) filled.push_back(centre);
        if (e.brush.colour == white && e.pen.colour == 0x0000FFu) open.push_back(centre);
    }
    EXPECT_EQ(filled, (std::vector<Box>{{289, 352, 12}, {586, 166, 12}, {883, 105, 12}}));
    EXPECT_EQ(open, (std::vector<Box>{{289, 538, 12}, {586, 414, 12}, {883, 352, 12}}));
    EXPECT_EQ(surface.callsOf(SurfaceOp::Ellipse).size(), 6u);

    // Two segments per temperature and calculation in its colour; calculation 1 through the
    // points themselves.
    std::vector<Box> black1;
    std::multiset<Box> red2;
    for (const SurfaceCall& c : surface.callsOf(SurfaceOp::LineTo)) {
        if (c.pen.width != 1) continue; // the frame and its ticks
        if (c.pen.colour == black) black1.push_back({c.x1, c.y1, c.x2, c.y2});
        if (c.pen.colour == 0x0000FFu) red2.insert({c.x1, c.x2});
    }
    EXPECT_EQ(black1, (std::vector<Box>{{289, 352, 586, 166},
                                        {586, 166, 883, 105},
                                        {289, 538, 586, 414},
                                        {586, 414, 883, 352}}));
    EXPECT_EQ(red2, (std::multiset<Box>{{289, 586}, {289, 586}, {586, 883}, {586, 883}}));

    // The last points lie on the frame's edge: the labels stand right of the outer frame at
    // their height; one that would overlap another goes under it.
    const std::vector<SurfaceCall> labels = texts(" K");
    ASSERT_EQ(labels.size(), 2u);
    EXPECT_EQ((Box{labels[0].x1, labels[0].y1, labels[1].x1, labels[1].y1}),
              (Box{883 + 18 + 3, 105 - 8, 904, 352 - 8}));
    fitDocument.magnetPoints[0].observed = 3.9; // 10 K, 5 T: at y 117
    surface.calls.clear();
    paintPlot(surface);
    EXPECT_EQ(texts("10 K").at(0).y1, 97 + 16);
}

TEST_F(MagnetViewTest, EachViewKeepsItsRangeAndItsTitlesAndScalingResetsOnlyTheOneShown) {
    PlotSettings& s = plotSettings;
    s.tAxis.max = 2.5f;
    showMagnetView(false);
    EXPECT_EQ(std::string(s.xAxisLabel.data()) + s.yAxisLabel.data(), "Temperature (K)ChiT - T");
    s.chiAxis.max = 0.5f;
    showMagnetView(true);
    EXPECT_EQ(s.tAxis.max, 2.5f);
    scalePlot();
    EXPECT_EQ(s.tAxis.max, 5.0f);
    showMagnetView(false);
    EXPECT_EQ(s.chiAxis.max, 0.5f);
}

TEST_F(MagnetViewTest, ResidualsAreObservedMinusFittedMAndAPickFindsTheCurveUnderThePointer) {
    plotSettings.showResiduals = 1;
    paintPlot(surface);
    // Calculation 2 fits 10 % low: the largest residual, 0.4 at 2 K and 5 T, tops the panel.
    const std::vector<SurfaceCall> markers = surface.callsOf(SurfaceOp::Ellipse);
    ASSERT_EQ(markers.size(), 12u);
    const PlotLayout& l = plotLayout;
    std::vector<int> top;
    for (std::size_t i = 6; i < markers.size(); ++i)
        if ((markers[i].y1 + markers[i].y2) / 2 == l.panelTop)
            top.push_back((markers[i].x1 + markers[i].x2) / 2);
    EXPECT_EQ(top, (std::vector<int>{plotX(5)}));
    EXPECT_EQ(texts("0.40").size(), 2u); // 0.40 and -0.40

    // At 2 T calculation 1 runs at M 2.75 at 2 K and 1 at 10 K, calculation 2 at 2.475.
    plotSettings.showResiduals = 0;
    paintPlot(surface);
    EXPECT_EQ(pickMagnetCurve(plotX(2), plotY(2.75) + 2), 0);
    EXPECT_EQ(pickMagnetCurve(plotX(2), plotY(2.475) - 2), 1);
    EXPECT_EQ(pickMagnetCurve(plotX(2), plotY(2.75) + 6), -1);
    EXPECT_EQ(pickMagnetCurve(plotX(2), plotY(1.0)), 0);
    plotSettings.curveShown[0] = 0;
    EXPECT_EQ(pickMagnetCurve(plotX(2), plotY(2.75)), -1);
}

} // namespace
} // namespace corvane
