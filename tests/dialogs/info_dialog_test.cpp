// The fitting parameter dialog without a display: opened by a Details pick or on a calculation,
// driven through the headless host, fitting through the window with stand-in engines.
#include <cmath>
#include <gtest/gtest.h>
#include <string>
#include <thread>

#include "dialogs/info.h"
#include "fit/fit_document.h"
#include "fit/run_state.h"
#include "platform/headless_dialog.h"
#include "platform/recording_surface.h"
#include "plot/axes.h"
#include "plot/paint.h"
#include "plot/plot_settings.h"
#include "resources/dialog_ids.h"
#include "resources/resources.h"
#include "shell/commands.h"
#include "shell/main_window.h"
#include "support/shell_fixture.h"

namespace corvane {
namespace {

using C = InfoControl;
constexpr int addNew = C::addNew, recalculate = C::recalculate, closeButton = C::close;

class InfoDialogTest : public testing::ShellTest {
protected:
    // The dimer fitted once from its input file: one calculation, one J value, two pairs.
    void fitDimer() {
        testing::useScriptEngine(dir,
                                 std::string("printf '") + testing::dimerOutput + "' > \"$out\"");
        expectProgress();
        openInputFile(dir.write("cu2.qpi", testing::dimerInput));
        ASSERT_EQ(fitDocument.calculationCount, 1);
    }
    // count calculations, each a copy of the first.
    void copies(int count) {
        for (int k = 1; k < count; ++k)
            fitDocument.calculations[slot(k + 1)] = fitDocument.calculations[0];
        fitDocument.calculationCount = count;
    }
    HeadlessDialog* open(int calculation) {
        createDialog(*findDialogTemplate("DL_INFO"), infoProcedure(shell.infoDialogs, calculation));
        return dialogs.modeless("DL_INFO");
    }
};

TEST_F(InfoDialogTest, APickOpensTheDialogFilledFromThePickedCalculation) {
    FitDocument& doc = fitDocument;
    doc.pairCount = 3;
    doc.siteCount = 4;
    doc.jCount = 3;
    for (int n = 1; n <= 3; ++n) doc.pairs[slot(n)] = {100.0 * n, 1.0 * n};
    copies(2);
    Calculation& second = doc.calculations[1];
    second.firstPair = 2;
    second.lastPair = 3;
    second.g = {2.0, 0.01, 2.0567, 0.0056};
    second.c.uncertainty = std::nan("");
    second.tolerance = 0.0001;
    second.zJ.start = 1e-7;         // too small for six decimals
    second.tip.start = 123456789.5; // longer than a field takes
    for (int i = 0; i < 3; ++i) {
        doc.calculations[0].fittedValues[static_cast<std::size_t>(i)] = i + 1.0;
        second.fittedValues[static_cast<std::size_t>(i)] = (i + 1) * 0.5;
    }
    refreshAfterLoad(false);
    plotSettings.curveShown = {1, 1};
    paintPlot(screen);

    MainWndProc({WindowMessage::Command, idmDetails, 0, 0, nullptr});
    MainWndProc({WindowMessage::LeftButtonUp, 0, plotX(250.0), plotY(1.25), nullptr});
    HeadlessDialog* d = dialogs.modeless("DL_INFO");
    ASSERT_NE(d, nullptr);
    const struct {
        int id;
        const char* text;
    } shown[] = {{C::curveNumber, "2"},
                 {C::siteCount, "4"},
                 {C::pairCount, "3"},
                 {C::firstPair, "2"},
                 {C::lastPair, "3"},
                 {C::tolerance, "0.000100"},
                 {C::gRow, "2.000000"},
                 {C::gRow + C::step, "0.010000"},
                 {C::gRow + C::fitted, "2.056700"},
                 {C::zJRow, "0.000000"},
                 {C::tipRow, "123456789.500000"}};
    for (const auto& field : shown) EXPECT_EQ(d->text(field.id), field.text) << field.id;
    EXPECT_EQ(d->toolTip(C::gRow + C::fitted), "standard uncertainty 0.0056");
    EXPECT_EQ(d->toolTip(C::cRow + C::fitted), ""); // not known
    for (int n = 1; n <= 10; ++n) {
        for (int id : {C::jRow(n), C::jRow(n) + C::step, C::jRow(n) + C::fitted}) {
            EXPECT_EQ(d->isEnabled(id), n <= 3) << id;
            EXPECT_EQ(d->text(id).empty(), n > 3) << id;
        }
    }
    EXPECT_FALSE(d->isEnabled(addNew) || d->isEnabled(recalculate));
    EXPECT_TRUE(d->isEnabled(closeButton));

    // The copy key with nothing selected: this calculation's results to the clipboard.
    d->pressCopy();
    EXPECT_EQ(host.clipboard.substr(host.clipboard.find('\n') + 1, 4), "# 2\t");

    // A pick that finds nothing: no calculation current, no dialog, the open one as it was.
    MainWndProc({WindowMessage::Command, idmDetails, 0, 0, nullptr});
    MainWndProc({WindowMessage::LeftButtonUp, 0, plotLayout.frameLeft + 1, 2, nullptr});
    EXPECT_EQ(doc.currentCalculation, -1);
    EXPECT_EQ(dialogs.opened().size(), 1u);
    EXPECT_EQ(dialogs.modeless("DL_INFO"), d);
    d->click(closeButton);
    EXPECT_TRUE(d->hasEnded());
}

TEST_F(InfoDialogTest, FieldsTakeSignedDecimalsAndTheRangeIntegersOnly) {
    fitDimer();
    const struct {
        int id;
        const char* text;
        bool accepted;
    } cases[] = {
        {C::gRow, "-.5", true},
        {C::gRow + C::step, "+3", true},
        {C::jRow(1) + C::step, "12.", true},
        {C::tolerance, "0.5 ", true},
        {C::firstPair, "+7", true},
        {C::lastPair, "-3", true},
        {C::gRow, "1e-5", false},
        {C::firstPair, "2.5", false},
        {C::jRow(1), "1,5", false},
        {C::lastPair, "7x", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.id) + " '" + c.text + "'");
        HeadlessDialog* d = open(0);
        ASSERT_NE(d, nullptr);
        d->focusOn(c.id);
        const std::size_t before = messages.beeps.size();
        d->clearText(c.id);
        const std::size_t cleared = messages.beeps.size();
        d->type(c.id, c.text);
        EXPECT_EQ(messages.beeps.size() == cleared, c.accepted);
        d->focusOn(c.id == C::cRow ? C::cRow + C::step
                                   : C::cRow); // leaving the field checks it again
        EXPECT_EQ(d->hasFocus(c.id), !c.accepted);
        EXPECT_TRUE(d->isEnabled(recalculate)); // the valid text the field held on entry
        EXPECT_GE(cleared, before);
        d->closeBySystemMenu();
        EXPECT_TRUE(d->hasEnded());
    }
    EXPECT_EQ(fitDocument.calculations[0].g.start, 2.0); // nothing stored
}

TEST_F(InfoDialogTest, ReCalculateStoresIntoItsOwnCalculationAndItsResultsGoThere) {
    fitDimer();
    copies(2);
    fitDocument.calculations[1].deviation = 7.0;
    HeadlessDialog* d = open(0);
    ASSERT_NE(d, nullptr);
    fitDocument.currentCalculation = -1; // a pick that found nothing

    // A range outside the pairs is refused, with nothing stored or run.
    for (const auto& [first, last, offending] :
         {std::tuple{"0", "2", C::firstPair}, {"2", "3", C::lastPair}, {"2", "1", C::lastPair}}) {
        retype(*d, C::firstPair, first);
        retype(*d, C::lastPair, last);
        const std::size_t beeps = messages.beeps.size();
        d->click(recalculate);
        EXPECT_EQ(messages.beeps.size(), beeps + 1);
        EXPECT_TRUE(d->hasFocus(offending)) << first << ".." << last;
    }
    EXPECT_EQ(dialogs.opened().size(), 2u); // DL_SPIN of the first fit, this dialog
    EXPECT_EQ(fitDocument.calculations[0].firstPair, 1);

    retype(*d, C::firstPair, "1");
    retype(*d, C::lastPair, "2");
    retype(*d, C::gRow, "2.2");
    retype(*d, C::jRow(1), "-90");
    expectProgress();
    d->click(recalculate);
    EXPECT_TRUE(d->hasEnded());
    const Calculation& own = fitDocument.calculations[0];
    EXPECT_EQ(own.g.start, 2.2);
    EXPECT_EQ(own.j[0].start, -90.0);
    EXPECT_EQ(own.deviation, 0.0125); // the results came here
    EXPECT_EQ(fitDocument.calculations[1].deviation, 7.0);
    EXPECT_EQ(fitDocument.currentCalculation, 0);
    EXPECT_NE(dir.read("cu2.qpo").find("-90.000000"), std::string::npos);
    EXPECT_TRUE(messages.messages.empty());
}

TEST_F(InfoDialogTest, AFitWithoutResultsLeavesTheDocumentAsItsReportHasIt) {
    fitDimer();
    FitDocument& doc = fitDocument;
    doc.jCount = 3; // the engine's output has one J value: no results
    doc.calculations[0].j[1].start = 7.0;
    doc.calculations[0].j[3].start = 42.0; // a row above jCount
    HeadlessDialog* d = open(0);
    ASSERT_NE(d, nullptr);
    retype(*d, C::jRow(2), "5");
    retype(*d, C::jRow(3) + C::step, "0.5");
    bool storedLiveRowsOnly = false;
    expectProgress(nullptr, [&] {
        const Calculation& c = doc.calculations[0];
        storedLiveRowsOnly = c.j[1].start == 5.0 && c.j[2].step == 0.5 && c.j[3].start == 42.0;
    });
    d->click(recalculate);
    EXPECT_TRUE(storedLiveRowsOnly);
    EXPECT_TRUE(d->hasEnded()); // whatever the outcome
    EXPECT_EQ(doc.calculations[0].j[1].start, 7.0);

    HeadlessDialog* e = open(0);
    retype(*e, C::jRow(2), "6");
    expectProgress();
    e->click(addNew);
    EXPECT_TRUE(e->hasEnded());
    EXPECT_EQ(doc.calculationCount, 1);
    EXPECT_EQ(doc.currentCalculation, 0);

    // Dialogs of a problem that is left close with it.
    HeadlessDialog* f = open(0);
    doc.jCount = 1;
    expectProgress();
    openInputFile(dir.file("cu2.qpi"));
    EXPECT_TRUE(f->hasEnded());
}

TEST_F(InfoDialogTest, AddNewFitsANewLastCalculationAndIsGreyedAtTen) {
    fitDimer();
    HeadlessDialog* first = open(0);
    ASSERT_NE(first, nullptr);
    retype(*first, C::gRow + C::step, "0.02");
    expectProgress();
    first->click(addNew);
    EXPECT_TRUE(first->hasEnded());
    ASSERT_EQ(fitDocument.calculationCount, 2);
    EXPECT_EQ(fitDocument.currentCalculation, 1);
    EXPECT_EQ(fitDocument.calculations[1].g.step, 0.02);
    EXPECT_EQ(fitDocument.calculations[1].deviation, 0.0125);
    EXPECT_EQ(fitDocument.calculations[0].g.step, 0.01);
    HeadlessDialog* again = open(1);
    EXPECT_EQ(again->text(C::curveNumber), "2");
    again->click(closeButton);

    // Two dialogs at nine calculations: during a fit from one, neither offers a fit; the
    // one that started it closes, the other no longer offers Add New.
    copies(9);
    HeadlessDialog* a = open(2);
    HeadlessDialog* b = open(5);
    a->focusOn(C::gRow + C::step); // the focus starts in g
    b->focusOn(C::gRow + C::step);
    ASSERT_TRUE(a->isEnabled(addNew) && b->isEnabled(addNew) && b->isEnabled(recalculate));
    bool offeredDuringRun = true;
    expectProgress(nullptr, [&] {
        offeredDuringRun = a->isEnabled(addNew) || a->isEnabled(recalculate) ||
                           b->isEnabled(addNew) || b->isEnabled(recalculate);
    });
    a->click(addNew);
    EXPECT_FALSE(offeredDuringRun);
    EXPECT_TRUE(a->hasEnded());
    EXPECT_EQ(fitDocument.calculationCount, 10);
    EXPECT_FALSE(b->hasEnded());
    EXPECT_FALSE(b->isEnabled(addNew));
    EXPECT_TRUE(b->isEnabled(recalculate));
    HeadlessDialog* c = open(9);
    c->focusOn(C::gRow + C::step);
    EXPECT_FALSE(c->isEnabled(addNew));
    EXPECT_TRUE(c->isEnabled(recalculate));
}

} // namespace
} // namespace corvane
