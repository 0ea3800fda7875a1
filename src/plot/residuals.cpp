#include "plot/residuals.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "fit/fit_document.h"
#include "plot/axes.h"
#include "plot/plot_settings.h"
#include "plot/scaling.h"
#include "text/text.h"

namespace corvane {

int residualCalculation() {
    const FitDocument& doc = fitDocument;
    const PlotSettings& s = plotSettings;
    const int count = std::clamp(doc.calculationCount, 0, maxCalculations);
    const int current = doc.currentCalculation;
    if (current >= 0 && current < count && s.curveShown[static_cast<std::size_t>(current)] == 1)
        return current;
    for (int k = count - 1; k >= 0; --k)
        if (s.curveShown[static_cast<std::size_t>(k)] == 1) return k;
    return -1;
}

void drawResidualPanel(Surface& surface) {
    const PlotSettings& s = plotSettings;
    const PlotLayout& l = plotLayout;
    if (s.showResiduals != 1 || l.panelBottom <= l.panelTop) return;
    const double p = l.printScale;
    const int mx = frameMarginX(), my = (l.panelBottom - l.panelTop) / 10;
    const Pen framePen{PenStyle::Solid, truncDevice(s.frameLineWidth * p), s.frameColour};
    const Pen previousPen = surface.selectPen(framePen);
    surface.rectangle(l.frameLeft - mx, l.panelTop - my, l.frameRight + mx, l.panelBottom + my);

    // The residuals of the fitted range, and the largest of them for the scale.
    const FitDocument& doc = fitDocument;
    const int k = residualCalculation();
    struct Point {
        double t, r;
    };
    std::vector<Point> points;
    double largest = 0;
    const auto inRange = [&s](double x) {
        return x >= std::min(s.tAxis.min, s.tAxis.max) && x <= std::max(s.tAxis.min, s.tAxis.max);
    };
    if (k >= 0 && axisMappable(s.tAxis) && s.magnetView == 1) {
        // The M view: observed minus fitted M at every point, against its field.
        const auto& fitted = doc.calculations[static_cast<std::size_t>(k)].fittedMagnet;
        for (int i = 0; i < std::clamp(doc.magnetCount, 0, maxMagnetPoints); ++i) {
            const MagnetPoint& point = doc.magnetPoints[static_cast<std::size_t>(i)];
            const double r = point.observed - fitted[static_cast<std::size_t>(i)];
            if (!std::isfinite(r) || !std::isfinite(point.field) || !inRange(point.field)) continue;
            points.push_back({point.field, r});
            largest = std::max(largest, std::fabs(r));
        }
    } else if (k >= 0 && axisMappable(s.tAxis)) {
        const Calculation& calc = doc.calculations[static_cast<std::size_t>(k)];
        const int last = std::min(calc.lastPair, std::clamp(doc.pairCount, 0, maxPairs));
        for (int i = std::max(calc.firstPair, 1); i <= last; ++i) {
            const double r =
                displayedChi[slot(i)] - displayedFit[static_cast<std::size_t>(k)][slot(i)];
            const double t = doc.pairs[slot(i)].temperature;
            if (!std::isfinite(r) || t < std::min(s.tAxis.min, s.tAxis.max) ||
                t > std::max(s.tAxis.min, s.tAxis.max))
                continue;
            points.push_back({t, r});
            largest = std::max(largest, std::fabs(r));
        }
    }
    const int middle = (l.panelTop + l.panelBottom) / 2;
    const int half = (l.panelBottom - l.panelTop) / 2;
    // r / largest first: the largest residual lands exactly on the panel's edge.
    const auto yOf = [&](double r) {
        return largest > 0 ? middle - truncDevice(std::round(half * (r / largest))) : middle;
    };

    // The zero line, dotted, and the scale's three numbers left of the panel.
    surface.selectPen({PenStyle::Dot, 1, s.frameColour});
    surface.moveTo(l.frameLeft, middle);
    surface.lineTo(l.frameRight, middle);
    const TextCell cell = plotTextCell(surface);
    const LogFont previousFont = surface.selectFont(uprightLabelFont(cell));
    const Colour previousColour = surface.setTextColour(s.labelColour);
    if (largest > 0) {
        const int digits = readableDigits({-largest, 0, largest}, s.chiAxis.digits);
        const int field = static_cast<int>(formatC("%.*f", digits, -largest).size()) + 1;
        for (double r : {largest, 0.0, -largest})
            surface.textOut(l.frameLeft - mx - (field + 1) * cell.width, yOf(r) - cell.height / 2,
                            formatC("%*.*f", field, digits, r));
    }
    surface.textOut(l.frameLeft + cell.width, l.panelTop - my + cell.height / 4, "obs - calc");

    // A small filled marker at each residual, in the experimental markers' colour.
    const int row = std::clamp(s.curves.experimentalColour, 0, plotColourCount - 1);
    const Colour colour = plotColours[static_cast<std::size_t>(row)];
    surface.selectPen({PenStyle::Solid, 1, colour});
    const Brush previousBrush = surface.selectBrush({colour});
    const int radius = std::max(2, s.curves.markerRadius / 3);
    for (const Point& point : points) {
        const int x = plotX(point.t), y = yOf(point.r);
        surface.ellipse(x - radius, y - radius, x + radius, y + radius);
    }
    surface.selectBrush(previousBrush);
    surface.setTextColour(previousColour);
    surface.selectFont(previousFont);
    surface.selectPen(previousPen);
}

} // namespace corvane
