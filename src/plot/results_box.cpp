#include "plot/results_box.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "fit/fit_document.h"
#include "fit/results.h"
#include "plot/plot_settings.h"
#include "plot/scaling.h"
#include "text/text.h"

namespace corvane {

std::vector<std::string> resultsBoxLines(int k) {
    const FitDocument& doc = fitDocument;
    const Calculation& calc = doc.calculations[static_cast<std::size_t>(k)];
    std::string heading = formatC("# %d  D = %.4g", k + 1, calc.deviation);
    const double perDegree = deviationPerDegree(doc, k);
    if (std::isfinite(perDegree)) heading += formatC("  D/(n-p) = %.3g", perDegree);
    if (!calc.warnings.empty())
        heading += formatC("  ! %zu warning%s", calc.warnings.size(),
                           calc.warnings.size() == 1 ? "" : "s");
    switch (calc.end) {
    case FitEnd::Converged:
        break;
    case FitEnd::Interrupted:
        heading += "  interrupted";
        break;
    case FitEnd::IterationLimit:
    case FitEnd::Plateau:
        heading += "  not converged";
        break;
    }
    std::vector<std::string> lines{heading};
    for (const ResultRow& row : resultRows(doc, k)) {
        if (row.fixed && row.value == 0) continue;
        std::string line = "  " + row.name + " = " + conciseValue(row.value, row.uncertainty);
        if (!row.unit.empty()) line += " " + row.unit;
        if (row.fixed) line += " (fixed)";
        lines.push_back(line);
    }
    return lines;
}

DeviceBox resultsBoxPlace(int width, int height, int margin) {
    const PlotLayout& l = plotLayout;
    const PlotSettings& s = plotSettings;
    const FitDocument& doc = fitDocument;
    const int left = l.frameLeft + margin, right = l.frameRight - margin;
    const int top = l.frameTop + margin, bottom = l.frameBottom - margin;
    const std::array<DeviceBox, 4> corners = {{
        {right - width, top, right, top + height},
        {left, top, left + width, top + height},
        {right - width, bottom - height, right, bottom},
        {left, bottom - height, left + width, bottom},
    }};
    const bool mappable = axisMappable(s.tAxis) && axisMappable(s.chiAxis);
    const int pairs = std::clamp(doc.pairCount, 0, maxPairs);
    const int calculations = std::clamp(doc.calculationCount, 0, maxCalculations);
    const auto covered = [&](const DeviceBox& box) {
        int count = 0;
        if (!mappable) return count;
        const auto count_point = [&](double t, double v) {
            if (!std::isfinite(v)) return;
            const int x = plotX(t), y = plotY(v);
            if (x >= box.left && x <= box.right && y >= box.top && y <= box.bottom) ++count;
        };
        if (s.magnetView == 1) {
            for (int i = 0; i < std::clamp(doc.magnetCount, 0, maxMagnetPoints); ++i) {
                const auto p = static_cast<std::size_t>(i);
                const double h = doc.magnetPoints[p].field;
                if (!std::isfinite(h)) continue;
                if (s.experimentalShown == 1) count_point(h, doc.magnetPoints[p].observed);
                for (int k = 0; k < calculations; ++k)
                    if (s.curveShown[static_cast<std::size_t>(k)] == 1)
                        count_point(h,
                                    doc.calculations[static_cast<std::size_t>(k)].fittedMagnet[p]);
            }
            return count;
        }
        for (int i = 0; i < pairs; ++i) {
            const auto p = static_cast<std::size_t>(i);
            const double t = doc.pairs[p].temperature;
            if (s.experimentalShown == 1) count_point(t, displayedChi[p]);
            for (int k = 0; k < calculations; ++k)
                if (s.curveShown[static_cast<std::size_t>(k)] == 1)
                    count_point(t, displayedFit[static_cast<std::size_t>(k)][p]);
        }
        return count;
    };
    DeviceBox best = corners[0];
    int fewest = covered(best);
    for (std::size_t c = 1; c < corners.size() && fewest > 0; ++c) {
        const int n = covered(corners[c]);
        if (n < fewest) {
            fewest = n;
            best = corners[c];
        }
    }
    return best;
}

void drawResultsBox(Surface& surface) {
    const PlotSettings& s = plotSettings;
    if (s.showInfo != 1) return;
    const int calculations = std::clamp(fitDocument.calculationCount, 0, maxCalculations);
    struct Block {
        int k;
        std::vector<std::string> lines;
    };
    std::vector<Block> blocks;
    std::size_t longest = 0, lineCount = 0;
    for (int k = 0; k < calculations; ++k) {
        if (s.curveShown[static_cast<std::size_t>(k)] != 1) continue;
        blocks.push_back({k, resultsBoxLines(k)});
        for (const std::string& line : blocks.back().lines)
            longest = std::max(longest, line.size());
        lineCount += blocks.back().lines.size();
    }
    if (blocks.empty()) return;

    const TextCell cell = plotTextCell(surface);
    if (cell.height <= 0 || cell.width <= 0) return;
    const int lineHeight = cell.height + cell.height / 4;
    const int pad = cell.width;
    // Proportional text of digits and letters runs about as wide as its average character width.
    const int width = static_cast<int>(
        std::min<double>(1e8, static_cast<double>(longest) * cell.width * 1.05 + 2.0 * pad));
    const int height = static_cast<int>(std::min<double>(
        1e8, static_cast<double>(lineCount) * lineHeight +
                 static_cast<double>(blocks.size() - 1) * cell.height / 2.0 + 2.0 * pad));
    const DeviceBox box = resultsBoxPlace(width, height, cell.width);

    const Pen previousPen = surface.selectPen({PenStyle::Solid, 1, black});
    const Brush previousBrush = surface.selectBrush({white});
    surface.rectangle(box.left, box.top, box.right, box.bottom);
    const LogFont previousFont = surface.selectFont(uprightLabelFont(cell));
    const Colour previousColour = surface.setTextColour(black);
    int y = box.top + pad;
    for (const Block& block : blocks) {
        const int row = std::clamp(s.curves.curveColour[static_cast<std::size_t>(block.k)], 0,
                                   plotColourCount - 1);
        surface.setTextColour(plotColours[static_cast<std::size_t>(row)]);
        for (const std::string& line : block.lines) {
            surface.textOut(box.left + pad, y, line);
            y += lineHeight;
        }
        y += cell.height / 2;
    }
    surface.setTextColour(previousColour);
    surface.selectFont(previousFont);
    surface.selectBrush(previousBrush);
    surface.selectPen(previousPen);
}

} // namespace corvane
