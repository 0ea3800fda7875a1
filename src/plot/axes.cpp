#include "plot/axes.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "text/text.h"

namespace corvane {

namespace {

constexpr double deviceLimit = 268435456.0; // 2^28

// An axis draws at most this many ticks: a step of a pixel or two over a frame zoomed far
// beyond the surface would otherwise take millions of rounds.
constexpr int maxTicksPerAxis = 100000;

constexpr double maxFontSize = 65536.0; // device units

// A value for "%d": truncated toward zero and kept within int.
int truncInt(double v) {
    if (std::isnan(v)) return 0;
    if (v >= 2147483647.0) return 2147483647;
    if (v <= -2147483648.0) return -2147483647 - 1;
    return static_cast<int>(v);
}

// A font size in device units from a truncated size; sizes beyond any surface are cut.
int fontSize(double size) { return size > 0 ? static_cast<int>(std::min(size, maxFontSize)) : 0; }

int labelLength(const std::array<char, axisLabelSize>& label) {
    return static_cast<int>(strnlen(label.data(), label.size()));
}

// The characters of a title's first length bytes of UTF-8, which its centring counts.
int labelCharacters(const std::array<char, axisLabelSize>& label, int length) {
    int characters = 0;
    for (int i = 0; i < length; ++i)
        characters +=
            (static_cast<unsigned char>(label[static_cast<std::size_t>(i)]) & 0xC0) != 0x80;
    return characters;
}

// The major ticks of one axis along one side of the frame. The tick of labelFrom lies at
// `origin`, tick n at origin + n * step (step negative for the vertical axis, whose values
// grow upwards); ticks exist from labelFrom up to labelTo plus a tenth of an interval, and the
// walk ends at the first position outside [low, high]. Only ticks between shownLow and
// shownHigh (the drawing box) are drawn; the walk starts just before them, which changes
// nothing, as the positions between lie inside the frame when the first one does.
struct TickWalk {
    const AxisScale* axis = nullptr;
    int origin = 0, step = 0, low = 0, high = 0, shownLow = 0, shownHigh = 0;
    bool usable = false;

    TickWalk(const AxisScale& a, int length, int low_, int high_, int start, int direction,
             int shownLow_, int shownHigh_)
        : axis(&a), low(low_), high(high_), shownLow(shownLow_), shownHigh(shownHigh_) {
        if (!axisMappable(a) || !std::isfinite(a.majorInterval) || !std::isfinite(a.labelFrom))
            return;
        const double span = static_cast<double>(a.max) - a.min;
        const double offset = length * (static_cast<double>(a.min) - a.labelFrom) / -span;
        const double pixels = length * static_cast<double>(a.majorInterval) / span;
        origin = start + direction * truncDevice(offset);
        step = direction * truncDevice(pixels);
        usable = step != 0;
    }

    bool exists(long long n) const {
        const double interval = axis->majorInterval;
        return static_cast<double>(n) * interval + axis->labelFrom <= axis->labelTo + interval / 10;
    }
    double value(long long n) const {
        return static_cast<double>(n) * axis->majorInterval + axis->labelFrom;
    }
    bool shown(long long position) const { return position >= shownLow && position <= shownHigh; }
    // Units to go from `position` in the direction of `towards` until the shown range begins.
    long long before(long long position, int towards) const {
        return towards > 0 ? shownLow - position : position - shownHigh;
    }

    // visit(n, position) for each existing major tick in the frame, shown or not.
    template <typename Visit> void forEach(Visit visit) const {
        if (!usable || origin < low || origin > high) return;
        const long long size = std::abs(static_cast<long long>(step));
        const long long first = std::max(0LL, before(origin, step) / size - 1);
        for (long long n = first; n < first + maxTicksPerAxis; ++n) {
            const long long position = origin + n * step;
            if (position < low || position > high) break;
            if (exists(n)) visit(n, static_cast<int>(position));
        }
    }

    // visit(position) for each shown minor tick after the major tick at `position`, inside
    // the frame.
    template <typename Visit> void forEachMinor(int position, Visit visit) const {
        if (axis->minorCount < 2) return;
        const int minorStep = step / axis->minorCount;
        if (minorStep == 0) return; // all on the major tick
        const long long size = std::abs(static_cast<long long>(minorStep));
        const long long skip = before(position, minorStep);
        for (long long j = std::max(1LL, skip > 0 ? (skip + size - 1) / size : 1);
             j < axis->minorCount; ++j) {
            const long long p = position + j * minorStep;
            if (p < low || p > high || !shown(p)) break;
            visit(static_cast<int>(p));
        }
    }
};

void line(Surface& surface, int x1, int y1, int x2, int y2) {
    surface.moveTo(x1, y1);
    surface.lineTo(x2, y2);
}

// The text of a number: right-aligned in `field` characters, `digits` decimals, or a whole
// number truncated toward zero when digits is 0.
std::string numberText(double value, int field, int digits) {
    if (digits == 0) return formatC("%*d", field, truncInt(value));
    return formatC("%*.*f", field, digits > 30 ? 30 : digits, value);
}

} // namespace

int readableDigits(const std::vector<double>& values, int digits) {
    const auto apart = [&values](int d) {
        std::vector<std::string> texts;
        for (double v : values) texts.push_back(numberText(v, 0, d));
        std::sort(texts.begin(), texts.end());
        return std::adjacent_find(texts.begin(), texts.end()) == texts.end();
    };
    if (apart(digits)) return digits;
    for (int d = std::max(digits, 0) + 1; d <= maxReadableDigits; ++d)
        if (apart(d)) return d;
    return digits;
}

int truncDevice(double v) {
    if (std::isnan(v)) return 0;
    if (v > deviceLimit) return static_cast<int>(deviceLimit);
    if (v < -deviceLimit) return -static_cast<int>(deviceLimit);
    return static_cast<int>(v);
}

DeviceBox drawingBox() {
    const PlotLayout& l = plotLayout;
    const int mx = l.deviceWidth / 4, my = l.deviceHeight / 4;
    return {-mx, -my, l.deviceWidth + mx, l.deviceHeight + my};
}

bool axisMappable(const AxisScale& axis) {
    const double span = static_cast<double>(axis.max) - axis.min;
    return std::isfinite(axis.min) && std::isfinite(axis.max) && std::isfinite(span) && span != 0;
}

int plotX(double t) {
    const AxisScale& a = plotSettings.tAxis;
    return plotLayout.frameLeft +
           truncDevice(frameWidth() * (t - a.min) / (static_cast<double>(a.max) - a.min));
}

int plotY(double v) {
    const AxisScale& c = plotSettings.chiAxis;
    return plotLayout.frameTop +
           truncDevice(frameHeight() * (c.max - v) / (static_cast<double>(c.max) - c.min));
}

double plotT(int px) {
    const AxisScale& a = plotSettings.tAxis;
    return a.min +
           (static_cast<double>(a.max) - a.min) * (px - plotLayout.frameLeft) / frameWidth();
}

double plotValue(int py) {
    const AxisScale& c = plotSettings.chiAxis;
    return c.max -
           (static_cast<double>(c.max) - c.min) * (py - plotLayout.frameTop) / frameHeight();
}

void layoutFrame() {
    PlotLayout& l = plotLayout;
    const PlotSettings& s = plotSettings;
    l.frameTop = truncDevice(l.deviceHeight * 0.214 / 1.428);
    l.frameBottom = l.deviceHeight - l.frameTop;
    const float w = static_cast<float>((l.frameBottom - l.frameTop) * 1.5 * l.pixelAspect);
    l.frameLeft = (l.deviceWidth - truncDevice(w)) / 2;
    l.frameRight = l.deviceWidth - l.frameLeft;
    const int h = l.frameBottom - l.frameTop;

    // Zoom about the middle; a zoom above 1 makes the frame larger.
    const int d = truncDevice(w * (1.0 - s.zoom) / 2);
    l.frameLeft += d;
    l.frameRight -= d;
    const int e = truncDevice(h * (1.0 - s.zoom) / 2);
    l.frameTop += e;
    l.frameBottom -= e;

    const int newHeight =
        truncDevice((l.frameBottom - l.frameTop) * static_cast<double>(s.verticalRatio));
    l.frameTop = l.centreY - newHeight / 2;
    l.frameBottom = l.frameTop + newHeight;
    const int newWidth =
        truncDevice((l.frameRight - l.frameLeft) * static_cast<double>(s.horizontalRatio));
    l.frameLeft = l.centreX - newWidth / 2;
    l.frameRight = l.frameLeft + newWidth;

    // The residual panel takes the lower part of the frame's place, under a gap.
    l.panelTop = l.panelBottom = 0;
    if (s.showResiduals == 1) {
        const int height = l.frameBottom - l.frameTop;
        l.panelBottom = l.frameBottom;
        l.panelTop = l.frameBottom - height / 4;
        l.frameBottom = l.frameTop + height * 2 / 3;
    }
    l.belowPlot = l.panelBottom != 0 ? l.panelBottom : l.frameBottom;
}

LogFont uprightLabelFont(const TextCell& cell) {
    LogFont font = plotSettings.labelFont;
    font.lfHeight = cell.height;
    font.lfWidth = cell.width;
    font.lfEscapement = font.lfOrientation = 0;
    return font;
}

TextCell plotTextCell(Surface& surface) {
    PlotSettings& s = plotSettings;
    const double p = plotLayout.printScale;
    // Text size: the surface's own font times the zoom, or the chosen font's height times the
    // zoom and the print scale.
    const TextMetrics own = surface.textMetrics();
    const int th = own.height, tw = own.averageCharWidth;
    const double zoom = s.zoom;
    double fontH = std::trunc(th * zoom), fontW = std::trunc(tw * zoom);
    if (s.labelFont.lfHeight != 0) {
        if (s.labelFont.lfHeight < 0)
            s.labelFont.lfHeight = -std::max(s.labelFont.lfHeight, -INT_MAX);
        fontH = std::trunc(s.labelFont.lfHeight * zoom * p);
        fontW = th > 0 ? std::trunc(fontH * tw / th) : std::trunc(fontH / 2);
    }
    // A text larger than any surface is of no use; the limit keeps text positions within int.
    return {fontSize(fontW), fontSize(fontH)};
}

void drawAxes(Surface& surface) {
    PlotSettings& s = plotSettings;
    const PlotLayout& l = plotLayout;
    const double p = l.printScale;
    const int p1 = truncDevice(p), p3 = truncDevice(3 * p), p4 = truncDevice(4 * p),
              p5 = truncDevice(5 * p), p6 = truncDevice(6 * p);
    const int mx = frameMarginX(), my = frameMarginY();
    const int outerLeft = l.frameLeft - mx, outerRight = l.frameRight + mx;
    const int outerTop = l.frameTop - my, outerBottom = l.frameBottom + my;

    const Pen framePen{PenStyle::Solid, truncDevice(s.frameLineWidth * p), s.frameColour};
    const Pen previousPen = surface.selectPen(framePen);
    surface.rectangle(outerLeft, outerTop, outerRight, outerBottom);

    // Ticks point into the plot from the outer frame: major 5 units long, minor 3.
    const DeviceBox box = drawingBox();
    const TickWalk tWalk(s.tAxis, frameWidth(), l.frameLeft, l.frameRight, l.frameLeft, 1, box.left,
                         box.right);
    tWalk.forEach([&](long long, int x) {
        if (tWalk.shown(x)) {
            line(surface, x, outerBottom - p1, x, outerBottom - p6);
            line(surface, x, outerTop + p1, x, outerTop + p6);
        }
        tWalk.forEachMinor(x, [&](int xm) {
            line(surface, xm, outerBottom - p1, xm, outerBottom - p4);
            line(surface, xm, outerTop + p1, xm, outerTop + p4);
        });
    });
    const TickWalk cWalk(s.chiAxis, frameHeight(), l.frameTop, l.frameBottom, l.frameBottom, -1,
                         box.top, box.bottom);
    cWalk.forEach([&](long long, int y) {
        if (cWalk.shown(y)) {
            line(surface, outerLeft, y, outerLeft + p5, y);
            line(surface, outerRight - p1, y, outerRight - p6, y);
        }
        cWalk.forEachMinor(y, [&](int ym) {
            line(surface, outerLeft, ym, outerLeft + p3, ym);
            line(surface, outerRight - p1, ym, outerRight - p4, ym);
        });
    });

    const TextMetrics own = surface.textMetrics();
    const int th = own.height;
    const double zoom = s.zoom;
    const TextCell cell = plotTextCell(surface);
    const int textH = cell.height, textW = cell.width;
    LogFont font = s.labelFont;
    font.lfHeight = textH;
    font.lfWidth = textW;

    // The vertical axis's numbers: right-aligned in a field as wide as "%f" of the axis minimum
    // and one more, ending about a character left of the outer frame. With more decimals than
    // set (where the set ones would print two ticks alike) the field widens to the longest.
    const int fieldV =
        static_cast<int>(formatC("%f", static_cast<double>(s.chiAxis.min)).size()) + 1;
    std::vector<double> shownValues;
    cWalk.forEach([&](long long n, int y) {
        if (cWalk.shown(y)) shownValues.push_back(cWalk.value(n));
    });
    const int digitsV = readableDigits(shownValues, s.chiAxis.digits);
    int numberField = fieldV;
    if (digitsV != s.chiAxis.digits)
        for (double v : shownValues)
            numberField =
                std::max(numberField, static_cast<int>(numberText(v, 0, digitsV).size()) + 1);

    // Vertical title, rotated to run upwards, centred on the middle of the surface's height,
    // left of the numbers.
    font.lfEscapement = font.lfOrientation = 900;
    LogFont previousFont = surface.selectFont(font);
    const Colour previousColour = surface.setTextColour(s.labelColour);
    const int yLength = labelLength(s.yAxisLabel);
    surface.textOut(l.frameLeft - textW * (numberField + 2),
                    l.centreY + textW * labelCharacters(s.yAxisLabel, yLength) / 2,
                    std::string_view(s.yAxisLabel.data(), static_cast<std::size_t>(yLength)));
    surface.selectFont(previousFont);

    // Horizontal title; the same font stays selected for the numbers.
    font.lfEscapement = font.lfOrientation = 0;
    previousFont = surface.selectFont(font);
    const int xLength = labelLength(s.xAxisLabel);
    surface.textOut(l.centreX - textW * labelCharacters(s.xAxisLabel, xLength) / 2,
                    l.belowPlot + 4 * textH,
                    std::string_view(s.xAxisLabel.data(), static_cast<std::size_t>(xLength)));

    // Numbers of the vertical axis.
    const int halfText = truncDevice(th * zoom / 2);
    cWalk.forEach([&](long long n, int y) {
        if (cWalk.shown(y))
            surface.textOut(l.frameLeft - (numberField + 1) * textW, y - halfText,
                            numberText(cWalk.value(n), numberField, digitsV));
    });

    // Numbers of the horizontal axis, centred under their ticks.
    std::string minText = formatC("%f", static_cast<double>(s.tAxis.min));
    trimLeft(minText.data());
    const int fieldT = static_cast<int>(std::strlen(minText.c_str())) + 1;
    const int shift = truncDevice(fieldT * textW * zoom / 2);
    const int numberY = l.belowPlot + truncDevice(2 * th * zoom);
    tWalk.forEach([&](long long n, int x) {
        if (tWalk.shown(x))
            surface.textOut(x - shift, numberY, numberText(tWalk.value(n), fieldT, s.tAxis.digits));
    });

    surface.setTextColour(previousColour);
    surface.selectFont(previousFont);
    surface.selectPen(previousPen);
}

} // namespace corvane
