#include "plot/curves.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <optional>
#include <vector>

#include "fit/fit_document.h"
#include "plot/axes.h"
#include "plot/scaling.h"

namespace corvane {


namespace {

// Grid lines closer than a pixel, or more of them than this, are not drawn.
constexpr int maxGridLines = 100000;

bool inside(DevicePoint p, const DeviceBox& box) {
    return box.left <= p.x && p.x <= box.right && box.top <= p.y && p.y <= box.bottom;
}

DeviceBox frameBox() {
    const PlotLayout& l = plotLayout;
    return {l.frameLeft, l.frameTop, l.frameRight, l.frameBottom};
}

enum Edge { leftEdge, rightEdge, topEdge, bottomEdge };

// Where segment p-q crosses an edge of the box; the other coordinate is kept on the box,
// which truncation could otherwise put a pixel beyond a corner.
DevicePoint crossing(DevicePoint p, DevicePoint q, Edge edge, const DeviceBox& box) {
    if (edge == leftEdge || edge == rightEdge) {
        const int e = edge == leftEdge ? box.left : box.right;
        const double y = p.y + std::trunc(static_cast<double>(e - p.x) / (q.x - p.x) * (q.y - p.y));
        return {e, std::clamp(truncDevice(y), box.top, box.bottom)};
    }
    const int e = edge == topEdge ? box.top : box.bottom;
    const double x = p.x + std::trunc(static_cast<double>(e - p.y) / (q.y - p.y) * (q.x - p.x));
    return {std::clamp(truncDevice(x), box.left, box.right), e};
}

// Pixels a line walks from a to b, a excluded: the larger of the two distances.
long long pixelsBetween(DevicePoint a, DevicePoint b) {
    return std::max(std::abs(static_cast<long long>(b.x) - a.x),
                    std::abs(static_cast<long long>(b.y) - a.y));
}

Colour colourOfRow(int row) {
    return plotColours[static_cast<std::size_t>(std::clamp(row, 0, plotColourCount - 1))];
}

// The device point of pair i (0-based) with plotted value v; none when v is not finite.
std::optional<DevicePoint> pointOf(int i, double v) {
    const double t = fitDocument.pairs[static_cast<std::size_t>(i)].temperature;
    if (!std::isfinite(v) || !std::isfinite(t)) return std::nullopt;
    return DevicePoint{plotX(t), plotY(v)};
}

// The segment walk over points first..last (inclusive), pointAt(i) giving the device point of
// point i or none. P starts at the first point there is; with joinStart the walk first joins P
// to itself (so a lone point is visited). action(from, to) gets each visible part.
template <typename PointAt, typename Action>
void walkPoints(int first, int last, PointAt pointAt, bool joinStart, Action action) {
    std::optional<DevicePoint> p;
    int i = first;
    while (i <= last && !(p = pointAt(i))) ++i;
    if (!p) return;
    const bool skipBottom = plotSettings.chiAxis.labelFrom != 0;
    for (int j = joinStart ? i : i + 1; j <= last; ++j) {
        const std::optional<DevicePoint> q = pointAt(j);
        if (!q) continue;
        DevicePoint from, to;
        if (clipToFrame(*p, *q, from, to) &&
            !(skipBottom && from.y == plotLayout.frameBottom && to.y == plotLayout.frameBottom))
            action(from, to);
        p = q;
    }
}

// The same over pairs first..last (0-based) with plotted values `values`.
template <typename Values, typename Action>
void walkSegments(int first, int last, const Values& values, bool joinStart, Action action) {
    walkPoints(
        first, last, [&values](int i) { return pointOf(i, values[static_cast<std::size_t>(i)]); },
        joinStart, action);
}

// Draws the visible parts that walk(action) hands action as one curve in style, with the pen
// selected; returns the phase of the dash pattern where the curve ends.
template <typename Walk> int drawStyledWalk(Surface& surface, int style, Walk walk) {
    int phase = 0;
    std::optional<DevicePoint> end; // where the last drawn part ended
    const DeviceBox box = drawingBox();
    const auto period = static_cast<long long>(
        dashPatterns[static_cast<std::size_t>(std::clamp(style, 0, lineStyleCount - 1))].size());
    auto advance = [period, &phase](long long pixels) {
        if (period > 0) phase = static_cast<int>((phase + pixels) % period);
    };
    walk([&](DevicePoint from, DevicePoint to) {
        // A dashed curve starts afresh where it comes back into the frame, rather than being
        // joined to where it left.
        if (style == 0) {
            drawStyledSegment(surface, from.x, from.y, to.x, to.y, style, phase);
            return;
        }
        // A pattern is walked pixel by pixel only near the surface; the pixels beyond it
        // advance the pattern as if drawn.
        DevicePoint start, stop;
        if (!clipToRectangle(from, to, box, start, stop)) {
            advance(pixelsBetween(from, to) + 1);
            return;
        }
        advance(pixelsBetween(from, start));
        if (!end || *end != start) surface.moveTo(start.x, start.y);
        drawStyledSegment(surface, start.x, start.y, stop.x, stop.y, style, phase);
        advance(pixelsBetween(stop, to));
        end = stop;
    });
    return phase;
}

bool dataMappable() {
    return axisMappable(plotSettings.tAxis) && axisMappable(plotSettings.chiAxis);
}

// A horizontal line across the outer frame at plotted value v.
void horizontalLine(Surface& surface, double v) {
    const int mx = frameMarginX();
    const int y = plotY(v);
    surface.moveTo(plotLayout.frameLeft - mx, y);
    surface.lineTo(plotLayout.frameRight + mx, y);
}

} // namespace

bool clipToFrame(DevicePoint p, DevicePoint q, DevicePoint& from, DevicePoint& to) {
    return clipToRectangle(p, q, frameBox(), from, to);
}

bool clipToRectangle(DevicePoint p, DevicePoint q, const DeviceBox& box, DevicePoint& from,
                     DevicePoint& to) {
    // Liang-Barsky: the segment is p + t (q - p), 0 <= t <= 1; each edge bounds t from one side.
    const double dx = q.x - p.x, dy = q.y - p.y;
    const double towards[4] = {-dx, dx, -dy, dy};
    const double room[4] = {
        static_cast<double>(p.x) - box.left, static_cast<double>(box.right) - p.x,
        static_cast<double>(p.y) - box.top, static_cast<double>(box.bottom) - p.y};
    double enter = 0, leave = 1;
    Edge enterEdge = leftEdge, leaveEdge = leftEdge;
    for (int i = 0; i < 4; ++i) {
        if (towards[i] == 0) {
            if (room[i] < 0) return false; // parallel to this edge and outside it
            continue;
        }
        const double t = room[i] / towards[i];
        if (towards[i] < 0 && t > enter) {
            enter = t;
            enterEdge = static_cast<Edge>(i);
        } else if (towards[i] > 0 && t < leave) {
            leave = t;
            leaveEdge = static_cast<Edge>(i);
        }
    }
    if (enter > leave) return false;
    from = inside(p, box) ? p : crossing(p, q, enterEdge, box);
    to = inside(q, box) ? q : crossing(p, q, leaveEdge, box);
    return true;
}

void drawStyledSegment(Surface& surface, int x1, int y1, int x2, int y2, int style, int& phase) {
    if (style <= 0 || style >= lineStyleCount) {
        surface.moveTo(x1, y1);
        surface.lineTo(x2, y2);
        return;
    }
    const std::string_view pattern = dashPatterns[static_cast<std::size_t>(style)];
    const int period = static_cast<int>(pattern.size());
    auto visit = [&](int x, int y) {
        if (phase < 0 || phase >= period) phase = 0;
        if (pattern[static_cast<std::size_t>(phase)] == 'x')
            surface.lineTo(x, y);
        else
            surface.moveTo(x, y);
        phase = (phase + 1) % period;
    };
    // Bresenham's walk, both ends included.
    const int dx = x2 - x1, dy = y2 - y1;
    const int sx = dx < 0 ? -1 : 1, sy = dy < 0 ? -1 : 1;
    const long long ax = 2LL * std::abs(static_cast<long long>(dx));
    const long long ay = 2LL * std::abs(static_cast<long long>(dy));
    int x = x1, y = y1;
    if (ax <= ay) {
        long long e = ax - ay / 2;
        for (;;) {
            visit(x, y);
            if (y == y2) break;
            if (e >= 0) {
                x += sx;
                e -= ay;
            }
            y += sy;
            e += ax;
        }
    } else {
        long long e = ay - ax / 2;
        for (;;) {
            visit(x, y);
            if (x == x2) break;
            if (e >= 0) {
                y += sy;
                e -= ax;
            }
            x += sx;
            e += ay;
        }
    }
}

void drawGridLines(Surface& surface) {
    const PlotSettings& s = plotSettings;
    if (!dataMappable()) return;
    // Grid lines from 0 up to the top of the range, one per major interval.
    const AxisScale& chi = s.chiAxis;
    const double interval = chi.majorInterval;
    if (s.gridLines == 1 && interval > 0 && std::isfinite(interval) &&
        frameHeight() * interval / std::abs(static_cast<double>(chi.max) - chi.min) >= 1) {
        const Pen previousPen = surface.selectPen({PenStyle::Solid, s.curves.penWidth, black});
        // Lines below the drawing box are skipped, from the first one that may be in it.
        const double span = static_cast<double>(chi.max) - chi.min;
        const double lowest =
            chi.max - (drawingBox().bottom - plotLayout.frameTop) * span / frameHeight();
        const double first = std::max(0.0, std::floor(lowest / interval) - 1);
        for (double n = first; n < first + maxGridLines; ++n) {
            const double g = n * interval;
            if (!(g < chi.max || std::abs(g - chi.max) < 1e-6)) break;
            const int y = plotY(g);
            if (y >= drawingBox().top && y <= drawingBox().bottom) horizontalLine(surface, g);
        }
        surface.selectPen(previousPen);
    }
}

int drawCurveThrough(Surface& surface, const std::vector<std::optional<DevicePoint>>& points,
                     int style) {
    const int last = static_cast<int>(points.size()) - 1;
    return drawStyledWalk(surface, style, [&](auto action) {
        walkPoints(
            0, last, [&points](int i) { return points[static_cast<std::size_t>(i)]; }, false,
            action);
    });
}

void drawExperimental(Surface& surface) {
    const PlotSettings& s = plotSettings;
    const CurveAttributes& a = s.curves;
    const Colour c = colourOfRow(a.experimentalColour);
    const bool filled = a.experimentalMarker == static_cast<int>(MarkerKind::FilledCircle);
    const Pen previousPen = surface.selectPen({PenStyle::Solid, a.penWidth, filled ? black : c});
    if (!dataMappable()) {
        surface.selectPen(previousPen);
        return;
    }

    drawGridLines(surface);

    const Brush previousBrush = surface.selectBrush({filled ? c : white});
    const int r = a.markerRadius;
    std::optional<DevicePoint> last; // the marker just drawn: the joints are marked once
    auto mark = [&](DevicePoint m) {
        if (last && *last == m) return;
        surface.ellipse(m.x - r, m.y - r, m.x + r, m.y + r);
        last = m;
    };
    const int pairs = std::clamp(fitDocument.pairCount, 0, maxPairs);
    walkSegments(0, pairs - 1, displayedChi, true, [&](DevicePoint from, DevicePoint to) {
        mark(from);
        mark(to);
    });
    surface.selectBrush(previousBrush);
    surface.selectPen(previousPen);
}

int drawFittedCurve(Surface& surface, int k) {
    int phase = 0;
    if (k < 0 || k >= std::min(fitDocument.calculationCount, maxCalculations)) return phase;
    const PlotSettings& s = plotSettings;
    const CurveAttributes& a = s.curves;
    const auto slotK = static_cast<std::size_t>(k);
    const int style = a.curveStyle[slotK];
    const Pen previousPen = surface.selectPen({style != 0 ? PenStyle::Dot : PenStyle::Solid,
                                               a.penWidth, colourOfRow(a.curveColour[slotK])});
    if (!dataMappable()) {
        surface.selectPen(previousPen);
        return phase;
    }
    if (s.gridLines == 1) {
        const Pen curvePen = surface.selectPen({PenStyle::Solid, a.penWidth, black});
        horizontalLine(surface, 0.0);
        surface.selectPen(curvePen);
    }

    const Calculation& calculation = fitDocument.calculations[slotK];
    const int pairs = std::clamp(fitDocument.pairCount, 0, maxPairs);
    const int first = std::max(calculation.firstPair, 1) - 1;
    const int last = std::min(calculation.lastPair, pairs) - 1;
    phase = drawStyledWalk(surface, style, [&](auto action) {
        walkSegments(first, last, displayedFit[slotK], false, action);
    });
    surface.selectPen(previousPen);
    return phase;
}

} // namespace corvane
