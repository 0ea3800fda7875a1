// The plot as a picture file, without a window.
#pragma once

#include <string>

#include "platform/surface.h"

namespace corvane {

// Paints the current plot (fitDocument with plotSettings, as paintPlot draws it on the
// window) on a white surface of width x height device pixels with square pixels at 96 per
// inch, and writes it to outputPath as PNG, PDF or SVG, chosen by the extension (".png",
// ".pdf", ".svg", in any case). The surface stands for the screen: the print scale is 1.
// The file is written whole or not at all. Creates a QGuiApplication on the offscreen
// platform when the process has none, so no display is needed (QT_QPA_PLATFORM, when set,
// names another platform). On failure returns false with the reason in error.
//
// With shownAs, the picture is the plot as a window painting on that surface shows it: laid
// out for the surface (the window's screen) and cut to width x height.
struct ShownSurface {
    DeviceMetrics metrics;
    double dotsPerInch = 96;
};
bool exportPlot(const std::string& outputPath, int width, int height, std::string& error,
                const ShownSurface* shownAs = nullptr);

// The largest width and height exportPlot accepts.
inline constexpr int maxExportSide = 16384;

} // namespace corvane
