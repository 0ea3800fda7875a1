#include "shell/main_window.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string_view>

#include "dialogs/info.h"
#include "dialogs/plot_dialogs.h"
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
    {idmPrint, idmPrint, [](int) { printCommand(); }},
    {idmPrintSetup, idmPrintSetup, [](int) { printSetupCommand(); }},
    {idmExportPlot, idmExportPlot, [](int) { exportPlotCommand(); }},
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
         openDialog("DL_SELDOS", SelectDOS);
         repaint();
         endMouseModes();
     }},
    {idmZoomCustomize, idmZoomCustomize,
     [](int) {
         openDialog("DL_ZOOM", Zoom);
         if (plotSettings.fixedAspect == 0) openDialog("DL_BORDER", Border);
         endZoom();
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
    if (shell.host != nullptr) shell.host->closeCover();
    if (shell.zoomByMouse == 0 && shell.selectByMouse == 0) return;
    shell.dragging = 1;
    shell.dragStartX = shell.dragLastX = x;
    shell.dragStartY = shell.dragLastY = y;
    if (shell.host != nullptr) shell.host->captureMouse();
}

// A factor times (1 + change), never below 0 (a product below 0 becomes 0.001).
void scaleFactor(float& factor, double change) {
    const double product = static_cast<double>(factor) * (1.0 + change);
    factor = product < 0 ? 0.001f : static_cast<float>(product);
}

void onMouseMove(int x, int y) {
    if (shell.dragging == 0 || shell.host == nullptr) return;
    const int right = shell.host->clientWidth(), bottom = shell.host->clientHeight();
    if (x < 0) return; // left of the window: the move is ignored
    if (x > right) x = right - 1;
    if (y < 0) y = 0;
    if (y > bottom) y = bottom - 1;
    if (x == shell.dragLastX && y == shell.dragLastY) return;
    const double dx = x - shell.dragLastX, dy = y - shell.dragLastY;
    if (shell.zoomByMouse == 1) {
        if (plotSettings.fixedAspect == 1) {
            scaleFactor(plotSettings.zoom, (dy + dx) / plotLayout.deviceHeight);
        } else {
            scaleFactor(plotSettings.verticalRatio, dy / plotLayout.deviceHeight);
            scaleFactor(plotSettings.horizontalRatio, dx / plotLayout.deviceWidth);
        }
        shell.dragLastX = x;
        shell.dragLastY = y;
        repaint();
    } else if (shell.selectByMouse == 1) {
        shell.dragLastX = x;
        shell.dragLastY = y;
        shell.host->showBand(shell.dragStartX, shell.dragStartY, x, y);
    }
}

// The band's two corners become the ends of both axes (not put in order), in 32-bit floats.
void applySelection() {
    const auto end = [](AxisScale& axis, float from, float to) {
        axis.min = from;
        axis.max = to;
        if (axis.min == axis.max) axis.max = axis.max + 0.00001f;
        axis.labelTo = axis.max;
        axis.labelFrom = axis.min;
        axis.majorInterval = (axis.labelTo - axis.labelFrom) / 5;
    };
    const PlotLayout& l = plotLayout;
    const float width = static_cast<float>(l.frameRight - l.frameLeft);
    const float height = static_cast<float>(l.frameBottom - l.frameTop);
    AxisScale& t = plotSettings.tAxis;
    AxisScale& chi = plotSettings.chiAxis;
    end(t, t.min + (t.max - t.min) * static_cast<float>(shell.dragStartX - l.frameLeft) / width,
        t.min + (t.max - t.min) * static_cast<float>(shell.dragLastX - l.frameLeft) / width);
    const float top = chi.max, span = chi.max - chi.min;
    end(chi, top - span * static_cast<float>(shell.dragLastY - l.frameTop) / height,
        top - span * static_cast<float>(shell.dragStartY - l.frameTop) / height);
}

void onLeftButtonUp(int x, int y) {
    if (shell.zoomByMouse == 1) {
        shell.dragging = 0;
        if (shell.host != nullptr) shell.host->releaseMouse();
    } else if (shell.selectByMouse == 1) {
        // A release without a press in select mode applies nothing.
        if (shell.dragging == 1) applySelection();
        if (shell.host != nullptr) {
            shell.host->hideBand();
            shell.host->releaseMouse();
        }
        repaint();
        shell.dragging = 0;
    } else if (shell.detailsPick == 1) {
        endDetails();
        fitDocument.currentCalculation = pickCurve(x, y);
        const DialogTemplate* info = findDialogTemplate("DL_INFO");
        if (fitDocument.currentCalculation >= 0 && info != nullptr)
            createDialog(*info, infoProcedure(fitDocument.currentCalculation));
    }
}

} // namespace

int pickCurve(int x, int y) {
    const PlotLayout& l = plotLayout;
    if (x <= l.frameLeft || x >= l.frameRight) return -1;
    const AxisScale& t = plotSettings.tAxis;
    const AxisScale& chi = plotSettings.chiAxis;
    const double under = t.min + static_cast<double>(t.max - t.min) * (x - l.frameLeft) /
                                     (l.frameRight - l.frameLeft);
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
            const double yc =
                l.frameTop + (chi.max - v) / (chi.max - chi.min) * (l.frameBottom - l.frameTop);
            if (!std::isfinite(yc)) continue;
            if (std::fabs(y - std::trunc(yc)) < 4.0) return k;
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

void startUp(ShellHost& host, Surface& screen) {
    shell = Shell{};
    shell.menu = loadMenu("MenuMenu");
    shell.host = &host;
    shell.printSetup.flags = pdReturnDc | pdNoPageNums | pdNoSelection;
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
