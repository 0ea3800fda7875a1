#include "data_preview.h"

#include <QPainter>
#include <algorithm>
#include <cmath>

#include "text/text.h"

namespace newqpi {

namespace {

// Between the value axis's texts and the frame, in pixels.
constexpr int sideGap = 3;

} // namespace

DataPreview::DataPreview(QWidget* parent) : QWidget(parent) {
    setMinimumSize(200, 120);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
    setToolTip(tr("The imported data: each pair as a point, the value against T"));
}

void DataPreview::setPairs(QVector<QPointF> pairs, const QString& valueName,
                           const QString& argumentName) {
    pairs_ = std::move(pairs);
    valueName_ = valueName;
    argumentName_ = argumentName;
    update();
}

namespace {

// "3.6e-05" as "3.6e-5", "1e+06" as "1e6".
std::string compactExponent(std::string text) {
    const std::size_t e = text.find('e');
    if (e == std::string::npos) return text;
    std::size_t digits = e + 1;
    std::string sign;
    if (text[digits] == '-') sign = "-";
    if (text[digits] == '-' || text[digits] == '+') ++digits;
    while (digits + 1 < text.size() && text[digits] == '0') ++digits;
    return text.substr(0, e + 1) + sign + text.substr(digits);
}

} // namespace

QString axisEndText(double value, double low, double high) {
    // A thousandth of the axis, and never more than half a percent of the value: 1.8 K stays
    // "1.8" beside 300 K.
    const double tolerance = std::min(std::fabs(high - low) / 1000, std::fabs(value) / 200);
    if (!std::isfinite(value) || !std::isfinite(tolerance))
        return QString::fromStdString(corvane::formatC("%g", value));
    // The shortest fixed form and the shortest with an exponent; fixed unless that is two
    // characters longer or more ("0.003", "0.00012", but "1.2e-5").
    std::string fixed, exponent;
    const auto consider = [&](std::string& best, std::string text) {
        double read = 0;
        if (!corvane::parseReal(text, read) || std::fabs(read - value) > tolerance) return;
        if (read == 0) text = "0"; // never "-0" or "0.00"
        if (best.empty() || text.size() < best.size()) best = text;
    };
    for (int decimals = 0; decimals <= 6; ++decimals)
        consider(fixed, corvane::formatC("%.*f", decimals, value));
    for (int digits = 1; digits <= 6; ++digits)
        consider(exponent, compactExponent(corvane::formatC("%.*e", digits - 1, value)));
    std::string best = fixed;
    if (best.empty() || (!exponent.empty() && exponent.size() + 1 < fixed.size())) best = exponent;
    if (best.empty()) best = corvane::formatC("%g", value);
    return QString::fromStdString(best);
}

DataPreview::Axes DataPreview::axes() const {
    Axes a;
    if (!pairs_.isEmpty()) {
        a.tLow = a.tHigh = pairs_[0].x();
        a.vLow = a.vHigh = pairs_[0].y();
    }
    for (const QPointF& p : pairs_) {
        a.tLow = std::min(a.tLow, p.x());
        a.tHigh = std::max(a.tHigh, p.x());
        a.vLow = std::min(a.vLow, p.y());
        a.vHigh = std::max(a.vHigh, p.y());
    }
    if (a.tHigh == a.tLow) a.tHigh = a.tLow + 1;
    if (a.vHigh == a.vLow) a.vHigh = a.vLow + 1;
    a.tLowText = axisEndText(a.tLow, a.tLow, a.tHigh);
    a.tHighText = axisEndText(a.tHigh, a.tLow, a.tHigh);
    a.vLowText = axisEndText(a.vLow, a.vLow, a.vHigh);
    a.vHighText = axisEndText(a.vHigh, a.vLow, a.vHigh);
    return a;
}

QRect DataPreview::frame(const Axes& axes) const {
    const QFontMetrics metrics(font());
    const int margin = metrics.height() / 2;
    int side = metrics.horizontalAdvance(valueName_);
    if (!pairs_.isEmpty())
        for (const QString& text : {axes.vLowText, axes.vHighText})
            side = std::max(side, metrics.horizontalAdvance(text));
    return rect().adjusted(margin + side + sideGap, margin, -margin, -margin - metrics.height());
}

void DataPreview::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.fillRect(rect(), palette().base());
    const QFontMetrics metrics(font());
    const Axes a = axes();
    const QRect frame = this->frame(a);
    painter.setPen(palette().color(QPalette::Mid));
    painter.drawRect(frame);
    painter.setPen(palette().color(QPalette::Text));
    if (pairs_.isEmpty()) {
        painter.drawText(frame, Qt::AlignCenter, tr("No data yet"));
        return;
    }
    const QRectF inner = QRectF(frame).adjusted(4, 4, -4, -4); // markers stay inside the frame
    const auto place = [&](const QPointF& p) {
        return QPointF(inner.left() + (p.x() - a.tLow) / (a.tHigh - a.tLow) * inner.width(),
                       inner.bottom() - (p.y() - a.vLow) / (a.vHigh - a.vLow) * inner.height());
    };
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setBrush(QColor(0x1f, 0x5f, 0xaf));
    painter.setPen(Qt::NoPen);
    for (const QPointF& p : pairs_) painter.drawEllipse(place(p), 2.5, 2.5);
    painter.setPen(palette().color(QPalette::Text));
    const QRect below(frame.left(), frame.bottom() + 2, frame.width(), metrics.height());
    painter.drawText(below, Qt::AlignLeft | Qt::AlignTop, a.tLowText);
    painter.drawText(below, Qt::AlignHCenter | Qt::AlignTop, argumentName_);
    painter.drawText(below, Qt::AlignRight | Qt::AlignTop, a.tHighText);
    const QRect side(0, frame.top(), frame.left() - sideGap, frame.height());
    painter.drawText(side, Qt::AlignRight | Qt::AlignTop, a.vHighText);
    painter.drawText(side, Qt::AlignRight | Qt::AlignVCenter, valueName_);
    painter.drawText(side, Qt::AlignRight | Qt::AlignBottom, a.vLowText);
}

} // namespace newqpi
