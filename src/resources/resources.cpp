#include "resources/resources.h"

#include <array>
#include <string>

#include "fit/limits.h"
#include "resources/dialog_ids.h"

namespace corvane {

namespace {

using Kind = ControlKind;

std::vector<MenuItem> menuMenu() {
    using Item = MenuItem;
    std::vector<Item> fitted;
    for (int n = 1; n <= maxCalculations; ++n) {
        // The mnemonic is the last digit: "# &1" .. "# &9", "# 1&0".
        std::string number = std::to_string(n);
        number.insert(number.size() - 1, "&");
        std::string text = "# " + number;
        fitted.push_back(Item::command(idmFitted1 + n - 1, text));
    }
    return {
        Item::popup("&File",
                    {Item::command(idmNew, "&New..."), Item::command(idmOpen, "&Open..."),
                     Item::command(idmPlot, "P&lot..."), Item::command(idmPrint, "&Print..."),
                     Item::command(idmPrintSetup, "Print &Setup..."),
                     Item::command(idmExportPlot, "&Export Plot..."),
                     Item::command(idmExit, "E&xit")}),
        Item::command(idmDetails, "&Details", false),
        Item::popup("D&isplay",
                    {Item::command(idmExperimental, "&Experimental"),
                     Item::popup("&Fitted", std::move(fitted)), Item::separator(),
                     Item::command(idmSwitch, "Chi - ChiT &Switch"),
                     Item::command(idmMagnetView, "&Magnetization", false), Item::separator(),
                     Item::command(idmGridLines, "Show &Grid Lines"),
                     Item::command(idmShowInfo, "Show &Info"),
                     Item::command(idmResiduals, "&Residuals"), Item::separator(),
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

// A template without its controls: name, title, place and size in dialog units, styles and
// font.
DialogTemplate head(std::string name, std::string title, int x, int y, int width, int height,
                    unsigned style, std::string fontFace, int fontPoints) {
    DialogTemplate d;
    d.name = std::move(name);
    d.title = std::move(title);
    d.x = x;
    d.y = y;
    d.width = width;
    d.height = height;
    d.fontFace = std::move(fontFace);
    d.fontPoints = fontPoints;
    d.style = style;
    return d;
}

DialogTemplate dlAbout() {
    DialogTemplate d = head("DL_ABOUT", "About Corvane", 0, 0, 189, 112,
                            dsCaption | dsSystemMenu | dsModalFrame | dsCentre, "Arial", 8);
    d.controls = {
        {-1, Kind::Static, "Corvane", 50, 7, 92, 11, csCentre},
        {-1, Kind::Static, "Magnetic Susceptibility Fitting", 19, 20, 156, 11, csCentre},
        {-1, Kind::Icon, "", 14, 33, 21, 18},
        {-1, Kind::Static, "Version 1.0", 71, 38, 52, 11, csCentre},
        {AboutControl::ok, Kind::Button, "OK", 81, 90, 32, 14, csTabStop | csGroup},
    };
    return d;
}

// The progress dialog of an engine run: a status line, three buttons, and a row of 24 cells
// in a frame.
DialogTemplate dlSpin() {
    DialogTemplate d = head("DL_SPIN", "Calculating Magnetic Susceptibility", 70, 40, 282, 85,
                            dsCaption | dsSystemMenu | dsModalFrame, "Arial", 10);
    d.controls = {
        {SpinControl::statusLine, Kind::Edit, "", 16, 10, 250, 12, csReadOnly | csCentre},
        {-1, Kind::GroupBox, "", 26, 26, 230, 26},
        {SpinControl::logFile, Kind::Button, "Log File", 44, 62, 50, 14, csTabStop},
        {SpinControl::interrupt, Kind::Button, "Interrupt", 116, 62, 50, 14, csTabStop},
        {SpinControl::close, Kind::Button, "Close", 188, 62, 50, 14, csTabStop},
    };
    for (int cell = 0; cell < SpinControl::cellCount; ++cell)
        d.controls.push_back(
            {SpinControl::firstCell + cell, Kind::BlackRect, "", 34 + 9 * cell, 35, 7, 12});
    return d;
}

// The fitting parameter information dialog: the parameter table on the left (start, step and
// fitted value of g, C, zJ, Xtip and J # 1 to J # 10), the curve's counts, range, precision and
// deviation on the right, and its three buttons below them.
DialogTemplate dlInfo() {
    constexpr unsigned editable = csBorder | csTabStop;
    constexpr int fieldLength = 14; // characters a field takes
    DialogTemplate d = head("DL_INFO", "Fitting Parameter Information", 100, 50, 298, 243,
                            dsCaption | dsSystemMenu, "Arial", 10);
    d.controls = {
        {1, Kind::GroupBox, "Parameters", 6, 3, 194, 232},
        {12, Kind::Static, "Starting Value", 40, 14, 50, 10, csCentre},
        {3, Kind::Static, "Step", 92, 14, 50, 10, csCentre},
        {5, Kind::Static, "Fitted", 144, 14, 52, 10, csCentre},
    };
    // One row per parameter: its label, then its start, step and fitted value.
    auto row = [&d](int labelId, const char* label, int base, int y) {
        using C = InfoControl;
        d.controls.push_back({labelId, Kind::Static, label, 12, y + 2, 27, 10});
        d.controls.push_back({base, Kind::Edit, "", 40, y, 50, 12, editable, fieldLength});
        d.controls.push_back(
            {base + C::step, Kind::Edit, "", 92, y, 50, 12, editable, fieldLength});
        d.controls.push_back({base + C::fitted, Kind::Edit, "", 144, y, 52, 12, csReadOnly});
    };
    row(2, "g", InfoControl::gRow, 26);
    row(7, "C", InfoControl::cRow, 40);
    row(4, "zJ", InfoControl::zJRow, 54);
    row(9, "Xtip", InfoControl::tipRow, 68);
    for (int n = 1; n <= maxJValues; ++n) {
        const std::string label = "J # " + std::to_string(n);
        row(n == 1 ? 11 : 11 + n, label.c_str(), InfoControl::jRow(n), 82 + 14 * (n - 1));
    }
    using C = InfoControl;
    const std::vector<ControlTemplate> right = {
        {23, Kind::Static, "FITTING CURVE #", 206, 9, 62, 10},
        {C::curveNumber, Kind::Edit, "", 268, 8, 24, 12, csReadOnly},
        {10, Kind::Static, "Spin Sites:", 206, 27, 50, 10},
        {C::siteCount, Kind::Edit, "", 258, 26, 34, 12, csReadOnly},
        {24, Kind::Static, "Data Pairs:", 206, 41, 50, 10},
        {C::pairCount, Kind::Edit, "", 258, 40, 34, 12, csReadOnly},
        {25, Kind::Static, "Fitting From:", 206, 59, 50, 10},
        {C::firstPair, Kind::Edit, "", 258, 58, 34, 12, editable, fieldLength},
        {26, Kind::Static, "To:", 206, 73, 50, 10},
        {C::lastPair, Kind::Edit, "", 258, 72, 34, 12, editable, fieldLength},
        {27, Kind::Static, "Precision:", 206, 91, 86, 10},
        {C::tolerance, Kind::Edit, "", 206, 102, 86, 12, editable, fieldLength},
        {22, Kind::Static, "Square Deviation:", 206, 120, 86, 10},
        {C::deviation, Kind::Edit, "", 206, 131, 86, 12, csReadOnly},
        {C::addNew, Kind::Button, "Add New", 219, 177, 60, 14, csTabStop},
        {C::recalculate, Kind::Button, "Re-calculate", 219, 197, 60, 14, csTabStop},
        {C::close, Kind::Button, "Close", 219, 217, 60, 14, csTabStop | csDefault},
    };
    d.controls.insert(d.controls.end(), right.begin(), right.end());
    return d;
}

// The buttons OK, Cancel and Help side by side at y, centred across width, Help disabled.
void addButtonRow(DialogTemplate& d, int okId, int cancelId, int helpId, int y) {
    const int left = (d.width - 3 * 50 - 2 * 20) / 2;
    d.controls.push_back({okId, Kind::Button, "OK", left, y, 50, 14, csTabStop | csDefault});
    d.controls.push_back({cancelId, Kind::Button, "Cancel", left + 70, y, 50, 14, csTabStop});
    d.controls.push_back(
        {helpId, Kind::Button, "Help", left + 140, y, 50, 14, csTabStop | csDisabled});
}

constexpr unsigned numberField = csBorder | csTabStop;
constexpr int numberLength = 14;

// The displayed ranges: for each axis a read-only row with the range in force and an editable
// row with the new one.
DialogTemplate dlSelDos() {
    DialogTemplate d = head("DL_SELDOS", "Chi - T Display Range ", 50, 50, 244, 180,
                            dsCaption | dsSystemMenu | dsModalFrame, "MS Sans Serif", 8);
    struct Group {
        int id;
        const char* title;
        int labels; // ids of the six labels: labels .. labels + 5
        const char* unit;
        int current, fresh; // ids of the from fields; the to fields are 100 further
        int y;
    };
    using C = RangeControl;
    const Group groups[] = {{C::tGroup, "Teparature Range", 11, "K", C::tMin, C::newTMin, 6},
                            {C::chiGroup, "Chi (ChiT) Range", 17, "", C::chiMin, C::newChiMin, 76}};
    static_assert(C::tMax == C::tMin + 100 && C::newChiMax == C::newChiMin + 100);
    static_assert(C::tUnit == 11 + 2 && C::newTUnit == 11 + 5 && C::chiUnit == 17 + 2 &&
                  C::newChiUnit == 17 + 5);
    for (const Group& g : groups) {
        d.controls.push_back({g.id, Kind::GroupBox, g.title, 8, g.y, 228, 62});
        const char* const first[] = {"From", "to", g.unit};
        const char* const second[] = {"Display from", "to", g.unit};
        for (int row = 0; row < 2; ++row) {
            const int y = g.y + 16 + 22 * row;
            const char* const* texts = row == 0 ? first : second;
            const int from = row == 0 ? g.current : g.fresh;
            const unsigned style = row == 0 ? unsigned{csReadOnly} : numberField;
            const int length = row == 0 ? 0 : numberLength;
            d.controls.push_back({g.labels + 3 * row, Kind::Static, texts[0], 14, y + 2, 46, 10});
            d.controls.push_back({from, Kind::Edit, "", 62, y, 66, 12, style, length});
            d.controls.push_back(
                {g.labels + 3 * row + 1, Kind::Static, texts[1], 132, y + 2, 12, 10});
            d.controls.push_back({from + 100, Kind::Edit, "", 146, y, 66, 12, style, length});
            d.controls.push_back(
                {g.labels + 3 * row + 2, Kind::Static, texts[2], 216, y + 2, 14, 10});
        }
    }
    addButtonRow(d, C::ok, C::cancel, C::help, 154);
    return d;
}

// Titles, ranges and numbering of the axes, and the label font.
DialogTemplate dlLabel() {
    DialogTemplate d = head("DL_LABEL", "Labeling...", 50, 50, 301, 318,
                            dsCaption | dsSystemMenu | dsModalFrame, "MS Sans Serif", 8);
    constexpr int titleLength = 79;
    using C = LabelControl;
    d.controls = {
        {10, Kind::Static, "The label for x-axis:", 10, 6, 140, 10},
        {C::xTitle, Kind::Edit, "", 10, 17, 281, 12, numberField, titleLength},
        {20, Kind::Static, "The label for y-axis:", 10, 34, 140, 10},
        {C::yTitle, Kind::Edit, "", 10, 45, 281, 12, numberField, titleLength},
    };
    struct Group {
        int id;
        const char* title;
        int minLabel, maxLabel, fromLabel, toLabel, intervalLabel, digitsLabel, minorLabel;
        int base; // the axis's fields (LabelControl)
        int y;
    };
    const Group groups[] = {
        {C::tGroup, "Numerical labels for Temperature", 3, 4, 41, 42, 43, 44, 36, C::tAxis, 64},
        {C::chiGroup, "Numerical labels for Chi:", 5, 6, 46, 49, 47, 48, 37, C::chiAxis, 162},
    };
    for (const Group& g : groups) {
        d.controls.push_back({g.id, Kind::GroupBox, g.title, 6, g.y, 289, 92});
        const int y = g.y + 14;
        auto pair = [&d](int labelId, const char* label, int x, int rowY, int field) {
            d.controls.push_back({labelId, Kind::Static, label, x, rowY + 2, 60, 10});
            d.controls.push_back(
                {field, Kind::Edit, "", x + 62, rowY, 70, 12, numberField, numberLength});
        };
        pair(g.minLabel, "Minimum value:", 14, y, g.base + C::min);
        pair(g.maxLabel, "Maximum value:", 152, y, g.base + C::max);
        pair(g.fromLabel, "From:", 14, y + 18, g.base + C::from);
        pair(g.toLabel, "To:", 152, y + 18, g.base + C::to);
        pair(g.intervalLabel, "Major interval:", 14, y + 36, g.base + C::interval);
        pair(g.digitsLabel, "decimal digits:", 152, y + 36, g.base + C::digits);
        d.controls.push_back(
            {g.minorLabel, Kind::Static, "Number of minor intervals:", 14, y + 56, 100, 10});
        d.controls.push_back({g.base + C::minorCount, Kind::Edit, "", 114, y + 54, 32, 12,
                              numberField, numberLength});
    }
    d.controls.push_back({C::font, Kind::Button, "Text font", 10, 266, 60, 14, csTabStop});
    addButtonRow(d, C::ok, C::cancel, C::help, 294);
    return d;
}

// Colours, markers, line styles and the pen width.
DialogTemplate dlStyle() {
    DialogTemplate d = head("DL_STYLE", "Curve Attributes", 30, 10, 248, 265,
                            dsCaption | dsSystemMenu | dsModalFrame, "MS Sans Serif", 8);
    constexpr unsigned list = csDropDownList | csTabStop;
    using C = StyleControl;
    d.controls = {
        {1, Kind::GroupBox, "Width", 8, 4, 232, 30},
        {C::width, Kind::ComboBox, "", 60, 14, 54, 80, csDropDown | csTabStop, 11},
        {-1, Kind::GroupBox, "Color", 8, 38, 112, 196},
        {-1, Kind::GroupBox, "Style", 128, 38, 112, 196},
        {20, Kind::Static, "Expt.", 16, 52, 40, 10},
        {C::colour, Kind::ComboBox, "", 58, 50, 56, 80, list},
        {31, Kind::Static, "Expt.", 136, 52, 34, 10},
        {C::marker, Kind::ComboBox, "", 170, 50, 64, 80, list},
    };
    for (int n = 1; n <= maxCalculations; ++n) {
        const int y = 50 + 16 * n;
        const std::string label = "Fitted " + std::to_string(n);
        d.controls.push_back({9 + n, Kind::Static, label, 16, y + 2, 40, 10});
        d.controls.push_back({C::colour + n, Kind::ComboBox, "", 58, y, 56, 80, list});
        d.controls.push_back({20 + n, Kind::Static, label, 136, y + 2, 34, 10});
        d.controls.push_back({C::marker + n, Kind::ComboBox, "", 170, y, 64, 80, list});
    }
    addButtonRow(d, C::ok, C::cancel, C::help, 242);
    return d;
}

// The zoom ratio and border width dialogs: one box of presets that also takes a typed value.
DialogTemplate dlOneBox(const char* name, const char* title) {
    DialogTemplate d =
        head(name, title, 80, 50, 145, 67, dsCaption | dsModalFrame, "MS Sans Serif", 8);
    using C = BoxControl;
    d.controls = {
        {C::first, Kind::ComboBox, "", 10, 6, 70, 56, csTabStop, 11},
        {C::ok, Kind::Button, "OK", 89, 6, 46, 14, csTabStop | csDefault},
        {C::cancel, Kind::Button, "Cancel", 89, 25, 46, 14, csTabStop},
        {C::help, Kind::Button, "Help", 89, 44, 46, 14, csTabStop | csDisabled},
    };
    return d;
}

DialogTemplate dlBorder() {
    DialogTemplate d = head("DL_BORDER", "Border Ratio", 80, 50, 220, 146, dsCaption | dsModalFrame,
                            "MS Sans Serif", 8);
    using C = BoxControl;
    d.controls = {
        {10, Kind::GroupBox, "Horizontal", 8, 4, 98, 112},
        {C::first, Kind::ComboBox, "", 16, 17, 82, 92, csTabStop, 11},
        {20, Kind::GroupBox, "Vertical", 114, 4, 98, 112},
        {C::second, Kind::ComboBox, "", 122, 17, 82, 92, csTabStop, 11},
    };
    addButtonRow(d, C::ok, C::cancel, C::help, 124);
    return d;
}

} // namespace

Menu loadMenu(std::string_view name) {
    if (name == "MenuMenu") return Menu(menuMenu());
    return Menu();
}

const DialogTemplate* findDialogTemplate(std::string_view name) {
    static const std::array<DialogTemplate, 9> templates{dlAbout(),
                                                         dlSpin(),
                                                         dlInfo(),
                                                         dlSelDos(),
                                                         dlLabel(),
                                                         dlStyle(),
                                                         dlOneBox("DL_ZOOM", "Zoom Ratio"),
                                                         dlBorder(),
                                                         dlOneBox("DL_BORDERW", "Border Width")};
    for (const DialogTemplate& d : templates)
        if (d.name == name) return &d;
    return nullptr;
}

} // namespace corvane
