#include "qt/painter_surface.h"

#include <QFontMetricsF>
#include <QPaintEngine>
#include <QPainter>
#include <QPen>
#include <QString>
#include <QTransform>
#include <algorithm>
#include <cmath>

namespace corvane {

PainterSurface::PainterSurface(QPainter& painter, const DeviceMetrics& metrics, double dotsPerInch)
    : painter_(painter), metrics_(metrics),
      ownFontHeight_(std::max(1, static_cast<int>(std::lround(12.0 * dotsPerInch / 72.0)))) {
    resolved_ = resolve(font_);
    painter_.setRenderHint(QPainter::Antialiasing, false);
    painter_.setRenderHint(QPainter::TextAntialiasing, true);
    applyPen();
    painter_.setBrush(qColour(brush_.colour));
}

PainterSurface::~PainterSurface() { flush(); }

void PainterSurface::flush() {
    if (pending_.size() >= 2) painter_.drawPolyline(pending_);
    pending_.clear();
}

void PainterSurface::applyPen() {
    // Dotted pens are drawn solid: the plot makes its dash patterns in software.
    QPen pen(qColour(pen_.colour));
    if (pen_.width <= 1) {
        pen.setWidth(1);
        pen.setCapStyle(Qt::FlatCap); // leaves out the end pixel of a line
    } else {
        pen.setWidth(pen_.width);
        pen.setCapStyle(Qt::RoundCap);
        pen.setJoinStyle(Qt::RoundJoin);
    }
    painter_.setPen(pen);
}

PainterSurface::ResolvedFont PainterSurface::resolve(const LogFont& font) const {
    const bool own = font.lfFaceName[0] == '\0';
    ResolvedFont r;
    r.font = QFont(own ? QStringLiteral("Arial") : QString::fromLatin1(font.lfFaceName.data()));
    r.font.setWeight(own || font.lfWeight <= 0
                         ? QFont::Normal
                         : static_cast<QFont::Weight>(std::clamp(font.lfWeight, 1, 1000)));
    r.font.setItalic(!own && font.lfItalic != 0);
    r.font.setUnderline(!own && font.lfUnderline != 0);
    r.font.setStrikeOut(!own && font.lfStrikeOut != 0);

    // A positive height is the cell height (ascent plus descent), a negative one the em size.
    const int asked = own || font.lfHeight == 0 ? ownFontHeight_ : font.lfHeight;
    r.font.setPixelSize(100);
    const QFontMetricsF reference(r.font);
    const double cellPerEm = reference.height() > 0 ? reference.height() / 100.0 : 1.0;
    const double em = asked > 0 ? asked / cellPerEm : -static_cast<double>(asked);
    const int pixels = std::max(1, static_cast<int>(std::ceil(em)));
    r.font.setPixelSize(pixels);
    const QFontMetricsF fm(r.font);
    r.scaleY = em / pixels;
    r.ascent = fm.ascent();
    const double naturalWidth = fm.averageCharWidth() * r.scaleY;
    r.scaleX = r.scaleY;
    if (!own && font.lfWidth > 0 && naturalWidth > 0) r.scaleX *= font.lfWidth / naturalWidth;
    r.metrics.height = asked > 0 ? asked : static_cast<int>(std::lround(fm.height() * r.scaleY));
    r.metrics.averageCharWidth =
        !own && font.lfWidth > 0 ? font.lfWidth : static_cast<int>(std::lround(naturalWidth));
    return r;
}

TextMetrics PainterSurface::textMetrics() { return resolved_.metrics; }

Pen PainterSurface::selectPen(const Pen& pen) {
    const Pen previous = pen_;
    if (pen != pen_) {
        flush();
        pen_ = pen;
        applyPen();
    }
    return previous;
}

Brush PainterSurface::selectBrush(const Brush& brush) {
    const Brush previous = brush_;
    brush_ = brush;
    painter_.setBrush(qColour(brush_.colour));
    return previous;
}

LogFont PainterSurface::selectFont(const LogFont& font) {
    const LogFont previous = font_;
    if (font != font_) {
        font_ = font;
        resolved_ = resolve(font_);
    }
    return previous;
}

Colour PainterSurface::setTextColour(Colour colour) {
    const Colour previous = textColour_;
    textColour_ = colour;
    return previous;
}

BackgroundMode PainterSurface::setBackgroundMode(BackgroundMode mode) {
    const BackgroundMode previous = backgroundMode_;
    backgroundMode_ = mode;
    return previous;
}

void PainterSurface::moveTo(int x, int y) {
    if (QPoint(x, y) != current_) flush();
    current_ = QPoint(x, y);
}

void PainterSurface::lineTo(int x, int y) {
    if (pending_.isEmpty()) pending_ << current_;
    pending_ << QPoint(x, y);
    current_ = QPoint(x, y);
}

void PainterSurface::rectangle(int left, int top, int right, int bottom) {
    flush();
    painter_.drawRect(QRect(left, top, right - left - 1, bottom - top - 1));
}

// A smooth ellipse in the box of width x height at (left, top), centred on the middle of the
// pixel the box is centred on.
void PainterSurface::drawEllipse(QPainter& painter, double left, double top, int width,
                                 int height) const {
    painter.setRenderHint(QPainter::Antialiasing, true);
    painter.drawEllipse(QRectF(left + 0.5, top + 0.5, width, height));
    painter.setRenderHint(QPainter::Antialiasing, false);
}

bool PainterSurface::rasterWithoutScaling() const {
    const QPaintEngine* engine = painter_.paintEngine();
    if (engine == nullptr || engine->type() != QPaintEngine::Raster) return false;
    const QTransform t = painter_.deviceTransform();
    return t.type() <= QTransform::TxTranslate && t.dx() == std::floor(t.dx()) &&
           t.dy() == std::floor(t.dy());
}

void PainterSurface::ellipse(int left, int top, int right, int bottom) {
    flush();
    const int width = right - left, height = bottom - top;
    const int margin = std::max(pen_.width, 1) + 2; // room for the outline and its smoothing
    if (!rasterWithoutScaling() || width <= 0 || height <= 0 || width > 256 || height > 256) {
        drawEllipse(painter_, left, top, width, height);
        return;
    }
    if (sprite_.pen != pen_ || sprite_.brush != brush_ || sprite_.width != width ||
        sprite_.height != height) {
        sprite_ = {
            pen_, brush_, width, height,
            QImage(width + 2 * margin, height + 2 * margin, QImage::Format_ARGB32_Premultiplied)};
        sprite_.image.fill(Qt::transparent);
        QPainter painter(&sprite_.image);
        painter.setPen(painter_.pen());
        painter.setBrush(painter_.brush());
        drawEllipse(painter, margin, margin, width, height);
    }
    painter_.drawImage(QPoint(left - margin, top - margin), sprite_.image);
}

void PainterSurface::textOut(int x, int y, std::string_view text) {
    flush();
    const QString s = QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
    painter_.save();
    painter_.translate(x, y);
    painter_.rotate(-font_.lfEscapement / 10.0);
    painter_.scale(resolved_.scaleX, resolved_.scaleY);
    painter_.setFont(resolved_.font);
    if (backgroundMode_ == BackgroundMode::Opaque) {
        const QFontMetricsF fm(resolved_.font);
        painter_.fillRect(QRectF(0, 0, fm.horizontalAdvance(s), fm.height()), Qt::white);
    }
    painter_.setPen(qColour(textColour_));
    painter_.drawText(QPointF(0, resolved_.ascent), s);
    painter_.restore();
}

} // namespace corvane
