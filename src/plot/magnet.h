// The M view (Display > Magnetization): the document's magnetisation set, M (N muB) up the
// vertical axis against the field H (T) along the horizontal one.
//
// The points fall into groups of one temperature each. Every group has a marker shape of its
// own (the shapes taken in turn, from the lowest temperature up) and a label with its
// temperature ("2 K") right of its last point in the frame (right of the frame when it does not
// fit inside; labels that would overlap stack downwards); each shown calculation draws one curve
// per group through its fitted M at the group's fields, in the calculation's colour and line
// style. The view is drawn on the axes in force (plotSettings.tAxis for H, chiAxis for M), so
// plotX, plotY, plotT and plotValue map it as they map the chi view.
#pragma once

#include <string>
#include <vector>

#include "platform/surface.h"
#include "plot/plot_settings.h"

namespace corvane {

// Points whose temperatures lie within this many kelvin, or this share of the lower one, of
// the lowest temperature of a group belong to that group.
inline constexpr double sameTemperatureKelvin = 0.05;
inline constexpr double sameTemperatureShare = 0.01;

struct MagnetGroup {
    double temperature = 0;  // the mean of its points' temperatures
    std::vector<int> points; // 0-based indices into fitDocument.magnetPoints, by rising field
};

// The groups of the document's magnetisation set, by rising temperature. A point whose
// temperature or field is not finite belongs to none.
std::vector<MagnetGroup> magnetGroups();

// A group's label: "2 K", "1.8 K", "4.25 K", "300 K".
std::string temperatureText(double kelvin);

// The shapes of the groups' markers: group g takes groupMarkers[g % groupMarkerCount]. They
// differ in outline, not only in colour, so that a print in black and white tells them apart.
enum class GroupMarker {
    FilledCircle,
    OpenCircle,
    FilledSquare,
    OpenSquare,
    Triangle,
    Diamond,
    Cross,
    Plus
};
inline constexpr int groupMarkerCount = 8;
GroupMarker groupMarker(int group);

// Half the width of a group's marker: smaller than a chi marker, as a set holds more points.
int groupMarkerRadius();

// The grid (when on), then, when plotSettings.experimentalShown is 1, a marker at every
// observed point in the frame and each group's label. Expects layoutFrame().
void drawMagnetData(Surface& surface);

// The fitted curves of calculation k (0-based), one per group, in its colour, style and the pen
// width; each starts its dash pattern afresh.
void drawMagnetCurves(Surface& surface, int k);

// The shown calculation (0-based) whose curve passes within 4 pixels vertically of (x, y) in
// the view as last laid out; -1 for none. The first in calculation order wins.
int pickMagnetCurve(int x, int y);

} // namespace corvane
