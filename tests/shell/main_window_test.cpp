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
#include "plot/axes.h"
#include "plot/paint.h"
#include "plot/plot_settings.h"
#include "resources/dialog_ids.h"
#include "resources/resources.h"
#include "shell/commands.h"
#include "shell/main_window.h"
#include "support/magnet_set.h"
#include "support/shell_fixture.h"

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
    dialogs.expect("DL_ABOUT", [](HeadlessDialog& d) { d.click(AboutControl::ok); });
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

    // Fix W/H ratio toggles without a repaint; Show Info and Residuals toggle their flags and
    // marks, off at start, and repaint.
    const int before = host.repaints;
    command(idmFixRatio);
    EXPECT_EQ(plotSettings.fixedAspect, 0);
    EXPECT_EQ(host.repaints, before);
    for (const auto& [id, flag] : {std::pair{idmShowInfo, &PlotSettings::showInfo},
                                   std::pair{idmResiduals, &PlotSettings::showResiduals}}) {
        EXPECT_EQ(plotSettings.*flag, 0);
        EXPECT_TRUE(command(id));
        EXPECT_EQ(plotSettings.*flag, 1);
        EXPECT_TRUE(shell.menu.isChecked(id));
        command(id);
        EXPECT_FALSE(shell.menu.isChecked(id));
    }
    EXPECT_EQ(host.repaints, before + 4);
}

TEST_F(MainWindowTest, TheMouseModesExcludeEachOtherAndTheirDefaultsAndCustomizeEndThem) {
    const auto checked = [this] {
        return std::vector<bool>{shell.menu.isChecked(idmDetails),
                                 shell.menu.isChecked(idmSelectByMouse),
                                 shell.menu.isChecked(idmZoomByMouse)};
    };
    command(idmDetails);
    EXPECT_EQ(shell.mouseMode, MouseMode::Details);
    EXPECT_EQ(host.cursor, CursorShape::Cross);
    command(idmSelectByMouse); // ends Details, gives the pointer back
    EXPECT_EQ(shell.mouseMode, MouseMode::Select);
    EXPECT_EQ(checked(), (std::vector<bool>{false, true, false}));
    EXPECT_EQ(host.cursor, CursorShape::Arrow);
    EXPECT_FALSE(host.captured);
    command(idmZoomByMouse); // ends Select
    EXPECT_EQ(checked(), (std::vector<bool>{false, false, true}));
    command(idmZoomByMouse); // leaves Zoom
    EXPECT_EQ(shell.mouseMode, MouseMode::None);
    command(idmDetails);
    command(idmSelectCustomize); // ends every mode, repaints
    EXPECT_EQ(shell.mouseMode, MouseMode::None);
    EXPECT_EQ(checked(), (std::vector<bool>{false, false, false}));

    // Each Default ends its own mode, and only that one.
    loadLine();
    command(idmSelectByMouse);
    command(idmZoomDefault);
    EXPECT_EQ(shell.mouseMode, MouseMode::Select);
    command(idmSelectDefault);
    EXPECT_EQ(shell.mouseMode, MouseMode::None);
    EXPECT_EQ(checked(), (std::vector<bool>{false, false, false}));
    const AxisScale t = plotSettings.tAxis;
    mouse(WindowMessage::LeftButtonDown, plotX(150), plotY(1));
    mouse(WindowMessage::MouseMove, plotX(250), plotY(2));
    mouse(WindowMessage::LeftButtonUp, plotX(250), plotY(2));
    EXPECT_EQ(plotSettings.tAxis.max, t.max); // no mode: a drag selects nothing
    command(idmZoomByMouse);
    command(idmSelectDefault);
    EXPECT_EQ(shell.mouseMode, MouseMode::Zoom);
    command(idmZoomDefault);
    EXPECT_EQ(shell.mouseMode, MouseMode::None);
    EXPECT_EQ(checked(), (std::vector<bool>{false, false, false}));
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
    // Up and left by more than the window's height: the factor would turn negative and stops
    // at its floor.
    mouse(WindowMessage::MouseMove, 0, 0);
    EXPECT_EQ(plotSettings.zoom, 0.001f);
    mouse(WindowMessage::LeftButtonUp, 0, 0);
    command(idmZoomDefault);
    command(idmZoomByMouse);

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
    EXPECT_FALSE(shell.dragging);
    EXPECT_EQ(shell.mouseMode, MouseMode::Zoom); // the mode stays on
}

TEST_F(MainWindowTest, ABandSelectsTheRangesAndAClickPicksTheShownCurveUnderIt) {
    loadLine();
    const AxisScale t = plotSettings.tAxis, chi = plotSettings.chiAxis;
    // One pixel in data units: how near a band's end comes to the value asked for.
    const double tPixel = (static_cast<double>(t.max) - t.min) / frameWidth();
    const double chiPixel = (static_cast<double>(chi.max) - chi.min) / frameHeight();
    command(idmSelectByMouse);
    mouse(WindowMessage::LeftButtonUp, 600, 300); // no press in select mode: nothing applied
    EXPECT_EQ(plotSettings.tAxis.max, t.max);

    // Pressed at 150 K and chiT 2.5, released at 250 K and chiT 1 (a band drawn down and to the
    // right): those become the ranges.
    mouse(WindowMessage::LeftButtonDown, plotX(150), plotY(2.5));
    mouse(WindowMessage::MouseMove, plotX(250), plotY(1));
    EXPECT_EQ(host.band, (std::vector<int>{plotX(150), plotY(2.5), plotX(250), plotY(1)}));
    mouse(WindowMessage::LeftButtonUp, 5, 5); // the last accepted move counts, not the release
    EXPECT_TRUE(host.band.empty());
    EXPECT_NEAR(plotSettings.tAxis.min, 150, tPixel);
    EXPECT_NEAR(plotSettings.tAxis.max, 250, tPixel);
    EXPECT_NEAR(plotSettings.chiAxis.min, 1, chiPixel);
    EXPECT_NEAR(plotSettings.chiAxis.max, 2.5, chiPixel);
    EXPECT_FLOAT_EQ(plotSettings.tAxis.majorInterval,
                    (plotSettings.tAxis.max - plotSettings.tAxis.min) / 5);

    // A band drawn up and to the left: both axes run the other way.
    command(idmSelectDefault);
    command(idmSelectByMouse);
    mouse(WindowMessage::LeftButtonDown, plotX(250), plotY(1));
    mouse(WindowMessage::MouseMove, plotX(150), plotY(2.5));
    mouse(WindowMessage::LeftButtonUp, plotX(150), plotY(2.5));
    EXPECT_NEAR(plotSettings.tAxis.min, 250, tPixel);
    EXPECT_NEAR(plotSettings.tAxis.max, 150, tPixel);
    EXPECT_NEAR(plotSettings.chiAxis.min, 2.5, chiPixel);
    EXPECT_NEAR(plotSettings.chiAxis.max, 1, chiPixel);

    // A click without a move: both ends the value under it, each maximum raised by 0.00001.
    command(idmSelectDefault);
    command(idmSelectByMouse);
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

TEST_F(MainWindowTest, MagnetizationShowsTheMViewOfADocumentWithAMagnetisationSet) {
    loadTwoPairs(); // no magnetisation set: greyed, and the command does nothing
    EXPECT_FALSE(shell.menu.isEnabled(idmMagnetView));
    command(idmMagnetView);
    EXPECT_EQ(plotSettings.magnetView, 0);

    testing::addMagnetSet(fitDocument);
    refreshAfterLoad(false);
    const AxisScale chiT = plotSettings.tAxis;
    command(idmMagnetView);
    EXPECT_EQ(plotSettings.magnetView, 1);
    EXPECT_TRUE(shell.menu.isEnabled(idmMagnetView) && shell.menu.isChecked(idmMagnetView));
    EXPECT_FALSE(shell.menu.isEnabled(idmSwitch)); // chi and chiT belong to the other view

    // Zoom by mouse grows the frame; a band from 1 T and M 3 to 3 T and M 1 becomes the M
    // view's ranges, which it keeps while the chi view is shown.
    paintPlot(screen);
    const int width = frameWidth();
    command(idmZoomByMouse);
    mouse(WindowMessage::LeftButtonDown, 500, 300);
    mouse(WindowMessage::MouseMove, 520, 310);
    mouse(WindowMessage::LeftButtonUp, 520, 310);
    paintPlot(screen);
    EXPECT_NEAR(frameWidth(), width * (1 + 30.0 / 705), 2.0);
    EXPECT_EQ(plotSettings.tAxis.max, 5.0f);
    command(idmSelectByMouse);
    mouse(WindowMessage::LeftButtonDown, plotX(1), plotY(3));
    mouse(WindowMessage::MouseMove, plotX(3), plotY(1));
    mouse(WindowMessage::LeftButtonUp, plotX(3), plotY(1));
    EXPECT_NEAR(plotSettings.tAxis.max, 3, 5.0 / frameWidth());
    EXPECT_NEAR(plotSettings.chiAxis.max, 3, 4.0 / frameHeight());
    const AxisScale field = plotSettings.tAxis;
    command(idmMagnetView);
    EXPECT_FALSE(shell.menu.isChecked(idmMagnetView));
    EXPECT_EQ(plotSettings.tAxis.max, chiT.max);
    command(idmMagnetView);
    EXPECT_EQ(plotSettings.tAxis.max, field.max);
    EXPECT_EQ(pickCurve(plotX(2), plotY(0.9 * 2.75)), 1); // Details picks in the M view

    // Fitted again, a calculation stays in the M view; a load returns to the chi view.
    refreshAfterLoad(true);
    EXPECT_EQ(plotSettings.magnetView, 1);
    refreshAfterLoad(false);
    EXPECT_FALSE(plotSettings.magnetView == 1 || shell.menu.isChecked(idmMagnetView));
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
    EXPECT_EQ(host.title, std::string(mainWindowTitle) + " - cu2.qpo");

    // Ctrl+C: the shown calculation's results as a table for a spreadsheet.
    command(idmCopy);
    EXPECT_EQ(host.clipboard.substr(0, host.clipboard.find('\n')),
              "Calculation\tg\tu(g)\tC (cm3 K mol-1)\tu(C)\tzJ (K)\tu(zJ)\tXtip (cm3 mol-1)"
              "\tu(Xtip)\tJ1 (K)\tu(J1)\tD\tD/(n-p)");
    EXPECT_EQ(host.clipboard.substr(host.clipboard.find('\n') + 1),
              "# 1\t2.1\t0.01\t0.003\t0.001\t-0.2\tfixed\t0.00015\tfixed\t-97.25\t0.5\t0.0125"
              "\t\n"); // two points for three parameters: no D/(n-p)

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
    ASSERT_TRUE(writeDialogEngineInput(1));
    expectProgress();
    command(idmRecalculate);
    EXPECT_EQ(fitDocument.currentCalculation, 1);
    EXPECT_TRUE(shell.menu.isChecked(idmFitted1 + 1));
    EXPECT_FALSE(shell.menu.isChecked(idmFitted1 + 2));

    // A file named on the command line or dropped: a report is plotted, whatever the case of its
    // extension, and anything else fitted.
    for (const char* name : {"one.qpo", "ONE.QPO"}) {
        auto one = std::make_unique<FitDocument>(*three);
        one->calculationCount = 1;
        openFile(dir.write(name, reportText(*one, "d")));
        EXPECT_EQ(fitDocument.calculationCount, 1) << name;
        EXPECT_EQ(runState.reportPath, dir.file(name));
    }
    expectProgress();
    openFile(dir.write("cu2.input", dimerInput));
    EXPECT_EQ(runState.reportPath, dir.file("cu2.qpo"));
    EXPECT_EQ(dialogs.pendingUsers(), 0u);
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
        for (int round = 0;
             round < 50 && d.text(SpinControl::statusLine).find("Iteration 1") == std::string::npos;
             ++round) {
            d.tick();
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        EXPECT_TRUE(d.isChecked(1));
        EXPECT_FALSE(d.isChecked(2));
        d.click(SpinControl::logFile);
        d.click(SpinControl::interrupt);
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
