// The main window without a display: its procedure driven by messages and commands, the
// dialogs through the headless host, the engine replaced by scripts (CORVANE_ENGINE).
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <thread>

#include "fit/exchange_files.h"
#include "fit/fit_document.h"
#include "fit/report.h"
#include "fit/run_state.h"
#include "platform/choosers.h"
#include "platform/headless_dialog.h"
#include "platform/recording_surface.h"
#include "platform/resources.h"
#include "plot/axes.h"
#include "plot/paint.h"
#include "plot/plot_settings.h"
#include "shell/commands.h"
#include "shell/main_window.h"
#include "shell_fixture.h"

namespace corvane {
namespace {

using testing::dimerInput;
using testing::dimerOutput;

class MainWindowTest : public testing::ShellTest {
protected:
    bool send(WindowMessage message, int command = 0) {
        return MainWndProc({message, command, 0, 0, nullptr});
    }
    void mouse(WindowMessage message, int x, int y) { MainWndProc({message, 0, x, y, nullptr}); }
    // A document of two calculations on a straight rising line, laid out on the screen.
    void loadLine() {
        fitDocument.pairCount = 3;
        fitDocument.pairs[0] = {100, 1.0};
        fitDocument.pairs[1] = {200, 2.0};
        fitDocument.pairs[2] = {300, 3.0};
        fitDocument.calculationCount = 2;
        for (int k = 0; k < 2; ++k) {
            fitDocument.calculations[slot(k + 1)].lastPair = 3;
            for (int i = 0; i < 3; ++i)
                fitDocument.calculations[slot(k + 1)].fittedValues[static_cast<std::size_t>(i)] =
                    (i + 1) * (k == 0 ? 1.0 : 0.5);
        }
        refreshAfterLoad(false);
        paintPlot(screen);
    }

    void useGoodEngine() {
        useEngine(std::string("echo 'iteration 1 deviation 0.5'\nprintf '") + dimerOutput +
                  "' > \"$out\"");
    }
};

TEST_F(MainWindowTest, AtStartOnlyFileAndAboutAreUsableAndTheMarksFollowTheirFlags) {
    for (int position = 0; position <= 6; ++position)
        EXPECT_EQ(shell.menu.isEnabled(AtPosition{position}), position == 0 || position == 6);
    send(WindowMessage::Create);
    EXPECT_TRUE(shell.menu.isChecked(idmFixRatio));
    EXPECT_FALSE(shell.menu.isChecked(idmGridLines));

    // The About box closes with OK; no repaint.
    dialogs.expect("DL_ABOUT", [](HeadlessDialog& d) { d.click(999); });
    EXPECT_TRUE(command(idmAbout));
    EXPECT_EQ(host.repaints, 0);
    EXPECT_EQ(dialogs.opened().back(), "DL_ABOUT");

    // A press in the window closes the cover page; Exit and the window's end quit with 0.
    send(WindowMessage::LeftButtonDown);
    EXPECT_FALSE(host.coverOpen);
    EXPECT_FALSE(send(WindowMessage::Close)); // left to the host: it destroys the window
    command(idmExit);
    EXPECT_EQ(host.exitCode, 0);
}

TEST_F(MainWindowTest, DisplayCommandsToggleTheirFlagsMarksAndRepaint) {
    loadTwoPairs();
    host.repaints = 0;

    command(idmExperimental);
    EXPECT_EQ(plotSettings.experimentalShown, 0);
    EXPECT_FALSE(shell.menu.isChecked(idmExperimental));
    command(idmFitted1);
    EXPECT_EQ(plotSettings.curveShown[0], 1);
    EXPECT_TRUE(shell.menu.isChecked(idmFitted1));
    command(idmSwitch);
    command(idmSwitch);
    EXPECT_EQ(plotSettings.showChi, 0);
    EXPECT_FALSE(shell.menu.isChecked(idmSwitch));
    command(idmGridLines);
    EXPECT_EQ(plotSettings.gridLines, 1);
    EXPECT_EQ(host.repaints, 5);

    // Default clears the grid; its mark follows at the next message.
    command(idmDisplayDefault);
    EXPECT_EQ(plotSettings.gridLines, 0);
    EXPECT_TRUE(shell.menu.isChecked(idmGridLines));
    send(WindowMessage::Paint);
    EXPECT_FALSE(shell.menu.isChecked(idmGridLines));

    // Fix W/H ratio toggles without a repaint; Show Info is not handled and changes nothing.
    const int before = host.repaints;
    command(idmFixRatio);
    EXPECT_EQ(plotSettings.fixedAspect, 0);
    EXPECT_FALSE(command(idmShowInfo));
    EXPECT_EQ(host.repaints, before);
}

TEST_F(MainWindowTest, TheMouseModesExcludeEachOtherAndCustomizeEndsThem) {
    command(idmDetails);
    EXPECT_EQ(shell.detailsPick, 1);
    EXPECT_TRUE(shell.menu.isChecked(idmDetails));
    command(idmSelectByMouse); // ends Details
    EXPECT_EQ(shell.detailsPick + shell.selectByMouse * 10, 10);
    EXPECT_FALSE(shell.menu.isChecked(idmDetails));
    command(idmZoomByMouse); // ends Select
    EXPECT_EQ(shell.selectByMouse + shell.zoomByMouse * 10, 10);
    command(idmZoomByMouse); // leaves Zoom
    EXPECT_EQ(shell.zoomByMouse, 0);
    command(idmDetails);
    command(idmSelectCustomize); // ends all three, repaints
    EXPECT_EQ(shell.detailsPick + shell.selectByMouse + shell.zoomByMouse, 0);
    EXPECT_FALSE(shell.menu.isChecked(idmDetails));
    command(idmZoomByMouse);
    command(idmZoomDefault);
    EXPECT_FALSE(shell.menu.isChecked(idmZoomByMouse));
}

TEST_F(MainWindowTest, ZoomByMouseScalesTheFrameAsThePointerMovesWithinTheWindow) {
    loadLine();
    command(idmZoomByMouse);
    mouse(WindowMessage::LeftButtonDown, 500, 300);
    mouse(WindowMessage::MouseMove, 510, 305); // fixed ratio: both directions on the zoom
    EXPECT_FLOAT_EQ(plotSettings.zoom, static_cast<float>(1.0 * (1 + 15.0 / 705)));
    const float zoom = plotSettings.zoom;
    mouse(WindowMessage::MouseMove, -3, 100);  // left of the window: ignored
    mouse(WindowMessage::MouseMove, 510, 305); // where it was: ignored
    EXPECT_EQ(plotSettings.zoom, zoom);
    mouse(WindowMessage::LeftButtonUp, 510, 305);

    command(idmFixRatio); // free ratios: each direction on its own
    mouse(WindowMessage::LeftButtonDown, 500, 300);
    mouse(WindowMessage::MouseMove, 510, 300);
    EXPECT_FLOAT_EQ(plotSettings.horizontalRatio, static_cast<float>(1 + 10.0 / 1024));
    EXPECT_EQ(plotSettings.verticalRatio, 1.0f);
    mouse(WindowMessage::MouseMove, 2000, -50); // held one pixel inside, and at the top
    EXPECT_EQ(shell.dragLastX * 10000 + shell.dragLastY, 1023 * 10000 + 0);
    mouse(WindowMessage::MouseMove, 1023, 5000); // below: one pixel inside
    EXPECT_EQ(shell.dragLastY, 704);
    mouse(WindowMessage::LeftButtonUp, 0, 0);
    EXPECT_EQ(shell.dragging, 0);
    EXPECT_EQ(shell.zoomByMouse, 1); // the mode stays on
}

TEST_F(MainWindowTest, ABandSelectsTheRangesAndAClickPicksTheShownCurveUnderIt) {
    loadLine();
    const PlotLayout l = plotLayout;
    const AxisScale t = plotSettings.tAxis, chi = plotSettings.chiAxis;
    command(idmSelectByMouse);
    mouse(WindowMessage::LeftButtonUp, 600, 300); // no press in select mode: nothing applied
    EXPECT_EQ(plotSettings.tAxis.max, t.max);

    // A band drawn right to left and bottom to top: the axes run the other way.
    const int x0 = l.frameRight - 10, x1 = l.frameLeft + 20, y0 = l.frameBottom - 5,
              y1 = l.frameTop + 15;
    mouse(WindowMessage::LeftButtonDown, x0, y0);
    mouse(WindowMessage::MouseMove, x1, y1);
    EXPECT_EQ(host.band, (std::vector<int>{x0, y0, x1, y1}));
    mouse(WindowMessage::LeftButtonUp, 5, 5); // the last accepted move counts, not the release
    EXPECT_TRUE(host.band.empty());
    const float w = static_cast<float>(l.frameRight - l.frameLeft);
    const float h = static_cast<float>(l.frameBottom - l.frameTop);
    const auto f = [](int v) { return static_cast<float>(v); };
    EXPECT_FLOAT_EQ(plotSettings.tAxis.min, t.min + (t.max - t.min) * f(x0 - l.frameLeft) / w);
    EXPECT_FLOAT_EQ(plotSettings.tAxis.max, t.min + (t.max - t.min) * f(x1 - l.frameLeft) / w);
    EXPECT_GT(plotSettings.tAxis.min, plotSettings.tAxis.max);
    EXPECT_GT(plotSettings.chiAxis.min, plotSettings.chiAxis.max);
    EXPECT_FLOAT_EQ(plotSettings.chiAxis.max,
                    chi.max - (chi.max - chi.min) * f(y0 - l.frameTop) / h);

    // A click without a move: both ends the value under it, each maximum raised by 0.00001.
    mouse(WindowMessage::LeftButtonDown, 500, 300);
    mouse(WindowMessage::LeftButtonUp, 500, 300);
    EXPECT_GT(plotSettings.tAxis.max, plotSettings.tAxis.min);
    EXPECT_LT(plotSettings.tAxis.max - plotSettings.tAxis.min, 0.0001f);

    // Picks, on the ranges of the data again: curve 1 (chiT = T / 100) at T = 150 K, shown;
    // curve 2 (half of it) hidden.
    command(idmSelectDefault);
    plotSettings.curveShown = {1, 0};
    paintPlot(screen);
    const int x = plotX(150.0), y = plotY(1.5);
    EXPECT_EQ(pickCurve(x, y + 3), 0);
    EXPECT_EQ(pickCurve(x, y + 5), -1);
    EXPECT_EQ(pickCurve(plotLayout.frameLeft, y), -1);
    EXPECT_EQ(pickCurve(x, plotY(0.75)), -1); // curve 2 lies there, but is hidden
    plotSettings.curveShown[1] = 1;
    EXPECT_EQ(pickCurve(x, plotY(0.75)), 1);
}

TEST_F(MainWindowTest, OpenFitsWithTheProgressDialogAndEnablesTheNewCurve) {
    useGoodEngine();
    choosers.answers.push_back(dir.write("cu2.qpi", dimerInput));
    expectProgress();
    command(idmOpen);
    for (int position = 1; position <= 5; ++position)
        EXPECT_TRUE(shell.menu.isEnabled(AtPosition{position}));
    EXPECT_TRUE(shell.menu.isEnabled(idmFitted1) && shell.menu.isChecked(idmFitted1));
    EXPECT_FALSE(shell.menu.isEnabled(idmFitted1 + 1));
    EXPECT_TRUE(shell.menu.isChecked(idmExperimental));
    EXPECT_EQ(plotSettings.plotLoaded, 1);
    EXPECT_TRUE(messages.messages.empty());

    // Plot of a report of three calculations: "# 1" .. "# 3" usable, only "# 3" shown.
    auto three = std::make_unique<FitDocument>(fitDocument);
    three->calculationCount = 3;
    three->calculations[1] = three->calculations[2] = three->calculations[0];
    const std::string report = dir.write("three.qpo", reportText(*three, "d"));
    choosers.answers.push_back(report);
    command(idmPlot);
    EXPECT_EQ(fitDocument.calculationCount, 3);
    for (int k = 1; k <= 10; ++k) {
        EXPECT_EQ(shell.menu.isEnabled(idmFitted1 + k - 1), k <= 3) << k;
        EXPECT_EQ(shell.menu.isChecked(idmFitted1 + k - 1), k == 3) << k;
    }

    // Re-calculate of calculation 2 keeps it current and the only curve shown.
    fitDocument.currentCalculation = 1;
    ASSERT_TRUE(writeDialogEngineInput());
    expectProgress();
    command(idmRecalculate);
    EXPECT_EQ(fitDocument.currentCalculation, 1);
    EXPECT_TRUE(shell.menu.isChecked(idmFitted1 + 1));
    EXPECT_FALSE(shell.menu.isChecked(idmFitted1 + 2));
}

TEST_F(MainWindowTest, AFailedRunKeepsTheDialogWithTheReasonAndChangesNothing) {
    useGoodEngine();
    choosers.answers.push_back(dir.write("cu2.qpi", dimerInput));
    expectProgress();
    command(idmOpen);
    const std::string report = dir.read("cu2.qpo");
    const std::string document = reportText(fitDocument, "");

    const struct {
        const char* name;
        std::string engine; // script body; empty: no engine
        std::string status;
    } faults[] = {
        {"missing", "", "Unable to fit magnetic susceptibility !"},
        {"failing", "echo 'input.txt line 4: site 2 has spin 0' >&2; exit 2", "site 2 has spin 0"},
    };
    for (const auto& fault : faults) {
        SCOPED_TRACE(fault.name);
        if (fault.engine.empty())
            setenv("CORVANE_ENGINE", dir.file("none").c_str(), 1);
        else
            useEngine(fault.engine);
        choosers.answers.push_back(dir.file("cu2.qpi"));
        std::string status;
        expectProgress(&status);
        command(idmOpen);
        EXPECT_NE(status.find(fault.status), std::string::npos) << status;
        EXPECT_EQ(dir.read("cu2.qpo"), report);
        EXPECT_EQ(reportText(fitDocument, ""), document);
    }
    EXPECT_TRUE(messages.messages.empty()); // the dialog said it
}

TEST_F(MainWindowTest, InterruptGivesTheBestFitSoFarAndLogFileShowsTheLog) {
    useEngine(std::string("trap 'printf \"") + dimerOutput +
              "\" > \"$out\"; exit 3' TERM\necho 'iteration 1 deviation 0.5'\n"
              "while :; do sleep 0.02; done");
    choosers.answers.push_back(dir.write("cu2.qpi", dimerInput));
    dialogs.expect("DL_SPIN", [](HeadlessDialog& d) {
        for (int round = 0; round < 50 && d.text(100).find("Iteration 1") == std::string::npos;
             ++round) {
            d.tick();
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        EXPECT_TRUE(d.isChecked(1));
        EXPECT_FALSE(d.isChecked(2));
        d.click(999);
        d.click(998);
        for (int round = 0; round < 2000 && !d.hasEnded() && d.tick(); ++round)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    });
    command(idmOpen);
    EXPECT_EQ(host.log, runState.workDir + "/corefit.log"); // the run's own folder
    EXPECT_TRUE(runState.lastEngineRun.interrupted);
    EXPECT_EQ(fitDocument.calculations[0].deviation, 0.0125);
    EXPECT_EQ(plotSettings.plotLoaded, 1);
}

} // namespace
} // namespace corvane
