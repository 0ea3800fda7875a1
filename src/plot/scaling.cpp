#include "plot/scaling.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "fit/fit_document.h"
#include "plot/plot_settings.h"

namespace corvane {

std::array<double, maxPairs> displayedChi{};
std::array<std::array<double, maxPairs>, maxCalculations> displayedFit{};

namespace {

// Plotted value of an observed or fitted value v at temperature t.
double converted(double v, double t, DataKind kind, bool showChi) {
    if (kind == DataKind::ChiT && showChi) return v / t; // not finite at t = 0
    if (kind == DataKind::Chi && !showChi) return v * t;
    return v;
}

// Range of an axis from the values: from 0 (or the most negative value) to the largest value,
// numbered in five intervals. Values that are not finite do not count. Without any value the
// range is empty (min = max = 0) and the axis draws no ticks.
template <typename ValueOf> void defaultRange(AxisScale& axis, int count, ValueOf valueOf) {
    float low = 999.0f, high = -999.0f;
    bool any = false;
    for (int i = 0; i < count; ++i) {
        const double v = valueOf(i);
        if (!std::isfinite(v)) continue;
        const float f = static_cast<float>(v);
        if (f <= low) low = f;
        if (f >= high) high = f;
        any = true;
    }
    if (!any) low = high = 0.0f;
    axis.min = low < 0 ? low : 0.0f;
    axis.max = high;
    numberInFifths(axis);
}

} // namespace

void scalePlot() {
    const FitDocument& doc = fitDocument;
    const int pairs = std::clamp(doc.pairCount, 0, maxPairs);
    const int calculations = std::clamp(doc.calculationCount, 0, maxCalculations);
    const bool showChi = plotSettings.showChi != 0;
    for (int i = 0; i < pairs; ++i) {
        const auto p = static_cast<std::size_t>(i);
        const double t = doc.pairs[p].temperature;
        displayedChi[p] = converted(doc.pairs[p].observed, t, doc.dataKind, showChi);
        for (std::size_t k = 0; k < static_cast<std::size_t>(calculations); ++k)
            displayedFit[k][p] =
                converted(doc.calculations[k].fittedValues[p], t, doc.dataKind, showChi);
    }

    if (plotSettings.magnetView == 1) {
        magnetRanges(plotSettings.tAxis, plotSettings.chiAxis);
        plotSettings.yAxisLabel = axisTitle(magnetAxisTitle);
        return;
    }
    defaultRange(plotSettings.chiAxis, pairs,
                 [](int i) { return displayedChi[static_cast<std::size_t>(i)]; });
    defaultRange(plotSettings.tAxis, pairs,
                 [&doc](int i) { return doc.pairs[static_cast<std::size_t>(i)].temperature; });

    const char* title = showChi ? "Chi - T" : "ChiT - T";
    plotSettings.yAxisLabel.fill('\0');
    std::strcpy(plotSettings.yAxisLabel.data(), title);
}

void magnetRanges(AxisScale& field, AxisScale& magnet) {
    const FitDocument& doc = fitDocument;
    const int count = std::clamp(doc.magnetCount, 0, maxMagnetPoints);
    const auto point = [&doc](int i) -> const MagnetPoint& {
        return doc.magnetPoints[static_cast<std::size_t>(i)];
    };
    defaultRange(field, count, [&point](int i) { return point(i).field; });
    defaultRange(magnet, count, [&point](int i) { return point(i).observed; });
}

} // namespace corvane
