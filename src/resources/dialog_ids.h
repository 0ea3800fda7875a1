// The control ids of every dialog, one list per dialog: its template, its procedure and the tests
// all name a control by these. Controls that nothing reaches (frames, most labels) keep the ids
// of their template alone.
#pragma once

#include "fit/limits.h"

namespace corvane {

// Help of the settings dialogs: always there, always disabled.
inline constexpr int helpButton = 995;

// DL_ABOUT
struct AboutControl {
    enum : int { ok = 999 };
};

// DL_SPIN, the progress dialog of an engine run.
struct SpinControl {
    enum : int {
        statusLine = 100,
        firstCell = 1, // a row of cells firstCell .. firstCell + cellCount - 1
        cellCount = 24,
        interrupt = 998,
        logFile = 999,
        close = 1000,
    };
};

// DL_INFO, the fitting parameter information dialog. Each parameter has a row of three fields:
// start at its base, step at base + step, fitted value at base + fitted.
struct InfoControl {
    enum : int {
        gRow = 100,
        cRow = 200,
        zJRow = 300,
        tipRow = 400,
        step = 10,
        fitted = 20,
        siteCount = 500,
        pairCount = 501,
        firstPair = 502,
        lastPair = 503,
        tolerance = 504,
        deviation = 600,
        curveNumber = 700,
        addNew = 997,
        recalculate = 998,
        close = 999,
    };
    // The row of J value n (from 1 to maxJValues).
    static constexpr int jRow(int n) { return 1000 * n; }
};

// DL_SELDOS, the displayed ranges: the range in force (read-only) and the new one.
struct RangeControl {
    enum : int {
        tMin = 100,
        tMax = 200,
        chiMin = 101,
        chiMax = 201,
        newTMin = 300,
        newTMax = 400,
        newChiMin = 301,
        newChiMax = 401,
        tGroup = 1, // the frames of the two axes and the units beside their fields
        chiGroup = 2,
        tUnit = 13,
        newTUnit = 16,
        chiUnit = 19,
        newChiUnit = 22,
        ok = 998,
        cancel = 999,
        help = helpButton,
    };
};

// DL_LABEL, titles and numbering of the axes. The fields of an axis are at its base: minimum
// base, maximum base + 1, from base + 100, to base + 101, interval base + 110, digits base + 120,
// minor intervals base + 130.
struct LabelControl {
    enum : int {
        xTitle = 100,
        yTitle = 200,
        tAxis = 300,
        chiAxis = 600,
        tGroup = 40, // the frames of the two axes' fields
        chiGroup = 45,
        min = 0,
        max = 1,
        from = 100,
        to = 101,
        interval = 110,
        digits = 120,
        minorCount = 130,
        font = 500,
        ok = 998,
        cancel = 999,
        help = helpButton,
    };
};

// DL_STYLE, the curve attributes: a colour box and a marker or line style box per curve,
// curve 0 the experimental data, curves 1 to maxCalculations the fitted ones.
struct StyleControl {
    enum : int {
        width = 1000,
        colour = 100, // of curve n: colour + n
        marker = 200, // of curve n: marker + n
        ok = 999,
        cancel = 998,
        help = helpButton,
    };
};

// DL_ZOOM and DL_BORDERW, one box of presets; DL_BORDER, two (horizontal and vertical).
struct BoxControl {
    enum : int {
        first = 100,
        second = 200,
        ok = 999,
        cancel = 998,
        help = helpButton,
    };
};

} // namespace corvane
