// Frame, axes and labels: where the plot lies on the surface, and everything but the data.
//
// The frame (plotLayout.frameLeft .. frameBottom) is the data rectangle; the outer frame, drawn
// as the border, lies FW / 40 left and right and FH / 20 above and below it. All coordinates
// are device units, y growing downwards.
#pragma once

#include <vector>

#include "plot/plot_settings.h"

namespace corvane {

// A floating-point device coordinate truncated toward zero, limited to +-2^28 so that sums of
// a few coordinates stay within int; NaN gives 0.
int truncDevice(double v);

// A rectangle of device units, edges included.
struct DeviceBox {
    int left = 0, top = 0, right = 0, bottom = 0;
};

// The part of the device plane worth drawing on: the surface and a quarter of its size around.
// A zoomed frame can reach far beyond it; what lies beyond is not drawn (a pattern keeps its
// phase as if it had been).
DeviceBox drawingBox();

inline int frameWidth() { return plotLayout.frameRight - plotLayout.frameLeft; }
inline int frameHeight() { return plotLayout.frameBottom - plotLayout.frameTop; }
inline int frameMarginX() { return frameWidth() / 40; }
inline int frameMarginY() { return frameHeight() / 20; }

// True when values can be placed on the axis: min and max finite and apart.
bool axisMappable(const AxisScale& axis);

// Data to device: x of temperature t, y of plotted value v. Both axes must be mappable.
int plotX(double t);
int plotY(double v);
// Device to data, the inverse of plotX and plotY (up to the truncation).
double plotT(int px);
double plotValue(int py);

// The decimals an axis's numbers get: digits, unless two of values would then print alike
// (chi of 0.001 with two decimals: "0.00" at every tick); then the fewest, up to
// maxReadableDigits, that print them all apart.
inline constexpr int maxReadableDigits = 12;
int readableDigits(const std::vector<double>& values, int digits);

// Lays out the frame from the measured surface, the zoom and the border ratios: unzoomed it
// lies 15 % of the height in from top and bottom, and is one and a half times as wide as high
// in physical length, centred.
void layoutFrame();

// The character cell of the plot's titles and numbers: the surface's own font times the zoom,
// or the chosen label font's height times the zoom and the print scale. A negative lfHeight of
// the label font is made positive in plotSettings.
struct TextCell {
    int width = 0, height = 0;
};
TextCell plotTextCell(Surface& surface);
// The label font at the size of cell, upright: the font of horizontal text in the plot.
LogFont uprightLabelFont(const TextCell& cell);

// Draws the outer frame, the ticks on all four sides, the two axis titles and the numbers.
// Expects layoutFrame() for the same surface. An axis whose range is empty or whose major step
// is below one device unit gets no ticks and no numbers. A negative lfHeight of the label
// font is made positive in plotSettings.
void drawAxes(Surface& surface);

} // namespace corvane
