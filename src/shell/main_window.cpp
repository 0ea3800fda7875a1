#include "shell/main_window.h"

#include <cstring>
#include <string_view>

#include "fit/fit_document.h"
#include "fit/run_state.h"
#include "platform/resources.h"
#include "plot/paint.h"
#include "plot/plot_settings.h"
#include "plot/scaling.h"
#include "shell/commands.h"

namespace corvane {

Shell shell;

namespace {

// The whole client area painted again, cleared first.
void repaint() {
    if (shell.host != nullptr) shell.host->invalidate(true);
}

// A flag and its check mark toggled together.
void toggleByFlag(int& flag, int item) {
    flag = flag == 1 ? 0 : 1;
    if (flag == 1)
        shell.menu.check(item);
    else
        shell.menu.uncheck(item);
}

// The same, decided by the item's check mark rather than by the flag.
void toggleByMark(int& flag, int item) {
    if (shell.menu.isChecked(item)) {
        flag = 0;
        shell.menu.uncheck(item);
    } else {
        flag = 1;
        shell.menu.check(item);
    }
}

void openDialog(const char* name, DialogProc procedure) {
    if (const DialogTemplate* dialog = findDialogTemplate(name)) dialogBox(*dialog, procedure);
}

// A settings dialog whose procedure is not there yet ends as its Cancel would.
std::intptr_t notYet(Dialog& dialog, DialogMessage message, int, Notification) {
    if (message != DialogMessage::Initialise) return 0;
    dialog.end(0);
    return 1;
}

// [SECTION] Mouse modes: switching them

void endDetails() {
    const bool wasOn = shell.detailsPick == 1;
    shell.menu.uncheck(idmDetails);
    shell.detailsPick = 0;
    if (wasOn && shell.host != nullptr) {
        shell.host->setCursor(CursorShape::Arrow);
        shell.host->releaseMouse();
    }
}
void endSelect() {
    shell.selectByMouse = 0;
    shell.menu.uncheck(idmSelectByMouse);
}
void endZoom() {
    shell.zoomByMouse = 0;
    shell.menu.uncheck(idmZoomByMouse);
}
void endMouseModes() {
    endDetails();
    endSelect();
    endZoom();
}

void toggleDetails() {
    if (shell.menu.isChecked(idmDetails)) {
        endDetails();
        return;
    }
    shell.menu.check(idmDetails);
    if (shell.host != nullptr) {
        shell.host->setCursor(CursorShape::Cross);
        shell.host->captureMouse();
    }
    shell.detailsPick = 1;
    endSelect();
    endZoom();
}

void toggleSelectByMouse() {
    if (shell.menu.isChecked(idmSelectByMouse)) {
        endSelect();
        return;
    }
    endDetails();
    shell.menu.check(idmSelectByMouse);
    shell.selectByMouse = 1;
    endZoom();
}

void toggleZoomByMouse() {
    if (shell.menu.isChecked(idmZoomByMouse)) {
        endZoom();
        return;
    }
    shell.menu.check(idmZoomByMouse);
    shell.zoomByMouse = 1;
    endSelect();
    endDetails();
}

// [SECTION] The command table

using Handler = void (*)(int id);

struct CommandRow {
    int first, last; // the ids of the row
    Handler handle;
};

const CommandRow commandTable[] = {
    {idmNew, idmNew, [](int) { newCommand(); }},
    {idmOpen, idmOpen, [](int) { openCommand(); }},
    {idmPlot, idmPlot, [](int) { plotCommand(); }},
    {idmExit, idmExit,
     [](int) {
         if (shell.host != nullptr) shell.host->quit(0);
     }},
    {idmRecalculate, idmRecalculate, [](int) { recalculateCommand(); }},
    {idmExperimental, idmExperimental,
     [](int id) {
         toggleByFlag(plotSettings.experimentalShown, id);
         scalePlot();
         repaint();
     }},
    {idmFitted1, idmFitted10,
     [](int id) {
         toggleByFlag(plotSettings.curveShown[static_cast<std::size_t>(id - idmFitted1)], id);
         scalePlot();
         repaint();
     }},
    {idmSwitch, idmSwitch,
     [](int) {
         plotSettings.showChi = plotSettings.showChi == 0 ? 1 : 0;
         scalePlot();
         repaint();
     }},
    {idmGridLines, idmGridLines,
     [](int id) {
         toggleByMark(plotSettings.gridLines, id);
         repaint();
     }},
    {idmDisplayDefault, idmDisplayDefault,
     [](int) {
         resetDisplayDefaults();
         repaint();
     }},
    {idmSelectDefault, idmSelectDefault,
     [](int) {
         resetRangeDefaults();
         shell.selectByMouse = 0;
         shell.menu.uncheck(idmSelectByMouse);
         repaint();
     }},
    {idmFixRatio, idmFixRatio, [](int id) { toggleByMark(plotSettings.fixedAspect, id); }},
    {idmZoomDefault, idmZoomDefault,
     [](int) {
         resetZoomDefaults();
         shell.zoomByMouse = 0;
         shell.menu.uncheck(idmZoomByMouse);
         repaint();
     }},
    {idmAbout, idmAbout, [](int) { openDialog("DL_ABOUT", About); }},
    {idmDetails, idmDetails, [](int) { toggleDetails(); }},
    {idmSelectByMouse, idmSelectByMouse, [](int) { toggleSelectByMouse(); }},
    {idmZoomByMouse, idmZoomByMouse, [](int) { toggleZoomByMouse(); }},
    {idmSelectCustomize, idmSelectCustomize,
     [](int) {
         openDialog("DL_SELDOS", notYet);
         repaint();
         endMouseModes();
     }},
    {idmZoomCustomize, idmZoomCustomize,
     [](int) {
         openDialog("DL_ZOOM", notYet);
         if (plotSettings.fixedAspect == 0) openDialog("DL_BORDER", notYet);
         endZoom();
         repaint();
     }},
    {idmBorderWidth, idmBorderWidth,
     [](int) {
         openDialog("DL_BORDERW", notYet);
         repaint();
     }},
    {idmLabel, idmLabel,
     [](int) {
         openDialog("DL_LABEL", notYet);
         repaint();
     }},
    {idmCurveAttributes, idmCurveAttributes,
     [](int) {
         openDialog("DL_STYLE", notYet);
         repaint();
     }},
};

} // namespace

bool runCommand(int id) {
    for (const CommandRow& row : commandTable) {
        if (id < row.first || id > row.last) continue;
        row.handle(id);
        return true;
    }
    return false;
}

void startUp(ShellHost& host, Surface& screen) {
    shell = Shell{};
    shell.menu = loadMenu("MenuMenu");
    shell.host = &host;
    runState.reset();
    measureDevice(screen);
    initPlotSettings();
    plotSettings.labelFont = defaultLabelFont();
    plotSettings.labelColour = 0;
    resetFitDocument();
}

CoverPosition coverPosition() {
    return {plotLayout.deviceWidth / 2 - 220, plotLayout.deviceHeight / 2 - 170};
}

bool MainWndProc(const WindowEvent& event) {
    // The marks of the grid and the fixed ratio follow their flags at every message, so that
    // the commands that change those flags without the menu are shown at the next one.
    if (plotSettings.gridLines == 1)
        shell.menu.check(idmGridLines);
    else
        shell.menu.uncheck(idmGridLines);
    if (plotSettings.fixedAspect == 1)
        shell.menu.check(idmFixRatio);
    else
        shell.menu.uncheck(idmFixRatio);

    switch (event.message) {
    case WindowMessage::Create:
    case WindowMessage::Size:
    case WindowMessage::RightButtonDown:
        return true;
    case WindowMessage::Destroy:
        if (shell.host != nullptr) shell.host->quit(0);
        return true;
    case WindowMessage::Paint:
        if (event.surface != nullptr) paintPlot(*event.surface);
        return true;
    case WindowMessage::Command:
        return runCommand(event.command);
    case WindowMessage::LeftButtonDown:
        if (shell.host != nullptr) shell.host->closeCover();
        return true;
    case WindowMessage::MouseMove:
    case WindowMessage::LeftButtonUp:
        return true;
    case WindowMessage::Close:
        return false;
    }
    return false;
}

void openFile(const std::string& path) {
    const std::string_view name(path);
    if (name.size() >= 4 &&
        (name.substr(name.size() - 4) == ".qpo" || name.substr(name.size() - 4) == ".QPO"))
        plotFile(path);
    else
        openInputFile(path);
}

} // namespace corvane
