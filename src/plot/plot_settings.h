// Plot settings and layout: how the plot looks, and where it lies on the surface painted now.
//
// `plotSettings` holds everything the user can change about the plot; it starts from the
// defaults below and is never saved. `plotLayout` holds the measured surface and the frame
// rectangle, recomputed on every paint. Both are process-wide and not thread-safe.
//
// Colours are colour references (0x00BBGGRR); device units are pixels of the surface painted.
#pragma once

#include <array>

#include "fit/limits.h"
#include "platform/surface.h"

namespace corvane {

// The five curve colours; CurveAttributes hold rows of this table.
inline constexpr int plotColourCount = 5;
inline constexpr std::array<Colour, plotColourCount> plotColours = {0x000000, 0x0000FF, 0x00FF00,
                                                                    0xFF0000, 0x00FFFF};
inline constexpr std::array<const char*, plotColourCount> plotColourNames = {
    "Black", "Red", "Green", "Blue", "Yellow"};

// Dash pattern of a fitted curve, in steps of one pixel along the line (see dashPatterns).
enum class LineStyle : int { Solid, Dotted, Dashed, DashDot, DashDotDot, DashDashDotDot };
inline constexpr int lineStyleCount = 6;
inline constexpr std::array<const char*, lineStyleCount> lineStyleNames = {
    "Solid", "Dotted", "Dashed", "Dash-dot", "Dash-dot-dot", "Dash-dash-dot-dot"};

// The look of an experimental marker. Open Circle and square are drawn alike.
enum class MarkerKind : int { FilledCircle, OpenCircle, Square };
inline constexpr int markerKindCount = 3;
inline constexpr std::array<const char*, markerKindCount> markerKindNames = {
    "Filled Circle", "Open Circle", "square"};

// Range and numbering of one axis, in axis units (K, or chi or chiT; T or N muB in the M view).
struct AxisScale {
    float min = 0;           // value at the left or bottom end
    float max = 0;           // value at the right or top end
    float labelFrom = 0;     // value of the first major tick
    float labelTo = 0;       // last value that may get a major tick (plus a tenth of an interval)
    float majorInterval = 0; // distance between major ticks
    int minorCount = 2;      // minor intervals per major interval
    int digits = 2;          // decimals of the numbers; 0 prints whole numbers
};

// Numbers the axis from min to max in five major intervals.
inline void numberInFifths(AxisScale& axis) {
    axis.labelFrom = axis.min;
    axis.labelTo = axis.max;
    axis.majorInterval = (axis.max - axis.min) / 5.0f;
}

struct CurveAttributes {
    int experimentalColour = 1; // row of plotColours
    int experimentalMarker = 0; // MarkerKind
    std::array<int, maxCalculations> curveColour = {0, 1, 2, 3, 4, 0, 1, 2, 3, 4};
    std::array<int, maxCalculations> curveStyle = {0, 0, 0, 0, 0, 1, 1, 1, 1, 1}; // LineStyle
    int penWidthChoice = 0; // row of the width list, always penWidth - 1
    int penWidth = 1;       // markers, curves and grid lines, 1..5; not scaled for printing
    int markerRadius = 10;  // half the width of a marker
};

inline constexpr int axisLabelSize = 80; // 79 characters and the ending NUL

constexpr LogFont defaultLabelFont() {
    LogFont font;
    font.lfWeight = 700;
    font.lfFaceName = {'A', 'r', 'i', 'a', 'l'};
    return font;
}

// The axes and titles of one view of the plot.
struct ViewAxes {
    AxisScale horizontal, vertical;
    std::array<char, axisLabelSize> xAxisLabel{}, yAxisLabel{};
};

// An axis title of text (UTF-8), cut to axisLabelSize - 1 bytes.
constexpr std::array<char, axisLabelSize> axisTitle(const char* text) {
    std::array<char, axisLabelSize> title{};
    for (std::size_t i = 0; i + 1 < title.size() && text[i] != '\0'; ++i) title[i] = text[i];
    return title;
}

// The titles of the M view's axes; the label font (Liberation Sans) draws the Greek mu.
inline constexpr const char* fieldAxisTitle = "Magnetic Field (T)";
inline constexpr const char* magnetAxisTitle = "M (N\u03bcB)";

struct PlotSettings {
    // The axes in force, those of the view shown: in the chi view temperature (K) across and
    // chi or chiT (as showChi says) up; in the M view field (T) across and M (N muB) up.
    AxisScale tAxis;
    AxisScale chiAxis;
    std::array<char, axisLabelSize> xAxisLabel = {"Temperature (K)"};
    std::array<char, axisLabelSize> yAxisLabel{}; // written by scalePlot
    // The M view (magnetisation against field) is shown (1) instead of the chi view (0); the
    // other view's axes and titles wait in otherView meanwhile, so each view keeps its own.
    int magnetView = 0;
    ViewAxes otherView = {{}, {}, axisTitle(fieldAxisTitle), axisTitle(magnetAxisTitle)};
    // Font of titles and numbers; lfHeight 0 takes the size from the surface's own font.
    LogFont labelFont = defaultLabelFont();
    Colour labelColour = black;
    float zoom = 1.0f;            // size factor of the frame and of the default text
    float horizontalRatio = 1.0f; // width factor of the frame
    float verticalRatio = 1.0f;   // height factor of the frame
    int fixedAspect = 1;          // zoom by mouse changes zoom (1) or the two ratios (0)
    int frameLineWidth = 2;       // frame and ticks, device units at print scale 1
    Colour frameColour = black;
    int zoomChoice = 5; // rows last chosen in the zoom, border ratio and width lists
    int horizontalRatioChoice = 3;
    int verticalRatioChoice = 3;
    int frameWidthChoice = 1;
    int showChi = 0;           // the vertical axis shows chi (1) or chiT (0)
    int gridLines = 0;         // horizontal grid lines
    int experimentalShown = 1; // experimental markers drawn
    int showInfo = 0;          // the results box (Show Info)
    int showResiduals = 0;     // the residual panel under the frame
    std::array<int, maxCalculations> curveShown = {1, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    int plotLoaded = 0; // a document is loaded; painting draws the plot only then
    CurveAttributes curves;
};

struct PlotLayout {
    int deviceWidth = 0;  // pixels across the surface
    int deviceHeight = 0; // pixels down, less about a twelfth (room for menu and title bars)
    int centreX = 0;
    int centreY = 0;
    float pixelAspect = 1.0f; // height over width of one pixel
    int frameLeft = 0, frameRight = 0, frameTop = 0, frameBottom = 0; // the data rectangle
    // The residual panel's data rectangle, from frameLeft to frameRight (0, 0: none), and the
    // bottom of the lowest of the two, under which the temperature axis is numbered.
    int panelTop = 0, panelBottom = 0;
    int belowPlot = 0;
    int referenceWidth = 0;  // deviceWidth of the screen at start-up
    float printScale = 1.0f; // deviceWidth / referenceWidth, set on every paint
    int printing = 0;        // 1 while a printer page is painted
};

extern PlotSettings plotSettings;
extern PlotLayout plotLayout;

// Gives plotSettings, plotLayout and the scaled values their start-up state, as before any
// measurement (for tests; the program calls initPlotSettings once instead).
void resetPlot();

// Reads the size and pixel shape of surface into plotLayout's device fields.
void measureDevice(Surface& surface);

// Start-up: every default of plotSettings except the label font and colour, referenceWidth
// from the last measureDevice. (The fit document has its own start-up values: resetFitDocument.)
void initPlotSettings();

// The Default commands of the Display, Zoom and Select menus.
void resetDisplayDefaults(); // frame, numbering, label colour, pen width, grid; then scalePlot()
void resetZoomDefaults();    // zoom, ratios, frame line width and colour
void resetRangeDefaults();   // grid off, then scalePlot()

// The display after a document is loaded: plot loaded, experimental points shown, only the
// fitted curve of calculation `shownCalculation` (0-based; none when out of range) shown, the
// chi view with chiT on the vertical axis; then scalePlot(), and the M view's ranges from the
// document's magnetisation set.
void showLoadedPlot(int shownCalculation);

// The display of the plot as the window shows it after a load, with the newest calculation
// shown, chi (showChi true) or chiT plotted, the M view when asked, and the grid as asked;
// then scalePlot().
void showPlotForExport(bool showChi, bool gridLines, bool magnetView = false);

// Shows the M view (on) or the chi view: the axes in force and their titles change places with
// those of otherView, so each view comes back with the range it had. Nothing else changes.
void showMagnetView(bool on);

} // namespace corvane
