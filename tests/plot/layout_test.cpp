#include <algorithm>
#include <string>

#include "plot_fixture.h"

namespace corvane {
namespace {

using Line = std::vector<int>;

class LayoutTest : public testing::PlotTest {};

TEST_F(LayoutTest, AScreenOf1024By768SquarePixelsPlacesTheFrame) {
    const PlotLayout& l = plotLayout;
    EXPECT_EQ(l.deviceWidth, 1024);
    EXPECT_EQ(l.deviceHeight, 705);

    loadDefault();
    paintPlot(surface);
    EXPECT_EQ(l.printScale, 1.0f);
    EXPECT_EQ(std::vector<int>({l.frameLeft, l.frameTop, l.frameRight, l.frameBottom}),
              std::vector<int>({141, 105, 883, 600}));
    const auto outer = surface.callsOf(SurfaceOp::Rectangle);
    ASSERT_EQ(outer.size(), 1u);
    EXPECT_EQ(std::vector<int>({outer[0].x1, outer[0].y1, outer[0].x2, outer[0].y2}),
              std::vector<int>({123, 81, 901, 624}));
    EXPECT_EQ(outer[0].brush.colour, white); // the data on white

    plotSettings.zoom = 0.5f;
    layoutFrame();
    EXPECT_EQ(std::vector<int>({l.frameLeft, l.frameTop, l.frameRight, l.frameBottom}),
              std::vector<int>({326, 228, 698, 477}));
    plotSettings.zoom = 1.0f;
    plotSettings.horizontalRatio = 0.5f;
    plotSettings.verticalRatio = 3.0f;
    layoutFrame();
    EXPECT_EQ(std::vector<int>({l.frameLeft, l.frameTop, l.frameRight, l.frameBottom}),
              std::vector<int>({327, -390, 698, 1095}));

    // Pixels twice as high as wide.
    RecordingSurface tall(DeviceMetrics{1024, 768, 100.0, 150.0});
    measureDevice(tall);
    EXPECT_FLOAT_EQ(l.pixelAspect, 2.0f);
}

TEST_F(LayoutTest, DefaultAxesHaveFiveNumberedIntervalsWithAMinorTickBetween) {
    loadDefault();
    drawAxes(surface);
    std::vector<Line> expected;
    for (int x : {141, 289, 437, 585, 733, 881}) {
        expected.push_back({x, 623, x, 618});
        expected.push_back({x, 82, x, 87});
        if (x + 74 <= 883) {
            expected.push_back({x + 74, 623, x + 74, 620});
            expected.push_back({x + 74, 82, x + 74, 85});
        }
    }
    for (int y : {600, 501, 402, 303, 204, 105}) {
        expected.push_back({123, y, 128, y});
        expected.push_back({900, y, 895, y});
        if (y - 49 >= 105) {
            expected.push_back({123, y - 49, 126, y - 49});
            expected.push_back({900, y - 49, 897, y - 49});
        }
    }
    EXPECT_EQ(lines(), expected);

    const auto texts = surface.callsOf(SurfaceOp::TextOut);
    ASSERT_EQ(texts.size(), 14u);
    EXPECT_EQ(texts[0].text, "ChiT - T");
    EXPECT_EQ(std::make_pair(texts[0].x1, texts[0].y1), std::make_pair(64, 380));
    EXPECT_EQ(texts[0].font.lfEscapement, 900);
    EXPECT_EQ(texts[1].text, "Temperature (K)");
    EXPECT_EQ(std::make_pair(texts[1].x1, texts[1].y1), std::make_pair(460, 664));
    for (const SurfaceCall& t : texts)
        EXPECT_EQ(std::make_pair(t.font.lfHeight, t.font.lfWidth), std::make_pair(16, 7));
    const char* chiNumbers[] = {"     0.00", "     0.20", "     0.40",
                                "     0.60", "     0.80", "     1.00"};
    const char* tNumbers[] = {"     0.00", "    60.00", "   120.00",
                              "   180.00", "   240.00", "   300.00"};
    for (std::size_t n = 0; n < 6; ++n) {
        EXPECT_EQ(texts[2 + n].text, chiNumbers[n]);
        EXPECT_EQ(texts[2 + n].x1, 71);
        EXPECT_EQ(texts[2 + n].y1, 600 - 99 * static_cast<int>(n) - 8);
        EXPECT_EQ(texts[8 + n].text, tNumbers[n]);
        EXPECT_EQ(texts[8 + n].x1, 141 + 148 * static_cast<int>(n) - 31);
        EXPECT_EQ(texts[8 + n].y1, 632);
    }
    // Everything selected is restored.
    EXPECT_EQ(surface.state().pen, Pen{});
    EXPECT_EQ(surface.state().font, LogFont{});
}

TEST_F(LayoutTest, NumberingFollowsLabelFromLabelToAndDigits) {
    loadDefault();
    AxisScale& t = plotSettings.tAxis;
    AxisScale& chi = plotSettings.chiAxis;
    t.labelTo = 180; // ticks up to 180 + 6.55
    t.digits = 0;
    t.majorInterval = 65.5f;
    chi.labelFrom = -0.1f; // below the range: no ticks at all
    drawAxes(surface);
    std::vector<std::string> numbers;
    for (const SurfaceCall& c : surface.callsOf(SurfaceOp::TextOut)) numbers.push_back(c.text);
    EXPECT_EQ(numbers, (std::vector<std::string>{"ChiT - T", "Temperature (K)", "        0",
                                                 "       65", "      131"}));
    for (const Line& line : lines()) EXPECT_NE(line[0], 123); // no tick on the left side
}

TEST_F(LayoutTest, VerticalNumbersThatWouldPrintAlikeGetTheFewestDecimalsThatTellThemApart) {
    EXPECT_EQ(readableDigits({0, 0.00026, 0.00052, 0.00078}, 2), 4);
    EXPECT_EQ(readableDigits({0, 0.25, 0.5}, 2), 2); // apart already: as set
    EXPECT_EQ(readableDigits({0, 0.5, 1.0}, 0), 1);  // whole numbers would print 0 0 1
    EXPECT_EQ(readableDigits({1, 1 + 1e-15}, 2), 2); // beyond any sensible decimals: as set
    EXPECT_EQ(readableDigits({0.1, 0.12}, 1), 2);

    // Values of about 0.001 (chi of an antiferromagnet): six different numbers instead of "0.00"
    // six times, and the title moved left of the wider numbers.
    load({{2, 0.0005}, {100, 0.0011}, {300, 0.0013}});
    drawAxes(surface);
    std::vector<std::string> numbers;
    int titleX = 0;
    int numberX = 0;
    for (const SurfaceCall& c : surface.callsOf(SurfaceOp::TextOut)) {
        if (c.text == "ChiT - T")
            titleX = c.x1;
        else if (c.x1 < plotLayout.frameLeft && c.y1 < plotLayout.frameBottom) {
            numbers.push_back(c.text);
            numberX = c.x1;
        }
    }
    ASSERT_EQ(numbers.size(), 6u);
    EXPECT_EQ(numbers.front(), "   0.0000");
    EXPECT_EQ(numbers.back(), "   0.0013");
    std::sort(numbers.begin(), numbers.end());
    EXPECT_EQ(std::adjacent_find(numbers.begin(), numbers.end()), numbers.end());
    EXPECT_LT(titleX, numberX);
}

TEST_F(LayoutTest, ADegenerateAxisDrawsTheFrameWithoutTicks) {
    load({{0, 0.0}, {0, 0.0}});
    EXPECT_EQ(plotSettings.tAxis.max, plotSettings.tAxis.min);
    drawAxes(surface);
    EXPECT_EQ(surface.callsOf(SurfaceOp::Rectangle).size(), 1u);
    EXPECT_TRUE(lines().empty());
    EXPECT_EQ(surface.callsOf(SurfaceOp::TextOut).size(), 2u); // the titles

    // Steps of less than a pixel, no minor intervals, a negative interval, a huge zoom.
    loadDefault();
    surface.calls.clear();
    plotSettings.tAxis.majorInterval = 0.1f;
    plotSettings.chiAxis.minorCount = 0;
    drawAxes(surface);
    for (const Line& line : lines()) EXPECT_TRUE(line[1] == line[3]) << line[0]; // chi only
    EXPECT_EQ(lines().size(), 12u);
    plotSettings.chiAxis.majorInterval = -0.2f;
    plotSettings.chiAxis.minorCount = 1000000000;
    plotSettings.zoom = 1e9f;
    plotSettings.tAxis.majorInterval = 1e-6f;
    paintPlot(surface); // returns, with the frame drawn
    EXPECT_EQ(surface.callsOf(SurfaceOp::Rectangle).size(), 2u);
}

TEST_F(LayoutTest, APrintScaleOf4WidensFrameLinesAndLengthensTicks) {
    RecordingSurface page(4096, 3072);
    loadDefault();
    plotSettings.labelFont.lfHeight = -20;
    paintPlot(page);
    EXPECT_EQ(plotLayout.printScale, 4.0f);
    const auto frame = page.callsOf(SurfaceOp::Rectangle);
    ASSERT_EQ(frame.size(), 1u);
    EXPECT_EQ(frame[0].pen.width, 8);
    const int bottom = frame[0].y2, left = frame[0].x1;
    const auto ticks = page.callsOf(SurfaceOp::LineTo);
    const SurfaceCall& major = ticks[0]; // the bottom tick of 0 K
    EXPECT_EQ(std::vector<int>({major.y1, major.y2}), std::vector<int>({bottom - 4, bottom - 24}));
    const auto leftTick = std::find_if(ticks.begin(), ticks.end(),
                                       [&](const SurfaceCall& c) { return c.x1 == left; });
    ASSERT_NE(leftTick, ticks.end());
    EXPECT_EQ(leftTick->x2, left + 20);
    // A chosen font is scaled for the page; its negative height is made positive first.
    EXPECT_EQ(plotSettings.labelFont.lfHeight, 20);
    EXPECT_EQ(page.callsOf(SurfaceOp::TextOut)[0].font.lfHeight, 80);
    // Markers and curve pens are not scaled.
    EXPECT_EQ(page.callsOf(SurfaceOp::Ellipse)[0].x2 - page.callsOf(SurfaceOp::Ellipse)[0].x1, 20);
}

} // namespace
} // namespace corvane
