// plot-bench: how long one paint of the plot takes, against the 16 ms of a frame.
//
// The plot is repainted on every step of a zoom drag, so a paint of the fullest plot (1000
// experimental pairs, all ten fitted curves of 1000 pairs shown, five solid and five dotted)
// must fit well within a frame at 60 frames per second. Each case is painted on the recording
// surface (the plot's own work: layout, clipping, dash patterns) and on the QPainter surface
// over a 1024 x 768 image (what the window does), side by side in the same run.

#include <QGuiApplication>
#include <QImage>
#include <QPainter>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <functional>
#include <vector>

#include "fit/fit_document.h"
#include "platform/recording_surface.h"
#include "plot/paint.h"
#include "plot/plot_settings.h"
#include "qt/painter_surface.h"

namespace {

using namespace corvane;

constexpr int width = 1024, height = 768;
constexpr double frameBudgetMs = 16.0;

// chiT of a copper(II) dimer, H = -2J S1.S2, J in cm-1.
double dimerChiT(double t, double j) {
    return 2 * 0.37515 * 2.1 * 2.1 / (3 + std::exp(-2 * j / (0.695 * t)));
}

void fillDocument() {
    resetFitDocument();
    FitDocument& doc = fitDocument;
    doc.pairCount = maxPairs;
    doc.calculationCount = maxCalculations;
    for (std::size_t i = 0; i < maxPairs; ++i) {
        const double t = 1.0 + 299.0 * static_cast<double>(i) / (maxPairs - 1);
        doc.pairs[i] = {t, dimerChiT(t, -60) * (1 + 0.02 * std::sin(static_cast<double>(i)))};
    }
    for (std::size_t k = 0; k < maxCalculations; ++k) {
        Calculation& c = doc.calculations[k];
        c.firstPair = 1;
        c.lastPair = maxPairs;
        for (std::size_t i = 0; i < maxPairs; ++i)
            c.fittedValues[i] =
                dimerChiT(doc.pairs[i].temperature, -40.0 - 5.0 * static_cast<double>(k));
    }
}

// Median milliseconds of paint(), repeated for about a second (at least 20 times).
double medianMs(const std::function<void()>& paint) {
    using Clock = std::chrono::steady_clock;
    paint(); // warm-up: fonts, caches
    std::vector<double> times;
    const auto start = Clock::now();
    while (times.size() < 20 ||
           (Clock::now() - start < std::chrono::seconds(1) && times.size() < 2000)) {
        const auto t0 = Clock::now();
        paint();
        times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
    }
    std::nth_element(times.begin(), times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2),
                     times.end());
    return times[times.size() / 2];
}

void runCase(const char* name, bool markers) {
    plotSettings.experimentalShown = markers ? 1 : 0;

    RecordingSurface recording(width, height);
    const double recordingMs = medianMs([&] {
        recording.calls.clear();
        paintPlot(recording);
    });
    const std::size_t calls = recording.calls.size();

    QImage image(width, height, QImage::Format_ARGB32_Premultiplied);
    const double painterMs = medianMs([&] {
        image.fill(Qt::white);
        QPainter painter(&image);
        PainterSurface surface(painter, {width, height, width * 25.4 / 96, height * 25.4 / 96}, 96);
        paintPlot(surface);
    });

    std::printf("%-44s %9.3f %9.3f %8zu %12.3f %12.3f\n", name, recordingMs, painterMs, calls,
                recordingMs / frameBudgetMs, painterMs / frameBudgetMs);
}

} // namespace

int main(int argc, char** argv) {
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication application(argc, argv);

    fillDocument();
    RecordingSurface screen(width, height);
    measureDevice(screen);
    initPlotSettings();
    fillDocument();
    showLoadedPlot(0);
    plotSettings.curveShown.fill(1);

    std::printf("plot-bench: %d x %d square pixels; 10 fitted curves of %d pairs shown (5 solid, "
                "5 dotted)\n",
                width, height, maxPairs);
    std::printf("median ms per paint; ratio = ms / %.0f ms frame budget (below 1 fits a frame)\n\n",
                frameBudgetMs);
    std::printf("%-44s %9s %9s %8s %12s %12s\n", "case", "record ms", "QPainter", "calls",
                "record ratio", "QPainter ratio");
    runCase("axes, 1000 markers, 10 curves", true);
    runCase("axes, 10 curves", false);
    plotSettings.gridLines = 1;
    plotSettings.curves.penWidth = 3;
    runCase("axes, grid, 1000 markers, 10 curves, width 3", true);
    return 0;
}
