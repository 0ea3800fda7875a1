#include "shell/main_window.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string_view>
#include <vector>

#include "dialogs/about.h"
#include "dialogs/info.h"
#include "dialogs/plot_dialogs.h"
#include "fit/fit_document.h"
#include "fit/results.h"
#include "fit/run_state.h"
#include "platform/messages.h"
#include "platform/ports.h"
#include "plot/axes.h"
#include "plot/magnet.h"
#include "plot/paint.h"
#include "plot/plot_settings.h"
#include "plot/scaling.h"
#include "resources/resources.h"
#include "shell/commands.h"
#include "text/text.h"

namespace corvane {

Shell shell;

namespace {

// The whole client area painted again, cleared first.
void repaint() { window().invalidate(true); }

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

// [SECTION] Mouse modes: switching them

// The menu item of each mode.
constexpr struct {
    MouseMode mode;
    int item;
} modeItems[] = {{MouseMode::Details, idmDetails},
                 {MouseMode::Select, idmSelectByMouse},
                 {MouseMode::Zoom, idmZoomByMouse}};

// Mode becomes the mouse mode, its item the only one checked. Leaving Details gives the pointer
// back; entering it takes the pointer as a cross.
void setMouseMode(MouseMode mode) {
    const MouseMode before = shell.mouseMode;
    shell.mouseMode = mode;
    for (const auto& m : modeItems) {
        if (m.mode == mode)
            shell.menu.check(m.item);
        else
            shell.menu.uncheck(m.item);
    }
    if (before == MouseMode::Details && mode != MouseMode::Details) {
        window().setCursor(CursorShape::Arrow);
        window().releaseMouse();
    } else if (mode == MouseMode::Details && before != MouseMode::Details) {
        window().setCursor(CursorShape::Cross);
        window().captureMouse();
    }
}

// A mode's command: on, or off when it is on.
void toggleMouseMode(MouseMode mode) {
    setMouseMode(shell.mouseMode == mode ? MouseMode::None : mode);
}

// Off, when mode is the one on.
void endMouseMode(MouseMode mode) {
    if (shell.mouseMode == mode) setMouseMode(MouseMode::None);
}

// The shown calculations' results, as a table for a spreadsheet; nothing without a plot.
void copyResults() {
    if (plotSettings.plotLoaded != 1) return;
    std::vector<int> shown;
    for (int k = 0; k < std::min(fitDocument.calculationCount, maxCalculations); ++k)
        if (plotSettings.curveShown[static_cast<std::size_t>(k)] == 1) shown.push_back(k);
    if (shown.empty()) return;
    window().copyText(resultsTable(fitDocument, shown));
    showStatus(formatC("The results of %zu calculation%s are on the clipboard.", shown.size(),
                       shown.size() == 1 ? "" : "s"));
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
    {idmPrint, idmPrint, [](int) { printCommand(); }},
    {idmPrintSetup, idmPrintSetup, [](int) { printSetupCommand(); }},
    {idmExportPlot, idmExportPlot, [](int) { exportPlotCommand(); }},
    {idmExit, idmExit, [](int) { window().quit(0); }},
    {idmRecalculate, idmRecalculate, [](int) { recalculateCommand(); }},
    {idmCopy, idmCopy, [](int) { copyResults(); }},
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
         if (plotSettings.magnetView == 1) return; // chi and chiT are the other view's
         plotSettings.showChi = plotSettings.showChi == 0 ? 1 : 0;
         scalePlot();
         repaint();
     }},
    {idmMagnetView, idmMagnetView,
     [](int) {
         if (plotSettings.plotLoaded != 1 || fitDocument.magnetCount <= 0) return;
         showMagnetView(plotSettings.magnetView != 1);
         markViewItems();
         repaint();
     }},
    {idmGridLines, idmGridLines,
     [](int id) {
         toggleByMark(plotSettings.gridLines, id);
         repaint();
     }},
    {idmShowInfo, idmShowInfo,
     [](int id) {
         toggleByFlag(plotSettings.showInfo, id);
         repaint();
     }},
    {idmResiduals, idmResiduals,
     [](int id) {
         toggleByFlag(plotSettings.showResiduals, id);
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
         endMouseMode(MouseMode::Select);
         repaint();
     }},
    {idmFixRatio, idmFixRatio, [](int id) { toggleByMark(plotSettings.fixedAspect, id); }},
    {idmZoomDefault, idmZoomDefault,
     [](int) {
         resetZoomDefaults();
         endMouseMode(MouseMode::Zoom);
         repaint();
     }},
    {idmAbout, idmAbout, [](int) { openDialog("DL_ABOUT", About); }},
    {idmDetails, idmDetails, [](int) { toggleMouseMode(MouseMode::Details); }},
    {idmSelectByMouse, idmSelectByMouse, [](int) { toggleMouseMode(MouseMode::Select); }},
    {idmZoomByMouse, idmZoomByMouse, [](int) { toggleMouseMode(MouseMode::Zoom); }},
    {idmSelectCustomize, idmSelectCustomize,
     [](int) {
         openDialog("DL_SELDOS", SelectDOS);
         repaint();
         setMouseMode(MouseMode::None);
     }},
    {idmZoomCustomize, idmZoomCustomize,
     [](int) {
         openDialog("DL_ZOOM", Zoom);
         if (plotSettings.fixedAspect == 0) openDialog("DL_BORDER", Border);
         endMouseMode(MouseMode::Zoom);
         repaint();
     }},
    {idmBorderWidth, idmBorderWidth,
     [](int) {
         openDialog("DL_BORDERW", BorderWidth);
         repaint();
     }},
    {idmLabel, idmLabel,
     [](int) {
         openDialog("DL_LABEL", Label);
         repaint();
     }},
    {idmCurveAttributes, idmCurveAttributes,
     [](int) {
         openDialog("DL_STYLE", Style);
         repaint();
     }},
};

// [SECTION] Mouse modes: the left button and the pointer

void onLeftButtonDown(int x, int y) {
    window().closeCover();
    if (shell.mouseMode != MouseMode::Zoom && shell.mouseMode != MouseMode::Select) return;
    shell.dragging = true;
    shell.dragStartX = shell.dragLastX = x;
    shell.dragStartY = shell.dragLastY = y;
    window().captureMouse();
}

// A factor times (1 + change), never below 0 (a product below 0 becomes 0.001).
void scaleFactor(float& factor, double change) {
    const double product = static_cast<double>(factor) * (1.0 + change);
    factor = product < 0 ? 0.001f : static_cast<float>(product);
}

void onMouseMove(int x, int y) {
    if (!shell.dragging) return;
    const int right = window().clientWidth(), bottom = window().clientHeight();
    if (x < 0) return; // left of the window: the move is ignored
    if (x > right) x = right - 1;
    if (y < 0) y = 0;
    if (y > bottom) y = bottom - 1;
    if (x == shell.dragLastX && y == shell.dragLastY) return;
    const double dx = x - shell.dragLastX, dy = y - shell.dragLastY;
    if (shell.mouseMode == MouseMode::Zoom) {
        if (plotSettings.fixedAspect == 1) {
            scaleFactor(plotSettings.zoom, (dy + dx) / plotLayout.deviceHeight);
        } else {
            scaleFactor(plotSettings.verticalRatio, dy / plotLayout.deviceHeight);
            scaleFactor(plotSettings.horizontalRatio, dx / plotLayout.deviceWidth);
        }
        shell.dragLastX = x;
        shell.dragLastY = y;
        repaint();
    } else if (shell.mouseMode == MouseMode::Select) {
        shell.dragLastX = x;
        shell.dragLastY = y;
        window().showBand(shell.dragStartX, shell.dragStartY, x, y);
    }
}

// The band's two corners become the ends of both axes, in data coordinates (not put in order),
// numbered in fifths.
void applySelection() {
    const auto end = [](AxisScale& axis, double from, double to) {
        axis.min = static_cast<float>(from);
        axis.max = static_cast<float>(to);
        if (axis.min == axis.max) axis.max = axis.max + 0.00001f;
        numberInFifths(axis);
    };
    const double t0 = plotT(shell.dragStartX), t1 = plotT(shell.dragLastX);
    const double v0 = plotValue(shell.dragLastY), v1 = plotValue(shell.dragStartY);
    end(plotSettings.tAxis, t0, t1);
    end(plotSettings.chiAxis, v0, v1);
}

void onLeftButtonUp(int x, int y) {
    switch (shell.mouseMode) {
    case MouseMode::Zoom:
        shell.dragging = false;
        window().releaseMouse();
        break;
    case MouseMode::Select:
        // A release without a press in select mode applies nothing.
        if (shell.dragging) applySelection();
        window().hideBand();
        window().releaseMouse();
        repaint();
        shell.dragging = false;
        break;
    case MouseMode::Details: {
        setMouseMode(MouseMode::None);
        FitDocument& doc = fitDocument;
        doc.currentCalculation = pickCurve(x, y);
        const DialogTemplate* info = findDialogTemplate("DL_INFO");
        if (doc.currentCalculation >= 0 && info != nullptr)
            createDialog(*info, infoProcedure(shell.infoDialogs, doc.currentCalculation));
        break;
    }
    case MouseMode::None:
        break;
    }
}

} // namespace

void markViewItems() {
    const bool magnet = plotSettings.magnetView == 1;
    if (plotSettings.plotLoaded == 1 && fitDocument.magnetCount > 0)
        shell.menu.enable(idmMagnetView);
    else
        shell.menu.grey(idmMagnetView);
    if (magnet)
        shell.menu.check(idmMagnetView);
    else
        shell.menu.uncheck(idmMagnetView);
    if (magnet)
        shell.menu.grey(idmSwitch);
    else
        shell.menu.enable(idmSwitch);
}

int pickCurve(int x, int y) {
    if (plotSettings.magnetView == 1) return pickMagnetCurve(x, y);
    const PlotLayout& l = plotLayout;
    if (x <= l.frameLeft || x >= l.frameRight) return -1;
    if (!axisMappable(plotSettings.tAxis) || !axisMappable(plotSettings.chiAxis)) return -1;
    const double under = plotT(x);
    const FitDocument& doc = fitDocument;
    const auto temperature = [&](int pair) { return doc.pairs[slot(pair)].temperature; };
    for (int k = 0; k < std::min(doc.calculationCount, maxCalculations); ++k) {
        if (plotSettings.curveShown[static_cast<std::size_t>(k)] != 1) continue;
        const auto& fitted = displayedFit[static_cast<std::size_t>(k)];
        for (int j = 2; j <= doc.pairCount; ++j) { // pair 1 has no segment before it
            if (!(temperature(j) > under)) continue;
            const double f0 = fitted[slot(j - 1)], f1 = fitted[slot(j)];
            const double v = f0 + (under - temperature(j - 1)) /
                                      (temperature(j) - temperature(j - 1)) * (f1 - f0);
            if (!std::isfinite(v)) continue;
            if (std::abs(y - plotY(v)) < 4) return k;
        }
    }
    return -1;
}

bool runCommand(int id) {
    for (const CommandRow& row : commandTable) {
        if (id < row.first || id > row.last) continue;
        row.handle(id);
        return true;
    }
    return false;
}

void startUp(Surface& screen) {
    shell = Shell{};
    shell.menu = loadMenu("MenuMenu");
    shell.infoDialogs.fit = recalculate;
    shell.printSetup.flags = pdReturnDc | pdNoPageNums | pdNoSelection;
    runState.reset();
    measureDevice(screen);
    initPlotSettings();
    plotSettings.labelFont = defaultLabelFont();
    plotSettings.labelColour = 0;
    resetFitDocument();
}

std::string windowTitle() {
    const std::string& path = runState.reportPath;
    if (path.empty()) return mainWindowTitle;
    const std::size_t slash = path.rfind('/');
    return std::string(mainWindowTitle) + " - " +
           (slash == std::string::npos ? path : path.substr(slash + 1));
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
    markViewItems();

    switch (event.message) {
    case WindowMessage::Create:
    case WindowMessage::Size:
    case WindowMessage::RightButtonDown:
        return true;
    case WindowMessage::Destroy:
        window().quit(0);
        return true;
    case WindowMessage::Paint:
        if (event.surface != nullptr) paintPlot(*event.surface);
        return true;
    case WindowMessage::Command:
        return runCommand(event.command);
    case WindowMessage::LeftButtonDown:
        onLeftButtonDown(event.x, event.y);
        return true;
    case WindowMessage::MouseMove:
        onMouseMove(event.x, event.y);
        return true;
    case WindowMessage::LeftButtonUp:
        onLeftButtonUp(event.x, event.y);
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
