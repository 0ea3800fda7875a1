// The fitting parameter information dialog (DL_INFO): one calculation of the document, its
// starting values and steps to edit, and Re-calculate and Add New to fit again from them.
//
// Each open dialog is bound to the calculation it was opened on: it shows that calculation,
// Re-calculate stores into it and the engine's results go into it; Add New stores into a new,
// last calculation and fits that one. While a fit started from any of these dialogs runs, no
// dialog offers Add New or Re-calculate; the dialog that started it closes when the run ends.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "fit/run_cycle.h"
#include "platform/dialog.h"

namespace corvane {

// What one open dialog keeps: the calculation it is bound to and whether a field has been
// entered with valid text (which offers the fitting buttons).
struct InfoState {
    int calculation = -1; // 0-based index into fitDocument.calculations
    bool edited = false;
    bool fitting = false; // this dialog started the run now in flight
    Dialog* dialog = nullptr;
};

// How a dialog asks for a fit: the window fits calculation (0-based) again from the engine
// input the dialog has written for it, stores the results into it, and returns the outcome.
using FitRequest = std::function<RunOutcome(int calculation)>;

// The dialogs open in one window: each one's state (expired when its dialog is gone) and whether
// a fit started from one of them runs.
struct InfoDialogs {
    std::vector<std::weak_ptr<InfoState>> open;
    bool runInFlight = false;
    FitRequest fit;
};

// The dialog procedure of DL_INFO for the dialog whose state is state, one of dialogs.
std::intptr_t MOInfo(InfoDialogs& dialogs, InfoState& state, Dialog& dialog, DialogMessage message,
                     int control, Notification notification);

// Closes every open dialog but the one whose fit runs: for when the document is replaced, and
// their calculations with it.
void closeInfoDialogs(InfoDialogs& dialogs);

// A procedure for a new dialog of dialogs bound to calculation (0-based), to open DL_INFO with.
// dialogs must outlive it.
DialogProc infoProcedure(InfoDialogs& dialogs, int calculation);

} // namespace corvane
