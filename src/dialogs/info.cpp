#include "dialogs/info.h"

#include "dialogs/fields.h"

#include <array>
#include <cmath>
#include <string>
#include <vector>

#include "fit/exchange_files.h"
#include "fit/fit_document.h"
#include "fit/limits.h"
#include "platform/resources.h"
#include "shell/commands.h"
#include "shell/main_window.h"
#include "text/text.h"

namespace corvane {

namespace {

enum InfoControl : int {
    curveNumberField = 700,
    siteCountField = 500,
    pairCountField = 501,
    firstPairField = 502,
    lastPairField = 503,
    toleranceField = 504,
    deviationField = 600,
    addNewButton = 997,
    recalculateButton = 998,
    closeButton = 999,
};
constexpr int fieldLength = 14; // characters of a field that are read
constexpr int stepOffset = 10;  // a row's step field, from its start field
constexpr int fittedOffset = 20;

// The rows of g, C, zJ and Xtip: the id of the start field and the parameter.
struct FixedRow {
    int start;
    FitParameter Calculation::*parameter;
};
constexpr std::array<FixedRow, 4> fixedRows = {{
    {100, &Calculation::g},
    {200, &Calculation::c},
    {300, &Calculation::zJ},
    {400, &Calculation::tip},
}};
// The start field of J value n (from 1).
constexpr int jStart(int n) { return 1000 * n; }

// Every open dialog, with the calculation it is bound to; expired when its dialog is gone.
std::vector<std::weak_ptr<InfoState>> openInfos;
// A fit started from one of them is running.
bool runInFlight = false;

bool isStartOrStep(int id) {
    for (const FixedRow& row : fixedRows)
        if (id == row.start || id == row.start + stepOffset) return true;
    const int n = id / 1000, rest = id % 1000;
    return n >= 1 && n <= maxJValues && (rest == 0 || rest == stepOffset);
}

bool isEditable(int id) {
    return isStartOrStep(id) || id == firstPairField || id == lastPairField || id == toleranceField;
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
    showReal(dialog, start + stepOffset, p.step);
    showReal(dialog, start + fittedOffset, p.fitted);
    // Known from the run that fitted it: a free parameter's uncertainty is above 0.
    if (std::isfinite(p.uncertainty) && p.uncertainty > 0)
        dialog.setToolTip(start + fittedOffset, formatC("standard uncertainty %g", p.uncertainty));
}

void fill(const InfoState& state, Dialog& dialog) {
    const FitDocument& doc = fitDocument;
    const Calculation& calc = doc.calculations[slot(state.calculation + 1)];
    showCount(dialog, curveNumberField, state.calculation + 1);
    showCount(dialog, siteCountField, doc.siteCount);
    showCount(dialog, pairCountField, doc.pairCount);
    showCount(dialog, firstPairField, calc.firstPair);
    showCount(dialog, lastPairField, calc.lastPair);
    showReal(dialog, toleranceField, calc.tolerance);
    showReal(dialog, deviationField, calc.deviation);
    for (const FixedRow& row : fixedRows) showParameter(dialog, row.start, calc.*row.parameter);
    for (int n = 1; n <= maxJValues; ++n) {
        if (n <= doc.jCount) {
            showParameter(dialog, jStart(n), calc.j[slot(n)]);
        } else {
            for (int offset : {0, stepOffset, fittedOffset}) dialog.disable(jStart(n) + offset);
        }
    }
}

// The fitting buttons: offered once a field has been entered with valid text, while no fit of
// these dialogs runs; Add New only while there is room for another calculation.
void offerButtons(const InfoState& state) {
    if (state.dialog == nullptr) return;
    const bool offered = state.edited && !runInFlight;
    state.dialog->enable(recalculateButton, offered);
    state.dialog->enable(addNewButton, offered && fitDocument.calculationCount < maxCalculations);
}

void offerButtonsEverywhere() {
    std::erase_if(openInfos, [](const std::weak_ptr<InfoState>& open) { return open.expired(); });
    for (const std::weak_ptr<InfoState>& open : openInfos)
        if (const std::shared_ptr<InfoState> state = open.lock()) offerButtons(*state);
}

void close(InfoState& state, Dialog& dialog) {
    state.dialog = nullptr;
    dialog.end(0);
}

// Whenever an editable field reports anything: its text must be a number of its kind.
void check(InfoState& state, Dialog& dialog, int id) {
    const bool integer = id == firstPairField || id == lastPairField;
    if (checkField(dialog, id, integer ? FieldKind::Integer : FieldKind::Real, fieldLength)) {
        state.edited = true;
        offerButtons(state);
    }
}

// The fitting range must lie within the pairs, first not above last; otherwise the offending
// field gets the focus back.
bool rangeAccepted(Dialog& dialog) {
    const int pairs = fitDocument.pairCount;
    const int first = readInteger(dialog, firstPairField);
    const int last = readInteger(dialog, lastPairField);
    int offending = 0;
    if (first < 1 || first > pairs)
        offending = firstPairField;
    else if (last < first || last > pairs)
        offending = lastPairField;
    if (offending == 0) return true;
    refuse(dialog, offending);
    return false;
}

// Re-calculate (into the bound calculation) or Add New (into a new last one): stores the
// fields, writes the engine input for that calculation and fits it through the main window's
// Re-calculate command; the dialog closes when the run has ended.
void fit(InfoState& state, Dialog& dialog, bool addNew) {
    FitDocument& doc = fitDocument;
    const int count = doc.calculationCount;
    const bool bound = state.calculation >= 0 && state.calculation < count;
    if (runInFlight || (addNew ? count < 1 || count >= maxCalculations : !bound)) {
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
        p.step = readReal(dialog, row.start + stepOffset);
    }
    calc.firstPair = readInteger(dialog, firstPairField);
    calc.lastPair = readInteger(dialog, lastPairField);
    calc.tolerance = readReal(dialog, toleranceField);
    for (int n = 1; n <= doc.jCount; ++n) {
        calc.j[slot(n)].start = readReal(dialog, jStart(n));
        calc.j[slot(n)].step = readReal(dialog, jStart(n) + stepOffset);
    }
    doc.currentCalculation = k;
    // Without results the document stays as its report has it: the calculation as it was, and
    // no new one whose curve nobody fitted.
    const auto restore = [&] {
        calc = before;
        doc.calculationCount = count;
        doc.currentCalculation = current;
    };
    if (!writeDialogEngineInput()) { // after its message
        restore();
        return;
    }
    runInFlight = true;
    state.fitting = true;
    offerButtonsEverywhere();
    MainWndProc({WindowMessage::Command, idmRecalculate, 0, 0, nullptr});
    if (!lastRunGaveResults()) restore();
    runInFlight = false;
    state.fitting = false;
    close(state, dialog);
    offerButtonsEverywhere();
}

} // namespace

std::intptr_t MOInfo(InfoState& state, Dialog& dialog, DialogMessage message, int control,
                     Notification notification) {
    switch (message) {
    case DialogMessage::Initialise:
        if (state.calculation < 0 || state.calculation >= fitDocument.calculationCount) {
            dialog.end(0); // nothing to show
            return 1;
        }
        state.dialog = &dialog;
        fill(state, dialog);
        offerButtons(state);
        return 1;
    case DialogMessage::Command:
        if (notification == Notification::Clicked) {
            if (control == addNewButton || control == recalculateButton)
                fit(state, dialog, control == addNewButton);
            else if (control == closeButton && !state.fitting)
                close(state, dialog);
        } else if (isEditable(control) && (notification == Notification::EditChanged ||
                                           notification == Notification::EditFocusGained ||
                                           notification == Notification::EditFocusLost)) {
            check(state, dialog, control);
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

void closeInfoDialogs() {
    for (const std::weak_ptr<InfoState>& open : openInfos) {
        const std::shared_ptr<InfoState> state = open.lock();
        if (state && state->dialog != nullptr && !state->fitting) close(*state, *state->dialog);
    }
}

DialogProc infoProcedure(int calculation) {
    auto state = std::make_shared<InfoState>();
    state->calculation = calculation;
    openInfos.push_back(state);
    return [state](Dialog& dialog, DialogMessage message, int control, Notification notification) {
        return MOInfo(*state, dialog, message, control, notification);
    };
}

} // namespace corvane
