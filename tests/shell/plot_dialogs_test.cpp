// The dialogs of the Select, Zoom and Preference menus, opened from the window's commands and
// driven through the headless host.
#include <gtest/gtest.h>
#include <string>

#include "fit/fit_document.h"
#include "platform/headless_dialog.h"
#include "platform/resources.h"
#include "plot/paint.h"
#include "plot/plot_settings.h"
#include "shell/commands.h"
#include "shell/main_window.h"
#include "shell_fixture.h"
#include "text/text.h"

namespace corvane {
namespace {

class PlotDialogTest : public testing::ShellTest {
protected:
    void SetUp() override {
        ShellTest::SetUp();
        loadTwoPairs();
    }
    // Runs command with user acting on dialog name; the repaints it caused.
    int run(int command, const std::string& name, const HeadlessDialogPort::User& user) {
        dialogs.expect(name, user);
        const int before = host.repaints;
        MainWndProc({WindowMessage::Command, command, 0, 0, nullptr});
        EXPECT_EQ(dialogs.pendingUsers(), 0u) << name << " did not open";
        return host.repaints - before;
    }
    // OK refuses: a beep, the focus in field, the dialog open.
    void expectRefused(HeadlessDialog& d, int ok, int field) {
        const std::size_t beeps = messages.beeps.size();
        d.click(ok);
        EXPECT_FALSE(d.hasEnded());
        EXPECT_GT(messages.beeps.size(), beeps);
        EXPECT_TRUE(d.hasFocus(field)) << "focus in " << d.focus() << ", not " << field;
    }
};

TEST_F(PlotDialogTest, TheDisplayRangeTakesTwoRangesAndNumbersThemInFifths) {
    PlotSettings& s = plotSettings;
    command(idmSelectByMouse);
    const AxisScale chi = s.chiAxis;
    const int repaints = run(idmSelectCustomize, "DL_SELDOS", [&](HeadlessDialog& d) {
        EXPECT_EQ(d.text(100), formatC("%f", double(s.tAxis.min)));
        EXPECT_EQ(d.text(400), d.text(200));
        EXPECT_FALSE(d.isEnabled(995));
        retype(d, 300, "1e5"); // an exponent is refused at once
        EXPECT_TRUE(d.hasFocus(300));
        retype(d, 300, "300");
        retype(d, 400, "300.0");
        expectRefused(d, 998, 400); // no width
        retype(d, 300, " 10");
        retype(d, 400, "300 ");
        d.click(998);
        EXPECT_TRUE(d.hasEnded());
    });
    EXPECT_EQ(s.tAxis.min, 10.0f);
    EXPECT_EQ(s.tAxis.labelTo, 300.0f);
    EXPECT_EQ(s.tAxis.majorInterval, 58.0f);
    EXPECT_FLOAT_EQ(s.chiAxis.max, std::stof(formatC("%f", double(chi.max)))); // six decimals
    EXPECT_GE(repaints, 1);
    EXPECT_FALSE(shell.menu.isChecked(idmSelectByMouse) || shell.selectByMouse == 1);

    // Backwards is accepted; Cancel keeps everything.
    run(idmSelectCustomize, "DL_SELDOS", [](HeadlessDialog& d) {
        retype(d, 301, "2");
        retype(d, 401, "1");
        d.click(998);
    });
    EXPECT_EQ(s.chiAxis.min, 2.0f);
    EXPECT_EQ(s.chiAxis.majorInterval, -0.2f);
    const PlotSettings before = s;
    run(idmSelectCustomize, "DL_SELDOS", [](HeadlessDialog& d) {
        retype(d, 300, "50");
        d.click(999);
    });
    EXPECT_EQ(s.tAxis.min, before.tAxis.min);
}

TEST_F(PlotDialogTest, LabelingStoresWhatItCanNumberAndTheFontReachesTheAxes) {
    PlotSettings& s = plotSettings;
    run(idmLabel, "DL_LABEL", [&](HeadlessDialog& d) {
        EXPECT_EQ(d.text(100), "Temperature (K)");
        EXPECT_EQ(d.text(420), "2");
        retype(d, 100, std::string(100, 'x'));
        retype(d, 420, "-2"); // a sign passes while typing
        EXPECT_TRUE(d.hasFocus(420));
        retype(d, 300, "0");
        retype(d, 301, "300");
        retype(d, 400, "0");
        retype(d, 401, "300");
        for (const auto& [field, text] : {std::pair{410, "0"}, {430, "0"}, {720, "11"}}) {
            const std::string kept = d.text(field);
            retype(d, field, text);
            expectRefused(d, 998, field);
            retype(d, field, kept);
        }
        retype(d, 410, "25");
        retype(d, 601, d.text(600));
        expectRefused(d, 998, 601);
        retype(d, 601, "1.5");
        d.click(998);
    });
    EXPECT_EQ(std::string(s.xAxisLabel.data()), std::string(79, 'x'));
    EXPECT_EQ(s.tAxis.digits, 0);
    EXPECT_EQ(s.tAxis.majorInterval, 25.0f);
    EXPECT_EQ(s.chiAxis.max, 1.5f);

    // The axes are numbered 0, 25, ..., 300.
    paintPlot(screen);
    int numbers = 0;
    for (const SurfaceCall& c : screen.callsOf(SurfaceOp::TextOut))
        if (c.y1 > plotLayout.frameBottom &&
            c.text.find_first_not_of(" 0123456789") == std::string::npos)
            ++numbers;
    EXPECT_EQ(numbers, 13);

    // A font chosen and then cancelled stays, and the axes' text is drawn with it.
    FontChoice italic;
    italic.font.lfHeight = -16;
    italic.font.lfItalic = 1;
    setFaceName(italic.font, "Liberation Serif");
    italic.colour = 0x0000FF;
    choosers.fontAnswers = {std::nullopt, italic};
    run(idmLabel, "DL_LABEL", [](HeadlessDialog& d) {
        d.click(500); // cancelled in the chooser
        d.click(500);
        d.click(999);
    });
    EXPECT_EQ(choosers.fontRequests, (std::vector<Colour>{black, black}));
    EXPECT_EQ(s.labelColour, 0x0000FFu);
    screen.calls.clear();
    paintPlot(screen);
    const std::vector<SurfaceCall> texts = screen.callsOf(SurfaceOp::TextOut);
    ASSERT_FALSE(texts.empty());
    for (const SurfaceCall& c : texts) {
        EXPECT_STREQ(c.font.lfFaceName.data(), "Liberation Serif") << c.text;
        EXPECT_EQ(c.textColour, 0x0000FFu) << c.text;
    }
}

TEST_F(PlotDialogTest, CurveAttributesOfferTheLiveCurvesAndAWidthOfOneToFive) {
    CurveAttributes& c = plotSettings.curves;
    const CurveAttributes before = c;
    run(idmCurveAttributes, "DL_STYLE", [&](HeadlessDialog& d) {
        for (int n = 1; n <= 10; ++n) {
            EXPECT_EQ(d.isEnabled(100 + n), n <= 2) << n;
            EXPECT_EQ(d.isEnabled(200 + n), n <= 2) << n;
        }
        EXPECT_EQ(d.selection(1000), 0);
        d.chooseRow(102, 4);
        for (const char* width : {"7", "0"}) {
            retype(d, 1000, width);
            const std::size_t shown = messages.messages.size();
            expectRefused(d, 999, 1000);
            ASSERT_EQ(messages.messages.size(), shown + 1);
            EXPECT_EQ(messages.messages.back().text, "Width value range: 1 - 5 !");
        }
        retype(d, 1000, "x");
        expectRefused(d, 999, 1000);
        EXPECT_EQ(c.curveColour, before.curveColour); // not even the colour chosen meanwhile
        retype(d, 1000, "4");
        d.chooseRow(200, 2);
        d.click(999);
    });
    EXPECT_EQ(c.penWidth * 10 + c.penWidthChoice, 43);
    EXPECT_EQ(c.curveColour[1], 4);
    EXPECT_EQ(c.experimentalMarker, 2);

    // Points hidden: the marker box opens without a row, and the marker stays.
    plotSettings.experimentalShown = 0;
    run(idmCurveAttributes, "DL_STYLE", [](HeadlessDialog& d) {
        EXPECT_EQ(d.selection(200), -1);
        EXPECT_EQ(d.selection(1000), 3);
        d.click(999);
    });
    EXPECT_EQ(c.experimentalMarker, 2);
}

TEST_F(PlotDialogTest, ZoomAndBorderFactorsMultiplyAndCancelAsksFirst) {
    PlotSettings& s = plotSettings;
    for (int k = 0; k < 2; ++k)
        run(idmZoomCustomize, "DL_ZOOM", [](HeadlessDialog& d) { d.click(999); });
    EXPECT_EQ(s.zoom, 0.25f);
    run(idmZoomCustomize, "DL_ZOOM", [&](HeadlessDialog& d) {
        EXPECT_EQ(d.selection(100), 5);
        retype(d, 100, "123456789012345"); // the field takes 11 characters
        EXPECT_EQ(d.text(100), "12345678901");
        for (const char* refused : {"0", "-2", "2x"}) {
            retype(d, 100, refused);
            expectRefused(d, 999, 100);
        }
        retype(d, 100, "-"); // passes, holds no number: no change
        d.click(999);
    });
    EXPECT_EQ(s.zoom, 0.25f);
    EXPECT_EQ(s.zoomChoice, -1);
    run(idmZoomCustomize, "DL_ZOOM", [&](HeadlessDialog& d) {
        EXPECT_EQ(d.selection(100), -1);
        retype(d, 100, "2");
        messages.answers = {idNo};
        d.click(998);
        EXPECT_FALSE(d.hasEnded());
        EXPECT_EQ(messages.messages.back().text, "Are you sure to cancel ?");
        d.click(999);
    });
    EXPECT_EQ(s.zoom, 0.5f);

    // Ratio not fixed: the border ratios follow, even after a cancelled zoom.
    command(idmFixRatio);
    run(idmZoomCustomize, "DL_ZOOM", [&](HeadlessDialog& d) {
        messages.answers = {idYes};
        d.click(998);
    });
    dialogs.expect("DL_BORDER", [&](HeadlessDialog& d) {
        EXPECT_EQ(d.selection(100), 3);
        retype(d, 200, "x");
        expectRefused(d, 999, 200);
        EXPECT_EQ(s.horizontalRatio, 0.5f); // already applied
        d.chooseRow(200, 0);
        d.click(999);
    });
    EXPECT_EQ(dialogs.pendingUsers(), 1u);
    MainWndProc({WindowMessage::Command, idmZoomCustomize, 0, 0, nullptr});
    EXPECT_EQ(s.zoom, 0.5f);
    EXPECT_EQ(s.horizontalRatio, 0.25f); // the second OK applied it again
    EXPECT_EQ(s.verticalRatio, 3.0f);
    EXPECT_EQ(s.verticalRatioChoice, 0);
}

TEST_F(PlotDialogTest, TheBorderWidthIsAWholeNumberFromOne) {
    PlotSettings& s = plotSettings;
    run(idmBorderWidth, "DL_BORDERW", [](HeadlessDialog& d) {
        EXPECT_EQ(d.selection(100), 1);
        d.chooseRow(100, 9);
        d.click(999);
    });
    EXPECT_EQ(s.frameLineWidth * 100 + s.frameWidthChoice, 1009);
    run(idmBorderWidth, "DL_BORDERW", [&](HeadlessDialog& d) {
        for (const char* refused : {"0", "1.5"}) {
            retype(d, 100, refused);
            expectRefused(d, 999, 100);
        }
        retype(d, 100, "12");
        d.click(999);
    });
    EXPECT_EQ(s.frameLineWidth, 12);
    EXPECT_EQ(s.frameWidthChoice, -1);
    run(idmBorderWidth, "DL_BORDERW", [](HeadlessDialog& d) { d.closeBySystemMenu(); });
    EXPECT_EQ(s.frameLineWidth, 12);
}

} // namespace
} // namespace corvane
