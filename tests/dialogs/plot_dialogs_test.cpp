// The dialogs of the Select, Zoom and Preference menus, opened from the window's commands and
// driven through the headless host.
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "fit/fit_document.h"
#include "platform/headless_dialog.h"
#include "plot/paint.h"
#include "plot/plot_settings.h"
#include "resources/dialog_ids.h"
#include "resources/resources.h"
#include "shell/commands.h"
#include "shell/main_window.h"
#include "support/magnet_set.h"
#include "support/shell_fixture.h"
#include "text/text.h"

namespace corvane {
namespace {

using R = RangeControl;
using L = LabelControl;
using S = StyleControl;
using B = BoxControl;

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
        EXPECT_EQ(d.text(R::tMin), formatC("%f", double(s.tAxis.min)));
        EXPECT_EQ(d.text(R::newTMax), d.text(R::tMax));
        EXPECT_FALSE(d.isEnabled(helpButton));
        retype(d, R::newTMin, "1e5"); // an exponent is refused at once
        EXPECT_TRUE(d.hasFocus(R::newTMin));
        retype(d, R::newTMin, "300");
        retype(d, R::newTMax, "300.0");
        expectRefused(d, R::ok, R::newTMax); // no width
        retype(d, R::newTMin, " 10");
        retype(d, R::newTMax, "300 ");
        d.click(R::ok);
        EXPECT_TRUE(d.hasEnded());
    });
    EXPECT_EQ(s.tAxis.min, 10.0f);
    EXPECT_EQ(s.tAxis.labelTo, 300.0f);
    EXPECT_EQ(s.tAxis.majorInterval, 58.0f);
    EXPECT_FLOAT_EQ(s.chiAxis.max, std::stof(formatC("%f", double(chi.max)))); // six decimals
    EXPECT_GE(repaints, 1);
    EXPECT_FALSE(shell.menu.isChecked(idmSelectByMouse) || shell.mouseMode == MouseMode::Select);

    // Backwards is accepted; Cancel keeps everything.
    run(idmSelectCustomize, "DL_SELDOS", [](HeadlessDialog& d) {
        retype(d, R::newChiMin, "2");
        retype(d, R::newChiMax, "1");
        d.click(R::ok);
    });
    EXPECT_EQ(s.chiAxis.min, 2.0f);
    EXPECT_EQ(s.chiAxis.majorInterval, -0.2f);
    const PlotSettings before = s;
    run(idmSelectCustomize, "DL_SELDOS", [](HeadlessDialog& d) {
        retype(d, R::newTMin, "50");
        d.click(R::cancel);
    });
    EXPECT_EQ(s.tAxis.min, before.tAxis.min);
}

TEST_F(PlotDialogTest, InTheMViewTheDisplayRangeIsThatOfFieldAndM) {
    PlotSettings& s = plotSettings;
    testing::addMagnetSet(fitDocument);
    refreshAfterLoad(false);
    command(idmMagnetView);
    run(idmSelectCustomize, "DL_SELDOS", [](HeadlessDialog& d) {
        EXPECT_EQ(d.text(R::tGroup) + ", " + d.text(R::chiGroup), "Field Range, M Range");
        EXPECT_EQ(d.text(R::newTUnit) + " " + d.text(R::newChiUnit), "T N\u03bcB");
        EXPECT_EQ(d.text(R::tMax) + " " + d.text(R::chiMax), "5.000000 4.000000");
        retype(d, R::newTMin, "1");
        retype(d, R::newTMax, "4");
        retype(d, R::newChiMax, "3");
        d.click(R::ok);
    });
    EXPECT_EQ(std::vector<float>({s.tAxis.min, s.tAxis.max, s.chiAxis.max}),
              std::vector<float>({1, 4, 3}));
}

TEST_F(PlotDialogTest, LabelingStoresWhatItCanNumberAndTheFontReachesTheAxes) {
    PlotSettings& s = plotSettings;
    run(idmLabel, "DL_LABEL", [&](HeadlessDialog& d) {
        EXPECT_EQ(d.text(L::xTitle), "Temperature (K)");
        EXPECT_EQ(d.text(L::tAxis + L::digits), "2");
        retype(d, L::xTitle, std::string(100, 'x'));
        retype(d, L::tAxis + L::digits, "-2"); // a sign passes while typing
        EXPECT_TRUE(d.hasFocus(L::tAxis + L::digits));
        retype(d, L::tAxis + L::min, "0");
        retype(d, L::tAxis + L::max, "300");
        retype(d, L::tAxis + L::from, "0");
        retype(d, L::tAxis + L::to, "300");
        for (const auto& [field, text] : {std::pair{L::tAxis + L::interval, "0"},
                                          {L::tAxis + L::minorCount, "0"},
                                          {L::chiAxis + L::digits, "11"}}) {
            const std::string kept = d.text(field);
            retype(d, field, text);
            expectRefused(d, L::ok, field);
            retype(d, field, kept);
        }
        retype(d, L::tAxis + L::interval, "25");
        retype(d, L::chiAxis + L::max, d.text(L::chiAxis + L::min));
        expectRefused(d, L::ok, L::chiAxis + L::max);
        retype(d, L::chiAxis + L::max, "1.5");
        d.click(L::ok);
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
        d.click(L::font); // cancelled in the chooser
        d.click(L::font);
        d.click(L::cancel);
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
            EXPECT_EQ(d.isEnabled(S::colour + n), n <= 2) << n;
            EXPECT_EQ(d.isEnabled(S::marker + n), n <= 2) << n;
        }
        EXPECT_EQ(d.selection(S::width), 0);
        d.chooseRow(S::colour + 2, 4);
        for (const char* width : {"7", "0"}) {
            retype(d, S::width, width);
            const std::size_t shown = messages.messages.size();
            expectRefused(d, S::ok, S::width);
            ASSERT_EQ(messages.messages.size(), shown + 1);
            EXPECT_EQ(messages.messages.back().text, "Width value range: 1 - 5 !");
        }
        retype(d, S::width, "x");
        expectRefused(d, S::ok, S::width);
        EXPECT_EQ(c.curveColour, before.curveColour); // not even the colour chosen meanwhile
        retype(d, S::width, "4");
        d.chooseRow(S::marker, 2);
        d.click(S::ok);
    });
    EXPECT_EQ(c.penWidth * 10 + c.penWidthChoice, 43);
    EXPECT_EQ(c.curveColour[1], 4);
    EXPECT_EQ(c.experimentalMarker, 2);

    // Points hidden: the marker box opens without a row, and the marker stays.
    plotSettings.experimentalShown = 0;
    run(idmCurveAttributes, "DL_STYLE", [](HeadlessDialog& d) {
        EXPECT_EQ(d.selection(S::marker), -1);
        EXPECT_EQ(d.selection(S::width), 3);
        d.click(S::ok);
    });
    EXPECT_EQ(c.experimentalMarker, 2);
}

TEST_F(PlotDialogTest, ZoomAndBorderFactorsMultiplyAndCancelAsksFirst) {
    PlotSettings& s = plotSettings;
    for (int k = 0; k < 2; ++k)
        run(idmZoomCustomize, "DL_ZOOM", [](HeadlessDialog& d) { d.click(B::ok); });
    EXPECT_EQ(s.zoom, 0.25f);
    run(idmZoomCustomize, "DL_ZOOM", [&](HeadlessDialog& d) {
        EXPECT_EQ(d.selection(B::first), 5);
        retype(d, B::first, "123456789012345"); // the field takes 11 characters
        EXPECT_EQ(d.text(B::first), "12345678901");
        for (const char* refused : {"0", "-2", "2x"}) {
            retype(d, B::first, refused);
            expectRefused(d, B::ok, B::first);
        }
        retype(d, B::first, "-"); // passes, holds no number: no change
        d.click(B::ok);
    });
    EXPECT_EQ(s.zoom, 0.25f);
    EXPECT_EQ(s.zoomChoice, -1);
    run(idmZoomCustomize, "DL_ZOOM", [&](HeadlessDialog& d) {
        EXPECT_EQ(d.selection(B::first), -1);
        retype(d, B::first, "2");
        messages.answers = {idNo};
        d.click(B::cancel);
        EXPECT_FALSE(d.hasEnded());
        EXPECT_EQ(messages.messages.back().text, "Are you sure to cancel ?");
        d.click(B::ok);
    });
    EXPECT_EQ(s.zoom, 0.5f);

    // Ratio not fixed: the border ratios follow, even after a cancelled zoom.
    command(idmFixRatio);
    run(idmZoomCustomize, "DL_ZOOM", [&](HeadlessDialog& d) {
        messages.answers = {idYes};
        d.click(B::cancel);
    });
    dialogs.expect("DL_BORDER", [&](HeadlessDialog& d) {
        EXPECT_EQ(d.selection(B::first), 3);
        retype(d, B::second, "x");
        expectRefused(d, B::ok, B::second);
        EXPECT_EQ(s.horizontalRatio, 0.5f); // already applied
        d.chooseRow(B::second, 0);
        d.click(B::ok);
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
        EXPECT_EQ(d.selection(B::first), 1);
        d.chooseRow(B::first, 9);
        d.click(B::ok);
    });
    EXPECT_EQ(s.frameLineWidth * 100 + s.frameWidthChoice, 1009);
    run(idmBorderWidth, "DL_BORDERW", [&](HeadlessDialog& d) {
        for (const char* refused : {"0", "1.5"}) {
            retype(d, B::first, refused);
            expectRefused(d, B::ok, B::first);
        }
        retype(d, B::first, "12");
        d.click(B::ok);
    });
    EXPECT_EQ(s.frameLineWidth, 12);
    EXPECT_EQ(s.frameWidthChoice, -1);
    run(idmBorderWidth, "DL_BORDERW", [](HeadlessDialog& d) { d.closeBySystemMenu(); });
    EXPECT_EQ(s.frameLineWidth, 12);
}

} // namespace
} // namespace corvane
