// The 2-D drawing surface: everything the plot draws goes through this interface.
//
// A surface works like a device context of the desktop platforms: it has device metrics, a
// current pen, brush and font (each selected by value; selecting returns the one it replaces,
// so a routine that selects something restores the previous object before it returns), a text
// colour, a background mode and a current position for move-to/line-to. Coordinates are device
// units (pixels of a screen, image or page), x growing to the right and y downwards.
//
// Backends: RecordingSurface (platform/recording_surface.h) keeps every call for the tests;
// PainterSurface (qt/painter_surface.h) draws with QPainter on an image, a PDF or an SVG file,
// and on the window and the printer.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace corvane {

// A colour reference: 0x00BBGGRR, red in the lowest byte.
using Colour = std::uint32_t;

constexpr Colour rgbColour(unsigned red, unsigned green, unsigned blue) {
    return (red & 0xFFu) | (green & 0xFFu) << 8 | (blue & 0xFFu) << 16;
}
constexpr unsigned redOf(Colour c) { return c & 0xFFu; }
constexpr unsigned greenOf(Colour c) { return (c >> 8) & 0xFFu; }
constexpr unsigned blueOf(Colour c) { return (c >> 16) & 0xFFu; }

inline constexpr Colour black = 0x000000;
inline constexpr Colour white = 0xFFFFFF;

// Pen styles, numbered as the platform numbers them. A dotted pen of width 1 is the platform's
// own dotted line; backends may draw it solid (the plot makes its dash patterns in software).
enum class PenStyle : int { Solid = 0, Dot = 2 };

struct Pen {
    PenStyle style = PenStyle::Solid;
    int width = 1; // device units; 0 and 1 both mean one pixel
    Colour colour = black;
    friend bool operator==(const Pen&, const Pen&) = default;
};

struct Brush {
    Colour colour = white; // solid brushes only
    friend bool operator==(const Brush&, const Brush&) = default;
};

// A logical font, with the fields of the platform's font description. A default-constructed
// LogFont (no face name) stands for the surface's own font, the one selected when the surface
// is created.
struct LogFont {
    int lfHeight = 0;      // cell height in device units; 0 takes the surface's own height
    int lfWidth = 0;       // average character width; 0 keeps the face's natural proportions
    int lfEscapement = 0;  // direction of the text, tenths of a degree counter-clockwise
    int lfOrientation = 0; // direction of each glyph (drawn along lfEscapement here)
    int lfWeight = 0;      // 0 default, 400 normal, 700 bold
    std::uint8_t lfItalic = 0;
    std::uint8_t lfUnderline = 0;
    std::uint8_t lfStrikeOut = 0;
    std::uint8_t lfCharSet = 0;
    std::uint8_t lfOutPrecision = 0;
    std::uint8_t lfClipPrecision = 0;
    std::uint8_t lfQuality = 0;
    std::uint8_t lfPitchAndFamily = 0;
    std::array<char, 32> lfFaceName{}; // NUL-terminated; empty: the surface's own font
    friend bool operator==(const LogFont&, const LogFont&) = default;
};

// Sets the face name of font, cut to 31 characters.
void setFaceName(LogFont& font, std::string_view face);

// The size and pixel shape of a surface.
struct DeviceMetrics {
    int horizontalResolution = 0; // pixels across
    int verticalResolution = 0;   // pixels down
    double horizontalSizeMm = 0;  // physical width, millimetres
    double verticalSizeMm = 0;    // physical height, millimetres
};

// Metrics of the surface's current font.
struct TextMetrics {
    int height = 0;           // cell height (ascent plus descent), device units
    int averageCharWidth = 0; // device units
};

enum class BackgroundMode : int { Transparent = 1, Opaque = 2 };

class Surface {
public:
    virtual ~Surface() = default;

    virtual DeviceMetrics deviceMetrics() = 0;
    // Metrics of the font selected now.
    virtual TextMetrics textMetrics() = 0;

    // Make an object current; each returns the object it replaces.
    virtual Pen selectPen(const Pen& pen) = 0;
    virtual Brush selectBrush(const Brush& brush) = 0;
    virtual LogFont selectFont(const LogFont& font) = 0;
    virtual Colour setTextColour(Colour colour) = 0;
    virtual BackgroundMode setBackgroundMode(BackgroundMode mode) = 0;

    // Sets the current position without drawing.
    virtual void moveTo(int x, int y) = 0;
    // A line with the current pen from the current position to (x, y), the end pixel not
    // drawn; (x, y) becomes the current position.
    virtual void lineTo(int x, int y) = 0;
    // The box from (left, top) to (right, bottom), the right and bottom edges excluded,
    // outlined with the current pen and filled with the current brush.
    virtual void rectangle(int left, int top, int right, int bottom) = 0;
    // The ellipse inside that box, outlined and filled the same way.
    virtual void ellipse(int left, int top, int right, int bottom) = 0;
    // Text in the current font and text colour whose top-left corner, in the text's own
    // direction, is at (x, y).
    virtual void textOut(int x, int y, std::string_view text) = 0;
};

} // namespace corvane
