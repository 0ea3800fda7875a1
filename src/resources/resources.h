// The program's resources, as its resource script would hold them: the menu of the main window
// and the dialog templates.
#pragma once

#include <string_view>

#include "platform/dialog.h"
#include "platform/menu.h"

namespace corvane {

// Command ids of the menu "MenuMenu".
enum MenuCommand : int {
    idmNew = 100,
    idmOpen = 101,
    idmPlot = 102,
    idmPrint = 103,
    idmPrintSetup = 104,
    idmExportPlot = 105,
    idmExit = 106,
    idmCopy = 107,        // no item: Ctrl+C, the shown calculations' results to the clipboard
    idmRecalculate = 123, // no item: sent by the fitting parameter dialog
    idmDetails = 200,
    idmExperimental = 300,
    idmSwitch = 302,
    idmGridLines = 303,
    idmDisplayDefault = 304,
    idmShowInfo = 305,
    idmResiduals = 306,
    idmMagnetView = 307, // the M view: magnetisation against field
    idmFitted1 = 3011,   // "# 1"; "# n" is idmFitted1 + n - 1, up to "# 10" (3020)
    idmFitted10 = 3020,
    idmSelectByMouse = 401,
    idmSelectCustomize = 402,
    idmSelectDefault = 409,
    idmFixRatio = 500,
    idmZoomByMouse = 501,
    idmZoomCustomize = 502,
    idmZoomDefault = 509,
    idmBorderWidth = 701,
    idmLabel = 702,
    idmCurveAttributes = 711,
    idmAbout = 900,
};

// A fresh copy of the menu resource named name ("MenuMenu"), in its initial state; an empty
// menu when there is no such resource.
Menu loadMenu(std::string_view name);

// The dialog template named name ("DL_ABOUT", "DL_SPIN", "DL_INFO", "DL_SELDOS", "DL_LABEL",
// "DL_STYLE", "DL_ZOOM", "DL_BORDER", "DL_BORDERW"); nullptr when there is none.
const DialogTemplate* findDialogTemplate(std::string_view name);

} // namespace corvane
