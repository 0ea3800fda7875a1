#include "platform/resources.h"

#include <array>

namespace corvane {

namespace {

using Kind = ControlKind;

std::vector<MenuItem> menuMenu() {
    using Item = MenuItem;
    std::vector<Item> fitted;
    for (int n = 1; n <= 10; ++n) {
        std::string text = n < 10 ? "# &" + std::to_string(n) : "# 1&0";
        fitted.push_back(Item::command(idmFitted1 + n - 1, text));
    }
    return {
        Item::popup("&File",
                    {Item::command(idmNew, "&New..."), Item::command(idmOpen, "&Open..."),
                     Item::command(idmPlot, "P&lot..."), Item::command(idmPrint, "&Print..."),
                     Item::command(idmPrintSetup, "Print &Setup..."),
                     Item::command(idmExit, "E&xit")}),
        Item::command(idmDetails, "&Details", false),
        Item::popup("D&isplay",
                    {Item::command(idmExperimental, "&Experimental"),
                     Item::popup("&Fitted", std::move(fitted)), Item::separator(),
                     Item::command(idmSwitch, "Chi - ChiT &Switch"), Item::separator(),
                     Item::command(idmGridLines, "Show &Grid Lines"),
                     Item::command(idmShowInfo, "Show &Info"), Item::separator(),
                     Item::command(idmDisplayDefault, "Def&ault")},
                    false),
        Item::popup("&Select",
                    {Item::command(idmSelectByMouse, "&By mouse"),
                     Item::command(idmSelectCustomize, "&Customize..."), Item::separator(),
                     Item::command(idmSelectDefault, "&Default")},
                    false),
        Item::popup("&Zoom",
                    {Item::command(idmFixRatio, "&Fix W/H ratio"), Item::separator(),
                     Item::command(idmZoomByMouse, "&By mouse"),
                     Item::command(idmZoomCustomize, "&Customize..."), Item::separator(),
                     Item::command(idmZoomDefault, "&Default")},
                    false),
        Item::popup("&Preference",
                    {Item::command(idmBorderWidth, "&Border Width..."),
                     Item::command(idmLabel, "&Label..."), Item::separator(),
                     Item::command(idmCurveAttributes, "&Curve Attributes...")},
                    false),
        Item::command(idmAbout, "&About..."),
    };
}

DialogTemplate dlAbout() {
    DialogTemplate d;
    d.name = "DL_ABOUT";
    d.title = "About Corvane";
    d.width = 189;
    d.height = 112;
    d.fontFace = "Arial";
    d.fontPoints = 8;
    d.style = dsCaption | dsSystemMenu | dsModalFrame | dsCentre;
    d.controls = {
        {-1, Kind::Static, "Corvane", 50, 7, 92, 11, csCentre},
        {-1, Kind::Static, "Magnetic Susceptibility Fitting", 19, 20, 156, 11, csCentre},
        {-1, Kind::Icon, "", 14, 33, 21, 18},
        {-1, Kind::Static, "Version 1.0", 71, 38, 52, 11, csCentre},
        {999, Kind::Button, "OK", 81, 90, 32, 14, csTabStop | csGroup},
    };
    return d;
}

// The progress dialog of an engine run: a status line, three buttons, and a row of 24 cells
// in a frame.
DialogTemplate dlSpin() {
    DialogTemplate d;
    d.name = "DL_SPIN";
    d.title = "Calculating Magnetic Susceptibility";
    d.x = 70;
    d.y = 40;
    d.width = 282;
    d.height = 85;
    d.fontFace = "Arial";
    d.fontPoints = 10;
    d.style = dsCaption | dsSystemMenu | dsModalFrame;
    d.controls = {
        {100, Kind::Edit, "", 16, 10, 250, 12, csReadOnly | csCentre},
        {-1, Kind::GroupBox, "", 26, 26, 230, 26},
        {999, Kind::Button, "Log File", 44, 62, 50, 14, csTabStop},
        {998, Kind::Button, "Interrupt", 116, 62, 50, 14, csTabStop},
        {1000, Kind::Button, "Close", 188, 62, 50, 14, csTabStop},
    };
    for (int cell = 1; cell <= 24; ++cell)
        d.controls.push_back({cell, Kind::BlackRect, "", 34 + 9 * (cell - 1), 35, 7, 12});
    return d;
}

} // namespace

Menu loadMenu(std::string_view name) {
    if (name == "MenuMenu") return Menu(menuMenu());
    return Menu();
}

const DialogTemplate* findDialogTemplate(std::string_view name) {
    static const std::array<DialogTemplate, 2> templates{dlAbout(), dlSpin()};
    for (const DialogTemplate& d : templates)
        if (d.name == name) return &d;
    return nullptr;
}

} // namespace corvane
