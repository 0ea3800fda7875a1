// A surface that draws nothing and keeps every call, for the tests and the plot benchmark.
//
// Its own font has fixed metrics (16 units high, 7 wide on average), so that text positions
// are exact; a selected font reports its own lfHeight and lfWidth.
#pragma once

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "platform/surface.h"

namespace corvane {

enum class SurfaceOp : int {
    SelectPen,
    SelectBrush,
    SelectFont,
    SetTextColour,
    SetBackgroundMode,
    MoveTo,
    LineTo,
    Rectangle,
    Ellipse,
    TextOut,
};
inline constexpr int surfaceOpCount = 10;
inline constexpr std::array<const char*, surfaceOpCount> surfaceOpNames = {
    "SelectPen", "SelectBrush", "SelectFont", "SetTextColour", "SetBackgroundMode",
    "MoveTo",    "LineTo",      "Rectangle",  "Ellipse",       "TextOut"};

// One call with the surface's state after it.
struct SurfaceCall {
    SurfaceOp op = SurfaceOp::MoveTo;
    // MoveTo: the point in (x1, y1); LineTo: from the old current position (x1, y1) to (x2, y2);
    // Rectangle and Ellipse: the box (x1, y1)-(x2, y2); TextOut: the point in (x1, y1).
    int x1 = 0, y1 = 0, x2 = 0, y2 = 0;
    Pen pen;
    Brush brush;
    LogFont font;
    Colour textColour = black;
    BackgroundMode backgroundMode = BackgroundMode::Opaque;
    std::string text; // TextOut only
};

class RecordingSurface final : public Surface {
public:
    inline static constexpr TextMetrics ownFontMetrics{16, 7};

    // A surface of width x height square pixels at 96 pixels per inch.
    RecordingSurface(int width, int height);
    explicit RecordingSurface(const DeviceMetrics& metrics) : metrics_(metrics) {}

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

    std::vector<SurfaceCall> calls;
    // The calls of one kind, in order.
    std::vector<SurfaceCall> callsOf(SurfaceOp op) const;
    // The state as it is now; after a routine that restores what it selected, the start state.
    const SurfaceCall& state() const { return state_; }

private:
    void record(SurfaceOp op, int x1, int y1, int x2, int y2, std::string_view text = {});

    DeviceMetrics metrics_;
    SurfaceCall state_;
    int currentX_ = 0, currentY_ = 0;
};

} // namespace corvane
