#include "plot/magnet.h"

#include <algorithm>
#include <cmath>
#include <optional>

#include "fit/fit_document.h"
#include "plot/axes.h"
#include "plot/curves.h"
#include "text/text.h"

namespace corvane {

namespace {

const MagnetPoint& pointAt(int i) { return fitDocument.magnetPoints[static_cast<std::size_t>(i)]; }

Colour colourOfRow(int row) {
    return plotColours[static_cast<std::size_t>(std::clamp(row, 0, plotColourCount - 1))];
}

bool mappable() { return axisMappable(plotSettings.tAxis) && axisMappable(plotSettings.chiAxis); }

bool inFrame(DevicePoint p) {
    const PlotLayout& l = plotLayout;
    return l.frameLeft <= p.x && p.x <= l.frameRight && l.frameTop <= p.y && p.y <= l.frameBottom;
}

// The device point of field h and magnetisation m; none when either is not finite.
std::optional<DevicePoint> deviceAt(double h, double m) {
    if (!std::isfinite(h) || !std::isfinite(m)) return std::nullopt;
    return DevicePoint{plotX(h), plotY(m)};
}

// One marker of shape at (x, y) in colour: filled shapes in colour with a black outline, open
// ones as a coloured outline on white, the rest as coloured lines.
void drawMarker(Surface& surface, GroupMarker shape, int x, int y, int r, Colour colour) {
    const int width = plotSettings.curves.penWidth;
    const bool filled = shape == GroupMarker::FilledCircle || shape == GroupMarker::FilledSquare;
    const Pen previousPen = surface.selectPen({PenStyle::Solid, width, filled ? black : colour});
    const Brush previousBrush = surface.selectBrush({filled ? colour : white});
    const int side = r - r / 5; // a square as heavy as the circle
    const int leg = r - r / 4;  // the arms of a cross
    const auto path = [&surface](std::initializer_list<DevicePoint> points) {
        const DevicePoint* first = points.begin();
        surface.moveTo(first->x, first->y);
        for (const DevicePoint* p = first + 1; p != points.end(); ++p) surface.lineTo(p->x, p->y);
    };
    switch (shape) {
    case GroupMarker::FilledCircle:
    case GroupMarker::OpenCircle:
        surface.ellipse(x - r, y - r, x + r, y + r);
        break;
    case GroupMarker::FilledSquare:
    case GroupMarker::OpenSquare:
        surface.rectangle(x - side, y - side, x + side, y + side);
        break;
    case GroupMarker::Triangle: {
        const int base = y + r - r / 4;
        path({{x, y - r}, {x + r, base}, {x - r, base}, {x, y - r}});
        break;
    }
    case GroupMarker::Diamond:
        path({{x, y - r}, {x + r, y}, {x, y + r}, {x - r, y}, {x, y - r}});
        break;
    case GroupMarker::Cross: // the end pixel of a line is not drawn: one further
        path({{x - leg, y - leg}, {x + leg + 1, y + leg + 1}});
        path({{x - leg, y + leg}, {x + leg + 1, y - leg - 1}});
        break;
    case GroupMarker::Plus:
        path({{x - r, y}, {x + r + 1, y}});
        path({{x, y - r}, {x, y + r + 1}});
        break;
    }
    surface.selectBrush(previousBrush);
    surface.selectPen(previousPen);
}

// A group's label and the box it takes.
struct GroupLabel {
    std::string text;
    int x = 0, y = 0, width = 0;
};

// The label of a group whose last marker in the frame is at p: right of the marker when it fits
// in the frame, else right of the outer frame (where the last points of a set measured to the
// same field all end), centred on the marker's height.
GroupLabel groupLabel(std::string text, DevicePoint p, int r, const TextCell& cell) {
    const int width = static_cast<int>(text.size()) * cell.width;
    const int gap = std::max(1, cell.width / 2);
    int x = p.x + r + gap;
    if (x + width > plotLayout.frameRight) x = plotLayout.frameRight + frameMarginX() + gap;
    return {std::move(text), x, p.y - cell.height / 2, width};
}

// Labels that would overlap are moved down, from the top one on, until each clears those above.
void separate(std::vector<GroupLabel>& labels, int height) {
    std::stable_sort(labels.begin(), labels.end(),
                     [](const GroupLabel& a, const GroupLabel& b) { return a.y < b.y; });
    for (std::size_t i = 0; i < labels.size(); ++i) {
        for (std::size_t j = 0; j < i; ++j) {
            const GroupLabel& above = labels[j];
            GroupLabel& label = labels[i];
            const bool across = label.x < above.x + above.width && above.x < label.x + label.width;
            if (across && label.y < above.y + height) label.y = above.y + height;
        }
    }
}

} // namespace

std::vector<MagnetGroup> magnetGroups() {
    const FitDocument& doc = fitDocument;
    const int count = std::clamp(doc.magnetCount, 0, maxMagnetPoints);
    std::vector<int> order;
    for (int i = 0; i < count; ++i)
        if (std::isfinite(pointAt(i).temperature) && std::isfinite(pointAt(i).field))
            order.push_back(i);
    std::stable_sort(order.begin(), order.end(),
                     [](int a, int b) { return pointAt(a).temperature < pointAt(b).temperature; });

    std::vector<MagnetGroup> groups;
    double lowest = 0, sum = 0;
    for (int i : order) {
        const double t = pointAt(i).temperature;
        const double reach =
            std::max(sameTemperatureKelvin, sameTemperatureShare * std::fabs(lowest));
        if (groups.empty() || t - lowest > reach) {
            if (!groups.empty())
                groups.back().temperature = sum / static_cast<double>(groups.back().points.size());
            groups.push_back({});
            lowest = t;
            sum = 0;
        }
        groups.back().points.push_back(i);
        sum += t;
    }
    if (!groups.empty())
        groups.back().temperature = sum / static_cast<double>(groups.back().points.size());
    for (MagnetGroup& group : groups)
        std::stable_sort(group.points.begin(), group.points.end(),
                         [](int a, int b) { return pointAt(a).field < pointAt(b).field; });
    return groups;
}

std::string temperatureText(double kelvin) {
    if (std::fabs(kelvin) >= 100) return formatC("%.0f K", kelvin);
    return formatC("%.3g K", kelvin);
}

GroupMarker groupMarker(int group) {
    const int n = group % groupMarkerCount;
    return static_cast<GroupMarker>(n < 0 ? n + groupMarkerCount : n);
}

int groupMarkerRadius() { return std::max(3, plotSettings.curves.markerRadius * 3 / 5); }

void drawMagnetData(Surface& surface) {
    const PlotSettings& s = plotSettings;
    if (!mappable()) return;
    drawGridLines(surface);
    if (s.experimentalShown != 1) return;

    const Colour colour = colourOfRow(s.curves.experimentalColour);
    const int r = groupMarkerRadius();
    const TextCell cell = plotTextCell(surface);
    const LogFont previousFont = surface.selectFont(uprightLabelFont(cell));
    const Colour previousColour = surface.setTextColour(s.labelColour);
    const std::vector<MagnetGroup> groups = magnetGroups();
    std::vector<GroupLabel> labels;
    for (std::size_t g = 0; g < groups.size(); ++g) {
        const GroupMarker shape = groupMarker(static_cast<int>(g));
        std::optional<DevicePoint> last; // the group's last point in the frame
        for (int i : groups[g].points) {
            const std::optional<DevicePoint> p = deviceAt(pointAt(i).field, pointAt(i).observed);
            if (!p || !inFrame(*p)) continue;
            drawMarker(surface, shape, p->x, p->y, r, colour);
            last = p;
        }
        if (last)
            labels.push_back(groupLabel(temperatureText(groups[g].temperature), *last, r, cell));
    }
    separate(labels, cell.height);
    for (const GroupLabel& label : labels) surface.textOut(label.x, label.y, label.text);
    surface.setTextColour(previousColour);
    surface.selectFont(previousFont);
}

void drawMagnetCurves(Surface& surface, int k) {
    if (k < 0 || k >= std::min(fitDocument.calculationCount, maxCalculations)) return;
    const CurveAttributes& a = plotSettings.curves;
    const auto slotK = static_cast<std::size_t>(k);
    const int style = a.curveStyle[slotK];
    const Pen previousPen = surface.selectPen({style != 0 ? PenStyle::Dot : PenStyle::Solid,
                                               a.penWidth, colourOfRow(a.curveColour[slotK])});
    if (mappable()) {
        const Calculation& calculation = fitDocument.calculations[slotK];
        for (const MagnetGroup& group : magnetGroups()) {
            std::vector<std::optional<DevicePoint>> points;
            for (int i : group.points)
                points.push_back(deviceAt(pointAt(i).field,
                                          calculation.fittedMagnet[static_cast<std::size_t>(i)]));
            drawCurveThrough(surface, points, style);
        }
    }
    surface.selectPen(previousPen);
}

int pickMagnetCurve(int x, int y) {
    const PlotLayout& l = plotLayout;
    if (x <= l.frameLeft || x >= l.frameRight || !mappable()) return -1;
    const double under = plotT(x);
    const FitDocument& doc = fitDocument;
    const std::vector<MagnetGroup> groups = magnetGroups();
    for (int k = 0; k < std::min(doc.calculationCount, maxCalculations); ++k) {
        if (plotSettings.curveShown[static_cast<std::size_t>(k)] != 1) continue;
        const auto& fitted = doc.calculations[static_cast<std::size_t>(k)].fittedMagnet;
        for (const MagnetGroup& group : groups) {
            for (std::size_t j = 1; j < group.points.size(); ++j) {
                const int a = group.points[j - 1], b = group.points[j];
                const double h0 = pointAt(a).field, h1 = pointAt(b).field;
                if (!(h0 <= under && under <= h1 && h0 < h1)) continue;
                const double m0 = fitted[static_cast<std::size_t>(a)];
                const double m1 = fitted[static_cast<std::size_t>(b)];
                const double v = m0 + (under - h0) / (h1 - h0) * (m1 - m0);
                if (std::isfinite(v) && std::abs(y - plotY(v)) < 4) return k;
            }
        }
    }
    return -1;
}

} // namespace corvane
