#include "dialogs/info.h"

#include "dialogs/fields.h"

#include <array>
#include <cmath>
#include <string>
#include <vector>

#include "fit/exchange_files.h"
#include "fit/fit_document.h"
#include "fit/limits.h"
#include "fit/results.h"
#include "platform/ports.h"
#include "resources/dialog_ids.h"
#include "text/text.h"

namespace corvane {

namespace {

using C = InfoControl;
constexpr int fieldLength = 14; // characters of a field that are read

// The rows of g, C, zJ and Xtip: the id of the start field and the parameter.
struct FixedRow {
    int start;
    FitParameter Calculation::*parameter;
};
constexpr std::array<FixedRow, 4> fixedRows = {{
    {C::gRow, &Calculation::g},
    {C::cRow, &Calculation::c},
    {C::zJRow, &Calculation::zJ},
    {C::tipRow, &Calculation::tip},
}};

bool isStartOrStep(int id) {
    for (const FixedRow& row : fixedRows)
        if (id == row.start || id == row.start + C::step) return true;
    for (int n = 1; n <= maxJValues; ++n)
        if (id == C::jRow(n) || id == C::jRow(n) + C::step) return true;
    return false;
}

bool isEditable(int id) {
    return isStartOrStep(id) || id == C::firstPair || id == C::lastPair || id == C::tolerance;
}

// A field's text as it is read: its first 14 characters, blanks trimmed at both ends.
std::string field(const Dialog& dialog, int id) { return fieldText(dialog, id, fieldLength); }

double readReal(const Dialog& dialog, int id) { return readLeadingReal(field(dialog, id)); }
int readInteger(const Dialog& dialog, int id) { return readLeadingInteger(field(dialog, id)); }

void showCount(Dialog& dialog, int id, int value) {
    dialog.setText(id, formatC("%u", static_cast<unsigned>(value)));
}

void showReal(Dialog& dialog, int id, double value) { dialog.setText(id, formatC("%f", value)); }

void showParameter(Dialog& dialog, int start, const FitParameter& p) {
    showReal(dialog, start, p.start);
    showReal(dialog, start + C::step, p.step);
    showReal(dialog, start + C::fitted, p.fitted);
    // Known from the run that fitted it: a free parameter's uncertainty is above 0.
    if (std::isfinite(p.uncertainty) && p.uncertainty > 0)
        dialog.setToolTip(start + C::fitted, formatC("standard uncertainty %g", p.uncertainty));
}

void fill(const InfoState& state, Dialog& dialog) {
    const FitDocument& doc = fitDocument;
    const Calculation& calc = doc.calculations[slot(state.calculation + 1)];
    showCount(dialog, C::curveNumber, state.calculation + 1);
    showCount(dialog, C::siteCount, doc.siteCount);
    showCount(dialog, C::pairCount, doc.pairCount);
    showCount(dialog, C::firstPair, calc.firstPair);
    showCount(dialog, C::lastPair, calc.lastPair);
    showReal(dialog, C::tolerance, calc.tolerance);
    showReal(dialog, C::deviation, calc.deviation);
    for (const FixedRow& row : fixedRows) showParameter(dialog, row.start, calc.*row.parameter);
    for (int n = 1; n <= maxJValues; ++n) {
        if (n <= doc.jCount) {
            showParameter(dialog, C::jRow(n), calc.j[slot(n)]);
        } else {
            for (int offset : {0, int{C::step}, int{C::fitted}})
                dialog.disable(C::jRow(n) + offset);
        }
    }
}

// The fitting buttons: offered once a field has been entered with valid text, while no fit of
// these dialogs runs; Add New only while there is room for another calculation.
void offerButtons(const InfoDialogs& dialogs, const InfoState& state) {
    if (state.dialog == nullptr) return;
    const bool offered = state.edited && !dialogs.runInFlight;
    state.dialog->enable(C::recalculate, offered);
    state.dialog->enable(C::addNew, offered && fitDocument.calculationCount < maxCalculations);
}

void offerButtonsEverywhere(InfoDialogs& dialogs) {
    std::erase_if(dialogs.open,
                  [](const std::weak_ptr<InfoState>& open) { return open.expired(); });
    for (const std::weak_ptr<InfoState>& open : dialogs.open)
        if (const std::shared_ptr<InfoState> state = open.lock()) offerButtons(dialogs, *state);
}

void close(InfoState& state, Dialog& dialog) {
    state.dialog = nullptr;
    dialog.end(0);
}

// Whenever an editable field reports anything: its text must be a number of its kind.
void check(const InfoDialogs& dialogs, InfoState& state, Dialog& dialog, int id) {
    const bool integer = id == C::firstPair || id == C::lastPair;
    if (checkField(dialog, id, integer ? FieldKind::Integer : FieldKind::Real, fieldLength)) {
        state.edited = true;
        offerButtons(dialogs, state);
    }
}

// The fitting range must lie within the pairs, first not above last; otherwise the offending
// field gets the focus back.
bool rangeAccepted(Dialog& dialog) {
    const int pairs = fitDocument.pairCount;
    const int first = readInteger(dialog, C::firstPair);
    const int last = readInteger(dialog, C::lastPair);
    int offending = 0;
    if (first < 1 || first > pairs)
        offending = C::firstPair;
    else if (last < first || last > pairs)
        offending = C::lastPair;
    if (offending == 0) return true;
    refuse(dialog, offending);
    return false;
}

// Re-calculate (into the bound calculation) or Add New (into a new last one): stores the
// fields, writes the engine input for that calculation and asks the window to fit it; the
// dialog closes when the run has ended.
void fit(InfoDialogs& dialogs, InfoState& state, Dialog& dialog, bool addNew) {
    FitDocument& doc = fitDocument;
    const int count = doc.calculationCount;
    const bool bound = state.calculation >= 0 && state.calculation < count;
    if (dialogs.runInFlight || !dialogs.fit ||
        (addNew ? count < 1 || count >= maxCalculations : !bound)) {
        dialog.beep();
        return;
    }
    if (!rangeAccepted(dialog)) return;
    const int k = addNew ? count : state.calculation;
    Calculation& calc = doc.calculations[slot(k + 1)];
    const Calculation before = calc;
    const int current = doc.currentCalculation;
    if (addNew) {
        calc = Calculation{};
        doc.calculationCount = count + 1;
    }
    for (const FixedRow& row : fixedRows) {
        FitParameter& p = calc.*row.parameter;
        p.start = readReal(dialog, row.start);
        p.step = readReal(dialog, row.start + C::step);
    }
    calc.firstPair = readInteger(dialog, C::firstPair);
    calc.lastPair = readInteger(dialog, C::lastPair);
    calc.tolerance = readReal(dialog, C::tolerance);
    for (int n = 1; n <= doc.jCount; ++n) {
        calc.j[slot(n)].start = readReal(dialog, C::jRow(n));
        calc.j[slot(n)].step = readReal(dialog, C::jRow(n) + C::step);
    }
    doc.currentCalculation = k;
    // Without results the document stays as its report has it: the calculation as it was, and
    // no new one whose curve nobody fitted.
    const auto restore = [&] {
        calc = before;
        doc.calculationCount = count;
        doc.currentCalculation = current;
    };
    if (!writeDialogEngineInput(k)) { // after its message
        restore();
        return;
    }
    dialogs.runInFlight = true;
    state.fitting = true;
    offerButtonsEverywhere(dialogs);
    if (dialogs.fit(k) != RunOutcome::Fitted) restore();
    dialogs.runInFlight = false;
    state.fitting = false;
    close(state, dialog);
    offerButtonsEverywhere(dialogs);
}

} // namespace

std::intptr_t MOInfo(InfoDialogs& dialogs, InfoState& state, Dialog& dialog, DialogMessage message,
                     int control, Notification notification) {
    switch (message) {
    case DialogMessage::Initialise:
        if (state.calculation < 0 || state.calculation >= fitDocument.calculationCount) {
            dialog.end(0); // nothing to show
            return 1;
        }
        state.dialog = &dialog;
        fill(state, dialog);
        offerButtons(dialogs, state);
        return 1;
    case DialogMessage::Command:
        if (notification == Notification::Clicked) {
            if (control == C::addNew || control == C::recalculate)
                fit(dialogs, state, dialog, control == C::addNew);
            else if (control == C::close && !state.fitting)
                close(state, dialog);
            else if (control == copyCommand)
                window().copyText(resultsTable(fitDocument, {state.calculation}));
        } else if (isEditable(control) && (notification == Notification::EditChanged ||
                                           notification == Notification::EditFocusGained ||
                                           notification == Notification::EditFocusLost)) {
            check(dialogs, state, dialog, control);
        }
        return 1;
    case DialogMessage::Close: // the dialog that started a fit closes when it has ended
        if (!state.fitting) close(state, dialog);
        return 1;
    case DialogMessage::Timer:
        return 0;
    }
    return 0;
}

void closeInfoDialogs(InfoDialogs& dialogs) {
    for (const std::weak_ptr<InfoState>& open : dialogs.open) {
        const std::shared_ptr<InfoState> state = open.lock();
        if (state && state->dialog != nullptr && !state->fitting) close(*state, *state->dialog);
    }
}

DialogProc infoProcedure(InfoDialogs& dialogs, int calculation) {
    auto state = std::make_shared<InfoState>();
    state->calculation = calculation;
    dialogs.open.push_back(state);
    return [&dialogs, state](Dialog& dialog, DialogMessage message, int control,
                             Notification notification) {
        return MOInfo(dialogs, *state, dialog, message, control, notification);
    };
}

} // namespace corvane
