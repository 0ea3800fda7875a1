#include <algorithm>
#include <cstdlib>

#include "plot_fixture.h"
#include "text/text.h"

namespace corvane {
namespace {

using Line = std::vector<int>;

class CurvesTest : public testing::PlotTest {};

TEST_F(CurvesTest, EveryExperimentalPointGetsOneMarkerOfRadius10) {
    loadDefault();
    drawExperimental(surface);
    std::vector<Line> boxes;
    for (const SurfaceCall& e : surface.callsOf(SurfaceOp::Ellipse)) {
        boxes.push_back({e.x1, e.y1, e.x2, e.y2});
        EXPECT_EQ(e.pen, (Pen{PenStyle::Solid, 1, black}));
        EXPECT_EQ(e.brush.colour, 0x0000FFu); // red
    }
    EXPECT_EQ(boxes, (std::vector<Line>{{279, 466, 299, 486},
                                        {427, 342, 447, 362},
                                        {576, 342, 596, 362},
                                        {724, 218, 744, 238},
                                        {798, 156, 818, 176},
                                        {873, 95, 893, 115}}));

    for (int marker : {1, 2}) { // "Open Circle" and "square" look alike
        surface.calls.clear();
        plotSettings.curves.experimentalMarker = marker;
        plotSettings.curves.experimentalColour = 3;
        drawExperimental(surface);
        const SurfaceCall e = surface.callsOf(SurfaceOp::Ellipse).at(0);
        EXPECT_EQ(e.pen.colour, 0xFF0000u);
        EXPECT_EQ(e.brush.colour, white);
    }
    EXPECT_EQ(surface.state().pen, Pen{});
    EXPECT_EQ(surface.state().brush, Brush{});
}

TEST_F(CurvesTest, SegmentsAreClippedWhereTheyCrossTheFrame) {
    loadDefault(); // frame (141, 105) to (883, 600)
    DevicePoint from, to;
    ASSERT_TRUE(clipToFrame({500, 300}, {500, 0}, from, to));
    EXPECT_EQ(from, (DevicePoint{500, 300}));
    EXPECT_EQ(to, (DevicePoint{500, 105}));
    ASSERT_TRUE(clipToFrame({300, 0}, {400, 700}, from, to)); // from above to below
    EXPECT_EQ(from, (DevicePoint{315, 105}));
    EXPECT_EQ(to, (DevicePoint{385, 600}));
    ASSERT_TRUE(clipToFrame({0, 300}, {200, 400}, from, to));
    EXPECT_EQ(from, (DevicePoint{141, 370}));
    EXPECT_FALSE(clipToFrame({0, 0}, {100, 700}, from, to));
    ASSERT_TRUE(clipToFrame({883, 600}, {883, 600}, from, to)); // zero length, on the corner
    EXPECT_EQ(to, (DevicePoint{883, 600}));
    EXPECT_FALSE(clipToFrame({884, 600}, {884, 600}, from, to));
}

TEST_F(CurvesTest, AZoomedCurveIsCutExactlyAtTheFrameEdge) {
    loadDefault();
    plotSettings.chiAxis.max = 0.625f; // the points above 0.625 leave the frame
    drawFittedCurve(surface, 0);
    EXPECT_EQ(lines(), (std::vector<Line>{
                           {289, 402, 437, 204}, {437, 204, 586, 204}, {586, 204, 660, 105}}));
    EXPECT_EQ(surface.callsOf(SurfaceOp::LineTo)[0].pen, (Pen{PenStyle::Solid, 1, black}));

    // Only the fitted range is drawn: pairs 2 to 3.
    surface.calls.clear();
    fitDocument.calculations[0].firstPair = 2;
    fitDocument.calculations[0].lastPair = 3;
    drawFittedCurve(surface, 0);
    EXPECT_EQ(lines(), (std::vector<Line>{{437, 204, 586, 204}}));

    // With labelFrom above 0 a curve lying on the bottom edge is not drawn there.
    load({{100, 0.0}, {200, 0.0}, {300, 1.0}});
    surface.calls.clear();
    plotSettings.chiAxis.labelFrom = 0.2f;
    drawFittedCurve(surface, 0);
    ASSERT_EQ(lines().size(), 1u);
    EXPECT_EQ(lines()[0], (Line{635, 600, 883, 105}));
}

TEST_F(CurvesTest, ADottedCurveRunsThreeOnSixOffAcrossTheJoints) {
    loadDefault();
    plotSettings.curves.curveStyle[0] = static_cast<int>(LineStyle::Dotted);
    const int phase = drawFittedCurve(surface, 0);
    std::vector<SurfaceCall> steps;
    for (const SurfaceCall& c : surface.calls)
        if (c.op == SurfaceOp::MoveTo || c.op == SurfaceOp::LineTo) steps.push_back(c);
    // A fresh start, then one call per pixel: 149 + 150 + 149 + 75 + 76 pixels, each joint
    // pixel visited twice.
    ASSERT_EQ(steps.size(), 1u + 599u);
    EXPECT_EQ(steps[0].op, SurfaceOp::MoveTo);
    EXPECT_EQ(std::make_pair(steps[0].x1, steps[0].y1), std::make_pair(289, 476));
    EXPECT_EQ(steps[1].pen.style, PenStyle::Dot);
    for (std::size_t k = 0; k < 599; ++k) {
        const SurfaceCall& c = steps[k + 1];
        EXPECT_EQ(c.op, k % 9 < 3 ? SurfaceOp::LineTo : SurfaceOp::MoveTo) << k;
        if (c.op == SurfaceOp::LineTo) { // joined to a neighbouring pixel only
            EXPECT_LE(std::max(std::abs(c.x2 - c.x1), std::abs(c.y2 - c.y1)), 1) << k;
        }
    }
    const SurfaceCall& joint = steps[1 + 149];
    EXPECT_EQ(std::make_pair(joint.x1, joint.y1), std::make_pair(437, 352));
    EXPECT_EQ(phase, 599 % 9);
}

TEST_F(CurvesTest, AZoomFarBeyondTheSurfaceWalksOnlyThePixelsNearIt) {
    loadDefault();
    plotSettings.curves.curveStyle[0] = static_cast<int>(LineStyle::Dotted);
    plotSettings.zoom = 40; // a frame 30000 pixels wide
    layoutFrame();
    const int phase = drawFittedCurve(surface, 0);
    const DeviceBox box = drawingBox();
    long long pixels = 0; // what a walk of the whole curve would visit
    for (std::size_t i = 1; i < 6; ++i) {
        const DataPair& a = fitDocument.pairs[i - 1];
        const DataPair& b = fitDocument.pairs[i];
        pixels += std::max(std::abs(plotX(b.temperature) - plotX(a.temperature)),
                           std::abs(plotY(b.observed) - plotY(a.observed))) +
                  1;
    }
    EXPECT_GT(pixels, 10000);
    EXPECT_EQ(phase, pixels % 9);
    ASSERT_FALSE(surface.calls.empty());
    EXPECT_LT(surface.calls.size(), 3000u);
    for (const SurfaceCall& c : surface.callsOf(SurfaceOp::LineTo)) {
        EXPECT_TRUE(c.x2 >= box.left && c.x2 <= box.right && c.y2 >= box.top && c.y2 <= box.bottom);
    }
}

TEST_F(CurvesTest, StyledSegmentsWalkEveryPixelWithBresenham) {
    int phase = 0;
    drawStyledSegment(surface, 0, 0, 3, 10, static_cast<int>(LineStyle::Dashed), phase);
    std::string visits; // "+" drawn to the pixel, "-" moved to it
    for (const SurfaceCall& c : surface.calls)
        visits += c.op == SurfaceOp::LineTo ? formatC("+%d,%d ", c.x2, c.y2)
                                            : formatC("-%d,%d ", c.x1, c.y1);
    EXPECT_EQ(visits, "+0,0 +0,1 +1,2 +1,3 +1,4 +2,5 -2,6 -2,7 -2,8 -3,9 -3,10 ");
    EXPECT_EQ(phase, 11);

    surface.calls.clear();
    drawStyledSegment(surface, 10, 5, 0, 5, static_cast<int>(LineStyle::DashDot), phase);
    EXPECT_EQ(surface.calls.size(), 11u);
    EXPECT_EQ(surface.calls.back().op, SurfaceOp::LineTo); // phase 21 % 21: on again
    EXPECT_EQ(phase, 1);

    surface.calls.clear();
    drawStyledSegment(surface, 1, 2, 30, 40, static_cast<int>(LineStyle::Solid), phase);
    EXPECT_EQ(lines(), (std::vector<Line>{{1, 2, 30, 40}}));
    EXPECT_EQ(phase, 1);
}

TEST_F(CurvesTest, GridLinesStartAtZeroAndStepUpToTheTopOfTheRange) {
    load({{100, -0.5}, {200, 2.0}});
    EXPECT_EQ(plotSettings.chiAxis.min, -0.5f);
    EXPECT_EQ(plotSettings.chiAxis.majorInterval, 0.5f);
    plotSettings.gridLines = 1;
    plotSettings.curves.penWidth = 3;
    drawExperimental(surface);
    std::vector<Line> expected;
    for (int y : {501, 402, 303, 204, 105}) expected.push_back({123, y, 901, y});
    EXPECT_EQ(lines(), expected);
    EXPECT_EQ(surface.callsOf(SurfaceOp::LineTo)[0].pen, (Pen{PenStyle::Solid, 3, black}));

    // Each curve adds its own line at 0 before the curve.
    surface.calls.clear();
    drawFittedCurve(surface, 0);
    EXPECT_EQ(lines().at(0), (Line{123, 501, 901, 501}));

    // No grid at all for an interval that would never reach the top, or a range of nothing.
    for (float interval : {0.0f, -0.5f, 1e-30f}) {
        surface.calls.clear();
        plotSettings.chiAxis.majorInterval = interval;
        drawExperimental(surface);
        EXPECT_TRUE(lines().empty());
    }
    plotSettings.chiAxis = {1, 1, 1, 1, 0.5f, 2, 2};
    surface.calls.clear();
    drawExperimental(surface);
    drawFittedCurve(surface, 0);
    EXPECT_TRUE(lines().empty());
    EXPECT_TRUE(surface.callsOf(SurfaceOp::Ellipse).empty());
}

} // namespace
} // namespace corvane
