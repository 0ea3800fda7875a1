#include "dialogs/plot_dialogs.h"

#include <array>
#include <cmath>
#include <functional>
#include <optional>
#include <string>

#include "dialogs/fields.h"
#include "fit/fit_document.h"
#include "platform/choosers.h"
#include "platform/messages.h"
#include "plot/plot_settings.h"
#include "resources/dialog_ids.h"
#include "text/text.h"

namespace corvane {

namespace {

constexpr int numberLength = 14; // characters of a numeric field that are read
constexpr int boxLength = 11;    // characters of a zoom, border or width box that are read

bool isEditNotification(Notification n) {
    return n == Notification::EditChanged || n == Notification::EditFocusGained ||
           n == Notification::EditFocusLost;
}

void showFloat(Dialog& dialog, int id, float value) {
    dialog.setText(id, formatC("%f", static_cast<double>(value)));
}

// A float field scanned at OK: its number, or value as it was when it holds none.
float scannedFloat(const Dialog& dialog, int id, float value) {
    scanReal(fieldText(dialog, id, numberLength), value);
    return value;
}

// What all six do alike: filled on opening with Help disabled; the close command ends them
// without storing; a control's command goes to command.
std::intptr_t settingsDialog(Dialog& dialog, DialogMessage message,
                             const std::function<void()>& fill,
                             const std::function<void()>& command) {
    switch (message) {
    case DialogMessage::Initialise:
        dialog.disable(helpButton);
        fill();
        return 1;
    case DialogMessage::Command:
        command();
        return 1;
    case DialogMessage::Close:
        dialog.end(0);
        return 1;
    case DialogMessage::Timer:
        return 0;
    }
    return 0;
}

// The text box id gives at OK: its chosen row's, or the typed text, cut and trimmed.
std::string boxText(const Dialog& dialog, int id) {
    const int row = dialog.selection(id);
    return row >= 0 ? dialog.rowText(id, row) : fieldText(dialog, id, boxLength);
}

// [SECTION] Display range

// The new range of one axis from its two fields; false after refusing it (an end that is not
// finite, or no width at all).
bool readRange(Dialog& dialog, const AxisScale& old, int fromId, int toId, AxisScale& axis) {
    axis = old;
    axis.min = scannedFloat(dialog, fromId, old.min);
    axis.max = scannedFloat(dialog, toId, old.max);
    if (!std::isfinite(axis.min)) {
        refuse(dialog, fromId);
        return false;
    }
    if (!std::isfinite(axis.max) || axis.min == axis.max) {
        refuse(dialog, toId);
        return false;
    }
    numberInFifths(axis);
    return true;
}

// [SECTION] Labeling

// The fields of one axis in DL_LABEL.
struct AxisFields {
    AxisScale PlotSettings::*axis;
    int min, max, from, to, interval, digits, minorCount;
};
constexpr AxisFields fieldsAt(AxisScale PlotSettings::*axis, int base) {
    using L = LabelControl;
    return {axis,         base + L::min,      base + L::max,    base + L::from,
            base + L::to, base + L::interval, base + L::digits, base + L::minorCount};
}
constexpr std::array<AxisFields, 2> axisFields = {{
    fieldsAt(&PlotSettings::tAxis, LabelControl::tAxis),
    fieldsAt(&PlotSettings::chiAxis, LabelControl::chiAxis),
}};
constexpr int maxDigits = 10; // decimals a number of the axes may have

std::optional<FieldKind> labelFieldKind(int id) {
    for (const AxisFields& f : axisFields) {
        for (int real : {f.min, f.max, f.from, f.to, f.interval})
            if (id == real) return FieldKind::Real;
        if (id == f.digits || id == f.minorCount) return FieldKind::Integer;
    }
    return std::nullopt;
}

// One axis as the fields give it; false after refusing what the plot cannot number.
bool readAxis(Dialog& dialog, const AxisFields& f, AxisScale& axis) {
    axis = plotSettings.*f.axis;
    const std::array<std::pair<int, float AxisScale::*>, 5> reals = {
        {{f.min, &AxisScale::min},
         {f.max, &AxisScale::max},
         {f.from, &AxisScale::labelFrom},
         {f.to, &AxisScale::labelTo},
         {f.interval, &AxisScale::majorInterval}}};
    for (const auto& [id, field] : reals) {
        axis.*field = scannedFloat(dialog, id, axis.*field);
        if (!std::isfinite(axis.*field)) {
            refuse(dialog, id);
            return false;
        }
    }
    axis.digits = unsignedValue(fieldText(dialog, f.digits, numberLength));
    axis.minorCount = unsignedValue(fieldText(dialog, f.minorCount, numberLength));
    int offending = 0;
    if (axis.min == axis.max)
        offending = f.max;
    else if (!(axis.majorInterval > 0))
        offending = f.interval;
    else if (axis.digits > maxDigits)
        offending = f.digits;
    else if (axis.minorCount < 1)
        offending = f.minorCount;
    if (offending == 0) return true;
    refuse(dialog, offending);
    return false;
}

void copyTitle(std::array<char, axisLabelSize>& title, const std::string& text) {
    title.fill('\0');
    text.copy(title.data(), title.size() - 1);
}

// [SECTION] Curve attributes

constexpr int widthCount = 5;

void fillRows(Dialog& dialog, int id, const char* const* names, int count, int row) {
    for (int k = 0; k < count; ++k) dialog.addRow(id, names[k]);
    dialog.select(id, row);
}

// The row chosen in box id, or keep when none is.
int chosenRow(const Dialog& dialog, int id, int keep) {
    const int row = dialog.selection(id);
    return row >= 0 ? row : keep;
}

// [SECTION] Zoom ratio, border ratio and border width

constexpr std::array<const char*, 12> zoomRows = {"8.0", "5.0", "3.0",  "1.0",  "0.8",  "0.5",
                                                  "0.3", "0.1", "0.08", "0.05", "0.03", "0.01"};
constexpr std::array<const char*, 6> borderRows = {"3.0", "1.0", "0.8", "0.5", "0.3", "0.1"};
constexpr std::array<const char*, 10> widthRows = {"1", "2", "3", "4", "5",
                                                   "6", "7", "8", "9", "10"};

template <std::size_t N>
void fillBox(Dialog& dialog, int id, const std::array<const char*, N>& rows, int choice) {
    dialog.clearRows(id);
    fillRows(dialog, id, rows.data(), static_cast<int>(N), choice);
}

// The value of box id at OK. Its chosen row is remembered in choice at once (-1: a typed value).
// False after refusing the text (beep, focus in the box); true with no value when the text,
// though it passes, holds no number.
bool readRatio(Dialog& dialog, int id, int& choice, std::optional<float>& value) {
    choice = dialog.selection(id);
    const std::string text = boxText(dialog, id);
    value.reset();
    float scanned = 0;
    if (!passes(text, FieldKind::Real) ||
        (scanReal(text, scanned) && !(scanned > 0 && std::isfinite(scanned)))) {
        refuse(dialog, id);
        return false;
    }
    if (scanReal(text, scanned)) value = scanned;
    return true;
}

// setting multiplied by the factor read from box id, if any; refused (false) when the product
// would not be a positive, finite size.
bool applyFactor(Dialog& dialog, int id, float& setting, const std::optional<float>& factor) {
    if (!factor) return true;
    const float product = setting * *factor;
    if (!(product > 0) || !std::isfinite(product)) {
        refuse(dialog, id);
        return false;
    }
    setting = product;
    return true;
}

// Cancel of the three: only after Yes to the question.
void confirmCancel(Dialog& dialog) {
    if (messageBox("Are you sure to cancel ?", "Warning...", mbYesNo | mbIconQuestion) == idYes)
        dialog.end(0);
}

// What the three have in common besides: OK, and Cancel only after Yes to its question.
std::intptr_t boxDialog(Dialog& dialog, DialogMessage message, int control,
                        const std::function<void()>& fill, const std::function<void()>& ok) {
    return settingsDialog(dialog, message, fill, [&] {
        if (control == BoxControl::ok) ok();
        if (control == BoxControl::cancel) confirmCancel(dialog);
    });
}

} // namespace

std::intptr_t SelectDOS(Dialog& dialog, DialogMessage message, int control,
                        Notification notification) {
    PlotSettings& s = plotSettings;
    const auto fill = [&] {
        if (s.magnetView == 1) { // the fields hold the field and M ranges of the M view
            dialog.setText(RangeControl::tGroup, "Field Range");
            dialog.setText(RangeControl::chiGroup, "M Range");
            for (int id : {RangeControl::tUnit, RangeControl::newTUnit}) dialog.setText(id, "T");
            for (int id : {RangeControl::chiUnit, RangeControl::newChiUnit})
                dialog.setText(id, "N\u03bcB");
        }
        for (int id : {RangeControl::tMin, RangeControl::newTMin})
            showFloat(dialog, id, s.tAxis.min);
        for (int id : {RangeControl::tMax, RangeControl::newTMax})
            showFloat(dialog, id, s.tAxis.max);
        for (int id : {RangeControl::chiMin, RangeControl::newChiMin})
            showFloat(dialog, id, s.chiAxis.min);
        for (int id : {RangeControl::chiMax, RangeControl::newChiMax})
            showFloat(dialog, id, s.chiAxis.max);
    };
    return settingsDialog(dialog, message, fill, [&] {
        if (control == RangeControl::ok) {
            AxisScale t, chi;
            if (!readRange(dialog, s.tAxis, RangeControl::newTMin, RangeControl::newTMax, t) ||
                !readRange(dialog, s.chiAxis, RangeControl::newChiMin, RangeControl::newChiMax,
                           chi))
                return;
            s.tAxis = t;
            s.chiAxis = chi;
            dialog.end(1);
        } else if (control == RangeControl::cancel) {
            dialog.end(0);
        } else if ((control == RangeControl::newTMin || control == RangeControl::newTMax ||
                    control == RangeControl::newChiMin || control == RangeControl::newChiMax) &&
                   isEditNotification(notification)) {
            checkField(dialog, control, FieldKind::Real, numberLength);
        }
    });
}

std::intptr_t Label(Dialog& dialog, DialogMessage message, int control, Notification notification) {
    PlotSettings& s = plotSettings;
    const auto fill = [&] {
        if (s.magnetView == 1) {
            dialog.setText(LabelControl::tGroup, "Numerical labels for Field");
            dialog.setText(LabelControl::chiGroup, "Numerical labels for M:");
        }
        dialog.setText(LabelControl::xTitle, s.xAxisLabel.data());
        dialog.setText(LabelControl::yTitle, s.yAxisLabel.data());
        for (const AxisFields& f : axisFields) {
            const AxisScale& a = s.*f.axis;
            showFloat(dialog, f.min, a.min);
            showFloat(dialog, f.max, a.max);
            showFloat(dialog, f.from, a.labelFrom);
            showFloat(dialog, f.to, a.labelTo);
            showFloat(dialog, f.interval, a.majorInterval);
            dialog.setText(f.digits, formatC("%u", static_cast<unsigned>(a.digits)));
            dialog.setText(f.minorCount, formatC("%u", static_cast<unsigned>(a.minorCount)));
        }
    };
    return settingsDialog(dialog, message, fill, [&] {
        if (control == LabelControl::ok) {
            std::array<AxisScale, axisFields.size()> axes;
            for (std::size_t k = 0; k < axisFields.size(); ++k)
                if (!readAxis(dialog, axisFields[k], axes[k])) return;
            copyTitle(s.xAxisLabel, dialog.text(LabelControl::xTitle));
            copyTitle(s.yAxisLabel, dialog.text(LabelControl::yTitle));
            for (std::size_t k = 0; k < axisFields.size(); ++k) s.*axisFields[k].axis = axes[k];
            dialog.end(1);
        } else if (control == LabelControl::cancel) {
            dialog.end(0);
        } else if (control == LabelControl::font && notification == Notification::Clicked) {
            // In force at once, whether the dialog is then confirmed or cancelled.
            if (const std::optional<FontChoice> chosen = chooseFont(s.labelColour)) {
                s.labelFont = chosen->font;
                s.labelColour = chosen->colour;
            }
        } else if (const std::optional<FieldKind> kind = labelFieldKind(control);
                   kind && isEditNotification(notification)) {
            checkField(dialog, control, *kind, numberLength);
        }
    });
}

std::intptr_t Style(Dialog& dialog, DialogMessage message, int control, Notification) {
    PlotSettings& s = plotSettings;
    CurveAttributes& c = s.curves;
    const auto fill = [&] {
        const int shown = s.experimentalShown == 1 ? c.experimentalMarker : -1;
        fillRows(dialog, StyleControl::colour, plotColourNames.data(), plotColourCount,
                 c.experimentalColour);
        fillRows(dialog, StyleControl::marker, markerKindNames.data(), markerKindCount, shown);
        for (int n = 1; n <= maxCalculations; ++n) {
            const std::size_t k = static_cast<std::size_t>(n - 1);
            fillRows(dialog, StyleControl::colour + n, plotColourNames.data(), plotColourCount,
                     c.curveColour[k]);
            fillRows(dialog, StyleControl::marker + n, lineStyleNames.data(), lineStyleCount,
                     c.curveStyle[k]);
            const bool live = n <= fitDocument.calculationCount;
            dialog.enable(StyleControl::colour + n, live);
            dialog.enable(StyleControl::marker + n, live);
        }
        for (int w = 1; w <= widthCount; ++w) dialog.addRow(StyleControl::width, formatC("%d", w));
        dialog.select(StyleControl::width, c.penWidthChoice);
    };
    return settingsDialog(dialog, message, fill, [&] {
        if (control == StyleControl::cancel) dialog.end(0);
        if (control != StyleControl::ok) return;
        const std::string text = boxText(dialog, StyleControl::width);
        if (!passes(text, FieldKind::Integer)) {
            refuse(dialog, StyleControl::width);
            return;
        }
        const int width = readLeadingInteger(text);
        if (width < 1 || width > widthCount) {
            dialog.beep();
            messageBox("Width value range: 1 - 5 !", "Warning...", mbOk);
            dialog.setFocus(StyleControl::width);
            return;
        }
        c.penWidthChoice = width - 1;
        c.penWidth = width;
        c.experimentalColour = chosenRow(dialog, StyleControl::colour, c.experimentalColour);
        c.experimentalMarker = chosenRow(dialog, StyleControl::marker, c.experimentalMarker);
        for (int n = 1; n <= maxCalculations; ++n) {
            const std::size_t k = static_cast<std::size_t>(n - 1);
            c.curveColour[k] = chosenRow(dialog, StyleControl::colour + n, c.curveColour[k]);
            c.curveStyle[k] = chosenRow(dialog, StyleControl::marker + n, c.curveStyle[k]);
        }
        dialog.end(1);
    });
}

std::intptr_t Zoom(Dialog& dialog, DialogMessage message, int control, Notification) {
    PlotSettings& s = plotSettings;
    return boxDialog(
        dialog, message, control,
        [&] { fillBox(dialog, BoxControl::first, zoomRows, s.zoomChoice); },
        [&] {
            std::optional<float> factor;
            if (!readRatio(dialog, BoxControl::first, s.zoomChoice, factor) ||
                !applyFactor(dialog, BoxControl::first, s.zoom, factor))
                return;
            dialog.end(1);
        });
}

std::intptr_t Border(Dialog& dialog, DialogMessage message, int control, Notification) {
    PlotSettings& s = plotSettings;
    return boxDialog(
        dialog, message, control,
        [&] {
            fillBox(dialog, BoxControl::first, borderRows, s.horizontalRatioChoice);
            fillBox(dialog, BoxControl::second, borderRows, s.verticalRatioChoice);
        },
        [&] {
            // Each factor is applied as soon as it is read: a refused vertical factor leaves
            // the horizontal one applied, and the next OK applies it again.
            std::optional<float> factor;
            if (!readRatio(dialog, BoxControl::first, s.horizontalRatioChoice, factor) ||
                !applyFactor(dialog, BoxControl::first, s.horizontalRatio, factor) ||
                !readRatio(dialog, BoxControl::second, s.verticalRatioChoice, factor) ||
                !applyFactor(dialog, BoxControl::second, s.verticalRatio, factor))
                return;
            dialog.end(1);
        });
}

std::intptr_t BorderWidth(Dialog& dialog, DialogMessage message, int control, Notification) {
    PlotSettings& s = plotSettings;
    return boxDialog(
        dialog, message, control,
        [&] { fillBox(dialog, BoxControl::first, widthRows, s.frameWidthChoice); },
        [&] {
            s.frameWidthChoice = dialog.selection(BoxControl::first);
            const std::string text = boxText(dialog, BoxControl::first);
            int width = 0;
            const bool number = scanInteger(text, width);
            if (!passes(text, FieldKind::Integer) || (number && width < 1)) {
                refuse(dialog, BoxControl::first);
                return;
            }
            if (number) s.frameLineWidth = width;
            dialog.end(1);
        });
}

} // namespace corvane
