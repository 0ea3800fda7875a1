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

// The fitting parameter information dialog: the parameter table on the left (start, step and
// fitted value of g, C, zJ, Xtip and J # 1 to J # 10), the curve's counts, range, precision and
// deviation on the right, and its three buttons below them.
DialogTemplate dlInfo() {
    constexpr unsigned editable = csBorder | csTabStop;
    constexpr int fieldLength = 14; // characters a field takes
    DialogTemplate d;
    d.name = "DL_INFO";
    d.title = "Fitting Parameter Information";
    d.x = 100;
    d.y = 50;
    d.width = 298;
    d.height = 243;
    d.fontFace = "Arial";
    d.fontPoints = 10;
    d.style = dsCaption | dsSystemMenu;
    d.controls = {
        {1, Kind::GroupBox, "Parameters", 6, 3, 194, 232},
        {12, Kind::Static, "Starting Value", 40, 14, 50, 10, csCentre},
        {3, Kind::Static, "Step", 92, 14, 50, 10, csCentre},
        {5, Kind::Static, "Fitted", 144, 14, 52, 10, csCentre},
    };
    // One row per parameter: its label, then start, step and fitted value at base, base + 10
    // and base + 20.
    auto row = [&d](int labelId, const char* label, int base, int y) {
        d.controls.push_back({labelId, Kind::Static, label, 12, y + 2, 27, 10});
        d.controls.push_back({base, Kind::Edit, "", 40, y, 50, 12, editable, fieldLength});
        d.controls.push_back({base + 10, Kind::Edit, "", 92, y, 50, 12, editable, fieldLength});
        d.controls.push_back({base + 20, Kind::Edit, "", 144, y, 52, 12, csReadOnly});
    };
    row(2, "g", 100, 26);
    row(7, "C", 200, 40);
    row(4, "zJ", 300, 54);
    row(9, "Xtip", 400, 68);
    for (int n = 1; n <= 10; ++n) {
        const std::string label = "J # " + std::to_string(n);
        row(n == 1 ? 11 : 11 + n, label.c_str(), 1000 * n, 82 + 14 * (n - 1));
    }
    const std::vector<ControlTemplate> right = {
        {23, Kind::Static, "FITTING CURVE #", 206, 9, 62, 10},
        {700, Kind::Edit, "", 268, 8, 24, 12, csReadOnly},
        {10, Kind::Static, "Spin Sites:", 206, 27, 50, 10},
        {500, Kind::Edit, "", 258, 26, 34, 12, csReadOnly},
        {24, Kind::Static, "Data Pairs:", 206, 41, 50, 10},
        {501, Kind::Edit, "", 258, 40, 34, 12, csReadOnly},
        {25, Kind::Static, "Fitting From:", 206, 59, 50, 10},
        {502, Kind::Edit, "", 258, 58, 34, 12, editable, fieldLength},
        {26, Kind::Static, "To:", 206, 73, 50, 10},
        {503, Kind::Edit, "", 258, 72, 34, 12, editable, fieldLength},
        {27, Kind::Static, "Precision:", 206, 91, 86, 10},
        {504, Kind::Edit, "", 206, 102, 86, 12, editable, fieldLength},
        {22, Kind::Static, "Square Deviation:", 206, 120, 86, 10},
        {600, Kind::Edit, "", 206, 131, 86, 12, csReadOnly},
        {997, Kind::Button, "Add New", 219, 177, 60, 14, csTabStop},
        {998, Kind::Button, "Re-calculate", 219, 197, 60, 14, csTabStop},
        {999, Kind::Button, "Close", 219, 217, 60, 14, csTabStop | csDefault},
    };
    d.controls.insert(d.controls.end(), right.begin(), right.end());
    return d;
}

} // namespace

Menu loadMenu(std::string_view name) {
    if (name == "MenuMenu") return Menu(menuMenu());
    return Menu();
}

const DialogTemplate* findDialogTemplate(std::string_view name) {
    static const std::array<DialogTemplate, 3> templates{dlAbout(), dlSpin(), dlInfo()};
    for (const DialogTemplate& d : templates)
        if (d.name == name) return &d;
    return nullptr;
}

} // namespace corvane
