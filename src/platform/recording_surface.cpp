#include "platform/recording_surface.h"

#include <utility>

namespace corvane {

RecordingSurface::RecordingSurface(int width, int height)
    : metrics_{width, height, width * 25.4 / 96.0, height * 25.4 / 96.0} {}

TextMetrics RecordingSurface::textMetrics() {
    const LogFont& font = state_.font;
    if (font.lfFaceName[0] == '\0' || font.lfHeight == 0) return ownFontMetrics;
    const int height = font.lfHeight < 0 ? -font.lfHeight : font.lfHeight;
    const int width = font.lfWidth != 0
                          ? font.lfWidth
                          : height * ownFontMetrics.averageCharWidth / ownFontMetrics.height;
    return {height, width};
}

void RecordingSurface::record(SurfaceOp op, int x1, int y1, int x2, int y2, std::string_view text) {
    SurfaceCall call = state_;
    call.op = op;
    call.x1 = x1;
    call.y1 = y1;
    call.x2 = x2;
    call.y2 = y2;
    call.text.assign(text);
    calls.push_back(std::move(call));
}

Pen RecordingSurface::selectPen(const Pen& pen) {
    const Pen previous = state_.pen;
    state_.pen = pen;
    record(SurfaceOp::SelectPen, 0, 0, 0, 0);
    return previous;
}

Brush RecordingSurface::selectBrush(const Brush& brush) {
    const Brush previous = state_.brush;
    state_.brush = brush;
    record(SurfaceOp::SelectBrush, 0, 0, 0, 0);
    return previous;
}

LogFont RecordingSurface::selectFont(const LogFont& font) {
    const LogFont previous = state_.font;
    state_.font = font;
    record(SurfaceOp::SelectFont, 0, 0, 0, 0);
    return previous;
}

Colour RecordingSurface::setTextColour(Colour colour) {
    const Colour previous = state_.textColour;
    state_.textColour = colour;
    record(SurfaceOp::SetTextColour, 0, 0, 0, 0);
    return previous;
}

BackgroundMode RecordingSurface::setBackgroundMode(BackgroundMode mode) {
    const BackgroundMode previous = state_.backgroundMode;
    state_.backgroundMode = mode;
    record(SurfaceOp::SetBackgroundMode, 0, 0, 0, 0);
    return previous;
}

void RecordingSurface::moveTo(int x, int y) {
    currentX_ = x;
    currentY_ = y;
    record(SurfaceOp::MoveTo, x, y, 0, 0);
}

void RecordingSurface::lineTo(int x, int y) {
    record(SurfaceOp::LineTo, currentX_, currentY_, x, y);
    currentX_ = x;
    currentY_ = y;
}

void RecordingSurface::rectangle(int left, int top, int right, int bottom) {
    record(SurfaceOp::Rectangle, left, top, right, bottom);
}

void RecordingSurface::ellipse(int left, int top, int right, int bottom) {
    record(SurfaceOp::Ellipse, left, top, right, bottom);
}

void RecordingSurface::textOut(int x, int y, std::string_view text) {
    record(SurfaceOp::TextOut, x, y, 0, 0, text);
}

std::vector<SurfaceCall> RecordingSurface::callsOf(SurfaceOp op) const {
    std::vector<SurfaceCall> found;
    for (const SurfaceCall& call : calls)
        if (call.op == op) found.push_back(call);
    return found;
}

} // namespace corvane
