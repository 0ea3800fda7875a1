// Curves and markers: grid lines, experimental markers and styled fitted curves in the frame.
//
// A series is walked in pair order; each point is joined to the one before, and the joining
// segment is clipped to the frame (edges included): markers go at the ends of the visible
// parts, curves are drawn along them. Points whose plotted value is not finite are left out.
// Nothing is drawn when either axis is not mappable (an empty or infinite range).
#pragma once

#include <array>
#include <optional>
#include <string_view>
#include <vector>

#include "plot/axes.h"
#include "plot/plot_settings.h"

namespace corvane {

// Dash patterns by LineStyle, one character per pixel along the line: 'x' drawn, '-' skipped.
inline constexpr std::array<std::string_view, lineStyleCount> dashPatterns = {
    "",
    "xxx------",
    "xxxxxx------",
    "xxxxxx------xxx------",
    "xxxxxx------xxx------xxx------",
    "xxxxxx------xxxxxx------xxx------xxx------"};

struct DevicePoint {
    int x = 0, y = 0;
    friend bool operator==(const DevicePoint&, const DevicePoint&) = default;
};

// The part of the segment p-q inside the rectangle, edges included: false when no part is;
// else from (p when p is inside, else where the segment enters) and to (q when inside, else
// where it leaves). Crossings keep the edge coordinate exactly.
bool clipToRectangle(DevicePoint p, DevicePoint q, const DeviceBox& box, DevicePoint& from,
                     DevicePoint& to);

// The same for the frame rectangle of plotLayout.
bool clipToFrame(DevicePoint p, DevicePoint q, DevicePoint& from, DevicePoint& to);

// Grid lines (when plotSettings.gridLines is 1) at 0 and every major interval up to the top
// of the vertical range, across the outer frame; then a marker at every experimental point.
void drawExperimental(Surface& surface);

// The grid lines alone, as drawExperimental draws them.
void drawGridLines(Surface& surface);

// A curve through points in order with the pen selected, in a LineStyle, clipped to the frame
// and patterned as a fitted curve is; a point that is none is passed over. Returns the index of
// the pattern's next element where the curve ends.
int drawCurveThrough(Surface& surface, const std::vector<std::optional<DevicePoint>>& points,
                     int style);

// The fitted curve of calculation k (0-based) over its fitted range of pairs, in its colour,
// style and the pen width; with the grid on, first a line at 0. The dash pattern starts at its
// first element and runs on across the joints of the curve; returns the index of its next
// element where the curve ends.
int drawFittedCurve(Surface& surface, int k);

// One segment in a LineStyle: solid as one line; the others pixel by pixel from (x1, y1) to
// (x2, y2), both ends included, continuing the pattern at phase (the index of its next element,
// advanced past every pixel visited). An "on" pixel is joined to the one before with lineTo; an
// "off" pixel is only moved to.
void drawStyledSegment(Surface& surface, int x1, int y1, int x2, int y2, int style, int& phase);

} // namespace corvane
