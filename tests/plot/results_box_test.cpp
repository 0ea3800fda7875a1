// The results box and the residual panel on the recording surface.
#include <cmath>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "fit/results.h"
#include "plot/residuals.h"
#include "plot/results_box.h"
#include "plot_fixture.h"

namespace corvane {
namespace {

class ResultsBoxTest : public testing::PlotTest {
protected:
    // The default data with calculation 1 fitted: g and J1 free, C fixed at 0.002.
    void loadFitted() {
        loadDefault();
        fitDocument.energyUnit = EnergyUnit::Kelvin;
        fitDocument.jCount = 1;
        Calculation& calc = fitDocument.calculations[0];
        calc.deviation = 0.0123;
        calc.g = {2.0, 0.01, 2.0412, 0.0013};
        calc.c = {0.002, 0.0, 0.002, 0.0};
        calc.j[0] = {-200, 1, -229.93, 0.7};
    }
    std::vector<std::string> texts() const {
        std::vector<std::string> found;
        for (const SurfaceCall& c : surface.callsOf(SurfaceOp::TextOut)) found.push_back(c.text);
        return found;
    }
};

TEST(ResultsText, ValuesCarryTheirUncertaintyInTheLastDigitsTheyShow) {
    EXPECT_EQ(conciseValue(-229.93, 0.7), "-229.9(7)");
    EXPECT_EQ(conciseValue(2.0412, 0.0013), "2.0412(13)");  // a leading 1 keeps two digits
    EXPECT_EQ(conciseValue(2.0412, 0.00096), "2.0412(10)"); // 9.6 rounds up a place
    EXPECT_EQ(conciseValue(-231.4, 37), "-230(40)");
    EXPECT_EQ(conciseValue(0.5, 0), "0.5");            // fixed
    EXPECT_EQ(conciseValue(0.5, std::nan("")), "0.5"); // not known
    EXPECT_EQ(conciseValue(-16.58, HUGE_VAL), "-16.58 (undetermined)");
}

TEST_F(ResultsBoxTest, OffByDefaultAndOnItListsEachShownCalculationInItsColour) {
    loadFitted();
    paintPlot(surface);
    const std::size_t plain = surface.calls.size();
    EXPECT_TRUE(surface.callsOf(SurfaceOp::Rectangle).size() == 1u); // the frame alone

    plotSettings.showInfo = 1;
    surface.calls.clear();
    paintPlot(surface);
    EXPECT_GT(surface.calls.size(), plain);
    const std::vector<std::string> all = texts();
    const std::vector<std::string> box(all.end() - 4, all.end());
    EXPECT_EQ(box,
              (std::vector<std::string>{"# 1  D = 0.0123  D/(n-p) = 0.00308", "  g = 2.0412(13)",
                                        "  C = 0.002 cm3 K mol-1 (fixed)", "  J1 = -229.9(7) K"}));
    EXPECT_EQ(surface.callsOf(SurfaceOp::TextOut).back().textColour, plotColours[0]);

    // A warning and an interruption are marked; a hidden calculation has no lines.
    fitDocument.calculations[0].warnings = {"g lies outside 1 to 3"};
    fitDocument.calculations[0].end = FitEnd::Interrupted;
    EXPECT_EQ(resultsBoxLines(0).front(),
              "# 1  D = 0.0123  D/(n-p) = 0.00308  ! 1 warning  interrupted");
    plotSettings.curveShown[0] = 0;
    surface.calls.clear();
    paintPlot(surface);
    EXPECT_EQ(texts().size(), all.size() - 4);
}

TEST_F(ResultsBoxTest, TheBoxTakesTheCornerWithFewestPoints) {
    loadFitted(); // rising from bottom left to top right: the top left corner is free
    const DeviceBox box = resultsBoxPlace(200, 100, 10);
    EXPECT_EQ(box.left, plotLayout.frameLeft + 10);
    EXPECT_EQ(box.top, plotLayout.frameTop + 10);
    load({{60, 1.0}, {120, 0.9}, {180, 0.5}, {240, 0.2}, {300, 0.1}}); // falling: top right
    const DeviceBox falling = resultsBoxPlace(200, 100, 10);
    EXPECT_EQ(falling.right, plotLayout.frameRight - 10);
    EXPECT_EQ(falling.top, plotLayout.frameTop + 10);
}

TEST_F(ResultsBoxTest, TheResidualPanelShowsObservedMinusCalculatedUnderTheFrame) {
    load({{60, 0.25}, {120, 0.5}, {180, 0.5}}, 2); // calculation 2 fits 10 % high
    const int bottomWithout = plotLayout.frameBottom;
    plotSettings.showResiduals = 1;
    paintPlot(surface);
    const PlotLayout& l = plotLayout;
    EXPECT_LT(l.frameBottom, l.panelTop);
    EXPECT_EQ(l.panelBottom, bottomWithout);
    EXPECT_EQ(residualCalculation(), 1);
    // Three markers, the largest residual (-0.05 at 120 and 180 K) at the bottom of the panel,
    // -0.025 half-way down.
    const std::vector<SurfaceCall> markers = surface.callsOf(SurfaceOp::Ellipse);
    ASSERT_GE(markers.size(), 3u);
    const std::vector<SurfaceCall> residuals(markers.end() - 3, markers.end());
    const int middle = (l.panelTop + l.panelBottom) / 2, half = (l.panelBottom - l.panelTop) / 2;
    EXPECT_NEAR((residuals[0].y1 + residuals[0].y2) / 2, middle + half / 2.0, 1);
    EXPECT_EQ((residuals[1].y1 + residuals[1].y2) / 2, middle + half);
    EXPECT_EQ((residuals[1].x1 + residuals[1].x2) / 2, plotX(120));
    // The temperature numbers go under the panel.
    for (const SurfaceCall& c : surface.callsOf(SurfaceOp::TextOut)) {
        if (c.text.find("120.00") != std::string::npos) {
            EXPECT_GT(c.y1, l.panelBottom);
        }
    }
}

} // namespace
} // namespace corvane
