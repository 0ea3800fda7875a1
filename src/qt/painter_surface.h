// The Surface on QPainter: an image, a PDF or SVG file, and later the window and the printer.
//
// Lines, rectangles and the frame are drawn without antialiasing, pixel for pixel as the plot
// places them (a line leaves out its end pixel, as lineTo promises); markers and text are
// smoothed. Consecutive lineTo calls are joined into one polyline, so that wide curves get
// round joins and long curves draw fast. The surface's own font is "Arial" (fontconfig gives
// Liberation Sans), 12 points at the surface's resolution: 16 pixels high at 96 dots per inch.
#pragma once

#include <QColor>
#include <QFont>
#include <QImage>
#include <QPoint>
#include <QPolygon>

#include "platform/surface.h"

class QPainter;

namespace corvane {

class PainterSurface final : public Surface {
public:
    // painter is active on its device and stays so while the surface lives; its coordinates
    // are device units of a surface of metrics' size. dotsPerInch sizes the own font.
    PainterSurface(QPainter& painter, const DeviceMetrics& metrics, double dotsPerInch);
    ~PainterSurface() override;
    PainterSurface(const PainterSurface&) = delete;
    PainterSurface& operator=(const PainterSurface&) = delete;

    // Draws what is still pending (the polyline being built); the destructor does it too.
    void flush();

    DeviceMetrics deviceMetrics() override { return metrics_; }
    TextMetrics textMetrics() override;
    Pen selectPen(const Pen& pen) override;
    Brush selectBrush(const Brush& brush) override;
    LogFont selectFont(const LogFont& font) override;
    Colour setTextColour(Colour colour) override;
    BackgroundMode setBackgroundMode(BackgroundMode mode) override;
    void moveTo(int x, int y) override;
    void lineTo(int x, int y) override;
    void rectangle(int left, int top, int right, int bottom) override;
    void ellipse(int left, int top, int right, int bottom) override;
    void textOut(int x, int y, std::string_view text) override;

private:
    // A LogFont as Qt draws it: a font of whole pixels, scaled to the exact cell height and
    // average width asked for.
    struct ResolvedFont {
        QFont font;
        double scaleX = 1, scaleY = 1;
        double ascent = 0; // in the font's own (unscaled) units
        TextMetrics metrics;
    };
    ResolvedFont resolve(const LogFont& font) const;
    void applyPen();
    void drawEllipse(QPainter& painter, double left, double top, int width, int height) const;
    bool rasterWithoutScaling() const;

    QPainter& painter_;
    DeviceMetrics metrics_;
    int ownFontHeight_;
    Pen pen_;
    Brush brush_;
    LogFont font_;
    ResolvedFont resolved_;
    Colour textColour_ = black;
    BackgroundMode backgroundMode_ = BackgroundMode::Opaque;
    QPoint current_;
    QPolygon pending_; // joined lineTo points, drawn by flush()

    // The last ellipse drawn on a raster device, as an image to copy: a plot draws a thousand
    // markers alike, and copying is many times faster than drawing each smoothly.
    struct Sprite {
        Pen pen;
        Brush brush;
        int width = -1, height = -1;
        QImage image;
    } sprite_;
};

// A colour reference as a QColor.
inline QColor qColour(Colour c) {
    return QColor(static_cast<int>(redOf(c)), static_cast<int>(greenOf(c)),
                  static_cast<int>(blueOf(c)));
}

} // namespace corvane
